#include "tools/kestrod/KestrodEndpoints.h"

#include <unistd.h>

#include "framework/AtomFeed.h"
#include "framework/HTTPReply.h"
#include "framework/ScopedUserContext.h"
#include "libbundle/PropertyPages.h"
#include "tools/kestrod/TimestampProbe.h"
#include "util/Timeval.h"

const char* const KESTROD_VERSION = "1.0";

namespace {

Str hostName() {
  char name[256] = {};
  if (gethostname(name, sizeof name - 1) != 0) return Str("localhost");
  return Str(name);
}

// A request in another user's namespace ("/servicesNS/<user>/...") is
// served only to a user who may act for others: the refusal, or null.
HTTPReply* refuseOtherUsersNamespace(const MRestHandlerArg& arg) {
  try {
    PropertyPages::canContextBeUsed(arg.getRestPPC());
  } catch (const PropertyPagesException& e) {
    return HTTPReply::createErrorXMLReply(403, Str(e.what()), Str("WARN"));
  }
  return nullptr;
}

}  // namespace

ServerInfoHandler::ServerInfoHandler(int64_t startupTime, const HTTPServer* server)
    : _startupTime(startupTime), _server(server) {}

HTTPReply* ServerInfoHandler::handleRequestNS(const MRestHandlerArg& arg) {
  if (HTTPReply* refusal = refuseOtherUsersNamespace(arg)) return refusal;
  AtomFeed_new feed;
  feed.title = "server-info";
  feed.id = "/services/server/info";
  feed.updated = AtomFeed_new::formatTime(Timeval::now().tv_sec);
  feed.author = "Kestrod";
  AtomEntry entry;
  entry.title = "server-info";
  entry.id = feed.id;
  entry.id.append("/server-info");
  entry.updated = feed.updated;
  entry.links.emplace_back(entry.id, Str("list"));
  entry.fields[Str("serverName")] = hostName();
  entry.fields[Str("version")] = KESTROD_VERSION;
  entry.fields[Str("startupTime")] = AtomFeed_new::formatTime(_startupTime);
  entry.fields[Str("managementPort")] = Str().format("%u", static_cast<unsigned>(_server->boundPort(0)));
  User user;
  ScopedUserContext::getCurrentUser(user);
  entry.fields[Str("user")] = user.name();
  feed.entries.push_back(entry);
  return HTTPReply::createAtomReply(feed);
}

HTTPReply* TimestampProbeHandler::handleRequestNS(const MRestHandlerArg& arg) {
  if (HTTPReply* refusal = refuseOtherUsersNamespace(arg)) return refusal;
  const Str& line = arg.getArg(Str("line"));
  if (arg.getRestPostArgs().count(Str("line")) == 0 &&
      arg.getRestGetArgs().count(Str("line")) == 0) {
    return HTTPReply::createErrorXMLReply(400, Str("Missing argument: line"), Str("ERROR"));
  }
  const Str text = probeTimestamp(_home, line, arg.getArg(Str("context")));
  return HTTPReply::createReply(200, Str("text/plain"), text, StrVector());
}
