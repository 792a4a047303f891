// The server's own identity as events see it: the host name that an event
// gets when its input names no host.
#pragma once

#include "util/Str.h"

// Thread story: getServerName reads once per process, under the guard of a
// function-local static, and is then immutable; readServerName keeps no
// state and may run on any thread.
class ServerConfig {
 public:
  // The value readServerName gave on the first call of the process. The
  // reference is valid for the life of the process.
  static const Str& getServerName();

  // Reads the name afresh: setting "serverName" of stanza [general] in the
  // "server" configuration, through the property pages, when it has a
  // non-empty value (taken verbatim, blanks trimmed by the ini reader);
  // otherwise the machine's host name (gethostname); "localhost" when the
  // machine gives none. A process without any configuration (tools, tests
  // with no install root) simply gets the machine's name.
  static Str readServerName();

  // The machine's host name, or "localhost" when it has none or the call
  // fails.
  static Str machineHostName();
};
