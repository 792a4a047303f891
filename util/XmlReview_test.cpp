// Checks of the XML layer from a caller's side: parse failures as values
// from every input form, no connection for remote entities, the error
// hook's log lines, strict UTF-8 escaping and serialisation round trips.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <libxml/globals.h>
#include <libxml/tree.h>
#include <libxml/valid.h>
#include <libxml/xmlerror.h>

#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "util/FileDescriptor.h"
#include "util/FileStar.h"
#include "util/Pathname.h"
#include "util/ScopedXmlLibInit.h"
#include "util/Str.h"
#include "util/Thread.h"
#include "util/XMLAndStringUtil.h"
#include "util/XmlContents.h"
#include "util/XmlDocument.h"
#include "util/XmlNode.h"
#include "util/testing/LogCapture.h"
#include "util/testing/TestTempDir.h"
#include "util/testing/TestText.h"

namespace {

// The libraries are set up once, on first use, the way main() does, and
// stay up until the process ends.
void xmlReady() {
  static ScopedXmlLibInit* init = new ScopedXmlLibInit;
  (void)init;
}

XmlDocument parseText(const std::string& text, const char* name = nullptr,
                      bool replaceEntities = false, bool loadDtdAttributes = false) {
  xmlReady();
  return XmlDocument(text.data(), text.data() + text.size(), name, replaceEntities,
                     loadDtdAttributes);
}

std::string rootText(const XmlDocument& doc) {
  Str out;
  if (doc.empty() || !doc.get_root().valid()) return "<none>";
  doc.get_root().tryToStr(out);
  return out;
}

// ---- Parse failures are values ----

TEST(XmlReviewParse, UnnamedInputLogsEntityLine) {
  ScopedLogCapture capture("XmlParser", "%p %c %m%n");
  XmlDocument doc = parseText("<a>\n<b></c></a>");
  EXPECT_TRUE(doc.empty());
  EXPECT_EQ(2, doc.errorLine());
  const auto lines = capture.lines();
  ASSERT_EQ(1u, lines.size()) << capture.text();
  EXPECT_EQ(0u, lines[0].find("INFO XmlParser Entity: line 2: parser: ")) << lines[0];
}

TEST(XmlReviewParse, InputFormsAgreeOnSuccessAndFailure) {
  TestTempDir dir;
  const std::string good = "<r><v>42</v></r>";
  const std::string bad = "<r>\n<v>42</r>";
  for (const std::string& text : {good, bad}) {
    SCOPED_TRACE(text);
    const Pathname path = dir / "in.xml";
    writeTestFile(path, text);
    ScopedLogCapture capture("XmlParser");
    XmlDocument byPath(path, false, false);
    ScopedFileStar f(path, "r");
    ASSERT_TRUE(f.valid());
    XmlDocument byStar(f, "in.xml", false, false);
    ScopedFileDescriptor fd(FileDescriptor(::open(std::string(path).c_str(), O_RDONLY)));
    ASSERT_TRUE(fd.valid());
    XmlDocument byFd(fd, "in.xml", false, false);
    XmlDocument byMem = parseText(text, "in.xml");
    for (const XmlDocument* d : {&byPath, &byStar, &byFd, &byMem}) {
      EXPECT_EQ(text == bad, d->empty());
      EXPECT_EQ(byMem.errorLine(), d->errorLine());
      if (text == good) {
        EXPECT_EQ("42", rootText(*d));
      }
    }
  }
}

TEST(XmlReviewParse, NamespaceSlipKeepsTheDocumentAndLogsIt) {
  // Only a document that is not well formed is refused; an undeclared
  // prefix is logged and the document stands.
  ScopedLogCapture capture("XmlParser", "%p %c %m%n");
  XmlDocument doc = parseText("<x:a/>", "ns.xml");
  EXPECT_FALSE(doc.empty());
  EXPECT_EQ("", doc.error());
  EXPECT_EQ(0, doc.errorLine());
  const auto lines = capture.lines();
  ASSERT_EQ(1u, lines.size()) << capture.text();
  EXPECT_EQ(0u, lines[0].find("INFO XmlParser ns.xml:1: namespace: ")) << lines[0];
}

TEST(XmlReviewParse, RangesEncodingsAndIds) {
  xmlReady();
  const char buf[] = "<a/>GARBAGE";  // only the range is read
  XmlDocument ranged(buf, buf + 4, nullptr, false, false);
  EXPECT_FALSE(ranged.empty()) << ranged.error();
  XmlDocument latin =
      parseText("<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?><a>\xE9</a>");
  ASSERT_FALSE(latin.empty()) << latin.error();
  EXPECT_EQ("\xC3\xA9", rootText(latin));
  XmlDocument ids = parseText(
      "<!DOCTYPE a [<!ATTLIST b key ID #IMPLIED>]><a><b key=\"k1\"/></a>", nullptr, false, true);
  ASSERT_FALSE(ids.empty()) << ids.error();
  EXPECT_NE(nullptr, xmlGetID(ids.get(), reinterpret_cast<const xmlChar*>("k1")));
}

// ---- No read of anything else ----

TEST(XmlReviewParse, NoConnectionIsMadeForRemoteEntities) {
  const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
  ASSERT_GE(listener, 0);
  ScopedFileDescriptor owner{FileDescriptor(listener)};
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(0, ::bind(listener, reinterpret_cast<sockaddr*>(&addr), sizeof addr));
  socklen_t len = sizeof addr;
  ASSERT_EQ(0, ::getsockname(listener, reinterpret_cast<sockaddr*>(&addr), &len));
  ASSERT_EQ(0, ::listen(listener, 8));
  const std::string url = "http://127.0.0.1:" + std::to_string(ntohs(addr.sin_port)) + "/x";
  const std::string kDocs[] = {
      "<!DOCTYPE a SYSTEM \"" + url + ".dtd\"><a/>",
      "<!DOCTYPE a [<!ENTITY e SYSTEM \"" + url + "\">]><a>&e;</a>",
      "<!DOCTYPE a [<!ENTITY % p SYSTEM \"" + url + "\"> %p;]><a/>",
  };
  for (const std::string& text : kDocs) {
    for (int flags = 0; flags < 4; ++flags) {
      SCOPED_TRACE(text);
      ScopedLogCapture capture("XmlParser");
      parseText(text, nullptr, flags & 1, flags & 2);
    }
  }
  const int conn = ::accept(listener, nullptr, nullptr);
  if (conn >= 0) ::close(conn);
  EXPECT_LT(conn, 0) << "a parse connected to " << url;
}

// ---- The structured error hook ----

// Sends one hand-made error through the hook that the set-up installed.
void sendError(int domain, int code, int level, const char* message, const char* file, int line,
               xmlNode* node = nullptr) {
  xmlReady();
  xmlError err{};
  err.domain = domain;
  err.code = code;
  err.level = static_cast<xmlErrorLevel>(level);
  err.message = const_cast<char*>(message);
  err.file = const_cast<char*>(file);
  err.line = line;
  err.node = node;
  ASSERT_NE(nullptr, xmlStructuredError);
  xmlStructuredError(xmlStructuredErrorContext, &err);
}

TEST(XmlReviewHook, EveryNamedDomainReachesTheLog) {
  const struct {
    int domain;
    const char* name;
  } kDomains[] = {
      {1, "parser"},          {13, "parser"},          {3, "namespace"},
      {4, "validity"},        {23, "validity"},        {5, "HTML parser"},
      {6, "memory"},          {7, "output"},           {8, "I/O"},
      {11, "XInclude"},       {12, "XPath"},           {14, "regexp"},
      {16, "Schemas parser"}, {17, "Schemas validity"}, {18, "Relax-NG parser"},
      {19, "Relax-NG validity"}, {20, "Catalog"},      {21, "C14N"},
      {22, "XSLT"},           {26, "module"},          {27, "encoding"},
  };
  for (const auto& c : kDomains) {
    SCOPED_TRACE(c.domain);
    ScopedLogCapture capture("XmlParser", "%p %c %m%n");
    sendError(c.domain, 5, XML_ERR_WARNING, "boom\n", "f.xml", 7);
    EXPECT_EQ("INFO XmlParser f.xml:7: " + std::string(c.name) + ": boom\n", capture.text());
  }
}


TEST(XmlReviewHook, OnlyAnElementIsNamedAsTheNode) {
  XmlDocument doc = parseText("<top k=\"v\">txt<!--c--><inner/></top>");
  ASSERT_FALSE(doc.empty());
  xmlNode* top = doc.get_root().get();
  const struct {
    xmlNode* node;
    const char* want;
  } kCases[] = {
      {doc.get_root().find("inner").get(), "INFO f.xml:5: parser: node \"inner\": m\n"},
      {top->children, "INFO f.xml:5: parser: m\n"},                   // a text node
      {top->children->next, "INFO f.xml:5: parser: m\n"},             // a comment
      {reinterpret_cast<xmlNode*>(top->properties), "INFO f.xml:5: parser: m\n"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.want);
    ScopedLogCapture capture("XmlParser");
    sendError(1, 3, XML_ERR_ERROR, "m\n", "f.xml", 5, c.node);
    EXPECT_EQ(c.want, capture.text());
  }
}

// Parses on a thread of its own, after the set-up.
class ParsingThread : public Thread {
 public:
  ParsingThread() : Thread("xml parse") {}
  void main() override {
    const char text[] = "<a>\n<b></a>";
    XmlDocument doc(text, text + sizeof text - 1, "thread.xml", false, false);
    failed = doc.empty();
  }
  bool failed = false;
};

TEST(XmlReviewHook, LaterThreadsLogThroughTheHookToo) {
  xmlReady();
  ScopedLogCapture capture("XmlParser", "%p %c %m%n");
  ParsingThread t;
  t.go();
  t.join();
  EXPECT_TRUE(t.failed);
  EXPECT_EQ(DID_SETUP, xml_setup_state.load());  // only a thread before the set-up changes it
  const auto lines = capture.lines();
  ASSERT_FALSE(lines.empty());
  for (const auto& line : lines) {
    EXPECT_EQ(0u, line.find("INFO XmlParser thread.xml:2: parser: ")) << line;
  }
}

// Parses bad documents named after itself, many times over.
class NamedParsingThread : public Thread {
 public:
  explicit NamedParsingThread(int id) : Thread("xml parse %d", id), _name("t" + std::to_string(id)) {}
  void main() override {
    for (int i = 0; i < kRounds; ++i) {
      const std::string text = std::string(i % 5 + 1, '\n') + "<a><b></a>";
      XmlDocument doc(StrSegment(text.data(), text.size()), _name.c_str(), false, false);
      if (doc.empty() && doc.errorLine() == i % 5 + 2) ++failures;
    }
  }
  static constexpr int kRounds = 40;
  int failures = 0;

 private:
  std::string _name;
};

TEST(XmlReviewHook, ThreadsParsingAtOnceKeepTheirOwnErrors) {
  xmlReady();
  ScopedLogCapture capture("XmlParser", "%c|%m%n");
  std::vector<std::unique_ptr<NamedParsingThread>> threads;
  for (int id = 0; id < 4; ++id) threads.push_back(std::make_unique<NamedParsingThread>(id));
  for (auto& t : threads) t->go();
  for (auto& t : threads) t->join();
  std::map<std::string, int> perThread;
  for (const auto& line : capture.lines()) {
    ASSERT_EQ(0u, line.find("XmlParser|t")) << line;
    const size_t colon = line.find(':');
    ASSERT_NE(std::string::npos, colon) << line;
    ++perThread[line.substr(10, colon - 10)];
  }
  for (int id = 0; id < 4; ++id) {
    EXPECT_EQ(NamedParsingThread::kRounds, threads[id]->failures) << id;
    // Every thread parsed the same documents, so each reports as often, and
    // at least once per document.
    EXPECT_LE(NamedParsingThread::kRounds, perThread["t" + std::to_string(id)]) << id;
    EXPECT_EQ(perThread["t0"], perThread["t" + std::to_string(id)]) << id;
  }
}

// ---- Escaping ----

TEST(XmlReviewEscape, Utf8EscapeIsStrict) {
  // Overlong forms, surrogates, code points past U+10FFFF and cut sequences
  // are not characters: every byte of them is shown.
  const struct {
    std::string in, want;
  } kCases[] = {
      {"\xE0\x80\xAF", "\\xE0\\x80\\xAF"},
      {"\xF4\x90\x80\x80", "\\xF4\\x90\\x80\\x80"},
      {"\xF5\x80\x80\x80", "\\xF5\\x80\\x80\\x80"},
      {"\xF0\x9F\x98", "\\xF0\\x9F\\x98"},
      {"\xE2\x82<", "\\xE2\\x82&lt;"},
      {"\xF4\x8F\xBF\xBF", "\xF4\x8F\xBF\xBF"},  // the last code point
      {"\xEF\xBF\xBF\x7F", "\xEF\xBF\xBF\x7F"},
  };
  for (const auto& c : kCases) {
    Str out;
    XMLAndStringUtil::utf8XmlEscape(out, StrSegment(c.in.data(), c.in.size()));
    EXPECT_EQ(c.want, out) << printable(c.in);
  }
}

// ---- Building and serialising ----

// Random text set as an attribute, as element text and as CDATA comes back
// from a parse of the serialised document.
TEST(XmlReviewBuild, TextRoundTripsThroughSerialisation) {
  xmlReady();
  std::mt19937 rng(99);
  const std::string alphabet = "ab <>&\"'\t\n\r]]>-;#x\xC3";
  for (int i = 0; i < 300; ++i) {
    std::string text;
    for (char ch : randomText(rng, alphabet, 30)) {
      text += ch;
      if (ch == '\xC3') text += '\xA9';  // whole characters only
    }
    SCOPED_TRACE(printable(text));
    XmlDocument doc;
    XmlNode root = doc.addChild("r");
    root.setAttribute("v", text.c_str());
    root.addChild("t", text.c_str());
    root.addChild("c").setCdataContent(text);
    XmlContents out(doc);
    XmlDocument back = parseText(std::string(out.data(), out.size()));
    ASSERT_FALSE(back.empty()) << back.error();
    EXPECT_EQ(text, back.get_root().attribute("v").toStr("<none>"));
    EXPECT_EQ(text, back.get_root().find("t").toStr("<none>"));
    // Inside CDATA a line end can only be a line end: a parser reads "\r\n"
    // and a lone "\r" as "\n".
    std::string cdata = text;
    for (size_t p = 0; (p = cdata.find('\r', p)) != std::string::npos;) {
      if (p + 1 < cdata.size() && cdata[p + 1] == '\n') cdata.erase(p, 1);
      else cdata[p] = '\n';
    }
    EXPECT_EQ(cdata, back.get_root().find("c").toStr("<none>"));
  }
}

TEST(XmlReviewContents, StylesheetInstructionCountsAsADeclaration) {
  // Any text that starts "<?xml" is cut through its "?>", a processing
  // instruction such as xml-stylesheet included, by moving the start.
  xmlReady();
  XmlDocument doc;
  doc.addChild("r");
  doc.addStylesheetRef("s.xsl");
  xmlNode* pi = doc.get()->children;
  while (pi != nullptr && pi->type != XML_PI_NODE) pi = pi->next;
  ASSERT_NE(nullptr, pi);
  XmlContents text{XmlNode(pi)};
  const char* end = text.data() + text.size();
  ASSERT_EQ(0u, std::string(text.data(), text.size()).find("<?xml-stylesheet"));
  text.trimDeclarationInPlace();
  EXPECT_EQ(0u, text.size()) << std::string(text.data(), text.size());
  EXPECT_EQ(end, text.data());
}

}  // namespace
