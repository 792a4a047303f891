#include "framework/HTTPScriptHandler.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "framework/testing/RestTree.h"
#include "util/Base64.h"
#include "util/testing/LogCapture.h"
#include "util/testing/XmlTestInit.h"

namespace {

const char* const kRestmap =
    "[script:echo]\nmatch = /echo\nscript = echo.py\nscripttype = python\n"
    "requireAuthentication = false\n"
    "[script:binary]\nmatch = /binary\nscript = binary.sh\nrequireAuthentication = false\n"
    "[script:fails]\nmatch = /fails\nscript = fails.sh\nrequireAuthentication = false\n"
    "[script:garbage]\nmatch = /garbage\nscript = garbage.sh\nrequireAuthentication = false\n"
    "[script:slow]\nmatch = /slow\nscript = slow.sh\nrequireAuthentication = false\n"
    "[script:missing]\nmatch = /missing\nscript = nowhere.sh\nrequireAuthentication = false\n"
    "[script:empty]\nmatch = /empty\nrequireAuthentication = false\n"
    "[script:authed]\nmatch = /authed\nscript = echo.py\nscripttype = python\n";

// Parses the request document with Python's own XML parser and answers
// with what it found, so both directions are checked by an outside reader.
const char* const kEcho = R"(import sys, xml.etree.ElementTree as ET
r = ET.fromstring(sys.stdin.read())
form = ",".join(a.get("name") + "=" + a.text for a in r.find("form"))
query = ",".join(a.get("name") + "=" + a.text for a in r.find("query"))
keys = ",".join(sorted(k.get("name") for k in r.find("restmap").findall("key")))
hdr = ",".join(h.get("name") for h in r.find("headers"))
text = "|".join([r.find("connectionData/ip").text, r.find("user/name").text,
                 r.find("restmap/name").text, r.find("path").text, r.find("method").text,
                 form, query, keys, hdr, r.find("payload").text or ""])
out = ET.Element("response")
ET.SubElement(out, "statusCode").text = "201"
h = ET.SubElement(out, "headers")
ET.SubElement(h, "header", name="Content-Type").text = "text/plain"
ET.SubElement(h, "key", name="X-Echo").text = "yes"
ET.SubElement(out, "payload").text = text
sys.stdout.write(ET.tostring(out).decode())
)";

class ScriptTree : public RestTree {
 public:
  ScriptTree() : RestTree("") {
    tree.put("apps/search/default/restmap.conf", kRestmap);
    script("echo.py", kEcho);
    script("binary.sh",
           "#!/bin/sh\ncat >/dev/null\nprintf '<response><encodedpayload>%s</encodedpayload>"
           "</response>' \"$(printf 'a\\001<b>' | base64)\"\n");
    script("fails.sh", "#!/bin/sh\nexit 3\n");
    script("garbage.sh", "#!/bin/sh\necho 'not a document'\n");
    script("slow.sh", "#!/bin/sh\nexec sleep 30\n");
  }
  void script(const std::string& name, const std::string& text) {
    tree.put("apps/search/bin/" + name, text);
    chmod(std::string(tree.path("apps/search/bin/" + name)).c_str(), 0755);
  }
};

TEST(HTTPScriptHandler, RunsScriptsOfTheInstallTree) {
  ScriptTree t;
  auto d = t.dispatcher(false, "script");
  HTTPScriptHandler handler(t.tree.setup(), 2);
  ScopedLogCapture log("HTTPScriptHandler");
  ASSERT_TRUE(d->registerHandler("script", &handler));
  EXPECT_NE(std::string::npos,
            log.text().find("configuration error, empty does not have a 'script' or 'handler' "
                            "tag - skipping"));

  auto echo = RestTree::send(*d, "POST /servicesNS/admin/search/echo/x?q=2 HTTP/1.1",
                             {Str("Host: here"), Str("Authorization: Basic c2VjcmV0")}, "a=1&b=%3C");
  EXPECT_EQ(201, echo->_status);
  EXPECT_EQ(
      "127.0.0.1|admin|echo|/echo/x|POST|a=1,b=<|q=2|script:match,script:requireAuthentication,"
      "script:script,script:scripttype|Host|a=1&b=%3C",
      echo->getBody());
  EXPECT_TRUE(RestTree::hasHeader(*echo, "Content-Type: text/plain; charset=utf-8"));
  EXPECT_TRUE(RestTree::hasHeader(*echo, "X-Echo: yes"));
  EXPECT_TRUE(RestTree::hasHeader(*echo, "Connection: close"));

  auto binary = RestTree::send(*d, "GET /services/binary HTTP/1.1");
  EXPECT_EQ(200, binary->_status);
  EXPECT_EQ(Str("a\001<b>"), binary->getBody());

  const struct {
    const char* path;
    const char* message;
  } kFailures[] = {
      {"/fails", "script fails exited with status 3"},
      {"/garbage", "script garbage gave no reply document"},
      {"/slow", "script slow failed: "},  // killed at the 2 s limit
      {"/missing", "script missing failed: cannot run "},
  };
  for (const auto& c : kFailures) {
    auto reply = RestTree::send(*d, std::string("GET /services") + c.path + " HTTP/1.1");
    EXPECT_EQ(500, reply->_status) << c.path;
    EXPECT_NE(Str::npos, reply->getBody().find(c.message)) << c.path << reply->getBody();
  }
}

TEST(HTTPScriptHandler, UnknownNameAndOldSchoolAuthentication) {
  ScriptTree t;
  HTTPScriptHandler handler(t.tree.setup(), 2);
  std::map<Str, RestMapData*> none;
  handler.init(none, nullptr);
  HttpRequestText text;
  text.methodLine = "GET /services/echo HTTP/1.1";
  HTTPRequest request(text, nullptr, false);
  MRestHandlerArg arg(FdConnectionData(), &request);
  arg.setRestmapName("echo");
  ScopedLogCapture log("HTTPScriptHandler");
  std::unique_ptr<HTTPReply> reply(handler.handleRequest(arg));
  EXPECT_EQ(500, reply->_status);
  EXPECT_NE(Str::npos, reply->getBody().find("script echo not found in scriptMap - configuration error"));

  // Requests authenticated by password rather than session are served with
  // a warning.
  auto d = t.dispatcher(false, "script");
  d->registerHandler("script", &handler);
  const Str key = t.sessions.beginSession("admin");
  auto withSession = RestTree::send(*d, "GET /services/authed HTTP/1.1",
                                    {std::string("Authorization: Kestro ") + key});
  EXPECT_EQ(201, withSession->_status);
  EXPECT_EQ(std::string::npos, log.text().find("Old school"));
  auto withBasic = RestTree::send(
      *d, "GET /services/authed HTTP/1.1",
      {std::string("Authorization: Basic ") + Base64::encode(std::string("admin:") + RestTree::PASSWORD)});
  EXPECT_EQ(201, withBasic->_status);
  EXPECT_NE(std::string::npos, log.text().find("WARN Old school authentication not supported for scripts"));
}

}  // namespace
