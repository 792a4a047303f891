#include "util/DateParserConfigRef.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "util/DateParseException.h"
#include "util/DateParserRegexConf.h"
#include "util/testing/TestTempDir.h"
#include "util/testing/ThrownText.h"
#include "util/testing/XmlTestInit.h"

namespace {

// The descriptor path (under /proc/self/fd) whose fstat fails with EIO;
// empty for none.
std::string gFailFstatFor;

}  // namespace

// Stands in for the C library's fstat in this program so that a failing
// fstat on an open pattern file can be provoked.
extern "C" int fstat(int fd, struct stat* out) {
  if (!gFailFstatFor.empty()) {
    char target[PATH_MAX];
    const std::string link = "/proc/self/fd/" + std::to_string(fd);
    const ssize_t n = ::readlink(link.c_str(), target, sizeof(target) - 1);
    if (n > 0 && std::string(target, static_cast<size_t>(n)) == gFailFstatFor) {
      errno = EIO;
      return -1;
    }
  }
  return static_cast<int>(::syscall(SYS_fstat, fd, out));
}

namespace {

std::atomic<time_t> gNow{1000000};
time_t testClock() { return gNow.load(); }

// Puts the cache on the test's clock for the length of a test.
class DateParserConfigRefTest : public ::testing::Test {
 protected:
  void SetUp() override { _saved = CachedDateParserConfig::setClock(&testClock); }
  void TearDown() override { CachedDateParserConfig::setClock(_saved); }

  // A pattern file whose one time pattern is called `name`, with its
  // modification time set to `mtime` seconds, renamed into place as the
  // system's rewrites are, so that a reader sees one version or the other.
  void writePatterns(const Pathname& path, const std::string& name, int64_t mtime) {
    const Pathname temp(std::string(path) + ".tmp");
    writeTestFile(temp, "<d><define name='" + name + "' extract='hour,minute'>" +
                            "<text>(\\d\\d):(\\d\\d)</text></define>" +
                            "<timePatterns><use name='" + name + "'/></timePatterns>" +
                            "<datePatterns/></d>");
    std::filesystem::last_write_time(
        std::string(temp),
        std::filesystem::file_time_type::clock::now() - std::chrono::hours(24 * 365) +
            std::chrono::seconds(mtime));
    std::filesystem::rename(std::string(temp), std::string(path));
  }
  static std::string firstTimeName(const DateParserConfigRef& ref) {
    const DateParserRegexConf* conf = ref.get();
    if (conf == nullptr || conf->getTimeList().empty()) return "<none>";
    return *conf->getPatternName(conf->getTimeList().at(0));
  }
  // The pattern still works: a use after free shows here under ASan.
  static bool stillMatches(const DateParserConfigRef& ref) {
    StrSegment line("at 11:58");
    DateTimeRegexExtractions ex;
    int start = 0, end = 0;
    return ref.get()->getTimeList().at(0)->evaluate(line, ex, start, end) && ex.count == 2;
  }

  TestTempDir _dir;
  CachedDateParserConfig::ClockFunction _saved = nullptr;
};

TEST_F(DateParserConfigRefTest, NoneAndCurrentNeedNoFile) {
  DateParserConfigRef ref;
  const size_t before = CachedDateParserConfig::size();
  ref.load(Pathname("CURRENT"), true);
  EXPECT_TRUE(ref.isCurrent());
  EXPECT_EQ(nullptr, ref.get());
  ref.load(Pathname("NONE"), true);
  EXPECT_TRUE(ref.isNone());
  EXPECT_FALSE(ref.isCurrent());
  EXPECT_EQ(before, CachedDateParserConfig::size());
  // Only the exact words count: a file called "none" is a file.
  EXPECT_THROW(ref.load(Pathname("none"), false), DateParseException);
}

TEST_F(DateParserConfigRefTest, EightThreadsShareOneConfiguration) {
  const Pathname path = _dir / "shared.xml";
  writePatterns(path, "shared", 100);
  constexpr int kThreads = 8;
  std::vector<DateParserConfigRef> refs(kThreads);
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&refs, &path, i] { refs[i].load(path, false); });
  }
  for (auto& t : threads) t.join();
  for (const auto& ref : refs) EXPECT_EQ(refs[0].get(), ref.get());
  ASSERT_NE(nullptr, refs[0].get());
  EXPECT_EQ(kThreads + 1, refs[0].get()->getRefCount());  // the cache's one too
  {
    DateParserConfigRef copy = refs[0];
    copy = copy;
    EXPECT_EQ(kThreads + 2, refs[0].get()->getRefCount());
  }
  refs[1].release();
  refs[1].release();  // a null handle has nothing to drop
  EXPECT_TRUE(refs[1].isNone());
  EXPECT_EQ(kThreads, refs[0].get()->getRefCount());
}

TEST_F(DateParserConfigRefTest, RewriteIsSeenOnlyAfterThirtySeconds) {
  const Pathname path = _dir / "p.xml";
  writePatterns(path, "v1", 100);
  gNow = 2000000;
  DateParserConfigRef first;
  first.load(path, false);
  writePatterns(path, "v2", 200);

  DateParserConfigRef second;
  gNow += 29;  // within 30 seconds: the file is not looked at
  second.load(path, false);
  EXPECT_EQ(first.get(), second.get());
  EXPECT_EQ("v1", firstTimeName(second));

  gNow += 1;  // 30 seconds on: looked at, changed, rebuilt
  DateParserConfigRef third;
  third.load(path, false);
  EXPECT_NE(first.get(), third.get());
  EXPECT_EQ("v2", firstTimeName(third));
  // The holders of the old one keep it, and the cache holds only the new one.
  EXPECT_EQ("v1", firstTimeName(first));
  EXPECT_TRUE(stillMatches(first));
  EXPECT_EQ(2, first.get()->getRefCount());
  EXPECT_EQ(2, third.get()->getRefCount());
  first.release();
  second.release();  // the last holder frees it
  EXPECT_TRUE(stillMatches(third));
}

TEST_F(DateParserConfigRefTest, UnchangedFileIsConfirmedAndAClockStepBackForcesALook) {
  const Pathname path = _dir / "same.xml";
  writePatterns(path, "same", 100);
  gNow = 3000000;
  DateParserConfigRef a, b, c;
  a.load(path, false);
  gNow += 100;
  b.load(path, false);
  EXPECT_EQ(a.get(), b.get());
  EXPECT_EQ(3000100, a.get()->lastChecked);
  writePatterns(path, "changed", 300);
  gNow -= 5;
  c.load(path, false);
  EXPECT_EQ("changed", firstTimeName(c));
}

TEST_F(DateParserConfigRefTest, RemovedFileStaysCachedUntilItsNextLook) {
  const Pathname path = _dir / "gone.xml";
  writePatterns(path, "gone", 100);
  gNow = 4000000;
  DateParserConfigRef a;
  a.load(path, false);
  ASSERT_TRUE(std::filesystem::remove(std::string(path)));
  DateParserConfigRef b;
  gNow += 10;
  b.load(path, false);
  EXPECT_EQ(a.get(), b.get());
  EXPECT_TRUE(CachedDateParserConfig::contains(path));
  gNow += 30;
  EXPECT_EQ("Can't open DatePaser XML configuration file \"" + std::string(path) +
                "\": No such file or directory",
            thrownText<DateParseException>([&] { b.load(path, false); }));
  EXPECT_TRUE(b.isNone());
  EXPECT_FALSE(CachedDateParserConfig::contains(path));
  EXPECT_TRUE(stillMatches(a));
  EXPECT_EQ(1, a.get()->getRefCount());
}

TEST_F(DateParserConfigRefTest, UnreadableModificationTimeFailsTheLoad) {
  const Pathname path = _dir / "nostat.xml";
  writePatterns(path, "nostat", 100);
  gFailFstatFor = std::string(path);
  DateParserConfigRef ref;
  const std::string got = thrownText<DateParseException>([&] { ref.load(path, false); });
  gFailFstatFor.clear();
  EXPECT_EQ("Can't get modification time of DatePaser XML configuration file \"" +
                std::string(path) + "\": " + std::strerror(EIO),
            got);
  EXPECT_FALSE(CachedDateParserConfig::contains(path));
  ref.load(path, false);
  EXPECT_EQ("nostat", firstTimeName(ref));
}

TEST_F(DateParserConfigRefTest, ReadersKeepWorkingWhileTheFileChanges) {
  const Pathname path = _dir / "busy.xml";
  writePatterns(path, "v0", 100);
  std::atomic<bool> stop{false};
  std::atomic<int> bad{0};
  std::vector<std::thread> readers;
  for (int i = 0; i < 4; ++i) {
    readers.emplace_back([&] {
      DateParserConfigRef held;
      while (!stop.load()) {
        DateParserConfigRef ref;
        try {
          ref.load(path, false);
        } catch (const DateParseException&) {
          ++bad;
          continue;
        }
        if (!stillMatches(ref) || firstTimeName(ref).rfind("v", 0) != 0) ++bad;
        held = ref;  // outlives the cache's interest in it
      }
      if (held.get() != nullptr && !stillMatches(held)) ++bad;
    });
  }
  for (int v = 1; v <= 20; ++v) {
    writePatterns(path, "v" + std::to_string(v), 100 + v);
    gNow += 31;
    std::this_thread::yield();
  }
  stop = true;
  for (auto& t : readers) t.join();
  EXPECT_EQ(0, bad.load());
  DateParserConfigRef last;
  gNow += 31;
  last.load(path, false);
  EXPECT_EQ("v20", firstTimeName(last));
}

}  // namespace
