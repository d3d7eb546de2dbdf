// The cef subcommands. Each returns the process exit code and writes its answer to standard output and any
// error as one line on standard error.
#pragma once

#include <string>

namespace cef {

// Exit codes.
constexpr int kExitOk = 0;
constexpr int kExitFailure = 1;  // the command failed, or the file checked does not parse
constexpr int kExitUsage = 2;    // the command line is wrong

int Dump(const std::string& path, bool compact);
int Encode(const std::string& jsonPath, const std::string& outPath);
int Check(const std::string& path);
int Status(const std::string& directory);

// Prints "cef: <message>" on standard error, as one line, and returns kExitFailure.
int Fail(const std::string& message);

}  // namespace cef
