// Gzip writing and reading over 100 MB of generated log text, each beside
// zlib's own gzwrite/gzread on the same data, and the string rate of
// InputStream. The text and its compressed forms are made once, in the
// temporary directory, and removed at exit unless KESTRO_BENCH_KEEP is set:
// then the tools can be timed from the shell on the files that the read
// benchmarks name in their labels.
#include <benchmark/benchmark.h>

#include <unistd.h>
#include <zlib.h>

#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "util/FileDescriptor.h"
#include "util/GzipFileDescriptor.h"
#include "util/InputStream.h"
#include "util/OutputStream.h"
#include "util/Pathname.h"
#include "util/Str.h"
#include "util/StrSegment.h"

namespace {

const size_t TEXT_BYTES = 100u << 20;
const size_t IO_BUFFER = 1 << 16;

// The plain text in memory, and on disk plain and compressed at levels 1
// and 6 by our writer.
class GzipBenchData {
 public:
  GzipBenchData() {
    const char* tmp = std::getenv("TMPDIR");
    _dir = Pathname(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") /
           ("kestro-gzip-bench-" + std::to_string(::getpid()));
    _dir.mkdir(Pathname::MKDIR_PRIVATE);
    std::mt19937 rng(2024);
    auto below = [&rng](unsigned n) { return static_cast<unsigned>(rng() % n); };
    static const char* const kWords[] = {"session", "opened",  "for",   "user",   "root",
                                         "GET",     "/index",  "200",   "closed", "by",
                                         "failed",  "password", "from", "port",   "ssh2"};
    text.reserve(TEXT_BYTES + 512);
    while (text.size() < TEXT_BYTES) {
      char stamp[64];
      snprintf(stamp, sizeof stamp, "2024-06-%02u 12:%02u:%02u.%03u host%u sshd[%u]:",
               1 + below(28), below(60), below(60), below(1000), below(16), below(65536));
      text += stamp;
      for (unsigned i = 0, n = 4 + below(12); i < n; ++i) {
        text += ' ';
        text += kWords[below(15)];
        if (below(4) == 0) text += std::to_string(below(100000));
      }
      text += '\n';
    }
    text.resize(TEXT_BYTES);
    {
      ScopedFileDescriptor fd(plainPath().openCreateOrReplace(Pathname::CREATE_PRIVATE));
      fd.write(text.data(), text.size());
    }
    for (int level : {1, 6}) {
      ScopedFileDescriptor fd(gzPath(level).openCreateOrReplace(Pathname::CREATE_PRIVATE));
      WritableGzipFileDescriptor w(fd, level, IO_BUFFER);
      w.write(text.data(), text.size());
      w.finish();
    }
  }
  ~GzipBenchData() {
    if (std::getenv("KESTRO_BENCH_KEEP") != nullptr) return;
    plainPath().unlink();
    for (int level : {1, 6}) gzPath(level).unlink();
    (_dir / "out.gz").unlink();
    _dir.rmdir();
  }

  Pathname plainPath() const { return _dir / "text.log"; }
  Pathname gzPath(int level) const { return _dir / ("text-" + std::to_string(level) + ".log.gz"); }
  Pathname outPath() const { return _dir / "out.gz"; }

  std::string text;

 private:
  Pathname _dir;
};

GzipBenchData& data() {
  static GzipBenchData instance;
  return instance;
}

void BM_Gzip_WriteOurs(benchmark::State& state) {
  const std::string& text = data().text;
  const int level = static_cast<int>(state.range(0));
  for (auto _ : state) {
    ScopedFileDescriptor fd(data().outPath().openCreateOrReplace(Pathname::CREATE_PRIVATE));
    WritableGzipFileDescriptor w(fd, level, IO_BUFFER);
    for (size_t pos = 0; pos < text.size(); pos += IO_BUFFER) {
      w.write(text.data() + pos, std::min(IO_BUFFER, text.size() - pos));
    }
    benchmark::DoNotOptimize(w.finish());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}

// The baseline: zlib's own gzip file writer.
void BM_Gzip_WriteZlibGzwrite(benchmark::State& state) {
  const std::string& text = data().text;
  const std::string mode = "wb" + std::to_string(state.range(0));
  for (auto _ : state) {
    gzFile f = gzopen(data().outPath().c_str(), mode.c_str());
    gzbuffer(f, IO_BUFFER);
    for (size_t pos = 0; pos < text.size(); pos += IO_BUFFER) {
      gzwrite(f, text.data() + pos, static_cast<unsigned>(std::min(IO_BUFFER, text.size() - pos)));
    }
    benchmark::DoNotOptimize(gzclose(f));
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}

void BM_Gzip_ReadOurs(benchmark::State& state) {
  const Pathname path = data().gzPath(static_cast<int>(state.range(0)));
  std::vector<char> buf(IO_BUFFER);
  size_t total = 0;
  for (auto _ : state) {
    ScopedFileDescriptor fd(path.openReadOnlySequential());
    ReadableGzipFileDescriptor r(fd, IO_BUFFER);
    for (ssize_t n; (n = r.read(buf.data(), buf.size())) > 0;) total += static_cast<size_t>(n);
  }
  benchmark::DoNotOptimize(total);
  state.SetBytesProcessed(static_cast<int64_t>(total));
  state.SetLabel(std::string(path));
}

// The baseline: zlib's own gzip file reader, which also checks the CRC.
void BM_Gzip_ReadZlibGzread(benchmark::State& state) {
  const Pathname path = data().gzPath(static_cast<int>(state.range(0)));
  std::vector<char> buf(IO_BUFFER);
  size_t total = 0;
  for (auto _ : state) {
    gzFile f = gzopen(path.c_str(), "rb");
    gzbuffer(f, IO_BUFFER);
    for (int n; (n = gzread(f, buf.data(), static_cast<unsigned>(buf.size()))) > 0;) total += n;
    gzclose(f);
  }
  benchmark::DoNotOptimize(total);
  state.SetBytesProcessed(static_cast<int64_t>(total));
}

// One record of a queue entry's shape: short keys and values of log length.
std::vector<std::string> sampleStrings(size_t count) {
  std::mt19937 rng(7);
  std::vector<std::string> out;
  for (size_t i = 0; i < count; ++i) {
    const size_t len = i % 4 == 3 ? 80 + rng() % 200 : 4 + rng() % 20;
    out.push_back(std::string(len, static_cast<char>('a' + i % 26)));
  }
  return out;
}

void BM_InputStream_ReadSeg(benchmark::State& state) {
  const std::vector<std::string> strings = sampleStrings(100000);
  NativeByteOrderOutputStream out(1 << 20, 2);
  for (const auto& s : strings) out.write(StrSegment(s));
  for (auto _ : state) {
    NativeByteOrderInputStream in(out.data(), out.size());
    StrSegment seg;
    while (in.tryReadSeg(seg)) benchmark::DoNotOptimize(seg.data());
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * strings.size()));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * out.size()));
}

void BM_InputStream_ReadStr(benchmark::State& state) {
  const std::vector<std::string> strings = sampleStrings(100000);
  SwappedByteOrderOutputStream out(1 << 20, 2);
  for (const auto& s : strings) out.write(StrSegment(s));
  Str str;
  for (auto _ : state) {
    SwappedByteOrderInputStream in(out.data(), out.size());
    while (in.tryReadStr(str)) benchmark::DoNotOptimize(str.data());
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * strings.size()));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * out.size()));
}

// Records of 20 strings into one reused stream, as a queue writer does; the
// stream grows once, early, and then every record fits.
void BM_OutputStream_WriteStr(benchmark::State& state) {
  const std::vector<std::string> strings = sampleStrings(100000);
  NativeByteOrderOutputStream out(4096, 2);
  for (auto _ : state) {
    for (size_t i = 0; i < strings.size(); ++i) {
      if (i % 20 == 0) out.rewind();
      out.write(StrSegment(strings[i]));
    }
    benchmark::DoNotOptimize(out.data());
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * strings.size()));
}

BENCHMARK(BM_Gzip_WriteOurs)->Arg(1)->Arg(6)->Unit(benchmark::kMillisecond)->Iterations(2);
BENCHMARK(BM_Gzip_WriteZlibGzwrite)->Arg(1)->Arg(6)->Unit(benchmark::kMillisecond)->Iterations(2);
BENCHMARK(BM_Gzip_ReadOurs)->Arg(1)->Arg(6)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_Gzip_ReadZlibGzread)->Arg(1)->Arg(6)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_InputStream_ReadSeg)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_InputStream_ReadStr)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_OutputStream_WriteStr)->Unit(benchmark::kMicrosecond);

}  // namespace
