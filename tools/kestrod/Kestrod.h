// The management daemon: the management port on the main thread's event
// loop, the REST dispatcher and the daemon's own endpoints behind it, and a
// shutdown on SIGTERM or SIGINT that lets running requests finish.
#pragma once

#include <cstdint>

#include "framework/HTTPServer.h"
#include "util/Pathname.h"
#include "util/Str.h"

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
  // endpoints, registers the handlers and binds the port. False, with the
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
  Pathname _home;
  int _port;
  HTTPServer& _server;
  HTTPServerConfig _config;
};
