// One request of the management port as a handler sees it: the request
// line, headers and body, their parsed forms, and the writing of the
// answer, gzip-compressed when the client accepts it. One owner at a time:
// the request thread.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <memory>

#include "framework/HttpRequestReader.h"
#include "util/Str.h"
#include "util/StrVector.h"

class HTTPReply;
class InputStreamConduit;
class HTTPWritableGzipStream;
class TcpPolledFd;

// Header name to value, only while writing: sorted, later names win.
typedef std::map<Str, Str> HTTPHeaders;

class HTTPRequest {
 public:
  // `fd` (borrowed, may be null for parsing only) is where answers go.
  // With `compression` off writeResponseHeaders never compresses.
  HTTPRequest(HttpRequestText text, TcpPolledFd* fd, bool compression);
  virtual ~HTTPRequest();

  // Writes all of `data` (through the gzip stream once compressing);
  // n, or -1 with errno. Adds to the response size.
  virtual ssize_t blockingWrite(const char* data, size_t size, int timeoutMs);

  const Str& methodLine() const { return _text.methodLine; }
  const StrVector& headers() const { return _text.headers; }
  const Str& body() const { return _text.body; }
  const Timeval& start() const { return _text.start; }
  uint64_t responseSize() const { return _responseSize; }
  // The connection answers go to; null for a request made only to parse.
  TcpPolledFd* polledFd() const { return _fd; }
  bool isCompressing() const { return _gzip != nullptr; }
  // The streaming input of the request, null unless it streams. Borrowed.
  InputStreamConduit* conduit() const { return _conduit; }
  void setConduit(InputStreamConduit* conduit) { _conduit = conduit; }

  // The request line split on white space: "GET /a HTTP/1.1" gives three.
  void getMethodComponents(StrVector& out) const;
  // A header line split at its first colon, the value trimmed; false
  // without a colon.
  static bool getHeaderComponents(const Str& line, Str& name, Str& value);
  // The value of the first "Host:" header (any case), or empty.
  Str getHost() const;
  // The cookies of every "cookie" header, split at ";" and "=", the
  // $Version, $Path and $Domain attributes passed over; quotes removed.
  void getCookies(std::map<Str, Str>& out) const;
  // "a=1&b=2&a=3" into name -> values, each part URI-decoded; a pair whose
  // name or value is not valid UTF-8 after decoding is logged and skipped.
  static void parseEncodedString(const Str& text, std::map<Str, StrVector>& out);
  // Splits `url` at the first "?": the path into `path`, the parameters
  // parsed as above.
  static void parseGetParams(const Str& url, Str& path, std::map<Str, StrVector>& out);

  // Whether the Accept-Encoding headers ask for gzip: "*" does; a "gzip"
  // element (any case) does unless its parameter is "q=0".
  bool clientAcceptsGzip() const;

  // Status line, sorted unique headers, then the body; returns the bytes
  // written or -1. Finishes the gzip stream.
  ssize_t writeResponse(HTTPReply* reply, int timeoutMs);
  // The status line and `headers` in one write, then starts compression
  // when allowed and accepted (Content-Length then left out and
  // "Content-Encoding: gzip" added). Bytes written or -1.
  ssize_t writeResponseHeaders(const Str& statusLine, const HTTPHeaders& headers, int timeoutMs);
  // Flushes the gzip stream if there is one; false when that write failed.
  bool finish();
  // Ends the connection from the request thread that owns it: drops any
  // gzip stream unflushed, puts the descriptor back in blocking mode, has
  // the loop forget the member (waiting for it), then closes and deletes
  // it. Later writes fail with EBADF. Nothing when there is no connection.
  // REQUIRES: the calling thread owns the connection (claimOwnership).
  void removeFromOutside();

 private:
  HttpRequestText _text;
  TcpPolledFd* _fd;
  bool _compression;
  uint64_t _responseSize = 0;
  InputStreamConduit* _conduit = nullptr;
  std::unique_ptr<HTTPWritableGzipStream> _gzip;
};
