// What a REST endpoint sees of one request, and the interface endpoints
// implement: the stanza of "restmap" that routes to it (RestMapData), the
// user and application of the URL (MRestHandlerContext), the parsed
// request (MRestHandlerArg) and the handler itself (MRestHandler).
#pragma once

#include <map>
#include <memory>
#include <stdexcept>

#include "libbundle/PropertiesMap.h"
#include "libbundle/PropertyPagesContext.h"
#include "libbundle/User.h"
#include "util/LStrContainer.h"
#include "util/Str.h"
#include "util/StrVector.h"

class HTTPReply;
class HTTPRequest;
class HTTPRestDispatcher;
class MHttpRequestHandler;
class PropertyPages;
class Regex;

// A request that cannot be served because of its own contents (a URL
// section that does not decode, say). what() is the message for the client.
class ComponentException : public std::runtime_error {
 public:
  explicit ComponentException(const Str& message) : std::runtime_error(message) {}
};

// The far side of a connection: the peer's name (its address unless the
// server resolves names), whether it came over TLS, its address and port.
// A plain value.
struct FdConnectionData {
  Str peerName;
  bool ssl = false;
  Str peerIp;
  unsigned short peerPort = 0;
};

class MRestHandler;

// One stanza "<category>:<name>" of "restmap": its settings, and what the
// dispatcher made of them. Immutable once loaded; shared by the requests
// that use it, so safe from any thread.
class RestMapData : public PropertiesMap {
 public:
  explicit RestMapData(const PropertiesMap& props);
  ~RestMapData();

  MRestHandler* handler = nullptr;  // borrowed; null until registered
  Str name;                          // after the first ":"
  Str match;                         // the pattern, always starting "^"
  std::unique_ptr<Regex> regex;      // `match` compiled
  bool requireAuthentication = true;
  LStrContainer capability;
  LStrContainer capabilityPost;
  LStrContainer capabilityDelete;
  LStrContainer capabilityGet;
  LStrContainer capabilityPut;
  Str spec;

  // The capability a request of `method` ("GET", "POST", "PUT", "DELETE")
  // needs: that method's own when set, else "capability"; empty for none.
  const LStrContainer& capabilityFor(const Str& method) const;
};

// The user and application named by the URL. "-" (URL_WILDCARD) in either
// place stands for all of them. A plain value.
class MRestHandlerContext {
 public:
  MRestHandlerContext();
  void setRestUserToWildcard();
  void setRestApplicationToWildcard();
  bool isWildcardRestUser() const;
  bool isWildcardRestApplication() const;
  const User& getRestUser() const { return _restUser; }
  const Str& getRestApplication() const { return _restApplication; }
  void setRestUser(const User& user) { _restUser = user; }
  void setRestApplication(const Str& application) { _restApplication = application; }

 private:
  User _restUser;
  Str _restApplication;
};

// One request as the dispatcher parsed it. Made and owned by the request's
// thread; handlers get it const.
class MRestHandlerArg {
 public:
  typedef std::map<Str, StrVector> ArgMap;

  // "-": all users, or all applications.
  static const Str URL_WILDCARD;
  // "services" and "servicesNS".
  static const Str BASE_LEGACY;
  static const Str BASE_NS;

  MRestHandlerArg(const FdConnectionData& connection, const HTTPRequest* request);

  // Enters `dispatcher` in `handlers` under "/services" and "/servicesNS",
  // the URL bases the server hands to it.
  static void registerBases(HTTPRestDispatcher* dispatcher,
                            std::map<Str, MHttpRequestHandler*>& handlers);

  const FdConnectionData& getRestConnectionData() const { return _connection; }
  const HTTPRequest* getRestRequest() const { return _request; }
  const Str& getRestMethod() const { return _method; }
  const ArgMap& getRestPostArgs() const { return _postArgs; }
  const ArgMap& getRestGetArgs() const { return _getArgs; }
  const Str& getRestBase() const { return _base; }
  const Str& getRestPath() const { return _path; }
  const Str& getRestmapName() const { return _restmapName; }
  const MRestHandlerContext& getRestHandlerContext() const { return _context; }
  const PropertyPagesContext& getRestPPC() const { return _ppc; }
  // The base is "services": the form without user and application.
  bool isRestBaseLegacy() const { return _base == BASE_LEGACY; }
  // The first value of argument `name` (post arguments, then get
  // arguments); empty when there is none.
  const Str& getArg(const Str& name) const;

  // Set while the dispatcher parses and routes.
  void setRestPPC(const PropertyPagesContext& ppc) { _ppc = ppc; }
  void setRestmapName(const Str& name) { _restmapName = name; }
  MRestHandlerContext& restHandlerContext() { return _context; }
  void setRestMethod(const Str& method) { _method = method; }
  void setRestBase(const Str& base) { _base = base; }
  void setRestPath(const Str& path) { _path = path; }
  ArgMap& restPostArgs() { return _postArgs; }
  ArgMap& restGetArgs() { return _getArgs; }

 private:
  FdConnectionData _connection;
  const HTTPRequest* _request;  // borrowed
  Str _method;
  ArgMap _postArgs;
  ArgMap _getArgs;
  Str _base;
  Str _path;
  Str _restmapName;
  MRestHandlerContext _context;
  PropertyPagesContext _ppc;
};

// An endpoint. Called on request threads, possibly several at once:
// implementations are safe from any thread.
class MRestHandler {
 public:
  virtual ~MRestHandler() = default;
  // Called when the handler is attached to the stanzas of a category
  // (`stanzas`, by name, owned by the dispatcher and alive until the
  // category is loaded again), with the page they were read from (may be
  // null). The default does nothing.
  virtual void init(std::map<Str, RestMapData*>& stanzas, PropertyPages* restmap);
  // The answer, allocated with new, or null to pass. handleRequestNS is
  // tried first for every request; handleRequest only serves what it
  // leaves on the "services" base. Both default to null.
  virtual HTTPReply* handleRequest(const MRestHandlerArg& arg);
  virtual HTTPReply* handleRequestNS(const MRestHandlerArg& arg);
};
