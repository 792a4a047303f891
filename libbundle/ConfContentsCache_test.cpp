#include "libbundle/ConfContentsCache.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <string>

#include "libbundle/ScopedConfMutex.h"
#include "libbundle/testing/BundleTree.h"
#include "util/XMLAndStringUtil.h"
#include "util/testing/LogCapture.h"
#include "util/testing/TestTempDir.h"

namespace {

// The MD5 of `text` as the md5sum tool prints it: an outside oracle.
std::string md5sum(const std::string& text) {
  TestTempDir dir;
  writeTestFile(dir / "in", text);
  const std::string cmd = "md5sum " + std::string(dir / "in") + " > " + std::string(dir / "out");
  if (std::system(cmd.c_str()) != 0) return "md5sum failed";
  return readTestFile(dir / "out").substr(0, 32);
}

TEST(ConfContents, LoadJoinsLinesAndDropsTheFinalEndAndCarriageReturns) {
  TestTempDir dir;
  const struct {
    const char* bytes;
    const char* contents;
  } kCases[] = {
      {"a,b\n1,2\n", "a,b\n1,2"},
      {"a,b\r\n1,2\r\n", "a,b\n1,2"},
      {"no end", "no end"},
      {"", ""},
      {"\n\n", "\n"},  // two empty lines
  };
  for (const auto& c : kCases) {
    writeTestFile(dir / "f", c.bytes);
    ConfContents contents;
    ASSERT_TRUE(contents.loadContentsFromDisk(dir / "f")) << c.bytes;
    EXPECT_EQ(c.contents, contents.contents) << c.bytes;
    EXPECT_EQ(md5sum(c.contents), contents.checksum) << c.bytes;
  }
  ConfContents missing;
  missing.contents = "kept";
  EXPECT_FALSE(missing.loadContentsFromDisk(dir / "absent"));
  EXPECT_EQ("kept", missing.contents);
}

TEST(ConfContentsCache, LoadsOnlyAllowedPathsAndNoticesStaleness) {
  TestTempDir dir;
  ConfContentsCache& cache = ConfContentsCache::instance();
  const Pathname file = dir / "hosts.csv";
  writeTestFile(file, "host\nweb01\n");
  Str contents;
  Str checksum;
  EXPECT_FALSE(cache.loadContents(file, contents, checksum));  // not allowed
  EXPECT_FALSE(cache.isContentStale(file));                    // never cached
  cache.allowLoading(file);
  EXPECT_TRUE(cache.isAllowed(file));
  EXPECT_FALSE(cache.isContentStale(file));  // cached, not loaded yet
  ASSERT_TRUE(cache.loadContents(file, contents, checksum));
  EXPECT_EQ("host\nweb01", contents);
  EXPECT_EQ(md5sum("host\nweb01"), checksum);
  EXPECT_FALSE(cache.isContentStale(file));
  writeTestFile(file, "host\nweb01\r\n");  // same contents once read
  EXPECT_FALSE(cache.isContentStale(file));
  writeTestFile(file, "host\nweb02\n");
  EXPECT_TRUE(cache.isContentStale(file));
  EXPECT_FALSE(cache.isContentStale(file));  // the new contents were kept
  ASSERT_TRUE(cache.loadContents(file, contents, checksum));
  EXPECT_EQ("host\nweb02", contents);
  cache.disallowLoading(file);
  EXPECT_FALSE(cache.isAllowed(file));
  EXPECT_FALSE(cache.loadContents(file, contents, checksum));
}

TEST(ConfContentsCache, TransientContentsAreNamedInTurnAndWrittenWhereTheyGo) {
  TestTempDir dir;
  ConfContentsCache& cache = ConfContentsCache::instance();
  const Pathname first = cache.addTransientContents("a\nb");
  const Pathname second = cache.addTransientContents("c");
  ASSERT_TRUE(first.startswith("fake://")) << first;
  EXPECT_EQ(std::stoull(first.substr(7)) + 1, std::stoull(second.substr(7)));
  Str contents;
  Str checksum;
  ASSERT_TRUE(cache.loadContents(first, contents, checksum));
  EXPECT_EQ("a\nb", contents);

  const Pathname target = dir / "table.csv";
  EXPECT_FALSE(cache.updateCacheAndStorage(first, target));  // target not cached
  cache.allowLoading(target);
  ASSERT_TRUE(cache.updateCacheAndStorage(first, target));
  EXPECT_EQ("a\nb", readTestFile(target));
  EXPECT_FALSE(cache.isAllowed(first));
  ASSERT_TRUE(cache.loadContents(target, contents, checksum));
  EXPECT_EQ(md5sum("a\nb"), checksum);

  // A file moves by copy, and stays where it was.
  const Pathname copy = dir / "copy.csv";
  cache.allowLoading(copy);
  ASSERT_TRUE(cache.updateCacheAndStorage(target, copy));
  EXPECT_EQ("a\nb", readTestFile(copy));
  EXPECT_TRUE(target.exists());
  EXPECT_TRUE(cache.updateCacheAndStorage(target, target));  // no copy onto itself
  const Pathname nowhere = dir / "missing/dir/x.csv";
  cache.allowLoading(nowhere);
  ScopedLogCapture log("ConfContentsCache");
  EXPECT_FALSE(cache.updateCacheAndStorage(target, nowhere));
  EXPECT_NE(std::string::npos,
            log.text().find("Cannot copy: " + target + " -> " + nowhere + ": No such file"))
      << log.text();
  cache.disallowLoading(target);
  cache.disallowLoading(copy);
  cache.disallowLoading(nowhere);
  cache.disallowLoading(second);
}

TEST(ConfContentsCache, WriteFailuresLogTheirTexts) {
  TestTempDir dir;
  ScopedLogCapture log("ConfContentsCache");
  const struct {
    std::string path;
    std::string text;
    std::string message;
  } kCases[] = {
      {dir / "no/such/dir/f.tmp", "x", "Cannot open temporary file: " + dir / "no/such/dir/f.tmp"},
      // /dev/full takes a small write into the buffer and fails the flush,
      // and fails a write larger than the buffer at once.
      {"/dev/full", "x", "Cannot flush temporary file: /dev/full: No space left on device"},
      {"/dev/full", std::string(1 << 20, 'x'),
       "Write to file failed with data remaining: /dev/full: No space left on device"},
  };
  for (const auto& c : kCases) {
    EXPECT_FALSE(ConfContentsCache::writeToTmp(c.path, c.text)) << c.path;
    EXPECT_NE(std::string::npos, log.text().find(c.message)) << c.message << "\n" << log.text();
  }
  // A rename onto a directory fails, and the target is left alone.
  const Pathname target = dir / "target";
  ASSERT_TRUE(target.mkdir(Pathname::MKDIR_PRIVATE));
  writeTestFile(target / "inside", "1");
  EXPECT_FALSE(ConfContentsCache::writeAtomic(target, "x"));
  EXPECT_NE(std::string::npos, log.text().find("Cannot rename: " + target + ".tmp -> " + target))
      << log.text();
  EXPECT_EQ("1", readTestFile(target / "inside"));
  EXPECT_FALSE((target + ".tmp").exists());
  ASSERT_TRUE(ConfContentsCache::writeAtomic(dir / "ok", "text"));
  EXPECT_EQ("text", readTestFile(dir / "ok"));
}

// A file is copied byte for byte, not as the cache joined its lines.
TEST(ConfContentsCache, FileIntoAnotherFile) {
  TestTempDir dir;
  const Pathname from = dir / "a.csv", to = dir / "b.csv";
  writeTestFile(from, "k,v\r\n1,2\n");
  writeTestFile(to, "old");
  EXPECT_FALSE(ConfContentsCache::instance().updateCacheAndStorage(from, to));  // neither cached
  ConfContentsCache::instance().allowLoading(from);
  EXPECT_FALSE(ConfContentsCache::instance().updateCacheAndStorage(from, to));  // `to` not cached
  ConfContentsCache::instance().allowLoading(to);
  Str contents, sum;
  ASSERT_TRUE(ConfContentsCache::instance().loadContents(from, contents, sum));
  ASSERT_TRUE(ConfContentsCache::instance().updateCacheAndStorage(from, to));
  // The file is copied as it is, not as the cache joined it.
  EXPECT_EQ(readTestFile(to), "k,v\r\n1,2\n");
  EXPECT_EQ(readTestFile(from), "k,v\r\n1,2\n");
  ASSERT_TRUE(ConfContentsCache::instance().loadContents(to, contents, sum));
  EXPECT_EQ(contents, "k,v\n1,2");
  // The same path: nothing to copy.
  EXPECT_TRUE(ConfContentsCache::instance().updateCacheAndStorage(from, from));
  EXPECT_EQ(readTestFile(from), "k,v\r\n1,2\n");
  ConfContentsCache::instance().disallowLoading(from);
  ConfContentsCache::instance().disallowLoading(to);
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
  EXPECT_NE(std::string::npos, log.text().find("Cannot open temporary file: " + std::string(missing) +
                                                  ".tmp: No such file or directory"))
      << log.text();
  // A temporary name taken by a directory: the old file stays as it was.
  const Pathname kept = dir / "kept.csv";
  writeTestFile(kept, "old");
  writeTestFile(dir / "kept.csv.tmp/inside", "");
  EXPECT_FALSE(ConfContentsCache::writeAtomic(kept, "new"));
  EXPECT_EQ(readTestFile(kept), "old");
  EXPECT_NE(std::string::npos,
            log.text().find("Cannot open temporary file: " + std::string(kept) + ".tmp: "))
      << log.text();
}

TEST(ConfContentsCache, MissingFilesAndReAllowing) {
  TestTempDir dir;
  const Pathname p = dir / "late.csv";
  ConfContentsCache::instance().allowLoading(p);
  Str contents = "kept", sum = "kept";
  EXPECT_FALSE(ConfContentsCache::instance().loadContents(p, contents, sum));  // no file yet
  writeTestFile(p, "one\ntwo");
  ASSERT_TRUE(ConfContentsCache::instance().loadContents(p, contents, sum));
  EXPECT_EQ(md5sum("one\ntwo"), sum);
  // Allowing again keeps what was loaded.
  writeTestFile(p, "a\nb");
  ConfContentsCache::instance().allowLoading(p);
  ASSERT_TRUE(ConfContentsCache::instance().loadContents(p, contents, sum));
  EXPECT_EQ(contents, "one\ntwo");
  // A file that went away is no change.
  ::unlink(std::string(p).c_str());
  EXPECT_FALSE(ConfContentsCache::instance().isContentStale(p));
  // Dropped and allowed again, it is read afresh.
  writeTestFile(p, "a\nb");
  ConfContentsCache::instance().disallowLoading(p);
  ConfContentsCache::instance().allowLoading(p);
  ASSERT_TRUE(ConfContentsCache::instance().loadContents(p, contents, sum));
  EXPECT_EQ(contents, "a\nb");
  ConfContentsCache::instance().disallowLoading(p);
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
