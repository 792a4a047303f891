// The management daemon: the management port on the main thread's event
// loop, the REST dispatcher and the daemon's own endpoints behind it, and a
// shutdown on SIGTERM or SIGINT that lets running requests finish.
#pragma once

#include <cstdint>
#include <memory>

#include "framework/HTTPAuthManager.h"
#include "framework/HTTPRestDispatcher.h"
#include "framework/HTTPScriptHandler.h"
#include "framework/HTTPServer.h"
#include "framework/SessionManager.h"
#include "framework/UserManager.h"
#include "libbundle/BundlesSetup.h"
#include "tools/kestrod/KestrodEndpoints.h"
#include "util/Pathname.h"
#include "util/Str.h"

// The "restmap" categories the daemon loads, each with its handler:
// "serverinfo" and "timestamp" (KestrodEndpoints.h) and "script"
// (HTTPScriptHandler). "/services/auth/login" and "/auth/trustedlogin" are
// the dispatcher's own. Users and roles come from users.conf and
// authorize.conf of the install (UserManager.h).
//
// One per process, on the main thread, after SetupHelper::initCommon.
class Kestrod {
 public:
  // `home` is the install root; `port` the management port (0: any free
  // one).
  Kestrod(const Pathname& home, int port);
  ~Kestrod();
  Kestrod(const Kestrod&) = delete;
  Kestrod& operator=(const Kestrod&) = delete;

  // Reads the port's settings (ManagementPort.h) and the "restmap"
  // categories, attaches the handlers, binds the port, and from then on
  // catches SIGTERM and SIGINT for the loop. The session idle
  // time is sessionTimeout of [general] in "server", in seconds. False, with the
  // reason in *error, when the port cannot be bound.
  bool start(Str* error);
  // "http://127.0.0.1:8089" or "https://...": where the port listens.
  // REQUIRES: start() succeeded.
  Str url() const;
  // Serves until SIGTERM or SIGINT, then runs the server's timed shutdown
  // and joins the request threads that ended. Returns the number of
  // request threads still alive (hung past the shutdown's wait).
  size_t run();

 private:
  void setUpRest();

  Pathname _home;
  int _port;
  HTTPServer& _server;
  HTTPServerConfig _config;
  BundlesSetup _setup;
  UserManager _users;
  SessionManager _sessions;
  HTTPAuthManager _auth;
  std::unique_ptr<HTTPRestDispatcher> _dispatcher;
  std::unique_ptr<ServerInfoHandler> _serverInfo;
  TimestampProbeHandler _probe;
  HTTPScriptHandler _scripts;
};
