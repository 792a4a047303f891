#include "framework/HTTPRestDispatcher.h"

#include <gtest/gtest.h>

#include "framework/ScopedUserContext.h"
#include "framework/testing/RestTree.h"
#include "util/Base64.h"
#include "util/testing/LogCapture.h"

namespace {

const char* const kRestmap =
    "[global]\nallowGetAuth = true\n"
    "[admin:zeta]\nmatch = /things\nrequireAuthentication = false\n"
    "[admin:alpha]\nmatch = /things/special\nrequireAuthentication = false\n"
    "[admin:Zed]\nmatch = /things/special/z\nrequireAuthentication = false\n"
    "[admin:mid]\nmatch = /mid\nrequireAuthentication = false\n"
    "[admin:caps]\nmatch = /caps\ncapability = Edit_All\ncapability.get = list_all\n"
    "[admin:secure]\nmatch = /secure\n"
    "[admin:lonely]\nmatch = /lonely\nrequireAuthentication = false\n"
    "[admin:nomatch]\nrequireAuthentication = false\n"
    "[admin:badregex]\nmatch = /bad(\n"
    "[other:zzz]\nmatch = /things\n";

// Answers with what it saw: the stanza, base, path, URL user and
// application, and the user the request acts for. handleRequestNS answers
// only when `namespaced` is set.
class Recorder : public MRestHandler {
 public:
  explicit Recorder(bool namespaced) : _namespaced(namespaced) {}
  HTTPReply* handleRequestNS(const MRestHandlerArg& arg) override {
    return _namespaced ? answer("ns", arg) : nullptr;
  }
  HTTPReply* handleRequest(const MRestHandlerArg& arg) override { return answer("legacy", arg); }

 private:
  static HTTPReply* answer(const char* how, const MRestHandlerArg& arg) {
    User acting;
    ScopedUserContext::getCurrentUser(acting);
    const Str body = Str().format(
        "%s %s %s %s %s %s %s", how, arg.getRestmapName().c_str(), arg.getRestBase().c_str(),
        arg.getRestPath().c_str(), arg.getRestHandlerContext().getRestUser().name().c_str(),
        arg.getRestHandlerContext().getRestApplication().c_str(), acting.name().c_str());
    return HTTPReply::createReply(200, Str("text/plain"), body, {Str("Cache-Control: private")});
  }
  bool _namespaced;
};

StrVector basic(const char* user, const char* password) {
  return {std::string("Authorization: Basic ") +
          Base64::encode(Str(std::string(user) + ":" + std::string(password)))};
}

TEST(HTTPRestDispatcher, UrlForms) {
  RestTree t(kRestmap);
  auto d = t.dispatcher(false);
  Recorder recorder(true);
  ASSERT_TRUE(d->registerHandler("admin", &recorder));
  const struct {
    const char* url;
    int status;
    const char* body;  // the whole body, or a part of it for the lists
  } kCases[] = {
      {"/services", 200, "<title>zeta</title>"},  // the endpoint list
      {"/services/", 200, "<title>zeta</title>"},
      {"/servicesNS/admin", 200, "<title>search</title>"},  // the application list
      {"/servicesNS/admin/", 200, "<field name=\"disabled\">1</field>"},
      {"/servicesNS/admin/search", 200, "<title>zeta</title>"},
      {"/servicesNS/admin/search/", 200, "<title>zeta</title>"},
      {"/services/things/x?a=1", 200, "ns zeta services /things/x - - "},
      {"/servicesNS/-/-/things", 200, "ns zeta servicesNS /things - - "},
      {"/servicesNS/-/search/things", 200, "ns zeta servicesNS /things - search "},
      {"/servicesNS/nobody/search/things", 200, "ns zeta servicesNS /things nobody search "},
      {"/servicesNS/ad%6Din/search/things", 200, "ns zeta servicesNS /things admin search "},
      {"/servicesNS/Bob/search/things", 200, "ns zeta servicesNS /things Bob search "},
      // an empty user is not the user-only form, and no user is called ""
      {"/servicesNS//search", 404, "<msg type=\"WARN\">User does not exist: </msg>"},
      {"/servicesNS//search/things", 404, "<msg type=\"WARN\">User does not exist: </msg>"},
      {"/servicesNS/ghost/search/things", 404, "User does not exist: ghost</msg>"},
      {"/servicesNS/ghost", 404, "User does not exist: ghost</msg>"},
      {"/servicesNS/admin/off/things", 404, "Application is disabled: off</msg>"},
      {"/servicesNS/admin/nosuch/things", 404, "Application is disabled: nosuch</msg>"},
      {"/servicesNS/%FF/search/things", 400,
       "Could not decode user '%FF' due to invalid UTF-8 encoding"},
      {"/servicesNS/admin/%C3/things", 400,
       "Could not unescape application '%C3' due to invalid UTF-8 encoding"},
      {"/servicesNS", 404, "404 - not found"},  // no form matches
      {"/servicesX/things", 404, "404 - not found"},
      {"/services/mid/x", 200, "ns mid services /mid/x"},  // "match" gets its "^"
      {"/services/x/mid", 404, "404 - not found"},
      {"/services/nothing", 404, "404 - not found"},
      {"/services/lonely", 200, "ns lonely "},
  };
  for (const auto& c : kCases) {
    auto reply = RestTree::send(*d, std::string("GET ") + c.url + " HTTP/1.1");
    EXPECT_EQ(c.status, reply->_status) << c.url;
    EXPECT_NE(Str::npos, reply->getBody().find(c.body)) << c.url << "\n" << reply->getBody();
  }
}

TEST(HTTPRestDispatcher, StanzasAreTriedInBytewiseOrder) {
  RestTree t(kRestmap);
  auto d = t.dispatcher(false);
  t.page("restmap");
  d->loadConfig("other", t.page("restmap"));
  Recorder recorder(true);
  d->registerHandler("admin", &recorder);
  const struct {
    const char* path;
    const char* stanza;
  } kCases[] = {
      {"/things/special", "alpha"},   // "alpha" sorts before "zeta"
      {"/things/special/z", "Zed"},   // and "Zed" before "alpha": bytes, not letters
      {"/things/other", "zeta"},
      {"/things", "zeta"},            // category "admin" before "other"
  };
  for (const auto& c : kCases) {
    auto reply = RestTree::send(*d, std::string("GET /services") + c.path + " HTTP/1.1");
    EXPECT_EQ(std::string("ns ") + c.stanza, reply->getBody().substr(0, 3 + strlen(c.stanza)))
        << c.path;
  }
}

TEST(HTTPRestDispatcher, LegacyBaseRule) {
  RestTree t(kRestmap);
  auto d = t.dispatcher(false);
  Recorder legacyOnly(false);
  d->registerHandler("admin", &legacyOnly);
  ScopedLogCapture log("HTTPRestDispatcher");
  auto plain = RestTree::send(*d, "GET /services/things HTTP/1.1");
  EXPECT_EQ(200, plain->_status);
  EXPECT_EQ("legacy zeta services /things - - ", plain->getBody());
  auto ns = RestTree::send(*d, "GET /servicesNS/-/-/things HTTP/1.1");
  EXPECT_EQ(404, ns->_status);
  EXPECT_NE(std::string::npos,
            log.text().find("REST handler 'zeta' cannot be accessed through servicesNS"));
}

TEST(HTTPRestDispatcher, LoadConfigMessages) {
  RestTree t(kRestmap);
  ScopedLogCapture log("HTTPRestDispatcher");
  auto d = t.dispatcher(false);
  const std::string text = log.text();
  for (const char* line : {"ERROR 'match' tag not found in stanza admin:nomatch\n",
                           "INFO      processed name=zeta\n", "INFO      processed name=Zed\n"}) {
    EXPECT_NE(std::string::npos, text.find(line)) << line << text;
  }
  EXPECT_NE(std::string::npos, text.find("ERROR 'match' regex error for stanza admin:badregex = "))
      << text;
  EXPECT_EQ(std::string::npos, text.find("processed name=badregex"));
  EXPECT_FALSE(d->registerHandler("never", nullptr));

  // A stanza without a handler stays listed but answers with an error.
  auto reply = RestTree::send(*d, "GET /services/lonely HTTP/1.1");
  EXPECT_EQ(500, reply->_status);
  EXPECT_NE(Str::npos,
            reply->getBody().find("Service was not registered but is in restmap.con - lonely"));
  EXPECT_NE(std::string::npos,
            log.text().find("ERROR Service was not registered but is in restmap.con - lonely"));
}

TEST(HTTPRestDispatcher, AuthenticationAndSessions) {
  RestTree t(kRestmap);
  auto d = t.dispatcher(false);
  Recorder recorder(true);
  d->registerHandler("admin", &recorder);

  auto login = RestTree::send(*d, "POST /services/auth/login HTTP/1.1", {},
                              "username=admin&password=s3cret+pw");
  ASSERT_EQ(200, login->_status) << login->getBody();
  const Str& body = login->getBody();
  ASSERT_EQ(0u, body.find("<response>\n<sessionKey>"));
  const Str key = body.substr(23, 32);
  EXPECT_EQ(std::string("<response>\n<sessionKey>") + key + "</sessionKey>\n</response>", body);
  EXPECT_TRUE(RestTree::hasHeader(*login, "Content-Type: text/xml; charset=utf-8"));
  const Str bobKey = t.sessions.beginSession("bob");

  const struct {
    const char* what;
    StrVector headers;
    const char* query;
    int status;
    const char* body;
  } kCases[] = {
      {"session", {Str(std::string("Authorization: Kestro ") + key)}, "", 200, "ns secure services /secure - - admin"},
      {"another user's session", {Str(std::string("Authorization: Kestro ") + bobKey)}, "", 200, "- - bob"},
      {"session in the query", {}, "?session_key=", 200, "- - admin"},
      {"basic", basic("admin", RestTree::PASSWORD), "", 200, "- - admin"},
      {"basic, other case", basic("ADMIN", RestTree::PASSWORD), "", 200, "- - admin"},
      {"no credentials", {}, "", 401, "Unauthorized"},
      {"forged session", {Str("Authorization: Kestro 0123456789abcdef0123456789abcdef")}, "", 401,
       "Invalid session token: 0123456789abcdef0123456789abcdef"},
      {"wrong password", basic("admin", "s3cret"), "", 401, "wrong user name or password"},
      {"unknown user", basic("ghost", RestTree::PASSWORD), "", 401, "wrong user name or password"},
      {"disabled user", basic("gone", RestTree::PASSWORD), "", 401, "wrong user name or password"},
      {"bad base64", {Str("Authorization: Basic ###")}, "", 401, "malformed"},
      {"unknown scheme", {Str("Authorization: Digest x")}, "", 401, "unknown authorization scheme"},
  };
  for (const auto& c : kCases) {
    std::string url = std::string("GET /services/secure") + c.query;
    if (*c.query != '\0') url += key;
    auto reply = RestTree::send(*d, url + " HTTP/1.1", c.headers);
    EXPECT_EQ(c.status, reply->_status) << c.what;
    EXPECT_NE(Str::npos, reply->getBody().find(c.body)) << c.what << "\n" << reply->getBody();
    EXPECT_EQ(std::string::npos, reply->getBody().find(RestTree::PASSWORD)) << c.what;
    if (c.status == 401 && c.headers.empty()) {
      EXPECT_TRUE(RestTree::hasHeader(*reply, "WWW-Authenticate: Basic realm=\"Kestrod\""));
    }
  }

  auto failed = RestTree::send(*d, "POST /services/auth/login HTTP/1.1", {},
                               "username=admin&password=wrong");
  EXPECT_EQ(401, failed->_status);
  EXPECT_EQ(std::string::npos, failed->getBody().find("sessionKey"));

  // With the constructor's flag no stanza asks for credentials or
  // capabilities.
  auto open = t.dispatcher(true);
  open->registerHandler("admin", &recorder);
  EXPECT_EQ(200, RestTree::send(*open, "GET /services/secure HTTP/1.1")->_status);
  EXPECT_EQ(200, RestTree::send(*open, "POST /services/caps HTTP/1.1")->_status);
}

TEST(HTTPRestDispatcher, CapabilitiesByMethod) {
  RestTree t(kRestmap);
  auto d = t.dispatcher(false);
  Recorder recorder(true);
  d->registerHandler("admin", &recorder);
  const struct {
    const char* method;
    const char* user;
    int status;
  } kCases[] = {
      {"GET", "bob", 200},      // capability.get = list_all, which role_user has
      {"POST", "bob", 403},     // "capability": edit_all, disabled for role_user
      {"PUT", "bob", 403},
      {"DELETE", "bob", 403},
      {"GET", "admin", 200},    // list_all through importRoles
      {"POST", "admin", 200},   // "Edit_All" folds to edit_all
      {"DELETE", "admin", 200},
  };
  ScopedLogCapture log("UserManager");
  for (const auto& c : kCases) {
    auto reply = RestTree::send(*d, std::string(c.method) + " /services/caps HTTP/1.1",
                                basic(c.user, RestTree::PASSWORD));
    EXPECT_EQ(c.status, reply->_status) << c.method << " " << c.user << reply->getBody();
  }
  EXPECT_NE(std::string::npos,
            log.text().find("Capability 'edit_all' refused to user 'bob': REST: /caps"));
}

TEST(HTTPRestDispatcher, TrustedLogin) {
  RestTree t(kRestmap);
  auto d = t.dispatcher(false);
  auto noKey = RestTree::send(*d, "POST /services/auth/trustedlogin HTTP/1.1", {},
                              "username=admin", "10.1.2.3");
  EXPECT_NE(Str::npos, noKey->getBody().find("SSO failed - Could not find 'trustedIP' key in "
                                             "server.conf under the general stanza"));

  RestTree u(kRestmap);
  u.tree.put("system/local/server.conf", "[general]\ntrustedIP = 10.1.2.3\n");
  auto e = u.dispatcher(false);
  ScopedLogCapture log("HTTPRestDispatcher");
  const struct {
    const char* ip;
    const char* user;
    int status;
    const char* body;
  } kCases[] = {
      {"127.0.0.1", "admin", 401, "SSO failed - Given IP '127.0.0.1' does not match trusted IP '10.1.2.3'"},
      {"10.1.2.30", "admin", 401, "does not match trusted IP"},
      {"10.1.2.3", "ghost", 401, "SSO failed - User does not exist: ghost"},
      {"10.1.2.3", "admin", 200, "<response>\n<sessionKey>"},
  };
  for (const auto& c : kCases) {
    auto reply = RestTree::send(*e, "POST /services/auth/trustedlogin HTTP/1.1", {},
                                std::string("username=") + c.user, c.ip);
    EXPECT_EQ(c.status, reply->_status) << c.ip << " " << c.user;
    EXPECT_NE(Str::npos, reply->getBody().find(c.body)) << c.ip << reply->getBody();
  }
  EXPECT_NE(std::string::npos,
            log.text().find("SSO - Accepting trusted login for user 'admin' from IP '10.1.2.3'"));
  EXPECT_EQ(1u, u.sessions.size());
}

TEST(HTTPRestDispatcher, DefaultHeaders) {
  const struct {
    StrVector headers;
    bool expires;
    bool cacheControl;
  } kCases[] = {
      {{}, false, false},
      {{Str("Expires: 0")}, true, false},
      {{Str("expires: 0")}, true, false},
      {{Str("EXPIRES: 0")}, false, false},  // only the two spellings count
      {{Str("Cache-Control: private")}, false, true},
      {{Str("cache-control: private"), Str("Expires: 0")}, true, true},
      {{Str("X-Expires: 0")}, false, false},
  };
  for (const auto& c : kCases) {
    HTTPReply reply(200);
    reply._headers = c.headers;
    bool expires, cacheControl;
    HTTPRestDispatcher::headerIncludesCacheOrExpires(&reply, expires, cacheControl);
    EXPECT_EQ(c.expires, expires);
    EXPECT_EQ(c.cacheControl, cacheControl);
    HTTPRestDispatcher::addDefaultHeaders(&reply);
    EXPECT_EQ(!c.expires, RestTree::hasHeader(reply, "Expires: Fri, 30 Oct 1998 00:00:00 GMT"));
    EXPECT_EQ(!c.cacheControl,
              RestTree::hasHeader(
                  reply, "Cache-Control: no-store, max-age=0, must-revalidate, no-cache"));
  }

  RestTree t(kRestmap);
  auto d = t.dispatcher(false);
  auto list = RestTree::send(*d, "GET /services HTTP/1.1");
  EXPECT_TRUE(RestTree::hasHeader(*list, "Cache-Control: no-cache"));
  EXPECT_TRUE(RestTree::hasHeader(*list, "Expires: Fri, 30 Oct 1998 00:00:00 GMT"));
  EXPECT_FALSE(RestTree::hasHeader(
      *list, "Cache-Control: no-store, max-age=0, must-revalidate, no-cache"));
}

TEST(HTTPRestDispatcher, RegisterBasesAndReload) {
  RestTree t(kRestmap);
  auto d = t.dispatcher(false);
  std::map<Str, MHttpRequestHandler*> handlers;
  d->registerRestDispatcher(handlers);
  EXPECT_EQ(2u, handlers.size());
  EXPECT_EQ(d.get(), handlers["/services"]);
  EXPECT_EQ(d.get(), handlers["/servicesNS"]);

  Recorder recorder(true);
  d->registerHandler("admin", &recorder);
  t.tree.put("system/local/restmap.conf",
             "[admin:fresh]\nmatch = /fresh\nrequireAuthentication = false\n");
  ASSERT_TRUE(d->reloadHandlerConfig("admin", &recorder));
  EXPECT_EQ(404, RestTree::send(*d, "GET /services/things HTTP/1.1")->_status);
  EXPECT_EQ(200, RestTree::send(*d, "GET /services/fresh HTTP/1.1")->_status);
}

}  // namespace
