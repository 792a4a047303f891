// The request reader's states, limits and failure texts, and the parsing
// helpers of a request, driven without sockets.
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "framework/HTTPRequest.h"
#include "framework/HTTPServer.h"
#include "framework/HttpRequestReader.h"
#include "framework/InputStreamConduit.h"
#include "util/testing/LogCapture.h"

namespace {

constexpr int64_t kMaxContent = 1000;

// Feeds `text` as the event thread would: again and again until consumed
// or -1. Returns the last result.
ssize_t feedAll(FdData& d, const std::string& text, int64_t maxContent = kMaxContent) {
  size_t off = 0;
  ssize_t rv = 0;
  while (off < text.size()) {
    rv = feedRequestBytes(d, text.data() + off, text.size() - off, maxContent, "10.1.2.3");
    if (rv <= 0) return rv;
    off += static_cast<size_t>(rv);
  }
  return rv;
}

TEST(HttpRequestReaderReview, LineEndingsAndStates) {
  const struct {
    std::string text;
    FdData::State state;
    const char* method;
    std::vector<std::string> headers;
    const char* body;
  } cases[] = {
      {"GET /a HTTP/1.1\r\nHost: h\r\n\r\n", FdData::COMPLETE, "GET /a HTTP/1.1", {"Host: h"}, ""},
      {"GET /a HTTP/1.1\nHost: h\n\n", FdData::COMPLETE, "GET /a HTTP/1.1", {"Host: h"}, ""},
      {"GET /a HTTP/1.1\r\nA: 1\nB: 2\r\n\n", FdData::COMPLETE, "GET /a HTTP/1.1",
       {"A: 1", "B: 2"}, ""},
      {"GET /a\rb HTTP/1.1\r\nX: a\rb\r\n\r\n", FdData::COMPLETE, "GET /ab HTTP/1.1", {"X: ab"},
       ""},
      {"POST /a HTTP/1.1\r\nContent-Length: 3\r\n\r\nabc", FdData::COMPLETE, "POST /a HTTP/1.1",
       {"Content-Length: 3"}, "abc"},
      {"POST /a HTTP/1.1\r\nContent-Length: -5\r\n\r\n", FdData::COMPLETE, "POST /a HTTP/1.1",
       {"Content-Length: -5"}, ""},
      {"POST /a HTTP/1.1\r\nContent-Length: 4\r\n\r\nab", FdData::READING_BODY,
       "POST /a HTTP/1.1", {"Content-Length: 4"}, "ab"},
      {"GET /a HTTP/1.1\r\nHost", FdData::READING_HEADERS, "GET /a HTTP/1.1", {}, ""},
      {"GET /a HT", FdData::READING_METHOD, "GET /a HT", {}, ""},
      {"POST /s HTTP/1.1\r\nX-Kestro-Input-Mode: STREAMING\r\n\r\n", FdData::STREAMING,
       "POST /s HTTP/1.1", {"X-Kestro-Input-Mode: STREAMING"}, ""},
      // Only the exact line switches to streaming.
      {"POST /s HTTP/1.1\r\nX-Kestro-Input-Mode:streaming\r\n\r\n", FdData::COMPLETE,
       "POST /s HTTP/1.1", {"X-Kestro-Input-Mode:streaming"}, ""},
      {"POST /s HTTP/1.1\r\nX-Kestro-Input-Mode: streaming \r\n\r\n", FdData::COMPLETE,
       "POST /s HTTP/1.1", {"X-Kestro-Input-Mode: streaming "}, ""},
      // A body announced with streaming is read first, then the stream starts.
      {"POST /s HTTP/1.1\r\nx-kestro-input-mode: streaming\r\nContent-Length: 2\r\n\r\nab",
       FdData::STREAMING, "POST /s HTTP/1.1",
       {"x-kestro-input-mode: streaming", "Content-Length: 2"}, "ab"},
      // A later zero does not cancel an earlier length.
      {"POST /a HTTP/1.1\r\nContent-Length: 5\r\nContent-Length: 0\r\n\r\nab",
       FdData::READING_BODY, "POST /a HTTP/1.1", {"Content-Length: 5", "Content-Length: 0"},
       "ab"},
      // An empty request line still moves on to the headers.
      {"\r\nHost: h\r\n\r\n", FdData::COMPLETE, "", {"Host: h"}, ""},
  };
  for (const auto& c : cases) {
    FdData d;
    feedAll(d, c.text);
    EXPECT_EQ(c.state, d.state) << c.text;
    EXPECT_EQ(c.method, d.request.methodLine) << c.text;
    ASSERT_EQ(c.headers.size(), d.request.headers.size()) << c.text;
    for (size_t i = 0; i < c.headers.size(); ++i)
      EXPECT_EQ(c.headers[i], d.request.headers[i]) << c.text;
    EXPECT_EQ(c.body, d.request.body) << c.text;
    EXPECT_EQ(0, d.errorStatus) << c.text;
  }
}

TEST(HttpRequestReaderReview, ByteAtATimeGivesTheSameRequest) {
  const std::string text = "POST /x?y=1 HTTP/1.1\r\nA: b\nContent-Length: 5\r\n\r\nhello";
  FdData d;
  for (size_t i = 0; i < text.size(); ++i) {
    ssize_t rv = feedRequestBytes(d, text.data() + i, 1, kMaxContent, "10.1.2.3");
    ASSERT_EQ(1, rv) << i;
  }
  EXPECT_EQ(FdData::COMPLETE, d.state);
  EXPECT_EQ("POST /x?y=1 HTTP/1.1", d.request.methodLine);
  EXPECT_EQ("hello", d.request.body);
  EXPECT_EQ(5, d.bodyLength);
}

TEST(HttpRequestReaderReview, CarriageReturnsCountTowardsTheRequestLineLimit) {
  FdData d;
  std::string text = "GET / HTTP/1.1" + std::string(1048576 - 14, '\r');
  feedAll(d, text);
  EXPECT_EQ(FdData::READING_METHOD, d.state);
  EXPECT_EQ("GET / HTTP/1.1", d.request.methodLine);
  feedAll(d, "\r");
  EXPECT_EQ(FdData::FAILED, d.state);
  EXPECT_EQ(414, d.errorStatus);
}

TEST(HttpRequestReaderReview, RequestLineAndHeadersHaveSeparateBudgets) {
  FdData d;
  std::string text = "GET /" + std::string(1000000, 'a') + " HTTP/1.1\r\n";
  text += "X-Big: " + std::string(1000000, 'b') + "\r\n\r\n";
  feedAll(d, text);
  EXPECT_EQ(FdData::COMPLETE, d.state);
  EXPECT_EQ(0, d.errorStatus);
  ASSERT_EQ(1u, d.request.headers.size());
  EXPECT_EQ(1000007u, d.request.headers[0].size());
}

TEST(HttpRequestReaderReview, HeaderBlockLimitIsExactlyOneMebibyte) {
  FdData d;
  feedAll(d, "GET / HTTP/1.1\r\n");
  std::string headers;
  const std::string line = "X-Pad: " + std::string(1000, 'p') + "\r\n";
  while (headers.size() + line.size() <= 1048576) headers += line;
  headers += std::string(1048576 - headers.size(), 'q');
  ASSERT_EQ(1048576u, headers.size());
  feedAll(d, headers);
  EXPECT_EQ(FdData::READING_HEADERS, d.state);
  EXPECT_EQ(0, d.errorStatus);
  feedAll(d, "q");
  EXPECT_EQ(FdData::FAILED, d.state);
  EXPECT_EQ(413, d.errorStatus);
}

TEST(HttpRequestReaderReview, HeaderBlockLimitCountsAllHeaders) {
  ScopedLogCapture log("HTTPServer");
  FdData d;
  std::string text = "GET / HTTP/1.1\r\n";
  // Many lines under the limit each, together over it.
  const std::string line = "X-Pad: " + std::string(1000, 'p') + "\r\n";
  while (text.size() < 1100000) text += line;
  feedAll(d, text);
  EXPECT_EQ(FdData::FAILED, d.state);
  EXPECT_EQ(413, d.errorStatus);
  EXPECT_EQ("exceeded max_header_size", d.errorText);
  EXPECT_NE(std::string::npos, log.text().find("header_size=1048577, max_header_size=1048576"))
      << log.text().substr(0, 300);
}

TEST(HttpRequestReaderReview, ContentLengthAboveLimitIs413AndLogged) {
  ScopedLogCapture log("HTTPServer");
  FdData d;
  feedAll(d, "PUT /big HTTP/1.1\r\nContent-Length: 1001\r\n\r\n", 1000);
  EXPECT_EQ(FdData::FAILED, d.state);
  EXPECT_EQ(413, d.errorStatus);
  EXPECT_EQ("content exceeded max_content_length", d.errorText);
  EXPECT_NE(std::string::npos,
            log.text().find("client_ip=10.1.2.3 sent request for method=\"PUT /big HTTP/1.1\" "
                            "with content_length=1001 greater than max_content_length=1000"))
      << log.text();
  FdData ok;
  feedAll(ok, "PUT /big HTTP/1.1\r\nContent-Length: 1000\r\n\r\n", 1000);
  EXPECT_EQ(FdData::READING_BODY, ok.state);
  EXPECT_EQ(1000, ok.bodyLength);
}

TEST(HttpRequestReaderReview, GetContentLengthTable) {
  const struct {
    const char* line;
    int64_t want;
  } cases[] = {
      {"Content-Length: 12", 12},
      {"content-length:12", 12},
      {"CONTENT-LENGTH:    7", 7},
      {"Content-Length: -5", 0},
      {"Content-Length: abc", 0},
      {"Content-Length: 12abc", 12},
      {"Content-Length:", 0},
      {"Host: h", 0},
      {"X-Content-Length: 7", 7},
      {"Content-Length 9", 9},  // one byte is skipped, colon or not
      {"Content-Length:: 9", 0},
      {"Content-Length: 0", 0},
      {"Content-Length: +4", 4},
      {"Content-Length: 99999999999999999999", 9223372036854775807LL},
      {"X-Note: content-length=5", 5},
  };
  for (const auto& c : cases) EXPECT_EQ(c.want, getContentLength(c.line)) << c.line;
}

TEST(HttpRequestReaderReview, ValidateMethodTable) {
  const struct {
    const char* method;
    int want;
  } cases[] = {
      {"GET", 0},     {"POST", 0},     {"DELETE", 0},  {"PUT", 0},   {"HEAD", 501},
      {"CONNECT", 501}, {"TRACE", 501}, {"OPTIONS", 501}, {"get", 400}, {"PATCH", 400},
      {"", 400},      {"GETX", 400},   {"Head", 400},
  };
  for (const auto& c : cases) EXPECT_EQ(c.want, HTTPServer::validateMethod(c.method)) << c.method;
}

TEST(HttpRequestReaderReview, UrlBaseTable) {
  const struct {
    const char* line;
    bool ok;
    const char* base;
  } cases[] = {
      {"GET /services/x?y=1 HTTP/1.1", true, "/services"},
      {"GET /services?y=1 HTTP/1.1", true, "/services"},
      {"GET /services HTTP/1.1", true, "/services"},
      {"GET / HTTP/1.1", true, "/"},
      {"OPTIONS * HTTP/1.1", true, "*"},
      {"GET ?a=1 HTTP/1.1", true, "?a=1"},
      {"GET /a/b/c", true, "/a"},
      {"GET\t/x/y HTTP/1.1", true, "/x"},
      {"GET", false, ""},
      {"", false, ""},
  };
  for (const auto& c : cases) {
    Str out;
    EXPECT_EQ(c.ok, HTTPServer::getUrlBase(c.line, out)) << c.line;
    if (c.ok) {
      EXPECT_EQ(c.base, out) << c.line;
    }
  }
}

HTTPRequest makeRequest(const std::string& method, const std::vector<std::string>& headers) {
  HttpRequestText t;
  t.methodLine = method;
  for (const auto& h : headers) t.headers.push_back(h);
  return HTTPRequest(std::move(t), nullptr, true);
}

TEST(HttpRequestReaderReview, HeaderComponentsAndHost) {
  Str name, value;
  EXPECT_TRUE(HTTPRequest::getHeaderComponents("Host:  a:80  ", name, value));
  EXPECT_EQ("Host", name);
  EXPECT_EQ("a:80", value);
  EXPECT_FALSE(HTTPRequest::getHeaderComponents("NoColon", name, value));

  EXPECT_EQ("h1:8089", makeRequest("GET / HTTP/1.1", {"X: y", "hOsT:   h1:8089", "Host: h2"})
                           .getHost());
  EXPECT_EQ("", makeRequest("GET / HTTP/1.1", {"X-Host: h"}).getHost());
  EXPECT_EQ("", makeRequest("GET / HTTP/1.1", {"Hostname: h", "Host : h"}).getHost());
  // The pattern takes the rest of the line as it is.
  EXPECT_EQ("h  ", makeRequest("GET / HTTP/1.1", {"Host:h  "}).getHost());
  EXPECT_EQ("", makeRequest("GET / HTTP/1.1", {}).getHost());
}

TEST(HttpRequestReaderReview, MethodComponents) {
  StrVector out;
  makeRequest("GET  /a\tHTTP/1.1", {}).getMethodComponents(out);
  ASSERT_EQ(3u, out.size());
  EXPECT_EQ("GET", out[0]);
  EXPECT_EQ("/a", out[1]);
  EXPECT_EQ("HTTP/1.1", out[2]);
}

TEST(HttpRequestReaderReview, CookiesSkipAttributes) {
  std::map<Str, Str> out;
  makeRequest("GET / HTTP/1.1",
              {"Cookie: $Version=\"1\"; sid=\"abc\"; $Path=\"/\"; $Domain=\"h\"",
               "cookie: a=1;b=2; $version=1; $path=/x; $domain=d", "X-Cookie-Not: z=9"})
      .getCookies(out);
  EXPECT_EQ("abc", out["sid"]);
  EXPECT_EQ("1", out["a"]);
  EXPECT_EQ("2", out["b"]);
  for (const char* attr : {"$Version", "$Path", "$Domain", "$version", "$path", "$domain"})
    EXPECT_EQ(0u, out.count(attr)) << attr;
}

TEST(HttpRequestReaderReview, EncodedStringDecodesAndGathers) {
  ScopedLogCapture log("HTTPServer");
  std::map<Str, StrVector> out;
  HTTPRequest::parseEncodedString("a=1&b=x%20y&a=%32&c%3D=%C3%A9&bad=%FF&%FE=v&d=+", out);
  ASSERT_EQ(2u, out["a"].size());
  EXPECT_EQ("1", out["a"][0]);
  EXPECT_EQ("2", out["a"][1]);
  ASSERT_EQ(1u, out["b"].size());
  EXPECT_EQ("x y", out["b"][0]);
  ASSERT_EQ(1u, out["d"].size());
  EXPECT_EQ(" ", out["d"][0]);
  ASSERT_EQ(1u, out["c="].size());
  EXPECT_EQ("\xc3\xa9", out["c="][0]);
  EXPECT_EQ(0u, out.count("bad"));
  EXPECT_EQ(0u, out.count("\xfe"));
  const std::string text = log.text();
  EXPECT_NE(std::string::npos,
            text.find("Could not decode val '%FF' due to invalid UTF-8 encoding"))
      << text;
  EXPECT_NE(std::string::npos,
            text.find("Could not decode attribute '%FE' due to invalid UTF-8 encoding"))
      << text;
}

TEST(HttpRequestReaderReview, GetParamsSplitAtFirstQuestionMark) {
  ScopedLogCapture log("HTTPServer");
  Str path;
  std::map<Str, StrVector> out;
  HTTPRequest::parseGetParams("/a/b?x=1&y=2?z", path, out);
  EXPECT_EQ("/a/b", path);
  ASSERT_EQ(1u, out["x"].size());
  EXPECT_EQ("1", out["x"][0]);
  ASSERT_EQ(1u, out["y"].size());
  EXPECT_EQ("2?z", out["y"][0]);

  Str path2;
  std::map<Str, StrVector> none;
  HTTPRequest::parseGetParams("/plain", path2, none);
  EXPECT_EQ("/plain", path2);
  EXPECT_TRUE(none.empty());
  EXPECT_NE(std::string::npos, log.text().find("no params, just a straight url=/plain"))
      << log.text();
}

TEST(HttpRequestReaderReview, AcceptEncodingTable) {
  const struct {
    std::vector<std::string> headers;
    bool want;
  } cases[] = {
      {{"Accept-Encoding: gzip"}, true},
      {{"accept-encoding: GZIP"}, true},
      {{"Accept-Encoding: *"}, true},
      {{"Accept-Encoding: gzip;q=0"}, false},
      {{"Accept-Encoding: gzip ; Q=0 "}, false},
      {{"Accept-Encoding: gzip;q=0.5"}, true},
      {{"Accept-Encoding: deflate, gzip"}, true},
      {{"Accept-Encoding: deflate, br"}, false},
      {{"Accept-Encoding: identity"}, false},
      {{"Accept-Encoding: gzip;q=0, gzip"}, true},
      {{"Accept-Encoding: x-gzip"}, false},
      {{}, false},
      {{"X: gzip"}, false},
      {{"Accept-Encoding:gzip"}, true},
      {{"Accept-Encoding: gzip;q=0.0"}, true},  // only "q=0" itself refuses
      {{"Accept-Encoding: *;q=0"}, false},
      {{"Accept-Encoding: deflate", "ACCEPT-ENCODING: gzip"}, true},
      {{"Accept-Encoding: , ,gzip"}, true},
  };
  for (const auto& c : cases) {
    std::string label = c.headers.empty() ? "(none)" : c.headers[0];
    EXPECT_EQ(c.want, makeRequest("GET / HTTP/1.1", c.headers).clientAcceptsGzip()) << label;
  }
}

TEST(HttpRequestReaderReview, ConduitLogsItsEnds) {
  ScopedLogCapture log("HTTPServer");
  {
    InputStreamConduit conduit(nullptr, nullptr, 1000);
    EXPECT_EQ(1000, conduit.getWriteTimeoutMs());
    for (size_t i = 0; i < STREAM_QUEUE_CAPACITY; i++) ASSERT_TRUE(conduit.write("x", 1));
    EXPECT_FALSE(conduit.write("y", 1));
  }
  {
    InputStreamConduit conduit(nullptr, nullptr, 1000);
    Str piece;
    size_t count = 0;
    EXPECT_FALSE(conduit.read(piece, count));
  }
  {
    InputStreamConduit conduit(nullptr, nullptr, 1000);
    ASSERT_TRUE(conduit.write("ab", 2));
    conduit.sendDoneKey();
    EXPECT_TRUE(conduit.isDone());
    Str piece;
    size_t count = 0;
    ASSERT_TRUE(conduit.read(piece, count));
    EXPECT_EQ("ab", piece);
    EXPECT_FALSE(conduit.read(piece, count));
  }
  const std::string text = log.text();
  for (const char* want : {"Creating queue queue_-1 in InputStreamConduit",
                           "InputStreamConduit write timed out after 1 seconds.",
                           "Conduit timed out in read",
                           "Conduit timed out on read. count in queue=0",
                           "Aborted due to timeout - terminating", "Sending done key",
                           "Done key found - terminating"}) {
    EXPECT_NE(std::string::npos, text.find(want)) << want << "\n" << text;
  }
}

}  // namespace
