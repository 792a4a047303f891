// The management port: an HTTP/1.1 listener on an EventLoop, plain or TLS,
// that reads each request on the loop's thread and serves it on a thread
// of its own. One request per connection; a two-stage timed shutdown lets
// running requests finish.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <vector>

#include "framework/HTTPReply.h"
#include "framework/HTTPRequest.h"
#include "framework/HttpRequestReader.h"
#include "framework/InputStreamConduit.h"
#include "util/EventLoop.h"
#include "util/Mutex.h"
#include "util/SignalHandler.h"
#include "util/SocketAddress.h"
#include "util/Str.h"
#include "util/TcpPolledFd.h"
#include "util/Thread.h"
#include "util/Timeout.h"

class HTTPServer;
class Logger;
class SSLContext;

// A handler of one URL base. Called on request threads, possibly several
// at once: implementations are safe from any thread.
class MHttpRequestHandler {
 public:
  virtual ~MHttpRequestHandler() = default;
  // The answer to `request` from `peer`, allocated with new; null is 404.
  // A reply with _handledResponseItself wrote everything itself.
  virtual HTTPReply* handleRequest(const Str& peer, HTTPRequest* request) = 0;
  // The connection of a request this handler served is closing.
  virtual void fdClosing(PollableDescriptor) {}
};

// A consumer of streaming input, registered by name; what it does with a
// stream is its own. Implementations are safe from any thread.
class MHTTPStreamHandler {
 public:
  virtual ~MHTTPStreamHandler() = default;
};

class HTTPServerConfig {
 public:
  struct HTTPPortEntry {
    uint16_t port = 0;  // 0: any free port, see HTTPServer::boundPort
    bool ssl = false;
    int family = AF_INET;  // AF_INET or AF_INET6
    Str ip;                // empty: every address of the family
  };
  std::vector<HTTPPortEntry> _portList;
  std::map<Str, MHttpRequestHandler*> _handlers;  // borrowed, by URL base
  Str _sslCertPath;
  Str _sslKeyPath;
  Str _sslPassword;
  bool _compression = true;
  Str _sslCipherSuite;
  bool _reverseDns = false;
  uint32_t _streamInputWriteTimeoutSec = 60;
  int64_t max_content_length = 1LL << 30;
  // The pause between two looks of a shutdown stage; 1000 ms in service,
  // shorter in tests. Stage 1 looks 10 times, stage 2 20 times.
  unsigned _shutdownPollMs = 1000;
};

// Counts down the looks of one shutdown stage. Event-thread object.
class HttpThreadQuiesceState {
 public:
  explicit HttpThreadQuiesceState(uint32_t count) : _initial(count), _remaining(count) {}
  // True when no request thread lives, or when the count ran out (then the
  // live ones are named at WARN); false, counting one down, otherwise.
  bool finishedWaiting(Logger& logger);

 private:
  uint32_t _initial;
  uint32_t _remaining;
};

// The priority at which a server hears of signals from SignalHandler.
constexpr int HTTP_SERVER_SIGNAL_PRIORITY = 100;

// The server. Configure with init(), run with go() on the thread that is to
// be the loop's; handleSignal() from any thread starts the shutdown, and so
// does any signal that SignalHandler catches, once init() registered it.
class HTTPServer : public TcpRawDataFdCallback, public MSignalHandler {
 public:
  HTTPServer();
  ~HTTPServer() override;
  HTTPServer(const HTTPServer&) = delete;
  HTTPServer& operator=(const HTTPServer&) = delete;

  // The process's server.
  static HTTPServer& instance();

  // Copies `config`, registers with SignalHandler at
  // HTTP_SERVER_SIGNAL_PRIORITY (the destructor unregisters), then sets up TLS, binds and starts accepting. A port
  // that cannot be bound is logged and left out. False when no port could
  // be bound.
  bool init(const HTTPServerConfig& config);
  // Runs the loop until the shutdown ends it ("Starting event loop").
  void go();

  void setupSSL();
  void bindPorts();
  bool setupAccepts();

  // Registers `handler` (borrowed) under `name`, replacing an earlier one.
  // Any thread.
  void registerStreamHandler(const Str& name, MHTTPStreamHandler* handler);
  // The handler registered under `name`, or null. Any thread.
  MHTTPStreamHandler* findStreamHandler(const Str& name);

  // The port that entry `index` was bound to, 0 when it was not.
  uint16_t boundPort(size_t index) const;
  EventLoop& loop() { return _loop; }
  const HTTPServerConfig& config() const { return _config; }
  bool isShuttingDown() const { return _shuttingDown; }
  // True once setupSSL made a context: the ports that ask for TLS serve it.
  // False after a failed setup, when they serve plain TCP instead.
  bool sslEnabled() const { return _sslContext != nullptr; }

  // The URL base of the request line's second word: "/services/x?y=1"
  // gives "/services", "*" stays "*"; false with fewer than two words.
  static bool getUrlBase(const Str& methodLine, Str& out);
  // 0 for "GET", "POST", "DELETE", "PUT"; 501 for "HEAD", "CONNECT",
  // "TRACE", "OPTIONS"; 400 for anything else.
  static int validateMethod(const Str& method);
  static Str& getErrorString(int code, Str& out) { return HTTPReply::getErrorString(code, out); }

  // Starts the shutdown, once ("HTTPServer::handleSignal %d"). Any thread.
  void handleSignal(int signal) override;
  // Stage 2 goes on the loop. Event thread.
  void handleShutdown();
  void disableAcceptors();
  void closeAcceptors();
  void shutdownAllFds();

  // The connection on descriptor `fd`, or null when the server has none
  // there. The member stays the loop's or its request thread's: borrow it
  // only while that owner cannot finish. Any thread.
  TcpPolledFd* getPolledFd(PollableDescriptor fd);

  // The number of request threads alive, over all servers.
  static size_t liveRequestThreads();

  // TcpRawDataFdCallback, on the loop's thread.
  void rawDataReceived(TcpPolledFd* fd, const char* data, size_t n) override;
  void rawDataEnded(TcpPolledFd* fd, int errnum) override;

  // Used by the acceptors' factories.
  TcpPolledFd* fdFactory(const HTTPServerConfig::HTTPPortEntry& entry, PollableDescriptor fd,
                         const SocketAddress& peer);
  void fdClosing(TcpPolledFd* member);

 private:
  friend class HTTPRequestHandlerThread;
  friend class HTTPServerTestPeer;
  class Acceptor;
  class StageTimeout;

  void executeThreadedRequest(TcpPolledFd* fd, std::unique_ptr<FdData> data);
  // Opens the conduit of a streaming request and starts its thread, which
  // reads while the loop keeps feeding it. Event thread.
  void setupInputStream(TcpPolledFd* fd, std::unique_ptr<FdData> data);
  InputStreamConduit* findConduit(TcpPolledFd* fd);
  void dropConduit(TcpPolledFd* fd);

  HTTPServerConfig _config;
  EventLoop _loop;
  std::map<TcpPolledFd*, std::unique_ptr<FdData>> _reading;  // event thread only
  full_Mutex _connectionsMutex;
  std::map<TcpPolledFd*, MHttpRequestHandler*> _connections;  // GUARDED_BY(_connectionsMutex)
  std::map<Str, MHTTPStreamHandler*> _streamHandlers;         // GUARDED_BY(_connectionsMutex)
  std::map<TcpPolledFd*, std::unique_ptr<InputStreamConduit>> _streams;  // event thread only
  std::unique_ptr<SSLContext> _sslContext;
  std::atomic<bool> _shuttingDown{false};  // read by request threads
  bool _shuttingDownAllFds = false;
  bool _sslDone = false;
  bool _bindDone = false;
  bool _acceptsDone = false;
  std::vector<PollableDescriptor> _listeners;  // parallel to _config._portList
  std::vector<uint16_t> _boundPorts;
  std::vector<std::unique_ptr<Acceptor>> _acceptors;
  std::unique_ptr<StageTimeout> _stage1;
  std::unique_ptr<StageTimeout> _stage2;
};
