#include "util/DateParserConfigRef.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
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
#include "util/DateTimeRegex.h"
#include "util/testing/LogCapture.h"
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
  void SetUp() override {
    _saved = CachedDateParserConfig::setClock(&testClock);
    gNow = 1000000;
  }
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

  // Writes `xml` to `name` in the test's folder with the given mtime.
  Pathname write(const char* name, const char* xml, time_t mtime) {
    const Pathname path = _dir / name;
    writeTestFile(path, xml);
    setMtime(path, mtime);
    return path;
  }
  static void setMtime(const Pathname& path, time_t mtime) {
    struct timeval tv[2] = {{mtime, 0}, {mtime, 0}};
    EXPECT_EQ(0, ::utimes(path.c_str(), tv));
  }

  TestTempDir _dir;
  CachedDateParserConfig::ClockFunction _saved = nullptr;
};

const char* const kTimeOnly =
    "<r><define name='hm' extract='hour,minute'><text>(\\d\\d):(\\d\\d)</text></define>"
    "<timePatterns><use name='hm'/></timePatterns><datePatterns/></r>";
const char* const kOther =
    "<r><define name='x' extract='hour'><text>(\\d)h</text></define>"
    "<define name='y' extract='day'><text>(\\d)d</text></define>"
    "<timePatterns><use name='x'/></timePatterns><datePatterns><use name='y'/></datePatterns></r>";

TEST_F(DateParserConfigRefTest, NoneAndCurrentNeedNoFileAndReleaseFirst) {
  const Pathname path = write("a.xml", kTimeOnly, 5000);
  DateParserConfigRef ref;
  ref.load(path, false);
  const DateParserRegexConf* conf = ref.get();
  ASSERT_NE(nullptr, conf);
  EXPECT_EQ(2, conf->getRefCount());
  const size_t before = CachedDateParserConfig::size();
  ref.load(Pathname("NONE"), false);
  EXPECT_TRUE(ref.isNone());
  EXPECT_FALSE(ref.isCurrent());
  EXPECT_EQ(1, conf->getRefCount());  // only the cache holds it now
  ref.load(Pathname("CURRENT"), true);
  EXPECT_TRUE(ref.isCurrent());
  EXPECT_EQ(nullptr, ref.get());
  EXPECT_EQ(before, CachedDateParserConfig::size());
  EXPECT_FALSE(CachedDateParserConfig::contains(Pathname("NONE")));
  EXPECT_FALSE(CachedDateParserConfig::contains(Pathname("CURRENT")));
  ref.release();
  EXPECT_TRUE(ref.isNone());
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
  EXPECT_EQ(2000000, first.get()->lastChecked);
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

TEST_F(DateParserConfigRefTest, CountsOneForCacheAndOneForEachHolder) {
  const Pathname path = write("b.xml", kTimeOnly, 5000);
  DateParserConfigRef r1, r2, r3;
  r1.load(path, false);
  const DateParserRegexConf* conf = r1.get();
  ASSERT_NE(nullptr, conf);
  EXPECT_TRUE(CachedDateParserConfig::contains(path));
  EXPECT_EQ(Timeval(5000, 0), conf->mtime);
  EXPECT_EQ(gNow.load(), conf->lastChecked);
  EXPECT_EQ(2, conf->getRefCount());
  r2.load(path, false);
  r3.load(path, false);
  EXPECT_EQ(conf, r2.get());
  EXPECT_EQ(conf, r3.get());
  EXPECT_EQ(4, conf->getRefCount());
  r2.release();
  EXPECT_TRUE(r2.isNone());
  EXPECT_EQ(3, conf->getRefCount());
  r2.release();  // a second release of a null handle changes nothing
  EXPECT_EQ(3, conf->getRefCount());
  // Loading the same path again through the same handle nets zero.
  r3.load(path, false);
  EXPECT_EQ(3, conf->getRefCount());
}

TEST_F(DateParserConfigRefTest, AnyOtherMtimeReloadsEvenAnOlderOne) {
  const Pathname path = write("e.xml", kTimeOnly, 5000);
  DateParserConfigRef a;
  a.load(path, false);
  const DateParserRegexConf* first = a.get();
  setMtime(path, 4000);  // moved back, as a restore from backup would
  gNow += 31;
  DateParserConfigRef b;
  b.load(path, false);
  ASSERT_NE(nullptr, b.get());
  EXPECT_NE(first, b.get());
  EXPECT_EQ(Timeval(4000, 0), b.get()->mtime);
  EXPECT_EQ(1, first->getRefCount());
}

TEST_F(DateParserConfigRefTest, FailedLoadLeavesNoEntryAndNullHandle) {
  const Pathname good = write("g.xml", kTimeOnly, 5000);
  const struct {
    const char* xml;
    const char* textStart;
  } kCases[] = {
      {"<r><define name='a'><use name='b'/></define><timePatterns/><datePatterns/></r>",
       "Error parsing regex XML file: "},
      {"<r><define name='a'><text>(</text></define><timePatterns/><datePatterns/></r>",
       "Error parsing regex XML file: "},
      {"<r><timePatterns><use name='q'/></timePatterns><datePatterns/></r>",
       "Can't find regular expression specified in 'q' in file "},
      {"<r><datePatterns/></r>", "Couldn't find 'timePatterns'"},
      {"<r><unclosed></r>", ""},
      {"", ""},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.xml);
    const Pathname bad = write("h.xml", c.xml, 7000);
    DateParserConfigRef ref;
    ref.load(good, false);
    const DateParserRegexConf* goodConf = ref.get();
    const int32_t before = goodConf->getRefCount();
    try {
      ref.load(bad, false);
      ADD_FAILURE() << "loaded";
    } catch (const DateParseException& e) {
      EXPECT_EQ(0u, std::string(e.what()).find(c.textStart)) << e.what();
    }
    EXPECT_TRUE(ref.isNone());
    EXPECT_EQ(before - 1, goodConf->getRefCount());  // released before the attempt
    EXPECT_FALSE(CachedDateParserConfig::contains(bad));
  }
}

TEST_F(DateParserConfigRefTest, LogsFailureOnlyWhenAsked) {
  const Pathname missing = _dir / "missing.xml";
  const std::string text =
      "Can't open DatePaser XML configuration file \"" + std::string(missing) +
      "\": No such file or directory";
  DateParserConfigRef ref;
  ScopedLogCapture log("LoadDateParserRegexes");
  EXPECT_THROW(ref.load(missing, false), DateParseException);
  EXPECT_EQ("", log.text());
  EXPECT_THROW(ref.load(missing, true), DateParseException);
  EXPECT_EQ("ERROR " + text + "\n", log.text());
}

TEST_F(DateParserConfigRefTest, BrokenRewriteDropsTheEntryButNotTheHolders) {
  const Pathname path = write("m.xml", kTimeOnly, 5000);
  DateParserConfigRef holder;
  holder.load(path, false);
  const DateParserRegexConf* old = holder.get();
  write("m.xml", "<r><define name='a'><text>(</text></define></r>", 6000);
  gNow += 30;
  DateParserConfigRef ref;
  EXPECT_THROW(ref.load(path, false), DateParseException);
  EXPECT_TRUE(ref.isNone());
  EXPECT_FALSE(CachedDateParserConfig::contains(path));
  EXPECT_EQ(1, old->getRefCount());
  EXPECT_NE(nullptr, old->find(Str("hm")));
  // Repaired, it loads anew at once: a failure leaves nothing to wait for.
  write("m.xml", kOther, 7000);
  ref.load(path, false);
  ASSERT_NE(nullptr, ref.get());
  EXPECT_NE(nullptr, ref.get()->find(Str("y")));
  EXPECT_EQ(Timeval(7000, 0), ref.get()->mtime);
}

TEST_F(DateParserConfigRefTest, TextTakesCdataAndEntitiesAsCharacters) {
  const Pathname path = write(
      "n.xml",
      "<r><define name='a' extract='hour,minute'>"
      "<text><![CDATA[<(\\d+)>]]></text><text>&amp;&lt;(\\d+)&gt;</text></define>"
      "<timePatterns><use name='a'/></timePatterns><datePatterns/></r>",
      5000);
  DateParserConfigRef ref;
  ref.load(path, false);
  ASSERT_NE(nullptr, ref.get());
  const DateTimeRegex* a = ref.get()->find(Str("a"));
  ASSERT_NE(nullptr, a);
  EXPECT_EQ("<(\\d+)>&<(\\d+)>", a->getPattern());
  Str line("x <12>&<34> y");
  StrSegment seg(line);
  DateTimeRegexExtractions ex;
  int start = -1, end = -1;
  ASSERT_TRUE(a->evaluate(seg, ex, start, end));
  EXPECT_EQ(2, start);
  EXPECT_EQ("34", ex.get(DateTimeRegex::MINUTE).view());
}

TEST_F(DateParserConfigRefTest, ConcurrentHoldersBalanceTheCount) {
  const Pathname path = write("k.xml", kTimeOnly, 5000);
  DateParserConfigRef mine;
  mine.load(path, false);
  const DateParserRegexConf* conf = mine.get();
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&path, conf] {
      for (int i = 0; i < 500; ++i) {
        DateParserConfigRef ref;
        ref.load(path, false);
        if (ref.get() != conf) ADD_FAILURE() << "another configuration";
        DateParserConfigRef copy(ref);
        ref.release();
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(2, conf->getRefCount());
}

}  // namespace
