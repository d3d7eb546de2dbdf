// Directories for the host runtime: reading a directory's entry names, and creating a directory path.
#pragma once

#include <dirent.h>

#include <memory>
#include <string>

#include "ApiExport.h"
#include "SystemCodes.h"

// A listing of one directory, read one entry name at a time in the order the file system gives them, "." and
// ".." included. Usage: Directory dir; if (dir.Open(path) == 0) while (dir.Next(name)) ...
class SC_API Directory {
 public:
  Directory();
  ~Directory();
  Directory(const Directory&) = delete;
  Directory& operator=(const Directory&) = delete;

  // Opens the listing, closing any earlier one. 0, or SYS_E_INVALIDARG, SYS_E_NOT_FOUND, SYS_E_ACCESS_DENIED,
  // SYS_E_NOT_DIRECTORY, SYS_E_SYSTEM (the listing is then closed).
  long Open(const std::string& path);
  // The next entry name; false at the end of the listing, when none is open, or when reading fails, which
  // LastError() then tells apart from the end (it is 0 at the end).
  bool Next(std::string& name);
  long LastError() const { return m_lLastError; }
  void Close();
  bool IsOpen() const { return m_dir != nullptr; }

 private:
  struct Closer {
    void operator()(DIR* dir) const;
  };
  std::unique_ptr<DIR, Closer> m_dir;
  long m_lLastError = 0;
};

// Creates every missing directory of `path` (mode 0755 before the umask: other users may read the suite's
// data but only its service writes it). True when the whole path exists as directories afterwards, also when
// it already did; false for a null or empty path, when a component exists but is not a directory (symbolic
// links to directories count as directories), or when the system refuses a creation.
SC_API bool MakeSureDirectoryPathExists(const char* path);
SC_API bool MakeSureDirectoryPathExists(const std::string& path);
