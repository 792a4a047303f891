#include "framework/HTTPReply.h"

#include <gtest/gtest.h>

#include "framework/HTTPRequest.h"
#include "framework/HTTPServer.h"

namespace {

bool hasHeader(const HTTPReply& r, const char* line) {
  for (const Str& h : r._headers) {
    if (h == line) return true;
  }
  return false;
}

TEST(HTTPReply, StatusTextsAsTheServerSpellsThem) {
  const struct {
    int code;
    const char* text;
  } kCases[] = {
      {200, "200 OK"},
      {404, "404 Not Found"},
      {412, "412 Precondition Required"},  // kept as the server has always said it
      {413, "413 Request Entity Too Large"},
      {414, "414 Request-URI Too Long"},
      {449, "449 Retry With"},
      {501, "501 Not Implemented"},
      {510, "510 Not Extended"},
      {418, "400 Bad request"},  // unknown codes fall back, in lower case
      {0, "400 Bad request"},
      {-1, "400 Bad request"},
  };
  for (const auto& c : kCases) {
    Str out;
    EXPECT_EQ(c.text, HTTPReply::getErrorString(c.code, out)) << c.code;
  }
}

TEST(HTTPReply, CreateReplyOrdersHeadersAndDropsBadExtras) {
  std::unique_ptr<HTTPReply> r(HTTPReply::createReply(
      201, Str("application/json"), Str("{}"),
      StrVector{Str("X-A: 1"), Str(""), Str("NoColon"), Str("X-B:2"), Str("X-C: 3")}));
  ASSERT_EQ(7u, r->_headers.size());
  EXPECT_EQ("Server: Kestrod", r->_headers[0]);
  EXPECT_EQ(0u, r->_headers[1].rfind("Date: ", 0));
  EXPECT_EQ(" GMT", r->_headers[1].substr(r->_headers[1].size() - 4));
  EXPECT_EQ("Content-Length: 2", r->_headers[2]);
  EXPECT_EQ("Content-Type: application/json; charset=utf-8", r->_headers[3]);
  EXPECT_EQ("X-A: 1", r->_headers[4]);
  EXPECT_EQ("X-C: 3", r->_headers[5]);
  EXPECT_EQ("Connection: close", r->_headers[6]);
  EXPECT_EQ("201 Created", r->_statusText);
  EXPECT_TRUE(r->_sendReply);
}

TEST(HTTPReply, CannedReplies) {
  std::unique_ptr<HTTPReply> nf(HTTPReply::createNotFoundErrorReply());
  EXPECT_EQ("<html><body>404 - not found</body></html>", nf->getBody());
  EXPECT_TRUE(hasHeader(*nf, "Content-Type: text/html; charset=utf-8"));
  std::unique_ptr<HTTPReply> xml(HTTPReply::createErrorXMLReply(409, Str("a<b"), Str("ERROR")));
  EXPECT_EQ(
      "<response>\n<messages>\n<msg type=\"ERROR\">a<b</msg>\n</messages>\n</response>",
      xml->getBody());
  std::unique_ptr<HTTPReply> text(HTTPReply::createErrorTextReply(501));
  EXPECT_EQ("501 Not Implemented", text->getBody());
  std::unique_ptr<HTTPReply> none(HTTPReply::createReplyNoData());
  EXPECT_FALSE(none->_sendReply);
}

TEST(HTTPReply, Cookies) {
  EXPECT_EQ("Set-Cookie: s=\"v\"; Version=1; Path=\"/\"; Max-Age=60",
            HTTPReply::createCookies(Str("s"), Str("v"), Str("/"), Str(), Str(), 60, false));
  EXPECT_EQ("Set-Cookie: s=\"v\"; Version=1; Domain=\"d\"; Comment=\"c\"",
            HTTPReply::createCookies(Str("s"), Str("v"), Str(), Str("d"), Str("c"), -1, false));
  Str client = HTTPReply::createCookies(Str("s"), Str("v"), Str("/p"), Str("d"), Str(), -1, true);
  EXPECT_EQ("Cookie: $Version=\"1\"; s=\"v\"; $Path=\"/p\"; $Domain=\"d\"", client);
  // Round trip: what a client sends is what getCookies reads back.
  HTTPRequest req(HttpRequestText{Str("GET / HTTP/1.1"), StrVector{client}, {}, {}}, nullptr,
                  false);
  std::map<Str, Str> jar;
  req.getCookies(jar);
  ASSERT_EQ(1u, jar.size());
  EXPECT_EQ("v", jar[Str("s")]);
}

TEST(HTTPRequest, AcceptEncodingDecidesCompression) {
  const struct {
    const char* header;
    bool gzip;
  } kCases[] = {
      {"Accept-Encoding: gzip", true},
      {"accept-encoding: deflate, GZIP", true},
      {"Accept-Encoding: *", true},
      {"Accept-Encoding: gzip;q=0", false},
      {"Accept-Encoding: gzip ; Q=0 ", false},
      {"Accept-Encoding: gzip;q=0.5", true},
      {"Accept-Encoding: deflate", false},
      {"Accept-Encoding: xgzip", false},
      {"X-Other: gzip", false},
  };
  for (const auto& c : kCases) {
    HTTPRequest req(HttpRequestText{Str("GET / HTTP/1.1"), StrVector{Str(c.header)}, {}, {}},
                    nullptr, true);
    EXPECT_EQ(c.gzip, req.clientAcceptsGzip()) << c.header;
  }
}

TEST(HTTPRequest, HostHeaderAndComponents) {
  HTTPRequest req(HttpRequestText{Str("GET  /x   HTTP/1.1"),
                                  StrVector{Str("Accept: */*"), Str("hOsT:   a.b:8089"),
                                            Str("Host: second")},
                                  {}, {}},
                  nullptr, false);
  EXPECT_EQ("a.b:8089", req.getHost());
  StrVector words;
  req.getMethodComponents(words);
  EXPECT_EQ((StrVector{Str("GET"), Str("/x"), Str("HTTP/1.1")}), words);
  Str name, value;
  EXPECT_TRUE(HTTPRequest::getHeaderComponents(Str("A: b: c  "), name, value));
  EXPECT_EQ("A", name);
  EXPECT_EQ("b: c", value);
  EXPECT_FALSE(HTTPRequest::getHeaderComponents(Str("none"), name, value));
}

TEST(HTTPRequest, ParamsDecodeAndGatherAndSkipBadUtf8) {
  Str path;
  std::map<Str, StrVector> params;
  HTTPRequest::parseGetParams(Str("/s/q?a=1&b=x%20y&a=%C3%A9&bad=%FF&c"), path, params);
  EXPECT_EQ("/s/q", path);
  EXPECT_EQ((StrVector{Str("1"), Str("\xC3\xA9")}), params[Str("a")]);
  EXPECT_EQ((StrVector{Str("x y")}), params[Str("b")]);
  EXPECT_EQ(0u, params.count(Str("bad")));
  EXPECT_EQ((StrVector{Str("")}), params[Str("c")]);
  params.clear();
  HTTPRequest::parseGetParams(Str("/plain"), path, params);
  EXPECT_EQ("/plain", path);
  EXPECT_TRUE(params.empty());
}

TEST(HTTPServer, UrlBaseAndMethodChecks) {
  const struct {
    const char* line;
    bool ok;
    const char* base;
  } kCases[] = {
      {"GET /services/x?y=1 HTTP/1.1", true, "/services"},
      {"GET /services?y=1 HTTP/1.1", true, "/services"},
      {"GET / HTTP/1.1", true, "/"},
      {"OPTIONS * HTTP/1.1", true, "*"},
      {"GET //a HTTP/1.1", true, "/"},
      {"GET", false, ""},
      {"", false, ""},
  };
  for (const auto& c : kCases) {
    Str base;
    EXPECT_EQ(c.ok, HTTPServer::getUrlBase(Str(c.line), base)) << c.line;
    if (c.ok) {
      EXPECT_EQ(c.base, base) << c.line;
    }
  }
  for (const char* m : {"GET", "POST", "DELETE", "PUT"}) EXPECT_EQ(0, HTTPServer::validateMethod(Str(m)));
  for (const char* m : {"HEAD", "CONNECT", "TRACE", "OPTIONS"}) {
    EXPECT_EQ(501, HTTPServer::validateMethod(Str(m)));
  }
  for (const char* m : {"get", "PATCH", "", "GETX"}) EXPECT_EQ(400, HTTPServer::validateMethod(Str(m)));
}

}  // namespace
