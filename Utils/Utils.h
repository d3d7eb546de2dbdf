// Path, encoding and hashing utilities that the library exports for the suite's other modules.
// Every function is stateless and takes no lock, so any thread may call it.
#pragma once

#include <string>
#include <vector>

#include "ApiExport.h"

namespace OvRuntime {
namespace Utils {

// Result codes of the functions that return an int.
constexpr int UTILS_OK = 0;
constexpr int UTILS_ERR_MORE_DATA = -9992;          // no buffer was given; the needed size has been returned
constexpr int UTILS_ERR_INVALID_PARAMETER = -9994;  // a null pointer, zero size or out-of-range length
constexpr int UTILS_ERR_FILE_NOT_FOUND = -9995;     // the file could not be opened, or its size is 0
constexpr int UTILS_ERR_FAILED = -9999;             // a read, digest or coding step failed

// Joins two path parts with `separator` unless one of them already carries it at the joint; a trailing
// separator of the result is dropped. An empty part gives the other part unchanged.
OVF_API std::string ConcatenatePath(std::string const& first, std::string const& second,
                                    std::string const& separator);

// Copies the text after the last "/" of `path` (all of it when there is none) into `name`, cut to
// nameSize - 1 bytes and terminated.
OVF_API int GetFileNameFromPath(char const* path, char* name, unsigned int nameSize);

// Appends the file name of each path to `names`, which is not cleared first; names are cut at 1023 bytes.
OVF_API int GetFileNamesFromPaths(std::vector<std::string> const& paths, std::vector<std::string>& names);

// The file's size cut to 32 bits, or 4294967295 when it cannot be stat'ed.
OVF_API unsigned int GetFileSize(std::string const& path);

// With a buffer and a non-zero size: reads up to `size` bytes (no terminator is added) and sets `size` to
// the count read. Otherwise a size query: sets `size` to GetFileSize(path) and returns UTILS_ERR_MORE_DATA,
// or UTILS_ERR_FILE_NOT_FOUND for a size of 0. A missing file therefore answers a size query with
// UTILS_ERR_MORE_DATA and 4294967295.
OVF_API int GetFileTextContent(std::string const& path, char* buffer, unsigned int& size);

// Sets `path` to "/opt"; always true.
OVF_API bool GetAllUsersAppDataPath(std::string& path);

// The product's build version, fixed when the project is configured.
OVF_API std::string GetBuildVersion();
// Always the empty string.
OVF_API std::string GetBuildTag();

// Each byte as two lower-case hexadecimal digits.
OVF_API std::string EncodeToHex(std::string const& bytes);
// Pairs of hexadecimal digits back to bytes. Non-digits count as 0; an odd last digit gives its value * 16.
OVF_API std::string EncodeHexToByte(std::string const& hex);

// Wide and multibyte text are the same narrow text here: a copy, and its byte count. Both return 0.
OVF_API int WideCharToMBCS(std::string const& in, std::string& out);
OVF_API int WideCharToMBLength(std::string const& in, unsigned long& length);

// Whole-text, case-sensitive wildcard match: "*" any run, "?" one character, a backslash makes the next
// pattern character literal. A pattern of a single backslash matches only the empty text.
OVF_API bool MatchPattern(std::string const& text, std::string const& pattern);

// The raw 20-byte SHA-1 digest (not hexadecimal) of `length` bytes at `data`.
OVF_API int GetSHA1Hash(unsigned char const* data, unsigned long length, std::string& digest);

// Base64 of the first `length` bytes of `input`, line-broken: a line end after every 64 characters and
// after the last line.
OVF_API int Base64Encode(std::string const& input, int length, std::string& output);
// Decodes the first `length` bytes of `input`, read as lines the way Base64Encode writes them (each with its
// line end). `outputLength` is 0 unless it succeeds.
OVF_API int Base64Decode(std::string const& input, int length, std::string& output, int& outputLength);

}  // namespace Utils
}  // namespace OvRuntime
