#include "framework/HTTPReply.h"

#include <time.h>

#include <cstdio>
#include <map>

#include "framework/AtomFeed.h"

namespace {

const std::map<int, const char*>& statusTexts() {
  static const std::map<int, const char*> kTexts = {
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
  return kTexts;
}

}  // namespace

HTTPReply::HTTPReply(int status) : _status(status) {
  getErrorString(status, _statusText);
  _headers.push_back(Str("Server: Kestrod"));
  char date[64];
  time_t now = time(nullptr);
  struct tm tm;
  gmtime_r(&now, &tm);
  strftime(date, sizeof(date), "%a, %d %b %Y %H:%M:%S GMT", &tm);
  _headers.push_back(Str("Date: ") + date);
}

Str& HTTPReply::getErrorString(int code, Str& out) {
  auto it = statusTexts().find(code);
  char buf[96];
  if (it == statusTexts().end()) {
    out = "400 Bad request";
  } else {
    snprintf(buf, sizeof(buf), "%d %s", code, it->second);
    out = buf;
  }
  return out;
}

void HTTPReply::setBody(const Str& body) {
  _body = body;
  _headers.push_back(Str("Content-Length: ") + std::to_string(body.size()));
}

HTTPReply* HTTPReply::createReply(int status, const Str& contentType, const Str& body,
                                  const StrVector& extraHeaders) {
  auto* r = new HTTPReply(status);
  r->setBody(body);
  r->_headers.push_back(Str("Content-Type: ") + contentType + "; charset=utf-8");
  for (const Str& h : extraHeaders) {
    if (!h.empty() && h.find(": ") != Str::npos) r->_headers.push_back(h);
  }
  r->_headers.push_back(Str("Connection: close"));
  return r;
}

HTTPReply* HTTPReply::createReplyNoData() {
  auto* r = new HTTPReply(200);
  r->_sendReply = false;
  return r;
}

HTTPReply* HTTPReply::createErrorTextReply(int status) {
  Str text;
  getErrorString(status, text);
  return createReply(status, Str("text/plain"), text, StrVector());
}

HTTPReply* HTTPReply::createErrorXMLReply(int status, const Str& message, const Str& type) {
  Str body = Str("<response>\n<messages>\n<msg type=\"") + type + "\">" + message +
             "</msg>\n</messages>\n</response>";
  return createReply(status, Str("text/xml"), body, StrVector());
}

HTTPReply* HTTPReply::createNotFoundErrorReply() {
  return createReply(404, Str("text/html"), Str("<html><body>404 - not found</body></html>"),
                     StrVector());
}

HTTPReply* HTTPReply::createAtomReply(const AtomFeed_new& feed) {
  return createReply(200, Str("text/xml"), feed.toXml(), StrVector());
}

Str HTTPReply::createCookies(const Str& name, const Str& value, const Str& path,
                             const Str& domain, const Str& comment, int maxAge, bool forClient) {
  Str out;
  if (forClient) {
    out = Str("Cookie: $Version=\"1\"; ") + name + "=\"" + value + "\"";
    if (!path.empty()) out += Str("; $Path=\"") + path + "\"";
    if (!domain.empty()) out += Str("; $Domain=\"") + domain + "\"";
    return out;
  }
  out = Str("Set-Cookie: ") + name + "=\"" + value + "\"; Version=1";
  if (!path.empty()) out += Str("; Path=\"") + path + "\"";
  if (!domain.empty()) out += Str("; Domain=\"") + domain + "\"";
  if (!comment.empty()) out += Str("; Comment=\"") + comment + "\"";
  if (maxAge >= 0) out += "; Max-Age=" + std::to_string(maxAge);
  return out;
}

Str& HTTPReply::toString(Str& out) const {
  out = Str("HTTP/1.1 ") + _statusText + "\r\n";
  for (const Str& h : _headers) out += h + "\r\n";
  out += "\r\n";
  out += _body;
  return out;
}
