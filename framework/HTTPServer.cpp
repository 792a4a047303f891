#include "framework/HTTPServer.h"

#include <sys/socket.h>

#include <set>

#include "util/Logger.h"
#include "util/MainThread.h"
#include "util/Pathname.h"
#include "util/SSLNetworkConnection.h"
#include "util/SSLPolledFd.h"

namespace {

Logger gLogger("HTTPServer");
Logger gAccessLogger("HTTPAccess");

constexpr size_t READ_BUFFER_SIZE = 8192;
constexpr unsigned LISTEN_BACKLOG = 128;

}  // namespace

// One live request: its thread, registered in a process-wide set so that
// the shutdown can name what it waits for.
class HTTPRequestHandlerThread : public Thread {
 public:
  HTTPRequestHandlerThread(HTTPServer* server, TcpPolledFd* fd, std::unique_ptr<FdData> data,
                           InputStreamConduit* conduit)
      : Thread("HTTP request"), _server(server), _fd(fd), _data(std::move(data)),
        _peer(fd->peerName()), _conduit(conduit) {
    ScopedLock hold(registryMutex());
    registry().insert(this);
  }
  ~HTTPRequestHandlerThread() override {
    ScopedLock hold(registryMutex());
    registry().erase(this);
  }

  void main() override;

  static full_Mutex& registryMutex() {
    static full_Mutex m;
    return m;
  }
  static std::set<HTTPRequestHandlerThread*>& registry() {
    static std::set<HTTPRequestHandlerThread*> r;
    return r;
  }
  // "{started %lums ago: %s %s}" for each live thread. Takes the registry.
  static size_t describeLive(Str& out) {
    ScopedLock hold(registryMutex());
    out.clear();
    for (HTTPRequestHandlerThread* t : registry()) {
      char buf[128];
      long long age = Timeval::msecDifference(Timeval::now(), t->_data->request.start);
      snprintf(buf, sizeof(buf), "{started %lums ago: ", static_cast<unsigned long>(age));
      out += buf + t->_peer + " " + t->_data->request.methodLine + "}";
    }
    return registry().size();
  }

 private:
  HTTPReply* makeReply(HTTPRequest& request, MHttpRequestHandler** handler);
  void logAccess(const HTTPRequest& request, const HTTPReply* reply, bool selfHandled);

  HTTPServer* _server;
  TcpPolledFd* _fd;
  std::unique_ptr<FdData> _data;
  Str _peer;
  InputStreamConduit* _conduit;  // owned by the server's stream map
};

HTTPReply* HTTPRequestHandlerThread::makeReply(HTTPRequest& request,
                                               MHttpRequestHandler** handler) {
  if (_data->errorStatus != 0) {
    return HTTPReply::createReply(_data->errorStatus, Str("text/plain"), _data->errorText,
                                  StrVector());
  }
  Str base;
  if (!HTTPServer::getUrlBase(request.methodLine(), base)) {
    return HTTPReply::createErrorTextReply(400);
  }
  StrVector words;
  request.getMethodComponents(words);
  int bad = HTTPServer::validateMethod(words[0]);
  if (bad > 0) return HTTPReply::createErrorTextReply(bad);
  auto it = _server->_config._handlers.find(base);
  if (it == _server->_config._handlers.end()) return nullptr;
  *handler = it->second;
  {
    ScopedLock hold(_server->_connectionsMutex);
    _server->_connections[_fd] = it->second;
  }
  try {
    return it->second->handleRequest(_peer, &request);
  } catch (const std::exception& e) {
    gLogger.error("Exception in handleRequest %s", e.what());
  } catch (...) {
    gLogger.error("Exception (...) in handleRequest");
  }
  return HTTPReply::createErrorTextReply(500);
}

void HTTPRequestHandlerThread::logAccess(const HTTPRequest& request, const HTTPReply* reply,
                                         bool selfHandled) {
  char when[64];
  time_t secs = static_cast<time_t>(request.start().tv_sec);
  struct tm tm;
  localtime_r(&secs, &tm);
  char base[48];
  char zone[8];
  strftime(base, sizeof(base), "%d/%b/%Y:%T", &tm);
  strftime(zone, sizeof(zone), "%z", &tm);
  snprintf(when, sizeof(when), "%s.%03d %s", base,
           static_cast<int>(request.start().tv_usec / 1000), zone);
  const Str& user = reply->getUserWhoLoggedIn();
  unsigned long ms =
      static_cast<unsigned long>(Timeval::msecDifference(Timeval::now(), request.start()));
  if (selfHandled) {
    gAccessLogger.info("%s - %s [%s] \"%s\" %d %llu - - - %lums", _peer.c_str(),
                       user.empty() ? "-" : user.c_str(), when, request.methodLine().c_str(),
                       reply->_status, static_cast<unsigned long long>(request.responseSize()),
                       ms);
  } else {
    gAccessLogger.info("%s - %s [%s] \"%s\" %d %d - - - %lums", _peer.c_str(),
                       user.empty() ? "-" : user.c_str(), when, request.methodLine().c_str(),
                       reply->_status, static_cast<int>(request.responseSize()), ms);
  }
}

void HTTPRequestHandlerThread::main() {
  HTTPRequest request(_data->request, _fd, _server->_config._compression);
  {
    request.setConduit(_conduit);
    MHttpRequestHandler* handler = nullptr;
    std::unique_ptr<HTTPReply> reply(makeReply(request, &handler));
    // A streaming connection stayed with the loop while the handler read.
    if (_conduit != nullptr) _fd->claimOwnership();
    if (reply != nullptr && reply->_handledResponseItself) {
      request.finish();
      logAccess(request, reply.get(), true);
    } else {
      if (reply == nullptr) reply.reset(HTTPReply::createNotFoundErrorReply());
      if (reply->_sendReply) {
        try {
          request.writeResponse(reply.get(), -1);
        } catch (const std::exception& e) {
          gLogger.error("PollableDescriptorException in writing response to client. %s",
                        e.what());
        } catch (...) {
          gLogger.error("Exception (...) in writing response to client");
        }
        logAccess(request, reply.get(), false);
      }
    }
  }
  if (_conduit != nullptr) _server->dropConduit(_fd);
  request.removeFromOutside();
  MainThread::joinAndDeleteMe(this);
}

// Makes the members of one listening port.
class HTTPServer::Acceptor : public TcpFdFactory {
 public:
  Acceptor(HTTPServer* server, size_t index)
      : _server(server), _index(index),
        _accept(this, &server->_loop, this, server->_config._reverseDns) {}
  TcpPolledFd* createTcpPolledFd(PollableDescriptor fd, const SocketAddress& peer) override {
    return _server->fdFactory(_server->_config._portList[_index], fd, peer);
  }
  void tcpPolledFdEnded(TcpPolledFd* member) override { _server->fdClosing(member); }

  HTTPServer* _server;
  size_t _index;
  AcceptFd _accept;
  bool _inLoop = false;
};

// One stage of the shutdown: looks at the request threads every poll
// interval until they are gone or the count runs out.
class HTTPServer::StageTimeout : public Timeout {
 public:
  StageTimeout(HTTPServer* server, int stage, uint32_t count)
      : _server(server), _stage(stage), _state(count) {}
  void when_expired(unsigned long long& msec) override {
    if (_stage == 1 && !_disabled) {
      _server->disableAcceptors();
      _disabled = true;
    }
    if (!_state.finishedWaiting(gLogger)) {
      msec = _server->_config._shutdownPollMs;
      return;
    }
    msec = 0;
    if (_stage == 1) {
      gLogger.warn("Shutdown triggered via callback.");
      _server->handleShutdown();
    } else {
      gLogger.warn("HTTPServer shutting down. Terminating eloop.");
      _server->_loop.terminate();
      _server->closeAcceptors();
    }
  }

 private:
  HTTPServer* _server;
  int _stage;
  HttpThreadQuiesceState _state;
  bool _disabled = false;
};

bool HttpThreadQuiesceState::finishedWaiting(Logger& logger) {
  Str live;
  size_t n = HTTPRequestHandlerThread::describeLive(live);
  if (n == 0) {
    if (_remaining != _initial) logger.info("All HTTP threads are now finished");
    return true;
  }
  unsigned count = static_cast<unsigned>(n);
  if (_remaining != 0) {
    logger.info("%u HTTP thread%s still alive, delaying shutdown: %s", count,
                count == 1 ? "" : "s", live.c_str());
    _remaining--;
    return false;
  }
  logger.warn("%u HTTP thread%s still alive at shutdown: %s", count, count == 1 ? "" : "s",
              live.c_str());
  return true;
}

HTTPServer::HTTPServer() = default;

HTTPServer::~HTTPServer() {
  SignalHandler::instance().unregisterHandler(this);
  for (auto& a : _acceptors) {
    if (a->_inLoop) _loop.removeActivePolledFd(&a->_accept);
    a->_accept.closeAllConnections();
  }
  _acceptors.clear();
  for (PollableDescriptor& fd : _listeners) {
    if (fd.valid()) fd.close_saveErrno();
  }
}

HTTPServer& HTTPServer::instance() {
  static HTTPServer* server = new HTTPServer();
  return *server;
}

bool HTTPServer::init(const HTTPServerConfig& config) {
  _config = config;
  SignalHandler::instance().registerHandler(this, HTTP_SERVER_SIGNAL_PRIORITY);
  if (!_sslDone) setupSSL();
  if (!_bindDone) bindPorts();
  if (!_acceptsDone) setupAccepts();
  return !_acceptors.empty();
}

void HTTPServer::go() {
  gLogger.info("Starting event loop");
  _loop.run();
}

void HTTPServer::setupSSL() {
  _sslDone = true;
  bool wanted = false;
  for (const auto& e : _config._portList) wanted = wanted || e.ssl;
  if (!wanted) return;
  gLogger.info("Initializing SSL Context");
  Str error;
  _sslContext = SSLContext::makeServer(Pathname(_config._sslCertPath),
                                       Pathname(_config._sslKeyPath), &error);
  if (_sslContext == nullptr) {
    gLogger.error("SSL context could not be created - error in cert or password is wrong");
    gLogger.error("SSL will not be enabled");
  }
}

void HTTPServer::bindPorts() {
  gLogger.info("Binding ports");
  _bindDone = true;
  for (const auto& e : _config._portList) {
    bool v6 = e.family == AF_INET6;
    SocketAddress addr;
    const char* ip = !e.ip.empty() ? e.ip.c_str() : v6 ? "::" : "0.0.0.0";
    PollableDescriptor fd;
    if (!SocketAddress::fromNumeric(ip, e.port, &addr)) {
      gLogger.error("Address given to listen on (\"%s\") not a valid IP", e.ip.c_str());
    } else {
      fd = addr.make_listener(LISTEN_BACKLOG, SOCK_STREAM, 0);
      if (!fd.valid()) {
        if (e.ip.empty()) {
          gLogger.error(v6 ? "Could not bind to ipv6 port %d" : "Could not bind to port %d",
                        e.port);
        } else {
          gLogger.error(v6 ? "Could not bind to ipv6 %s port %d" : "Could not bind to ip %s port %d",
                        e.ip.c_str(), e.port);
        }
      }
    }
    SocketAddress local;
    _boundPorts.push_back(fd.valid() && SocketAddress::localOf(fd, &local) ? local.port() : 0);
    _listeners.push_back(fd);
  }
}

bool HTTPServer::setupAccepts() {
  if (!_bindDone) {
    gLogger.error("Cannot set up accepts without binding ports first");
    return false;
  }
  _acceptsDone = true;
  for (size_t i = 0; i < _listeners.size(); i++) {
    if (!_listeners[i].valid()) continue;
    const auto& e = _config._portList[i];
    Str name = e.ip.empty() ? Str(e.family == AF_INET6 ? "::" : "0.0.0.0") : e.ip;
    name.append(":").append(std::to_string(_boundPorts[i]));
    auto acceptor = std::make_unique<Acceptor>(this, i);
    try {
      _loop.add(&acceptor->_accept, _listeners[i]);
    } catch (const std::exception& ex) {
      gLogger.error("Could not accept on %s", name.c_str());
      continue;
    }
    acceptor->_inLoop = true;
    _listeners[i] = PollableDescriptor();  // the AcceptFd owns it now
    if (e.ssl && _sslContext != nullptr) {
      gLogger.info("Accepting connections on %s for SSL", name.c_str());
    } else {
      gLogger.info("Accepting connections on %s", name.c_str());
    }
    _acceptors.push_back(std::move(acceptor));
  }
  return true;
}

void HTTPServer::registerStreamHandler(const Str& name, MHTTPStreamHandler* handler) {
  ScopedLock hold(_connectionsMutex);
  _streamHandlers[name] = handler;
}

MHTTPStreamHandler* HTTPServer::findStreamHandler(const Str& name) {
  ScopedLock hold(_connectionsMutex);
  auto it = _streamHandlers.find(name);
  return it == _streamHandlers.end() ? nullptr : it->second;
}

uint16_t HTTPServer::boundPort(size_t index) const {
  return index < _boundPorts.size() ? _boundPorts[index] : 0;
}

TcpPolledFd* HTTPServer::fdFactory(const HTTPServerConfig::HTTPPortEntry& entry,
                                   PollableDescriptor fd, const SocketAddress&) {
  if (_shuttingDown) {
    gLogger.info("Received new request while shutting down - ignoring.");
    return nullptr;
  }
  TcpPolledFd* member;
  if (entry.ssl && _sslContext != nullptr) {
    member = new SSLRawDataFd(_sslContext.get(), this, READ_BUFFER_SIZE);
  } else {
    member = new TcpRawDataFd(this, READ_BUFFER_SIZE);
  }
  if (!fd.setKeepAlive(true)) {
    gLogger.warn("Could not set keep alive on socket for port %d", entry.port);
  }
  ScopedLock hold(_connectionsMutex);
  _connections[member] = nullptr;
  return member;
}

void HTTPServer::fdClosing(TcpPolledFd* member) {
  gLogger.debug("Closing fd");
  MHttpRequestHandler* handler = nullptr;
  {
    ScopedLock hold(_connectionsMutex);
    auto it = _connections.find(member);
    if (it != _connections.end()) {
      handler = it->second;
      if (!_shuttingDownAllFds) _connections.erase(it);
    }
  }
  if (handler != nullptr) handler->fdClosing(member->descriptor());
  InputStreamConduit* conduit = findConduit(member);
  if (conduit != nullptr) {
    gLogger.info("Sending done key into the conduit!!");
    conduit->sendDoneKey();
    if (member->isOwnedByEventLoop()) member->claimOwnership();
  }
  _reading.erase(member);
}

InputStreamConduit* HTTPServer::findConduit(TcpPolledFd* fd) {
  auto it = _streams.find(fd);
  return it == _streams.end() ? nullptr : it->second.get();
}

namespace {

class DropConduitActor : public InThreadActor {
 public:
  DropConduitActor(std::map<TcpPolledFd*, std::unique_ptr<InputStreamConduit>>& streams,
                   TcpPolledFd* fd)
      : _streams(streams), _fd(fd) {}
  void callback() override { _streams.erase(_fd); }

 private:
  std::map<TcpPolledFd*, std::unique_ptr<InputStreamConduit>>& _streams;
  TcpPolledFd* _fd;
};

}  // namespace

void HTTPServer::dropConduit(TcpPolledFd* fd) {
  DropConduitActor actor(_streams, fd);
  _loop.internal_runInThread(&actor, true);
}

void HTTPServer::setupInputStream(TcpPolledFd* fd, std::unique_ptr<FdData> data) {
  auto conduit = std::make_unique<InputStreamConduit>(
      fd, this, static_cast<int>(_config._streamInputWriteTimeoutSec * 1000));
  InputStreamConduit* raw = conduit.get();
  _streams[fd] = std::move(conduit);
  auto* thread = new HTTPRequestHandlerThread(this, fd, std::move(data), raw);
  thread->go();
}

void HTTPServer::rawDataReceived(TcpPolledFd* fd, const char* data, size_t n) {
  if (InputStreamConduit* conduit = findConduit(fd)) {
    if (conduit->isDone() || !conduit->write(data, n)) {
      // Ends the connection: the next read sees the end of the stream.
      ::shutdown(fd->descriptor().fd(), SHUT_RD);
    }
    return;
  }
  auto it = _reading.find(fd);
  if (it == _reading.end()) {
    auto d = std::make_unique<FdData>();
    d->request.start = Timeval::now();
    it = _reading.emplace(fd, std::move(d)).first;
  }
  FdData& d = *it->second;
  while (n > 0) {
    ssize_t used = feedRequestBytes(d, data, n, _config.max_content_length, fd->peerIp());
    if (used < 0) return;  // a thread already owns the request; the rest is ignored
    data += used;
    n -= static_cast<size_t>(used);
    if (d.state == FdData::COMPLETE || d.state == FdData::FAILED ||
        d.state == FdData::STREAMING) {
      std::unique_ptr<FdData> owned = std::move(it->second);
      _reading.erase(it);
      if (owned->state != FdData::STREAMING) {
        executeThreadedRequest(fd, std::move(owned));
        return;
      }
      setupInputStream(fd, std::move(owned));
      if (n > 0) rawDataReceived(fd, data, n);
      return;
    }
  }
}

void HTTPServer::rawDataEnded(TcpPolledFd*, int) {}

void HTTPServer::executeThreadedRequest(TcpPolledFd* fd, std::unique_ptr<FdData> data) {
  {
    ScopedLock hold(_connectionsMutex);
    if (_connections.find(fd) == _connections.end()) {
      if (!_shuttingDown) {
        gLogger.error(
            "Fd went away before we could start a new thread, and we're not shutting down.  "
            "Please report this to Support.");
      }
      return;
    }
  }
  fd->claimOwnership();
  auto* thread = new HTTPRequestHandlerThread(this, fd, std::move(data), nullptr);
  thread->go();
}

bool HTTPServer::getUrlBase(const Str& methodLine, Str& out) {
  HTTPRequest probe(HttpRequestText{methodLine, {}, {}, {}}, nullptr, false);
  StrVector words;
  probe.getMethodComponents(words);
  if (words.size() < 2) return false;
  const Str& url = words[1];
  if (url == "*") {
    out = url;
  } else {
    size_t end = url.find_first_of("/?", 1);
    out = url.substr(0, end);
  }
  gLogger.debug("URLBASE FOR THIS REQUEST IS %s", out.c_str());
  return true;
}

int HTTPServer::validateMethod(const Str& method) {
  if (method == "GET" || method == "POST" || method == "DELETE" || method == "PUT") return 0;
  if (method == "HEAD" || method == "CONNECT" || method == "TRACE" || method == "OPTIONS") {
    return 501;
  }
  return 400;
}

TcpPolledFd* HTTPServer::getPolledFd(PollableDescriptor fd) {
  ScopedLock hold(_connectionsMutex);
  for (const auto& [member, handler] : _connections) {
    if (member->descriptor().fd() == fd.fd()) return member;
  }
  return nullptr;
}

size_t HTTPServer::liveRequestThreads() {
  ScopedLock hold(HTTPRequestHandlerThread::registryMutex());
  return HTTPRequestHandlerThread::registry().size();
}

namespace {

class AddStageActor : public InThreadActor {
 public:
  AddStageActor(EventLoop& loop, Timeout* t) : _loop(loop), _t(t) {}
  void callback() override { _loop.add(_t, 0); }

 private:
  EventLoop& _loop;
  Timeout* _t;
};

}  // namespace

void HTTPServer::handleSignal(int signal) {
  gLogger.info("HTTPServer::handleSignal %d", signal);
  if (_stage1 != nullptr) return;
  _shuttingDown = true;
  _stage1 = std::make_unique<StageTimeout>(this, 1, 10);
  AddStageActor actor(_loop, _stage1.get());
  if (!_loop.runInThreadOrFail(&actor, true)) {
    gLogger.error(
        "Failed to add shutdown callback to eventloop.  Is someone else attempting to add as "
        "well?");
  }
}

void HTTPServer::handleShutdown() {
  _stage2 = std::make_unique<StageTimeout>(this, 2, 20);
  _loop.add(_stage2.get(), 0);
}

void HTTPServer::disableAcceptors() {
  gLogger.info("Disabling all acceptors due to shutdown");
  for (auto& a : _acceptors) {
    if (a->_inLoop) _loop.removeActivePolledFd(&a->_accept);
    a->_inLoop = false;
  }
}

void HTTPServer::closeAcceptors() {
  gLogger.info("Closing all acceptors due to shutdown");
  shutdownAllFds();
}

void HTTPServer::shutdownAllFds() {
  gLogger.info("HTTPServer::shutdownAllFds");
  _shuttingDownAllFds = true;
  for (auto& a : _acceptors) a->_accept.closeAllConnections();
  _reading.clear();
  for (auto& [fd, conduit] : _streams) conduit->sendDoneKey();
}
