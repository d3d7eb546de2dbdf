// The cef subcommands: dump, encode, check and status.
#include "Commands.h"

#include <algorithm>
#include <filesystem>
#include <functional>
#include <iostream>
#include <iterator>
#include <new>
#include <vector>

#include "BencodeFile.h"
#include "JsonForm.h"

namespace cef {

namespace {

// Runs `work`; nothing thrown inside gets out.
int Guarded(const std::function<int()>& work) {
  try {
    return work();
  } catch (const std::bad_alloc&) {
    return Fail("out of memory");
  } catch (const std::exception& ex) {
    return Fail(ex.what());
  } catch (...) {
    return Fail("unexpected failure");
  }
}

bool ReadStandardInput(std::string& bytes) {
  std::string content((std::istreambuf_iterator<char>(std::cin)), std::istreambuf_iterator<char>());
  if (std::cin.bad()) return false;
  bytes = std::move(content);
  return true;
}

int FinishOutput() {
  std::cout.flush();
  if (!std::cout) return Fail("standard output: write failed");
  return kExitOk;
}

// The text lines of a small text file, each without its line end, at most `limit` of them.
std::vector<std::string> TextLines(const std::string& bytes, size_t limit, bool& more) {
  std::vector<std::string> lines;
  size_t start = 0;
  more = false;
  while (start < bytes.size()) {
    if (lines.size() == limit) {
      more = true;
      break;
    }
    size_t end = bytes.find('\n', start);
    if (end == std::string::npos) end = bytes.size();
    std::string line = bytes.substr(start, end - start);
    if (!line.empty() && line.back() == '\r') line.pop_back();
    lines.push_back(line);
    start = end + 1;
  }
  return lines;
}

// A line of a text file shown as it is, unless it holds bytes a terminal should not get.
std::string ShownLine(const std::string& line) {
  bool plain = std::all_of(line.begin(), line.end(), [](char c) { return static_cast<unsigned char>(c) >= 0x20 && c != 0x7F; });
  return plain && IsValidUtf8(line) ? line : Printable(line);
}

void StatusOfOutbound(const std::filesystem::path& outbound) {
  std::error_code ec;
  std::filesystem::directory_iterator it(outbound, ec);
  if (ec) {
    std::cout << "  outbound: " << (ec == std::errc::no_such_file_or_directory ? "missing" : ec.message()) << '\n';
    return;
  }
  std::vector<std::filesystem::path> files;
  for (; !ec && it != std::filesystem::directory_iterator(); it.increment(ec)) files.push_back(it->path());
  std::sort(files.begin(), files.end());
  std::cout << "  outbound: " << files.size() << (files.size() == 1 ? " file" : " files") << '\n';
  for (const auto& path : files) {
    std::string name = ShownLine(path.filename().string());
    std::string file = path.string();
    Guarded([&]() -> int {
      LoadedFile loaded;
      std::string error;
      if (!LoadBencodeFile(file, loaded, error)) {
        std::cout << "    " << name << ": " << error.substr(std::min(error.size(), file.size() + 2)) << '\n';
        return kExitFailure;
      }
      std::cout << "    " << name << "  " << loaded.size << " bytes  "
                << (loaded.Loaded() ? "ok, " + loaded.Summary() : loaded.Failure(true)) << '\n';
      return kExitOk;
    });
  }
}

void StatusOfHistory(const std::filesystem::path& history) {
  constexpr size_t kShownLines = 20;
  std::string bytes, error;
  std::error_code ec;
  if (!std::filesystem::exists(history, ec)) {
    std::cout << "  history: missing\n";
    return;
  }
  if (!ReadWholeFile(history.string(), bytes, error)) {
    std::cout << "  history: " << error << '\n';
    return;
  }
  bool more = false;
  std::vector<std::string> lines = TextLines(bytes, kShownLines, more);
  std::cout << (lines.empty() ? "  history: empty\n" : "  history:\n");
  for (const std::string& line : lines) std::cout << "    " << ShownLine(line) << '\n';
  if (more) std::cout << "    ...\n";
}

}  // namespace

int Fail(const std::string& message) {
  // Messages quote input (a parser's "last read" text, a file name), which may hold any byte; the line
  // stays one line of text.
  const bool utf8 = IsValidUtf8(message);
  std::string line;
  for (char ch : message) {
    unsigned char c = static_cast<unsigned char>(ch);
    if (c < 0x20 || c == 0x7F || (c >= 0x80 && !utf8)) {
      line += Printable(std::string(1, ch)).substr(1, 4);
    } else {
      line += ch;
    }
  }
  std::cerr << "cef: " << line << '\n';
  return kExitFailure;
}

int Dump(const std::string& path, bool compact) {
  return Guarded([&]() -> int {
    LoadedFile file;
    std::string error;
    if (!LoadBencodeFile(path, file, error)) return Fail(error);
    if (!file.Loaded()) return Fail(path + ": " + file.Failure(true));
    // A file can load and still have been read in part (a repeated key ends its dictionary early).
    for (const std::string& line : file.records) std::cerr << "cef: warning: " << path << ": " << line << '\n';
    WriteJson(*file.Root(), std::cout, compact ? -1 : 2);
    return FinishOutput();
  });
}

int Encode(const std::string& jsonPath, const std::string& outPath) {
  std::string json, error;
  if (jsonPath == "-") {
    if (!ReadStandardInput(json)) return Fail("standard input: read failed");
  } else if (!ReadWholeFile(jsonPath, json, error)) {
    return Fail(error);
  }
  const std::string source = jsonPath == "-" ? std::string("standard input") : jsonPath;
  return Guarded([&]() -> int {
    JsonTree tree;
    std::string reason;
    if (!BuildFromJson(json, tree, reason)) return Fail(source + ": " + reason);
    LogCollector collector;
    EBencodeResult result;
    if (tree.dictionary) {
      tree.dictionary->SetBencodeFileName(outPath);
      result = tree.dictionary->Externalize(true);
    } else {
      tree.list->SetBencodeFileName(outPath);
      result = tree.list->Externalize(true);
    }
    std::vector<std::string> records = collector.Take();
    if (result != eBencodeOk) {
      std::string why = records.empty() ? std::string() : ": " + records.front();
      return Fail(outPath + ": cannot write: " + ResultText(result) + why);
    }
    return kExitOk;
  });
}

int Check(const std::string& path) {
  return Guarded([&]() -> int {
    LoadedFile file;
    std::string error;
    if (!LoadBencodeFile(path, file, error)) return Fail(error);
    if (!file.Loaded()) {
      std::cout << path << ": " << file.Failure(false) << '\n';
      for (const std::string& line : file.records) std::cout << "  reason: " << line << '\n';
      FinishOutput();
      return kExitFailure;
    }
    std::cout << path << ": ok, " << file.Summary() << ", " << file.size << " bytes\n";
    std::string bytes;
    if (ReadWholeFile(path, bytes, error)) {
      std::string canonical = CanonicalText(*file.Root());
      if (canonical != bytes) {
        std::cout << "  note: not in canonical form; written back it would be " << canonical.size() << " bytes\n";
      }
    }
    for (const std::string& line : file.records) std::cout << "  log: " << line << '\n';
    return FinishOutput();
  });
}

int Status(const std::string& directory) {
  std::error_code ec;
  const std::filesystem::path dir(directory);
  if (!std::filesystem::is_directory(dir, ec)) {
    return Fail(directory + ": " + (ec ? ec.message() : std::string("not a directory")));
  }
  std::cout << directory << '\n';
  bool disabled = std::filesystem::exists(dir / "moduledata" / "cefdisable", ec);
  std::cout << "  feedback: " << (disabled ? "disabled (moduledata/cefdisable exists)" : "enabled (no moduledata/cefdisable)")
            << '\n';
  StatusOfOutbound(dir / "outbound");
  StatusOfHistory(dir / "history");
  return FinishOutput();
}

}  // namespace cef
