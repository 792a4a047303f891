#include "framework/HTTPRestDispatcher.h"

#include <optional>
#include <set>

#include "framework/AtomFeed.h"
#include "framework/HTTPAuthManager.h"
#include "framework/HTTPReply.h"
#include "framework/HTTPRequest.h"
#include "framework/ScopedUserContext.h"
#include "framework/SessionManager.h"
#include "framework/UserManager.h"
#include "libbundle/ApplicationManager.h"
#include "libbundle/ConfPath.h"
#include "libbundle/PropertyPages.h"
#include "libbundle/StanzaCollection.h"
#include "util/Directory.h"
#include "util/Logger.h"
#include "util/Regex.h"
#include "util/SSLPolledFd.h"
#include "util/RegexMatch.h"
#include "util/TcpPolledFd.h"

namespace {

Logger gLogger("HTTPRestDispatcher");

const Str LOGIN_PATH("/auth/login");
const Str TRUSTED_LOGIN_PATH("/auth/trustedlogin");

bool startsWith(const Str& text, const Str& prefix) {
  return text.compare(0, prefix.size(), prefix) == 0;
}

HTTPReply* errorReply(int status, const Str& message, const char* level) {
  return HTTPReply::createErrorXMLReply(status, message, Str(level));
}

HTTPReply* sessionKeyReply(const Str& token) {
  return HTTPReply::createReply(200, Str("text/xml"),
                                std::string("<response>\n<sessionKey>") + token +
                                    "</sessionKey>\n</response>",
                                StrVector());
}

// The three URL forms. The user-only form goes before the user-and-
// application form, which would otherwise take "/servicesNS/admin/" as user
// "admin" with an empty application.
const Regex& plainForm() {
  static const Regex kRegex(Str("^/(services)($|/.*)"));
  return kRegex;
}
const Regex& userOnlyForm() {
  static const Regex kRegex(Str("^/(servicesNS)/([^/]+)/?$"));
  return kRegex;
}
const Regex& namespacedForm() {
  static const Regex kRegex(Str("^/(servicesNS)/([^/]*)/([^/]*)($|/.*)"));
  return kRegex;
}

Str group(const RegexMatch& m, size_t n) {
  Str out;
  m.fetch(n, &out);
  return out;
}

// A user or application section of the URL, decoded unless it is the
// wildcard.
Str decodeSection(const Str& section, bool isUser) {
  if (section == MRestHandlerArg::URL_WILDCARD) return section;
  Str decoded = section;
  if (!decoded.uriDecode()) {
    throw ComponentException(isUser ? std::string("Could not decode user '") + section +
                                          "' due to invalid UTF-8 encoding"
                                    : std::string("Could not unescape application '") + section +
                                          "' due to invalid UTF-8 encoding");
  }
  if (isUser) {
    gLogger.debug("Escaped user URL section: %s -> %s", section.c_str(), decoded.c_str());
  } else {
    gLogger.debug("Escaped application URL section: %s -> %s", section.c_str(),
                  decoded.c_str());
  }
  return decoded;
}

}  // namespace

HTTPRestDispatcher::HTTPRestDispatcher(bool noAuthentication, PropertyPages* restmap)
    : _noAuthentication(noAuthentication) {
  if (restmap != nullptr) {
    PropertiesMap global;
    if (restmap->getStanza(Str("global"), global)) {
      _allowGetAuth = global.toBool(Str("allowGetAuth"), false);
    }
  }
}

HTTPRestDispatcher::~HTTPRestDispatcher() = default;

HTTPRestDispatcher& HTTPRestDispatcher::instance() {
  static HTTPRestDispatcher dispatcher(false, PropertyPages::instance(Str("restmap")));
  return dispatcher;
}

void HTTPRestDispatcher::registerRestDispatcher(std::map<Str, MHttpRequestHandler*>& handlers) {
  MRestHandlerArg::registerBases(this, handlers);
}

void HTTPRestDispatcher::loadConfig(const Str& category, PropertyPages* pages) {
  StanzaCollection stanzas;
  pages->propsObjByPrefixAndMode(std::string(category) + ":", PropertyPages::GET_BY_PREFIX, stanzas);
  ScopedLock hold(_mutex);
  _categoryPages[category] = pages;
  StanzaMap& table = _matchMap[category];
  StanzaMap previous;
  previous.swap(table);
  for (const auto& [stanzaName, props] : stanzas) {
    auto data = std::make_shared<RestMapData>(props);
    const size_t colon = stanzaName.find(':');
    if (colon == Str::npos) {
      gLogger.error("invalid stanza name - no colon %s", stanzaName.c_str());
      continue;
    }
    data->name = stanzaName.substr(colon + 1);
    data->requireAuthentication =
        _noAuthentication ? false : props.toBool(Str("requireAuthentication"), true);
    data->capability = props.get(Str("capability"));
    data->capabilityPost = props.get(Str("capability.post"));
    data->capabilityDelete = props.get(Str("capability.delete"));
    data->capabilityGet = props.get(Str("capability.get"));
    data->capabilityPut = props.get(Str("capability.put"));
    data->spec = props.get(Str("spec"));
    Str match = props.get(Str("match"));
    if (match.empty()) {
      gLogger.error("'match' tag not found in stanza %s", stanzaName.c_str());
      continue;
    }
    if (match[0] != '^') match.insert(0, "^");
    data->match = match;
    try {
      data->regex = std::make_unique<Regex>(match);
    } catch (const RegexException& e) {
      gLogger.error("'match' regex error for stanza %s = %s", stanzaName.c_str(), e.what());
      continue;
    }
    auto old = previous.find(data->name);
    if (old != previous.end()) data->handler = old->second->handler;
    table[data->name] = data;
    gLogger.info("     processed name=%s", data->name.c_str());
  }
}

bool HTTPRestDispatcher::registerHandler(const Str& category, MRestHandler* handler) {
  std::map<Str, RestMapData*> stanzas;
  PropertyPages* pages = nullptr;
  {
    ScopedLock hold(_mutex);
    auto it = _matchMap.find(category);
    if (it == _matchMap.end()) {
      gLogger.error("Cannot register a handler for category %s: it was never loaded",
                    category.c_str());
      return false;
    }
    for (auto& [name, data] : it->second) {
      data->handler = handler;
      stanzas[name] = data.get();
    }
    pages = _categoryPages[category];
  }
  handler->init(stanzas, pages);
  return true;
}

bool HTTPRestDispatcher::reloadHandlerConfig(const Str& category, MRestHandler* handler) {
  PropertyPages* pages = nullptr;
  {
    ScopedLock hold(_mutex);
    auto it = _categoryPages.find(category);
    if (it != _categoryPages.end()) pages = it->second;
  }
  if (pages == nullptr) {
    gLogger.error("Cannot reload category %s: it was never loaded", category.c_str());
    return false;
  }
  pages->updateConfigs();
  loadConfig(category, pages);
  return registerHandler(category, handler);
}

void HTTPRestDispatcher::setAuthManager(HTTPAuthManager* auth) {
  ScopedLock hold(_mutex);
  _authManager = auth;
}

void HTTPRestDispatcher::setFullAuthentication(bool full) {
  ScopedLock hold(_mutex);
  _fullAuthentication = full;
}

void HTTPRestDispatcher::setBundlesSetup(const BundlesSetup& setup) {
  ScopedLock hold(_mutex);
  _setup = setup;
}

BundlesSetup HTTPRestDispatcher::getBundlesSetup() {
  ScopedLock hold(_mutex);
  return _setup;
}

HTTPReply* HTTPRestDispatcher::handleRequest(const Str& peer, HTTPRequest* request) {
  FdConnectionData connection;
  connection.peerName = peer;
  connection.peerIp = peer;
  if (TcpPolledFd* fd = request->polledFd()) {
    connection.peerIp = fd->peerIp();
    connection.peerPort = fd->peerPort();
    connection.ssl = dynamic_cast<SSLPolledFd*>(fd) != nullptr;
  }
  return handleRequest(connection, request);
}

HTTPReply* HTTPRestDispatcher::handleRequest(const FdConnectionData& connection,
                                             const HTTPRequest* request) {
  RemoteLoginInfo remote(connection);
  MRestHandlerArg arg(connection, request);
  HTTPReply* reply = nullptr;
  try {
    reply = setupRestHandlerArg(arg);
    if (reply == nullptr && !arg.getRestPath().empty()) reply = internal_dispatch(arg, remote);
  } catch (const ComponentException& e) {
    gLogger.warn("%s", e.what());
    reply = errorReply(400, Str(e.what()), "WARN");
  }
  if (reply == nullptr) reply = HTTPReply::createNotFoundErrorReply();
  addDefaultHeaders(reply);
  return reply;
}

HTTPReply* HTTPRestDispatcher::setupRestHandlerArg(MRestHandlerArg& arg) {
  const HTTPRequest* request = arg.getRestRequest();
  HTTPRequest::parseEncodedString(request->body(), arg.restPostArgs());
  StrVector words;
  request->getMethodComponents(words);
  if (words.size() < 2) return HTTPReply::createNotFoundErrorReply();
  arg.setRestMethod(words[0]);
  Str url;
  HTTPRequest::parseGetParams(words[1], url, arg.restGetArgs());

  gLogger.debug("Preparing to handle URL: %s", url.c_str());
  MRestHandlerContext& context = arg.restHandlerContext();
  context.setRestUserToWildcard();
  context.setRestApplicationToWildcard();

  RegexMatch m;
  Str user = MRestHandlerArg::URL_WILDCARD;
  Str application = MRestHandlerArg::URL_WILDCARD;
  bool userOnly = false;
  if (plainForm().matchesWhole(url, &m)) {
    arg.setRestBase(group(m, 0));
    arg.setRestPath(group(m, 1));
  } else if (userOnlyForm().matchesWhole(url, &m)) {
    arg.setRestBase(group(m, 0));
    user = group(m, 1);
    userOnly = true;
  } else if (namespacedForm().matchesWhole(url, &m)) {
    arg.setRestBase(group(m, 0));
    user = group(m, 1);
    application = group(m, 2);
    arg.setRestPath(group(m, 3));
  } else {
    gLogger.warn("Cannot handle URL: %s", url.c_str());
    return HTTPReply::createNotFoundErrorReply();
  }
  user = decodeSection(user, true);
  application = decodeSection(application, false);
  context.setRestUser(User(user));
  context.setRestApplication(application);

  const BundlesSetup setup = getBundlesSetup();
  if (!context.isWildcardRestUser() && !context.getRestUser().isSameUser(ConfPath::getDefaultUser())) {
    HTTPAuthManager* auth;
    {
      ScopedLock hold(_mutex);
      auth = _authManager;
    }
    if (auth == nullptr || !auth->userManager().userExists(user)) {
      return errorReply(404, std::string("User does not exist: ") + user, "WARN");
    }
  }
  if (!context.isWildcardRestApplication()) {
    ApplicationInfo info;
    if (!ApplicationManager::instance(setup).getApplicationInfo(application, info) ||
        info.disabled) {
      return errorReply(404, std::string("Application is disabled: ") + application, "WARN");
    }
  }
  arg.setRestPPC(PropertyPagesContext(
      setup, context.isWildcardRestUser() ? User() : User(user),
      context.isWildcardRestApplication() ? Str() : application));

  if (userOnly) {
    gLogger.debug("Only has user: %s", user.c_str());
    return createApplicationListReply(arg);
  }
  if (arg.getRestPath().empty() || arg.getRestPath() == "/") {
    gLogger.debug("At base URL: %s", url.c_str());
    arg.setRestPath(Str());
    return createListReply(arg);
  }
  return nullptr;
}

std::shared_ptr<RestMapData> HTTPRestDispatcher::findMatch(const Str& path) {
  ScopedLock hold(_mutex);
  for (const auto& [category, table] : _matchMap) {
    for (const auto& [name, data] : table) {
      gLogger.debug("path=%s regex=%s", path.c_str(), data->match.c_str());
      if (data->regex->matches(path)) {
        gLogger.debug("      we have a match...");
        return data;
      }
    }
  }
  return nullptr;
}

HTTPReply* HTTPRestDispatcher::internal_dispatch(MRestHandlerArg& arg,
                                                 const RemoteLoginInfo& remote) {
  const Str& path = arg.getRestPath();
  if (startsWith(path, LOGIN_PATH)) return authAndReply(arg, remote, false);
  if (startsWith(path, TRUSTED_LOGIN_PATH)) return authAndReply(arg, remote, true);

  std::shared_ptr<RestMapData> match = findMatch(path);
  if (match == nullptr) return HTTPReply::createNotFoundErrorReply();
  if (match->handler == nullptr) {
    const Str message = std::string("Service was not registered but is in restmap.con - ") + match->name;
    gLogger.error("%s", message.c_str());
    return errorReply(500, message, "ERROR");
  }

  HTTPAuthManager* auth;
  {
    ScopedLock hold(_mutex);
    auth = _authManager;
  }
  Str user;
  std::optional<ScopedUserContext> userContext;
  if (match->requireAuthentication) {
    if (auth == nullptr) return errorReply(401, Str("Unauthorized: no authentication"), "WARN");
    AuthResult result;
    Str reason;
    if (!auth->authenticate(arg, remote, reason, result)) {
      return result.reply != nullptr ? result.reply.release()
                                     : errorReply(401, reason, "WARN");
    }
    user = result.user;
    if (!result.sessionToken.empty()) {
      SessionInfo session;
      if (!auth->sessionManager().getSessionInfo(result.sessionToken, session)) {
        return errorReply(401, std::string("Invalid session token: ") + result.sessionToken, "WARN");
      }
      user = session.user;
    }
    userContext.emplace(User(user), result.sessionToken);
    UserInfo info;
    if (auth->userManager().getUserInfo(user, info)) userContext->setTimezone(info.tz);
  }

  const LStrContainer& capability = match->capabilityFor(arg.getRestMethod());
  if (!capability.empty() && !_noAuthentication) {
    if (auth == nullptr || user.empty() ||
        !auth->userManager().hasCapability(user, capability.str(), std::string("REST: ") + path)) {
      return errorReply(403, std::string("Permission denied: capability '") + capability.str() +
                                 "' is needed for " + path,
                        "WARN");
    }
  }

  arg.setRestmapName(match->name);
  HTTPReply* reply = match->handler->handleRequestNS(arg);
  if (reply == nullptr) {
    if (arg.isRestBaseLegacy()) {
      reply = match->handler->handleRequest(arg);
    } else {
      gLogger.debug("REST handler '%s' cannot be accessed through %s", match->name.c_str(),
                    arg.getRestBase().c_str());
    }
  }
  if (reply != nullptr && !user.empty() && reply->getUserWhoLoggedIn().empty()) {
    reply->setUserWhoLoggedIn(user);
  }
  return reply;
}

void HTTPRestDispatcher::headerIncludesCacheOrExpires(const HTTPReply* reply, bool& expires,
                                                      bool& cacheControl) {
  expires = false;
  cacheControl = false;
  for (const Str& h : reply->_headers) {
    if (startsWith(h, Str("Expires:")) || startsWith(h, Str("expires:"))) expires = true;
    if (startsWith(h, Str("Cache-Control:")) || startsWith(h, Str("cache-control:"))) {
      cacheControl = true;
    }
  }
}

void HTTPRestDispatcher::addDefaultHeaders(HTTPReply* reply) {
  bool expires, cacheControl;
  headerIncludesCacheOrExpires(reply, expires, cacheControl);
  if (!expires) reply->_headers.push_back(Str(DEFAULT_EXPIRES));
  if (!cacheControl) reply->_headers.push_back(Str(DEFAULT_CACHE_CONTROL));
}

HTTPReply* HTTPRestDispatcher::authAndReply(const MRestHandlerArg& arg,
                                            const RemoteLoginInfo& remote, bool trusted) {
  HTTPAuthManager* auth;
  bool full;
  {
    ScopedLock hold(_mutex);
    auth = _authManager;
    full = _fullAuthentication;
  }
  const Str& user = arg.getArg(Str("username"));
  Str token;
  if (!trusted) {
    if (!full) {
      return errorReply(403, Str("Login is restricted: full authentication is not licensed"),
                        "WARN");
    }
    if (auth == nullptr || user.empty() ||
        !auth->login(user, arg.getArg(Str("password")), token)) {
      gLogger.warn("Failed login for user '%s' from IP '%s'", user.c_str(), remote.ip().c_str());
      return errorReply(401, Str("Login failed"), "WARN");
    }
    return sessionKeyReply(token);
  }

  PropertiesMap general;
  PropertyPages* server = PropertyPages::instance(
      Str("server"), PropertyPagesContext(getBundlesSetup(), User(), Str()));
  server->getStanza(Str("general"), general);
  const Str& trustedIP = general.get(Str("trustedIP"));
  Str message;
  if (trustedIP.empty()) {
    message = "SSO failed - Could not find 'trustedIP' key in server.conf under the general stanza";
  } else if (remote.ip() != trustedIP) {
    message.format("SSO failed - Given IP '%s' does not match trusted IP '%s'",
                   remote.ip().c_str(), trustedIP.c_str());
  } else if (auth == nullptr || !auth->userManager().userExists(user)) {
    message.format("SSO failed - User does not exist: %s", user.c_str());
  }
  if (message.empty()) {
    gLogger.info("SSO - Accepting trusted login for user '%s' from IP '%s'", user.c_str(),
                 remote.ip().c_str());
    if (auth->trustedLogin(user, token)) return sessionKeyReply(token);
    message.format("SSO failed - User is disabled: %s", user.c_str());
  }
  gLogger.error("%s", message.c_str());
  return errorReply(401, message, "ERROR");
}

HTTPReply* HTTPRestDispatcher::createListReply(const MRestHandlerArg& arg) {
  Str base = std::string("/") + arg.getRestBase();
  if (!arg.isRestBaseLegacy()) {
    base += "/" + arg.getRestHandlerContext().getRestUser().name() + "/" +
            arg.getRestHandlerContext().getRestApplication();
  }
  AtomFeed_new feed;
  feed.title = arg.getRestBase();
  feed.id = base;
  feed.author = "Kestrod";
  feed.updated = AtomFeed_new::formatTime(Timeval::now().tv_sec);
  {
    ScopedLock hold(_mutex);
    for (const auto& [category, table] : _matchMap) {
      for (const auto& [name, data] : table) {
        AtomEntry entry;
        entry.title = name;
        entry.id = std::string(base) + "/" + name;
        entry.links.emplace_back(entry.id, Str("list"));
        entry.fields[Str("category")] = category;
        entry.fields[Str("match")] = data->match;
        feed.entries.push_back(entry);
      }
    }
  }
  HTTPReply* reply = HTTPReply::createAtomReply(feed);
  reply->_headers.push_back(Str("Cache-Control: no-cache"));
  return reply;
}

HTTPReply* HTTPRestDispatcher::createApplicationListReply(const MRestHandlerArg& arg) {
  const BundlesSetup setup = getBundlesSetup();
  const Str base = std::string("/servicesNS/") + arg.getRestHandlerContext().getRestUser().name();
  AtomFeed_new feed;
  feed.title = "applications";
  feed.id = base;
  feed.author = "Kestrod";
  feed.updated = AtomFeed_new::formatTime(Timeval::now().tv_sec);
  std::set<Str> names;
  DirectoryIterator dir(setup.getApps());
  for (Pathname leaf; dir.getNext(leaf);) {
    if (leaf[0] != '.') names.insert(Str(leaf));
  }
  for (const Str& name : names) {
    ApplicationInfo info;
    if (!ApplicationManager::instance(setup).getApplicationInfo(name, info)) continue;
    AtomEntry entry;
    entry.title = name;
    entry.id = std::string(base) + "/" + name;
    entry.links.emplace_back(entry.id, Str("list"));
    entry.fields[Str("disabled")] = info.disabled ? "1" : "0";
    feed.entries.push_back(entry);
  }
  return HTTPReply::createAtomReply(feed);
}
