#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <random>
#include <string>

#include "util/Pathname.h"
#include "util/PathnameVector.h"
#include "util/testing/TestTempDir.h"

namespace {

TEST(ShellQuoted, EachRuleOfTheFourGroups) {
  const struct { const char* in; const char* want; } kCases[] = {
      {"", "\"\""},                      // rule 1
      {"plain/path-1.txt", "plain/path-1.txt"},  // rule 2: nothing to protect
      {"a$b", "'a$b'"},                  // rule 3: quotable, no single quote
      {"a\\b c", "'a\\b c'"},            // rule 3 wins over white space
      {"a\"b c", "'a\"b c'"},
      {"a b", "\"a b\""},                // rule 4 with white space
      {"it's here", "\"it's here\""}, {"it's $HOME", "\"it's \\$HOME\""},
      {"it's \"x\"", "\"it's \\\"x\\\"\""}, {"tab\there", "\"tab\there\""},
      {"line\nfeed", "\"line\nfeed\""},
      {"a;b", "a\\;b"},                  // rule 4 without white space
      {"it's", "it\\'s"}, {"x'$y", "x\\'\\$y"}, {"#*=?[]|&", "\\#\\*\\=\\?\\[\\]\\|\\&"},
  };
  for (const auto& c : kCases) {
    EXPECT_EQ(std::string(c.want), Pathname(c.in).shellQuoted()) << c.in;
  }
}

TEST(SplitArgShellQuoted, ReadsOneWord) {
  const struct { const char* in; const char* word; const char* rest; } kCases[] = {
      {"  \t\nabc", "abc", ""},        // leading white space skipped
      {"\"a\\\"b\" x", "a\"b", " x"},  // backslash escapes inside double quotes
      {"'a\\b'", "a\\b", ""},          // and is literal inside single quotes
      {"abc def", "abc", " def"}, {"'a b'c d", "a bc", " d"}, {"a\\ b", "a b", ""},
      {"\"it's\"", "it's", ""}, {"'say \"hi\"'", "say \"hi\"", ""}, {"a\"\"b", "ab", ""},
      {"x\ny", "x", "\ny"},
  };
  for (const auto& c : kCases) {
    Pathname word("junk");
    StrSegment rest;
    EXPECT_TRUE(Pathname::splitArgShellQuoted(c.in, word, rest)) << c.in;
    EXPECT_EQ(c.word, word) << c.in;
    EXPECT_EQ(std::string(c.rest), std::string(rest.view())) << c.in;
  }
}

TEST(SplitArgShellQuoted, RejectsBrokenWords) {
  for (const char* in : {"", "   ", "'open", "\"open", "dangling\\", "\"\"", "''", "\"a\\\""}) {
    Pathname word("junk");
    StrSegment rest;
    EXPECT_FALSE(Pathname::splitArgShellQuoted(in, word, rest)) << in;
  }
}

TEST(SplitShellQuotedInto, StopsSilentlyAtTheFirstBrokenWord) {
  const struct { const char* in; std::vector<const char*> want; } kCases[] = {
      {"a b 'unterminated c", {"a", "b"}},  // the words ahead are kept
      {"a \"\" b", {"a"}},                  // an empty word ends it too
      {"a b 'c d' e", {"a", "b", "c d", "e"}}, {"\t  a  ", {"a"}}, {"", {}}, {"x\\", {}},
  };
  for (const auto& c : kCases) {
    PathnameVector got{"kept"};
    Pathname(c.in).splitShellQuotedInto(got);
    PathnameVector want{"kept"};  // appends, never clears
    for (const char* w : c.want) want.emplace_back(w);
    EXPECT_EQ(want, got) << c.in;
  }
}

TEST(SplitShellQuotedInto, ExistsVariantKeepsExistingPathsOnly) {
  TestTempDir dir;
  const Pathname there = dir / "has space";
  ASSERT_TRUE(there.mkdir(Pathname::MKDIR_PRIVATE));
  PathnameVector in{there, dir / "missing", dir.path()};
  Pathname line;
  in.joinShellQuotedInto(line);
  PathnameVector got;
  line.splitShellQuotedIntoExists(got);
  EXPECT_EQ((PathnameVector{there, dir.path()}), got);
}

// Random arguments made of the bytes the quoting cares about, and some it
// does not.
Pathname randomArg(std::mt19937& rng) {
  static const char kAlphabet[] = "ab Z9 \t\n\"'$\\#&*;=?[]|/.-_";
  Pathname arg;
  const int len = 1 + static_cast<int>(rng() % 12);
  for (int i = 0; i < len; ++i) arg.push_back(kAlphabet[rng() % (sizeof(kAlphabet) - 1)]);
  return arg;
}

TEST(ShellQuoteRoundTrip, SplitOfJoinGivesTheArgumentsBack) {
  std::mt19937 rng(4242);
  for (int round = 0; round < 20000; ++round) {
    PathnameVector args;
    const int n = 1 + static_cast<int>(rng() % 5);
    for (int i = 0; i < n; ++i) args.push_back(randomArg(rng));
    Pathname line;
    args.joinShellQuotedInto(line);
    PathnameVector back;
    line.splitShellQuotedInto(back);
    ASSERT_EQ(args, back) << "line: " << line;
  }
}

// /bin/sh is the outside oracle: each quoted word must reach a command as
// exactly the original argument. The shell prints each argument followed by
// a NUL byte.
TEST(ShellQuoteRoundTrip, TheShellReadsTheQuotedWordsAsTheArguments) {
  if (::access("/bin/sh", X_OK) != 0) GTEST_SKIP() << "no /bin/sh";
  std::mt19937 rng(99);
  for (int round = 0; round < 60; ++round) {
    PathnameVector args;
    for (int i = 0; i < 8; ++i) args.push_back(randomArg(rng));
    Pathname line;
    args.joinShellQuotedInto(line);
    const std::string command = "printf '%s\\0' " + line;
    FILE* f = ::popen(command.c_str(), "r");
    ASSERT_NE(nullptr, f);
    std::string out;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof(buf), f)) > 0) out.append(buf, n);
    ASSERT_EQ(0, ::pclose(f)) << line;
    PathnameVector got;
    size_t start = 0;
    for (size_t nul; (nul = out.find('\0', start)) != std::string::npos; start = nul + 1) {
      got.emplace_back(out.data() + start, nul - start);
    }
    EXPECT_EQ(args, got) << "line: " << line;
  }
}

TEST(PathnameVector, JoinAndAddArg) {
  PathnameVector v;
  v.addArg("ls");
  v.addArg(StrSegment("-l"));
  v.addArg(-42LL);
  v.addArg("my file");
  Pathname line("old text");
  v.joinShellQuotedInto(line);
  EXPECT_EQ("ls -l -42 \"my file\"", line);
  PathnameVector().joinShellQuotedInto(line);
  EXPECT_EQ("", line);
}

}  // namespace
