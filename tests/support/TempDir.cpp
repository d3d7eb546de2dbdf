// Temporary directories for tests.
#include "TempDir.h"

#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace fs = std::filesystem;

TempDir::TempDir() {
  const char* base = getenv("TMPDIR");
  path_ = std::string(base && *base ? base : "/tmp") + "/ovf-test-XXXXXX";
  if (mkdtemp(path_.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
}

TempDir::~TempDir() {
  std::error_code ec;
  // Tests may leave unreadable entries behind; make them removable first.
  for (fs::recursive_directory_iterator it(path_, ec), end; !ec && it != end; it.increment(ec)) {
    fs::permissions(it->path(), fs::perms::owner_all, fs::perm_options::add, ec);
  }
  fs::remove_all(path_, ec);
}

std::string TempDir::Write(const std::string& name, const std::string& bytes) const {
  std::ofstream(File(name), std::ios::binary | std::ios::trunc) << bytes;
  return File(name);
}

std::string TempDir::Read(const std::string& path) {
  std::ostringstream s;
  s << std::ifstream(path, std::ios::binary).rdbuf();
  return s.str();
}

bool TempDir::Exists(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0;
}
