#include "framework/HTTPServer.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <thread>

#include "util/ConditionWaitTimeout.h"
#include "util/MainThread.h"
#include "util/testing/LogCapture.h"

// Reaches into the server where only a race with the loop could lead.
class HTTPServerTestPeer {
 public:
  // The connections the server knows, under its lock.
  static std::vector<TcpPolledFd*> connections(HTTPServer& server) {
    ScopedLock hold(server._connectionsMutex);
    std::vector<TcpPolledFd*> out;
    for (const auto& entry : server._connections) out.push_back(entry.first);
    return out;
  }
  // Forgets every connection, as if each had ended just before its request
  // was complete; the members stay in the loop.
  static void forgetConnections(HTTPServer& server, bool shuttingDown) {
    ScopedLock hold(server._connectionsMutex);
    server._connections.clear();
    server._shuttingDown = shuttingDown;
  }
};

namespace {

// Echoes the method line and body; "/hang" waits until released.
class EchoHandler : public MHttpRequestHandler {
 public:
  HTTPReply* handleRequest(const Str&, HTTPRequest* request) override {
    if (request->methodLine().find("/hang") != Str::npos) {
      std::unique_lock<std::mutex> lock(_mutex);
      _hung = true;
      _cv.notify_all();
      _cv.wait(lock, [this] { return _released; });
    }
    if (request->methodLine().find("/throw") != Str::npos) throw std::runtime_error("boom");
    Str body = request->methodLine();
    body += "|";
    body += request->body();
    if (request->conduit() != nullptr && request->methodLine().find("/echo/stream") != Str::npos) {
      Str piece;
      size_t count = 0;
      while (request->conduit()->read(piece, count)) body += "[" + piece + "]";
    }
    body += "|" + Str(1000, 'x');  // long enough that gzip pays
    return HTTPReply::createReply(200, Str("text/plain"), body, StrVector{Str("X-Echo: 1")});
  }
  void waitHung() {
    std::unique_lock<std::mutex> lock(_mutex);
    _cv.wait(lock, [this] { return _hung; });
  }
  void release() {
    std::lock_guard<std::mutex> lock(_mutex);
    _released = true;
    _cv.notify_all();
  }

 private:
  std::mutex _mutex;
  std::condition_variable _cv;
  bool _hung = false;
  bool _released = false;
};

size_t openFds() {
  size_t n = 0;
  DIR* d = opendir("/proc/self/fd");
  while (readdir(d) != nullptr) n++;
  closedir(d);
  return n;
}

std::string run(const std::string& cmd) {
  std::string out;
  FILE* p = popen(cmd.c_str(), "r");
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof(buf), p)) > 0) out.append(buf, n);
  pclose(p);
  return out;
}

int connectTo(uint16_t port) {
  int s = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(port);
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(s, reinterpret_cast<sockaddr*>(&a), sizeof(a)) != 0) {
    close(s);
    return -1;
  }
  return s;
}

// Sends `request` and reads to the server's close (10 s at most).
std::string exchange(uint16_t port, const std::string& request) {
  int s = connectTo(port);
  if (s < 0) return "connect failed";
  size_t at = 0;
  while (at < request.size()) {
    ssize_t w = send(s, request.data() + at, request.size() - at, MSG_NOSIGNAL);
    if (w <= 0) break;  // the server may answer and close before reading all
    at += static_cast<size_t>(w);
  }
  std::string out;
  char buf[8192];
  pollfd pfd{s, POLLIN, 0};
  while (poll(&pfd, 1, 10000) > 0) {
    ssize_t r = recv(s, buf, sizeof(buf), 0);
    if (r <= 0) break;
    out.append(buf, static_cast<size_t>(r));
  }
  close(s);
  return out;
}

class HTTPServerTest : public testing::Test {
 protected:
  void start(bool tls = false, int64_t maxContent = 1 << 20) {
    SignalHandler::instance();  // its pipe lives as long as the process
    _fdsBefore = openFds();
    HTTPServerConfig config;
    HTTPServerConfig::HTTPPortEntry entry;
    entry.ip = "127.0.0.1";
    entry.ssl = tls;
    config._portList.push_back(entry);
    config._handlers[Str("/echo")] = &_handler;
    config._handlers[Str("/hang")] = &_handler;
    config._handlers[Str("/throw")] = &_handler;
    config.max_content_length = maxContent;
    config._shutdownPollMs = 20;
    if (tls) {
      _dir = std::string(testing::TempDir()) + "httptls" + std::to_string(getpid());
      run("mkdir -p " + _dir + " && openssl req -x509 -newkey rsa:2048 -nodes -days 1 -subj "
          "/CN=localhost -keyout " + _dir + "/key.pem -out " + _dir + "/cert.pem 2>/dev/null");
      config._sslCertPath = _dir + "/cert.pem";
      config._sslKeyPath = _dir + "/key.pem";
    }
    _server = std::make_unique<HTTPServer>();
    ASSERT_TRUE(_server->init(config));
    _port = _server->boundPort(0);
    ASSERT_NE(0, _port);
    MainThread::setEventLoop(&_server->loop());
    _loopThread = std::thread([this] { _server->go(); });
  }
  void stop() {
    if (_server == nullptr) return;
    if (_loopThread.joinable()) {
      _server->handleSignal(15);
      _loopThread.join();
    }
    MainThread::setEventLoop(nullptr);
    _handler.release();
    while (HTTPServer::liveRequestThreads() > 0) {
      MainThread::waitForJoinRequest(ConditionWaitTimeout(0, 100000000));
      MainThread::runPendingJoins();
    }
    _server.reset();
    if (!_dir.empty()) run("rm -rf " + _dir);
    EXPECT_EQ(_fdsBefore, openFds());
  }
  void TearDown() override { stop(); }
  std::string url(const char* path) {
    return std::string(_dir.empty() ? "http" : "https") + "://127.0.0.1:" +
           std::to_string(_port) + path;
  }

  EchoHandler _handler;
  std::unique_ptr<HTTPServer> _server;
  std::thread _loopThread;
  uint16_t _port = 0;
  size_t _fdsBefore = 0;
  std::string _dir;
};

TEST_F(HTTPServerTest, CurlGetAndPost) {
  start();
  std::string get = run("curl -s -i " + url("/echo/a?b=1"));
  EXPECT_NE(std::string::npos, get.find("HTTP/1.1 200 OK\r\n")) << get;
  EXPECT_NE(std::string::npos, get.find("Server: Kestrod\r\n"));
  EXPECT_NE(std::string::npos, get.find("Connection: close\r\n"));
  EXPECT_NE(std::string::npos, get.find("X-Echo: 1\r\n"));
  EXPECT_NE(std::string::npos, get.find("GET /echo/a?b=1 HTTP/1.1||"));
  std::string post = run("curl -s --data-binary 'hello body' " + url("/echo"));
  EXPECT_EQ(0u, post.find("POST /echo HTTP/1.1|hello body|")) << post;
  std::string missing = run("curl -s -i " + url("/nothing"));
  EXPECT_NE(std::string::npos, missing.find("404 Not Found"));
  EXPECT_NE(std::string::npos, missing.find("<html><body>404 - not found</body></html>"));
  std::string thrown = run("curl -s -i " + url("/throw"));
  EXPECT_NE(std::string::npos, thrown.find("500 Internal Server Error")) << thrown;
}

TEST(HTTPServerStreams, HandlersAreFoundByName) {
  HTTPServer server;
  MHTTPStreamHandler a, b;
  EXPECT_EQ(nullptr, server.findStreamHandler(Str("in")));
  server.registerStreamHandler(Str("in"), &a);
  server.registerStreamHandler(Str("in"), &b);  // a later one replaces
  server.registerStreamHandler(Str("other"), &a);
  EXPECT_EQ(&b, server.findStreamHandler(Str("in")));
  EXPECT_EQ(&a, server.findStreamHandler(Str("other")));
  EXPECT_EQ(nullptr, server.findStreamHandler(Str("In")));
}

TEST(HTTPServerPorts, Ipv6AndUnusablePortEntries) {
  size_t fdsBefore = openFds();
  HTTPServerConfig config;
  HTTPServerConfig::HTTPPortEntry v6;
  v6.family = AF_INET6;
  v6.ip = "::1";
  HTTPServerConfig::HTTPPortEntry bad;
  bad.ip = "1.2.3";  // not an address: logged and left out
  config._portList = {bad, v6};
  EchoHandler handler;
  config._handlers[Str("/echo")] = &handler;
  config._shutdownPollMs = 10;
  {
    HTTPServer server;
    ASSERT_TRUE(server.init(config));
    EXPECT_EQ(0, server.boundPort(0));
    uint16_t port = server.boundPort(1);
    ASSERT_NE(0, port);
    std::thread loop([&] { server.go(); });
    std::string got = run("curl -s -g http://[::1]:" + std::to_string(port) + "/echo/six");
    EXPECT_EQ(0u, got.find("GET /echo/six HTTP/1.1||")) << got;
    server.handleSignal(2);
    loop.join();
    while (HTTPServer::liveRequestThreads() > 0) {
      MainThread::waitForJoinRequest(ConditionWaitTimeout(0, 100000000));
      MainThread::runPendingJoins();
    }
  }
  EXPECT_EQ(fdsBefore, openFds());
}

TEST_F(HTTPServerTest, GzipWhenTheClientAcceptsIt) {
  start();
  std::string plain = run("curl -s " + url("/echo"));
  std::string decoded = run("curl -s --compressed " + url("/echo"));
  EXPECT_EQ(plain, decoded);
  std::string headers = run("curl -s -D - -o /dev/null -H 'Accept-Encoding: gzip' " + url("/echo"));
  EXPECT_NE(std::string::npos, headers.find("Content-Encoding: gzip")) << headers;
  EXPECT_EQ(std::string::npos, headers.find("Content-Length")) << headers;
  EXPECT_EQ("ok\n", run("curl -s -H 'Accept-Encoding: gzip' " + url("/echo") +
                        " | gzip -t && echo ok"));
  std::string refused =
      run("curl -s -D - -o /dev/null -H 'Accept-Encoding: gzip;q=0' " + url("/echo"));
  EXPECT_EQ(std::string::npos, refused.find("Content-Encoding")) << refused;
  EXPECT_NE(std::string::npos, refused.find("Content-Length"));
}

TEST_F(HTTPServerTest, CurlOverTls) {
  start(true);
  std::string get = run("curl -s -k " + url("/echo/tls"));
  EXPECT_EQ(0u, get.find("GET /echo/tls HTTP/1.1||")) << get;
  std::string gz = run("curl -s -k --compressed " + url("/echo/tls"));
  EXPECT_EQ(get, gz);
}

TEST_F(HTTPServerTest, PythonClientHeaderEdgeCases) {
  start();
  std::string script =
      "import http.client\n"
      "c = http.client.HTTPConnection('127.0.0.1', " + std::to_string(_port) + ")\n"
      "c.putrequest('PUT', '/echo/p', skip_accept_encoding=True)\n"
      "c.putheader('X-Folded', 'a', 'b')\n"
      "c.putheader('content-LENGTH', '3')\n"
      "c.endheaders(b'abc')\n"
      "r = c.getresponse()\n"
      "print(r.status, r.getheader('Connection'), r.read().decode()[:20])\n";
  std::string out = run("python3 -c \"" + script + "\"");
  EXPECT_EQ("200 close PUT /echo/p HTTP/1.1\n", out.substr(0, 31)) << out;
}

TEST_F(HTTPServerTest, HostileAndBrokenRequests) {
  start(false, 100);
  const struct {
    std::string request;
    const char* want;
  } kCases[] = {
      {"GET /echo HTTP/1.1\nHost: x\n\n", "HTTP/1.1 200 OK"},  // bare line feeds
      {"GET\r\n\r\n", "HTTP/1.1 400 Bad Request\r\n"},
      {"HEAD /echo HTTP/1.1\r\n\r\n", "HTTP/1.1 501 Not Implemented\r\n"},
      {"PATCH /echo HTTP/1.1\r\n\r\n", "HTTP/1.1 400 Bad Request\r\n"},
      {"POST /echo HTTP/1.1\r\nContent-Length: -5\r\n\r\n", "POST /echo HTTP/1.1||"},
      {"POST /echo HTTP/1.1\r\nContent-Length: 101\r\n\r\n",
       "content exceeded max_content_length"},
      {"GET /" + std::string(1048577 - 5, 'a') + "\r\n\r\n", "HTTP/1.1 414 Request-URI Too Long"},
      {"GET / HTTP/1.1\r\nX: " + std::string(1048576, 'h') + "\r\n\r\n",
       "HTTP/1.1 413 Request Entity Too Large"},
      // A streaming request whose handler ignores the stream is answered.
      {"POST /echo HTTP/1.1\r\nX-Kestro-Input-Mode: streaming\r\n\r\nabc", "POST /echo HTTP/1.1||"},
  };
  for (const auto& c : kCases) {
    std::string got = exchange(_port, c.request);
    EXPECT_NE(std::string::npos, got.find(c.want)) << c.request.substr(0, 60) << " -> " << got;
  }
  // The "400 Bad request" text for a code the table lacks reaches the wire too.
  Str text;
  EXPECT_EQ("400 Bad request", HTTPServer::getErrorString(299, text));
}

TEST_F(HTTPServerTest, StreamingInputReachesTheHandlerUntilTheClientCloses) {
  start();
  int s = connectTo(_port);
  ASSERT_GE(s, 0);
  std::string head =
      "POST /echo/stream HTTP/1.1\r\nContent-Length: 2\r\nx-kestro-input-mode: STREAMING\r\n"
      "\r\nhi";
  send(s, head.data(), head.size(), MSG_NOSIGNAL);
  std::string streamed;
  for (int i = 0; i < 200; i++) {
    std::string line = "line " + std::to_string(i) + "\n";
    streamed += line;
    send(s, line.data(), line.size(), MSG_NOSIGNAL);
  }
  shutdown(s, SHUT_WR);  // the end of the stream
  std::string out;
  char buf[8192];
  pollfd pfd{s, POLLIN, 0};
  while (poll(&pfd, 1, 10000) > 0) {
    ssize_t r = recv(s, buf, sizeof(buf), 0);
    if (r <= 0) break;
    out.append(buf, static_cast<size_t>(r));
  }
  close(s);
  ASSERT_NE(std::string::npos, out.find("POST /echo/stream HTTP/1.1|hi[")) << out;
  // The pieces arrive in order and whole, however the loop cut them.
  std::string joined;
  size_t at = out.find("|hi[") + 3;
  while (at < out.size() && out[at] == '[') {
    size_t end = out.find(']', at);
    joined += out.substr(at + 1, end - at - 1);
    at = end + 1;
  }
  EXPECT_EQ(streamed, joined);
}

TEST_F(HTTPServerTest, SlowAndVanishingClientsDoNotBlockOthers) {
  start();
  // Half a request, then gone.
  for (int i = 0; i < 5; i++) {
    int s = connectTo(_port);
    ASSERT_GE(s, 0);
    send(s, "POST /echo HTTP/1.1\r\nContent-Length: 50\r\n\r\nabc", 46, MSG_NOSIGNAL);
    close(s);
  }
  // 50 slow clients dribble a request byte by byte while others are served.
  constexpr int SLOW = 50;
  std::vector<int> slow;
  for (int i = 0; i < SLOW; i++) slow.push_back(connectTo(_port));
  const std::string req = "GET /echo/slow HTTP/1.1\r\n\r\n";
  for (size_t b = 0; b < req.size(); b++) {
    for (int s : slow) send(s, &req[b], 1, MSG_NOSIGNAL);
    if (b % 8 == 0) {
      EXPECT_NE(std::string::npos, exchange(_port, "GET /echo HTTP/1.1\r\n\r\n").find("200 OK"));
    }
  }
  for (int s : slow) {
    char buf[256];
    pollfd pfd{s, POLLIN, 0};
    ASSERT_EQ(1, poll(&pfd, 1, 10000));
    ssize_t r = recv(s, buf, sizeof(buf) - 1, 0);
    ASSERT_GT(r, 0);
    buf[r] = 0;
    EXPECT_EQ(0, strncmp(buf, "HTTP/1.1 200 OK", 15));
    close(s);
  }
}

TEST_F(HTTPServerTest, ShutdownGivesUpOnAHungRequestAndNamesIt) {
  start();
  int s = connectTo(_port);
  ASSERT_GE(s, 0);
  send(s, "GET /hang HTTP/1.1\r\n\r\n", 22, MSG_NOSIGNAL);
  _handler.waitHung();
  EXPECT_EQ(1u, HTTPServer::liveRequestThreads());
  testing::internal::CaptureStderr();
  _server->handleSignal(15);
  _loopThread.join();  // 30 looks of 20 ms, then the loop ends without the thread
  std::string log = testing::internal::GetCapturedStderr();
  EXPECT_EQ(1u, HTTPServer::liveRequestThreads());
  EXPECT_NE(std::string::npos, log.find("1 HTTP thread still alive at shutdown: {started "))
      << log;
  EXPECT_NE(std::string::npos, log.find("GET /hang HTTP/1.1}"));
  close(s);
  stop();  // releases the handler, which then ends without its loop
}

TEST_F(HTTPServerTest, RequestOfAConnectionThatWentAwayIsDropped) {
  const char* const kWentAway =
      "Fd went away before we could start a new thread, and we're not shutting down.  "
      "Please report this to Support.";
  for (bool shuttingDown : {false, true}) {
    SCOPED_TRACE(shuttingDown);
    start();
    auto capture = std::make_unique<ScopedLogCapture>("HTTPServer");
    int s = connectTo(_port);
    ASSERT_GE(s, 0);
    std::vector<TcpPolledFd*> members;
    for (int i = 0; i < 1000 && members.empty(); i++) {
      members = HTTPServerTestPeer::connections(*_server);
      if (members.empty()) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    ASSERT_EQ(1u, members.size());
    EXPECT_EQ(members[0], _server->getPolledFd(members[0]->descriptor()));
    EXPECT_EQ(nullptr, _server->getPolledFd(PollableDescriptor(s)));  // the client's end
    HTTPServerTestPeer::forgetConnections(*_server, shuttingDown);
    EXPECT_EQ(nullptr, _server->getPolledFd(members[0]->descriptor()));
    send(s, "GET /echo HTTP/1.1\r\n\r\n", 22, MSG_NOSIGNAL);
    ::shutdown(s, SHUT_WR);
    // The loop reads the request, then the end of the stream: the closing
    // of the member comes after the decision about the request.
    bool closed = false;
    for (int i = 0; i < 1000 && !closed; i++) {
      closed = capture->text().find("Closing fd") != std::string::npos;
      if (!closed) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    ASSERT_TRUE(closed);
    char buf[64];
    EXPECT_EQ(0, recv(s, buf, sizeof buf, 0));  // no answer, just the close
    close(s);
    EXPECT_EQ(0u, HTTPServer::liveRequestThreads());
    EXPECT_EQ(!shuttingDown, capture->text().find(kWentAway) != std::string::npos)
        << capture->text();
    capture.reset();  // its file is no descriptor of the server's
    stop();
  }
}

}  // namespace
