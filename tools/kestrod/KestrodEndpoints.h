// The daemon's own REST endpoints, attached to their "restmap" categories:
//
//   category "serverinfo"  (shipped: [serverinfo:server-info], match
//   "/server/info")  GET: the server as an Atom feed (AtomFeed.h) of one
//   entry titled "server-info" whose fields are "serverName" (the host
//   name), "version", "startupTime" (Atom date), "managementPort" (the
//   bound port) and "user" (the authenticated user).
//
//   category "timestamp"  (shipped: [timestamp:probe], match
//   "/timestamp/probe")  GET or POST with the arguments "line" (required)
//   and "context" (optional, "*" when absent; a sourcetype,
//   "source::<file>" or "host::<name>", as dateprobe takes it): text/plain,
//   exactly what `dateprobe "<line>" "<context>"` prints. Without "line":
//   400 with the XML message "Missing argument: line".
//
// Both answer in another user's namespace ("/servicesNS/<user>/...") only
// to a user who may act for others (capability "admin_all_objects"); anyone
// else gets 403 with "User '<who>' could not act as: <user>".
#pragma once

#include <cstdint>

#include "framework/HTTPServer.h"
#include "framework/RestHandler.h"
#include "util/Pathname.h"
#include "util/Str.h"

// The version the daemon reports.
extern const char* const KESTROD_VERSION;

// Immutable after construction: safe from any thread.
class ServerInfoHandler : public MRestHandler {
 public:
  // `server` (borrowed) is asked for its bound port.
  ServerInfoHandler(int64_t startupTime, const HTTPServer* server);
  HTTPReply* handleRequestNS(const MRestHandlerArg& arg) override;

 private:
  int64_t _startupTime;
  const HTTPServer* _server;
};

// Immutable after construction: safe from any thread. Each request builds
// its own parser.
class TimestampProbeHandler : public MRestHandler {
 public:
  explicit TimestampProbeHandler(const Pathname& home) : _home(home) {}
  HTTPReply* handleRequestNS(const MRestHandlerArg& arg) override;

 private:
  Pathname _home;
};
