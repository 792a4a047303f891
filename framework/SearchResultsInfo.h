// The metadata that travels with a search: named fields, per-command
// metrics and leveled messages, saved as a CSV of one row whose columns
// are the fields.
#pragma once

#include <cstdint>
#include <map>
#include <set>

#include "framework/SearchResults.h"
#include "util/Pathname.h"
#include "util/Str.h"
#include "util/StrVector.h"

// One owner at a time: nothing here locks.
//
// Row layout: each field is a column of its own name. Each metric `m` is
// four columns "duration.m" (milliseconds), "invocations.m", "in_ct.m" and
// "out_ct.m". Messages are the multi-valued columns "msgType" (a level) and
// "msg" (its text), paired by position; a level other than "DEBUG", "INFO",
// "WARN" or "ERROR" is dropped on reading.
class SearchResultsInfo {
 public:
  struct Metric {
    double durationMs = 0;
    uint64_t invocations = 0;
    uint64_t inCount = 0;
    uint64_t outCount = 0;
  };
  using MessageMap = std::map<Str, std::set<Str>>;

  // nullptr when the field is unset.
  const Str* get(const Str& name) const;
  void set(const Str& name, const StrSegment& value);
  const std::map<Str, Str>& fields() const { return _fields; }
  const std::map<Str, Metric>& metrics() const { return _metrics; }
  const MessageMap& messages() const { return _messages; }

  // False (nothing added) for a level outside DEBUG/INFO/WARN/ERROR.
  bool addMessage(const Str& level, const StrSegment& text);
  // Adds one invocation of `name` that took `durationMs`.
  void updateMetric(const Str& name, double durationMs);
  void updateCountMetrics(const Str& name, uint64_t in, uint64_t out);
  // A WARN "Specified field(s) missing from results: a, b"; nothing for an
  // empty list.
  void warnMissingFields(const StrVector& missing);

  // Folds in the metadata of another part of the same search: fields this
  // one lacks are taken, "_drop_count" and "_scan_count" are summed,
  // "_startTime" keeps the earlier and "_endTime" the later value, metrics
  // add up and messages are united.
  void combine(const SearchResultsInfo& other);
  void combineMessageMaps(const MessageMap& other);

  // The one row; `out` is cleared first.
  void toSearchResults(SearchResults& out) const;
  // Replaces everything from the first row of `in`; false when it has none.
  bool fromSearchResults(const SearchResults& in);
  bool toCSV(Str& out) const;
  // Atomic, as SearchResults::toCSV.
  bool toCSV(const Pathname& path) const;
  bool fromCSV(const Str& text);
  bool fromCSV(const Pathname& path);

 private:
  std::map<Str, Str> _fields;
  std::map<Str, Metric> _metrics;
  MessageMap _messages;
};
