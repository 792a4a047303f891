#include "util/XsltStylesheet.h"

#include <gtest/gtest.h>

#include <string>

#include "util/FileStar.h"
#include "util/Pathname.h"
#include "util/XmlContents.h"
#include "util/XmlDocument.h"
#include "util/testing/LogCapture.h"
#include "util/testing/TestTempDir.h"
#include "util/testing/XmlTestInit.h"

namespace {

const char* const XSL_OPEN =
    "<xsl:stylesheet version=\"1.0\" xmlns:xsl=\"http://www.w3.org/1999/XSL/Transform\">";
const char* const XSL_CLOSE = "</xsl:stylesheet>";

const char* const ITEMS =
    "<items><item price=\"2\">apple</item><item price=\"5\">pear</item>"
    "<item price=\"3\">fig &amp; date</item></items>";

// Sorted by price, highest first, with the total as an attribute.
const std::string LIST_SHEET = std::string(XSL_OPEN) +
    "<xsl:template match=\"/items\"><list total=\"{sum(item/@price)}\">"
    "<xsl:apply-templates select=\"item\"><xsl:sort select=\"@price\" data-type=\"number\" "
    "order=\"descending\"/></xsl:apply-templates></list></xsl:template>"
    "<xsl:template match=\"item\"><li><xsl:value-of select=\".\"/></li></xsl:template>" +
    XSL_CLOSE;
const char* const LIST_OUT =
    "<list total=\"10\"><li>pear</li><li>fig &amp; date</li><li>apple</li></list>";

XmlDocument parse(const std::string& text) {
  return XmlDocument(StrSegment(text.data(), text.size()), nullptr, true, true);
}

std::string body(const XmlDocument& doc) {
  XmlContents c(doc);
  c.trimDeclarationInPlace();
  std::string s(c.data(), c.size());
  if (!s.empty() && s.back() == '\n') s.pop_back();
  return s;
}

TEST(XsltStylesheet, TransformsASmallDocument) {
  TestTempDir dir;
  writeTestFile(dir / "list.xsl", LIST_SHEET);
  writeTestFile(dir / "items.xml", ITEMS);
  XsltStylesheet sheet(dir / "list.xsl");
  ASSERT_TRUE(sheet.valid()) << sheet.error();
  EXPECT_EQ("", sheet.error());

  XmlDocument out = parse("<stale/>");
  EXPECT_TRUE(sheet.apply(parse(ITEMS), out));
  EXPECT_EQ(LIST_OUT, body(out));
  EXPECT_EQ("", out.error());

  // The same through the parse-and-transform constructors, and applied
  // twice with one stylesheet.
  EXPECT_EQ(LIST_OUT, body(XmlDocument(sheet, dir / "items.xml")));
  ScopedFileStar f(dir / "items.xml", "r");
  EXPECT_EQ(LIST_OUT, body(XmlDocument(sheet, f, "items")));
}

TEST(XsltStylesheet, CompiledFromAParsedDocument) {
  XmlDocument sheetDoc = parse(LIST_SHEET);
  XsltStylesheet sheet(sheetDoc);
  ASSERT_TRUE(sheet.valid()) << sheet.error();
  EXPECT_FALSE(sheetDoc.empty());  // copied, not taken
  XmlDocument out;
  ASSERT_TRUE(sheet.apply(parse(ITEMS), out));
  EXPECT_EQ(LIST_OUT, body(out));
}

TEST(XsltStylesheet, StylesheetsThatDoNotCompileSayWhy) {
  TestTempDir dir;
  const struct {
    const char* what;
    std::string text;
    const char* error;
  } kCases[] = {
      {"not well formed", std::string(XSL_OPEN) + "<xsl:template>", "Premature end of data"},
      {"not a stylesheet", "<html><body/></html>", "xsltParseStylesheetProcess"},
      {"bad pattern", std::string(XSL_OPEN) + "<xsl:template match=\"((\"/>" + XSL_CLOSE,
       "failed to compile '(('"},
      {"bad expression",
       std::string(XSL_OPEN) + "<xsl:template match=\"/\"><xsl:value-of select=\"((\"/>" +
           "</xsl:template>" + XSL_CLOSE,
       "could not compile select expression '(('"},
      {"include of another file",
       std::string(XSL_OPEN) + "<xsl:include href=\"" + std::string(dir / "other.xsl") +
           "\"/>" + XSL_CLOSE,
       "other.xsl"},
  };
  writeTestFile(dir / "other.xsl", LIST_SHEET);
  for (const auto& c : kCases) {
    writeTestFile(dir / "bad.xsl", c.text);
    XsltStylesheet sheet(dir / "bad.xsl");
    EXPECT_FALSE(sheet.valid()) << c.what;
    EXPECT_NE(std::string::npos, sheet.error().find(c.error)) << c.what << ": " << sheet.error();

    XmlDocument out = parse("<stale/>");
    EXPECT_FALSE(sheet.apply(parse(ITEMS), out)) << c.what;
    EXPECT_TRUE(out.empty()) << c.what;
    EXPECT_EQ(sheet.error(), out.error()) << c.what;
  }
  XsltStylesheet missing(dir / "missing.xsl");
  EXPECT_FALSE(missing.valid());
  EXPECT_NE(std::string::npos, missing.error().find("No such file or directory"));
}

TEST(XsltStylesheet, TransformFailuresAreValues) {
  TestTempDir dir;
  const std::string secret = "SECRET-b41e";
  writeTestFile(dir / "secret.xml", "<s>" + secret + "</s>");
  const Pathname written = dir / "written.txt";
  const struct {
    const char* what;
    std::string templ;
    const char* error;
  } kCases[] = {
      {"terminating message",
       "<xsl:template match=\"/\"><xsl:message terminate=\"yes\">stop here</xsl:message>"
       "</xsl:template>",
       "stop here"},
      {"reading another document",
       "<xsl:template match=\"/\"><o><xsl:value-of select=\"document('" +
           std::string(dir / "secret.xml") + "')\"/></o></xsl:template>",
       "secret.xml"},
      {"writing a file",
       "<xsl:template match=\"/\"><xsl:document href=\"" + std::string(written) +
           "\" method=\"text\">leak</xsl:document></xsl:template>",
       "written.txt"},
      {"runaway recursion",
       "<xsl:template match=\"/\"><xsl:call-template name=\"r\"/></xsl:template>"
       "<xsl:template name=\"r\"><xsl:call-template name=\"r\"/></xsl:template>",
       "infinite template recursion"},
  };
  for (const auto& c : kCases) {
    XsltStylesheet sheet(parse(std::string(XSL_OPEN) + c.templ + XSL_CLOSE));
    ASSERT_TRUE(sheet.valid()) << c.what << ": " << sheet.error();
    ScopedLogCapture log("XmlParser");
    XmlDocument out = parse("<stale/>");
    EXPECT_FALSE(sheet.apply(parse(ITEMS), out)) << c.what;
    EXPECT_TRUE(out.empty()) << c.what;
    EXPECT_NE(std::string::npos, out.error().find(c.error)) << c.what << ": " << out.error();
    EXPECT_EQ(std::string::npos, out.error().find(secret)) << c.what;
    EXPECT_EQ(std::string::npos, log.text().find(secret)) << c.what;
    EXPECT_EQ("", readTestFile(written)) << c.what;
  }
}

TEST(XsltStylesheet, BadInputsAreValuesToo) {
  XsltStylesheet sheet(parse(LIST_SHEET));
  XmlDocument failed = parse("<a>");
  XmlDocument out;
  EXPECT_FALSE(sheet.apply(failed, out));
  EXPECT_TRUE(out.empty());
  EXPECT_EQ(failed.error(), out.error());

  TestTempDir dir;
  writeTestFile(dir / "bad.xml", "<items>\n<item>");
  XmlDocument viaPath(sheet, dir / "bad.xml");
  EXPECT_TRUE(viaPath.empty());
  EXPECT_EQ(2, viaPath.errorLine());
  XmlDocument viaMissing(sheet, dir / "missing.xml");
  EXPECT_TRUE(viaMissing.empty());
  EXPECT_NE(std::string::npos, viaMissing.error().find("Could not open"));

  XsltStylesheet fromFailed(failed);
  EXPECT_FALSE(fromFailed.valid());
  EXPECT_EQ(failed.error(), fromFailed.error());
}

}  // namespace
