// Throughput and peak memory of the bencode classes on two files just under the 10 MiB load limit: a module
// data dictionary of many small nested entries, and a list of large base64-like strings. When libtorrent is
// present, the same work done by its decoder and encoder runs in the same process as a yardstick, and a plain
// memcpy of the file's size marks the memory bandwidth. bench/README.md says how to read the figures.
#include <malloc.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <new>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "AppLog.h"
#include "FileList.h"
#include "PhoneHome/Bencode.h"

#ifdef OVF_BENCH_LIBTORRENT
#include <libtorrent/bdecode.hpp>
#include <libtorrent/bencode.hpp>
#include <libtorrent/entry.hpp>
#endif

// ---- Allocation accounting -------------------------------------------------------------------------------
// Counting is switched on only around the memory measurements, so the timed cases pay one branch per
// allocation. Sizes are the allocator's usable sizes, which is what the process really holds; memory that the
// bencode classes keep cached for reuse counts as held.

namespace {

// Read by every allocation on every thread; written only while no other thread allocates.
std::atomic<bool> g_countAllocations{false};
long long g_allocatedNow = 0;
long long g_allocatedPeak = 0;

void* Allocate(std::size_t size) {
  void* p = std::malloc(size != 0 ? size : 1);
  if (p == nullptr) throw std::bad_alloc();
  if (g_countAllocations.load(std::memory_order_relaxed)) {
    g_allocatedNow += static_cast<long long>(malloc_usable_size(p));
    if (g_allocatedNow > g_allocatedPeak) g_allocatedPeak = g_allocatedNow;
  }
  return p;
}

void Release(void* p) noexcept {
  if (p == nullptr) return;
  if (g_countAllocations.load(std::memory_order_relaxed)) g_allocatedNow -= static_cast<long long>(malloc_usable_size(p));
  std::free(p);
}

// Counts the bytes allocated and held between its construction and Stop().
class AllocationMeter {
 public:
  AllocationMeter() {
    g_allocatedNow = 0;
    g_allocatedPeak = 0;
    g_countAllocations = true;
  }
  ~AllocationMeter() { g_countAllocations = false; }
  void Stop() { g_countAllocations = false; }
  long long Held() const { return g_allocatedNow; }
  long long Peak() const { return g_allocatedPeak; }
};

}  // namespace

void* operator new(std::size_t size) { return Allocate(size); }
void* operator new[](std::size_t size) { return Allocate(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  try {
    return Allocate(size);
  } catch (...) {
    return nullptr;
  }
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  try {
    return Allocate(size);
  } catch (...) {
    return nullptr;
  }
}
void operator delete(void* p) noexcept { Release(p); }
void operator delete[](void* p) noexcept { Release(p); }
void operator delete(void* p, std::size_t) noexcept { Release(p); }
void operator delete[](void* p, std::size_t) noexcept { Release(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { Release(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { Release(p); }

namespace {

// ---- Test files -------------------------------------------------------------------------------------------

constexpr long kFileBudget = 10400000;  // stop generating here, below the 10485760-byte load limit
constexpr size_t kLargeString = 524288;

// A list that frees its bound stream, so repeated loads do not leak.
using cef::CFileList;

struct TestFile {
  std::string name;
  std::string path;
  bool isDictionary = false;
  std::string bytes;
  long values = 0;  // every value, containers and list items included
  long keys = 0;
};

size_t Digits(unsigned long long v) {
  size_t n = 1;
  while (v >= 10) {
    v /= 10;
    ++n;
  }
  return n;
}

// A module data dictionary: per module a few levels of settings and counters, with short keys and values.
class ModuleDataGenerator {
 public:
  explicit ModuleDataGenerator(TestFile& file) : file_(file), random_(20240611) {}

  void Fill(CBencodeDictionary& root) {
    for (int module = 0; size_ < kFileBudget; ++module) {
      char key[24];
      std::snprintf(key, sizeof key, "Module%05d", module);
      CBencodeDictionary* child = new CBencodeDictionary(true);
      AddKey(key);
      size_ += 2;
      ++file_.values;
      FillDictionary(*child, 2);
      root.Insert(key, child);
    }
    size_ += 2;
  }

 private:
  int Uniform(int low, int high) { return std::uniform_int_distribution<int>(low, high)(random_); }

  std::string ShortText(int low, int high) {
    static const char kLetters[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._-";
    std::string text(static_cast<size_t>(Uniform(low, high)), ' ');
    for (char& c : text) c = kLetters[Uniform(0, sizeof kLetters - 2)];
    return text;
  }

  void AddKey(const std::string& key) {
    size_ += static_cast<long>(Digits(key.size()) + 1 + key.size());
    ++file_.keys;
  }

  long IntegerSize(long v) { return static_cast<long>(2 + (v < 0) + Digits(static_cast<unsigned long long>(v < 0 ? -v : v))); }

  // A scalar for a dictionary entry or a list item: half integers, half short strings.
  void Scalar(const std::function<void(long)>& integer, const std::function<void(const std::string&)>& text) {
    ++file_.values;
    if (Uniform(0, 1) == 0) {
      long v = Uniform(0, 3) == 0 ? Uniform(-100000, 100000) : Uniform(0, 999);
      size_ += IntegerSize(v);
      integer(v);
    } else {
      std::string s = ShortText(2, 24);
      size_ += static_cast<long>(Digits(s.size()) + 1 + s.size());
      text(s);
    }
  }

  void FillDictionary(CBencodeDictionary& dict, int depth) {
    int entries = Uniform(2, 7);
    for (int i = 0; i < entries; ++i) {
      std::string key = ShortText(4, 14);
      CBencode::EContentType type;
      if (dict.GetContentType(key, type)) continue;
      AddKey(key);
      int kind = depth < 8 ? Uniform(0, 9) : 9;
      if (kind < 2) {
        CBencodeDictionary* child = new CBencodeDictionary(true);
        size_ += 2;
        ++file_.values;
        FillDictionary(*child, depth + 1);
        dict.Insert(key, child);
      } else if (kind < 4) {
        CBencodeList* child = new CBencodeList(true);
        size_ += 2;
        ++file_.values;
        FillList(*child, depth + 1);
        dict.Insert(key, child);
      } else {
        Scalar([&](long v) { dict.Insert(key, v); }, [&](const std::string& s) { dict.Insert(key, s); });
      }
    }
  }

  void FillList(CBencodeList& list, int depth) {
    int items = Uniform(1, 5);
    for (int i = 0; i < items; ++i) {
      if (depth < 8 && Uniform(0, 9) == 0) {
        CBencodeDictionary* child = nullptr;
        list.Append(child);
        size_ += 2;
        ++file_.values;
        FillDictionary(*child, depth + 1);
      } else {
        Scalar([&](long v) { list.Append(v); }, [&](const std::string& s) { list.Append(s); });
      }
    }
  }

  TestFile& file_;
  std::mt19937_64 random_;
  long size_ = 2;
};

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

bool MakeModuleDataFile(TestFile& file) {
  CBencodeDictionary root(false);
  ModuleDataGenerator(file).Fill(root);
  root.SetBencodeFileName(file.path);
  if (root.Externalize(true) != eBencodeOk) return false;
  file.bytes = ReadFile(file.path);
  return true;
}

bool MakeLargeStringFile(TestFile& file) {
  static const char kBase64[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::mt19937_64 random(7);
  CFileList root(false);
  long size = 2;
  while (true) {
    size_t length = kLargeString;
    long room = static_cast<long>(CBencodeStream::sm_iMaxFileSize) - size - 8;
    if (room <= 0) break;
    if (static_cast<long>(length) > room) length = static_cast<size_t>(room);
    std::string text(length, 'A');
    for (char& c : text) c = kBase64[random() & 63];
    size += static_cast<long>(Digits(length) + 1 + length);
    root.Append(text);
    ++file.values;
    if (length < kLargeString) break;
  }
  ++file.values;
  root.SetBencodeFileName(file.path);
  if (root.Externalize(true) != eBencodeOk) return false;
  file.bytes = ReadFile(file.path);
  return true;
}

std::unique_ptr<CBencode> LoadFile(const TestFile& file) {
  EBencodeResult result;
  if (file.isDictionary) return std::make_unique<CBencodeDictionary>(file.path, result, false);
  return std::make_unique<CFileList>(file.path, result, false);
}

std::unique_ptr<CBencode> Empty(const TestFile& file) {
  if (file.isDictionary) return std::make_unique<CBencodeDictionary>(false);
  return std::make_unique<CBencodeList>(false);
}

// A stream with no file behind it holding the file's text.
std::unique_ptr<CBencodeStream> MemoryStream(const TestFile& file) {
  auto stream = std::make_unique<CBencodeStream>(std::string(), false);
  stream->Write(file.bytes.data(), file.bytes.size());
  return stream;
}

void SetThroughput(benchmark::State& state, const TestFile& file) {
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(file.bytes.size()));
}

// ---- Our classes ------------------------------------------------------------------------------------------

// Read and parse the file through the file-form constructor; the tree is destroyed outside the timing.
void Load(benchmark::State& state, const TestFile& file) {
  for (auto _ : state) {
    std::unique_ptr<CBencode> tree = LoadFile(file);
    benchmark::DoNotOptimize(tree.get());
    state.PauseTiming();
    tree.reset();
    state.ResumeTiming();
  }
  SetThroughput(state, file);
}

// Parse only, from a stream already in memory: the same work as a decoder handed a buffer.
void Parse(benchmark::State& state, const TestFile& file) {
  auto stream = MemoryStream(file);
  for (auto _ : state) {
    state.PauseTiming();
    stream->Clear();
    stream->Seekg(0, std::ios_base::beg);
    std::unique_ptr<CBencode> tree = Empty(file);
    state.ResumeTiming();
    if (!tree->Internalize(*stream)) state.SkipWithError("parse failed");
    benchmark::DoNotOptimize(tree.get());
    state.PauseTiming();
    tree.reset();
    state.ResumeTiming();
  }
  SetThroughput(state, file);
}

template <class Container>
void SerialiseInto(benchmark::State& state, const TestFile& file, bool flush) {
  EBencodeResult result;
  Container tree(file.path, result, false);
  for (auto _ : state) {
    if (tree.Externalize(flush) != eBencodeOk) state.SkipWithError("externalize failed");
  }
  SetThroughput(state, file);
}

// Serialise into the bound stream; with `flush` also write the file.
void Serialise(benchmark::State& state, const TestFile& file, bool flush) {
  if (file.isDictionary) {
    SerialiseInto<CBencodeDictionary>(state, file, flush);
  } else {
    SerialiseInto<CFileList>(state, file, flush);
  }
}

// Serialise into a new, empty stream each time: the append path, as an encoder writing into a fresh buffer.
void SerialiseToEmptyStream(benchmark::State& state, const TestFile& file) {
  std::unique_ptr<CBencode> tree = LoadFile(file);
  for (auto _ : state) {
    auto stream = std::make_unique<CBencodeStream>(std::string(), false);
    if (!tree->Externalize(*stream)) state.SkipWithError("externalize failed");
    benchmark::DoNotOptimize(stream.get());
    state.PauseTiming();  // the stream's buffer is freed outside the timing
    stream.reset();
    state.ResumeTiming();
  }
  SetThroughput(state, file);
}

void Destroy(benchmark::State& state, const TestFile& file) {
  for (auto _ : state) {
    state.PauseTiming();
    std::unique_ptr<CBencode> tree = LoadFile(file);
    state.ResumeTiming();
    tree.reset();
  }
  SetThroughput(state, file);
}

void Memcpy(benchmark::State& state, const TestFile& file) {
  std::vector<char> target(file.bytes.size());
  for (auto _ : state) {
    std::memcpy(target.data(), file.bytes.data(), file.bytes.size());
    benchmark::DoNotOptimize(target.data());
    benchmark::ClobberMemory();
  }
  SetThroughput(state, file);
}

// Runs `work` on a new thread. The bencode classes keep freed nodes in a per-thread cache for reuse, so a
// measurement on a thread that has parsed before would see its allocations served from that cache.
void OnFreshThread(const std::function<void()>& work) { std::thread(work).join(); }

// Peak bytes allocated while loading the file, beside the file's size and the tree's own size (what a parse
// from memory leaves allocated). Target: peak <= tree + 1.2 x file.
void LoadPeakMemory(benchmark::State& state, const TestFile& file) {
  long long tree = 0, peak = 0, held = 0;
  for (auto _ : state) {
    auto stream = MemoryStream(file);
    OnFreshThread([&] {
      std::unique_ptr<CBencode> parsed = Empty(file);
      AllocationMeter meter;
      parsed->Internalize(*stream);
      tree = meter.Held();
      meter.Stop();
    });
    stream.reset();
    OnFreshThread([&] {
      AllocationMeter meter;
      std::unique_ptr<CBencode> loaded = LoadFile(file);
      peak = meter.Peak();
      held = meter.Held();
      meter.Stop();
    });
  }
  const double fileBytes = static_cast<double>(file.bytes.size());
  state.counters["file_MB"] = fileBytes / 1e6;
  state.counters["tree_MB"] = static_cast<double>(tree) / 1e6;
  state.counters["held_after_load_MB"] = static_cast<double>(held) / 1e6;
  state.counters["peak_MB"] = static_cast<double>(peak) / 1e6;
  state.counters["peak_minus_tree_per_file"] = (static_cast<double>(peak - tree)) / fileBytes;
}

#ifdef OVF_BENCH_LIBTORRENT
// ---- libtorrent, the yardstick ----------------------------------------------------------------------------

struct WalkSum {
  long long integers = 0;
  long long bytes = 0;
};

void Walk(const lt::bdecode_node& node, WalkSum& sum) {
  switch (node.type()) {
    case lt::bdecode_node::int_t:
      sum.integers += node.int_value();
      break;
    case lt::bdecode_node::string_t:
      sum.bytes += node.string_length();
      break;
    case lt::bdecode_node::list_t:
      for (int i = 0, n = node.list_size(); i < n; ++i) Walk(node.list_at(i), sum);
      break;
    case lt::bdecode_node::dict_t:
      for (int i = 0, n = node.dict_size(); i < n; ++i) {
        auto entry = node.dict_at(i);
        sum.bytes += static_cast<long long>(entry.first.size());
        Walk(entry.second, sum);
      }
      break;
    default:
      break;
  }
}

lt::bdecode_node Decode(const char* data, size_t size) {
  lt::error_code ec;
  lt::bdecode_node node = lt::bdecode({data, static_cast<std::ptrdiff_t>(size)}, ec, nullptr, 100, 100000000);
  if (ec) std::fprintf(stderr, "bdecode: %s\n", ec.message().c_str());
  return node;
}

// bdecode from memory, then a walk touching every value, as a user of the tree would.
void LtDecodeWalk(benchmark::State& state, const TestFile& file) {
  for (auto _ : state) {
    lt::bdecode_node node = Decode(file.bytes.data(), file.bytes.size());
    WalkSum sum;
    Walk(node, sum);
    benchmark::DoNotOptimize(sum);
  }
  SetThroughput(state, file);
}

// The same with the file read first, to set beside our file-form load.
void LtReadDecodeWalk(benchmark::State& state, const TestFile& file) {
  std::vector<char> buffer;
  for (auto _ : state) {
    FILE* f = std::fopen(file.path.c_str(), "rb");
    if (f == nullptr) {
      state.SkipWithError("cannot open the file");
      break;
    }
    buffer.resize(file.bytes.size());
    size_t n = std::fread(buffer.data(), 1, buffer.size(), f);
    std::fclose(f);
    lt::bdecode_node node = Decode(buffer.data(), n);
    WalkSum sum;
    Walk(node, sum);
    benchmark::DoNotOptimize(sum);
  }
  SetThroughput(state, file);
}

lt::entry ToEntry(const CBencode& value) {
  switch (value.GetType()) {
    case CBencode::eInteger: {
      long v = 0;
      value.Get(v);
      return lt::entry(static_cast<std::int64_t>(v));
    }
    case CBencode::eString: {
      std::string s;
      value.Get(s);
      return lt::entry(s);
    }
    case CBencode::eList: {
      lt::entry e(lt::entry::list_t);
      for (const CBencode* item : static_cast<const CBencodeList&>(value).Items()) e.list().push_back(ToEntry(*item));
      return e;
    }
    case CBencode::eDictionary: {
      lt::entry e(lt::entry::dictionary_t);
      for (const auto& [key, item] : static_cast<const CBencodeDictionary&>(value).Items()) {
        e.dict().emplace(key, ToEntry(*item));
      }
      return e;
    }
  }
  return lt::entry();
}

void LtEncode(benchmark::State& state, const TestFile& file) {
  std::unique_ptr<CBencode> tree = LoadFile(file);
  lt::entry entry = ToEntry(*tree);
  tree.reset();
  std::vector<char> out;
  out.reserve(file.bytes.size());
  lt::bencode(std::back_inserter(out), entry);
  if (std::string(out.begin(), out.end()) != file.bytes) {
    state.SkipWithError("lt::bencode output differs from our file");
    return;
  }
  for (auto _ : state) {
    out.clear();
    lt::bencode(std::back_inserter(out), entry);
    benchmark::DoNotOptimize(out.data());
  }
  SetThroughput(state, file);
}

void LtDecodePeakMemory(benchmark::State& state, const TestFile& file) {
  long long peak = 0;
  for (auto _ : state) {
    OnFreshThread([&] {
      AllocationMeter meter;
      lt::bdecode_node node = Decode(file.bytes.data(), file.bytes.size());
      peak = meter.Peak();
      meter.Stop();
      benchmark::DoNotOptimize(node);
    });
  }
  state.counters["file_MB"] = static_cast<double>(file.bytes.size()) / 1e6;
  state.counters["peak_MB"] = static_cast<double>(peak) / 1e6;
}
#endif

// A temporary directory removed with its files at the end.
class ScratchDirectory {
 public:
  ScratchDirectory() {
    const char* base = std::getenv("TMPDIR");
    std::string pattern = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/ovf-bench-XXXXXX";
    if (mkdtemp(pattern.data()) != nullptr) path_ = pattern;
  }
  ~ScratchDirectory() {
    std::error_code ec;
    if (!path_.empty()) std::filesystem::remove_all(path_, ec);
  }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  CAppLog::SetSink([](const LogRecord& record) { std::fprintf(stderr, "bencode: %s\n", record.text.c_str()); });

  ScratchDirectory scratch;
  if (scratch.path().empty()) {
    std::fprintf(stderr, "bench_bencode: cannot create a temporary directory\n");
    return 1;
  }
  static TestFile files[2];
  files[0].name = "moduledata";
  files[0].path = scratch.path() + "/moduledata.dat";
  files[0].isDictionary = true;
  files[1].name = "strings";
  files[1].path = scratch.path() + "/strings.dat";
  if (!MakeModuleDataFile(files[0]) || !MakeLargeStringFile(files[1])) {
    std::fprintf(stderr, "bench_bencode: cannot write the test files\n");
    return 1;
  }
  for (const TestFile& file : files) {
    std::fprintf(stderr, "%s: %zu bytes, %ld values, %ld keys\n", file.name.c_str(), file.bytes.size(), file.values,
                 file.keys);
  }

  for (const TestFile& file : files) {
    const TestFile* f = &file;
    auto add = [&](const char* what, void (*run)(benchmark::State&, const TestFile&)) {
      benchmark::RegisterBenchmark((std::string(what) + "/" + f->name).c_str(), [f, run](benchmark::State& s) { run(s, *f); })
          ->Unit(benchmark::kMillisecond);
    };
    add("Load", Load);
    add("Parse", Parse);
    benchmark::RegisterBenchmark(("Serialise/" + f->name).c_str(), [f](benchmark::State& s) { Serialise(s, *f, false); })
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark(("SerialiseAndWrite/" + f->name).c_str(),
                                 [f](benchmark::State& s) { Serialise(s, *f, true); })
        ->Unit(benchmark::kMillisecond);
    add("SerialiseToEmptyStream", SerialiseToEmptyStream);
    // Each timed destruction needs an untimed load first; a fixed count keeps the cheap cases from looping
    // for minutes to fill the minimum time.
    benchmark::RegisterBenchmark(("Destroy/" + f->name).c_str(), [f](benchmark::State& s) { Destroy(s, *f); })
        ->Iterations(30)
        ->Unit(benchmark::kMillisecond);
    add("Memcpy", Memcpy);
#ifdef OVF_BENCH_LIBTORRENT
    add("LtDecodeWalk", LtDecodeWalk);
    add("LtReadDecodeWalk", LtReadDecodeWalk);
    add("LtEncode", LtEncode);
#endif
    benchmark::RegisterBenchmark(("LoadPeakMemory/" + f->name).c_str(), [f](benchmark::State& s) { LoadPeakMemory(s, *f); })
        ->Iterations(1)
        ->Unit(benchmark::kMillisecond);
#ifdef OVF_BENCH_LIBTORRENT
    benchmark::RegisterBenchmark(("LtDecodePeakMemory/" + f->name).c_str(),
                                 [f](benchmark::State& s) { LtDecodePeakMemory(s, *f); })
        ->Iterations(1)
        ->Unit(benchmark::kMillisecond);
#endif
  }
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
