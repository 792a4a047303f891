#include "framework/ServerConfig.h"

#include <unistd.h>

#include <climits>
#include <cstring>
#include <exception>

#include "libbundle/PropertiesMap.h"
#include "libbundle/PropertyPages.h"

namespace {

// Without an install root, or with a broken one, the page cannot be made;
// the name then comes from the machine, never from an error.
bool configuredName(Str& out) {
  try {
    PropertyPages* pages = PropertyPages::instance("server");
    PropertiesMap general;
    if (pages == nullptr || !pages->getStanza("general", general)) return false;
    return general.fill("serverName", out);
  } catch (const std::exception&) {
    return false;
  }
}

}  // namespace

const Str& ServerConfig::getServerName() {
  static const Str name = readServerName();
  return name;
}

Str ServerConfig::readServerName() {
  Str name;
  if (configuredName(name)) return name;
  return machineHostName();
}

Str ServerConfig::machineHostName() {
  char buf[HOST_NAME_MAX + 1];
  if (gethostname(buf, sizeof(buf)) != 0) return Str("localhost");
  buf[HOST_NAME_MAX] = '\0';
  if (buf[0] == '\0') return Str("localhost");
  return Str(buf);
}
