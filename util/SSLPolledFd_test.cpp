#include "util/SSLPolledFd.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <thread>

#include "util/EventLoop.h"
#include "util/testing/EchoService.h"
#include "util/testing/LoopTesting.h"
#include "util/testing/TestTempDir.h"

namespace {

// A self-signed certificate and its key, made by the openssl command.
struct Certificate {
  explicit Certificate(const TestTempDir& dir, const char* name) {
    cert = dir / (std::string(name) + "-cert.pem");
    key = dir / (std::string(name) + "-key.pem");
    const std::string command =
        "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 1 "
        "-subj /CN=localhost -keyout '" + std::string(key.c_str()) + "' -out '" +
        std::string(cert.c_str()) + "' >/dev/null 2>&1";
    made = std::system(command.c_str()) == 0;
  }
  Pathname cert, key;
  bool made = false;
};

// A blocking TLS client over a loopback socket, waiting on the socket for
// whatever the library asks.
class Client {
 public:
  Client(const SSLContext& ctx, uint16_t port)
      : _fd(loopback(port).full_connect(5000)), _ssl(ctx, _fd.fd(), false) {}
  bool handshake() {
    for (;;) {
      const int step = _ssl.handshake();
      if (step != 0) return step > 0;
      if (!waitFor()) return false;
    }
  }
  bool writeAll(const std::string& text) {
    size_t done = 0;
    while (done < text.size()) {
      const ssize_t n = _ssl.write(text.data() + done, text.size() - done);
      if (n > 0) {
        done += static_cast<size_t>(n);
      } else if (_ssl.want() == 0 || !waitFor()) {
        return false;
      }
    }
    return true;
  }
  std::string readExactly(size_t n) {
    std::string out;
    char buf[8192];
    while (out.size() < n) {
      const ssize_t got = _ssl.read(buf, std::min(sizeof(buf), n - out.size()));
      if (got > 0) {
        out.append(buf, static_cast<size_t>(got));
      } else if (got == 0 || _ssl.want() == 0 || !waitFor()) {
        break;
      }
    }
    return out;
  }
  // Whether the server ended the session (or the connection).
  bool atEnd() {
    char c;
    for (;;) {
      const ssize_t got = _ssl.read(&c, 1);
      if (got == 0) return true;
      if (got > 0) return false;
      if (_ssl.want() == 0) return true;  // reset without a close message
      if (!waitFor()) return false;
    }
  }
  SSLNetworkConnection& ssl() { return _ssl; }
  PollableDescriptor fd() const { return PollableDescriptor(_fd); }

 private:
  bool waitFor() { return fd().select_for_loop(_ssl.want() == PolledFd::EV_WRITE, 10000) > 0; }

  ScopedFileDescriptor _fd;
  SSLNetworkConnection _ssl;
};

class SSLPolledFdTest : public ::testing::TestWithParam<EventLoop::PollMethod> {
 protected:
  void SetUp() override {
    ASSERT_TRUE(_server.made) << "the openssl command could not make a certificate";
    Str error;
    _serverCtx = SSLContext::makeServer(_server.cert, _server.key, &error);
    ASSERT_NE(nullptr, _serverCtx) << error;
    _service = std::make_unique<EchoService>(_serverCtx.get());
    _accept = std::make_unique<AcceptFd>(nullptr, &_loop, _service.get(), false);
    PollableDescriptor listener = loopback(0).make_listener(16, SOCK_STREAM, 0);
    ASSERT_TRUE(listener.valid());
    SocketAddress bound;
    ASSERT_TRUE(SocketAddress::localOf(listener, &bound));
    _port = bound.port();
    _running = std::make_unique<LoopThread>(_loop);
    inLoop(_loop, [&] { _loop.add(_accept.get(), listener); });
  }
  void TearDown() override {
    if (_running == nullptr) return;
    inLoop(_loop, [&] {
      _accept->closeAllConnections();
      _loop.removeActivePolledFd(_accept.get());
    });
    _running.reset();
  }
  std::unique_ptr<SSLContext> trustingClient() {
    Str error;
    auto ctx = SSLContext::makeClient(_server.cert, &error);
    EXPECT_NE(nullptr, ctx) << error;
    return ctx;
  }

  TestTempDir _dir;
  Certificate _server{_dir, "server"};
  std::unique_ptr<SSLContext> _serverCtx;
  EventLoop _loop{GetParam()};
  std::unique_ptr<EchoService> _service;
  std::unique_ptr<AcceptFd> _accept;
  std::unique_ptr<LoopThread> _running;
  uint16_t _port = 0;
};

INSTANTIATE_TEST_SUITE_P(BothMethods, SSLPolledFdTest,
                         ::testing::Values(EventLoop::USE_REGULAR_POLL, EventLoop::USE_EPOLL),
                         pollMethodName);

TEST_P(SSLPolledFdTest, EchoesOverTlsWithACertificateTheClientTrusts) {
  auto ctx = trustingClient();
  Client client(*ctx, _port);
  ASSERT_TRUE(client.handshake()) << client.ssl().lastError();
  // One byte, then more than a TLS record and the member's buffer.
  for (size_t size : {size_t{1}, size_t{40000}, size_t{300000}}) {
    std::string text(size, '\0');
    for (size_t i = 0; i < size; ++i) text[i] = static_cast<char>(i * 7 + size);
    std::string echoed;
    std::thread reader([&] { echoed = client.readExactly(size); });
    ASSERT_TRUE(client.writeAll(text)) << client.ssl().lastError();
    reader.join();
    EXPECT_EQ(text, echoed) << size;
  }
  bool serverSawTls = false;
  inLoop(_loop, [&] {
    serverSawTls = !_service->live.empty() && _service->live[0]->getSSL() != nullptr &&
                   _service->live[0]->getSSL()->handshakeDone();
  });
  EXPECT_TRUE(serverSawTls);
  // The client's close ends the member cleanly.
  EXPECT_TRUE(client.ssl().sendClose(false));
  EXPECT_TRUE(_service->ended.waitFor([](const int& n) { return n == 1; }));
  inLoop(_loop, [&] { EXPECT_EQ(std::vector<int>({0}), _service->endErrors); });
}

TEST_P(SSLPolledFdTest, APlainTextPeerFailsTheHandshakeAndIsDropped) {
  ScopedFileDescriptor plain(loopback(_port).full_connect(5000));
  ASSERT_TRUE(plain.valid());
  const std::string request = "GET / HTTP/1.1\r\nHost: x\r\n\r\n";
  ASSERT_EQ(static_cast<ssize_t>(request.size()), plain.write(request.data(), request.size()));
  EXPECT_TRUE(_service->ended.waitFor([](const int& n) { return n == 1; }));
  // Whatever alert came first, the connection ends.
  char buf[256];
  ssize_t n;
  while ((n = PollableDescriptor(plain).readWithTimeout(buf, sizeof(buf), 10000)) > 0) {
  }
  EXPECT_TRUE(n == 0 || errno == ECONNRESET) << n;
  inLoop(_loop, [&] { EXPECT_TRUE(_service->endErrors.empty()); });  // no data path reached
}

TEST_P(SSLPolledFdTest, AClientThatTrustsAnotherAuthorityRefusesTheServer) {
  Certificate other(_dir, "other");
  ASSERT_TRUE(other.made);
  Str error;
  auto ctx = SSLContext::makeClient(other.cert, &error);
  ASSERT_NE(nullptr, ctx) << error;
  {
    Client client(*ctx, _port);
    EXPECT_FALSE(client.handshake());
    EXPECT_NE(std::string::npos,
              std::string(client.ssl().lastError()).find("certificate verify failed"))
        << client.ssl().lastError();
  }
  // The server's handshake fails on the client's alert, or on the end of
  // the connection if the alert came too late to be read.
  EXPECT_TRUE(_service->ended.waitFor([](const int& n) { return n == 1; }));
}

TEST(SSLContext, ReportsFilesItCannotUse) {
  TestTempDir dir;
  Certificate a(dir, "a"), b(dir, "b");
  ASSERT_TRUE(a.made && b.made);
  writeTestFile(dir / "junk.pem", "not a certificate\n");
  const struct {
    Pathname cert, key;
    const char* says;
  } kCases[] = {
      {dir / "missing.pem", a.key, "can't load certificate"},
      {dir / "junk.pem", a.key, "can't load certificate"},
      {a.cert, dir / "missing.pem", "can't load private key"},
      {a.cert, b.key, "can't load private key"},  // not the certificate's key
  };
  for (const auto& c : kCases) {
    Str error;
    EXPECT_EQ(nullptr, SSLContext::makeServer(c.cert, c.key, &error)) << c.says;
    const std::string text(error);
    EXPECT_EQ(0u, text.find(c.says)) << text;
    // The message names the file at fault.
    const Pathname& culprit = std::string(c.says).find("key") != std::string::npos ? c.key : c.cert;
    EXPECT_NE(std::string::npos, text.find(culprit.c_str())) << text;
  }
  Str mismatch;
  SSLContext::makeServer(a.cert, b.key, &mismatch);
  EXPECT_NE(std::string::npos, std::string(mismatch).find("mismatch")) << mismatch;
  Str error;
  EXPECT_EQ(nullptr, SSLContext::makeClient(dir / "missing.pem", &error));
  EXPECT_NE(std::string::npos, std::string(error).find("can't load certificate authorities"));
  EXPECT_NE(nullptr, SSLContext::makeServer(a.cert, a.key, &error));
  EXPECT_NE(nullptr, SSLContext::makeClient(Pathname(""), &error));
}

}  // namespace
