#include "tools/kestrod/Kestrod.h"

#include <signal.h>

#include "libbundle/PropertyPages.h"
#include "libbundle/UserInfoProvider.h"
#include "tools/kestrod/ManagementPort.h"
#include "util/ConditionWaitTimeout.h"
#include "util/Logger.h"
#include "util/MainThread.h"

namespace {

Logger gLogger("Kestrod");

// How long run() waits, after the loop ended, for request threads that are
// just finishing.
constexpr int FINAL_JOIN_TRIES = 20;
constexpr long FINAL_JOIN_WAIT_NS = 50 * 1000 * 1000;

}  // namespace

Kestrod::Kestrod(const Pathname& home, int port)
    : _home(home), _port(port), _server(HTTPServer::instance()), _users(_setup),
      _auth(_users, _sessions), _probe(home), _scripts(_setup) {}

Kestrod::~Kestrod() { UserInfoProviderRegistry::unregisterProvider(&_users); }

void Kestrod::setUpRest() {
  UserInfoProviderRegistry::registerProvider(&_users);
  PropertyPages* restmap =
      PropertyPages::instance(Str("restmap"), PropertyPagesContext(_setup, User(), Str()));
  _dispatcher = std::make_unique<HTTPRestDispatcher>(false, restmap);
  _auth.setAllowGetAuth(_dispatcher->allowGetAuth());
  _dispatcher->setAuthManager(&_auth);
  _dispatcher->setBundlesSetup(_setup);
  const std::pair<const char*, MRestHandler*> categories[] = {
      {"serverinfo", _serverInfo.get()}, {"timestamp", &_probe}, {"script", &_scripts}};
  for (const auto& [category, handler] : categories) {
    _dispatcher->loadConfig(Str(category), restmap);
    _dispatcher->registerHandler(Str(category), handler);
  }
  _dispatcher->registerRestDispatcher(_config._handlers);
}

bool Kestrod::start(Str* error) {
  PropertyPages* server = PropertyPages::instance(Str("server"));
  PropertiesMap settings;
  server->getStanza(Str(HTTP_SERVER_STANZA), settings);
  _config = managementPortConfig(settings, _port, _home);
  PropertiesMap general;
  server->getStanza(Str("general"), general);
  unsigned long long idle = 0;
  if (general.tryToUnsignedLongLong(Str("sessionTimeout"), idle) && idle > 0) {
    _sessions.setIdleTimeout(static_cast<int64_t>(idle));
  }
  _serverInfo = std::make_unique<ServerInfoHandler>(Timeval::now().tv_sec, &_server);
  setUpRest();
  if (!_server.init(_config)) {
    *error = Str().format("could not listen on %s port %d", _config._portList[0].ip.c_str(),
                          _port);
    return false;
  }
  // From here on a SIGTERM waits in the pipe until the loop runs.
  SignalHandler& signals = SignalHandler::instance();
  signals.catchSignal(SIGTERM);
  signals.catchSignal(SIGINT);
  signals.attach(&_server.loop());
  return true;
}

Str Kestrod::url() const {
  const HTTPServerConfig::HTTPPortEntry& entry = _config._portList[0];
  const bool tls = entry.ssl && _server.sslEnabled();
  const Str host = entry.family == AF_INET6 ? Str("[" + entry.ip + "]") : entry.ip;
  return Str().format("%s://%s:%u", tls ? "https" : "http", host.c_str(),
                      static_cast<unsigned>(_server.boundPort(0)));
}

size_t Kestrod::run() {
  SignalHandler& signals = SignalHandler::instance();
  MainThread::setEventLoop(&_server.loop());
  gLogger.info("kestrod serving on %s", url().c_str());
  _server.go();
  MainThread::setEventLoop(nullptr);
  signals.detach(&_server.loop());
  for (int i = 0; i < FINAL_JOIN_TRIES && HTTPServer::liveRequestThreads() > 0; i++) {
    MainThread::waitForJoinRequest(ConditionWaitTimeout(0, FINAL_JOIN_WAIT_NS));
    MainThread::runPendingJoins();
  }
  MainThread::runPendingJoins();
  size_t left = HTTPServer::liveRequestThreads();
  gLogger.info("kestrod stopped");
  return left;
}
