// Status texts, reply constructors and cookie lines of the management port,
// checked against the exact bytes clients and log readers see.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "framework/HTTPReply.h"
#include "framework/HTTPServer.h"

namespace {

struct StatusCase {
  int code;
  const char* text;
};

const StatusCase kStatusTable[] = {
    {100, "Continue"},
    {101, "Switching Protocols"},
    {102, "Processing"},
    {200, "OK"},
    {201, "Created"},
    {202, "Accepted"},
    {203, "Non-Authoritative Information"},
    {204, "No Content"},
    {205, "Reset Content"},
    {206, "Partial Content"},
    {207, "Multi-Status"},
    {300, "Multiple Choices"},
    {301, "Moved Permanently"},
    {302, "Found"},
    {303, "See Other"},
    {304, "Not Modified"},
    {305, "Use Proxy"},
    {306, "Switch Proxy"},
    {307, "Temporary Redirect"},
    {400, "Bad Request"},
    {401, "Unauthorized"},
    {402, "Payment Required"},
    {403, "Forbidden"},
    {404, "Not Found"},
    {405, "Method Not Allowed"},
    {406, "Not Acceptable"},
    {407, "Proxy Authentication Required"},
    {408, "Request Timeout"},
    {409, "Conflict"},
    {410, "Gone"},
    {411, "Length Required"},
    {412, "Precondition Required"},
    {413, "Request Entity Too Large"},
    {414, "Request-URI Too Long"},
    {415, "Unsupported Media Type"},
    {416, "Requested Range Not Satisfiable"},
    {417, "Expectation Failed"},
    {422, "Unprocessable Entity"},
    {423, "Locked"},
    {424, "Failed Dependency"},
    {425, "Unordered Collection"},
    {426, "Upgrade Required"},
    {449, "Retry With"},
    {500, "Internal Server Error"},
    {501, "Not Implemented"},
    {502, "Bad Gateway"},
    {503, "Service Unavailable"},
    {504, "Gateway Timeout"},
    {505, "HTTP Version Not Supported"},
    {506, "Variant Also Negotiates"},
    {507, "Insufficient Storage"},
    {508, "Bandwidth Limit Exceeded"},
    {510, "Not Extended"},
};

TEST(HTTPReplyReview, EveryKnownCodeHasItsText) {
  for (const StatusCase& c : kStatusTable) {
    Str out;
    HTTPReply::getErrorString(c.code, out);
    EXPECT_EQ(std::to_string(c.code) + " " + c.text, out) << c.code;
    Str viaServer;
    HTTPServer::getErrorString(c.code, viaServer);
    EXPECT_EQ(out, viaServer) << c.code;
  }
}

TEST(HTTPReplyReview, CodesOutsideTheTableFallBackToLowerCaseBadRequest) {
  for (int code : {0, -1, 99, 103, 208, 226, 308, 418, 421, 428, 429, 431, 451, 509, 511, 599,
                   600, 999}) {
    Str out = "junk";
    HTTPReply::getErrorString(code, out);
    EXPECT_EQ("400 Bad request", out) << code;
  }
}

bool hasHeader(const HTTPReply& r, const std::string& line) {
  for (const Str& h : r._headers)
    if (h == line) return true;
  return false;
}

TEST(HTTPReplyReview, ConstructorStartsWithServerAndGmtDate) {
  HTTPReply r(200);
  ASSERT_GE(r._headers.size(), 2u);
  EXPECT_EQ("Server: Kestrod", r._headers[0]);
  const std::string date = r._headers[1];
  ASSERT_EQ(0u, date.rfind("Date: ", 0)) << date;
  // "%a, %d %b %Y %H:%M:%S GMT"
  const std::string v = date.substr(6);
  ASSERT_EQ(29u, v.size()) << v;
  EXPECT_EQ(", ", v.substr(3, 2));
  EXPECT_EQ(' ', v[7]);
  EXPECT_EQ(' ', v[11]);
  EXPECT_EQ(' ', v[16]);
  EXPECT_EQ(':', v[19]);
  EXPECT_EQ(':', v[22]);
  EXPECT_EQ(" GMT", v.substr(25));
  EXPECT_TRUE(r._sendReply);
  EXPECT_FALSE(r._handledResponseItself);
}

TEST(HTTPReplyReview, CreateReplyOrdersHeadersAndDropsMalformedExtras) {
  const StrVector extras = {"X-One: 1", "", "NoColonSpace", "X-Two:2", "X-Three: a: b"};
  std::unique_ptr<HTTPReply> r(HTTPReply::createReply(201, "application/json", "{}", extras));
  EXPECT_EQ(201, r->_status);
  EXPECT_EQ("201 Created", r->_statusText);
  EXPECT_EQ("{}", r->getBody());
  ASSERT_EQ(7u, r->_headers.size());
  EXPECT_EQ("Server: Kestrod", r->_headers[0]);
  EXPECT_EQ("Content-Length: 2", r->_headers[2]);
  EXPECT_EQ("Content-Type: application/json; charset=utf-8", r->_headers[3]);
  EXPECT_EQ("X-One: 1", r->_headers[4]);
  EXPECT_EQ("X-Three: a: b", r->_headers[5]);
  EXPECT_EQ("Connection: close", r->_headers[6]);
}

TEST(HTTPReplyReview, CreateReplyUnknownCodeKeepsCodeButFallbackText) {
  std::unique_ptr<HTTPReply> r(HTTPReply::createReply(299, "text/plain", "", {}));
  EXPECT_EQ(299, r->_status);
  EXPECT_EQ("400 Bad request", r->_statusText);
  EXPECT_TRUE(hasHeader(*r, "Content-Length: 0"));
}

TEST(HTTPReplyReview, ErrorTextReplyCarriesStatusTextAsPlainBody) {
  const struct {
    int code;
    const char* text;
  } cases[] = {{400, "400 Bad Request"}, {501, "501 Not Implemented"},
               {414, "414 Request-URI Too Long"}, {777, "400 Bad request"}};
  for (const auto& c : cases) {
    std::unique_ptr<HTTPReply> r(HTTPReply::createErrorTextReply(c.code));
    EXPECT_EQ(c.text, r->getBody()) << c.code;
    EXPECT_EQ(c.text, r->_statusText) << c.code;
    EXPECT_TRUE(hasHeader(*r, "Content-Type: text/plain; charset=utf-8")) << c.code;
    EXPECT_TRUE(hasHeader(*r, "Content-Length: " + std::to_string(strlen(c.text)))) << c.code;
    EXPECT_EQ("Connection: close", r->_headers.back()) << c.code;
  }
}

TEST(HTTPReplyReview, ErrorXmlReplyDoesNotEscapeTheMessage) {
  std::unique_ptr<HTTPReply> r(HTTPReply::createErrorXMLReply(403, "a<b>&\"c\"", "WARN"));
  EXPECT_EQ(403, r->_status);
  EXPECT_EQ("403 Forbidden", r->_statusText);
  EXPECT_EQ(
      "<response>\n<messages>\n<msg type=\"WARN\">a<b>&\"c\"</msg>\n</messages>\n</response>",
      r->getBody());
  EXPECT_TRUE(hasHeader(*r, "Content-Type: text/xml; charset=utf-8"));
}

TEST(HTTPReplyReview, NotFoundReplyIsHtml) {
  std::unique_ptr<HTTPReply> r(HTTPReply::createNotFoundErrorReply());
  EXPECT_EQ(404, r->_status);
  EXPECT_EQ("404 Not Found", r->_statusText);
  EXPECT_EQ("<html><body>404 - not found</body></html>", r->getBody());
  EXPECT_TRUE(hasHeader(*r, "Content-Type: text/html; charset=utf-8"));
  EXPECT_TRUE(hasHeader(*r, "Content-Length: 41"));
}

TEST(HTTPReplyReview, SetBodyAddsContentLengthWithByteCount) {
  HTTPReply r(200);
  const size_t before = r._headers.size();
  r.setBody(Str("a\0b\xc3\xa9", 5));
  EXPECT_EQ(5u, r.getBody().size());
  ASSERT_EQ(before + 1, r._headers.size());
  EXPECT_EQ("Content-Length: 5", r._headers.back());
  r.setUserWhoLoggedIn("admin");
  EXPECT_EQ("admin", r.getUserWhoLoggedIn());
}

TEST(HTTPReplyReview, CookieLines) {
  const struct {
    const char* name;
    const char* value;
    const char* path;
    const char* domain;
    const char* comment;
    int maxAge;
    bool forClient;
    const char* want;
  } cases[] = {
      {"sid", "abc", "", "", "", -1, false, "Set-Cookie: sid=\"abc\"; Version=1"},
      {"sid", "abc", "/", "", "", -1, false, "Set-Cookie: sid=\"abc\"; Version=1; Path=\"/\""},
      {"sid", "abc", "/p", "h.example", "c", 30, false,
       "Set-Cookie: sid=\"abc\"; Version=1; Path=\"/p\"; Domain=\"h.example\"; "
       "Comment=\"c\"; Max-Age=30"},
      {"sid", "abc", "", "", "", 0, false, "Set-Cookie: sid=\"abc\"; Version=1; Max-Age=0"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(c.want, HTTPReply::createCookies(c.name, c.value, c.path, c.domain, c.comment,
                                               c.maxAge, c.forClient));
  }
  const Str client = HTTPReply::createCookies("sid", "abc", "/p", "h", "", -1, true);
  EXPECT_EQ(0u, client.rfind("Cookie: $Version=\"1\"; ", 0)) << client;
  EXPECT_NE(std::string::npos, client.find("sid=\"abc\"")) << client;
  EXPECT_NE(std::string::npos, client.find("; $Path=\"/p\"")) << client;
  EXPECT_NE(std::string::npos, client.find("; $Domain=\"h\"")) << client;
}

}  // namespace
