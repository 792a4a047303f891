#include "framework/HttpRequestReader.h"

#include <gtest/gtest.h>

namespace {

constexpr int64_t MAX_CONTENT = 1000;

// Feeds `text` in pieces of `step` bytes, as the event thread would.
FdData feed(const std::string& text, size_t step) {
  FdData d;
  size_t at = 0;
  while (at < text.size()) {
    size_t n = std::min(step, text.size() - at);
    while (n > 0) {
      ssize_t used = feedRequestBytes(d, text.data() + at, n, MAX_CONTENT, Str("127.0.0.1"));
      if (used < 0) return d;
      at += static_cast<size_t>(used);
      n -= static_cast<size_t>(used);
      if (d.state == FdData::COMPLETE || d.state == FdData::STREAMING) return d;
    }
  }
  return d;
}

TEST(HttpRequestReader, ReadsWholeRequestsInAnyPieces) {
  const struct {
    const char* text;
    FdData::State state;
    const char* method;
    size_t headers;
    const char* body;
  } kCases[] = {
      {"GET /a HTTP/1.1\r\nHost: x\r\n\r\n", FdData::COMPLETE, "GET /a HTTP/1.1", 1, ""},
      {"GET /a HTTP/1.1\nHost: x\n\n", FdData::COMPLETE, "GET /a HTTP/1.1", 1, ""},  // bare LF
      {"GET /a HTTP/1.1\r\nHost: x\n\r\n", FdData::COMPLETE, "GET /a HTTP/1.1", 1, ""},
      {"POST /p HTTP/1.1\r\nContent-Length: 5\r\n\r\nhelloEXTRA", FdData::COMPLETE,
       "POST /p HTTP/1.1", 1, "hello"},
      {"POST /p HTTP/1.1\r\nContent-Length: -5\r\n\r\n", FdData::COMPLETE, "POST /p HTTP/1.1",
       1, ""},  // negative is no body
      {"POST /p HTTP/1.1\r\nX-Kestro-Input-Mode: streaming\r\n\r\n", FdData::STREAMING,
       "POST /p HTTP/1.1", 1, ""},
      {"POST /p HTTP/1.1\r\ncontent-length: 3\r\nX-Kestro-Input-Mode: streaming\r\n\r\nabc",
       FdData::STREAMING, "POST /p HTTP/1.1", 2, "abc"},
      {"GET /a HTTP/1.1\r\nHost: x\r\n", FdData::READING_HEADERS, "GET /a HTTP/1.1", 1, ""},
      {"GET /a HT", FdData::READING_METHOD, "", 0, ""},
      {"GE\rT\r\n\r\n", FdData::COMPLETE, "GET", 0, ""},  // carriage returns dropped
  };
  for (const auto& c : kCases) {
    for (size_t step : {1, 3, 4096}) {
      SCOPED_TRACE(testing::Message() << c.text << " step " << step);
      FdData d = feed(c.text, step);
      EXPECT_EQ(c.state, d.state);
      if (d.state != FdData::READING_METHOD) {
        EXPECT_EQ(c.method, d.request.methodLine);
      }
      EXPECT_EQ(c.headers, d.request.headers.size());
      EXPECT_EQ(c.body, d.request.body);
      EXPECT_EQ(0, d.errorStatus);
    }
  }
}

TEST(HttpRequestReader, RequestLineLimitIsOneMebibyte) {
  // 1048576 bytes with the line feed pass; one more byte fails with 414.
  std::string ok = "GET /" + std::string(MAX_METHOD_SIZE - 6, 'a') + "\n\n";
  FdData d = feed(ok, 65536);
  EXPECT_EQ(FdData::COMPLETE, d.state);
  std::string over = "GET /" + std::string(MAX_METHOD_SIZE - 4, 'a') + "\n\n";
  d = feed(over, 65536);
  EXPECT_EQ(FdData::FAILED, d.state);
  EXPECT_EQ(414, d.errorStatus);
  EXPECT_EQ("exceeded max_method_size", d.errorText);
}

TEST(HttpRequestReader, HeaderLimitCountsAllHeaderBytes) {
  std::string headers;
  while (headers.size() <= static_cast<size_t>(MAX_HEADER_SIZE)) {
    headers += "X-Filler: " + std::string(1000, 'b') + "\r\n";
  }
  FdData d = feed("GET / HTTP/1.1\r\n" + headers + "\r\n", 8192);
  EXPECT_EQ(FdData::FAILED, d.state);
  EXPECT_EQ(413, d.errorStatus);
  EXPECT_EQ("exceeded max_header_size", d.errorText);
  // Once failed, further bytes are swallowed and change nothing.
  EXPECT_EQ(5, feedRequestBytes(d, "abcde", 5, MAX_CONTENT, Str("ip")));
  EXPECT_EQ(FdData::FAILED, d.state);
}

TEST(HttpRequestReader, ContentLengthAboveTheLimitFails) {
  FdData d = feed("POST / HTTP/1.1\r\nContent-Length: 1001\r\n\r\n", 7);
  EXPECT_EQ(FdData::FAILED, d.state);
  EXPECT_EQ(413, d.errorStatus);
  EXPECT_EQ("content exceeded max_content_length", d.errorText);
  d = feed("POST / HTTP/1.1\r\nContent-Length: 1000\r\n\r\n" + std::string(1000, 'z'), 7);
  EXPECT_EQ(FdData::COMPLETE, d.state);
  EXPECT_EQ(1000u, d.request.body.size());
}

TEST(HttpRequestReader, BytesAfterACompleteRequestCloseTheConnection) {
  FdData d = feed("GET / HTTP/1.1\r\n\r\n", 100);
  ASSERT_EQ(FdData::COMPLETE, d.state);
  EXPECT_EQ(-1, feedRequestBytes(d, "GET", 3, MAX_CONTENT, Str("ip")));
}

TEST(HttpRequestReader, ContentLengthIsReadOnePastTheWord) {
  const struct {
    const char* line;
    int64_t want;
  } kCases[] = {
      {"Content-Length: 12", 12},
      {"content-length:7", 7},
      {"CONTENT-LENGTH:   42abc", 42},
      {"Content-Length: -5", 0},
      {"Content-Length: x", 0},
      {"X-Content-Length: 9", 9},  // the header's place is not checked
      {"Content-Length", 0},
      {"Host: content-length", 0},
  };
  for (const auto& c : kCases) {
    EXPECT_EQ(c.want, getContentLength(Str(c.line))) << c.line;
  }
}

}  // namespace
