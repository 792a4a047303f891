#include "tools/kestrod/Kestrod.h"

#include <signal.h>

#include "libbundle/PropertyPages.h"
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
    : _home(home), _port(port), _server(HTTPServer::instance()) {}

Kestrod::~Kestrod() = default;

bool Kestrod::start(Str* error) {
  PropertiesMap settings;
  PropertyPages::instance(Str("server"))->getStanza(Str(HTTP_SERVER_STANZA), settings);
  _config = managementPortConfig(settings, _port, _home);
  if (!_server.init(_config)) {
    *error = Str().format("could not listen on %s port %d", _config._portList[0].ip.c_str(),
                          _port);
    return false;
  }
  return true;
}

Str Kestrod::url() const {
  const HTTPServerConfig::HTTPPortEntry& entry = _config._portList[0];
  const bool tls = entry.ssl && _server.config()._portList[0].ssl;
  const Str host = entry.family == AF_INET6 ? Str("[" + entry.ip + "]") : entry.ip;
  return Str().format("%s://%s:%u", tls ? "https" : "http", host.c_str(),
                      static_cast<unsigned>(_server.boundPort(0)));
}

size_t Kestrod::run() {
  SignalHandler& signals = SignalHandler::instance();
  signals.catchSignal(SIGTERM);
  signals.catchSignal(SIGINT);
  signals.attach(&_server.loop());
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
