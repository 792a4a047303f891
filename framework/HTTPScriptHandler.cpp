#include "framework/HTTPScriptHandler.h"

#include "framework/HTTPReply.h"

HTTPScriptHandler::HTTPScriptHandler(const BundlesSetup& setup, int timeLimitSec)
    : _setup(setup), _timeLimitSec(timeLimitSec) {}

void HTTPScriptHandler::init(std::map<Str, RestMapData*>&, PropertyPages*) {}

HTTPReply* HTTPScriptHandler::handleRequest(const MRestHandlerArg&) {
  return HTTPReply::createErrorXMLReply(501, Str("scripts are not run yet"), Str("ERROR"));
}

Str HTTPScriptHandler::createXMLRequest(const MRestHandlerArg&, const PropertiesMap&) {
  return Str();
}

HTTPReply* HTTPScriptHandler::parseReply(const Str&, const Str&) { return nullptr; }
