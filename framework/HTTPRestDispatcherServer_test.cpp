// The dispatcher behind a real server on the loopback address: the URL
// bases it registers, the peer address it takes from the connection, and a
// login followed by a session request.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <thread>

#include "framework/HTTPRestDispatcher.h"
#include "framework/testing/RestTree.h"
#include "util/ConditionWaitTimeout.h"
#include "util/MainThread.h"

namespace {

class Hello : public MRestHandler {
 public:
  HTTPReply* handleRequestNS(const MRestHandlerArg& arg) override {
    return HTTPReply::createReply(200, Str("text/plain"),
                                  Str(std::string("hello ") + arg.getRestConnectionData().peerIp), {});
  }
};

// Sends `request` to 127.0.0.1:`port` and reads to the server's close.
std::string roundTrip(uint16_t port, const std::string& request) {
  int s = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(port);
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  std::string out;
  if (connect(s, reinterpret_cast<sockaddr*>(&a), sizeof(a)) == 0 &&
      send(s, request.data(), request.size(), MSG_NOSIGNAL) ==
          static_cast<ssize_t>(request.size())) {
    char buf[8192];
    pollfd pfd{s, POLLIN, 0};
    ssize_t r;
    while (poll(&pfd, 1, 10000) > 0 && (r = recv(s, buf, sizeof(buf), 0)) > 0) {
      out.append(buf, static_cast<size_t>(r));
    }
  }
  close(s);
  return out;
}

TEST(HTTPRestDispatcherServer, LoginThenSessionOverTheWire) {
  RestTree t("[admin:hello]\nmatch = /hello\n");
  auto d = t.dispatcher(false);
  Hello hello;
  d->registerHandler("admin", &hello);
  HTTPServerConfig config;
  HTTPServerConfig::HTTPPortEntry entry;
  entry.ip = "127.0.0.1";
  config._portList.push_back(entry);
  config._shutdownPollMs = 20;
  d->registerRestDispatcher(config._handlers);
  HTTPServer server;
  ASSERT_TRUE(server.init(config));
  const uint16_t port = server.boundPort(0);
  MainThread::setEventLoop(&server.loop());
  std::thread loop([&] { server.go(); });

  const std::string body = std::string("username=admin&password=s3cret+pw");
  const std::string login = roundTrip(
      port, "POST /services/auth/login HTTP/1.1\r\nContent-Length: " +
                std::to_string(body.size()) + "\r\n\r\n" + body);
  const size_t at = login.find("<sessionKey>");
  ASSERT_NE(std::string::npos, at) << login;
  const std::string key = login.substr(at + 12, 32);
  const std::string ok = roundTrip(
      port, "GET /servicesNS/admin/search/hello HTTP/1.1\r\nAuthorization: Kestro " + key +
                "\r\n\r\n");
  EXPECT_EQ(0u, ok.find("HTTP/1.1 200 OK\r\n")) << ok;
  EXPECT_NE(std::string::npos, ok.find("hello 127.0.0.1")) << ok;
  EXPECT_NE(std::string::npos, ok.find("Expires: Fri, 30 Oct 1998 00:00:00 GMT")) << ok;
  const std::string refused = roundTrip(port, "GET /services/hello HTTP/1.1\r\n\r\n");
  EXPECT_EQ(0u, refused.find("HTTP/1.1 401 Unauthorized\r\n")) << refused;

  server.handleSignal(15);
  loop.join();
  MainThread::setEventLoop(nullptr);
  while (HTTPServer::liveRequestThreads() > 0) {
    MainThread::waitForJoinRequest(ConditionWaitTimeout(0, 100000000));
    MainThread::runPendingJoins();
  }
}

}  // namespace
