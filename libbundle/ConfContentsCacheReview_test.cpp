// Whole-file contents shared between readers, transient contents, atomic
// writes, and the lock between processes that share a pooled root.

#include "libbundle/ConfContentsCache.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <string>

#include "libbundle/ScopedConfMutex.h"
#include "libbundle/testing/BundleTree.h"
#include "util/testing/LogCapture.h"
#include "util/testing/TestTempDir.h"

namespace {

bool logHas(const ScopedLogCapture& log, const std::string& text) {
  return log.text().find(text) != std::string::npos;
}

ConfContentsCache& cache() { return ConfContentsCache::instance(); }

// The sum of "one\ntwo", from an outside tool.
const char* const MD5_ONE_NL_TWO = "76bb1822205fc52742565357a1027fec";  // "one\ntwo"

TEST(ConfContentsCache, FileIntoAnotherFile) {
  TestTempDir dir;
  const Pathname from = dir / "a.csv", to = dir / "b.csv";
  writeTestFile(from, "k,v\r\n1,2\n");
  writeTestFile(to, "old");
  EXPECT_FALSE(cache().updateCacheAndStorage(from, to));  // neither cached
  cache().allowLoading(from);
  EXPECT_FALSE(cache().updateCacheAndStorage(from, to));  // `to` not cached
  cache().allowLoading(to);
  Str contents, sum;
  ASSERT_TRUE(cache().loadContents(from, contents, sum));
  ASSERT_TRUE(cache().updateCacheAndStorage(from, to));
  // The file is copied as it is, not as the cache joined it.
  EXPECT_EQ(readTestFile(to), "k,v\r\n1,2\n");
  EXPECT_EQ(readTestFile(from), "k,v\r\n1,2\n");
  ASSERT_TRUE(cache().loadContents(to, contents, sum));
  EXPECT_EQ(contents, "k,v\n1,2");
  // The same path: nothing to copy.
  EXPECT_TRUE(cache().updateCacheAndStorage(from, from));
  EXPECT_EQ(readTestFile(from), "k,v\r\n1,2\n");
  cache().disallowLoading(from);
  cache().disallowLoading(to);
}

TEST(ConfContentsCache, WriteAtomicReplacesWholly) {
  TestTempDir dir;
  const Pathname p = dir / "f.csv";
  const char* const kTexts[] = {"a longer first text\n", "short", ""};
  for (const char* t : kTexts) {
    ASSERT_TRUE(ConfContentsCache::writeAtomic(p, t)) << t;
    EXPECT_EQ(readTestFile(p), t);
    EXPECT_FALSE((dir / "f.csv.tmp").exists());
  }
  const Pathname tmp = dir / "g.tmp";
  for (const char* t : kTexts) {
    ASSERT_TRUE(ConfContentsCache::writeToTmp(tmp, t)) << t;
    EXPECT_EQ(readTestFile(tmp), t);
  }
}

TEST(ConfContentsCache, AtomicWriteThatCannotOpenLeavesThePathAlone) {
  TestTempDir dir;
  ScopedLogCapture log("ConfContentsCache");
  const Pathname missing = dir / "no/such/f.csv";
  EXPECT_FALSE(ConfContentsCache::writeAtomic(missing, "x"));
  // The temporary file is the one named.
  EXPECT_TRUE(logHas(log, "Cannot open temporary file: " + std::string(missing) +
                              ".tmp: No such file or directory"))
      << log.text();
  // A temporary name taken by a directory: the old file stays as it was.
  const Pathname kept = dir / "kept.csv";
  writeTestFile(kept, "old");
  writeTestFile(dir / "kept.csv.tmp/inside", "");
  EXPECT_FALSE(ConfContentsCache::writeAtomic(kept, "new"));
  EXPECT_EQ(readTestFile(kept), "old");
  EXPECT_TRUE(logHas(log, "Cannot open temporary file: " + std::string(kept) + ".tmp: "))
      << log.text();
}

TEST(ConfContentsCache, MissingFilesAndReAllowing) {
  TestTempDir dir;
  const Pathname p = dir / "late.csv";
  cache().allowLoading(p);
  Str contents = "kept", sum = "kept";
  EXPECT_FALSE(cache().loadContents(p, contents, sum));  // no file yet
  writeTestFile(p, "one\ntwo");
  ASSERT_TRUE(cache().loadContents(p, contents, sum));
  EXPECT_EQ(sum, MD5_ONE_NL_TWO);
  // Allowing again keeps what was loaded.
  writeTestFile(p, "a\nb");
  cache().allowLoading(p);
  ASSERT_TRUE(cache().loadContents(p, contents, sum));
  EXPECT_EQ(contents, "one\ntwo");
  // A file that went away is no change.
  ::unlink(std::string(p).c_str());
  EXPECT_FALSE(cache().isContentStale(p));
  // Dropped and allowed again, it is read afresh.
  writeTestFile(p, "a\nb");
  cache().disallowLoading(p);
  cache().allowLoading(p);
  ASSERT_TRUE(cache().loadContents(p, contents, sum));
  EXPECT_EQ(contents, "a\nb");
  cache().disallowLoading(p);
}

// ----- the lock between processes -----

const char* const kPooled =
    "[bootstrap]\n"
    "system/local = conf\n"
    "[pooling]\n"
    "state = enabled\n"
    "lock.timeout = 2s\n"
    "lock.logging = %s\n"
    "storage = %s\n";

TEST(ScopedConfMutex, SentinelLoggingOffByDefault) {
  const char* const kSettings[] = {"false", ""};  // "" leaves the default
  for (const char* setting : kSettings) {
    TestTempDir storage;
    BundleTree tree(Str().format(kPooled, setting, std::string(storage.path()).c_str()).c_str());
    {
      ScopedConfMutex lock(tree.setup(), "quiet");
      EXPECT_TRUE(lock.isLocked());
      ScopedConfMutex::logToSentinelFile(tree.setup(), "also quiet");
    }
    EXPECT_EQ(readTestFile(tree.setup().getSentinel()), "") << setting;
  }
}

}  // namespace
