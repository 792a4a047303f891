#include "util/Pathname.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <random>
#include <string>

#include "util/PathnameVector.h"

namespace {

struct UnaryCase {
  const char* in;
  const char* want;
};

template <size_t N, class Op>
void checkTable(const UnaryCase (&cases)[N], Op op) {
  for (const UnaryCase& c : cases) EXPECT_EQ(c.want, op(Pathname(c.in))) << '"' << c.in << '"';
}

// The same for an operation that changes the path in place.
template <size_t N>
void checkInPlace(const UnaryCase (&cases)[N], void (Pathname::*op)()) {
  checkTable(cases, [op](Pathname p) {
    (p.*op)();
    return p;
  });
}

TEST(PathnameArithmetic, SlashAppendsOneElement) {
  const struct { const char* left; const char* right; const char* want; } kCases[] = {
      {"", "a", "/a"},       // an empty path acts as the root
      {"a/", "//b", "a/b"},  // leading separators of the right side skipped
      {"a", "", "a"},        // an empty right side changes nothing
      {"a//", "b", "a//b"},  // existing doubles are not our business
      {"/", "a", "/a"}, {"a", "b", "a/b"}, {"a/", "b", "a/b"}, {"", "", ""}, {"a", "/", "a/"},
      {"a", "b/c/", "a/b/c/"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(std::string(c.left) + " / " + c.right);
    Pathname p(c.left);
    p /= c.right;
    EXPECT_EQ(c.want, p);
    EXPECT_EQ(c.want, Pathname(c.left) / c.right);
    EXPECT_EQ(c.want, Pathname(c.left) / Str(c.right));
    EXPECT_EQ(c.want, Pathname(c.left) / StrSegment(c.right));
  }
}

TEST(PathnameArithmetic, PlusConcatenatesOnEitherSide) {
  const Pathname p("/a/b");
  EXPECT_EQ("/a/b.tmp", p + ".tmp");
  EXPECT_EQ("/a/b.tmp", p + Str(".tmp"));
  EXPECT_EQ("/a/b/a/b", p + p);
  EXPECT_EQ("x/a/b", "x" + p);
  EXPECT_EQ("x/a/b", Str("x") + p);
  EXPECT_EQ("x/a/b", StrSegment("x") + p);
}

TEST(PathnameArithmetic, StripElementKeepsTheRoot) {
  const UnaryCase kCases[] = {
      {"/a/b/", "/a"}, {"/a", "/"},  {"a", ""},     {"/", "/"},     {"", ""},
      {"a/b", "a"},    {"//a", "/"}, {"a//b", "a"}, {"///", "/"},   {"/a/b//c", "/a/b"},
      {"a/", ""},      {"./a", "."},
  };
  checkInPlace(kCases, &Pathname::stripElement);
  checkTable(kCases, [](const Pathname& p) { return p.toParent(); });
}

TEST(PathnameArithmetic, ToLeafIgnoresTrailingSeparators) {
  const UnaryCase kCases[] = {
      {"/", "/"},  {"", "/"},  {"///", "/"},   // no element at all
      {"/a/b///", "b"}, {"a", "a"}, {"/a/b.c", "b.c"}, {"a/.", "."},
  };
  checkTable(kCases, [](const Pathname& p) { return p.toLeaf(); });
}

TEST(PathnameArithmetic, ExtIsAfterTheLastDotOfTheLastElement) {
  const UnaryCase kCases[] = {
      {"dir.d/file", ""},     // a dot in a directory does not count
      {"x.", ""},             // the dot ends the name
      {".bashrc", "bashrc"},  // a leading dot counts here
      {"/a/b.tar.gz", "gz"},  {"/a/b.c/", "c"}, {"noext", ""}, {"", ""},
  };
  checkTable(kCases, [](const Pathname& p) { return p.ext(); });
}

TEST(PathnameArithmetic, BasenameWithoutExtDropsOneExtension) {
  const UnaryCase kCases[] = {
      {".hidden", ".hidden"},  // a leading dot starts no extension
      {"/a/b.tar.gz", "b.tar"}, {"x.", "x"}, {"/a/b", "b"}, {"dir.d/file", "file"},
      {"a/.x.y", ".x"},
  };
  checkTable(kCases, [](const Pathname& p) { return p.basenameWithoutExt(); });
}

TEST(PathnameArithmetic, SeparatorHousekeeping) {
  const UnaryCase kAdd[] = {{"", "/"}, {"/", "/"}, {"a", "a/"}, {"a/", "a/"}};
  checkInPlace(kAdd, &Pathname::addTrailingSep);
  const UnaryCase kRemove[] = {{"/", "/"}, {"///", "/"}, {"a//", "a"}, {"a", "a"}, {"", ""},
                               {"/a/", "/a"}};
  checkInPlace(kRemove, &Pathname::removeTrailingSeps);
  const UnaryCase kDoubles[] = {{"//a///b", "/a/b"}, {"a", "a"}, {"////", "/"}, {"a//", "a/"}};
  checkInPlace(kDoubles, &Pathname::removeDoubleSeps);
  checkTable(kDoubles, [](const Pathname& p) { return Pathname::removeDoubleSeps(p); });
  const UnaryCase kBack[] = {{"a\\b\\\\c", "a/b//c"}, {"/x", "/x"}};
  checkInPlace(kBack, &Pathname::replaceBackSlashesWithSep);
}

TEST(PathnameArithmetic, RemoveDotDotSlashDisarmsParentElements) {
  const UnaryCase kCases[] = {
      {"a/..", "a"},   // at the end with more than one byte ahead
      {"/..", "/"},    // one byte ahead: only ".." goes
      {"a..b/..c", "a..b/..c"},  // ".." inside a name is harmless
      {"a/../b", "a/b"}, {"../x", "x"}, {"..", ""}, {"../../..", ""}, {"a/../../b", "a/b"},
      {"/../etc/passwd", "/etc/passwd"}, {"...", "..."}, {"x/..y", "x/..y"},
      {"a/.../b", "a/.../b"},
  };
  checkInPlace(kCases, &Pathname::removeDotDotSlash);
}

TEST(PathnameArithmetic, NormalizeResolvesTextually) {
  const UnaryCase kCases[] = {
      {"a/./b/../c", "/a/c"},  // relative input comes out rooted
      {"/../x", "/x"},         // ".." at the root stays there
      {"a/..", "/"},           // climbing back to the root gives "/", not ""
      {"../../a/../../b", "/b"}, {"/a/b/c/../../d", "/a/d"}, {"//a//b//", "/a/b"},
      {"./", ""}, {"/", ""}, {"", ""}, {"/a/./././b/.", "/a/b"},
  };
  checkInPlace(kCases, &Pathname::normalize);
}

// The standard library's lexical normalisation is an outside oracle for
// rooted paths, once its trailing separator is dropped and our two roots ("",
// when no element was ever added, and "/") are both read as "/".
TEST(PathnameArithmetic, NormalizeAgreesWithLexicallyNormalOnRandomRootedPaths) {
  std::mt19937 rng(20240611);
  const char* kElements[] = {"a", "b", "cc", ".", "..", "", "d.e"};
  for (int round = 0; round < 5000; ++round) {
    std::string path;
    const int n = static_cast<int>(rng() % 8);
    for (int i = 0; i < n; ++i) {
      path += "/";
      path += kElements[rng() % (sizeof(kElements) / sizeof(kElements[0]))];
    }
    if (path.empty()) path = "/";
    std::string want = std::filesystem::path(path).lexically_normal().string();
    while (want.size() > 1 && want.back() == '/') want.pop_back();
    Pathname got(path);
    got.normalize();
    if (got.empty()) got = "/";
    EXPECT_EQ(want, got) << path;
  }
}

TEST(PathnameArithmetic, RemoveDotDotSlashLeavesNoParentElement) {
  std::mt19937 rng(77);
  const char* kPieces[] = {"..", "/", "a", ".", "b/"};
  for (int round = 0; round < 5000; ++round) {
    Pathname p;
    const int n = static_cast<int>(rng() % 10);
    for (int i = 0; i < n; ++i) p.append(kPieces[rng() % 5]);
    const Pathname in = p;
    p.removeDotDotSlash();
    PathnameVector elements;
    p.splitOnSepInto(elements);
    for (const Pathname& e : elements) EXPECT_NE("..", e) << in << " gave " << p;
  }
}

TEST(PathnameArithmetic, SplittingDropsEmptyElements) {
  PathnameVector v;
  Pathname("//a/b//c/").splitOnSepInto(v);
  EXPECT_EQ((PathnameVector{"a", "b", "c"}), v);

  const struct { const char* text; char sep; std::vector<const char*> want; } kCases[] = {
      {":a::b:", ':', {"a", "b"}}, {"", ':', {}}, {":::", ':', {}},
      {"/usr/bin:/bin", ':', {"/usr/bin", "/bin"}}, {"one", ',', {"one"}},
  };
  for (const auto& c : kCases) {
    PathnameVector got(c.text, c.sep);
    PathnameVector want;
    for (const char* w : c.want) want.emplace_back(w);
    EXPECT_EQ(want, got) << c.text;
    EXPECT_EQ(want, PathnameVector(Str(c.text), c.sep)) << c.text;
  }
}

TEST(PathnameArithmetic, BuildFromParentAndLeaf) {
  Pathname p("junk");
  p.buildFromParentAndLeaf(Pathname("/etc"), "passwd");
  EXPECT_EQ("/etc/passwd", p);
  p.buildFromParentAndLeaf(Pathname(""), "x");
  EXPECT_EQ("/x", p);
  const Pathname dir("d/");
  p = dir;
  p.buildFromParentAndLeaf(p, "e");  // aliasing the parent is fine
  EXPECT_EQ("d/e", p);
}

TEST(PathnameArithmetic, AbsoluteAndConstants) {
  EXPECT_TRUE(Pathname("/x").isAbsolute());
  EXPECT_FALSE(Pathname("x/").isAbsolute());
  EXPECT_FALSE(Pathname("").isAbsolute());
  EXPECT_FALSE(Pathname("/x").isUNC());
  EXPECT_EQ("..", Pathname::parent);
  EXPECT_EQ(".", Pathname::cur);
  EXPECT_TRUE(Pathname::EMPTY_PATHNAME.empty());
}

TEST(PathnameModesDeathTest, OutOfRangeModesEndTheProcess) {
  EXPECT_DEATH(Pathname::createModeBits(static_cast<Pathname::CreateMode>(7)),
               "cm == Pathname::CREATE_NORMAL");
  EXPECT_DEATH(Pathname::mkdirModeBits(static_cast<Pathname::MkdirMode>(9)),
               "mode == MKDIR_PRIVATE");
}

}  // namespace
