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
#include "util/testing/TestText.h"

namespace {

typedef std::vector<std::string> Tokens;
const size_t npos = StrSegment::npos;

// Records what the acceptor is handed, as it is handed.
class Recorder : public StrSegmentTokenAcceptor {
 public:
  void acceptToken(StrSegment& token) override { tokens.emplace_back(token.data(), token.size()); }
  Tokens tokens;
};

template <class Vec>
Tokens toTokens(const Vec& v) {
  Tokens out;
  for (const auto& s : v) out.emplace_back(s.data(), s.size());
  return out;
}

struct SplitCase {
  std::string text;
  const char* delim;  // also as a char and a class when it is one byte long
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
  EXPECT_EQ(c.expected, r.tokens);
  EXPECT_EQ(c.expected, toTokens(v));
  EXPECT_EQ(c.expected, toTokens(sv));
  EXPECT_EQ(c.expected, toTokens(viaStr));
  for (const StrSegment& s : sv) {  // segment tokens point into the text
    EXPECT_GE(s.data(), seg.data());
    EXPECT_LE(s.data() + s.size(), seg.data() + seg.size());
  }
}

void checkEveryDelimiterForm(const SplitCase& c, bool nonEmpty) {
  SCOPED_TRACE(printable(c.text) + " by \"" + printable(c.delim) + "\" maxsplits=" +
               (c.maxsplits == npos ? std::string("npos") : std::to_string(c.maxsplits)));
  checkSplit(c, c.delim, nonEmpty);
  checkSplit(c, StrSegment(c.delim), nonEmpty);
  if (strlen(c.delim) == 1) {
    checkSplit(c, c.delim[0], nonEmpty);
    checkSplit(c, CharacterClass(c.delim), nonEmpty);
  }
}

TEST(StrSplit, SplitKeepsEmptyTokens) {
  const SplitCase kCases[] = {
      {"", ",", npos, {}}, {"", ",", 0, {}},  // no token at all
      {"a,b,c", ",", 0, {"a,b,c"}},  // 0 means no split, not unlimited
      {"a,b,c,", ",", 2, {"a", "b", "c,"}},  // the remainder keeps its delimiters
      {"abc", ",", npos, {"abc"}}, {"a,b,c", ",", npos, {"a", "b", "c"}},
      {"a,", ",", npos, {"a", ""}}, {",a", ",", npos, {"", "a"}}, {",", ",", npos, {"", ""}},
      {"a,,b", ",", npos, {"a", "", "b"}}, {"a,b,c", ",", 1, {"a", "b,c"}},
      {"a,b,c", ",", 3, {"a", "b", "c"}}, {"a,", ",", 1, {"a", ""}},
      {"x\xffy", "\xff", npos, {"x", "y"}},
      // A longer delimiter is matched where it first fits, then scanning
      // goes on past it.
      {"a---b", "--", npos, {"a", "-b"}}, {"a----b", "--", npos, {"a", "", "b"}},
      {"-", "--", npos, {"-"}},  // shorter than the delimiter
      {"ab-", "--", npos, {"ab-"}},  // a partial match at the very end
      {"a--b--c", "--", npos, {"a", "b", "c"}}, {"a--", "--", npos, {"a", ""}},
      {"a--b--c", "--", 1, {"a", "b--c"}}, {"a--b--c", "--", 0, {"a--b--c"}},
      // An empty delimiter gives one token per byte.
      {"abc", "", npos, {"a", "b", "c"}}, {"abc", "", 1, {"a", "bc"}}, {"abc", "", 0, {"abc"}},
      {"", "", npos, {}},
  };
  for (const auto& c : kCases) checkEveryDelimiterForm(c, false);
  // Each member byte of a class is one delimiter.
  const SplitCase kClassCases[] = {
      {"a,;b", ",;", npos, {"a", "", "b"}}, {";a,", ",;", npos, {"", "a", ""}},
      {"a;,b", ",;", 1, {"a", ",b"}},
  };
  for (const auto& c : kClassCases) {
    SCOPED_TRACE(c.text);
    checkSplit(c, CharacterClass(c.delim), false);
  }
  checkSplit({std::string("a\0b\0", 4), "", npos, {"a", "b", ""}}, '\0', false);
}

TEST(StrSplit, SplitNonEmptySkipsRunsOfDelimiters) {
  const SplitCase kCases[] = {
      {"a,,,b,,c,,", ",", 1, {"a", "b,,c,,"}},  // remainder: leading run skipped, the rest kept
      {"a,,,", ",", 1, {"a"}},                  // a remainder of delimiters only is no token
      {"", ",", npos, {}}, {",,,", ",", npos, {}}, {",,a,,b,,", ",", npos, {"a", "b"}},
      {"a,b,c", ",", 0, {"a,b,c"}}, {"a,b,c", ",", 1, {"a", "b,c"}}, {"a,,b", ",", 0, {"a,,b"}},
      {"a,b,c", ",", 10, {"a", "b", "c"}}, {"--a----b--", "--", npos, {"a", "b"}},
      {"a---b", "--", npos, {"a", "-b"}}, {"a--b--c", "--", 1, {"a", "b--c"}},
      {"----", "--", npos, {}},
  };
  for (const auto& c : kCases) checkEveryDelimiterForm(c, true);
  const SplitCase kClassCases[] = {
      {" ,a, ,b ", " ,", npos, {"a", "b"}}, {"a, ,b, c", " ,", 1, {"a", "b, c"}},
  };
  for (const auto& c : kClassCases) {
    SCOPED_TRACE(c.text);
    checkSplit(c, CharacterClass::COMMA_OR_SPACE, true);
  }
}

TEST(StrSplit, VectorsAreAppendedToNotCleared) {
  StrVector v{"old"};
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
      {"a\r\nb\r", {"a", "b\r"}},  // only a line feed strips a carriage return
      {"\r\n", {"\r"}},  // the carriage return is the whole line, so it stays
      {"", {}}, {"a", {"a"}}, {"a\n", {"a"}}, {"\n\n", {"", ""}}, {"\na", {"", "a"}},
      {"a\r\r\n", {"a\r"}}, {"a\rb\n", {"a\rb"}}, {"a\r\n\r\n", {"a", "\r"}},
      {std::string("a\0\nb", 4), {std::string("a\0", 2), "b"}},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(printable(c.text));
    Recorder r;
    StrSegment(c.text).splitlines(r);
    EXPECT_EQ(c.expected, r.tokens);
    StrVector v;
    StrSegment(c.text).splitlinesInto(v);
    EXPECT_EQ(c.expected, toTokens(v));
    StrSegmentVector sv;
    const Str owner(c.text);  // the segments point into it
    owner.splitlinesInto(sv);
    EXPECT_EQ(c.expected, toTokens(sv));
  }
}

std::string join(const Tokens& t, const std::string& sep) {
  std::string out;
  for (size_t i = 0; i < t.size(); ++i) out += (i ? sep : "") + t[i];
  return out;
}

TEST(StrSplit, SplitThenJoinGivesTheTextBack) {
  std::mt19937 rng(7);
  for (int i = 0; i < 2000; ++i) {
    const std::string text = randomText(rng, "ab,-", 12, 1);
    SCOPED_TRACE(text);
    const size_t commas = std::count(text.begin(), text.end(), ',');
    StrVector byChar;
    StrSegment(text).splitInto(byChar, ',');
    EXPECT_EQ(text, join(toTokens(byChar), ","));
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
    Tokens kept = toTokens(byChar);
    kept.erase(std::remove(kept.begin(), kept.end(), ""), kept.end());
    EXPECT_EQ(kept, toTokens(nonEmpty));

    // Ending on "x" keeps every tail non-empty and free of a carriage return.
    const std::string lines = randomText(rng, "a\n", 10, 1) + "x";
    StrVector split;
    StrSegment(lines).splitlinesInto(split);
    EXPECT_EQ(lines, join(toTokens(split), "\n")) << printable(lines);
  }
}

}  // namespace
