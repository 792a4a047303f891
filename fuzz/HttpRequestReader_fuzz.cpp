// Feeds arbitrary bytes to the management port's request reader in pieces
// whose sizes the input chooses, and checks the reader's promises: it never
// consumes more than it was given, the limits hold, and a finished request
// carries exactly the body it announced.
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "framework/HTTPRequest.h"
#include "framework/HTTPServer.h"
#include "framework/HttpRequestReader.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  size_t step = data[0] % 64 + 1;
  const char* p = reinterpret_cast<const char*>(data + 1);
  size_t left = size - 1;
  FdData d;
  while (left > 0) {
    size_t n = left < step ? left : step;
    ssize_t used = feedRequestBytes(d, p, n, 4096, Str("fuzz"));
    if (used < 0) break;
    if (static_cast<size_t>(used) > n) abort();
    if (used == 0 && d.state != FdData::STREAMING && d.state != FdData::COMPLETE) abort();
    p += used;
    left -= static_cast<size_t>(used);
    if (d.state == FdData::COMPLETE || d.state == FdData::STREAMING) break;
  }
  if (d.request.methodLine.size() > static_cast<size_t>(MAX_METHOD_SIZE)) abort();
  if (d.state == FdData::COMPLETE && d.request.body.size() != static_cast<size_t>(d.bodyLength)) {
    abort();
  }
  if (d.state == FdData::FAILED && d.errorStatus != 413 && d.errorStatus != 414) abort();
  // What the request thread then does with the parsed text.
  HTTPRequest request(d.request, nullptr, true);
  Str base;
  if (HTTPServer::getUrlBase(d.request.methodLine, base)) {
    StrVector words;
    request.getMethodComponents(words);
    HTTPServer::validateMethod(words.at(0));
    Str path;
    std::map<Str, StrVector> params;
    HTTPRequest::parseGetParams(words.at(1), path, params);
  }
  std::map<Str, Str> cookies;
  request.getCookies(cookies);
  request.getHost();
  request.clientAcceptsGzip();
  return 0;
}
