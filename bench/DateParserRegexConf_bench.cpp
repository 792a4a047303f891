// Loading the shipped timestamp pattern file: XML parse, composition and JIT
// compile of every define, beside the XML parse alone and a compile of the
// same pattern texts without the reader. The memory a loaded file holds is
// reported as the counter "heap_bytes" (mallinfo2 before and after).
#include <malloc.h>

#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "util/DateParserRegexConf.h"
#include "util/Pathname.h"
#include "bench/BenchXmlInit.h"
#include "util/XmlDocument.h"

namespace {

const Pathname& shippedPath() {
  static const Pathname* path = new Pathname(Pathname(KESTRO_SOURCE_DIR) / "home/etc/datetime.xml");
  return *path;
}

std::string shippedText() {
  std::ifstream in(shippedPath().c_str());
  return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

std::unique_ptr<DateParserRegexConf> loadOnce(const std::string& text) {
  XmlDocument doc(StrSegment(text.data(), text.size()), shippedPath().c_str(), true, false);
  auto conf = std::make_unique<DateParserRegexConf>();
  conf->readPatterns(doc.get_root(), shippedPath(), nullptr);
  return conf;
}

size_t heapInUse() { return mallinfo2().uordblks; }

void BM_DateParserRegexConf_Load(benchmark::State& state) {
  ensureXmlInit();
  const std::string text = shippedText();
  size_t defines = 0;
  for (auto _ : state) {
    std::unique_ptr<DateParserRegexConf> conf = loadOnce(text);
    defines = conf->regexes.size();
    benchmark::DoNotOptimize(conf.get());
  }
  // Outside the timed loop: what one loaded file keeps on the heap.
  const size_t before = heapInUse();
  std::unique_ptr<DateParserRegexConf> kept = loadOnce(text);
  state.counters["heap_bytes"] = static_cast<double>(heapInUse() - before);
  state.counters["defines"] = static_cast<double>(defines);
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(defines));
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(text.size()));
}
BENCHMARK(BM_DateParserRegexConf_Load)->Unit(benchmark::kMillisecond);

// Baseline: the XML parse alone.
void BM_DateParserRegexConf_XmlParseOnly(benchmark::State& state) {
  ensureXmlInit();
  const std::string text = shippedText();
  for (auto _ : state) {
    XmlDocument doc(StrSegment(text.data(), text.size()), shippedPath().c_str(), true, false);
    benchmark::DoNotOptimize(doc.get());
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(text.size()));
}
BENCHMARK(BM_DateParserRegexConf_XmlParseOnly)->Unit(benchmark::kMillisecond);

// Baseline: studied caseless compiles of the composed texts, without the
// reader, with and without JIT.
void BM_DateParserRegexConf_CompileOnly(benchmark::State& state) {
  ensureXmlInit();
  std::vector<Str> patterns;
  const std::unique_ptr<DateParserRegexConf> conf = loadOnce(shippedText());
  for (const auto& entry : conf->regexes) {
    patterns.push_back(entry.second->getPattern());
  }
  const bool study = state.range(0) != 0;
  for (auto _ : state) {
    for (const Str& p : patterns) {
      Regex re(p, study, Regex::CASELESS);
      benchmark::DoNotOptimize(re.isCompiled());
    }
  }
  state.SetLabel(study ? "jit" : "interpreted");
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(patterns.size()));
}
BENCHMARK(BM_DateParserRegexConf_CompileOnly)->DenseRange(0, 1)->Unit(benchmark::kMillisecond);

}  // namespace
