#include "framework/SearchResultsInfo.h"

#include <cinttypes>
#include <cstdio>
#include <cstring>

namespace {

const char* const LEVELS[] = {"DEBUG", "INFO", "WARN", "ERROR"};
const char* const METRIC_PREFIXES[] = {"duration.", "invocations.", "in_ct.", "out_ct."};

bool isLevel(const Str& level) {
  for (const char* l : LEVELS) {
    if (level == l) return true;
  }
  return false;
}

// Which of METRIC_PREFIXES starts `name` (and leaves a metric name), or -1.
int metricPrefix(const Str& name, Str& metric) {
  for (int i = 0; i < 4; ++i) {
    size_t n = strlen(METRIC_PREFIXES[i]);
    if (name.size() > n && name.compare(0, n, METRIC_PREFIXES[i]) == 0) {
      metric = name.substr(n);
      return i;
    }
  }
  return -1;
}

Str concat(const char* prefix, const Str& name) {
  Str s(prefix);
  s.append(name);
  return s;
}

Str formatDouble(double d) {
  char buf[64];
  snprintf(buf, sizeof(buf), "%.6g", d);
  return Str(buf);
}

Str formatCount(uint64_t n) {
  char buf[32];
  snprintf(buf, sizeof(buf), "%" PRIu64, n);
  return Str(buf);
}

}  // namespace

const Str* SearchResultsInfo::get(const Str& name) const {
  auto it = _fields.find(name);
  return it == _fields.end() ? nullptr : &it->second;
}

void SearchResultsInfo::set(const Str& name, const StrSegment& value) { _fields[name] = Str(value); }

bool SearchResultsInfo::addMessage(const Str& level, const StrSegment& text) {
  if (!isLevel(level)) return false;
  _messages[level].insert(Str(text));
  return true;
}

void SearchResultsInfo::updateMetric(const Str& name, double durationMs) {
  Metric& m = _metrics[name];
  m.durationMs += durationMs;
  ++m.invocations;
}

void SearchResultsInfo::updateCountMetrics(const Str& name, uint64_t in, uint64_t out) {
  Metric& m = _metrics[name];
  m.inCount += in;
  m.outCount += out;
}

void SearchResultsInfo::warnMissingFields(const StrVector& missing) {
  if (missing.empty()) return;
  Str text("Specified field(s) missing from results: ");
  for (size_t i = 0; i < missing.size(); ++i) {
    if (i) text.append(", ");
    text.append(missing[i]);
  }
  addMessage(Str("WARN"), text);
}

void SearchResultsInfo::combineMessageMaps(const MessageMap& other) {
  for (const auto& [level, texts] : other) {
    if (!isLevel(level)) continue;
    _messages[level].insert(texts.begin(), texts.end());
  }
}

void SearchResultsInfo::combine(const SearchResultsInfo& other) {
  for (const auto& [name, value] : other._fields) {
    auto it = _fields.find(name);
    if (it == _fields.end()) {
      _fields.emplace(name, value);
    } else if (name == "_drop_count" || name == "_scan_count") {
      it->second = formatCount(static_cast<uint64_t>(it->second.toLongLong(0)) +
                               static_cast<uint64_t>(value.toLongLong(0)));
    } else if (name == "_startTime" || name == "_endTime") {
      double mine = it->second.toDouble(0), theirs = value.toDouble(0);
      bool takeTheirs = name == "_startTime" ? theirs < mine : theirs > mine;
      if (takeTheirs) it->second = value;
    }
  }
  for (const auto& [name, m] : other._metrics) {
    Metric& mine = _metrics[name];
    mine.durationMs += m.durationMs;
    mine.invocations += m.invocations;
    mine.inCount += m.inCount;
    mine.outCount += m.outCount;
  }
  combineMessageMaps(other._messages);
}

void SearchResultsInfo::toSearchResults(SearchResults& out) const {
  out.freeAll();
  SearchResult* row = out.addNewResult();
  for (const auto& [name, value] : _fields) row->setValue(name, value);
  for (const auto& [name, m] : _metrics) {
    row->setValue(concat(METRIC_PREFIXES[0], name), formatDouble(m.durationMs));
    row->setValue(concat(METRIC_PREFIXES[1], name), formatCount(m.invocations));
    row->setValue(concat(METRIC_PREFIXES[2], name), formatCount(m.inCount));
    row->setValue(concat(METRIC_PREFIXES[3], name), formatCount(m.outCount));
  }
  StrVector levels, texts;
  for (const auto& [level, set] : _messages) {
    for (const Str& t : set) {
      levels.push_back(level);
      texts.push_back(t);
    }
  }
  if (!levels.empty()) {
    // Always through the companion column, so a single message whose text
    // holds the separator still reads back as one.
    row->setMultiValues(Str("msgType"), levels, "\n");
    row->setMultiValues(Str("msg"), texts, "\n");
    row->setOnlyMultiValues(Str("msgType"), levels);
    row->setOnlyMultiValues(Str("msg"), texts);
  }
}

bool SearchResultsInfo::fromSearchResults(const SearchResults& in) {
  _fields.clear();
  _metrics.clear();
  _messages.clear();
  if (in.empty()) return false;
  const SearchResult* row = in[0];
  for (size_t k = 1; k <= in.keyCount(); ++k) {
    const Str& name = in.getKeyFromIndex(k);
    const Str* value = row->valuePtr(k);
    if (value == nullptr || name.compare(0, 5, "__mv_") == 0) continue;
    if (name == "msg" || name == "msgType") continue;
    Str metric;
    switch (metricPrefix(name, metric)) {
      case 0: _metrics[metric].durationMs = value->toDouble(0); break;
      case 1: _metrics[metric].invocations = static_cast<uint64_t>(value->toLongLong(0)); break;
      case 2: _metrics[metric].inCount = static_cast<uint64_t>(value->toLongLong(0)); break;
      case 3: _metrics[metric].outCount = static_cast<uint64_t>(value->toLongLong(0)); break;
      default: _fields[name] = *value;
    }
  }
  StrVector levels, texts;
  row->getMultiValues(in.keyIndex(Str("msgType")), levels);
  row->getMultiValues(in.keyIndex(Str("msg")), texts);
  for (size_t i = 0; i < levels.size() && i < texts.size(); ++i) addMessage(levels[i], texts[i]);
  return true;
}

bool SearchResultsInfo::toCSV(Str& out) const {
  SearchResults sr;
  toSearchResults(sr);
  return sr.toCSV(out);
}

bool SearchResultsInfo::toCSV(const Pathname& path) const {
  SearchResults sr;
  toSearchResults(sr);
  return sr.toCSV(path);
}

bool SearchResultsInfo::fromCSV(const Str& text) {
  SearchResults sr;
  if (!sr.fromCSV(text, 0, 1)) return false;
  return fromSearchResults(sr);
}

bool SearchResultsInfo::fromCSV(const Pathname& path) {
  SearchResults sr;
  if (!sr.fromCSV(path, 0, 1)) return false;
  return fromSearchResults(sr);
}
