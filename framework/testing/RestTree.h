// A configuration root for the REST tests: restmap stanzas, users with
// roles and capabilities, applications, and the identity objects wired to
// a dispatcher, with a one-call way to send it a request. Test code only.
#pragma once

#include <memory>
#include <string>

#include "framework/HTTPAuthManager.h"
#include "framework/HTTPReply.h"
#include "framework/HTTPRequest.h"
#include "framework/HTTPRestDispatcher.h"
#include "framework/PasswordHash.h"
#include "framework/SessionManager.h"
#include "framework/UserManager.h"
#include "libbundle/PropertyPages.h"
#include "libbundle/testing/BundleTree.h"

// One owner: the test that made it. Passwords are hashed with few
// iterations to keep the tests quick; the hash is the real one.
class RestTree {
 public:
  static constexpr const char* PASSWORD = "s3cret pw";

  explicit RestTree(const std::string& restmap) {
    const std::string hash = PasswordHash::hash(PASSWORD, 1000);
    tree.put("system/local/restmap.conf", restmap);
    tree.put("system/local/users.conf",
             "[admin]\npassword = " + hash + "\nroles = admin\ntz = Europe/Paris\n"
             "[bob]\npassword = " + hash + "\nroles = user\n"
             "[gone]\npassword = " + hash + "\nroles = admin\ndisabled = true\n");
    tree.put("system/local/authorize.conf",
             "[role_user]\nlist_all = enabled\nedit_all = disabled\n"
             "[role_admin]\nimportRoles = user\nEdit_All = enabled\nadmin_all_objects = enabled\n");
    tree.put("apps/search/default/app.conf", "[install]\nstate = enabled\n");
    tree.put("apps/off/default/app.conf", "[install]\nstate = disabled\n");
    users = std::make_unique<UserManager>(tree.setup());
    auth = std::make_unique<HTTPAuthManager>(*users, sessions);
  }

  PropertyPages* page(const char* name) {
    return PropertyPages::instance(name, PropertyPagesContext(tree.setup(), User(), ""));
  }

  // A dispatcher over this tree with `category` loaded.
  std::unique_ptr<HTTPRestDispatcher> dispatcher(bool noAuthentication,
                                                 const char* category = "admin") {
    auto d = std::make_unique<HTTPRestDispatcher>(noAuthentication, page("restmap"));
    auth->setAllowGetAuth(d->allowGetAuth());
    d->setAuthManager(auth.get());
    d->setBundlesSetup(tree.setup());
    d->loadConfig(category, page("restmap"));
    return d;
  }

  // Sends `methodLine` with `headers` and `body` from `ip`.
  static std::unique_ptr<HTTPReply> send(HTTPRestDispatcher& d, const std::string& methodLine,
                                         const StrVector& headers = {},
                                         const std::string& body = "",
                                         const char* ip = "127.0.0.1") {
    HttpRequestText text;
    text.methodLine = methodLine;
    text.headers = headers;
    text.body = body;
    HTTPRequest request(text, nullptr, false);
    FdConnectionData connection;
    connection.peerName = ip;
    connection.peerIp = ip;
    return std::unique_ptr<HTTPReply>(d.handleRequest(connection, &request));
  }

  static bool hasHeader(const HTTPReply& r, const std::string& line) {
    for (const Str& h : r._headers) {
      if (h == line) return true;
    }
    return false;
  }

  BundleTree tree;
  SessionManager sessions;
  std::unique_ptr<UserManager> users;
  std::unique_ptr<HTTPAuthManager> auth;
};
