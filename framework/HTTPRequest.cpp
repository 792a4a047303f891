#include "framework/HTTPRequest.h"

#include <errno.h>
#include <strings.h>

#include "framework/HTTPReply.h"
#include "util/GzipStream.h"
#include "util/Logger.h"
#include "util/TcpPolledFd.h"

namespace {

Logger gLogger("HTTPServer");

const char* const WHITE = " \t";

Str trimmed(const Str& s) {
  size_t b = s.find_first_not_of(WHITE);
  if (b == Str::npos) return Str();
  size_t e = s.find_last_not_of(WHITE);
  return Str(s.substr(b, e - b + 1));
}

StrVector splitOn(const Str& s, char sep) {
  StrVector out;
  size_t from = 0;
  for (;;) {
    size_t at = s.find(sep, from);
    out.emplace_back(s.substr(from, at == Str::npos ? Str::npos : at - from));
    if (at == Str::npos) return out;
    from = at + 1;
  }
}

bool isValidUtf8(const Str& s) {
  size_t i = 0;
  while (i < s.size()) {
    unsigned char c = static_cast<unsigned char>(s[i]);
    size_t extra = c < 0x80 ? 0 : (c >> 5) == 6 ? 1 : (c >> 4) == 14 ? 2 : (c >> 3) == 30 ? 3 : 9;
    if (extra == 9 || i + extra >= s.size()) return false;
    for (size_t k = 1; k <= extra; k++) {
      if ((static_cast<unsigned char>(s[i + k]) & 0xC0) != 0x80) return false;
    }
    i += extra + 1;
  }
  return true;
}

}  // namespace

// Gzip output that goes to the request's connection.
class HTTPWritableGzipStream : public WritableGzipStream {
 public:
  HTTPWritableGzipStream(TcpPolledFd* fd, int timeoutMs)
      : WritableGzipStream(Timeval::now(), -1, 16384, 15, 9), _fd(fd), _timeoutMs(timeoutMs) {}

 protected:
  ssize_t write_stream(const void* data, size_t len) override {
    return _fd->blockingWrite(static_cast<const char*>(data), len, _timeoutMs);
  }

 private:
  TcpPolledFd* _fd;
  int _timeoutMs;
};

HTTPRequest::HTTPRequest(HttpRequestText text, TcpPolledFd* fd, bool compression)
    : _text(std::move(text)), _fd(fd), _compression(compression) {}

HTTPRequest::~HTTPRequest() = default;

ssize_t HTTPRequest::blockingWrite(const char* data, size_t size, int timeoutMs) {
  ssize_t rv;
  if (_gzip != nullptr) {
    rv = _gzip->write(data, size);
  } else if (_fd != nullptr) {
    rv = _fd->blockingWrite(data, size, timeoutMs);
  } else {
    errno = EBADF;
    rv = -1;
  }
  if (rv > 0) _responseSize += static_cast<uint64_t>(rv);
  gLogger.debug("blockingWrite wrote :%lu bytes. rv = %ld", static_cast<unsigned long>(size),
                static_cast<long>(rv));
  return rv;
}

void HTTPRequest::getMethodComponents(StrVector& out) const {
  out.clear();
  size_t i = 0;
  const Str& m = _text.methodLine;
  while (i < m.size()) {
    size_t b = m.find_first_not_of(" \t", i);
    if (b == Str::npos) break;
    size_t e = m.find_first_of(" \t", b);
    out.emplace_back(m.substr(b, e == Str::npos ? Str::npos : e - b));
    i = e == Str::npos ? m.size() : e;
  }
}

bool HTTPRequest::getHeaderComponents(const Str& line, Str& name, Str& value) {
  size_t colon = line.find(':');
  if (colon == Str::npos) return false;
  name = line.substr(0, colon);
  value = trimmed(Str(line.substr(colon + 1)));
  return true;
}

Str HTTPRequest::getHost() const {
  for (const Str& h : _text.headers) {
    if (h.size() >= 5 && strncasecmp(h.c_str(), "host:", 5) == 0) {
      size_t b = h.find_first_not_of(" \t\r\n\f\v", 5);
      return b == Str::npos ? Str() : Str(h.substr(b));
    }
  }
  return Str();
}

void HTTPRequest::getCookies(std::map<Str, Str>& out) const {
  for (const Str& h : _text.headers) {
    Str name, value;
    if (!getHeaderComponents(h, name, value) || strcasecmp(trimmed(name).c_str(), "cookie") != 0) {
      continue;
    }
    for (const Str& pair : splitOn(value, ';')) {
      size_t eq = pair.find('=');
      if (eq == Str::npos) continue;
      Str k = trimmed(Str(pair.substr(0, eq)));
      Str v = trimmed(Str(pair.substr(eq + 1)));
      if (k == "$Version" || k == "$Path" || k == "$Domain" || k == "$version" ||
          k == "$path" || k == "$domain") {
        continue;
      }
      if (v.size() >= 2 && v.front() == '"' && v.back() == '"') v = v.substr(1, v.size() - 2);
      out[k] = v;
    }
  }
}

void HTTPRequest::parseEncodedString(const Str& text, std::map<Str, StrVector>& out) {
  for (const Str& pair : splitOn(text, '&')) {
    if (pair.empty()) continue;
    size_t eq = pair.find('=');
    Str k = pair.substr(0, eq);
    Str v = eq == Str::npos ? Str() : Str(pair.substr(eq + 1));
    if (!k.uriDecode() || !isValidUtf8(k)) {
      gLogger.warn() << "Could not decode attribute '" << k << "' due to invalid UTF-8 encoding";
      continue;
    }
    if (!v.uriDecode() || !isValidUtf8(v)) {
      gLogger.warn() << "Could not decode val '" << v << "' due to invalid UTF-8 encoding";
      continue;
    }
    out[k].push_back(v);
  }
}

void HTTPRequest::parseGetParams(const Str& url, Str& path, std::map<Str, StrVector>& out) {
  size_t q = url.find('?');
  if (q == Str::npos) {
    gLogger.debug("no params, just a straight url=%s", url.c_str());
    path = url;
    return;
  }
  path = url.substr(0, q);
  parseEncodedString(Str(url.substr(q + 1)), out);
}

bool HTTPRequest::clientAcceptsGzip() const {
  for (const Str& h : _text.headers) {
    Str name, value;
    if (!getHeaderComponents(h, name, value) ||
        strcasecmp(trimmed(name).c_str(), "accept-encoding") != 0) {
      continue;
    }
    if (value == "*") return true;
    for (const Str& element : splitOn(value, ',')) {
      size_t semi = element.find(';');
      Str coding = trimmed(Str(element.substr(0, semi)));
      Str param = semi == Str::npos ? Str() : trimmed(Str(element.substr(semi + 1)));
      if (strcasecmp(coding.c_str(), "gzip") != 0) continue;
      if (strcasecmp(param.c_str(), "q=0") == 0) continue;
      return true;
    }
  }
  return false;
}

ssize_t HTTPRequest::writeResponseHeaders(const Str& statusLine, const HTTPHeaders& headers,
                                          int timeoutMs) {
  bool compress = _compression && clientAcceptsGzip();
  Str out = statusLine;
  out += "\r\n";
  for (const auto& [name, value] : headers) {
    if (compress && strcasecmp(name.c_str(), "content-length") == 0) continue;
    out.append(name).append(": ").append(value).append("\r\n");
  }
  if (compress) out += "Content-Encoding: gzip\r\n";
  out += "\r\n";
  ssize_t rv = blockingWrite(out.data(), out.size(), timeoutMs);
  if (rv >= 0 && compress) _gzip = std::make_unique<HTTPWritableGzipStream>(_fd, timeoutMs);
  return rv;
}

ssize_t HTTPRequest::writeResponse(HTTPReply* reply, int timeoutMs) {
  HTTPHeaders headers;
  for (const Str& line : reply->_headers) {
    Str name, value;
    if (getHeaderComponents(line, name, value)) headers[name] = value;
  }
  ssize_t rv = writeResponseHeaders(Str("HTTP/1.1 ").append(reply->_statusText), headers, timeoutMs);
  if (rv <= 0) return rv;
  const Str& body = reply->getBody();
  if (!body.empty() && blockingWrite(body.data(), body.size(), timeoutMs) < 0) return -1;
  if (!finish()) return -1;
  return static_cast<ssize_t>(_responseSize);
}

void HTTPRequest::removeFromOutside() {
  if (_fd == nullptr) return;
  _gzip.reset();
  _fd->descriptor().setNonblock(false);
  TcpPolledFd::removeFdFromOutsideELoop(_fd);
  _fd = nullptr;
}

bool HTTPRequest::finish() {
  if (_gzip == nullptr) return true;
  bool ok = _gzip->finish();
  _gzip.reset();
  return ok;
}
