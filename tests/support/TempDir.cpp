// Temporary directories for tests.
#include "TempDir.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

TempDir::TempDir() {
  const char* base = getenv("TMPDIR");
  std::string pattern = std::string(base && *base ? base : "/tmp") + "/ovf-test-XXXXXX";
  if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  path_ = pattern;
}

TempDir::~TempDir() {
  std::error_code ec;
  // Tests may leave unreadable entries behind; make them removable first.
  for (auto it = std::filesystem::recursive_directory_iterator(path_, ec);
       !ec && it != std::filesystem::recursive_directory_iterator(); it.increment(ec)) {
    std::filesystem::permissions(it->path(), std::filesystem::perms::owner_all,
                                 std::filesystem::perm_options::add, ec);
  }
  std::filesystem::remove_all(path_, ec);
}

std::string TempDir::Write(const std::string& name, const std::string& bytes) const {
  std::string p = File(name);
  std::ofstream out(p, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  return p;
}

std::string TempDir::Read(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

bool TempDir::Exists(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0;
}
