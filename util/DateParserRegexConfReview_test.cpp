// Reading a pattern file: composition of defines by use, extraction names
// against group order, redefinition, the two lists, and the exact text of
// every refusal.

#include "util/DateParserRegexConf.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "util/DateParseException.h"
#include "util/DateTimeRegex.h"
#include "util/Pathname.h"
#include "util/ScopedXmlLibInit.h"
#include "util/Str.h"
#include "util/StrSegment.h"
#include "util/XmlDocument.h"
#include "util/XmlNode.h"

namespace {

using DR = DateTimeRegex;

const char* const kPath = "/opt/k/etc/review.xml";

class XmlEnvironment : public testing::Environment {
 public:
  void SetUp() override {
    _xml = new ScopedXmlLibInit();
  }
  void TearDown() override { delete _xml; }

 private:
  ScopedXmlLibInit* _xml = nullptr;
};
testing::Environment* const gEnv = testing::AddGlobalTestEnvironment(new XmlEnvironment);

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

TEST(DateParserRegexConfReview, ComposesUsesFromEarlierDefinesVerbatim) {
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

TEST(DateParserRegexConfReview, ExtractSplitsOnCommasAndBlanks) {
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

TEST(DateParserRegexConfReview, RedefinitionReplacesEntryButNotEarlierUses) {
  DateParserRegexConf conf;
  const std::string xml =
      "<r>"
      "<define name='a' extract='hour'><text>(\\d+)X</text></define>"
      "<define name='b' extract='hour'><use name='a'/></define>"
      "<define name='a' extract='minute'><text>(\\d+)Y</text></define>"
      + lists("<use name='a'/><use name='b'/>", "<use name='a'/>") + "</r>";
  ASSERT_EQ("", readInto(conf, xml));
  EXPECT_EQ("(\\d+)Y", patternOf(conf, "a"));
  EXPECT_EQ("(\\d+)X", patternOf(conf, "b"));
  EXPECT_EQ(DR::MINUTE, conf.find(Str("a"))->extractions.at(0));
  EXPECT_EQ(2u, conf.regexes.size());
  ASSERT_EQ(2u, conf.getTimeList().size());
  EXPECT_EQ(conf.find(Str("a")), conf.getTimeList().at(0));
  EXPECT_EQ(conf.find(Str("b")), conf.getTimeList().at(1));
  ASSERT_EQ(1u, conf.getDateList().size());
  EXPECT_EQ(conf.find(Str("a")), conf.getDateList().at(0));
  ASSERT_NE(nullptr, conf.getPatternName(conf.getTimeList().at(1)));
  EXPECT_EQ("b", *conf.getPatternName(conf.getTimeList().at(1)));
}

TEST(DateParserRegexConfReview, ListsNameAnyDefineInFileOrderWithRepeats) {
  DateParserRegexConf conf;
  const std::string xml =
      "<r>"
      "<datePatterns><use name='d2'/><junk name='d1'/><use name='d1'/><use name='d2'/>"
      "text<!-- c --></datePatterns>"
      "<timePatterns><use name='t'/><use name='d1'/></timePatterns>"
      "<other><define name='hidden'><text>(</text></define></other>"
      "<define name='t' extract='hour'><text>(\\d+)h</text></define>"
      "<define name='d1' extract='day'><text>(\\d+)d</text></define>"
      "<define name='d2' extract='month'><text>(\\d+)m</text></define>"
      "<unknownElement/>"
      "</r>";
  ASSERT_EQ("", readInto(conf, xml));
  const DateTimeRegex* t = conf.find(Str("t"));
  const DateTimeRegex* d1 = conf.find(Str("d1"));
  const DateTimeRegex* d2 = conf.find(Str("d2"));
  ASSERT_TRUE(t && d1 && d2);
  EXPECT_EQ(nullptr, conf.find(Str("hidden")));
  std::vector<const DateTimeRegex*> time(conf.getTimeList().begin(), conf.getTimeList().end());
  std::vector<const DateTimeRegex*> date(conf.getDateList().begin(), conf.getDateList().end());
  EXPECT_EQ((std::vector<const DateTimeRegex*>{t, d1}), time);
  EXPECT_EQ((std::vector<const DateTimeRegex*>{d2, d1, d2}), date);
}

TEST(DateParserRegexConfReview, EmptyListsLoad) {
  DateParserRegexConf conf;
  ASSERT_EQ("", readInto(conf, "<r><timePatterns/><datePatterns/></r>"));
  EXPECT_TRUE(conf.getTimeList().empty());
  EXPECT_TRUE(conf.getDateList().empty());
  EXPECT_TRUE(conf.regexes.empty());
}

TEST(DateParserRegexConfReview, RefusalsCarryTheirExactText) {
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

}  // namespace
