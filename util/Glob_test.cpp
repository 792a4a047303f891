#include "util/Glob.h"

#include <gtest/gtest.h>

#include <glob.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "util/testing/TestTempDir.h"

namespace {

void touch(const Pathname& p) { writeTestFile(p, ""); }

// The C library's glob(3) as the outside oracle. It sorts by the locale's
// collation, so the tree uses names whose byte order and collation agree,
// and no names with a leading dot, which it would not match.
PathnameVector libcGlob(const Pathname& pattern) {
  PathnameVector out;
  glob_t g{};
  if (::glob(pattern.c_str(), 0, nullptr, &g) == 0) {
    for (size_t i = 0; i < g.gl_pathc; ++i) out.emplace_back(g.gl_pathv[i]);
  }
  ::globfree(&g);
  return out;
}

class GlobTree : public ::testing::Test {
 protected:
  void SetUp() override {
    _root = _dir / "root";
    for (const char* f : {"a1/x/logs/one.log", "a1/x/logs/two.log", "a1/y/logs/three.log",
                          "a2/x/logs/four.log", "a2/z/logs", "b3/x/logs/five.log",
                          "a1/x/notes", "top.txt"}) {
      touch(_root / f);
    }
  }

  TestTempDir _dir;
  Pathname _root;
};

TEST_F(GlobTree, SeveralWildcardElementsAgreeWithTheCLibrary) {
  const char* kPatterns[] = {
      "*",           "*/x",           "*/*/logs",      "*/*/logs/*",  "a1/*/logs/*",
      "*/x/logs/*",  "*/*/*/*",       "a2/*/logs",     "b3/*",        "*/*",
  };
  for (const char* pat : kPatterns) {
    const Pathname pattern = _root / pat;
    PathnameVector got{"junk"};
    const bool expanded = Glob::glob(pattern, got);
    EXPECT_TRUE(expanded) << pat;
    EXPECT_EQ(libcGlob(pattern), got) << pat;
  }
}

TEST_F(GlobTree, ExpandsInSortedOrderAndMatchesDotNames) {
  touch(_root / "a1/x/logs/.hidden");
  PathnameVector got;
  ASSERT_TRUE(Glob::glob(_root / "a1/x/logs/*", got));
  EXPECT_EQ((PathnameVector{_root / "a1/x/logs/.hidden", _root / "a1/x/logs/one.log",
                            _root / "a1/x/logs/two.log"}),
            got);
}

TEST_F(GlobTree, LiteralPatternsAndMissingPrefixes) {
  PathnameVector out{"untouched"};
  EXPECT_FALSE(Glob::glob(_root / "nope/*", out));
  EXPECT_EQ((PathnameVector{"untouched"}), out);  // left alone

  EXPECT_FALSE(Glob::glob(_root / "a1/x", out));  // no wildcard: the prefix alone
  EXPECT_EQ((PathnameVector{_root / "a1/x"}), out);

  EXPECT_FALSE(Glob::glob(_root / "a*", out));  // "a*" is a literal name here
  EXPECT_EQ((PathnameVector{_root / "a1/x"}), out);  // missing: left alone again
  touch(_root / "a*");
  EXPECT_FALSE(Glob::glob(_root / "a*", out));
  EXPECT_EQ((PathnameVector{_root / "a*"}), out);

  // A literal element after a wildcard keeps only the candidates that hold it.
  ASSERT_TRUE(Glob::glob(_root / "*/z/logs", out));
  EXPECT_EQ((PathnameVector{_root / "a2/z/logs"}), out);
  ASSERT_TRUE(Glob::glob(_root / "*/nothing", out));
  EXPECT_TRUE(out.empty());

  // A "." leaf in the prefix is judged one level up.
  ASSERT_TRUE(Glob::glob(_root / "a2/./*", out));
  EXPECT_EQ((PathnameVector{_root / "a2/./x", _root / "a2/./z"}), out);

  // A ".." leaf is looked for in its parent's listing, where it never
  // stands: the prefix counts as missing even though the path exists.
  EXPECT_FALSE(Glob::glob(_root / "a1/../*", out));
  EXPECT_EQ((PathnameVector{_root / "a2/./x", _root / "a2/./z"}), out);
  EXPECT_FALSE(Glob::glob(_root / "a1/x/..", out));
  EXPECT_EQ((PathnameVector{_root / "a2/./x", _root / "a2/./z"}), out);
}

TEST_F(GlobTree, RelativePatternsStayRelative) {
  char old[4096];
  ASSERT_NE(nullptr, ::getcwd(old, sizeof(old)));
  ASSERT_EQ(0, ::chdir(_root.c_str()));
  PathnameVector out;
  const bool expanded = Glob::glob(Pathname("*/x/logs"), out);
  const PathnameVector first = out;
  const bool expanded2 = Glob::glob(Pathname("a1/*"), out);
  ASSERT_EQ(0, ::chdir(old));
  EXPECT_TRUE(expanded);
  EXPECT_EQ((PathnameVector{"a1/x/logs", "a2/x/logs", "b3/x/logs"}), first);
  EXPECT_TRUE(expanded2);
  EXPECT_EQ((PathnameVector{"a1/x", "a1/y"}), out);
}

TEST_F(GlobTree, SharedCacheListsEachDirectoryOnce) {
  ReaddirCache cache;
  PathnameVector out;
  ASSERT_TRUE(Glob::glob(_root / "*/x/logs/*", out, cache));
  touch(_root / "a1/x/logs/late.log");  // invisible through the same cache
  PathnameVector again;
  ASSERT_TRUE(Glob::glob(_root / "*/x/logs/*", again, cache));
  EXPECT_EQ(out, again);
  ASSERT_TRUE(Glob::glob(_root / "*/x/logs/*", again));
  EXPECT_EQ(out.size() + 1, again.size());
}

TEST(Glob, WouldGlobComparesElementByElement) {
  const struct { const char* pattern; const char* path; bool want; } kCases[] = {
      {"/a/*", "/a/b/c", false},   // element counts differ
      {"/a/b*", "/a/bc", false},   // only a whole element is a wildcard
      {"a//*/c/", "a/b/c", true},  // empty elements do not count
      {"/a/*/c", "/a/b/c", true}, {"/a/*/*", "/a/b/c", true}, {"/a/b", "/a/b", true},
      {"/*", "/", false}, {"*", "x", true}, {"/a/*/c", "/a/b/d", false},
  };
  for (const auto& c : kCases) {
    EXPECT_EQ(c.want, Glob::wouldGlob(Pathname(c.pattern), Pathname(c.path)))
        << c.pattern << " vs " << c.path;
  }
  EXPECT_EQ("*", Glob::WILDCARD_STAR);
}

}  // namespace
