#include "framework/RestHandler.h"

#include "framework/HTTPRestDispatcher.h"
#include "util/Regex.h"

const Str MRestHandlerArg::URL_WILDCARD("-");
const Str MRestHandlerArg::BASE_LEGACY("services");
const Str MRestHandlerArg::BASE_NS("servicesNS");

RestMapData::RestMapData(const PropertiesMap& props) : PropertiesMap(props) {}

RestMapData::~RestMapData() = default;

const LStrContainer& RestMapData::capabilityFor(const Str& method) const {
  const LStrContainer* own = nullptr;
  if (method == "POST") {
    own = &capabilityPost;
  } else if (method == "GET") {
    own = &capabilityGet;
  } else if (method == "PUT") {
    own = &capabilityPut;
  } else if (method == "DELETE") {
    own = &capabilityDelete;
  }
  return own != nullptr && !own->empty() ? *own : capability;
}

MRestHandlerContext::MRestHandlerContext()
    : _restUser(MRestHandlerArg::URL_WILDCARD), _restApplication(MRestHandlerArg::URL_WILDCARD) {}

void MRestHandlerContext::setRestUserToWildcard() { _restUser = User(MRestHandlerArg::URL_WILDCARD); }

void MRestHandlerContext::setRestApplicationToWildcard() {
  _restApplication = MRestHandlerArg::URL_WILDCARD;
}

bool MRestHandlerContext::isWildcardRestUser() const {
  return _restUser.name() == MRestHandlerArg::URL_WILDCARD;
}

bool MRestHandlerContext::isWildcardRestApplication() const {
  return _restApplication == MRestHandlerArg::URL_WILDCARD;
}

MRestHandlerArg::MRestHandlerArg(const FdConnectionData& connection, const HTTPRequest* request)
    : _connection(connection), _request(request) {}

void MRestHandlerArg::registerBases(HTTPRestDispatcher* dispatcher,
                                    std::map<Str, MHttpRequestHandler*>& handlers) {
  handlers[std::string("/") + BASE_LEGACY] = dispatcher;
  handlers[std::string("/") + BASE_NS] = dispatcher;
}

const Str& MRestHandlerArg::getArg(const Str& name) const {
  for (const ArgMap* args : {&_postArgs, &_getArgs}) {
    auto it = args->find(name);
    if (it != args->end() && !it->second.empty()) return it->second.front();
  }
  return Str::EMPTY_STR;
}

void MRestHandler::init(std::map<Str, RestMapData*>&, PropertyPages*) {}

HTTPReply* MRestHandler::handleRequest(const MRestHandlerArg&) { return nullptr; }

HTTPReply* MRestHandler::handleRequestNS(const MRestHandlerArg&) { return nullptr; }
