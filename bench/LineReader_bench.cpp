// Throughput of the line readers over one generated file of log-like lines,
// against a plain std::getline loop. The argument is the file size in MB:
// --benchmark_filter=LineReader.*/16 runs the small size only.
#include <benchmark/benchmark.h>

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <map>
#include <random>
#include <string>

#include "util/BufferedLineReader.h"
#include "util/FileDescriptor.h"
#include "util/LineReader.h"
#include "util/Pathname.h"
#include "util/ReadableFileMapping.h"

namespace {

// One generated file per size, made on first use and removed at exit.
class BenchFiles {
 public:
  ~BenchFiles() {
    for (const auto& f : _files) f.second.unlink();
  }

  const Pathname& get(long megabytes) {
    auto it = _files.find(megabytes);
    if (it != _files.end()) return it->second;
    const char* tmp = std::getenv("TMPDIR");
    Pathname path(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp");
    path /= "kestro-linereader-bench-" + std::to_string(::getpid()) + "-" +
            std::to_string(megabytes) + ".log";
    write(path, static_cast<size_t>(megabytes) << 20);
    return _files.emplace(megabytes, path).first->second;
  }

 private:
  static void write(const Pathname& path, size_t bytes) {
    std::mt19937 rng(12345);
    std::string chunk;
    ScopedFileDescriptor fd(path.openCreateOrReplace(Pathname::CREATE_PRIVATE));
    size_t written = 0;
    while (written < bytes) {
      chunk.clear();
      while (chunk.size() < (1 << 20)) {
        chunk += "2024-06-11 12:34:56.789 INFO  [worker-";
        chunk += std::to_string(rng() % 64);
        chunk += "] request handled: ";
        const size_t len = 10 + rng() % 180;
        for (size_t i = 0; i < len; ++i) chunk.push_back(static_cast<char>('a' + rng() % 26));
        chunk += '\n';
      }
      const size_t n = std::min(chunk.size(), bytes - written);
      fd.write(chunk.data(), n);
      written += n;
    }
  }

  std::map<long, Pathname> _files;
};

BenchFiles& files() {
  static BenchFiles instance;
  return instance;
}

template <class Reader>
void drainReader(Reader& r, size_t* lines) {
  Str line;
  while (r.readline(line)) {
    benchmark::DoNotOptimize(line.data());
    ++*lines;
  }
}

void BM_LineReader_FileDescriptor(benchmark::State& state) {
  const Pathname& path = files().get(state.range(0));
  long size = 0;
  path.getSize(&size);
  size_t lines = 0;
  for (auto _ : state) {
    FileDescriptorLineReader r(path);
    drainReader(r, &lines);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * size);
  state.SetItemsProcessed(static_cast<int64_t>(lines));
}

void BM_LineReader_FileStar(benchmark::State& state) {
  const Pathname& path = files().get(state.range(0));
  long size = 0;
  path.getSize(&size);
  size_t lines = 0;
  for (auto _ : state) {
    FileStarLineReader r(path);
    drainReader(r, &lines);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * size);
  state.SetItemsProcessed(static_cast<int64_t>(lines));
}

// Views into a mapping of the file: no copy of the line at all.
void BM_LineReader_StringViewsOverMapping(benchmark::State& state) {
  const Pathname& path = files().get(state.range(0));
  ScopedFileDescriptor fd(path.openReadOnlySequential());
  ReadableFileMapping map(fd);
  size_t lines = 0;
  for (auto _ : state) {
    StringLineReader r(StrSegment(map.data(), map.size()));
    StrSegment line;
    while (r.readline(line)) {
      benchmark::DoNotOptimize(line.data());
      ++lines;
    }
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(map.size()));
  state.SetItemsProcessed(static_cast<int64_t>(lines));
}

// The baseline: the standard library's line loop.
void BM_LineReader_StdGetline(benchmark::State& state) {
  const Pathname& path = files().get(state.range(0));
  long size = 0;
  path.getSize(&size);
  size_t lines = 0;
  for (auto _ : state) {
    std::ifstream in(path);
    std::string line;
    while (std::getline(in, line)) {
      benchmark::DoNotOptimize(line.data());
      ++lines;
    }
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * size);
  state.SetItemsProcessed(static_cast<int64_t>(lines));
}

BENCHMARK(BM_LineReader_FileDescriptor)->Arg(16)->Arg(200)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LineReader_FileStar)->Arg(16)->Arg(200)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LineReader_StringViewsOverMapping)->Arg(16)->Arg(200)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LineReader_StdGetline)->Arg(16)->Arg(200)->Unit(benchmark::kMillisecond);

}  // namespace
