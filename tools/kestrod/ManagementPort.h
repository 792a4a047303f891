// The management port as the install configures it: stanza "httpServer" of
// the "server" configuration, with the port from the command line.
#pragma once

#include "framework/HTTPServer.h"
#include "libbundle/PropertiesMap.h"
#include "util/Pathname.h"

// The stanza of "server" that describes the management port.
extern const char* const HTTP_SERVER_STANZA;

// A server configuration for one port entry on `port` (0: any free port),
// from the stanza's settings in `settings`:
//   bindIP       the address to listen on; default "127.0.0.1" (loopback
//                only); "::1" and other IPv6 texts listen on IPv6.
//   serverCert   PEM certificate; with privateKey, the port speaks TLS.
//   privateKey   PEM key of the certificate, unencrypted.
//   maxContentLength   body limit in bytes; default the server's.
// Relative paths are taken under `home`. Handlers are left to the caller.
HTTPServerConfig managementPortConfig(const PropertiesMap& settings, int port,
                                      const Pathname& home);
