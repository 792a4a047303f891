#include "tools/kestrod/ManagementPort.h"

#include <netinet/in.h>

const char* const HTTP_SERVER_STANZA = "httpServer";

namespace {

Str underHome(const Str& path, const Pathname& home) {
  if (path.empty() || path[0] == '/') return path;
  return Str((home / path).c_str());
}

}  // namespace

HTTPServerConfig managementPortConfig(const PropertiesMap& settings, int port,
                                      const Pathname& home) {
  HTTPServerConfig config;
  HTTPServerConfig::HTTPPortEntry entry;
  entry.port = static_cast<uint16_t>(port);
  entry.ip = settings.get(Str("bindIP"));
  if (entry.ip.empty()) entry.ip = "127.0.0.1";
  entry.family = entry.ip.find(':') != Str::npos ? AF_INET6 : AF_INET;
  config._sslCertPath = underHome(settings.get(Str("serverCert")), home);
  config._sslKeyPath = underHome(settings.get(Str("privateKey")), home);
  entry.ssl = !config._sslCertPath.empty() && !config._sslKeyPath.empty();
  unsigned long long maxContent = 0;
  if (settings.tryToUnsignedLongLong(Str("maxContentLength"), maxContent) && maxContent > 0) {
    config.max_content_length = static_cast<int64_t>(maxContent);
  }
  config._portList.push_back(entry);
  return config;
}
