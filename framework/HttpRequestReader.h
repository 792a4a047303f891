// The reading side of the management port: FdData holds what has come in
// on one connection, and feedRequestBytes moves it through the request
// line, the headers and the body. Pure and socket-free, so the event
// thread, the tests and the fuzzer drive the same code.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

#include "util/Str.h"
#include "util/StrVector.h"
#include "util/Timeval.h"

// The request line, the header lines as received (without line ends), the
// body and when the first byte came. One owner at a time.
struct HttpRequestText {
  Str methodLine;
  StrVector headers;
  Str body;
  Timeval start;
};

// The parsing state of one connection. Event-thread object until the state
// reaches COMPLETE or FAILED, then the request thread's.
struct FdData {
  enum State {
    READING_METHOD = 0,
    READING_HEADERS = 1,
    READING_BODY = 2,
    STREAMING = 3,
    COMPLETE = 4,
    FAILED = 5,
  };
  State state = READING_METHOD;
  int64_t bodyLength = 0;
  int64_t bodyRead = 0;
  Str currentHeader;
  HttpRequestText request;
  Str errorText;
  int32_t errorStatus = 0;
  int64_t sectionSize = 0;
  bool streamingInput = false;
};

// Request line and header block limits: 1 MiB each.
constexpr int64_t MAX_METHOD_SIZE = 1048576;
constexpr int64_t MAX_HEADER_SIZE = 1048576;

// Consumes up to `n` bytes of `data` into `d`. Returns the bytes consumed
// (the caller feeds the rest again), or -1 when the connection should
// close: bytes after a complete request, or a streaming state (the caller
// passes those bytes to its conduit itself). A request line over
// MAX_METHOD_SIZE fails with 414 "exceeded max_method_size", headers over
// MAX_HEADER_SIZE with 413 "exceeded max_header_size", a Content-Length
// over `maxContentLength` with 413 "content exceeded max_content_length";
// a failure consumes all of `data`, and later bytes are ignored. The
// caller acts when the state becomes COMPLETE, STREAMING or FAILED.
// `peerIp` names the client in the log.
ssize_t feedRequestBytes(FdData& d, const char* data, size_t n, int64_t maxContentLength,
                         const Str& peerIp);

// The body length a header line announces: the line in lower case must
// contain "content-length"; the text one byte past that word goes to
// strtol base 10. 0 when absent, unparsable or negative ("Content-Length:
// -5" is no body). The header's place in the line is not checked, so
// "X-Content-Length: 7" counts too.
int64_t getContentLength(const Str& line);
