#include "util/TimeFormat.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

typedef TimeFormat TF;

// The atoms of a compiled format as "code/padding/width/act/mod" words, with
// literals as their text in quotes, so a table can state a whole shape.
std::string shapeOf(const TimeFormat& f) {
  std::string out;
  for (const TF::atom* a = f.atomsBegin(); a != f.atomsEnd(); ++a) {
    if (!out.empty()) out += ' ';
    if (a->what == TF::LITERAL || a->what == TF::WHITESPACE) {
      out += a->what == TF::LITERAL ? "L'" : "W'";
      out.append(a->x.literal, a->width);
      out += '\'';
    } else {
      out += std::to_string(a->what) + '/' + std::to_string(a->x.conv.padding) + '/' +
             std::to_string(a->width) + '/' + std::to_string(a->x.conv.act) + '/' +
             std::to_string(a->x.conv.mod);
    }
  }
  return out;
}

TEST(TimeFormatCompile, BuildsTheAtomsOfEachDirective) {
  const struct { const char* format; const char* shape; } kCases[] = {
      {"%Y", "6/2/4/0/0"}, {"%o", "6/2/4/0/0"}, {"%EY", "6/2/4/0/1"},
      {"%C %y %G %g", "7/2/2/0/0 L' ' 8/2/2/0/0 L' ' 9/2/4/0/0 L' ' 10/2/2/0/0"},
      {"%m%U%W%V", "11/2/2/0/0 12/2/2/0/0 13/2/2/0/0 14/2/2/0/0"},
      {"%d%e%j%#j", "16/2/2/0/0 16/1/2/0/0 17/2/3/0/0 17/3/3/2/0"},
      {"%w%u%H%k%I", "18/2/1/0/0 19/2/1/0/0 20/2/2/0/0 20/1/2/0/0 21/2/2/0/0"},
      {"%M%S", "22/2/2/0/0 23/2/2/0/0"},
      {"%N%Q%f%q%3N%06N", "24/2/9/0/0 24/2/3/0/0 24/2/6/0/0 24/2/6/0/0 24/2/3/0/0 24/2/6/0/0"},
      {"%s", "5/1/0/0/0"},
      {"%z %:z %::z %:::z %Ez", "4/2/5/0/0 L' ' 0/2/6/0/0 L' ' 1/2/9/0/0 L' ' 2/2/0/0/0 L' ' 3/3/4/0/1"},
      {"%a%A%b%h%B", "25/1/3/0/0 26/1/0/0/0 27/1/3/0/0 27/1/3/0/0 28/1/0/0/0"},
      {"%p%P%#p%^P", "29/1/2/1/0 29/1/2/0/0 29/1/2/0/0 29/1/2/1/0"},
      {"%Z%5Z", "30/1/0/0/0 30/1/5/0/0"}, {"%n%t", "W'\n' W'\t'"}, {"a%%b c", "L'a%b c'"},
      {"%%", "L'%'"},
      // Flags, then a width, then a modifier.
      {"%-d%_d%0e%^a%#a", "16/3/2/0/0 16/1/2/0/0 16/2/2/0/0 25/1/3/1/0 25/1/3/2/0"},
      {"%_10Y%-3m%012OH", "6/1/10/0/0 11/3/3/0/0 20/2/12/0/2"},
      // On the listed numbers "#" alone means no padding; with a flag it
      // only sets the case.
      {"%#d%#H%#I%#M%#S%#U%#W%#m%#y",
       "16/3/2/2/0 20/3/2/2/0 21/3/2/2/0 22/3/2/2/0 23/3/2/2/0 12/3/2/2/0 13/3/2/2/0 11/3/2/2/0 "
       "8/3/2/2/0"},
      {"%#_d%#Y", "16/1/2/2/0 6/2/4/2/0"}, {"%OB%Om", "28/1/0/0/2 11/2/2/0/2"},
  };
  for (const auto& c : kCases) {
    TimeFormat f;
    ASSERT_TRUE(f.setFtime(c.format)) << c.format;
    EXPECT_EQ(c.shape, shapeOf(f)) << c.format;
  }
}

TEST(TimeFormatCompile, ExpandsCombinedDirectives) {
  const struct { const char* format; const char* sameAs; } kCases[] = {
      {"%c", "%a %b %e %H:%M:%S %Y"},   {"%Ec", "%a %b %e %H:%M:%S %Y"},
      {"%+", "%a %b %e %H:%M:%S %Z %Y"}, {"%#c", "%A, %B %-d, %Y, %-H:%M:%S"},
      {"%#x", "%A, %B %-d, %Y"},         {"%x", "%m/%d/%y"},
      {"%Ex", "%m/%d/%y"},               {"%D", "%m/%d/%y"},
      {"%F", "%Y-%m-%d"},                {"%T", "%H:%M:%S"},
      {"%X", "%H:%M:%S"},                {"%EX", "%H:%M:%S"},
      {"%R", "%H:%M"},                   {"%r", "%I:%M:%S %p"},
      {"%v", "%e-%b-%Y"},                {"%^r", "%^I:%^M:%^S %^p"},
  };
  for (const auto& c : kCases) {
    TimeFormat combined, spelt;
    ASSERT_TRUE(combined.setFtime(c.format)) << c.format;
    ASSERT_TRUE(spelt.setFtime(c.sameAs)) << c.sameAs;
    EXPECT_EQ(shapeOf(spelt), shapeOf(combined)) << c.format;
  }
}

TEST(TimeFormatCompile, RefusesBadDirectives) {
  const char* kRejects[] = {
      "%", "abc%", "%Y%", "%-", "%_5", "%E", "%:",    // a "%" sequence cut off by the end
      "%OY", "%OC", "%OG", "%Oa", "%Ob", "%OA", "%Op", "%OZ", "%Oz", "%Os", "%OS%ON",
      "%Ed", "%EH", "%Ea", "%E:z", "%EN", "%Es", "%El", "%EZ", "%En", "%E%",
      "%EOY", "%OEy", "%OOy",                          // a second modifier
      "%--d", "%-_d", "%0_d", "%^^a", "%^#a",          // a second flag
      "%5-d", "%5^a", "%O-d", "%O5d",                  // flags or width out of order
      "%:Y", "%::::z", "%:::",
      "%0a", "%0A", "%0b", "%0B", "%0p", "%0P", "%0Z", "%0h",  // names refuse zeros
      "%1a", "%1b", "%2b", "%1h", "%2h",
      "%-N", "%_3N", "%-Q", "%_f", "%-q",
      "%5c", "%-c", "%_F", "%0T", "%Oc", "%OD", "%EF", "%ET", "%ER", "%Er", "%Ev", "%E+", "%3+",
      "%$", "%&", "%'", "%(", "%)", "%*", "%,", "%.", "%/", "%;", "%<", "%=", "%>", "%?", "%@",
      "%J", "%K", "%L", "%[", "%\\", "%]", "%`", "%i", "%!", "%\"", "%{", "%|", "%}", "%~",
      "%\x7f", "%\xc3\xa9", "%K%Y",
  };
  for (const char* format : kRejects) {
    TimeFormat f;
    EXPECT_FALSE(f.setFtime(format)) << format;
    EXPECT_FALSE(f.isSet()) << format;
    TimeFormatRawParseResult pr;
    EXPECT_EQ(nullptr, f.rawParse(&pr, "12", "12" + 2)) << format;
  }
}

TEST(TimeFormatCompile, AcceptsTheWholeDirectiveTable) {
  for (const char* format :
       {"", "plain text", "%a%A%b%B%c%C%d%D%e%F%g%G%h%H%I%j%k%l%m%M%n%N%o%p%P%q%Q%r%R%s%S%t%T%u%U%V%w%W%x"
            "%X%y%Y%z%Z%%%+%v%f",
        "%Ey%EC%EY%Ez%Oy%Om%OU%OW%OV%Od%Oe%Ow%Ou%OH%OI%OM%OS%OB%Ol%Ok", "%_20A%-B%^10Z%#Z%3a%3b"}) {
    TimeFormat f;
    EXPECT_TRUE(f.setFtime(format)) << format;
  }
}

TEST(TimeFormatCompile, ReadsElAsMillisecondsOnlyBehindSeconds) {
  const struct {
    const char* format;
    std::vector<int> ellCodes;  // what each %l became, in order
  } kCases[] = {
      {"%l", {21}},                   // first atom
      {"%S%l", {24}}, {"%S.%l", {24}}, {"%S,%l", {24}}, {"%s%l", {24}}, {"%s.%l", {24}},
      {"%S:%l", {21}},                // only "." or "," may stand between
      {"%S..%l", {21}}, {"%S %l", {21}},
      {"%S.%3l", {21}},               // a width of its own
      {"%S.%-l", {21}},               // a padding of its own
      {"%S.%Ol", {21}},               // a modifier of its own
      {"%M:%S.%l", {21}},             // a minute without an hour: the hour
      {"%H:%M:%S.%l", {24}}, {"%I:%M:%S.%l", {24}},
      // With a minute, milliseconds as soon as any hour atom exists.
      {"%H %M:%S.%l", {24}}, {"%k %M:%S.%l", {24}}, {"%I %M:%S.%l", {24}}, {"%M:%S.%l %H", {24}},
      {"%l:%M:%S.%l", {21, 24}},      // the first %l is the hour the second needs
      {"%M:%S.%l %l", {24, 21}},      // the second %l is the hour that the first needs
      {"%Y-%m-%d %H:%M:%S,%l", {24}}, {"%d %b %Y %H:%M:%S,%l", {24}},
      {"%T.%l", {24}},                // %T ends in %S
      {"%l:%M %p", {21}},
  };
  for (const auto& c : kCases) {
    TimeFormat f;
    ASSERT_TRUE(f.setFtime(c.format)) << c.format;
    std::vector<int> codes;
    std::string ellShape;
    for (const TF::atom* a = f.atomsBegin(); a != f.atomsEnd(); ++a) {
      if (a->what == TF::HOUR12_NUM && a->x.conv.padding != TF::PAD_ZERO) codes.push_back(a->what);
      if (a->what == TF::SUBSEC_NUM) {
        codes.push_back(a->what);
        EXPECT_EQ(3u, a->width) << c.format;
        EXPECT_EQ(TF::PAD_ZERO, a->x.conv.padding) << c.format;
      }
    }
    EXPECT_EQ(c.ellCodes, codes) << c.format;
  }
}

TEST(TimeFormatCompile, ExpectedWidthSumsTheAtoms) {
  const struct { const char* format; uint64_t width; } kCases[] = {
      {"", 0},
      {"%Y-%m-%d %H:%M:%S.%3N %z", 4 + 1 + 2 + 1 + 2 + 1 + 2 + 1 + 2 + 1 + 2 + 1 + 3 + 1 + 5},
      {"%s", 10}, {"%Z", 3}, {"%8Z", 8}, {"%A %B %:::z", 9 + 1 + 9 + 1 + 9}, {"%l", 2},
      {"%S%l", 2 + 3}, {"%c", 3 + 1 + 3 + 1 + 2 + 1 + 2 + 1 + 2 + 1 + 2 + 1 + 4},
      {"%n%t%%ab", 1 + 1 + 3}, {"%Ez%p%w%u%j", 4 + 2 + 1 + 1 + 3},
  };
  for (const auto& c : kCases) {
    TimeFormat f;
    ASSERT_TRUE(f.setFtime(c.format)) << c.format;
    EXPECT_EQ(c.width, f.expectedWidth()) << c.format;
  }
}

TEST(TimeFormatCompile, ResetAllowsAnotherFormat) {
  TimeFormat f("%H");
  ASSERT_TRUE(f.isSet());
  f.reset();
  EXPECT_FALSE(f.isSet());
  EXPECT_EQ(0u, f.expectedWidth());
  ASSERT_TRUE(f.setFtime("%Y-%m"));
  EXPECT_EQ("6/2/4/0/0 L'-' 11/2/2/0/0", shapeOf(f));
}

TEST(TimeFormatCompileDeathTest, SetFtimeOnACompiledFormatAsserts) {
  TimeFormat f("%H");
  EXPECT_DEATH(f.setFtime("%M"), "_atoms == __null");
}

TEST(TimeFormatCompile, CopiesOwnTheirLiterals) {
  TimeFormat original("at %H:%M, on %d.%m. %c");
  TimeFormat copy(original);
  TimeFormat assigned;
  assigned = original;
  const std::string shape = shapeOf(original);
  original.reset();
  ASSERT_TRUE(original.setFtime("%Y zzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzz"));
  EXPECT_EQ(shape, shapeOf(copy));
  EXPECT_EQ(shape, shapeOf(assigned));
  const char text[] = "at 10:20, on 03.04. Mon Apr  3 10:20:30 2023";
  TimeFormatRawParseResult pr;
  EXPECT_EQ(text + sizeof text - 1, copy.rawParse(&pr, text, text + sizeof text - 1));
  EXPECT_EQ(2023, pr.year);
}

}  // namespace
