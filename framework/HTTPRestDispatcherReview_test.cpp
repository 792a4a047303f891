// The REST dispatcher seen from outside: the corners of the URL forms, what
// a handler is handed, sessions that expire or belong to someone else,
// credentials kept out of replies and logs (the query string included),
// sessions that end with their account, log lines client text cannot forge,
// anchored alternatives, the user's time zone, headers a
// handler sets itself, and the messages of URL parsing.
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "framework/HTTPRestDispatcher.h"
#include "framework/ScopedUserContext.h"
#include "framework/testing/RestTree.h"
#include "util/Base64.h"
#include "util/testing/FixedClock.h"
#include "util/testing/LogCapture.h"

namespace {

// Records what each request looked like to the endpoint, and answers on the
// bases it is told to.
class RecordingHandler : public MRestHandler {
 public:
  struct Seen {
    Str name, path, user, application, actingUser, timezone;
    bool wildUser = false, wildApplication = false;
    MRestHandlerArg::ArgMap getArgs;
  };

  explicit RecordingHandler(bool answerNS = true, bool answerLegacy = true)
      : _answerNS(answerNS), _answerLegacy(answerLegacy) {}

  void init(std::map<Str, RestMapData*>& stanzas, PropertyPages*) override {
    for (const auto& [name, data] : stanzas) {
      matches[name] = data->match;
      postCapabilities[name] = data->capabilityFor(Str("POST")).str();
    }
  }
  HTTPReply* handleRequestNS(const MRestHandlerArg& arg) override {
    Seen s;
    s.name = arg.getRestmapName();
    s.path = arg.getRestPath();
    s.user = arg.getRestHandlerContext().getRestUser().name();
    s.application = arg.getRestHandlerContext().getRestApplication();
    s.wildUser = arg.getRestHandlerContext().isWildcardRestUser();
    s.wildApplication = arg.getRestHandlerContext().isWildcardRestApplication();
    s.getArgs = arg.getRestGetArgs();
    User acting;
    if (ScopedUserContext::getCurrentUser(acting)) s.actingUser = acting.name();
    s.timezone = ScopedUserContext::getCurrentTimezone();
    seen.push_back(s);
    return _answerNS ? reply("ns " + arg.getRestmapName()) : nullptr;
  }
  HTTPReply* handleRequest(const MRestHandlerArg& arg) override {
    return _answerLegacy ? reply("legacy " + arg.getRestmapName()) : nullptr;
  }

  std::vector<Seen> seen;
  std::map<Str, Str> matches;
  std::map<Str, Str> postCapabilities;
  StrVector extraHeaders;

 private:
  HTTPReply* reply(const Str& body) {
    return HTTPReply::createReply(200, Str("text/plain"), body, extraHeaders);
  }
  bool _answerNS;
  bool _answerLegacy;
};

const char* const kRestmap =
    "[admin:open]\nmatch = /open\nrequireAuthentication = false\n"
    "[admin:anchored]\nmatch = /mid\nrequireAuthentication = false\n"
    "[admin:a:colon]\nmatch = /colon\nrequireAuthentication = false\n"
    "[admin:locked]\nmatch = /locked\n"
    "[admin:caps]\nmatch = /caps\ncapability = edit_all\ncapability.get = list_all\n"
    "[admin:fold]\nmatch = /fold\ncapability.post = LIST_ALL\ncapability = edit_all\n"
    // Only GET is guarded: other methods need no capability.
    "[admin:getonly]\nmatch = /getonly\ncapability.get = edit_all\n";

const char* const kWrong = "Wr0ngPassw0rdXYZ";

std::string basic(const std::string& userColonPassword) {
  return "Authorization: Basic " + Base64::encode(Str(userColonPassword));
}

// The session key out of a login reply; empty when there is none.
std::string sessionKeyOf(const HTTPReply& r) {
  const std::string b = r.getBody();
  const std::string open = "<response>\n<sessionKey>";
  const std::string close = "</sessionKey>\n</response>";
  if (b.compare(0, open.size(), open) != 0) return "";
  const size_t end = b.find(close, open.size());
  if (end == std::string::npos || end + close.size() != b.size()) return "";
  return b.substr(open.size(), end - open.size());
}

struct Fixture {
  explicit Fixture(bool noAuthentication = false, const char* restmap = kRestmap)
      : rest(restmap) {
    d = rest.dispatcher(noAuthentication);
    EXPECT_TRUE(d->registerHandler("admin", &handler));
  }
  std::unique_ptr<HTTPReply> send(const std::string& method, const std::string& url,
                                  const StrVector& headers = {}, const std::string& body = "") {
    return RestTree::send(*d, method + " " + url + " HTTP/1.1", headers, body);
  }
  std::unique_ptr<HTTPReply> get(const std::string& url, const StrVector& headers = {}) {
    return send("GET", url, headers);
  }
  std::string login(const char* user) {
    auto r = send("POST", "/services/auth/login", {},
                  std::string("username=") + user + "&password=s3cret%20pw");
    return sessionKeyOf(*r);
  }
  RestTree rest;
  RecordingHandler handler;
  std::unique_ptr<HTTPRestDispatcher> d;
};

TEST(HTTPRestDispatcherReview, UrlCornersReachTheirTargets) {
  const struct {
    const char* url;
    int status;
    const char* bodyHas;
  } kCases[] = {
      {"/services?x=1", 200, "<feed"},                          // list, query ignored
      {"/servicesNS/admin/system/open", 200, "ns open"},        // the system application
      {"/servicesNS/admin/-/open", 200, "ns open"},             // wildcard application
      {"/servicesNS/NOBODY/search/open", 200, "ns open"},       // default user, any case
      {"/servicesNS/admin/search/open/", 200, "ns open"},
      {"/servicesNS/-/off/open", 404, "Application is disabled: off"},  // wildcard user too
      {"/servicesNS/", 404, "404 - not found"},                 // no user: no form
      {"/service", 404, "404 - not found"},
      {"/services//open", 404, "404 - not found"},              // "^/open" is not "//open"
      {"/services/auth", 404, "404 - not found"},               // not a login path
  };
  for (const auto& c : kCases) {
    Fixture f(true);
    auto r = f.get(c.url);
    ASSERT_NE(nullptr, r) << c.url;
    EXPECT_EQ(c.status, r->_status) << c.url << "\n" << r->getBody();
    EXPECT_NE(Str::npos, r->getBody().find(c.bodyHas)) << c.url << "\n" << r->getBody();
    EXPECT_EQ(c.status == 200 && std::string(c.bodyHas) == "ns open", f.handler.seen.size() == 1)
        << c.url;
  }
}

TEST(HTTPRestDispatcherReview, HandlerSeesWildcardsNameAndArguments) {
  const struct {
    const char* url;
    const char* path;
    const char* name;
    bool wildUser, wildApplication;
  } kCases[] = {
      {"/services/open/x?a=1", "/open/x", "open", true, true},
      {"/servicesNS/-/-/open?a=1", "/open", "open", true, true},
      {"/servicesNS/admin/search/open?a=1", "/open", "open", false, false},
      {"/servicesNS/-/search/open?a=1", "/open", "open", true, false},
      {"/servicesNS/admin/-/open?a=1", "/open", "open", false, true},
      // The name is all that follows the first colon of the stanza.
      {"/services/colon?a=1", "/colon", "a:colon", true, true},
  };
  for (const auto& c : kCases) {
    Fixture f(true);
    f.get(c.url);
    ASSERT_EQ(1u, f.handler.seen.size()) << c.url;
    const auto& s = f.handler.seen[0];
    EXPECT_EQ(c.path, s.path) << c.url;
    EXPECT_EQ(c.name, s.name) << c.url;
    EXPECT_EQ(c.wildUser, s.wildUser) << c.url;
    EXPECT_EQ(c.wildApplication, s.wildApplication) << c.url;
    EXPECT_EQ(c.wildUser, s.user == "-") << c.url;
    EXPECT_EQ(c.wildApplication, s.application == "-") << c.url;
    ASSERT_EQ(1u, s.getArgs.count("a")) << c.url;
    EXPECT_EQ((StrVector{"1"}), s.getArgs.at("a")) << c.url;
  }
  Fixture f(true);
  f.get("/services/open?a=1&b=x%20y&a=2");
  ASSERT_EQ(1u, f.handler.seen.size());
  EXPECT_EQ((StrVector{"1", "2"}), f.handler.seen[0].getArgs.at("a"));
  EXPECT_EQ((StrVector{"x y"}), f.handler.seen[0].getArgs.at("b"));
}

TEST(HTTPRestDispatcherReview, StanzasKeepAnchoredMatchAndFoldedCapabilities) {
  Fixture f(true);
  EXPECT_EQ("^/mid", f.handler.matches["anchored"]);
  EXPECT_EQ("^/open", f.handler.matches["open"]);
  EXPECT_EQ("list_all", f.handler.postCapabilities["fold"]);
  EXPECT_EQ("edit_all", f.handler.postCapabilities["caps"]);
  EXPECT_EQ("", f.handler.postCapabilities["getonly"]);
  EXPECT_EQ(404, f.get("/services/x/open")->_status);
}

TEST(HTTPRestDispatcherReview, NoReplyFromEitherEntryIsNotFound) {
  const struct {
    bool answerNS, answerLegacy;
    const char* url;
    int status;
    const char* body;
  } kCases[] = {
      {true, true, "/services/open", 200, "ns open"},  // the namespaced entry goes first
      {false, false, "/services/open", 404, "<html><body>404 - not found</body></html>"},
      {false, false, "/servicesNS/-/-/open", 404, "<html><body>404 - not found</body></html>"},
  };
  for (const auto& c : kCases) {
    RestTree rest(kRestmap);
    auto d = rest.dispatcher(true);
    RecordingHandler h(c.answerNS, c.answerLegacy);
    ASSERT_TRUE(d->registerHandler("admin", &h));
    auto r = RestTree::send(*d, std::string("GET ") + c.url + " HTTP/1.1");
    EXPECT_EQ(c.status, r->_status) << c.url;
    EXPECT_EQ(c.body, std::string(r->getBody())) << c.url;
    EXPECT_EQ(1u, h.seen.size()) << c.url;
  }
}

TEST(HTTPRestDispatcherReview, MethodCapabilityWithoutGeneralOne) {
  // bob holds list_all; admin holds list_all and edit_all.
  const struct {
    const char* method;
    const char* url;
    const char* who;
    bool allowed;
  } kCases[] = {
      {"POST", "/services/getonly", "bob", true},   // nothing asked of POST
      {"DELETE", "/services/getonly", "bob", true},
      {"GET", "/services/getonly", "bob", false},
      {"GET", "/services/getonly", "admin", true},
      {"POST", "/services/fold", "bob", true},      // capability.post given in upper case
      {"GET", "/services/fold", "bob", false},      // falls back to "capability"
  };
  for (const auto& c : kCases) {
    Fixture f;
    auto r = f.send(c.method, c.url, {basic(std::string(c.who) + ":s3cret pw")});
    EXPECT_EQ(c.allowed ? 200 : 403, r->_status) << c.method << " " << c.url << " " << c.who;
    EXPECT_EQ(c.allowed, f.handler.seen.size() == 1) << c.method << " " << c.url;
  }
}

TEST(HTTPRestDispatcherReview, SessionsExpireWhenIdleAndUseKeepsThemAlive) {
  const int64_t t0 = 1800000000;
  const int64_t idle = SessionManager::DEFAULT_IDLE_TIMEOUT_SEC;
  ScopedFixedClock clock(Timeval(t0, 0));
  Fixture f;
  const std::string key = f.login("admin");
  ASSERT_EQ(32u, key.size());
  const StrVector auth = {"Authorization: Kestro " + key};
  const struct {
    int64_t at;
    bool valid;
  } kSteps[] = {
      {t0 + idle - 1, true},      // each use restarts the idle clock
      {t0 + 2 * idle - 2, true},
      {t0 + 3 * idle, false},     // idle past the timeout
      {t0 + 3 * idle + 1, false}, // and gone for good
  };
  for (const auto& s : kSteps) {
    clock.set(Timeval(s.at, 0));
    auto r = f.get("/services/locked", auth);
    EXPECT_EQ(s.valid ? 200 : 401, r->_status) << s.at - t0;
    EXPECT_EQ(s.valid, r->getBody().find("Invalid session token: ") == Str::npos) << s.at - t0;
  }
  EXPECT_EQ(2u, f.handler.seen.size());
}

TEST(HTTPRestDispatcherReview, AnotherUsersTokenCarriesOnlyThatUsersRights) {
  Fixture f;
  const std::string key = f.login("bob");
  ASSERT_EQ(32u, key.size());
  const StrVector auth = {"Authorization: Kestro " + key};
  // The URL names admin, but the session is bob's, and bob lacks edit_all.
  EXPECT_EQ(403, f.send("POST", "/servicesNS/admin/search/caps", auth)->_status);
  EXPECT_TRUE(f.handler.seen.empty());
  EXPECT_EQ(200, f.send("GET", "/servicesNS/admin/search/caps", auth)->_status);
  ASSERT_EQ(1u, f.handler.seen.size());
  EXPECT_EQ("bob", f.handler.seen[0].actingUser);
  EXPECT_EQ("admin", f.handler.seen[0].user);
}

TEST(HTTPRestDispatcherReview, RequestActsAsItsUserInHisTimezoneForItsLengthOnly) {
  const struct {
    const char* who;
    const char* timezone;
  } kCases[] = {
      {"admin", "Europe/Paris"},
      {"ADMIN", "Europe/Paris"},  // the user as configured
      {"bob", ""},
  };
  for (const auto& c : kCases) {
    Fixture f;
    auto r = f.get("/services/locked", {basic(std::string(c.who) + ":s3cret pw")});
    ASSERT_EQ(1u, f.handler.seen.size()) << c.who;
    EXPECT_EQ(c.timezone, f.handler.seen[0].timezone) << c.who;
    EXPECT_EQ(0, User(c.who).compareIgnoreCase(User(f.handler.seen[0].actingUser))) << c.who;
    User after;
    EXPECT_FALSE(ScopedUserContext::getCurrentUser(after)) << c.who;
  }
}

TEST(HTTPRestDispatcherReview, BadCredentialsNeverReachRepliesOrLogs) {
  const std::vector<std::string> kHeaders = {
      basic(std::string("admin:") + kWrong),
      basic(std::string("ghost:") + kWrong),
      basic(std::string("gone:") + kWrong),   // disabled user
      basic(std::string("admin:") + kWrong + ":more"),  // the password runs to the end
      std::string("Authorization: Bearer ") + kWrong,
  };
  for (const auto& header : kHeaders) {
    Fixture f;
    ScopedLogCapture log("HTTPRestDispatcher");
    ScopedLogCapture authLog("HTTPAuthManager");
    ScopedLogCapture userLog("UserManager");
    auto r = f.get("/services/locked", {header});
    EXPECT_EQ(401, r->_status) << header;
    EXPECT_TRUE(f.handler.seen.empty()) << header;
    Str all;
    r->toString(all);
    EXPECT_EQ(Str::npos, all.find(kWrong)) << header;
    EXPECT_EQ(std::string::npos, log.text().find(kWrong)) << header;
    EXPECT_EQ(std::string::npos, authLog.text().find(kWrong)) << header;
    EXPECT_EQ(std::string::npos, userLog.text().find(kWrong)) << header;
  }
}

TEST(HTTPRestDispatcherReview, RefusedLoginsEchoNoPasswordAndOpenNoSession) {
  const std::string wrong = kWrong;
  const std::string kBodies[] = {
      "username=admin&password=" + wrong,
      "username=ghost&password=" + wrong,
      "username=gone&password=s3cret%20pw",  // disabled user, right password
      "username=&password=" + wrong,
      "password=" + wrong,
      "username=admin",
  };
  for (const auto& text : kBodies) {
    Fixture f;
    ScopedLogCapture log("HTTPRestDispatcher");
    ScopedLogCapture authLog("HTTPAuthManager");
    ScopedLogCapture userLog("UserManager");
    auto r = f.send("POST", "/services/auth/login", {}, text);
    EXPECT_EQ(401, r->_status) << text;
    EXPECT_EQ("", sessionKeyOf(*r)) << text;
    Str all;
    r->toString(all);
    for (const char* secret : {kWrong, "s3cret"}) {
      EXPECT_EQ(Str::npos, all.find(secret)) << text;
      EXPECT_EQ(std::string::npos, log.text().find(secret)) << text;
      EXPECT_EQ(std::string::npos, authLog.text().find(secret)) << text;
      EXPECT_EQ(std::string::npos, userLog.text().find(secret)) << text;
    }
    EXPECT_EQ(0u, f.rest.sessions.size()) << text;
  }
}

TEST(HTTPRestDispatcherReview, LoginWorksOnEitherBaseAndAnswersUncached) {
  for (const char* url : {"/services/auth/login", "/servicesNS/-/-/auth/login",
                          "/servicesNS/admin/search/auth/login"}) {
    Fixture f;
    auto r = f.send("POST", url, {}, "username=admin&password=s3cret+pw");
    EXPECT_EQ(200, r->_status) << url;
    EXPECT_EQ(32u, sessionKeyOf(*r).size()) << url << "\n" << r->getBody();
    EXPECT_TRUE(RestTree::hasHeader(*r, HTTPRestDispatcher::DEFAULT_CACHE_CONTROL)) << url;
    EXPECT_TRUE(RestTree::hasHeader(*r, HTTPRestDispatcher::DEFAULT_EXPIRES)) << url;
  }
}

TEST(HTTPRestDispatcherReview, TrustedLoginNeedsANonEmptyTrustedAddress) {
  // An empty value counts as no key, so an empty peer address cannot match it.
  for (const char* conf : {"[general]\ntrustedIP =\n", "[general]\n", "[other]\ntrustedIP = \n"}) {
    Fixture f;
    f.rest.tree.put("system/local/server.conf", conf);
    auto r = RestTree::send(*f.d, "POST /services/auth/trustedlogin HTTP/1.1", {},
                            "username=admin", "");
    EXPECT_EQ(401, r->_status) << conf;
    EXPECT_NE(Str::npos,
              r->getBody().find("SSO failed - Could not find 'trustedIP' key in server.conf "
                                "under the general stanza"))
        << conf << r->getBody();
    EXPECT_EQ(0u, f.rest.sessions.size()) << conf;
  }
}

TEST(HTTPRestDispatcherReview, DefaultHeadersYieldToTheHandlersOwn) {
  const struct {
    const char* own;  // a header the handler sets, or ""
    bool wantsExpires, wantsCache;
  } kCases[] = {
      {"", true, true},
      {"Expires: 0", false, true},
      {"expires: 0", false, true},
      {"Cache-Control: private", true, false},
      {"cache-control: private", true, false},
      {"X-Expires: 0", true, true},
  };
  for (const auto& c : kCases) {
    Fixture f(true);
    if (*c.own != '\0') f.handler.extraHeaders.push_back(c.own);
    auto r = f.get("/services/open");
    EXPECT_EQ(c.wantsExpires, RestTree::hasHeader(*r, HTTPRestDispatcher::DEFAULT_EXPIRES))
        << c.own;
    EXPECT_EQ(c.wantsCache, RestTree::hasHeader(*r, HTTPRestDispatcher::DEFAULT_CACHE_CONTROL))
        << c.own;
  }
  // Error replies get them too.
  Fixture f(true);
  for (const char* url : {"/nowhere", "/servicesNS/ghost/search/open"}) {
    auto r = f.get(url);
    EXPECT_TRUE(RestTree::hasHeader(*r, HTTPRestDispatcher::DEFAULT_EXPIRES)) << url;
    EXPECT_TRUE(RestTree::hasHeader(*r, HTTPRestDispatcher::DEFAULT_CACHE_CONTROL)) << url;
  }
}

TEST(HTTPRestDispatcherReview, UrlParsingMessages) {
  const struct {
    const char* url;
    const char* line;
  } kCases[] = {
      {"/services/open", "DEBUG Preparing to handle URL: /services/open\n"},
      {"/nowhere", "Cannot handle URL: /nowhere\n"},
      {"/servicesNS/admin", "DEBUG Only has user: admin\n"},
      {"/servicesNS/admin/", "DEBUG Only has user: admin\n"},
      {"/services/", "DEBUG At base URL: /services/\n"},
      {"/servicesNS/%61dmin/search/open", "DEBUG Escaped user URL section: %61dmin -> admin\n"},
      {"/servicesNS/admin/sea%72ch/open",
       "DEBUG Escaped application URL section: sea%72ch -> search\n"},
      {"/services/open", "DEBUG path=/open regex=^/open\n"},
      {"/services/open", "DEBUG       we have a match...\n"},
  };
  for (const auto& c : kCases) {
    Fixture f(true);
    ScopedLogCapture log("HTTPRestDispatcher");
    f.get(c.url);
    EXPECT_NE(std::string::npos, log.text().find(c.line)) << c.url << "\n" << log.text();
  }
  // The wildcard is not decoded, so not reported as such.
  Fixture f(true);
  ScopedLogCapture log("HTTPRestDispatcher");
  f.get("/servicesNS/-/-/open");
  EXPECT_EQ(std::string::npos, log.text().find("Escaped")) << log.text();
}

TEST(HTTPRestDispatcherReview, AllowGetAuthIsReadFromGlobal) {
  const struct {
    const char* global;
    bool allow;
  } kCases[] = {
      {"", false},
      {"[global]\nallowGetAuth = true\n", true},
      {"[global]\nallowGetAuth = false\n", false},
      {"[global]\nallowGetAuth =\n", false},
  };
  for (const auto& c : kCases) {
    RestTree rest(std::string(c.global) + "[admin:open]\nmatch = /open\n");
    auto d = rest.dispatcher(false);
    EXPECT_EQ(c.allow, d->allowGetAuth()) << c.global;
  }
}

TEST(HTTPRestDispatcherReview, MatchAlternativesStayAnchored) {
  const struct {
    const char* url;
    int status;
  } kCases[] = {
      {"/services/one", 200},
      {"/services/two", 200},
      {"/services/x/two", 404},  // never in the middle of a path
      {"/services/x/one", 404},
  };
  for (const auto& c : kCases) {
    Fixture f(true, "[admin:alt]\nmatch = /one|/two\nrequireAuthentication = false\n");
    EXPECT_EQ(c.status, f.get(c.url)->_status) << c.url;
  }
}

TEST(HTTPRestDispatcherReview, LoginCredentialsComeOnlyInTheBody) {
  // A request line is written to the access log: a password there is logged.
  for (const char* method : {"GET", "POST"}) {
    Fixture f;
    auto r = f.send(method, "/services/auth/login?username=admin&password=s3cret%20pw");
    EXPECT_EQ(401, r->_status) << method;
    EXPECT_EQ("", sessionKeyOf(*r)) << method;
    EXPECT_EQ(0u, f.rest.sessions.size()) << method;
  }
}

TEST(HTTPRestDispatcherReview, RefusedTrustedLoginIsNotLoggedAsAccepted) {
  Fixture f;
  f.rest.tree.put("system/local/server.conf", "[general]\ntrustedIP = 10.1.2.3\n");
  ScopedLogCapture log("HTTPRestDispatcher");
  auto r = RestTree::send(*f.d, "POST /services/auth/trustedlogin HTTP/1.1", {},
                          "username=gone", "10.1.2.3");
  EXPECT_EQ(401, r->_status);
  EXPECT_EQ("", sessionKeyOf(*r));
  EXPECT_EQ(std::string::npos, log.text().find("SSO - Accepting")) << log.text();
}

TEST(HTTPRestDispatcherReview, ClientTextCannotForgeLogLines) {
  Fixture f;
  f.rest.tree.put("system/local/server.conf", "[general]\ntrustedIP = 10.1.2.3\n");
  ScopedLogCapture log("HTTPRestDispatcher", "%p %m%n");
  f.send("POST", "/services/auth/login", {}, "username=x%0AFORGED%1b[31m&password=zz");
  RestTree::send(*f.d, "POST /services/auth/trustedlogin HTTP/1.1", {}, "username=y%0AFORGED",
                 "10.1.2.3");
  f.get("/servicesNS/a%0AFORGED/search/open");
  for (const std::string& line : log.lines()) {
    EXPECT_NE(0u, line.find("FORGED")) << log.text();
    EXPECT_EQ(std::string::npos, line.find('\x1b')) << line;
  }
  EXPECT_NE(std::string::npos, log.text().find("FORGED")) << log.text();
}

TEST(HTTPRestDispatcherReview, SessionEndsWithItsUsersAccount) {
  const std::string hash = PasswordHash::hash(RestTree::PASSWORD, 1000);
  const std::string admin = "[admin]\npassword = " + hash + "\nroles = admin\n";
  const struct {
    const char* what;
    std::string users;
  } kCases[] = {
      {"disabled", admin + "[bob]\npassword = " + hash + "\nroles = user\ndisabled = true\n"},
      {"removed", admin},
  };
  for (const auto& c : kCases) {
    Fixture f;
    const std::string key = f.login("bob");
    ASSERT_EQ(32u, key.size());
    f.rest.tree.put("system/local/users.conf", c.users);
    f.rest.page("users")->updateConfigs();
    auto r = f.get("/services/locked", {"Authorization: Kestro " + key});
    EXPECT_EQ(401, r->_status) << c.what;
    EXPECT_TRUE(f.handler.seen.empty()) << c.what;
  }
}

}  // namespace
