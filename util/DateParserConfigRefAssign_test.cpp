#include "util/DateParserConfigRef.h"

#include <gtest/gtest.h>

#include "util/DateParser.h"
#include "util/DateParserRegexConf.h"
#include "util/Timeval.h"
#include "util/testing/XmlTestInit.h"

namespace {

const Pathname kShippedFile = Pathname(KESTRO_SOURCE_DIR) / "home/etc/datetime.xml";

bool parse(DateParser& parser, const char* line, const Timeval& now, Timeval& out) {
  int ts = 0, te = 0, ds = 0, de = 0;
  return parser.parseDate(out, StrSegment(line), now, ts, te, ds, de, nullptr);
}

TEST(DateParserConfigRefAssign, GivesEachKindOfValueItsMode) {
  DateParserConfigRef shipped;
  shipped.load(kShippedFile, true);
  ASSERT_NE(nullptr, shipped.get());
  DateParserConfigRef current;
  current.load(Pathname("CURRENT"), true);
  const DateParserConfigRef none;
  const Timeval now(1781524800, 0);  // 2026-06-15 12:00:00 UTC
  const char* line = "2026-06-15 11:58:01 job started";

  DateParser parser(true);
  shipped.assignTo(&parser);
  EXPECT_EQ(DateParser::MODE_REGULAR, parser.getMode());
  EXPECT_EQ(shipped.get(), parser.getConf());
  Timeval out;
  ASSERT_TRUE(parse(parser, line, now, out));
  EXPECT_EQ(2, shipped.get()->getRefCount());  // the parser takes no reference

  current.assignTo(&parser);
  EXPECT_EQ(DateParser::MODE_CURRENT, parser.getMode());
  EXPECT_EQ(&DateParser::__emptyConf, parser.getConf());
  const Timeval before = Timeval::now();
  ASSERT_TRUE(parse(parser, line, now, out));
  EXPECT_GE(out, before);  // the clock, not the text and not `now`

  none.assignTo(&parser);
  EXPECT_EQ(DateParser::MODE_NONE, parser.getMode());
  EXPECT_EQ(&DateParser::__emptyConf, parser.getConf());
  EXPECT_FALSE(parse(parser, line, now, out));

  // A real one again: the memory of the winning patterns is gone.
  shipped.assignTo(&parser);
  ASSERT_TRUE(parse(parser, line, now, out));
  ASSERT_NE(nullptr, parser.getTimeState().lastRegex);
  shipped.assignTo(&parser);
  EXPECT_EQ(nullptr, parser.getTimeState().lastRegex);
  EXPECT_EQ(0u, parser.getTimeState().hits);
  EXPECT_EQ(nullptr, parser.getDateState().lastRegex);
}

}  // namespace
