// An answer of the management port: status, header lines and body, with
// the server's status texts. One owner at a time.
#pragma once

#include <cstdint>

#include "util/Str.h"
#include "util/StrVector.h"

class AtomFeed_new;

class HTTPReply {
 public:
  // Starts the header list with "Server: Kestrod" and "Date: " in GMT.
  explicit HTTPReply(int status);

  // "%d %s" from the server's status table into `out`; an unknown code
  // gives "400 Bad request" (lower case, as the table's fallback has it).
  static Str& getErrorString(int code, Str& out);

  // A full reply: status text from getErrorString, the body with its
  // Content-Length, "Content-Type: <type>; charset=utf-8", each extra
  // header that is non-empty and holds ": " (others dropped), and last
  // "Connection: close".
  static HTTPReply* createReply(int status, const Str& contentType, const Str& body,
                                const StrVector& extraHeaders);
  // A 200 with no body that is not sent: the handler answered itself.
  static HTTPReply* createReplyNoData();
  // The status text as a "text/plain" body.
  static HTTPReply* createErrorTextReply(int status);
  // "text/xml": <response><messages><msg type="..">message</msg>..., the
  // message not escaped.
  static HTTPReply* createErrorXMLReply(int status, const Str& message, const Str& type);
  // 404 with "<html><body>404 - not found</body></html>" as "text/html".
  static HTTPReply* createNotFoundErrorReply();
  // 200 with the feed's document (AtomFeed_new::toXml) as "text/xml".
  static HTTPReply* createAtomReply(const AtomFeed_new& feed);
  // A "Set-Cookie: " line: name="value"; Version=1 and the optional
  // Path, Domain, Comment (quoted) and Max-Age (when >= 0). With
  // `forClient` the request form "Cookie: $Version=\"1\"; ..." instead.
  static Str createCookies(const Str& name, const Str& value, const Str& path,
                           const Str& domain, const Str& comment, int maxAge, bool forClient);

  // Stores the body and adds "Content-Length: " with its length.
  void setBody(const Str& body);
  const Str& getBody() const { return _body; }
  void setUserWhoLoggedIn(const Str& user) { _userWhoLoggedIn = user; }
  const Str& getUserWhoLoggedIn() const { return _userWhoLoggedIn; }
  // The status line text, the headers and the body, for logs and tests.
  Str& toString(Str& out) const;

  int32_t _status;
  bool _handledResponseItself = false;
  Str _statusText;
  StrVector _headers;
  bool _sendReply = true;

 private:
  Str _body;
  Str _userWhoLoggedIn;
};
