// Feeds arbitrary bytes to the decoders, tokenisers and conversions of Str
// and checks the properties that hold for every input: decoding what was
// encoded gives the same value back, tokens put together give the text back,
// conversions agree with the C library. A broken property aborts.
#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "util/CharacterClass.h"
#include "util/Str.h"
#include "util/StrSegment.h"
#include "util/StrVector.h"

namespace {

void check(bool ok, const char* what) {
  if (!ok) {
    fprintf(stderr, "property broken: %s\n", what);
    abort();
  }
}

typedef std::vector<std::string> Tokens;

Tokens tokensOf(const StrVector& v) { return Tokens(v.begin(), v.end()); }

std::string join(const Tokens& t, const std::string& sep) {
  std::string out;
  for (size_t i = 0; i < t.size(); ++i) out += (i ? sep : "") + t[i];
  return out;
}

void checkUriDecode(const std::string& input) {
  Str s(input);
  const bool valid = s.uriDecode();
  if (!valid) check(s == input, "uriDecode false left the text changed");
  if (input.find_first_of("%+") == std::string::npos) {
    check(s == input, "uriDecode without % or + changed the text");
  }
  Str encoded = s.asUriEncoded();
  Str inPlace(s);
  inPlace.uriEncode();
  check(inPlace == encoded, "uriEncode and asUriEncoded differ");
  Str appended("x");
  s.appendUriEncodedTo(appended);
  check(appended == "x" + encoded, "appendUriEncodedTo differs");
  for (unsigned char c : encoded) {
    check(c == '%' || isalnum(c) || c == '-' || c == '_' || c == '.' || c == '~',
          "uriEncode left a reserved byte");
  }
  if (valid) {
    check(encoded.uriDecode(), "decoding an encoded valid text failed");
    check(encoded == s, "uri round trip changed the text");
  }
}

void checkListDecode(const std::string& text, char sep) {
  StrVector v;
  const size_t n = Str(text).decodeStrVec(v, sep);
  check(n == v.size(), "decodeStrVec count differs from the vector");
  // With these separators the scheme is ambiguous by design, or unterminated.
  if (sep == '\0' || sep == 'n' || sep == 'r' || sep == '\\') return;
  Str encoded;
  encoded.encodeStrVec(v, sep);
  StrVector back{"stale"};
  check(encoded.decodeStrVec(back, sep) == v.size(), "re-decoded count differs");
  check(back == v, "encodeStrVec of decodeStrVec does not decode to the same vector");
  Str again("junk");
  again.encodeStrVec(back, sep);
  check(again == encoded, "encoding is not stable");

  std::map<Str, Str> m{{"stale", "value"}};
  const bool ok = Str(text).decodeStrMap(m, sep);
  check(ok == (v.size() % 2 == 0), "decodeStrMap result disagrees with the element count");
  if (!ok) {
    check(m.empty(), "failed decodeStrMap left entries");
    return;
  }
  std::map<Str, Str> expected;
  for (size_t i = 0; i + 1 < v.size(); i += 2) expected[v[i]] = v[i + 1];
  check(m == expected, "decodeStrMap pairs differ from the decoded vector");
  Str mapEncoded;
  mapEncoded.encodeStrMap(m, sep);
  std::map<Str, Str> mapBack;
  check(mapEncoded.decodeStrMap(mapBack, sep), "re-decoding a map failed");
  check(mapBack == m, "map round trip changed the map");
}

void checkSplits(const std::string& text, char sep, size_t maxsplits) {
  const StrSegment seg(text);
  size_t seps = 0;
  for (char c : text) seps += c == sep;

  StrVector all;
  seg.splitInto(all, sep);
  if (text.empty()) {
    check(all.empty(), "empty text gave a token");
  } else {
    check(join(tokensOf(all), std::string(1, sep)) == text, "split then join differs");
    check(all.size() == seps + 1, "split token count");
  }
  StrVector limited;
  seg.splitInto(limited, sep, maxsplits);
  if (!text.empty()) {
    check(join(tokensOf(limited), std::string(1, sep)) == text, "limited split then join differs");
    check(limited.size() == std::min(seps, maxsplits) + 1, "limited split token count");
  }
  const char delim[2] = {sep, '\0'};
  StrVector byClass;
  seg.splitInto(byClass, sep == '\0' ? CharacterClassIncludingNul("") : CharacterClass(delim),
                maxsplits);
  check(byClass == limited, "class split differs from char split");
  StrVector bySegment;
  seg.splitInto(bySegment, StrSegment(delim, 1), maxsplits);
  check(bySegment == limited, "one-byte segment split differs from char split");

  StrVector nonEmpty;
  seg.splitNonEmptyInto(nonEmpty, sep);
  Tokens kept;
  for (const Str& t : all) {
    if (!t.empty()) kept.push_back(t);
  }
  check(tokensOf(nonEmpty) == kept, "splitNonEmpty differs from split without empties");
  StrVector nonEmptyLimited;
  seg.splitNonEmptyInto(nonEmptyLimited, sep, maxsplits);
  for (size_t i = 0; i < nonEmptyLimited.size(); ++i) {
    check(!nonEmptyLimited[i].empty(), "splitNonEmpty gave an empty token");
    if (maxsplits != 0) {
      check(nonEmptyLimited[i][0] != sep, "splitNonEmpty token starts with a delimiter");
    }
    if (i + 1 < nonEmptyLimited.size()) {
      check(nonEmptyLimited[i].find(sep) == Str::npos, "splitNonEmpty token holds a delimiter");
    }
  }
  if (maxsplits == 0 && !text.empty() && text[0] != sep) {
    check(nonEmptyLimited.size() == 1 && nonEmptyLimited[0] == text, "maxsplits 0 split the text");
  }
}

void checkLongerDelimiter(const std::string& text, const std::string& delim) {
  StrVector tokens;
  StrSegment(text).splitInto(tokens, StrSegment(delim));
  if (text.empty()) {
    check(tokens.empty(), "empty text gave a token");
    return;
  }
  check(join(tokensOf(tokens), delim) == text, "segment split then join differs");
  if (delim.empty()) {
    check(tokens.size() == text.size(), "empty delimiter: one token per byte");
  } else {
    for (const Str& t : tokens) check(t.find(delim) == Str::npos, "token holds the delimiter");
  }
}

void checkLines(const std::string& text) {
  StrVector lines;
  StrSegment(text).splitlinesInto(lines);
  size_t lfs = 0;
  for (char c : text) lfs += c == '\n';
  const size_t lastLf = text.rfind('\n');
  const size_t tail = text.size() - (lastLf == std::string::npos ? 0 : lastLf + 1);
  check(lines.size() == lfs + (tail ? 1 : 0), "splitlines token count");
  for (const Str& l : lines) check(l.find('\n') == Str::npos, "a line holds a line feed");
  if (text.find('\r') == std::string::npos) {
    std::string rebuilt = join(tokensOf(lines), "\n");
    if (!text.empty() && text.back() == '\n') rebuilt += "\n";
    check(rebuilt == text, "splitlines then join differs");
  }
}

void checkLogging(const std::string& text) {
  std::string expected;
  for (unsigned char c : text) {
    if (c >= 0x20 && c <= 0x7e) {
      expected.push_back(static_cast<char>(c));
    } else if (c == '\n') {
      expected += "\\n";
    } else if (c == '\r') {
      expected += "\\r";
    } else if (c == '\t') {
      expected += " ";
    } else {
      char buf[8];
      snprintf(buf, sizeof buf, "\\x%02X", c);
      expected += buf;
    }
  }
  Str s(text);
  s.makeSafeForLogging();
  check(s == expected, "makeSafeForLogging differs from the byte rule");
}

void checkSearchTerm(const std::string& text) {
  for (bool force : {false, true}) {
    Str escaped = Str(text).asEscapedSearchTerm(force);
    escaped.unescapeSearchTerm();
    check(escaped == text, "search term round trip changed the text");
  }
  Str once(text);
  once.unescapeSearchTerm();
  if (text.empty() || text[0] != '"') check(once == text, "unescape touched an unquoted text");
}

void checkNumbers(const std::string& text) {
  const Str s(text);
  const StrSegment seg(text);
  long l = 0;
  const bool lok = s.tryToLong(l);
  long segL = 0;
  check(seg.tryToLong(segL) == lok && segL == l, "segment and Str tryToLong differ");
  if (lok) {
    errno = 0;
    check(strtol(text.c_str(), nullptr, 10) == l, "tryToLong differs from strtol");
  }
  int i = 12345;
  const bool iok = s.tryToInt(i);
  check(iok == (lok && l >= INT_MIN && l <= INT_MAX), "tryToInt disagrees with tryToLong");
  check(iok ? i == l : i == 12345, "tryToInt wrote its target on failure");

  unsigned long ul = 0;
  const bool ulok = s.tryToUnsignedLong(ul);
  if (ulok) check(strtoul(text.c_str(), nullptr, 10) == ul, "tryToUnsignedLong differs");
  size_t leading = 0;
  while (leading < text.size() && isspace(static_cast<unsigned char>(text[leading]))) ++leading;
  if (leading < text.size() && text[leading] == '-') check(!ulok, "unsigned accepted a minus");
  unsigned u = 12345;
  const bool uok = s.tryToUnsigned(u);
  check(uok == (ulok && ul <= UINT_MAX), "tryToUnsigned disagrees with tryToUnsignedLong");
  check(uok ? u == ul : u == 12345, "tryToUnsigned wrote its target on failure");
  size_t sz = 0;
  check(seg.tryToSizet(sz) == ulok && (!ulok || sz == ul), "tryToSizet disagrees");

  double d = 0;
  if (s.tryToDouble(d)) {
    check(isdigit(static_cast<unsigned char>(text[0])) || text[0] == '-',
          "tryToDouble accepted a bad first byte");
  }
  bool b = false;
  if (s.tryToBool(b)) {
    std::string lower;
    for (char c : text) lower.push_back(static_cast<char>(tolower(static_cast<unsigned char>(c))));
    const bool word = lower == "t" || lower == "true" || lower == "yes" || lower == "f" ||
                      lower == "false" || lower == "no" || text == "0" || text == "1";
    check(word, "tryToBool accepted a non-word");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const std::string input(reinterpret_cast<const char*>(data), size);
  const char sep = input[0];
  const std::string rest = input.substr(1);
  const size_t maxsplits = (size > 1) ? static_cast<unsigned char>(input[1]) % 6 : StrSegment::npos;

  checkUriDecode(input);
  checkListDecode(rest, sep);
  checkSplits(rest, sep, maxsplits);
  checkSplits(rest, sep, StrSegment::npos);
  const size_t delimLen = static_cast<unsigned char>(sep) % 4;
  if (rest.size() >= delimLen) {
    checkLongerDelimiter(rest.substr(delimLen), rest.substr(0, delimLen));
  }
  checkLines(input);
  checkLogging(input);
  checkSearchTerm(input);
  checkNumbers(input);
  return 0;
}
