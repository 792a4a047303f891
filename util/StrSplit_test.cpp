// Tokenisers of StrSegment, reached also through Str and into both vector
// kinds.
#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "util/CharacterClass.h"
#include "util/Str.h"
#include "util/StrSegment.h"
#include "util/StrVector.h"

namespace {

typedef std::vector<std::string> Tokens;
const size_t npos = StrSegment::npos;

// Records what the acceptor is handed, as it is handed.
class Recorder : public StrSegmentTokenAcceptor {
 public:
  void acceptToken(StrSegment& token) override { tokens.emplace_back(token.data(), token.size()); }
  Tokens tokens;
};

Tokens toTokens(const StrVector& v) { return Tokens(v.begin(), v.end()); }
Tokens toTokens(const StrSegmentVector& v) {
  Tokens out;
  for (const StrSegment& s : v) out.emplace_back(s.data(), s.size());
  return out;
}

std::string show(const Tokens& t) {
  std::string out = "[";
  for (const std::string& s : t) out += "\"" + s + "\" ";
  return out + "]";
}

struct SplitCase {
  const char* text;
  size_t maxsplits;
  Tokens expected;
};

// Runs every entry point that takes delimiter `d` and checks they agree.
template <class Delim>
void checkSplit(const SplitCase& c, const Delim& d, bool nonEmpty) {
  const StrSegment seg(c.text);
  Recorder r;
  StrVector v;
  StrSegmentVector sv;
  StrVector viaStr;
  if (nonEmpty) {
    seg.splitNonEmpty(r, d, c.maxsplits);
    seg.splitNonEmptyInto(v, d, c.maxsplits);
    seg.splitNonEmptyInto(sv, d, c.maxsplits);
    Str(c.text).splitNonEmptyInto(viaStr, d, c.maxsplits);
  } else {
    seg.split(r, d, c.maxsplits);
    seg.splitInto(v, d, c.maxsplits);
    seg.splitInto(sv, d, c.maxsplits);
    Str(c.text).splitInto(viaStr, d, c.maxsplits);
  }
  EXPECT_EQ(c.expected, r.tokens) << show(r.tokens);
  EXPECT_EQ(c.expected, toTokens(v));
  EXPECT_EQ(c.expected, toTokens(sv));
  EXPECT_EQ(c.expected, toTokens(viaStr));
  for (const StrSegment& s : sv) {  // segment tokens point into the text
    EXPECT_GE(s.data(), seg.data());
    EXPECT_LE(s.data() + s.size(), seg.data() + seg.size());
  }
}

std::string trace(const SplitCase& c) {
  return std::string("text=\"") + c.text + "\" maxsplits=" +
         (c.maxsplits == npos ? std::string("npos") : std::to_string(c.maxsplits));
}

TEST(StrSplit, SplitBySingleByteKeepsEmptyTokens) {
  const SplitCase kCases[] = {
      {"", npos, {}},  // no token at all
      {"", 0, {}},
      {"abc", npos, {"abc"}},
      {"a,b,c", npos, {"a", "b", "c"}},
      {"a,", npos, {"a", ""}},
      {",a", npos, {"", "a"}},
      {",", npos, {"", ""}},
      {",,", npos, {"", "", ""}},
      {"a,,b", npos, {"a", "", "b"}},
      {"a,b,c", 0, {"a,b,c"}},  // 0 means no split, not unlimited
      {"a,b,c", 1, {"a", "b,c"}},
      {"a,b,c", 2, {"a", "b", "c"}},
      {"a,b,c", 3, {"a", "b", "c"}},
      {"a,b,c,", 2, {"a", "b", "c,"}},  // the remainder keeps its delimiters
      {",,a", 1, {"", ",a"}},
      {"a,", 1, {"a", ""}},
      {"a,,", 1, {"a", ","}},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(trace(c));
    checkSplit(c, ',', false);
    checkSplit(c, ",", false);
    checkSplit(c, StrSegment(","), false);
    checkSplit(c, CharacterClass(","), false);
  }
}

TEST(StrSplit, SplitByClassTakesAnyMember) {
  const SplitCase kCases[] = {
      {"a,b;c", npos, {"a", "b", "c"}},
      {"a,;b", npos, {"a", "", "b"}},  // each member byte is one delimiter
      {";a,", npos, {"", "a", ""}},
      {"a,b;c", 1, {"a", "b;c"}},
      {"a;,b", 1, {"a", ",b"}},
      {"a;,b", 0, {"a;,b"}},
      {"abc", npos, {"abc"}},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(trace(c));
    checkSplit(c, CharacterClass(",;"), false);
  }
}

TEST(StrSplit, SplitByLongerDelimiterScansPastEachMatch) {
  const SplitCase kCases[] = {
      {"a--b--c", npos, {"a", "b", "c"}},
      {"a---b", npos, {"a", "-b"}},  // matched at the first fit, then past it
      {"a----b", npos, {"a", "", "b"}},
      {"--", npos, {"", ""}},
      {"a--", npos, {"a", ""}},
      {"a-b", npos, {"a-b"}},
      {"-", npos, {"-"}},  // shorter than the delimiter
      {"a--b--c", 1, {"a", "b--c"}},
      {"a--b--c", 0, {"a--b--c"}},
      {"ab-", npos, {"ab-"}},  // a partial match at the very end
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(trace(c));
    checkSplit(c, "--", false);
    checkSplit(c, StrSegment("--"), false);
  }
}

TEST(StrSplit, EmptyDelimiterGivesOneTokenPerByte) {
  const SplitCase kCases[] = {
      {"abc", npos, {"a", "b", "c"}},
      {"abc", 1, {"a", "bc"}},
      {"abc", 2, {"a", "b", "c"}},
      {"abc", 0, {"abc"}},
      {"a", npos, {"a"}},
      {"", npos, {}},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(trace(c));
    checkSplit(c, "", false);
    checkSplit(c, StrSegment(), false);
  }
}

TEST(StrSplit, DelimiterMayBeNulOrHighByte) {
  const std::string text("a\0b\0", 4);
  StrVector v;
  StrSegment(text).splitInto(v, '\0');
  EXPECT_EQ((Tokens{"a", "b", ""}), toTokens(v));
  StrVector w;
  StrSegment("x\xffy").splitInto(w, '\xff');
  EXPECT_EQ((Tokens{"x", "y"}), toTokens(w));
  StrVector z;
  StrSegment("x\xffy").splitInto(z, CharacterClass("\xff"));
  EXPECT_EQ((Tokens{"x", "y"}), toTokens(z));
}

TEST(StrSplit, SplitNonEmptySkipsRunsOfDelimiters) {
  const SplitCase kCases[] = {
      {"", npos, {}},
      {",,,", npos, {}},
      {",,a,,b,,", npos, {"a", "b"}},
      {"a,b", npos, {"a", "b"}},
      {"a", npos, {"a"}},
      {"a,b,c", 0, {"a,b,c"}},
      {"a,b,c", 1, {"a", "b,c"}},
      {"a,,,b,,c,,", 1, {"a", "b,,c,,"}},  // remainder: leading run skipped, the rest kept
      {"a,,,", 1, {"a"}},                  // a remainder of delimiters only is no token
      {"a,,b", 0, {"a,,b"}},
      {"a,b,c", 10, {"a", "b", "c"}},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(trace(c));
    checkSplit(c, ',', true);
    checkSplit(c, ",", true);
    checkSplit(c, StrSegment(","), true);
    checkSplit(c, CharacterClass(","), true);
  }
}

TEST(StrSplit, SplitNonEmptyByClassAndLongerDelimiter) {
  const SplitCase kClass[] = {
      {" ,a, ,b ", npos, {"a", "b"}},
      {"a, ,b, c", 1, {"a", "b, c"}},
  };
  for (const auto& c : kClass) {
    SCOPED_TRACE(trace(c));
    checkSplit(c, CharacterClass::COMMA_OR_SPACE, true);
  }
  const SplitCase kLonger[] = {
      {"--a----b--", npos, {"a", "b"}},
      {"a---b", npos, {"a", "-b"}},
      {"a--b--c", 1, {"a", "b--c"}},
      {"----", npos, {}},
  };
  for (const auto& c : kLonger) {
    SCOPED_TRACE(trace(c));
    checkSplit(c, "--", true);
    checkSplit(c, StrSegment("--"), true);
  }
}

TEST(StrSplit, VectorsAreAppendedToNotCleared) {
  StrVector v;
  v.append("old");
  StrSegment("a,b").splitInto(v, ',');
  StrSegment(",c,").splitNonEmptyInto(v, ',');
  StrSegment("d\ne").splitlinesInto(v);
  EXPECT_EQ((Tokens{"old", "a", "b", "c", "d", "e"}), toTokens(v));

  StrSegmentVector sv;
  sv.append("old");
  StrSegment("a,b").splitInto(sv, ',');
  StrSegment("d\ne").splitlinesInto(sv);
  EXPECT_EQ((Tokens{"old", "a", "b", "d", "e"}), toTokens(sv));
}

TEST(StrSplit, SplitlinesEndsTokensAtLineFeeds) {
  const struct { std::string text; Tokens expected; } kCases[] = {
      {"", {}},
      {"a", {"a"}},  // no trailing line feed
      {"a\n", {"a"}},
      {"a\nb", {"a", "b"}},
      {"a\r\nb\r", {"a", "b\r"}},  // only a line feed strips a carriage return
      {"\r\n", {"\r"}},  // the carriage return is the whole line, so it stays
      {"\n", {""}},
      {"\n\n", {"", ""}},
      {"a\n\nb", {"a", "", "b"}},
      {"\na", {"", "a"}},
      {"a\r\r\n", {"a\r"}},
      {"a\rb\n", {"a\rb"}},
      {"a\r\n\r\n", {"a", "\r"}},
      {"\r", {"\r"}},
      {std::string("a\0\nb", 4), {std::string("a\0", 2), "b"}},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.text);
    Recorder r;
    StrSegment(c.text).splitlines(r);
    EXPECT_EQ(c.expected, r.tokens) << show(r.tokens);
    StrVector v;
    StrSegment(c.text).splitlinesInto(v);
    EXPECT_EQ(c.expected, toTokens(v));
    StrSegmentVector sv;
    const Str owner(c.text);  // the segments point into it
    owner.splitlinesInto(sv);
    EXPECT_EQ(c.expected, toTokens(sv));
  }
}

std::string randomOver(std::mt19937& rng, const char* alphabet, size_t maxLen) {
  const size_t n = 1 + rng() % maxLen;  // never empty
  const size_t k = strlen(alphabet);
  std::string s;
  for (size_t i = 0; i < n; ++i) s.push_back(alphabet[rng() % k]);
  return s;
}

std::string join(const Tokens& t, const std::string& sep) {
  std::string out;
  for (size_t i = 0; i < t.size(); ++i) out += (i ? sep : "") + t[i];
  return out;
}

TEST(StrSplit, SplitThenJoinGivesTheTextBack) {
  std::mt19937 rng(7);
  for (int i = 0; i < 2000; ++i) {
    const std::string text = randomOver(rng, "ab,-", 12);
    SCOPED_TRACE(text);
    StrVector byChar;
    StrSegment(text).splitInto(byChar, ',');
    EXPECT_EQ(text, join(toTokens(byChar), ","));
    size_t commas = 0;
    for (char ch : text) commas += ch == ',';
    EXPECT_EQ(commas + 1, byChar.size());

    StrVector byPair;
    StrSegment(text).splitInto(byPair, "--");
    EXPECT_EQ(text, join(toTokens(byPair), "--"));
    for (const Str& t : byPair) EXPECT_EQ(npos, t.find("--"));

    // Limited splits join back too, the remainder carrying the rest.
    const size_t limit = rng() % 4;
    StrVector limited;
    StrSegment(text).splitInto(limited, ',', limit);
    EXPECT_EQ(text, join(toTokens(limited), ","));
    EXPECT_EQ(std::min(commas, limit) + 1, limited.size());

    StrVector nonEmpty;
    StrSegment(text).splitNonEmptyInto(nonEmpty, ',');
    Tokens kept;
    for (const std::string& t : toTokens(byChar)) {
      if (!t.empty()) kept.push_back(t);
    }
    EXPECT_EQ(kept, toTokens(nonEmpty));
  }
}

TEST(StrSplit, SplitlinesThenJoinGivesTheTextBack) {
  std::mt19937 rng(8);
  for (int i = 0; i < 2000; ++i) {
    // Ending on "x" keeps every tail non-empty and free of a carriage return.
    const std::string text = randomOver(rng, "a\n", 10) + "x";
    SCOPED_TRACE(text);
    StrVector lines;
    StrSegment(text).splitlinesInto(lines);
    EXPECT_EQ(text, join(toTokens(lines), "\n"));
  }
}

}  // namespace
