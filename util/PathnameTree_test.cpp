#include "util/Pathname.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <random>
#include <string>

#include "util/FileDescriptor.h"
#include "util/testing/TestTempDir.h"

namespace fs = std::filesystem;

namespace {

void writeFile(const Pathname& p, const std::string& bytes) {
  FileDescriptor fd = p.openCreateOrReplace(Pathname::CREATE_NORMAL);
  ASSERT_TRUE(fd.valid()) << p;
  ASSERT_EQ(static_cast<ssize_t>(bytes.size()), fd.write(bytes.data(), bytes.size()));
  ASSERT_TRUE(fd.close());
}

fs::path fsPath(const Pathname& p) { return fs::path(std::string(p)); }

// Everything under `root` as relative path -> description, by the standard
// library and without following links: the independent view of a tree.
std::map<std::string, std::string> describeTree(const Pathname& root) {
  std::map<std::string, std::string> out;
  for (auto it = fs::recursive_directory_iterator(fsPath(root)); it != fs::end(it); ++it) {
    const std::string rel = fs::relative(it->path(), fsPath(root)).string();
    if (it->is_symlink()) {
      out[rel] = "link:" + fs::read_symlink(it->path()).string();
    } else if (it->is_directory()) {
      out[rel] = "dir";
    } else {
      std::string bytes;
      FileDescriptor fd = Pathname(it->path().string()).openReadOnly();
      char buf[4096];
      ssize_t n;
      while ((n = fd.read(buf, sizeof(buf))) > 0) bytes.append(buf, static_cast<size_t>(n));
      fd.close();
      out[rel] = "file:" + bytes;
    }
  }
  return out;
}

// A random tree of directories, files and relative links under `root`.
void buildRandomTree(const Pathname& root, std::mt19937& rng) {
  std::vector<Pathname> dirs{root};
  for (int i = 0; i < 60; ++i) {
    const Pathname parent = dirs[rng() % dirs.size()];
    const Pathname p = parent / ("n" + std::to_string(i));
    switch (rng() % 4) {
      case 0:
        ASSERT_TRUE(p.mkdir(Pathname::MKDIR_PUBLIC));
        dirs.push_back(p);
        break;
      case 1:
        ASSERT_TRUE(p.symlinkTo(Pathname("../target-" + std::to_string(i))));
        break;
      default:
        writeFile(p, std::string(rng() % 20000, static_cast<char>('a' + i % 26)));
    }
  }
}

TEST(PathnameTree, RemoveRecursiveDoesNotFollowLinks) {
  TestTempDir dir;
  ASSERT_FALSE(dir.path().empty());
  const Pathname outside = dir / "outside", victim = dir / "victim";
  ASSERT_TRUE((outside / "deep").mkdir_p(Pathname::MKDIR_PRIVATE));
  writeFile(outside / "deep/keep", "precious");
  ASSERT_TRUE((victim / "sub").mkdir_p(Pathname::MKDIR_PRIVATE));
  ASSERT_TRUE((victim / "sub/dirlink").symlinkTo(outside));
  ASSERT_TRUE((victim / "filelink").symlinkTo(outside / "deep/keep"));
  writeFile(victim / "sub/file", "x");

  ASSERT_TRUE(victim.removeRecursive());
  EXPECT_FALSE(fs::exists(fs::symlink_status(fsPath(victim))));
  EXPECT_EQ((std::map<std::string, std::string>{{"deep", "dir"}, {"deep/keep", "file:precious"}}),
            describeTree(outside));

  // A link given directly is removed as a link.
  const Pathname link = dir / "link";
  ASSERT_TRUE(link.symlinkTo(outside));
  ASSERT_TRUE(link.removeRecursive());
  EXPECT_FALSE(link.isSymlink());
  EXPECT_TRUE(outside.exists());
  EXPECT_FALSE((dir / "missing").removeRecursive());
  EXPECT_EQ(ENOENT, errno);
}

TEST(PathnameTree, RemoveRecursiveCopesWithDepth) {
  TestTempDir dir;
  ASSERT_FALSE(dir.path().empty());
  Pathname deep = dir / "top";
  const Pathname top = deep;
  for (int i = 0; i < 400; ++i) deep /= "d";  // well past any stack budget of a recursion
  ASSERT_TRUE(deep.mkdir_p(Pathname::MKDIR_PRIVATE));
  writeFile(deep / "leaf", "x");
  ASSERT_TRUE(top.removeRecursive());
  EXPECT_FALSE(top.exists());
}

TEST(PathnameTree, RecursiveSizeOnDiskMatchesAnIndependentWalk) {
  TestTempDir dir;
  ASSERT_FALSE(dir.path().empty());
  std::mt19937 rng(31337);
  const Pathname root = dir / "root";
  ASSERT_TRUE(root.mkdir(Pathname::MKDIR_PUBLIC));
  buildRandomTree(root, rng);
  // A link to a big file outside must count as the link, not the file.
  const Pathname big = dir / "big";
  writeFile(big, std::string(1 << 20, 'b'));
  ASSERT_TRUE((root / "tobig").symlinkTo(big));
  ASSERT_TRUE((root / "todir").symlinkTo(dir.path()));  // a loop, were it followed

  long want = 0;
  struct stat st;
  ASSERT_EQ(0, ::lstat(root.c_str(), &st));
  want += st.st_blocks * 512;
  for (auto it = fs::recursive_directory_iterator(fsPath(root)); it != fs::end(it); ++it) {
    ASSERT_EQ(0, ::lstat(it->path().c_str(), &st));
    want += st.st_blocks * 512;
  }
  long got = -1;
  ASSERT_TRUE(root.getRecursiveSizeOnDisk(&got));
  EXPECT_EQ(want, got);
  EXPECT_LT(got, 1 << 20);

  long single = -1;
  ASSERT_TRUE(big.getRecursiveSizeOnDisk(&single));
  long direct = -2;
  ASSERT_TRUE(big.getSizeOnDisk(&direct));
  EXPECT_EQ(direct, single);
  EXPECT_FALSE((dir / "missing").getRecursiveSizeOnDisk(&got));
}

TEST(PathnameTree, CopyToRecursiveReproducesARandomTree) {
  TestTempDir dir;
  ASSERT_FALSE(dir.path().empty());
  for (unsigned seed : {1u, 2u, 3u}) {
    SCOPED_TRACE(seed);
    std::mt19937 rng(seed);
    const Pathname src = dir / ("src" + std::to_string(seed));
    const Pathname dst = dir / ("dst" + std::to_string(seed));
    ASSERT_TRUE(src.mkdir(Pathname::MKDIR_PUBLIC));
    buildRandomTree(src, rng);
    ASSERT_TRUE(src.copyToRecursive(dst));
    EXPECT_EQ(describeTree(src), describeTree(dst));
  }
  errno = 0;
  EXPECT_FALSE((dir / "src1").copyToRecursive(dir / "dst1"));  // target exists
  EXPECT_EQ(EEXIST, errno);
}

TEST(PathnameTree, CopyContentsGoesOnAfterAFailure) {
  TestTempDir dir;
  ASSERT_FALSE(dir.path().empty());
  const Pathname src = dir / "src", dst = dir / "dst";
  ASSERT_TRUE(src.mkdir(Pathname::MKDIR_PUBLIC));
  ASSERT_TRUE(dst.mkdir(Pathname::MKDIR_PUBLIC));
  writeFile(src / "a", "A");
  ASSERT_TRUE((src / "b").mkdir(Pathname::MKDIR_PUBLIC));
  writeFile(src / "b/c", "C");
  ASSERT_EQ(0, ::mkfifo((src / "fifo").c_str(), 0600));  // cannot be copied
  EXPECT_FALSE(src.copyContentsToRecursive(dst));
  EXPECT_EQ((std::map<std::string, std::string>{{"a", "file:A"}, {"b", "dir"}, {"b/c", "file:C"}}),
            describeTree(dst));
}

TEST(PathnameTree, CopyToKeepsModeAndToleratesItself) {
  TestTempDir dir;
  ASSERT_FALSE(dir.path().empty());
  const Pathname a = dir / "a", b = dir / "b";
  writeFile(a, std::string(100000, 'q'));
  ASSERT_TRUE(a.chmod(0640));
  writeFile(b, "older and longer text that must vanish entirely from here");
  ASSERT_TRUE(a.copyTo(b));
  EXPECT_EQ(describeTree(dir.path())["a"], describeTree(dir.path())["b"]);
  struct stat st;
  ASSERT_EQ(0, ::stat(b.c_str(), &st));
  EXPECT_EQ(0640u, st.st_mode & 07777);

  ASSERT_TRUE(a.copyTo(a));  // same inode: nothing done, nothing lost
  ASSERT_TRUE((dir / "alias").symlinkTo(a));
  ASSERT_TRUE(a.copyTo(dir / "alias"));
  long size = 0;
  ASSERT_TRUE(a.getSize(&size));
  EXPECT_EQ(100000, size);
  EXPECT_FALSE((dir / "missing").copyTo(b));
  EXPECT_EQ(ENOENT, errno);
}

TEST(PathnameTree, RemoveContentsKeepsDirectories) {
  TestTempDir dir;
  ASSERT_FALSE(dir.path().empty());
  const Pathname root = dir / "r";
  ASSERT_TRUE((root / "x/y").mkdir_p(Pathname::MKDIR_PUBLIC));
  writeFile(root / "a.log", "1");
  writeFile(root / "x/b.txt", "2");
  writeFile(root / "x/y/c.log", "3");
  writeFile(root / "x/y/noext", "4");
  ASSERT_TRUE((root / "x/dirlink.log").symlinkTo(dir.path()));

  const Pathname log("log");
  ASSERT_TRUE(root.removeContentsRecursiveWithExt(&log));
  EXPECT_EQ((std::map<std::string, std::string>{{"x", "dir"},
                                                {"x/b.txt", "file:2"},
                                                {"x/y", "dir"},
                                                {"x/y/noext", "file:4"}}),
            describeTree(root));
  ASSERT_TRUE(root.removeContentsRecursiveNotDirs());
  EXPECT_EQ((std::map<std::string, std::string>{{"x", "dir"}, {"x/y", "dir"}}),
            describeTree(root));
  EXPECT_TRUE(dir.path().exists());  // the link to it was removed, not followed
  EXPECT_FALSE((dir / "missing").removeContentsRecursiveNotDirs());
}

// isReadOnly reads backwards by design: it is true when a write bit is set.
TEST(PathnamePermissions, IsReadOnlyIsTrueWhenAnyWriteBitIsSet) {
  TestTempDir dir;
  ASSERT_FALSE(dir.path().empty());
  const Pathname f = dir / "f";
  writeFile(f, "x");
  const struct { mode_t mode; bool want; } kCases[] = {
      {0644, true}, {0444, false}, {0464, true}, {0446, true}, {0400, false}, {0200, true},
  };
  for (const auto& c : kCases) {
    ASSERT_TRUE(f.chmod(c.mode));
    EXPECT_EQ(c.want, f.isReadOnly()) << std::oct << c.mode;
  }
  EXPECT_FALSE((dir / "missing").isReadOnly());
}

TEST(PathnamePermissions, MakeReadOnlyAndWriteableChangeTheBits) {
  TestTempDir dir;
  ASSERT_FALSE(dir.path().empty());
  const Pathname f = dir / "f";
  writeFile(f, "x");
  ASSERT_TRUE(f.chmod(0666));
  const bool superuser = ::geteuid() == 0;  // access() lets root write anything
  const bool ro = f.makeReadOnly();
  struct stat st;
  ASSERT_EQ(0, ::stat(f.c_str(), &st));
  if (superuser) {
    EXPECT_FALSE(ro);
    EXPECT_EQ(0444u, st.st_mode & 07777);
  } else {
    EXPECT_TRUE(ro);
    EXPECT_EQ(0444u, st.st_mode & 07777);
    EXPECT_TRUE(f.makeWriteable());
    ASSERT_EQ(0, ::stat(f.c_str(), &st));
    EXPECT_EQ(0644u, st.st_mode & 07777);
  }
  EXPECT_FALSE((dir / "missing").makeWriteable());
}

}  // namespace
