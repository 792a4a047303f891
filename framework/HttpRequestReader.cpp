#include "framework/HttpRequestReader.h"

#include <cstdlib>

#include "util/Logger.h"

namespace {

Logger gLogger("HTTPServer");

constexpr char STREAMING_HEADER[] = "x-kestro-input-mode: streaming";

void fail(FdData& d, int status, const char* text) {
  d.state = FdData::FAILED;
  d.errorStatus = status;
  d.errorText = text;
}

// A header line is complete: store it and learn what it says about the body.
void takeHeader(FdData& d, int64_t maxContentLength, const Str& peerIp) {
  Str lower = d.currentHeader;
  lower.toLowercase();
  d.request.headers.push_back(d.currentHeader);
  if (lower == STREAMING_HEADER) {
    d.streamingInput = true;
    return;
  }
  int64_t len = getContentLength(d.currentHeader);
  if (len == 0) return;
  d.bodyLength = len;
  if (len > maxContentLength) {
    gLogger.error(
        "client_ip=%s sent request for method=\"%s\" with content_length=%lld greater than "
        "max_content_length=%lld",
        peerIp.c_str(), d.request.methodLine.c_str(), static_cast<long long>(len),
        static_cast<long long>(maxContentLength));
    fail(d, 413, "content exceeded max_content_length");
  }
}

void endOfRequest(FdData& d) {
  d.state = d.streamingInput ? FdData::STREAMING : FdData::COMPLETE;
}

}  // namespace

int64_t getContentLength(const Str& line) {
  Str lower = line;
  lower.toLowercase();
  static constexpr char WORD[] = "content-length";
  size_t at = lower.find(WORD);
  if (at == Str::npos) return 0;
  size_t valueAt = at + sizeof(WORD);  // one past the word: over the colon
  if (valueAt > line.size()) return 0;
  long v = strtol(line.c_str() + valueAt, nullptr, 10);
  return v < 0 ? 0 : v;
}

ssize_t feedRequestBytes(FdData& d, const char* data, size_t n, int64_t maxContentLength,
                         const Str& peerIp) {
  size_t i = 0;
  switch (d.state) {
    case FdData::READING_METHOD:
      for (; i < n; i++) {
        char c = data[i];
        if (++d.sectionSize > MAX_METHOD_SIZE) {
          gLogger.error("method_size=%lld, max_method_size=%lld",
                        static_cast<long long>(d.sectionSize),
                        static_cast<long long>(MAX_METHOD_SIZE));
          fail(d, 414, "exceeded max_method_size");
          return static_cast<ssize_t>(n);
        }
        if (c == '\n') {
          d.state = FdData::READING_HEADERS;
          d.sectionSize = 0;
          return static_cast<ssize_t>(i + 1);
        }
        if (c != '\r') d.request.methodLine.push_back(c);
      }
      return static_cast<ssize_t>(n);
    case FdData::READING_HEADERS:
      for (; i < n; i++) {
        char c = data[i];
        if (++d.sectionSize > MAX_HEADER_SIZE) {
          gLogger.error("header_size=%lld, max_header_size=%lld",
                        static_cast<long long>(d.sectionSize),
                        static_cast<long long>(MAX_HEADER_SIZE));
          fail(d, 413, "exceeded max_header_size");
          return static_cast<ssize_t>(n);
        }
        if (c == '\r') continue;
        if (c != '\n') {
          d.currentHeader.push_back(c);
          continue;
        }
        if (d.currentHeader.empty()) {
          if (d.bodyLength > 0) {
            d.state = FdData::READING_BODY;
          } else {
            endOfRequest(d);
          }
          return static_cast<ssize_t>(i + 1);
        }
        takeHeader(d, maxContentLength, peerIp);
        d.currentHeader.clear();
        if (d.state == FdData::FAILED) return static_cast<ssize_t>(n);
      }
      return static_cast<ssize_t>(n);
    case FdData::READING_BODY: {
      int64_t want = d.bodyLength - d.bodyRead;
      size_t take = static_cast<int64_t>(n) < want ? n : static_cast<size_t>(want);
      d.request.body.append(data, take);
      d.bodyRead += static_cast<int64_t>(take);
      if (d.bodyRead == d.bodyLength) endOfRequest(d);
      return static_cast<ssize_t>(take);
    }
    case FdData::STREAMING:
    case FdData::COMPLETE:
      return -1;
    case FdData::FAILED:
      return static_cast<ssize_t>(n);
  }
  return -1;
}
