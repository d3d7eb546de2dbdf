// Bounded string copy of the host runtime.
#pragma once

#include <cstddef>

#include "ApiExport.h"

// Copies at most size - 1 bytes of src into dst and always terminates dst when size is non-zero.
// Returns the number of characters copied (terminator not counted).
SC_API size_t safe_strlcpyA(char* dst, const char* src, size_t size);
