// The management port over real sockets on 127.0.0.1: status lines, header
// order, compression, error answers for bad requests, and the access log.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>
#include <zlib.h>

#include <condition_variable>
#include <map>
#include <mutex>
#include <memory>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "framework/HTTPReply.h"
#include "framework/HTTPRequest.h"
#include "framework/HTTPServer.h"
#include "util/MainThread.h"
#include "util/testing/LogCapture.h"

namespace {

// Answers with a fixed body and headers given out of order, with a
// duplicate name whose later value must win.
class EchoHandler : public MHttpRequestHandler {
 public:
  HTTPReply* handleRequest(const Str& /*peer*/, HTTPRequest* request) override {
    StrVector extra = {"Zeta: last", "Alpha: first", "Mid: one", "Mid: two"};
    HTTPReply* r = HTTPReply::createReply(200, "text/plain", "body:" + request->body(), extra);
    r->setUserWhoLoggedIn("alice");
    return r;
  }
};

// Odd replies: a status outside the table, one not to be sent, and one the
// handler writes itself.
class OddHandler : public MHttpRequestHandler {
 public:
  HTTPReply* handleRequest(const Str&, HTTPRequest* request) override {
    StrVector words;
    request->getMethodComponents(words);
    if (words[1] == "/odd/unknown") return HTTPReply::createReply(299, "text/plain", "u", {});
    if (words[1] == "/odd/nosend") return HTTPReply::createReplyNoData();
    const std::string raw = "HTTP/1.1 202 Accepted\r\nX-Self: 1\r\n\r\nself";
    request->blockingWrite(raw.data(), raw.size(), -1);
    HTTPReply* r = HTTPReply::createReplyNoData();
    r->_handledResponseItself = true;
    r->_status = 202;
    return r;
  }
};

class NullHandler : public MHttpRequestHandler {
 public:
  HTTPReply* handleRequest(const Str&, HTTPRequest*) override { return nullptr; }
};

class ThrowHandler : public MHttpRequestHandler {
 public:
  HTTPReply* handleRequest(const Str&, HTTPRequest*) override {
    throw std::runtime_error("handler broke");
  }
};

struct Response {
  std::string raw;
  std::string statusLine;
  std::vector<std::string> headers;
  std::string body;
  bool closed = false;
};

Response parse(const std::string& raw, bool closed) {
  Response r;
  r.raw = raw;
  r.closed = closed;
  size_t end = raw.find("\r\n\r\n");
  std::string head = raw.substr(0, end);
  if (end != std::string::npos) r.body = raw.substr(end + 4);
  size_t pos = 0;
  bool first = true;
  while (pos <= head.size()) {
    size_t nl = head.find("\r\n", pos);
    std::string line = head.substr(pos, nl == std::string::npos ? std::string::npos : nl - pos);
    if (first)
      r.statusLine = line;
    else
      r.headers.push_back(line);
    first = false;
    if (nl == std::string::npos) break;
    pos = nl + 2;
  }
  return r;
}

std::string headerValue(const Response& r, const std::string& name) {
  for (const auto& h : r.headers)
    if (h.rfind(name + ": ", 0) == 0) return h.substr(name.size() + 2);
  return "<absent>";
}

std::string gunzip(const std::string& in) {
  z_stream z{};
  if (inflateInit2(&z, 15 + 16) != Z_OK) return "<init failed>";
  std::string out;
  char buf[4096];
  z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(in.data()));
  z.avail_in = static_cast<uInt>(in.size());
  int rc;
  do {
    z.next_out = reinterpret_cast<Bytef*>(buf);
    z.avail_out = sizeof buf;
    rc = inflate(&z, Z_NO_FLUSH);
    out.append(buf, sizeof buf - z.avail_out);
  } while (rc == Z_OK);
  inflateEnd(&z);
  return rc == Z_STREAM_END ? out : "<bad gzip>";
}

// Polls until the loop has joined every finished request thread.
bool waitNoLiveThreads() {
  for (int i = 0; i < 500; ++i) {
    if (HTTPServer::liveRequestThreads() == 0) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return false;
}

class HTTPServerReview : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    HTTPServerConfig config;
    HTTPServerConfig::HTTPPortEntry entry;
    entry.port = 0;
    entry.ip = "127.0.0.1";
    config._portList.push_back(entry);
    config._handlers["/echo"] = &echo_;
    config._handlers["/null"] = &null_;
    config._handlers["/odd"] = &odd_;
    config._handlers["/throw"] = &throw_;
    config.max_content_length = 100;
    config._shutdownPollMs = 10;
    server_ = new HTTPServer();
    ASSERT_TRUE(server_->init(config));
    port_ = server_->boundPort(0);
    ASSERT_NE(0, port_);
    // Finished request threads are joined by the loop, as in service.
    MainThread::setEventLoop(&server_->loop());
    thread_ = new std::thread([] { server_->go(); });
  }
  static void TearDownTestSuite() {
    if (server_ == nullptr) return;
    server_->handleSignal(15);
    thread_->join();
    delete thread_;
    MainThread::setEventLoop(nullptr);
    while (HTTPServer::liveRequestThreads() > 0) {
      MainThread::waitForJoinRequest(ConditionWaitTimeout(0, 100000000));
      MainThread::runPendingJoins();
    }
    delete server_;
    server_ = nullptr;
  }

  static Response send(const std::string& request) {
    int s = socket(AF_INET, SOCK_STREAM, 0);
    timeval tv{10, 0};
    setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port_);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(s, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
      close(s);
      return Response{};
    }
    size_t off = 0;
    while (off < request.size()) {
      ssize_t n = ::send(s, request.data() + off, request.size() - off, MSG_NOSIGNAL);
      if (n <= 0) break;
      off += static_cast<size_t>(n);
    }
    std::string raw;
    char buf[8192];
    bool closed = false;
    for (;;) {
      ssize_t n = recv(s, buf, sizeof buf, 0);
      if (n == 0) {
        closed = true;
        break;
      }
      if (n < 0) break;
      raw.append(buf, static_cast<size_t>(n));
    }
    close(s);
    return parse(raw, closed);
  }

  static EchoHandler echo_;
  static NullHandler null_;
  static OddHandler odd_;
  static ThrowHandler throw_;
  static HTTPServer* server_;
  static std::thread* thread_;
  static uint16_t port_;
};

EchoHandler HTTPServerReview::echo_;
NullHandler HTTPServerReview::null_;
OddHandler HTTPServerReview::odd_;
ThrowHandler HTTPServerReview::throw_;
HTTPServer* HTTPServerReview::server_ = nullptr;
std::thread* HTTPServerReview::thread_ = nullptr;
uint16_t HTTPServerReview::port_ = 0;

TEST_F(HTTPServerReview, HeadersSortedUniqueAndConnectionCloses) {
  Response r = send("GET /echo/x?y=1 HTTP/1.1\r\nHost: h\r\n\r\n");
  ASSERT_TRUE(r.closed) << r.raw;
  EXPECT_EQ("HTTP/1.1 200 OK", r.statusLine);
  std::vector<std::string> names;
  for (const auto& h : r.headers) names.push_back(h.substr(0, h.find(':')));
  const std::vector<std::string> want = {"Alpha",        "Connection", "Content-Length",
                                         "Content-Type", "Date",       "Mid",
                                         "Server",       "Zeta"};
  EXPECT_EQ(want, names) << r.raw;
  EXPECT_EQ("Kestrod", headerValue(r, "Server"));
  EXPECT_EQ("two", headerValue(r, "Mid"));
  EXPECT_EQ("close", headerValue(r, "Connection"));
  EXPECT_EQ("5", headerValue(r, "Content-Length"));
  EXPECT_EQ("body:", r.body);
}

TEST_F(HTTPServerReview, BodyIsReadByContentLengthAndBareLineFeeds) {
  Response r = send("POST /echo HTTP/1.1\nContent-Length: 3\n\nabc");
  EXPECT_EQ("HTTP/1.1 200 OK", r.statusLine) << r.raw;
  EXPECT_EQ("body:abc", r.body);
  Response neg = send("POST /echo HTTP/1.1\r\nContent-Length: -5\r\n\r\n");
  EXPECT_EQ("HTTP/1.1 200 OK", neg.statusLine) << neg.raw;
  EXPECT_EQ("body:", neg.body);
}

TEST_F(HTTPServerReview, CompressionOnlyWhenAccepted) {
  const struct {
    const char* acceptEncoding;
    bool gzip;
  } cases[] = {
      {"gzip", true},        {"*", true},        {"gzip;q=0", false},
      {"deflate", false},    {"br, GZIP", true}, {nullptr, false},
  };
  for (const auto& c : cases) {
    std::string req = "POST /echo HTTP/1.1\r\nContent-Length: 4\r\n";
    if (c.acceptEncoding != nullptr) req += std::string("Accept-Encoding: ") + c.acceptEncoding + "\r\n";
    req += "\r\nwxyz";
    Response r = send(req);
    const char* label = c.acceptEncoding ? c.acceptEncoding : "(none)";
    ASSERT_EQ("HTTP/1.1 200 OK", r.statusLine) << label << r.raw;
    if (c.gzip) {
      EXPECT_EQ("gzip", headerValue(r, "Content-Encoding")) << label;
      EXPECT_EQ("<absent>", headerValue(r, "Content-Length")) << label;
      EXPECT_EQ("body:wxyz", gunzip(r.body)) << label;
    } else {
      EXPECT_EQ("<absent>", headerValue(r, "Content-Encoding")) << label;
      EXPECT_EQ("9", headerValue(r, "Content-Length")) << label;
      EXPECT_EQ("body:wxyz", r.body) << label;
    }
  }
}

TEST_F(HTTPServerReview, BadRequestsGetTheirStatus) {
  const struct {
    std::string request;
    const char* status;
    const char* body;
  } cases[] = {
      {"HEAD /echo HTTP/1.1\r\n\r\n", "HTTP/1.1 501 Not Implemented", "501 Not Implemented"},
      {"OPTIONS /echo HTTP/1.1\r\n\r\n", "HTTP/1.1 501 Not Implemented", "501 Not Implemented"},
      {"TRACE /echo HTTP/1.1\r\n\r\n", "HTTP/1.1 501 Not Implemented", "501 Not Implemented"},
      {"CONNECT /echo HTTP/1.1\r\n\r\n", "HTTP/1.1 501 Not Implemented", "501 Not Implemented"},
      {"PATCH /echo HTTP/1.1\r\n\r\n", "HTTP/1.1 400 Bad Request", "400 Bad Request"},
      {"get /echo HTTP/1.1\r\n\r\n", "HTTP/1.1 400 Bad Request", "400 Bad Request"},
      {"GET /nothing-here HTTP/1.1\r\n\r\n", "HTTP/1.1 404 Not Found",
       "<html><body>404 - not found</body></html>"},
      {"GET /null HTTP/1.1\r\n\r\n", "HTTP/1.1 404 Not Found",
       "<html><body>404 - not found</body></html>"},
      {"POST /echo HTTP/1.1\r\nContent-Length: 101\r\n\r\n",
       "HTTP/1.1 413 Request Entity Too Large", "content exceeded max_content_length"},
      {std::string(1048577, 'G'), "HTTP/1.1 414 Request-URI Too Long",
       "exceeded max_method_size"},
  };
  for (const auto& c : cases) {
    Response r = send(c.request);
    const std::string label = c.request.substr(0, 40);
    EXPECT_TRUE(r.closed) << label;
    EXPECT_EQ(c.status, r.statusLine) << label << "\n" << r.raw.substr(0, 300);
    EXPECT_EQ(c.body, r.body) << label;
    EXPECT_EQ("Kestrod", headerValue(r, "Server")) << label;
  }
}

TEST_F(HTTPServerReview, HeaderBlockOverrunIs413) {
  std::string req = "GET /echo HTTP/1.1\r\n";
  const std::string line = "X-Pad: " + std::string(4000, 'p') + "\r\n";
  while (req.size() < 1048576 + 8192) req += line;
  Response r = send(req);
  EXPECT_EQ("HTTP/1.1 413 Request Entity Too Large", r.statusLine) << r.raw.substr(0, 300);
  EXPECT_EQ("exceeded max_header_size", r.body);
}

TEST_F(HTTPServerReview, HandlerExceptionDoesNotStopTheServer) {
  ScopedLogCapture log("HTTPServer");
  send("GET /throw HTTP/1.1\r\n\r\n");
  EXPECT_NE(std::string::npos, log.text().find("Exception in handleRequest handler broke"))
      << log.text();
  Response after = send("GET /echo HTTP/1.1\r\n\r\n");
  EXPECT_EQ("HTTP/1.1 200 OK", after.statusLine);
}

TEST_F(HTTPServerReview, AccessLineFormat) {
  ScopedLogCapture log("HTTPAccess");
  Response r = send("POST /echo/a HTTP/1.1\r\nContent-Length: 2\r\n\r\nhi");
  ASSERT_EQ("HTTP/1.1 200 OK", r.statusLine);
  const std::string text = log.text();
  // peer - user [dd/Mon/YYYY:HH:MM:SS.mmm +zzzz] "method line" status bytes - - - Nms
  const std::regex line(
      "INFO 127\\.0\\.0\\.1 - alice \\[\\d{2}/[A-Z][a-z]{2}/\\d{4}:\\d{2}:\\d{2}:\\d{2}\\.\\d{3} "
      "[+-]\\d{4}\\] \"POST /echo/a HTTP/1\\.1\" 200 " +
      std::to_string(r.raw.size()) + " - - - \\d+ms\n");
  EXPECT_TRUE(std::regex_search(text, line)) << text << "\nbytes=" << r.raw.size();
}



TEST_F(HTTPServerReview, OddReplies) {
  ScopedLogCapture access("HTTPAccess");
  Response unknown = send("GET /odd/unknown HTTP/1.1\r\nAccept-Encoding: gzip\r\n\r\n");
  EXPECT_EQ("HTTP/1.1 400 Bad request", unknown.statusLine) << unknown.raw;
  EXPECT_EQ("u", gunzip(unknown.body));
  Response nosend = send("GET /odd/nosend HTTP/1.1\r\n\r\n");
  EXPECT_TRUE(nosend.closed);
  EXPECT_EQ("", nosend.raw);
  Response self = send("GET /odd/self HTTP/1.1\r\n\r\n");
  EXPECT_TRUE(self.closed);
  EXPECT_EQ("HTTP/1.1 202 Accepted\r\nX-Self: 1\r\n\r\nself", self.raw);
  ASSERT_TRUE(waitNoLiveThreads());
  const std::string text = access.text();
  EXPECT_TRUE(std::regex_search(text, std::regex("\"GET /odd/unknown HTTP/1\\.1\" 299 \\d+ - - - \\d+ms\n")))
      << text;
  EXPECT_EQ(std::string::npos, text.find("/odd/nosend")) << text;
  EXPECT_TRUE(std::regex_search(text, std::regex("\"GET /odd/self HTTP/1\\.1\" 202 " +
                                                 std::to_string(self.raw.size()) +
                                                 " - - - \\d+ms\n")))
      << text;
}

TEST_F(HTTPServerReview, ServerLogLinesOfOneRequest) {
  ScopedLogCapture log("HTTPServer");
  Response r = send("GET /echo/deeper?x=1 HTTP/1.1\r\n\r\n");
  ASSERT_EQ("HTTP/1.1 200 OK", r.statusLine);
  ASSERT_TRUE(waitNoLiveThreads());
  const std::string text = log.text();
  EXPECT_NE(std::string::npos, text.find("URLBASE FOR THIS REQUEST IS /echo\n")) << text;
  EXPECT_TRUE(std::regex_search(text, std::regex("DEBUG blockingWrite wrote :\\d+ bytes\\. rv = \\d+\n")))
      << text;
}

TEST_F(HTTPServerReview, RequestThreadsEndAfterEveryKindOfAnswer) {
  const std::string reqs[] = {
      "GET /echo HTTP/1.1\r\n\r\n",
      "POST /echo HTTP/1.1\r\nContent-Length: 101\r\n\r\n",
      std::string(1048577, 'G'),
      "GET /echo HTTP/1.1\r\n" + std::string(1100000, 'h'),
      "GET /throw HTTP/1.1\r\n\r\n",
  };
  for (const auto& q : reqs) {
    Response r = send(q);
    EXPECT_TRUE(waitNoLiveThreads()) << q.substr(0, 30) << " live=" << HTTPServer::liveRequestThreads();
  }
}

// Holds its request until released, to keep a request thread alive over
// a shutdown; or reads a streaming body to its end and echoes it.
class SlowHandler : public MHttpRequestHandler {
 public:
  HTTPReply* handleRequest(const Str&, HTTPRequest* request) override {
    if (request->conduit() != nullptr) {
      Str all, part;
      size_t count = 0;
      while (request->conduit()->read(part, count)) all.append(part.data(), count);
      return HTTPReply::createReply(200, "text/plain", "streamed:" + all, {});
    }
    std::unique_lock<std::mutex> lock(_mutex);
    _entered = true;
    _changed.notify_all();
    _changed.wait(lock, [this] { return _released; });
    return HTTPReply::createReply(200, "text/plain", "late", {});
  }
  void waitEntered() {
    std::unique_lock<std::mutex> lock(_mutex);
    _changed.wait(lock, [this] { return _entered; });
  }
  void release() {
    std::lock_guard<std::mutex> lock(_mutex);
    _released = true;
    _changed.notify_all();
  }

 private:
  std::mutex _mutex;
  std::condition_variable _changed;
  bool _entered = false;
  bool _released = false;
};

class HTTPServerShutdownReview : public ::testing::Test {
 protected:
  void SetUp() override {
    HTTPServerConfig config;
    HTTPServerConfig::HTTPPortEntry entry;
    entry.ip = "127.0.0.1";
    config._portList.push_back(entry);
    config._handlers["/slow"] = &_handler;
    config._shutdownPollMs = 5;
    configure(config);
    _server = std::make_unique<HTTPServer>();
    ASSERT_TRUE(_server->init(config));
    _port = _server->boundPort(0);
    MainThread::setEventLoop(&_server->loop());
    _loop = std::thread([this] { _server->go(); });
  }
  virtual void configure(HTTPServerConfig&) {}
  void TearDown() override {
    _handler.release();
    if (_loop.joinable()) {
      _server->handleSignal(15);
      _loop.join();
    }
    MainThread::setEventLoop(nullptr);
    while (HTTPServer::liveRequestThreads() > 0) {
      MainThread::waitForJoinRequest(ConditionWaitTimeout(0, 100000000));
      MainThread::runPendingJoins();
    }
    if (_client.joinable()) _client.join();
    _server.reset();
  }
  int connectClient() {
    int s = socket(AF_INET, SOCK_STREAM, 0);
    timeval tv{10, 0};
    setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(_port);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(0, connect(s, reinterpret_cast<sockaddr*>(&a), sizeof a));
    return s;
  }
  static std::string readAll(int s) {
    std::string raw;
    char buf[4096];
    for (;;) {
      ssize_t n = recv(s, buf, sizeof buf, 0);
      if (n <= 0) break;
      raw.append(buf, static_cast<size_t>(n));
    }
    return raw;
  }

  SlowHandler _handler;
  std::unique_ptr<HTTPServer> _server;
  std::thread _loop;
  std::thread _client;
  uint16_t _port = 0;
};

TEST_F(HTTPServerShutdownReview, HungRequestIsNamedAndShutdownGoesOn) {
  ScopedLogCapture log("HTTPServer");
  _client = std::thread([this] {
    int s = connectClient();
    const std::string req = "GET /slow HTTP/1.1\r\n\r\n";
    ::send(s, req.data(), req.size(), MSG_NOSIGNAL);
    readAll(s);
    close(s);
  });
  _handler.waitEntered();
  _server->handleSignal(15);
  _loop.join();  // ends although the request still runs
  const std::string text = log.text();
  EXPECT_NE(std::string::npos, text.find("INFO HTTPServer::handleSignal 15\n")) << text;
  EXPECT_NE(std::string::npos, text.find("Disabling all acceptors due to shutdown\n")) << text;
  EXPECT_NE(std::string::npos, text.find("WARN Shutdown triggered via callback.\n")) << text;
  EXPECT_NE(std::string::npos, text.find("WARN HTTPServer shutting down. Terminating eloop.\n"))
      << text;
  EXPECT_NE(std::string::npos, text.find("Closing all acceptors due to shutdown\n")) << text;
  EXPECT_TRUE(std::regex_search(
      text, std::regex("INFO 1 HTTP thread still alive, delaying shutdown: \\{started \\d+ms ago: "
                       "127\\.0\\.0\\.1 GET /slow HTTP/1\\.1\\}\n")))
      << text;
  EXPECT_TRUE(std::regex_search(
      text, std::regex("WARN 1 HTTP thread still alive at shutdown: \\{started \\d+ms ago: "
                       "127\\.0\\.0\\.1 GET /slow HTTP/1\\.1\\}\n")))
      << text;
  // Each stage delays while its counter (10, then 20) lasts, then warns once.
  size_t delays = 0, warnings = 0;
  for (size_t p = 0; (p = text.find("still alive, delaying shutdown", p)) != std::string::npos; ++p)
    ++delays;
  for (size_t p = 0; (p = text.find("still alive at shutdown", p)) != std::string::npos; ++p)
    ++warnings;
  EXPECT_EQ(30u, delays) << text;
  EXPECT_EQ(2u, warnings) << text;
}

TEST_F(HTTPServerShutdownReview, StreamingBodyReachesTheHandler) {
  ScopedLogCapture log("HTTPServer");
  int s = connectClient();
  const std::string req =
      "POST /slow HTTP/1.1\r\nX-Kestro-Input-Mode: streaming\r\n\r\nhello ";
  ::send(s, req.data(), req.size(), MSG_NOSIGNAL);
  ::send(s, "world", 5, MSG_NOSIGNAL);
  shutdown(s, SHUT_WR);
  const std::string raw = readAll(s);
  close(s);
  ASSERT_TRUE(waitNoLiveThreads());
  EXPECT_EQ(0u, raw.rfind("HTTP/1.1 200 OK\r\n", 0)) << raw;
  EXPECT_NE(std::string::npos, raw.find("\r\n\r\nstreamed:hello world")) << raw;
  const std::string text = log.text();
  EXPECT_TRUE(std::regex_search(text, std::regex("Creating queue queue_\\S+ in InputStreamConduit")))
      << text;
  EXPECT_NE(std::string::npos, text.find("Sending done key into the conduit!!")) << text;
  EXPECT_NE(std::string::npos, text.find("Done key found - terminating")) << text;
  EXPECT_NE(std::string::npos, text.find("Closing fd")) << text;
}

class HTTPServerNoCompressionReview : public HTTPServerShutdownReview {
 protected:
  void configure(HTTPServerConfig& config) override {
    config._compression = false;
    config._handlers["/echo"] = &_echo;
  }
  EchoHandler _echo;
};

TEST_F(HTTPServerNoCompressionReview, AcceptedGzipIsNotUsedWhenTurnedOff) {
  for (const char* enc : {"gzip", "*"}) {
    int s = connectClient();
    const std::string req = std::string("GET /echo HTTP/1.1\r\nAccept-Encoding: ") + enc + "\r\n\r\n";
    ::send(s, req.data(), req.size(), MSG_NOSIGNAL);
    Response r = parse(readAll(s), true);
    close(s);
    EXPECT_EQ("HTTP/1.1 200 OK", r.statusLine) << enc;
    EXPECT_EQ("<absent>", headerValue(r, "Content-Encoding")) << enc;
    EXPECT_EQ("5", headerValue(r, "Content-Length")) << enc;
    EXPECT_EQ("body:", r.body) << enc;
  }
}

// A listening socket that holds a port so that binding it again fails.
struct HeldPort {
  int fd = -1;
  uint16_t port = 0;
  HeldPort(int family, const char* ip) {
    fd = socket(family, SOCK_STREAM, 0);
    if (family == AF_INET) {
      sockaddr_in a{};
      a.sin_family = AF_INET;
      inet_pton(AF_INET, ip, &a.sin_addr);
      bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
      socklen_t len = sizeof a;
      getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
      port = ntohs(a.sin_port);
    } else {
      sockaddr_in6 a{};
      a.sin6_family = AF_INET6;
      inet_pton(AF_INET6, ip, &a.sin6_addr);
      bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
      socklen_t len = sizeof a;
      getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
      port = ntohs(a.sin6_port);
    }
    listen(fd, 1);
  }
  ~HeldPort() { close(fd); }
};

TEST(HTTPServerPortsReview, BindFailuresAreLoggedAndLeftOut) {
  HeldPort v4(AF_INET, "127.0.0.1");
  HeldPort v6(AF_INET6, "::1");
  ASSERT_NE(0, v4.port);
  ASSERT_NE(0, v6.port);
  ScopedLogCapture log("HTTPServer");
  HTTPServerConfig config;
  HTTPServerConfig::HTTPPortEntry e;
  e.port = v4.port;
  e.ip = "127.0.0.1";
  config._portList.push_back(e);
  e.ip = "";
  config._portList.push_back(e);
  e.ip = "not-an-ip";
  config._portList.push_back(e);
  HTTPServerConfig::HTTPPortEntry e6;
  e6.family = AF_INET6;
  e6.port = v6.port;
  e6.ip = "::1";
  config._portList.push_back(e6);
  e6.ip = "";
  config._portList.push_back(e6);
  {
    HTTPServer server;
    EXPECT_FALSE(server.init(config));
    for (size_t i = 0; i < config._portList.size(); ++i) EXPECT_EQ(0, server.boundPort(i)) << i;
  }
  const std::string text = log.text();
  const std::string p4 = std::to_string(v4.port), p6 = std::to_string(v6.port);
  for (const std::string& want :
       {std::string("Binding ports"), "Could not bind to ip 127.0.0.1 port " + p4,
        "Could not bind to port " + p4,
        std::string("Address given to listen on (\"not-an-ip\") not a valid IP"),
        "Could not bind to ipv6 ::1 port " + p6, "Could not bind to ipv6 port " + p6}) {
    EXPECT_NE(std::string::npos, text.find(want + "\n")) << want << "\n" << text;
  }
}

TEST(HTTPServerPortsReview, AcceptingLineNamesTheAddress) {
  ScopedLogCapture log("HTTPServer");
  HTTPServerConfig config;
  HTTPServerConfig::HTTPPortEntry e;
  e.ip = "127.0.0.1";
  config._portList.push_back(e);
  HTTPServer server;
  ASSERT_TRUE(server.init(config));
  const std::string want = "Accepting connections on 127.0.0.1:" + std::to_string(server.boundPort(0)) + "\n";
  EXPECT_NE(std::string::npos, log.text().find(want)) << log.text();
}

class HTTPServerBadTlsReview : public HTTPServerShutdownReview {
 protected:
  void configure(HTTPServerConfig& config) override {
    config._portList[0].ssl = true;
    config._sslCertPath = "/nonexistent/cert.pem";
    config._sslKeyPath = "/nonexistent/key.pem";
    config._handlers["/echo"] = &_echo;
  }
  EchoHandler _echo;
  ScopedLogCapture _log{"HTTPServer"};
};

TEST_F(HTTPServerBadTlsReview, UnusableCertificateFallsBackToPlainTcp) {
  const std::string text = _log.text();
  for (const char* want : {"Initializing SSL Context\n",
                           "SSL context could not be created - error in cert or password is wrong\n",
                           "SSL will not be enabled\n"}) {
    EXPECT_NE(std::string::npos, text.find(want)) << want << text;
  }
  int s = connectClient();
  const std::string req = "GET /echo HTTP/1.1\r\n\r\n";
  ::send(s, req.data(), req.size(), MSG_NOSIGNAL);
  Response r = parse(readAll(s), true);
  close(s);
  EXPECT_EQ("HTTP/1.1 200 OK", r.statusLine) << r.raw;
}

}  // namespace
