#include "util/Pathname.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <random>
#include <string>

#include "util/testing/TestTempDir.h"

namespace fs = std::filesystem;

namespace {

typedef std::map<std::string, std::string> Tree;

fs::path fsPath(const Pathname& p) { return fs::path(std::string(p)); }

// Everything under `root` as relative path -> description, by the standard
// library and without following links: the independent view of a tree.
Tree describeTree(const Pathname& root) {
  Tree out;
  for (auto it = fs::recursive_directory_iterator(fsPath(root)); it != fs::end(it); ++it) {
    const std::string rel = fs::relative(it->path(), fsPath(root)).string();
    if (it->is_symlink()) {
      out[rel] = "link:" + fs::read_symlink(it->path()).string();
    } else {
      out[rel] = it->is_directory() ? "dir" : "file:" + readTestFile(Pathname(it->path().string()));
    }
  }
  return out;
}

// A random tree of directories, files and relative links under `root`.
void buildRandomTree(const Pathname& root, std::mt19937& rng) {
  std::vector<Pathname> dirs{root};
  for (int i = 0; i < 60; ++i) {
    const Pathname p = dirs[rng() % dirs.size()] / ("n" + std::to_string(i));
    switch (rng() % 4) {
      case 0:
        ASSERT_TRUE(p.mkdir(Pathname::MKDIR_PUBLIC));
        dirs.push_back(p);
        break;
      case 1:
        ASSERT_TRUE(p.symlinkTo(Pathname("../target-" + std::to_string(i))));
        break;
      default:
        writeTestFile(p, std::string(rng() % 20000, static_cast<char>('a' + i % 26)));
    }
  }
}

mode_t modeOf(const Pathname& p) {
  struct stat st;
  EXPECT_EQ(0, ::stat(p.c_str(), &st)) << p;
  return st.st_mode & 07777;
}

class PathnameTree : public ::testing::Test {
 protected:
  TestTempDir _dir;
};
using PathnamePermissions = PathnameTree;

TEST_F(PathnameTree, RemoveRecursiveNeitherFollowsLinksNorRecurses) {
  const Pathname outside = _dir / "outside", victim = _dir / "victim";
  writeTestFile(outside / "deep/keep", "precious");
  ASSERT_TRUE((victim / "sub").mkdir_p(Pathname::MKDIR_PRIVATE));
  ASSERT_TRUE((victim / "sub/dirlink").symlinkTo(outside));
  ASSERT_TRUE((victim / "filelink").symlinkTo(outside / "deep/keep"));
  Pathname deep = victim;
  for (int i = 0; i < 400; ++i) deep /= "d";  // well past any stack budget of a recursion
  writeTestFile(deep / "leaf", "x");

  ASSERT_TRUE(victim.removeRecursive());
  EXPECT_FALSE(fs::exists(fs::symlink_status(fsPath(victim))));
  EXPECT_EQ((Tree{{"deep", "dir"}, {"deep/keep", "file:precious"}}), describeTree(outside));

  // A link given directly is removed as a link.
  const Pathname link = _dir / "link";
  ASSERT_TRUE(link.symlinkTo(outside));
  ASSERT_TRUE(link.removeRecursive());
  EXPECT_FALSE(link.isSymlink());
  EXPECT_TRUE(outside.exists());
  EXPECT_FALSE((_dir / "missing").removeRecursive());
  EXPECT_EQ(ENOENT, errno);
}

TEST_F(PathnameTree, RecursiveSizeOnDiskMatchesAnIndependentWalk) {
  std::mt19937 rng(31337);
  const Pathname root = _dir / "root";
  ASSERT_TRUE(root.mkdir(Pathname::MKDIR_PUBLIC));
  buildRandomTree(root, rng);
  // A link to a big file outside must count as the link, not the file.
  const Pathname big = _dir / "big";
  writeTestFile(big, std::string(1 << 20, 'b'));
  ASSERT_TRUE((root / "tobig").symlinkTo(big));
  ASSERT_TRUE((root / "todir").symlinkTo(_dir.path()));  // a loop, were it followed

  struct stat st;
  ASSERT_EQ(0, ::lstat(root.c_str(), &st));
  long want = st.st_blocks * 512;
  for (auto it = fs::recursive_directory_iterator(fsPath(root)); it != fs::end(it); ++it) {
    ASSERT_EQ(0, ::lstat(it->path().c_str(), &st));
    want += st.st_blocks * 512;
  }
  long got = -1;
  ASSERT_TRUE(root.getRecursiveSizeOnDisk(&got));
  EXPECT_EQ(want, got);
  EXPECT_LT(got, 1 << 20);

  long single = -1, direct = -2;
  ASSERT_TRUE(big.getRecursiveSizeOnDisk(&single));
  ASSERT_TRUE(big.getSizeOnDisk(&direct));
  EXPECT_EQ(direct, single);
  EXPECT_FALSE((_dir / "missing").getRecursiveSizeOnDisk(&got));
}

TEST_F(PathnameTree, CopyToRecursiveReproducesARandomTree) {
  for (unsigned seed : {1u, 2u, 3u}) {
    SCOPED_TRACE(seed);
    std::mt19937 rng(seed);
    const Pathname src = _dir / ("src" + std::to_string(seed));
    const Pathname dst = _dir / ("dst" + std::to_string(seed));
    ASSERT_TRUE(src.mkdir(Pathname::MKDIR_PUBLIC));
    buildRandomTree(src, rng);
    ASSERT_TRUE(src.copyToRecursive(dst));
    EXPECT_EQ(describeTree(src), describeTree(dst));
  }
  errno = 0;
  EXPECT_FALSE((_dir / "src1").copyToRecursive(_dir / "dst1"));  // target exists
  EXPECT_EQ(EEXIST, errno);
}

TEST_F(PathnameTree, CopyContentsGoesOnAfterAFailure) {
  const Pathname src = _dir / "src", dst = _dir / "dst";
  writeTestFile(src / "a", "A");
  writeTestFile(src / "b/c", "C");
  ASSERT_TRUE(dst.mkdir(Pathname::MKDIR_PUBLIC));
  ASSERT_EQ(0, ::mkfifo((src / "fifo").c_str(), 0600));  // cannot be copied
  EXPECT_FALSE(src.copyContentsToRecursive(dst));
  EXPECT_EQ((Tree{{"a", "file:A"}, {"b", "dir"}, {"b/c", "file:C"}}), describeTree(dst));
}

TEST_F(PathnameTree, CopyToKeepsModeAndToleratesItself) {
  const Pathname a = _dir / "a", b = _dir / "b";
  const std::string text(100000, 'q');
  writeTestFile(a, text);
  ASSERT_TRUE(a.chmod(0640));
  writeTestFile(b, "older and longer text that must vanish entirely from here");
  ASSERT_TRUE(a.copyTo(b));
  EXPECT_EQ(text, readTestFile(b));
  EXPECT_EQ(0640u, modeOf(b));

  ASSERT_TRUE(a.copyTo(a));  // same inode: nothing done, nothing lost
  ASSERT_TRUE((_dir / "alias").symlinkTo(a));
  ASSERT_TRUE(a.copyTo(_dir / "alias"));
  EXPECT_EQ(text, readTestFile(a));
  EXPECT_FALSE((_dir / "missing").copyTo(b));
  EXPECT_EQ(ENOENT, errno);
}

TEST_F(PathnameTree, RemoveContentsKeepsDirectories) {
  const Pathname root = _dir / "r";
  for (const char* f : {"a.log", "x/b.txt", "x/y/c.log", "x/y/noext"}) writeTestFile(root / f, f);
  ASSERT_TRUE((root / "x/dirlink.log").symlinkTo(_dir.path()));

  const Pathname log("log");
  ASSERT_TRUE(root.removeContentsRecursiveWithExt(&log));
  EXPECT_EQ((Tree{{"x", "dir"}, {"x/b.txt", "file:x/b.txt"}, {"x/y", "dir"},
                  {"x/y/noext", "file:x/y/noext"}}),
            describeTree(root));
  ASSERT_TRUE(root.removeContentsRecursiveNotDirs());
  EXPECT_EQ((Tree{{"x", "dir"}, {"x/y", "dir"}}), describeTree(root));
  EXPECT_TRUE(_dir.path().exists());  // the link to it was removed, not followed
  EXPECT_FALSE((_dir / "missing").removeContentsRecursiveNotDirs());
}

// isReadOnly reads backwards by design: it is true when a write bit is set.
TEST_F(PathnamePermissions, IsReadOnlyIsTrueWhenAnyWriteBitIsSet) {
  const Pathname f = _dir / "f";
  writeTestFile(f, "x");
  const struct { mode_t mode; bool want; } kCases[] = {
      {0644, true}, {0444, false}, {0464, true}, {0446, true}, {0400, false}, {0200, true},
  };
  for (const auto& c : kCases) {
    ASSERT_TRUE(f.chmod(c.mode));
    EXPECT_EQ(c.want, f.isReadOnly()) << std::oct << c.mode;
  }
  EXPECT_FALSE((_dir / "missing").isReadOnly());
}

TEST_F(PathnamePermissions, MakeReadOnlyAndWriteableChangeTheBits) {
  const Pathname f = _dir / "f";
  writeTestFile(f, "x");
  ASSERT_TRUE(f.chmod(0666));
  // access() lets root write anything, so it never sees the file read-only.
  EXPECT_EQ(::geteuid() != 0, f.makeReadOnly());
  EXPECT_EQ(0444u, modeOf(f));
  if (::geteuid() != 0) {
    EXPECT_TRUE(f.makeWriteable());
    EXPECT_EQ(0644u, modeOf(f));
  }
  EXPECT_FALSE((_dir / "missing").makeWriteable());
}

}  // namespace
