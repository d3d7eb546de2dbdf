// A fresh temporary directory per test, removed with everything in it when the object goes away.
#pragma once

#include <string>

class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  // path() + "/" + name
  std::string File(const std::string& name) const { return path_ + "/" + name; }
  // Writes `bytes` to File(name) and returns its path.
  std::string Write(const std::string& name, const std::string& bytes) const;
  // The whole content of a file, or "" when it cannot be read.
  static std::string Read(const std::string& path);
  static bool Exists(const std::string& path);

 private:
  std::string path_;
};
