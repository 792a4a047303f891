// The cache of loaded pattern files as handles see it: the 30-second
// recheck, the modification-time rule, reference counts across reloads,
// failures that leave nothing behind, and what assignTo gives a parser.

#include "util/DateParserConfigRef.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

#include "util/DateParseException.h"
#include "util/DateParserRegexConf.h"
#include "util/DateTimeRegex.h"
#include "util/LogAppender.h"
#include "util/Logger.h"
#include "util/Pathname.h"
#include "util/ScopedXmlLibInit.h"
#include "util/Str.h"
#include "util/StrSegment.h"
#include "util/Timeval.h"

namespace {

class XmlEnvironment : public testing::Environment {
 public:
  void SetUp() override {
    _xml = new ScopedXmlLibInit();
    Logger::initialize();
    LogAppender::root().setAttribute("layout", "PatternLayout", {});
    LogAppender::root().setAttribute("layout.ConversionPattern", "%p %c %m%n", {});
  }
  void TearDown() override { delete _xml; }

 private:
  ScopedXmlLibInit* _xml = nullptr;
};
testing::Environment* const gEnv = testing::AddGlobalTestEnvironment(new XmlEnvironment);

time_t gNow = 1000000;
time_t fakeClock() { return gNow; }

const char* const kTimeOnly =
    "<r><define name='hm' extract='hour,minute'><text>(\\d\\d):(\\d\\d)</text></define>"
    "<timePatterns><use name='hm'/></timePatterns><datePatterns/></r>";
const char* const kOther =
    "<r><define name='x' extract='hour'><text>(\\d)h</text></define>"
    "<define name='y' extract='day'><text>(\\d)d</text></define>"
    "<timePatterns><use name='x'/></timePatterns><datePatterns><use name='y'/></datePatterns></r>";

class DateParserConfigRefReview : public testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/cfgrefreviewXXXXXX";
    ASSERT_NE(nullptr, mkdtemp(tmpl));
    _dir = tmpl;
    _oldClock = CachedDateParserConfig::setClock(&fakeClock);
    gNow = 1000000;
  }
  void TearDown() override {
    CachedDateParserConfig::setClock(_oldClock);
    std::string cmd = "rm -rf '" + _dir + "'";
    EXPECT_EQ(0, system(cmd.c_str()));
  }

  // Writes `xml` to `name` in the scratch folder with the given mtime.
  Pathname write(const char* name, const char* xml, time_t mtime) {
    const std::string path = _dir + "/" + name;
    FILE* f = fopen(path.c_str(), "w");
    EXPECT_NE(nullptr, f);
    fputs(xml, f);
    fclose(f);
    setMtime(path, mtime);
    return Pathname(path);
  }
  static void setMtime(const std::string& path, time_t mtime) {
    struct timeval tv[2] = {{mtime, 0}, {mtime, 0}};
    EXPECT_EQ(0, utimes(path.c_str(), tv));
  }

  std::string _dir;
  CachedDateParserConfig::ClockFunction _oldClock = nullptr;
};

TEST_F(DateParserConfigRefReview, NoneAndCurrentTouchNoCacheAndReleaseFirst) {
  const Pathname path = write("a.xml", kTimeOnly, 5000);
  DateParserConfigRef ref;
  ref.load(path, false);
  const DateParserRegexConf* conf = ref.get();
  ASSERT_NE(nullptr, conf);
  EXPECT_EQ(2, conf->getRefCount());
  const size_t cached = CachedDateParserConfig::size();

  ref.load(Pathname("NONE"), false);
  EXPECT_TRUE(ref.isNone());
  EXPECT_EQ(1, conf->getRefCount());  // only the cache holds it now
  ref.load(Pathname("CURRENT"), true);
  EXPECT_TRUE(ref.isCurrent());
  EXPECT_EQ(nullptr, ref.get());
  EXPECT_EQ(cached, CachedDateParserConfig::size());
  EXPECT_FALSE(CachedDateParserConfig::contains(Pathname("NONE")));
  EXPECT_FALSE(CachedDateParserConfig::contains(Pathname("CURRENT")));
  ref.release();
  EXPECT_TRUE(ref.isNone());
}

TEST_F(DateParserConfigRefReview, CountsOneForCacheAndOneForEachHolder) {
  const Pathname path = write("b.xml", kTimeOnly, 5000);
  DateParserConfigRef r1, r2, r3;
  r1.load(path, false);
  const DateParserRegexConf* conf = r1.get();
  ASSERT_NE(nullptr, conf);
  EXPECT_TRUE(CachedDateParserConfig::contains(path));
  EXPECT_EQ(Timeval(5000, 0), conf->mtime);
  EXPECT_EQ(gNow, conf->lastChecked);
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

TEST_F(DateParserConfigRefReview, RewriteWithinThirtySecondsKeepsOldConfiguration) {
  const Pathname path = write("c.xml", kTimeOnly, 5000);
  DateParserConfigRef oldRef;
  oldRef.load(path, false);
  const DateParserRegexConf* oldConf = oldRef.get();
  ASSERT_NE(nullptr, oldConf);
  write("c.xml", kOther, 6000);

  const struct {
    time_t offset;
    bool fresh;
  } kSteps[] = {{0, false}, {1, false}, {29, false}};
  for (const auto& s : kSteps) {
    gNow = 1000000 + s.offset;
    DateParserConfigRef ref;
    ref.load(path, false);
    EXPECT_EQ(oldConf, ref.get()) << s.offset;
    EXPECT_EQ(1000000, oldConf->lastChecked) << s.offset;
  }
  gNow = 1000000 + 30;
  DateParserConfigRef newRef;
  newRef.load(path, false);
  ASSERT_NE(nullptr, newRef.get());
  EXPECT_NE(oldConf, newRef.get());
  EXPECT_EQ(2, newRef.get()->getRefCount());
  EXPECT_EQ(Timeval(6000, 0), newRef.get()->mtime);
  EXPECT_EQ(gNow, newRef.get()->lastChecked);
  EXPECT_NE(nullptr, newRef.get()->find(Str("y")));
  // The holder of the old one keeps it, whole, and is now its only owner.
  EXPECT_EQ(1, oldConf->getRefCount());
  EXPECT_NE(nullptr, oldConf->find(Str("hm")));
  ASSERT_EQ(1u, oldConf->getTimeList().size());
}

TEST_F(DateParserConfigRefReview, UnchangedFileIsConfirmedNotReread) {
  const Pathname path = write("d.xml", kTimeOnly, 5000);
  DateParserConfigRef a;
  a.load(path, false);
  const DateParserRegexConf* conf = a.get();
  // Later than 30 seconds, same mtime: the same object, newly confirmed.
  gNow += 3600;
  DateParserConfigRef b;
  b.load(path, false);
  EXPECT_EQ(conf, b.get());
  EXPECT_EQ(gNow, conf->lastChecked);
  EXPECT_EQ(3, conf->getRefCount());
  // A clock that went back puts lastChecked after now: looked at again.
  gNow -= 7200;
  DateParserConfigRef c;
  c.load(path, false);
  EXPECT_EQ(conf, c.get());
  EXPECT_EQ(gNow, conf->lastChecked);
}

TEST_F(DateParserConfigRefReview, AnyOtherMtimeReloadsEvenAnOlderOne) {
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

TEST_F(DateParserConfigRefReview, RemovedFileStaysCachedUntilNextCheckFails) {
  const Pathname path = write("f.xml", kTimeOnly, 5000);
  DateParserConfigRef holder;
  holder.load(path, false);
  const DateParserRegexConf* conf = holder.get();
  ASSERT_EQ(0, unlink(path.c_str()));
  gNow += 10;
  DateParserConfigRef within;
  within.load(path, false);
  EXPECT_EQ(conf, within.get());
  within.release();

  gNow += 30;
  DateParserConfigRef after;
  after.load(write("f2.xml", kOther, 5000), false);  // a real value, to see it become null
  try {
    after.load(path, false);
    FAIL() << "loaded a removed file";
  } catch (const DateParseException& e) {
    EXPECT_EQ("Can't open DatePaser XML configuration file \"" + std::string(path) +
                  "\": No such file or directory",
              std::string(e.what()));
  }
  EXPECT_TRUE(after.isNone());
  EXPECT_FALSE(CachedDateParserConfig::contains(path));
  EXPECT_EQ(1, conf->getRefCount());
  EXPECT_EQ(1u, conf->getTimeList().size());
}

TEST_F(DateParserConfigRefReview, FailedLoadLeavesNoEntryAndNullHandle) {
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

TEST_F(DateParserConfigRefReview, LogsFailureOnlyWhenAsked) {
  const Pathname missing(_dir + "/missing.xml");
  const std::string text =
      "Can't open DatePaser XML configuration file \"" + std::string(missing) +
      "\": No such file or directory";
  DateParserConfigRef ref;
  testing::internal::CaptureStderr();
  EXPECT_THROW(ref.load(missing, false), DateParseException);
  EXPECT_EQ("", testing::internal::GetCapturedStderr());
  testing::internal::CaptureStderr();
  EXPECT_THROW(ref.load(missing, true), DateParseException);
  const std::string log = testing::internal::GetCapturedStderr();
  EXPECT_NE(std::string::npos, log.find("ERROR LoadDateParserRegexes " + text)) << log;
}

TEST_F(DateParserConfigRefReview, BrokenRewriteDropsTheEntryButNotTheHolders) {
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

TEST_F(DateParserConfigRefReview, TextTakesCdataAndEntitiesAsCharacters) {
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

TEST_F(DateParserConfigRefReview, ConcurrentHoldersBalanceTheCount) {
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
