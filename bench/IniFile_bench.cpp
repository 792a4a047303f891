// Parsing speed of IniFile over a generated 10 MB configuration file, UTF-8
// (argument 0) and UTF-16 LE with a mark (argument 1), against a plain
// std::getline loop over the same bytes.
#include <benchmark/benchmark.h>

#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <random>
#include <string>

#include "libbundle/IniFile.h"
#include "util/Pathname.h"

namespace {

constexpr size_t FILE_BYTES = 10u << 20;

// Stanzas of settings with comments, blank lines, continuations and
// escapes, in the proportions of a large shipped configuration.
std::string generatedText() {
  std::mt19937 rng(777);
  std::string text;
  unsigned stanza = 0;
  while (text.size() < FILE_BYTES) {
    text += "\n# settings for source group " + std::to_string(stanza) + "\n";
    text += "[source::/var/log/app" + std::to_string(stanza++) + "/*.log]\n";
    for (unsigned n = 5 + rng() % 20; n > 0; --n) {
      if (rng() % 8 == 0) text += "# explains the next setting\n";
      text += "setting_" + std::to_string(n) + " = ";
      for (unsigned len = 10 + rng() % 60; len > 0; --len) {
        text.push_back(static_cast<char>('a' + rng() % 26));
      }
      if (rng() % 20 == 0) text += " \\\n    continued";
      text += "\n";
    }
  }
  return text;
}

std::string utf16le(const std::string& ascii) {
  std::string out = "\xFF\xFE";
  for (char c : ascii) {
    out.push_back(c);
    out.push_back('\0');
  }
  return out;
}

// The two files, made on first use and removed at exit.
class BenchFiles {
 public:
  BenchFiles() {
    const char* tmp = std::getenv("TMPDIR");
    const std::string base = std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") +
                             "/kestro-ini-bench-" + std::to_string(::getpid());
    const std::string text = generatedText();
    _paths[0] = Pathname((base + "-utf8.conf").c_str());
    _paths[1] = Pathname((base + "-utf16.conf").c_str());
    std::ofstream(std::string(_paths[0]), std::ios::binary) << text;
    std::ofstream(std::string(_paths[1]), std::ios::binary) << utf16le(text);
  }
  ~BenchFiles() {
    _paths[0].unlink();
    _paths[1].unlink();
  }
  const Pathname& get(int which) const { return _paths[which]; }

 private:
  Pathname _paths[2];
};

const BenchFiles& files() {
  static const BenchFiles f;
  return f;
}

void BM_IniFile_Parse(benchmark::State& state) {
  const Pathname& path = files().get(static_cast<int>(state.range(0)));
  long size = 0;
  path.getSize(&size);
  for (auto _ : state) {
    IniFile ini(path);
    benchmark::DoNotOptimize(ini.stanzas().size());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * size);
  state.SetLabel(state.range(0) == 0 ? "UTF-8" : "UTF-16LE");
}
BENCHMARK(BM_IniFile_Parse)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

void BM_IniFile_GetlineBaseline(benchmark::State& state) {
  const Pathname& path = files().get(0);
  long size = 0;
  path.getSize(&size);
  for (auto _ : state) {
    std::ifstream in(std::string(path), std::ios::binary);
    size_t lines = 0;
    for (std::string line; std::getline(in, line);) ++lines;
    benchmark::DoNotOptimize(lines);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * size);
}
BENCHMARK(BM_IniFile_GetlineBaseline)->Unit(benchmark::kMillisecond);

}  // namespace
