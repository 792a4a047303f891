// This program never sets the libraries up in its own process: each test
// that needs them does so in a child, so that every test starts from
// NOT_YET.
#include "util/ScopedXmlLibInit.h"

#include <gtest/gtest.h>

#include <libxml/globals.h>
#include <libxml/tree.h>
#include <libxml/xmlerror.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "util/Thread.h"
#include "util/XmlDocument.h"
#include "util/testing/LogCapture.h"

namespace {

class ParseThread : public Thread {
 public:
  explicit ParseThread(const char* text) : Thread("xml parse"), _text(text) {}
  void main() override {
    if (xml_setup_state == DID_SETUP) {
      XmlDocument doc(StrSegment(_text), "thread.xml", false, false);
      failed = doc.empty();
    }
  }
  bool failed = false;

 private:
  Str _text;
};

// In a child process gtest's own checks do not reach the parent, so a child
// reports its mismatches on standard error and by its exit status.
class ChildChecks {
 public:
  void equal(const std::string& want, const std::string& got, const char* what) {
    if (want == got) return;
    fprintf(stderr, "%s: want [%s] got [%s]\n", what, want.c_str(), got.c_str());
    _failed = true;
  }
  [[noreturn]] void exit() { std::_Exit(_failed ? 1 : 0); }

 private:
  bool _failed = false;
};

class ScopedXmlLibInitDeathTest : public ::testing::Test {
 protected:
  void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_F(ScopedXmlLibInitDeathTest, OncePerProcessAndOnlyWhileInEffect) {
  EXPECT_DEATH(
      {
        ScopedXmlLibInit a;
        ScopedXmlLibInit b;
      },
      "Assertion failed: xml_setup_state == NOT_YET");
  EXPECT_DEATH({ ScopedXmlLibInit* a = new ScopedXmlLibInit; delete a; ScopedXmlLibInit b; },
               "Assertion failed: xml_setup_state == NOT_YET");
  EXPECT_DEATH(XmlDocument(StrSegment("<a/>"), nullptr, false, false),
               "Assertion failed: xml_setup_state == DID_SETUP");
  EXPECT_DEATH(XmlDocument(Pathname("/nonexistent.xml"), false, false),
               "Assertion failed: xml_setup_state == DID_SETUP");
  EXPECT_DEATH(
      {
        { ScopedXmlLibInit a; }
        XmlDocument(StrSegment("<a/>"), nullptr, false, false);
      },
      "Assertion failed: xml_setup_state == DID_SETUP");
  // The destructor's own check: the state moved on behind its back.
  EXPECT_DEATH(
      {
        ScopedXmlLibInit a;
        xml_setup_state = DID_CLEANUP;
      },
      "Assertion failed: xml_setup_state == DID_SETUP");
}

TEST_F(ScopedXmlLibInitDeathTest, StatesFollowTheLifecycle) {
  EXPECT_EXIT(
      {
        ChildChecks check;
        check.equal("0", std::to_string(xml_setup_state.load()), "before");
        {
          ScopedXmlLibInit init;
          check.equal("1", std::to_string(xml_setup_state.load()), "during");
        }
        check.equal("3", std::to_string(xml_setup_state.load()), "after");
        check.exit();
      },
      ::testing::ExitedWithCode(0), "");
}

TEST_F(ScopedXmlLibInitDeathTest, AThreadStartedFirstMakesTheSetUpFail) {
  EXPECT_DEATH(
      {
        ParseThread t("<a/>");
        t.go();
        t.join();
        if (xml_setup_state != THREAD_BEFORE_SETUP) std::_Exit(3);
        ScopedXmlLibInit init;
      },
      "Assertion failed: xml_setup_state == NOT_YET");
}

// A Thread started after the set-up has the handlers too: its parse error
// is logged, not printed by the library's default.
TEST_F(ScopedXmlLibInitDeathTest, LaterThreadsLogThroughTheHandlers) {
  EXPECT_EXIT(
      {
        ChildChecks check;
        ScopedXmlLibInit init;
        ScopedLogCapture log("XmlParser");
        ParseThread t("<a>\n<b>");
        t.go();
        t.join();
        check.equal("1", t.failed ? "1" : "0", "parse failed");
        check.equal("INFO thread.xml:2: parser: Premature end of data in tag b line 2\n",
                    log.text(), "logged");
        check.exit();
      },
      ::testing::ExitedWithCode(0), "");
}

TEST_F(ScopedXmlLibInitDeathTest, HandlersLogAtTheirLevels) {
  EXPECT_EXIT(
      {
        ChildChecks check;
        ScopedXmlLibInit init;
        ScopedLogCapture log("XmlParser");
        xmlDoc* doc = xmlNewDoc(reinterpret_cast<const xmlChar*>("1.0"));
        xmlNode* element = xmlNewDocNode(doc, nullptr, reinterpret_cast<const xmlChar*>("e"), nullptr);
        xmlError err{};
        err.domain = 1;
        err.code = 0;  // ignored
        err.message = const_cast<char*>("dropped");
        xmlStructuredError(xmlStructuredErrorContext, &err);
        err.code = 5;
        err.level = XML_ERR_WARNING;
        err.message = const_cast<char*>("boom\n");
        err.file = const_cast<char*>("f.xml");
        err.line = 9;
        err.node = element;
        xmlStructuredError(xmlStructuredErrorContext, &err);  // any severity: INFO
        err.message = nullptr;
        err.node = nullptr;
        err.file = nullptr;
        err.line = 0;
        err.level = XML_ERR_ERROR;
        xmlStructuredError(xmlStructuredErrorContext, &err);
        err.level = XML_ERR_FATAL;
        xmlStructuredError(xmlStructuredErrorContext, &err);
        xmlGenericError(xmlGenericErrorContext, "piece %d", 1);
        xmlGenericError(xmlGenericErrorContext, " two\nthree");
        xmlGenericError(xmlGenericErrorContext, "\n");
        check.equal(
            "INFO f.xml:9: parser: node \"e\": boom\n"
            "ERROR parser: out of memory\n"
            "FATAL parser: out of memory\n"
            "INFO piece 1 two\n"
            "INFO three\n",
            log.text(), "logged");
        xmlFreeNode(element);
        xmlFreeDoc(doc);
        check.exit();
      },
      ::testing::ExitedWithCode(0), "");
}

TEST(XmlErrorDomainName, EveryNumber) {
  const char* const kNames[] = {
      "",         "parser",         "",        "namespace",        "validity",
      "HTML parser", "memory",      "output",  "I/O",              "",
      "",         "XInclude",       "XPath",   "parser",           "regexp",
      "",         "Schemas parser", "Schemas validity", "Relax-NG parser", "Relax-NG validity",
      "Catalog",  "C14N",           "XSLT",    "validity",         "",
      "",         "module",         "encoding", "",                "",
  };
  for (int d = 0; d < 30; ++d) EXPECT_STREQ(kNames[d], xmlErrorDomainName(d)) << d;
  EXPECT_STREQ("", xmlErrorDomainName(-1));
  EXPECT_STREQ("", xmlErrorDomainName(1000));
}

TEST(FormatXmlErrorLine, PrefixesByWhatIsKnown) {
  const struct {
    const char* file;
    int line, domain;
    const char* node;
    const char* message;
    const char* out;
  } kCases[] = {
      {"a.xml", 3, 1, nullptr, "bad\n", "a.xml:3: parser: bad"},
      {"a.xml", 0, 1, nullptr, "bad", "a.xml: parser: bad"},
      {nullptr, 4, 1, nullptr, "bad", "Entity: line 4: parser: bad"},
      {nullptr, 4, 12, nullptr, "bad", "XPath: bad"},  // the Entity form is the parser's
      {nullptr, 0, 1, nullptr, "bad", "parser: bad"},
      {"a.xml", 3, 22, "tmpl", "oops", "a.xml:3: XSLT: node \"tmpl\": oops"},
      {"a.xml", 3, 9, nullptr, "odd", "a.xml:3: odd"},  // a domain with no name
      {nullptr, 0, 0, nullptr, nullptr, "out of memory"},
      {nullptr, 0, 6, nullptr, "two\n\n", "memory: two"},
      {nullptr, 0, 1, nullptr, "multi\nline", "parser: multi\nline"},
  };
  for (const auto& c : kCases) {
    EXPECT_EQ(c.out, formatXmlErrorLine(c.file, c.line, c.domain, c.node, c.message)) << c.out;
  }
}

}  // namespace
