#include "util/Directory.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <set>
#include <string>

#include "util/ReaddirCache.h"
#include "util/testing/TestTempDir.h"

namespace {

void touch(const Pathname& p) { writeTestFile(p, ""); }

// The standard library's listing: the independent view of a directory.
std::set<Pathname> listByStandardLibrary(const Pathname& dir) {
  std::set<Pathname> out;
  for (const auto& e : std::filesystem::directory_iterator(std::string(dir))) {
    out.insert(Pathname(e.path().filename().string()));
  }
  return out;
}

TEST(DirectoryIterator, YieldsEveryLeafOnceWithoutDotEntries) {
  TestTempDir dir;
  touch(dir / ".hidden");
  touch(dir / "...");
  touch(dir / "with space");
  touch(dir / std::string(255, 'L'));  // the longest name the filesystem takes
  ASSERT_TRUE((dir / "sub").mkdir(Pathname::MKDIR_PRIVATE));
  for (int i = 0; i < 300; ++i) touch(dir / ("f" + std::to_string(i)));
  ASSERT_TRUE((dir / "link").symlinkTo(Pathname("nowhere")));

  DirectoryIterator it(dir.path());
  std::set<Pathname> seen;
  Pathname leaf;
  while (it.getNext(leaf)) {
    EXPECT_TRUE(seen.insert(leaf).second) << "twice: " << leaf;
    EXPECT_EQ(std::string::npos, leaf.find('/')) << leaf;  // leaves only
  }
  EXPECT_EQ(0, errno);  // the end, not an error
  EXPECT_EQ(listByStandardLibrary(dir.path()), seen);
  EXPECT_EQ(0u, seen.count(".") + seen.count(".."));
  EXPECT_FALSE(it.getNext(leaf));  // stays at the end
}

TEST(DirectoryIterator, FailsOnMissingOrNonDirectory) {
  TestTempDir dir;
  Pathname leaf("untouched");
  DirectoryIterator missing(dir / "missing");
  EXPECT_FALSE(missing.getNext(leaf));
  EXPECT_EQ(ENOENT, errno);
  touch(dir / "file");
  DirectoryIterator onFile(dir / "file");
  EXPECT_FALSE(onFile.getNext(leaf));
  EXPECT_EQ(ENOTDIR, errno);
  EXPECT_EQ("untouched", leaf);
  DirectoryIterator empty(dir / "missing");
  ASSERT_TRUE((dir / "missing").mkdir(Pathname::MKDIR_PRIVATE));
  EXPECT_FALSE(empty.getNext(leaf));
  EXPECT_EQ(0, errno);
}

TEST(DirectoryEntry, SizeCoversTheLongestNameAndIsRemembered) {
  TestTempDir dir;
  const size_t size = DirectoryEntry::sizeNeededFor(dir.path());
  EXPECT_GE(size, 4096u + 20u);
  EXPECT_EQ(DirectoryEntry::sizeNeededForUncached(dir.path()), size);
  EXPECT_EQ(size, DirectoryEntry::sizeNeededFor(dir.path()));
  // A path pathconf cannot answer for falls back to the root's answer.
  EXPECT_EQ(DirectoryEntry::sizeNeededForUncached(Pathname("/")),
            DirectoryEntry::sizeNeededForUncached(dir / "missing"));
  DirectoryEntry e;
  EXPECT_FALSE(e.allocated());
  e.allocate(size);
  EXPECT_TRUE(e.allocated());
  EXPECT_EQ(size, e.size());
  e.allocate(10);  // a smaller request keeps the larger buffer
  EXPECT_EQ(size, e.size());
}

TEST(ReaddirCache, ReadsEachDirectoryOnce) {
  TestTempDir dir;
  touch(dir / "b");
  touch(dir / "a");
  ReaddirCache cache;
  const ReaddirCache::LeafSet& first = cache.read(dir.path());
  EXPECT_EQ((ReaddirCache::LeafSet{"a", "b"}), first);
  touch(dir / "c");  // too late for this cache
  EXPECT_EQ(&first, &cache.read(dir.path()));
  EXPECT_EQ((ReaddirCache::LeafSet{"a", "b"}), cache.read(dir.path()));
  ReaddirCache fresh;
  EXPECT_EQ((ReaddirCache::LeafSet{"a", "b", "c"}), fresh.read(dir.path()));

  EXPECT_TRUE(cache.read(dir / "missing").empty());
  ASSERT_TRUE((dir / "missing").mkdir(Pathname::MKDIR_PRIVATE));
  touch(dir / "missing/x");
  EXPECT_TRUE(cache.read(dir / "missing").empty());  // counted as read
}

}  // namespace
