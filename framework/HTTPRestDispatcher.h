// The REST dispatcher of the management port: turns "/services/..." and
// "/servicesNS/<user>/<application>/..." into a user and application
// context, finds the "restmap" stanza whose pattern matches the rest of the
// path, checks authentication and capability, and hands the request to the
// MRestHandler registered for that stanza.
//
// URL forms, tried in this order, each against the whole URL path:
//   /services, /services/           the endpoint list (createListReply)
//   /services/<path>                user and application "-"
//   /servicesNS/<user>/<app><path>  "/servicesNS//search" has user ""
//   /servicesNS/<user>, .../<user>/ the application list
// Stanzas are tried in the order of category and name, bytewise; the first
// whose pattern matches the path from its start wins.
#pragma once

#include <map>
#include <memory>

#include "framework/HTTPServer.h"
#include "framework/RestHandler.h"
#include "libbundle/BundlesSetup.h"
#include "util/Mutex.h"
#include "util/Str.h"

class HTTPAuthManager;
class PropertyPages;
class RemoteLoginInfo;

// Built once; every public method is safe from any thread. The table is
// under _mutex; a request keeps the stanza it matched alive (shared_ptr)
// even when its category is loaded again meanwhile.
class HTTPRestDispatcher : public MHttpRequestHandler {
 public:
  // "Expires" and "Cache-Control" values that every reply gets unless its
  // handler set its own.
  static constexpr const char* DEFAULT_EXPIRES = "Expires: Fri, 30 Oct 1998 00:00:00 GMT";
  static constexpr const char* DEFAULT_CACHE_CONTROL =
      "Cache-Control: no-store, max-age=0, must-revalidate, no-cache";

  // With `noAuthentication` no stanza requires authentication and no
  // capability is checked. `restmap` (borrowed, may be null) is read for
  // "allowGetAuth" of stanza "global".
  explicit HTTPRestDispatcher(bool noAuthentication, PropertyPages* restmap = nullptr);
  ~HTTPRestDispatcher() override;

  // The process's dispatcher: authentication on, "restmap" of the default
  // root.
  static HTTPRestDispatcher& instance();

  // MRestHandlerArg::registerBases for this dispatcher.
  void registerRestDispatcher(std::map<Str, MHttpRequestHandler*>& handlers);

  // Reads every stanza "<category>:<name>" of `pages` (borrowed, kept for
  // reloadHandlerConfig), replacing what the category held. Bad stanzas
  // are logged and dropped; handlers already attached to the category stay
  // attached to the stanzas of the same name.
  void loadConfig(const Str& category, PropertyPages* pages);
  // Attaches `handler` (borrowed) to every stanza of `category` and calls
  // its init. False, logged, when the category was never loaded.
  bool registerHandler(const Str& category, MRestHandler* handler);
  // loadConfig from the same pages again, then registerHandler.
  bool reloadHandlerConfig(const Str& category, MRestHandler* handler);

  // Identity. `auth` is borrowed; without one, every request that needs
  // authentication is refused and no user in a URL exists.
  void setAuthManager(HTTPAuthManager* auth);
  // The licence's word on full authentication; true by default.
  void setFullAuthentication(bool full);
  // The root whose applications and "server" settings are consulted; the
  // default root unless set.
  void setBundlesSetup(const BundlesSetup& setup);
  bool allowGetAuth() const { return _allowGetAuth; }

  // MHttpRequestHandler. `peer` is the peer's name; its address and port
  // are taken from the request's connection when it has one.
  HTTPReply* handleRequest(const Str& peer, HTTPRequest* request) override;
  // The same, for a connection already described.
  HTTPReply* handleRequest(const FdConnectionData& connection, const HTTPRequest* request);

  // Adds the default "Expires" and "Cache-Control" headers unless the reply
  // has its own (a header line starting "Expires:", "expires:",
  // "Cache-Control:" or "cache-control:").
  static void addDefaultHeaders(HTTPReply* reply);
  static void headerIncludesCacheOrExpires(const HTTPReply* reply, bool& expires,
                                           bool& cacheControl);

  // The login steps for "/auth/login" (`trusted` false) or
  // "/auth/trustedlogin": the session key document, or an error reply.
  HTTPReply* authAndReply(const MRestHandlerArg& arg, const RemoteLoginInfo& remote,
                          bool trusted);
  // The endpoints as an Atom feed (AtomFeed.h): one entry per stanza, in
  // table order, titled by its name, with its "match" and category as
  // fields. "Cache-Control: no-cache".
  HTTPReply* createListReply(const MRestHandlerArg& arg);
  // The applications of the root as an Atom feed: one entry per
  // application directory, in name order, with the field "disabled" ("0"
  // or "1").
  HTTPReply* createApplicationListReply(const MRestHandlerArg& arg);

  // Parses the request into `arg`: arguments, method, base, path and
  // context. Returns a reply that ends the request (the lists, not found,
  // an unknown user or disabled application), or null to go on. Throws
  // ComponentException for a user or application that does not decode.
  HTTPReply* setupRestHandlerArg(MRestHandlerArg& arg);

 private:
  typedef std::map<Str, std::shared_ptr<RestMapData>> StanzaMap;

  // The stanza whose pattern matches `path` first; null when none does.
  std::shared_ptr<RestMapData> findMatch(const Str& path);
  HTTPReply* internal_dispatch(MRestHandlerArg& arg, const RemoteLoginInfo& remote);
  BundlesSetup getBundlesSetup();

  Mutex _mutex;
  std::map<Str, StanzaMap> _matchMap;              // GUARDED_BY(_mutex), by category
  std::map<Str, PropertyPages*> _categoryPages;    // GUARDED_BY(_mutex)
  HTTPAuthManager* _authManager = nullptr;         // GUARDED_BY(_mutex)
  BundlesSetup _setup;                             // GUARDED_BY(_mutex)
  bool _fullAuthentication = true;                 // GUARDED_BY(_mutex)
  const bool _noAuthentication;
  bool _allowGetAuth = false;  // read at construction
};
