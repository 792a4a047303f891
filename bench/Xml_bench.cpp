// Parsing through the XML layer beside the library's own memory parser with
// the same options, and XML escaping and MD5 beside a plain copy of the same
// bytes.
#include <string>

#include <benchmark/benchmark.h>
#include <libxml/parser.h>

#include "bench/BenchXmlInit.h"
#include "util/XMLAndStringUtil.h"
#include "util/XmlDocument.h"

namespace {

// A configuration-like document of about `n` bytes.
std::string documentText(size_t n) {
  std::string s = "<?xml version=\"1.0\"?>\n<datetime>\n";
  for (int i = 0; s.size() < n; ++i) {
    s += "  <define name=\"_p" + std::to_string(i) +
         "\" extract=\"hour, minute\">\n    <text><![CDATA[(\\d\\d):(\\d\\d)]]></text>\n"
         "  </define>\n";
  }
  return s + "</datetime>\n";
}

std::string mixedText(size_t n) {
  std::string s;
  for (size_t i = 0; i < n; ++i) s.push_back("abc <d> & 'e' \"f\"\t"[i % 19]);
  return s;
}

void BM_Xml_Parse(benchmark::State& state) {
  ensureXmlInit();
  const std::string text = documentText(static_cast<size_t>(state.range(0)));
  for (auto _ : state) {
    XmlDocument doc(StrSegment(text.data(), text.size()), "bench.xml", false, false);
    benchmark::DoNotOptimize(doc.get());
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(text.size()));
}
BENCHMARK(BM_Xml_Parse)->Range(1 << 10, 1 << 20);

void BM_Xml_ParseLibraryBaseline(benchmark::State& state) {
  ensureXmlInit();
  const std::string text = documentText(static_cast<size_t>(state.range(0)));
  for (auto _ : state) {
    xmlDoc* doc = xmlReadMemory(text.data(), static_cast<int>(text.size()), "bench.xml", nullptr,
                                XML_PARSE_NONET);
    benchmark::DoNotOptimize(doc);
    xmlFreeDoc(doc);
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(text.size()));
}
BENCHMARK(BM_Xml_ParseLibraryBaseline)->Range(1 << 10, 1 << 20);

void BM_Xml_EscapeString(benchmark::State& state) {
  const std::string text = mixedText(static_cast<size_t>(state.range(0)));
  Str out;
  for (auto _ : state) {
    out.clear();
    XMLAndStringUtil::xmlEscapeString(out, StrSegment(text.data(), text.size()));
    benchmark::DoNotOptimize(out.data());
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_Xml_EscapeString)->Range(64, 1 << 16);

void BM_Xml_CopyBaseline(benchmark::State& state) {
  const std::string text = mixedText(static_cast<size_t>(state.range(0)));
  Str out;
  for (auto _ : state) {
    out.clear();
    out.append(text);
    benchmark::DoNotOptimize(out.data());
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_Xml_CopyBaseline)->Range(64, 1 << 16);

void BM_Xml_Md5(benchmark::State& state) {
  const Str text(mixedText(static_cast<size_t>(state.range(0))));
  for (auto _ : state) benchmark::DoNotOptimize(XMLAndStringUtil::md5(text));
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_Xml_Md5)->Range(64, 1 << 20);

}  // namespace
