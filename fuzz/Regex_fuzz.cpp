// Compiles arbitrary patterns, plain and through modular expansion with a
// fixed set of named patterns, and runs them over arbitrary subjects in
// every mode, checking what holds for any input: spans lie inside the
// subject, advancing always ends, replacing each match by itself gives the
// input back, an escaped subject matches itself. Wildcards are checked
// against a small dynamic-programming matcher. A broken property aborts.
//
// Input layout: byte 0 flags, byte 1 the pattern length, then the pattern,
// then the subject.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "util/Regex.h"
#include "util/RegexMatch.h"
#include "util/RegexNameResolver.h"
#include "util/WildcardList.h"
#include "util/WildcardMatcher.h"

namespace {

void check(bool ok, const char* what) {
  if (!ok) {
    fprintf(stderr, "property broken: %s\n", what);
    abort();
  }
}

// A few named patterns, one of them circular, and the fuzzed pattern itself
// under "fuzz", so that it can refer to them and they to it.
class FixedResolver : public RegexNameResolver {
 public:
  explicit FixedResolver(const Str& fuzzed) : _fuzzed(fuzzed) {}
  Str resolve(const Str& name) const override {
    static const std::map<Str, Str> kNamed = {
        {"num", "\\d+"},
        {"pair", "[[num]]-[[num:second]]"},
        {"word", "(?<w>\\w+)"},
        {"loop", "a[[loop2]]"},
        {"loop2", "[[loop]]?"},
        {"date", "[[num:y]]/[[num:m]]/[[num:d]]"},
        {"wrap", "<[[fuzz]]>"},
    };
    if (name == "fuzz") return _fuzzed;
    auto it = kNamed.find(name);
    return it == kNamed.end() ? Str() : it->second;
  }

 private:
  Str _fuzzed;
};

bool inside(const StrSegment& part, const std::string& whole) {
  return part.data() >= whole.data() && part.data() + part.size() <= whole.data() + whole.size();
}

void checkMatch(const Regex& r, const std::string& subject, Regex::MatchMode mode) {
  StrSegment s(subject);
  RegexMatch m;
  const bool hit = r.matchBase(s, &m, false, mode);
  check(hit == m.isValid(), "valid flag disagrees with the result");
  if (!hit) return;
  check(inside(m.getMatch(), subject), "whole match outside the subject");
  check(m.size() == static_cast<size_t>(r.getCaptureCount()), "group count");
  for (const StrSegment& g : m.getGroups()) {
    check(g.data() == nullptr || inside(g, subject), "group outside the subject");
  }
  if (mode == Regex::MATCH_WHOLE) {
    check(m.getMatch().data() == subject.data() && m.getMatch().size() == subject.size(),
          "whole-string match does not cover the subject");
  }
  std::map<Str, Str> named;
  m.getAllGroups(named);
  check(named.size() <= r.getNameMap().size(), "more named groups than names");
  for (size_t n = 0; n < m.size(); ++n) {
    long long value = 0;
    unsigned long long uvalue = 0;
    m.fetch(n, &value);
    m.fetch(n, &uvalue);
  }
}

void checkRegex(const Regex& r, const std::string& subject) {
  for (auto mode : {Regex::MATCH_SEARCH, Regex::MATCH_WHOLE, Regex::MATCH_PARTIAL}) {
    checkMatch(r, subject, mode);
  }

  // Advancing moves forward every time a match is not empty, and an empty
  // subject ends the loop; the step over an empty match is the caller's.
  StrSegment s(subject);
  RegexMatch m;
  size_t steps = 0;
  while (r.match(s, &m, true, false)) {
    check(++steps <= subject.size() + 1, "advance loop does not end");
    if (m.getMatch().empty()) {
      if (s.empty()) break;
      s.assign(s.data() + 1, s.size() - 1);
    }
  }

  Str out;
  r.replaceAll(StrSegment(subject), "\\0", out, true);
  check(out == subject, "replacing each match by itself changed the text");
  r.replace(StrSegment(subject), "<\\1\\\\2>", out, {1, 3}, true);

  for (bool anchored : {false, true}) {
    for (bool whole : {false, true}) {
      const size_t at = StrSegment::mem_regexmatch(r, subject.data(), subject.size(), anchored, whole);
      check(at == StrSegment::npos || at <= subject.size(), "mem_regexmatch offset");
      if (anchored || whole) check(at == StrSegment::npos || at == 0, "anchored offset");
      const size_t start = subject.size() / 2;
      const size_t tail =
          StrSegment::mem_regexmatch(r, subject.data(), subject.size(), start, anchored, whole);
      check(tail == StrSegment::npos || tail <= subject.size() - start, "tail offset");
    }
  }
}

void checkRegexFromPattern(const Str& pattern, int options, bool study, const std::string& subject) {
  try {
    const Regex r(pattern, study, options);
    checkRegex(r, subject);
  } catch (const RegexException&) {
  }
}

// Whole-text match of a `*` pattern by dynamic programming.
bool dpMatch(const std::string& p, const std::string& t) {
  std::vector<char> row(t.size() + 1, 0);
  row[0] = 1;
  for (char pc : p) {
    std::vector<char> next(t.size() + 1, 0);
    if (pc == '*') {
      next[0] = row[0];
      for (size_t j = 1; j <= t.size(); ++j) next[j] = row[j] || next[j - 1];
    } else {
      for (size_t j = 1; j <= t.size(); ++j) next[j] = row[j - 1] && t[j - 1] == pc;
    }
    row.swap(next);
  }
  return row[t.size()] != 0;
}

void checkWildcards(const std::string& pattern, const std::string& subject) {
  const std::string p = pattern.substr(0, std::min<size_t>(pattern.find('\0'), 64));
  const std::string t = subject.substr(0, 256);
  const WildcardMatcher m(p.c_str());
  size_t start = 0;
  size_t end = 0;
  const bool hit = m.isMatch(StrSegment(t), start, end);
  check(hit == dpMatch(p, t), "wildcard disagrees with the reference");
  if (hit) check(start <= end && end <= t.size(), "wildcard span");
  if (t.find('\0') == std::string::npos) {
    StrVector captures;
    if (m.isMatch(t.c_str(), captures)) check(hit, "capture form matched where the other did not");
  }

  // Each "|"-separated piece a pattern, the first erased again.
  WildcardList list(true);
  std::vector<std::string> pieces;
  size_t from = 0;
  for (size_t bar; (bar = p.find('|', from)) != std::string::npos; from = bar + 1) {
    pieces.push_back(p.substr(from, bar - from));
  }
  pieces.push_back(p.substr(from));
  bool any = false;
  for (const auto& piece : pieces) {
    list.processToken(piece);
    any = any || (!piece.empty() && dpMatch(piece, t));
  }
  check(list.isHit(t) == any, "wildcard list disagrees with the loop");
  list.erase(pieces[0]);
  if (!pieces[0].empty() && dpMatch(pieces[0], t)) check(!list.isHit(t), "erased pattern hit");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  const uint8_t flags = data[0];
  const size_t patternLen = std::min<size_t>(data[1], size - 2);
  const Str pattern(reinterpret_cast<const char*>(data + 2), patternLen);
  const std::string subject(reinterpret_cast<const char*>(data + 2 + patternLen),
                            size - 2 - patternLen);

  static const int kOptions[] = {0, Regex::CASELESS, Regex::MULTILINE | Regex::DOTALL,
                                 Regex::EXTENDED, Regex::UNGREEDY | Regex::ANCHORED,
                                 Regex::DUPNAMES | Regex::UCP, Regex::FIRSTLINE,
                                 Regex::NO_AUTO_CAPTURE | Regex::DOLLAR_ENDONLY};
  const int options = kOptions[flags & 7];
  const bool study = (flags & 8) != 0;

  checkRegexFromPattern(pattern, options, study, subject);
  if (flags & 16) {
    const FixedResolver resolver(pattern);
    Regex::isModularPattern(pattern);
    for (const char* name : {"fuzz", "wrap"}) {
      try {
        checkRegexFromPattern(Regex::resolveModularPattern(name, resolver), options, study, subject);
      } catch (const RegexException&) {
      }
    }
  }
  if ((flags & 32) && !subject.empty()) {  // an empty pattern matches nothing
    Str escaped;
    Regex::escapeMetaChars(Str(subject), escaped);
    try {
      const Regex literal(escaped, study, 0);
      // It compiled, so the subject is valid UTF-8: it must match itself.
      check(literal.matchesWhole(subject), "escaped subject does not match itself");
    } catch (const RegexException&) {
    }
  }
  if (flags & 64) checkWildcards(pattern, subject);
  return 0;
}
