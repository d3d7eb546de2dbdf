// File descriptors and small whole-file reads for the system helpers; private to the system component.
#pragma once

#include <cstddef>
#include <string>

#include "UniqueFd.h"

namespace SuiteSystem {

// Reads all of a small file into `text`. 0, or an errno value (EFBIG when the file holds more than `limit`
// bytes); `text` is assigned only on success.
int ReadSmallFile(const std::string& path, size_t limit, std::string& text);

// The runtime's code for an errno value.
long CodeFromErrno(int error);

}  // namespace SuiteSystem
