// Caseless comparison of field-name-like keys, about a million of the short
// ones: each key against a case variant of itself (a full walk that ends
// equal) or against its neighbour (an early difference), half and half.
// ASCII keys are measured against the C library's strcasecmp; multi-byte
// keys against strcasecmp too, which only folds their ASCII bytes.
#include <benchmark/benchmark.h>

#include <strings.h>

#include <random>
#include <string>
#include <vector>

#include "util/CaselessCompare.h"

namespace {

// Pieces of keys with their case variants. Multi-byte ones mix Latin-1,
// Latin Extended, Greek and Cyrillic letters, as user and host names do.
const std::vector<std::vector<std::string>> ASCII_PIECES = {
    {"src", "SRC", "Src"}, {"host", "HOST", "Host"}, {"_"}, {"ip", "IP"}, {"port", "PORT"},
    {"user", "USER", "User"}, {"4"}, {"2"}, {"status", "Status"}, {"-"}};
const std::vector<std::vector<std::string>> MULTIBYTE_PIECES = {
    {"\xC3\xA4", "\xC3\x84"},          {"\xC3\xB6", "\xC3\x96"}, {"\xC3\xA9", "\xC3\x89"},
    {"\xC4\x8D", "\xC4\x8C"},          {"\xC5\x82", "\xC5\x81"}, {"\xCE\xB1", "\xCE\x91"},
    {"\xCF\x83", "\xCE\xA3"},          {"\xD0\xB4", "\xD0\x94"}, {"\xD1\x8F", "\xD0\xAF"},
    {"host", "HOST"},                  {"_"},                    {"7"}};

struct Keys {
  std::vector<std::string> left;
  std::vector<std::string> right;
  size_t bytes = 0;
};

// Keys of about `len` bytes, enough of them to fill some 8 MB per side.
Keys makeKeys(const std::vector<std::vector<std::string>>& pieces, size_t len) {
  std::mt19937 rng(static_cast<unsigned>(len));
  Keys keys;
  const size_t count = (size_t{1} << 23) / len;
  std::vector<std::vector<size_t>> shapes(count);
  for (auto& shape : shapes) {
    size_t bytes = 0;
    while (bytes < len) {
      shape.push_back(rng() % pieces.size());
      bytes += pieces[shape.back()][0].size();
    }
  }
  auto spell = [&](const std::vector<size_t>& shape) {
    std::string s;
    for (size_t p : shape) s += pieces[p][rng() % pieces[p].size()];
    return s;
  };
  for (size_t i = 0; i < count; ++i) {
    keys.left.push_back(spell(shapes[i]));
    keys.right.push_back(spell(i % 2 == 0 ? shapes[i] : shapes[(i + 1) % count]));
    keys.bytes += keys.left.back().size();
  }
  return keys;
}

template <class Compare>
void runComparisons(benchmark::State& state, const std::vector<std::vector<std::string>>& pieces,
                    Compare compare) {
  const Keys keys = makeKeys(pieces, static_cast<size_t>(state.range(0)));
  for (auto _ : state) {
    for (size_t i = 0; i < keys.left.size(); ++i) {
      benchmark::DoNotOptimize(compare(keys.left[i], keys.right[i]));
    }
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(keys.left.size()));
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(keys.bytes));
}

int caseless(const std::string& a, const std::string& b) {
  return mem_compare_caseless(a.data(), a.size(), b.data(), b.size());
}

int libc(const std::string& a, const std::string& b) { return strcasecmp(a.c_str(), b.c_str()); }

void BM_Str_CompareIgnoreCaseAscii(benchmark::State& state) {
  runComparisons(state, ASCII_PIECES, caseless);
}
void BM_Str_CompareIgnoreCaseAscii_Libc(benchmark::State& state) {
  runComparisons(state, ASCII_PIECES, libc);
}
void BM_Str_CompareIgnoreCaseMultibyte(benchmark::State& state) {
  runComparisons(state, MULTIBYTE_PIECES, caseless);
}
void BM_Str_CompareIgnoreCaseMultibyte_Libc(benchmark::State& state) {
  runComparisons(state, MULTIBYTE_PIECES, libc);
}

BENCHMARK(BM_Str_CompareIgnoreCaseAscii)->RangeMultiplier(4)->Range(8, 512);
BENCHMARK(BM_Str_CompareIgnoreCaseAscii_Libc)->RangeMultiplier(4)->Range(8, 512);
BENCHMARK(BM_Str_CompareIgnoreCaseMultibyte)->RangeMultiplier(4)->Range(8, 512);
BENCHMARK(BM_Str_CompareIgnoreCaseMultibyte_Libc)->RangeMultiplier(4)->Range(8, 512);

}  // namespace
