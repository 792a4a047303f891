#include "util/DateParserRegexConf.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <regex>
#include <string>
#include <vector>

#include "util/DateParseException.h"
#include "util/DateParserConfigRef.h"
#include "util/DateTimeRegex.h"
#include "util/XmlDocument.h"
#include "util/XmlNode.h"
#include "util/testing/LogCapture.h"
#include "util/testing/TestTempDir.h"
#include "util/testing/ThrownText.h"
#include "util/testing/XmlTestInit.h"

namespace {

const Pathname kShippedFile = Pathname(KESTRO_SOURCE_DIR) / "home/etc/datetime.xml";

// The names of a list, through the configuration's own name lookup.
std::vector<std::string> namesOf(const DateParserRegexConf& conf, const DateTimeRegexList& list) {
  std::vector<std::string> names;
  for (const DateTimeRegex* re : list) {
    const Str* name = conf.getPatternName(re);
    names.push_back(name != nullptr ? std::string(*name) : "<unnamed>");
  }
  return names;
}

// Writes `xml` as a file of `dir` and loads it; the test fails on a throw.
DateParserConfigRef loadText(const TestTempDir& dir, const char* leaf, const std::string& xml) {
  const Pathname path = dir / leaf;
  writeTestFile(path, xml);
  DateParserConfigRef ref;
  try {
    ref.load(path, false);
  } catch (const DateParseException& e) {
    ADD_FAILURE() << leaf << ": " << e.what();
  }
  return ref;
}

TEST(DateParserRegexConf, EachMalformedFileGivesItsMessageAndNoEntry) {
  TestTempDir dir;
  const struct {
    const char* leaf;
    const char* xml;  // null: no file at all
    const char* text;  // "%s" is the path
  } kCases[] = {
      {"missing.xml", nullptr,
       "Can't open DatePaser XML configuration file \"%s\": No such file or directory"},
      {"noname.xml", "<d><define><text>a</text></define></d>",
       "Error parsing regex XML file: %s - couldn't find 'name' attribute for 'define' type of "
       "node in regex file"},
      {"usenoname.xml", "<d><define name='a'><use/></define></d>",
       "Error parsing regex XML file: %s - couldn't find 'name' attribute for 'use' type of node "
       "in regex file"},
      // A use inside a define may only look backwards.
      {"forward.xml",
       "<d><define name='a'><use name='b'/></define><define name='b'><text>x</text></define></d>",
       "Error parsing regex XML file: %s - couldn't find 'use' reference named: b"},
      {"badchild.xml", "<d><define name='a'><text>x</text><txt>y</txt></define></d>",
       "Error parsing regex XML file: %s - invalid node name.  Must be 'use' or 'text'"},
      {"notime.xml", "<d><define name='a'><text>x</text></define><datePatterns/></d>",
       "Couldn't find 'timePatterns' in config data for AggregatorProcessor."},
      {"nodate.xml", "<d><timePatterns/></d>",
       "Couldn't find 'datePatterns' in config data for AggregatorProcessor."},
      {"listnoname.xml", "<d><timePatterns><use/></timePatterns><datePatterns/></d>",
       "couldn't find 'name' attribute for 'use' node in timePatterns or datePatterns"},
      {"listunknown.xml",
       "<d><define name='a'><text>x</text></define><timePatterns/>"
       "<datePatterns><use name='a'/><use name='zz'/></datePatterns></d>",
       "Can't find regular expression specified in 'zz' in file %s"},
      {"badregex.xml",
       "<d><define name='ok'><text>x</text></define>"
       "<define name='broken' extract='hour'><text>(\\d+</text></define></d>",
       "Error parsing regex XML file: %s - Regex: missing closing parenthesis"},
      {"notxml.xml", "<d><define name='a'>", "Error parsing regex XML file: %s - "},
      {"empty.xml", "", "Error parsing regex XML file: %s - "},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.leaf);
    const Pathname path = dir / c.leaf;
    if (c.xml != nullptr) writeTestFile(path, c.xml);
    Str want;
    want.format(c.text, path.c_str());
    DateParserConfigRef ref;
    ref.load(kShippedFile, false);  // a value that the failure has to drop
    const std::string got = thrownText<DateParseException>([&] { ref.load(path, false); });
    EXPECT_EQ(0u, got.rfind(want, 0)) << got;
    EXPECT_TRUE(ref.isNone());
    EXPECT_FALSE(CachedDateParserConfig::contains(path));
  }
}

TEST(DateParserRegexConf, DoublingDefinesStopAtTheSizeBound) {
  TestTempDir dir;
  const Pathname path = dir / "doubling.xml";
  // Comments compile to nothing, so only the text's own size can stop this.
  std::string xml = "<d><define name='p0'><text>(?#a)</text></define>";
  for (int i = 1; i <= 40; ++i) {
    const std::string prev = "p" + std::to_string(i - 1);
    xml += "<define name='p" + std::to_string(i) + "'><use name='" + prev + "'/><use name='" +
           prev + "'/></define>";
  }
  writeTestFile(path, xml + "<timePatterns/><datePatterns/></d>");
  DateParserConfigRef ref;
  // p17 holds 5 << 17 bytes, p18 would hold 5 << 18, past 1 << 20.
  EXPECT_EQ("Error parsing regex XML file: " + std::string(path) +
                " - regex of define \"p18\" grows past 1048576 bytes",
            thrownText<DateParseException>([&] { ref.load(path, false); }));
}

TEST(DateParserRegexConf, FailuresLogOnlyWhenAsked) {
  TestTempDir dir;
  // A "%" in the path is data, not a format directive.
  const Pathname path = dir / "100%s.xml";
  writeTestFile(path, "<d><timePatterns><use name='nope'/></timePatterns><datePatterns/></d>");
  ScopedLogCapture log("LoadDateParserRegexes");
  DateParserConfigRef ref;
  EXPECT_THROW(ref.load(path, false), DateParseException);
  EXPECT_EQ("", log.text());
  const std::string thrown = thrownText<DateParseException>([&] { ref.load(path, true); });
  EXPECT_EQ("Can't find regular expression specified in 'nope' in file " + std::string(path),
            thrown);
  EXPECT_EQ("ERROR " + thrown + "\n", log.text());
}

TEST(DateParserRegexConf, APatternThatDoesNotCompileIsNamedInTheLog) {
  TestTempDir dir;
  const Pathname path = dir / "broken.xml";
  writeTestFile(path,
                "<d><define name='ok'><text>x</text></define>"
                "<define name='broken'><text>(\\d+</text></define>"
                "<timePatterns/><datePatterns/></d>");
  ScopedLogCapture log("LoadDateParserRegexes");
  DateParserConfigRef ref;
  const std::string thrown = thrownText<DateParseException>([&] { ref.load(path, true); });
  EXPECT_EQ("Error parsing regex XML file: " + std::string(path) +
                " - Regex: missing closing parenthesis",
            thrown);
  std::vector<std::string> errors;
  for (const std::string& line : log.lines()) {
    if (line.rfind("ERROR ", 0) == 0) errors.push_back(line.substr(6));
  }
  const std::vector<std::string> want = {
      "Pattern of define \"broken\" does not compile: Regex: missing closing parenthesis", thrown};
  EXPECT_EQ(want, errors);
}

TEST(DateParserRegexConf, ReadsDefinesAndListsInFileOrder) {
  TestTempDir dir;
  ScopedLogCapture log("LoadDateParserRegexes");
  // The lists stand before the defines they name, comments and stray
  // elements sit everywhere, and the root's name is free.
  DateParserConfigRef ref = loadText(dir, "order.xml", R"(<?xml version="1.0"?>
<anything>
  <!-- lists first -->
  <timePatterns>
    <use name="t2"/> <!-- comment --> <use name="t1"/>
    <other name="t1"/>
    <use name="t2"/>
    <use name="both"/>
  </timePatterns>
  <unrelated><define name="ignored"/></unrelated>
  <datePatterns><use name="both"/><use name="d1"/></datePatterns>
  <define name="_hh"><text>(\d\d)</text></define>
  <define name="t1" extract="hour,minute">
    <use name="_hh"/><text>:</text><use name="_hh"/>
  </define>
  <define name="t2" extract=" hour , ,minute	second ">
    <text>(\d\d)h(\d\d)m(\d\d)</text><!-- between parts -->
  </define>
  <define name="d1" extract="day month"><text>(\d\d)/(\d\d)</text></define>
  <define name="both" extract="utcepoch"><text>(\d{10})</text></define>
</anything>
)");
  const DateParserRegexConf* conf = ref.get();
  ASSERT_NE(nullptr, conf);
  EXPECT_EQ((std::vector<std::string>{"t2", "t1", "t2", "both"}),
            namesOf(*conf, conf->getTimeList()));
  EXPECT_EQ((std::vector<std::string>{"both", "d1"}), namesOf(*conf, conf->getDateList()));
  EXPECT_EQ(5u, conf->regexes.size());

  // A use brings in the whole source text and its groups count for extract.
  const DateTimeRegex* t1 = conf->find("t1");
  ASSERT_NE(nullptr, t1);
  EXPECT_EQ("(\\d\\d):(\\d\\d)", t1->getPattern());
  EXPECT_EQ((std::vector<DateTimeRegex::Extraction>{DateTimeRegex::HOUR, DateTimeRegex::MINUTE}),
            t1->extractions);
  EXPECT_EQ((std::vector<DateTimeRegex::Extraction>{DateTimeRegex::HOUR, DateTimeRegex::MINUTE,
                                                    DateTimeRegex::SECOND}),
            conf->find("t2")->extractions);
  EXPECT_TRUE(conf->find("_hh")->isCompiled());

  EXPECT_NE(std::string::npos, log.text().find("DEBUG put _hh\n"));
  EXPECT_NE(std::string::npos,
            log.text().find("DEBUG put d1 regex=(\\d\\d)/(\\d\\d)\nDEBUG     * day\n"
                            "DEBUG     * month\n"))
      << log.text();
}

TEST(DateParserRegexConf, RedefinitionReplacesTheEntryButNotEarlierUses) {
  TestTempDir dir;
  DateParserConfigRef ref = loadText(dir, "redef.xml", R"(<d>
  <define name="a"><text>old</text></define>
  <define name="b"><use name="a"/><text>!</text></define>
  <define name="a" extract="ignored_x"><text>(new)</text></define>
  <timePatterns><use name="a"/><use name="b"/></timePatterns>
  <datePatterns/>
</d>)");
  const DateParserRegexConf* conf = ref.get();
  ASSERT_NE(nullptr, conf);
  EXPECT_EQ(2u, conf->regexes.size());
  EXPECT_EQ("(new)", conf->find("a")->getPattern());
  EXPECT_EQ("old!", conf->find("b")->getPattern());
  EXPECT_EQ(conf->find("a"), conf->getTimeList().at(0));
  // Empty lists load: no line will yield a timestamp.
  EXPECT_TRUE(conf->getDateList().empty());
}

using DR = DateTimeRegex;

const char* const kPath = "/opt/k/etc/patterns.xml";

// Reads `xml` into `conf`; returns the exception text, or "" on success.
std::string readInto(DateParserRegexConf& conf, const std::string& xml) {
  XmlDocument doc(StrSegment(xml), kPath, false, false);
  EXPECT_FALSE(doc.empty()) << doc.error();
  try {
    conf.readPatterns(doc.get_root(), Pathname(kPath), nullptr);
  } catch (const DateParseException& e) {
    return e.what();
  }
  return "";
}

std::string lists(const char* time, const char* date) {
  return std::string("<timePatterns>") + time + "</timePatterns><datePatterns>" + date +
         "</datePatterns>";
}

Str patternOf(const DateParserRegexConf& conf, const char* name) {
  const DateTimeRegex* r = conf.find(Str(name));
  return r ? r->getPattern() : Str("<none>");
}

TEST(DateParserRegexConf, ComposesUsesFromEarlierDefinesVerbatim) {
  DateParserRegexConf conf;
  const std::string xml =
      "<anything>"
      "<define name='two'><text>(\\d\\d)</text></define>"
      "<define name='hm'><use name='two'/><text>:</text><use name='two'/></define>"
      "<define name='hms' extract='hour, minute,,second '>"
      "<!-- a comment between children is skipped -->"
      "<use name='hm'/>  <text>:(\\d\\d)</text></define>"
      // A define may use an earlier one of its own name: it takes the old text.
      "<define name='two'><use name='two'/><text>x</text></define>"
      + lists("<use name='hms'/>", "") + "</anything>";
  ASSERT_EQ("", readInto(conf, xml));
  EXPECT_EQ("(\\d\\d):(\\d\\d)", patternOf(conf, "hm"));
  EXPECT_EQ("(\\d\\d):(\\d\\d):(\\d\\d)", patternOf(conf, "hms"));
  EXPECT_EQ("(\\d\\d)x", patternOf(conf, "two"));

  const DateTimeRegex* hms = conf.find(Str("hms"));
  ASSERT_NE(nullptr, hms);
  ASSERT_EQ(3u, hms->extractions.size());
  EXPECT_EQ(DR::HOUR, hms->extractions[0]);
  EXPECT_EQ(DR::MINUTE, hms->extractions[1]);
  EXPECT_EQ(DR::SECOND, hms->extractions[2]);
  // Groups brought by use count first, in the order of the text.
  Str line("at 01:02:03");
  StrSegment seg(line);
  DateTimeRegexExtractions ex;
  int start = -1, end = -1;
  ASSERT_TRUE(hms->evaluate(seg, ex, start, end));
  EXPECT_EQ("01", ex.get(DR::HOUR).view());
  EXPECT_EQ("02", ex.get(DR::MINUTE).view());
  EXPECT_EQ("03", ex.get(DR::SECOND).view());
  EXPECT_TRUE(conf.find(Str("hm"))->extractions.empty());

  ASSERT_EQ(1u, conf.getTimeList().size());
  EXPECT_EQ(hms, conf.getTimeList().at(0));
  EXPECT_TRUE(conf.getDateList().empty());
}

TEST(DateParserRegexConf, ExtractSplitsOnCommasAndBlanks) {
  const struct {
    const char* extract;
    std::vector<DR::Extraction> codes;
  } kCases[] = {
      {"hour,minute", {DR::HOUR, DR::MINUTE}},
      {"hour minute", {DR::HOUR, DR::MINUTE}},
      {" ,hour , ,  minute,", {DR::HOUR, DR::MINUTE}},
      {",,, ", {}},
      {"", {}},
      {"ignored_a,day ignored_b", {DR::IGNORED, DR::DAY, DR::IGNORED}},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.extract);
    DateParserRegexConf conf;
    const std::string xml = std::string("<r><define name='d' extract='") + c.extract +
                            "'><text>(a)(b)(c)</text></define>" + lists("", "") + "</r>";
    ASSERT_EQ("", readInto(conf, xml));
    ASSERT_NE(nullptr, conf.find(Str("d")));
    EXPECT_EQ(c.codes, conf.find(Str("d"))->extractions);
  }
}

TEST(DateParserRegexConf, RefusalsCarryTheirExactText) {
  const std::string wrap = std::string("Error parsing regex XML file: ") + kPath + " - ";
  const std::string ok = "<define name='ok'><text>(\\d+)</text></define>";
  const struct {
    std::string body;
    std::string text;
  } kCases[] = {
      // A define cannot use itself before an earlier define of that name exists.
      {"<define name='self'><use name='self'/></define>" + lists("", ""),
       wrap + "couldn't find 'use' reference named: self"},
      // Names are case-sensitive, in a define and in the lists.
      {ok + "<define name='x'><use name='OK'/></define>" + lists("", ""),
       wrap + "couldn't find 'use' reference named: OK"},
      {ok + lists("", "<use name='OK'/>"),
       std::string("Can't find regular expression specified in 'OK' in file ") + kPath},
      // The define after a bad one is never reached; the first refusal wins.
      {"<define name='a'><bad/></define><define><text>x</text></define>" + lists("", ""),
       wrap + "invalid node name.  Must be 'use' or 'text'"},
      // Neither list: time is looked for first.
      {ok, "Couldn't find 'timePatterns' in config data for AggregatorProcessor."},
      // The time list is read whole first, so its refusal wins.
      {ok + lists("<use name='t?'/>", "<use/>"),
       std::string("Can't find regular expression specified in 't?' in file ") + kPath},
      {ok + lists("<use name='ok'/>", "<use name='ok'/><use/>"),
       "couldn't find 'name' attribute for 'use' node in timePatterns or datePatterns"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.body);
    DateParserRegexConf conf;
    EXPECT_EQ(c.text, readInto(conf, "<r>" + c.body + "</r>"));
  }
}

// The lists of the shipped file as a plain text scan sees them.
std::vector<std::string> scanList(const std::string& xml, const std::string& element) {
  const size_t from = xml.find("<" + element + ">");
  const size_t to = xml.find("</" + element + ">");
  std::vector<std::string> names;
  if (from == std::string::npos || to == std::string::npos) return names;
  const std::string body = xml.substr(from, to - from);
  const std::regex use("<use name=\"([^\"]+)\"/>");
  for (auto it = std::sregex_iterator(body.begin(), body.end(), use);
       it != std::sregex_iterator(); ++it) {
    names.push_back((*it)[1]);
  }
  return names;
}

TEST(DateParserRegexConf, ShippedFileLoadsWithListsInFileOrder) {
  std::ifstream in(kShippedFile.c_str());
  const std::string xml((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  ASSERT_FALSE(xml.empty());
  DateParserConfigRef ref;
  ref.load(kShippedFile, true);
  const DateParserRegexConf* conf = ref.get();
  ASSERT_NE(nullptr, conf);
  const std::vector<std::string> times = scanList(xml, "timePatterns");
  const std::vector<std::string> dates = scanList(xml, "datePatterns");
  ASSERT_GT(times.size(), 10u);
  ASSERT_GT(dates.size(), 10u);
  EXPECT_EQ(times, namesOf(*conf, conf->getTimeList()));
  EXPECT_EQ(dates, namesOf(*conf, conf->getDateList()));
  const std::regex define("<define name=\"([^\"]+)\"");
  EXPECT_EQ(static_cast<size_t>(std::distance(
                std::sregex_iterator(xml.begin(), xml.end(), define), std::sregex_iterator())),
            conf->regexes.size());
  // Every listed pattern extracts something the parser can use.
  for (const DateTimeRegex* re : conf->getTimeList()) EXPECT_FALSE(re->extractions.empty());
  for (const DateTimeRegex* re : conf->getDateList()) EXPECT_FALSE(re->extractions.empty());
}

TEST(DateParserRegexConf, ShippedPatternsEvaluateRealLines) {
  DateParserConfigRef ref;
  ref.load(kShippedFile, true);
  const DateParserRegexConf* conf = ref.get();
  ASSERT_NE(nullptr, conf);
  const struct {
    const char* define;
    const char* line;
    int start, end;
    size_t count;
    std::vector<std::pair<int, const char*>> groups;
  } kCases[] = {
      {"iso8601_time", "2026-06-15T11:58:01.123456789+02:00 ready", 11, 35, 5,
       {{DateTimeRegex::HOUR, "11"}, {DateTimeRegex::MINUTE, "58"}, {DateTimeRegex::SECOND, "01"},
        {DateTimeRegex::SUBSECOND, "123456789"}, {DateTimeRegex::ZONE, "+02:00"}}},
      // No fraction and no zone: those groups stay unset.
      {"hms_time", "date=2026-06-15 time=11:58:01 ok", 21, 29, 3,
       {{DateTimeRegex::HOUR, "11"}, {DateTimeRegex::MINUTE, "58"},
        {DateTimeRegex::SECOND, "01"}}},
      {"syslog_classic_date", "Jun 15 11:58:01 host-a cron[311]: job started", 0, 6, 2,
       {{DateTimeRegex::LITMONTH, "Jun"}, {DateTimeRegex::DAY, "15"}}},
      {"epoch_hex", "boot 0x6a2fe8c9 fan=2 rpm=4100", 5, 15, 1,
       {{DateTimeRegex::HEXEPOCH, "6a2fe8c9"}}},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.define);
    const DateTimeRegex* re = conf->find(c.define);
    ASSERT_NE(nullptr, re);
    StrSegment line(c.line);
    DateTimeRegexExtractions ex;
    int start = -1, end = -1;
    ASSERT_TRUE(re->evaluate(line, ex, start, end));
    EXPECT_EQ(c.start, start);
    EXPECT_EQ(c.end, end);
    EXPECT_EQ(c.count, ex.count);
    for (const auto& [code, want] : c.groups) {
      const StrSegment got = ex.get(code);
      EXPECT_EQ(want, std::string(got.data(), got.size())) << code;
    }
  }
  // Shapes that the patterns are built to refuse.
  StrSegment mac("00:11:22:33:44:55 link up");
  DateTimeRegexExtractions ex;
  int start = -1, end = -1;
  EXPECT_FALSE(conf->find("hms_time")->evaluate(mac, ex, start, end));
}

}  // namespace
