// Feeds arbitrary bytes to the layering of PropertiesMap, to the time span
// reader and to environment substitution, and checks what holds for every
// input: the merged map agrees with a first-match model, a difference
// written above the other map reads back as this one, a typed reading
// agrees with its silent twin, and a span read back in milliseconds gives
// the same count. A broken property aborts.
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "libbundle/PropertiesMap.h"
#include "util/EnvironmentSubstitution.h"
#include "util/Logger.h"
#include "util/TimeParser.h"

namespace {

void check(bool ok, const char* what) {
  if (!ok) {
    fprintf(stderr, "property broken: %s\n", what);
    abort();
  }
}

// Splits the input at 0xFF into layers, each layer at 0xFE into settings,
// each setting at its first "=" into a key and a value.
std::vector<std::map<std::string, std::string>> layersOf(const std::string& text) {
  std::vector<std::map<std::string, std::string>> layers(1);
  std::string setting;
  auto flush = [&] {
    if (setting.empty()) return;
    const size_t eq = setting.find('=');
    const std::string key = setting.substr(0, eq);
    const std::string value = eq == std::string::npos ? "" : setting.substr(eq + 1);
    layers.back().emplace(key, value);
    setting.clear();
  };
  for (char c : text) {
    if (c == '\xff') {
      flush();
      layers.emplace_back();
    } else if (c == '\xfe') {
      flush();
    } else {
      setting.push_back(c);
    }
  }
  flush();
  return layers;
}

void checkLayers(const std::string& text) {
  const auto layers = layersOf(text);
  std::vector<PropertiesMap> maps(layers.size());
  PropertiesMap merged;
  for (size_t i = 0; i < layers.size(); ++i) {
    for (const auto& [k, v] : layers[i]) maps[i].put(k, v);
    maps[i].addLayerTo(merged, true, std::to_string(i));
  }
  std::map<std::string, std::pair<std::string, size_t>> model;
  for (size_t i = 0; i < layers.size(); ++i)
    for (const auto& [k, v] : layers[i]) model.emplace(k, std::make_pair(v, i));
  check(model.size() == merged.size(), "merged size");
  for (const auto& [k, vi] : model) {
    const Property* p = merged.getProperty(k);
    check(p != nullptr && p->value() == vi.first, "first layer's value");
    check(p->sourceStanza() == std::to_string(vi.second), "first layer's stanza");
  }
  if (maps.size() >= 2) {
    PropertiesMap diff, rebuilt;
    maps[0].difference(maps[1], diff);
    diff.addLayerTo(rebuilt, false);
    maps[1].addLayerTo(rebuilt, false);
    for (const auto& entry : maps[0])
      check(rebuilt.get(entry.first) == entry.second.value(), "difference");
    for (const auto& entry : maps[1])
      if (maps[0].getProperty(entry.first) == nullptr)
        check(rebuilt.get(entry.first) == entry.second.value(), "difference keeps the other");
    PropertiesMap self;
    maps[0].difference(maps[0], self);
    check(self.empty(), "difference with itself");
    check(maps[0] == maps[0], "equal to itself");
  }
  for (const auto& entry : merged) {
    long l = 77;
    if (merged.tryToLong(entry.first, l)) check(merged.toLong(entry.first, 78) == l, "toLong");
    unsigned long long ms = 77;
    if (merged.tryToTimeSpan(entry.first, ms))
      check(merged.toTimeSpan(entry.first, 78) == ms, "toTimeSpan");
  }
}

void checkTimeSpan(const std::string& text) {
  unsigned long long msec = 77;
  if (!TimeParser::timeSpanToMsec(text, msec)) {
    check(msec == 77, "a refused span leaves the output alone");
    return;
  }
  unsigned long long again = 0;
  check(TimeParser::timeSpanToMsec(" " + text + "\t", again) && again == msec, "blanks around");
  const std::string inMs = std::to_string(msec) + "ms";
  if (msec <= ULLONG_MAX / 1000) {
    check(TimeParser::timeSpanToMsec(inMs, again) && again == msec, "milliseconds round trip");
  }
}

void checkSubstitution(const std::string& text) {
  Str out;
  const size_t n = substituteEnvironmentVariables(text, out);
  if (text.find('$') == std::string::npos) check(n == 0 && out == text, "no reference, no change");
  if (n == 0) check(out == text, "nothing replaced, nothing changed");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool once = [] {
    Logger::initialize();
    Logger::setChannelLevel("PropertiesMap", "ERROR");
    setenv("KT_FUZZ", "value", 1);
    return true;
  }();
  (void)once;
  const std::string text(reinterpret_cast<const char*>(data), size);
  checkLayers(text);
  checkTimeSpan(text);
  checkSubstitution(text);
  return 0;
}
