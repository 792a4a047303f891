#include "util/XmlNode.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "util/Pathname.h"
#include "util/XmlDocument.h"
#include "util/testing/XmlTestInit.h"

namespace {

XmlDocument parse(const std::string& text) {
  XmlDocument doc(StrSegment(text.data(), text.size()), nullptr, true, false);
  EXPECT_FALSE(doc.empty()) << doc.error();
  return doc;
}

// One row per text: what each typed read makes of it, as element content
// and as an attribute value alike.
TEST(XmlNodeReads, TypedReadsOfElementsAndAttributes) {
  const struct {
    const char* text;
    bool longOk;
    long l;
    bool doubleOk;
    double d;
    const char* path;  // null: no path
    int boolean;       // 1, 0, or -1 for "neither" (the whenInvalid default)
  } kCases[] = {
      {"42", true, 42, true, 42.0, "42", -1},
      {" 8089\n", true, 8089, true, 8089.0, "8089", -1},  // blanks around are ignored
      {"-7", true, -7, true, -7.0, "-7", -1},
      {"1", true, 1, true, 1.0, "1", 1},
      {"0", true, 0, true, 0.0, "0", 0},
      {"2.5", false, 0, true, 2.5, "2.5", -1},
      {"0x10", false, 0, true, 16.0, "0x10", -1},  // strtod reads hex; strtol base 10 not
      {"12abc", false, 0, false, 0, "12abc", -1},
      {"true", false, 0, false, 0, "true", 1},
      {"\tNo ", false, 0, false, 0, "No", 0},
      {"/opt/k//etc/", false, 0, false, 0, "/opt/k//etc/", -1},
      {"99999999999999999999", false, 0, true, 1e20, "99999999999999999999", -1},
      {"", false, 0, false, 0, nullptr, -2},  // -2: the whenEmpty default
      {"  ", false, 0, false, 0, nullptr, -2},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(std::string("[") + c.text + "]");
    Str escaped;
    // An attribute value keeps line ends and tabs only as references.
    for (const char* p = c.text; *p; ++p) {
      escaped.append(*p == '\n' ? "&#10;" : *p == '\t' ? "&#9;" : std::string(1, *p));
    }
    XmlDocument doc = parse("<r><v>" + std::string(c.text) + "</v><w a=\"" + escaped + "\"/></r>");
    const XmlNode v = doc.get_root().find("v");
    const XmlAttribute a = doc.get_root().find("w").attribute("a");
    auto check = [&](const auto& x) {
      Str s("old");
      EXPECT_TRUE(x.tryToStr(s));
      EXPECT_EQ(c.text, s);
      long l = 555;
      EXPECT_EQ(c.longOk, x.tryToLong(l));
      if (c.longOk) {
        EXPECT_EQ(c.l, l);
      } else if (*c.text == '\0') {
        EXPECT_EQ(555, l);
      }
      double d = 0.25;
      EXPECT_EQ(c.doubleOk, x.tryToDouble(d));
      if (c.doubleOk) {
        EXPECT_DOUBLE_EQ(c.d, d);
      }
      Pathname p("untouched");
      EXPECT_EQ(c.path != nullptr, x.tryToPathname(p));
      EXPECT_EQ(c.path != nullptr ? c.path : "untouched", std::string(p));
      const bool whenEmpty = true, whenInvalid = false;
      const bool want = c.boolean == -2 ? whenEmpty : c.boolean == -1 ? whenInvalid : c.boolean == 1;
      EXPECT_EQ(want, x.toBool(whenEmpty, whenInvalid));
      EXPECT_EQ(c.text, x.toStr("dflt"));
      EXPECT_EQ(c.text, x.toStr(Str("dflt")));
    };
    check(v);
    check(a);
  }
}

TEST(XmlNodeReads, NullViewsFailOrGiveTheDefault) {
  XmlDocument doc = parse("<r/>");
  const XmlNode none = doc.get_root().find("absent");
  const XmlAttribute noAttr = doc.get_root().attribute("absent");
  EXPECT_FALSE(none.valid());
  EXPECT_FALSE(noAttr.valid());
  auto check = [](const auto& x) {
    Str s("old");
    long l = 5;
    double d = 0.5;
    Pathname p("p");
    EXPECT_FALSE(x.tryToStr(s));
    EXPECT_FALSE(x.tryToLong(l));
    EXPECT_FALSE(x.tryToDouble(d));
    EXPECT_FALSE(x.tryToPathname(p));
    EXPECT_EQ("old", s);
    EXPECT_EQ(5, l);
    EXPECT_EQ(0.5, d);
    EXPECT_EQ("p", p);
    EXPECT_TRUE(x.toBool(true, false));
    EXPECT_FALSE(x.toBool(false, true));
    EXPECT_EQ("dflt", x.toStr("dflt"));
    EXPECT_EQ("dflt", x.toStr(Str("dflt")));
  };
  check(none);
  check(noAttr);
}

TEST(XmlNodeReads, TextOfAnElementIsAllItsText) {
  XmlDocument doc = parse("<r>a<b>b<c>c</c></b><!--no-->d<![CDATA[<e>]]>&amp;</r>");
  EXPECT_EQ("abcd<e>&", doc.get_root().toStr(""));
}

std::vector<std::string> childNames(const XmlNode& n) {
  std::vector<std::string> out;
  for (XmlNode c = n.begin(); c.valid(); c.increment_element_iterator()) out.push_back(c.name());
  return out;
}

TEST(XmlNodeNavigation, ElementIterationSkipsOtherNodes) {
  const struct {
    const char* text;
    std::vector<std::string> names;
  } kCases[] = {
      {"<r/>", {}},
      {"<r>text only</r>", {}},
      {"<r><a/></r>", {"a"}},
      {"<r> <a/> t <!--c--> <b/><?pi x?><a/><![CDATA[x]]></r>", {"a", "b", "a"}},
      {"<r><a><deep/></a><b/></r>", {"a", "b"}},  // children only, not descendants
  };
  for (const auto& c : kCases) {
    XmlDocument doc = parse(c.text);
    EXPECT_EQ(c.names, childNames(doc.get_root())) << c.text;
  }
}

TEST(XmlNodeNavigation, FindFirstOfTypeAndAttributes) {
  XmlDocument doc = parse(
      "<r x=\"1\" y=\"2\">lead<!--c1--><a n=\"1\"/><b/><a n=\"2\"/><?p d?><!--c2--></r>");
  const XmlNode r = doc.get_root();
  EXPECT_EQ("1", r.find("a").attribute("n").toStr(""));
  EXPECT_EQ("1", r["a"].attribute("n").toStr(""));
  EXPECT_FALSE(r.find("c").valid());
  EXPECT_FALSE(r.find("x").valid());  // an attribute is no child
  EXPECT_EQ("c1", r.first_of_type(XML_COMMENT_NODE).toStr(""));
  EXPECT_EQ("lead", r.first_of_type(XML_TEXT_NODE).toStr(""));
  EXPECT_STREQ("p", r.first_of_type(XML_PI_NODE).name());
  EXPECT_FALSE(r.first_of_type(XML_CDATA_SECTION_NODE).valid());

  std::vector<std::string> attrs;
  for (XmlAttribute a = r.attributes().begin(); a.valid(); a = a.next()) {
    attrs.push_back(std::string(a.name()) + "=" + std::string(a.toStr("")));
  }
  EXPECT_EQ((std::vector<std::string>{"x=1", "y=2"}), attrs);
  EXPECT_EQ("2", r.attributes().find("y").toStr(""));
  EXPECT_FALSE(r.attributes().find("z").valid());
  EXPECT_FALSE(r.find("b").attributes().begin().valid());

  // internal_find over a sibling list directly, with and without a name.
  xmlNode* first = r.get()->children;
  EXPECT_EQ(r.find("b").get(), XmlNodeLike::internal_find("b", first, XML_ELEMENT_NODE));
  EXPECT_EQ(r.find("a").get(), XmlNodeLike::internal_find(nullptr, first, XML_ELEMENT_NODE));
  EXPECT_EQ(nullptr, XmlNodeLike::internal_find("b", first, XML_COMMENT_NODE));
  EXPECT_EQ(nullptr, XmlNodeLike::internal_find("b", nullptr, XML_ELEMENT_NODE));
}

TEST(XmlNodeEdits, SetAttributeReplacesAndAddChildAppends) {
  XmlDocument doc = parse("<r a=\"old\"/>");
  XmlNode r = doc.get_root();
  r.setAttribute("a", "new");
  r.setAttribute("b", "<&>\"");
  EXPECT_EQ("new", r.attribute("a").toStr(""));
  EXPECT_EQ("<&>\"", r.attribute("b").toStr(""));
  XmlNode c = r.addChild("c", "1 < 2");
  r.addCdataChild("d", "x\0y", 3);
  EXPECT_EQ("1 < 2", c.toStr(""));
  EXPECT_EQ((std::vector<std::string>{"c", "d"}), childNames(r));
  EXPECT_EQ("<r a=\"new\" b=\"&lt;&amp;&gt;&quot;\"><c>1 &lt; 2</c><d><![CDATA[x]]></d></r>",
            std::string(Str(r)));
}

}  // namespace
