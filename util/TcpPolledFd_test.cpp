#include "util/TcpPolledFd.h"

#include <gtest/gtest.h>
#include <netdb.h>
#include <sys/socket.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "util/EventLoop.h"
#include "util/testing/EchoService.h"
#include "util/testing/LogCapture.h"
#include "util/testing/LoopTesting.h"

namespace {

// Reads exactly `n` bytes, or what came before the end.
std::string readExactly(PollableDescriptor fd, size_t n) {
  std::string out;
  char buf[8192];
  while (out.size() < n) {
    const ssize_t got = fd.readWithTimeout(buf, std::min(sizeof(buf), n - out.size()), 10000);
    if (got <= 0) break;
    out.append(buf, static_cast<size_t>(got));
  }
  return out;
}

bool atEnd(PollableDescriptor fd) {
  char c;
  return fd.readWithTimeout(&c, 1, 10000) == 0;
}

// A loop on its own thread with an echo service listening on 127.0.0.1.
class TcpPolledFdTest : public ::testing::TestWithParam<EventLoop::PollMethod> {
 protected:
  // The service belongs to the fixture, so that it outlives the
  // connections that TearDown closes.
  EchoService& start(bool refuse = false, bool reverseDns = false) {
    _service = std::make_unique<EchoService>(nullptr, refuse);
    _accept = std::make_unique<AcceptFd>(&_user, &_loop, _service.get(), reverseDns);
    PollableDescriptor listener = loopback(0).make_listener(16, SOCK_STREAM, 0);
    EXPECT_TRUE(listener.valid());
    SocketAddress bound;
    EXPECT_TRUE(SocketAddress::localOf(listener, &bound));
    _port = bound.port();
    _running = std::make_unique<LoopThread>(_loop);
    inLoop(_loop, [&] { _loop.add(_accept.get(), listener); });
    return *_service;
  }
  void TearDown() override {
    if (_running == nullptr) return;
    inLoop(_loop, [&] {
      _accept->closeAllConnections();
      _loop.removeActivePolledFd(_accept.get());
    });
    _running.reset();
    _accept.reset();
  }
  std::unique_ptr<ScopedFileDescriptor> connect() {
    return std::make_unique<ScopedFileDescriptor>(loopback(_port).full_connect(5000));
  }
  size_t connections() {
    size_t n = 0;
    inLoop(_loop, [&] { n = _accept->connectionCount(); });
    return n;
  }

  EventLoop _loop{GetParam()};
  int _user = 0;
  std::unique_ptr<EchoService> _service;
  std::unique_ptr<AcceptFd> _accept;
  std::unique_ptr<LoopThread> _running;
  uint16_t _port = 0;
};

INSTANTIATE_TEST_SUITE_P(BothMethods, TcpPolledFdTest,
                         ::testing::Values(EventLoop::USE_REGULAR_POLL, EventLoop::USE_EPOLL),
                         pollMethodName);

TEST_P(TcpPolledFdTest, EchoesForSeveralClientsAndForgetsThemAtTheirEnd) {
  EchoService& service = start();
  EXPECT_EQ(&_user, _accept->user());
  std::vector<std::unique_ptr<ScopedFileDescriptor>> clients;
  for (int i = 0; i < 5; ++i) clients.push_back(connect());
  for (int i = 0; i < 5; ++i) {
    ASSERT_TRUE(clients[i]->valid());
    // Sizes from one byte to past the member's buffer and the socket's.
    const std::string text(i == 0 ? 1 : 50000 * i, static_cast<char>('a' + i));
    std::thread writer([&] {
      PollableDescriptor(*clients[i]).writeBlocking(text.data(), text.size());
    });
    EXPECT_EQ(text, readExactly(PollableDescriptor(*clients[i]), text.size())) << i;
    writer.join();
  }
  EXPECT_EQ(5u, connections());
  SocketAddress local;
  ASSERT_TRUE(SocketAddress::localOf(*clients[4], &local));
  inLoop(_loop, [&] {
    EXPECT_EQ("127.0.0.1", service.lastPeerIp);
    EXPECT_EQ("127.0.0.1", service.lastPeerName);  // no reverse lookup asked
    EXPECT_EQ(local.port(), service.lastPeerPort);
  });
  clients.clear();
  EXPECT_TRUE(service.ended.waitFor([](const int& n) { return n == 5; }));
  EXPECT_EQ(0u, connections());
  inLoop(_loop, [&] {
    EXPECT_EQ(std::vector<int>(5, 0), service.endErrors);  // clean ends
    EXPECT_EQ(0, service.writeFailures);
    EXPECT_TRUE(service.live.empty());
  });
}

TEST_P(TcpPolledFdTest, ARefusedConnectionIsClosed) {
  EchoService& service = start(true);
  std::unique_ptr<ScopedFileDescriptor> client = connect();
  ASSERT_TRUE(client->valid());
  EXPECT_TRUE(atEnd(PollableDescriptor(*client)));
  EXPECT_EQ(1, service.refused.get());
  EXPECT_EQ(0u, connections());
}

TEST_P(TcpPolledFdTest, CloseAllConnectionsEndsEveryOne) {
  EchoService& service = start();
  std::vector<std::unique_ptr<ScopedFileDescriptor>> clients;
  for (int i = 0; i < 3; ++i) clients.push_back(connect());
  ASSERT_TRUE(service.created.waitFor([](const int& n) { return n == 3; }));
  inLoop(_loop, [&] { _accept->closeAllConnections(); });
  EXPECT_EQ(3, service.ended.get());
  EXPECT_EQ(0u, connections());
  for (auto& c : clients) EXPECT_TRUE(atEnd(PollableDescriptor(*c)));
}

TEST_P(TcpPolledFdTest, AsksForThePeersNameWhenTold) {
  EchoService& service = start(false, true);
  std::unique_ptr<ScopedFileDescriptor> client = connect();
  ASSERT_EQ(1, client->write("x", 1));
  ASSERT_EQ("x", readExactly(PollableDescriptor(*client), 1));
  // The system's own answer for 127.0.0.1, or the address without one.
  char host[NI_MAXHOST];
  const SocketAddress peer = loopback(0);
  const std::string expected =
      ::getnameinfo(peer.sa(), peer.len(), host, sizeof(host), nullptr, 0, NI_NAMEREQD) == 0
          ? host
          : "127.0.0.1";
  inLoop(_loop, [&] {
    EXPECT_EQ(expected, service.lastPeerName);
    EXPECT_EQ("127.0.0.1", service.lastPeerIp);
  });
}

TEST_P(TcpPolledFdTest, AWorkerTakesAConnectionWritesAndHandsItBack) {
  EchoService& service = start();
  std::unique_ptr<ScopedFileDescriptor> client = connect();
  ASSERT_EQ(1, client->write("a", 1));
  ASSERT_EQ("a", readExactly(PollableDescriptor(*client), 1));
  TcpPolledFd* member = nullptr;
  inLoop(_loop, [&] { member = service.live.at(0); });

  std::thread worker([&] {
    member->claimOwnership();
    const std::string reply = "from the worker";
    EXPECT_EQ(static_cast<ssize_t>(reply.size()),
              member->blockingWrite(reply.data(), reply.size(), 5000));
  });
  worker.join();
  bool active = true, owned = true;
  inLoop(_loop, [&] {
    active = member->isActive();
    owned = member->isOwnedByEventLoop();
  });
  EXPECT_FALSE(active);  // out of polling while the worker has it
  EXPECT_FALSE(owned);
  EXPECT_EQ("from the worker", readExactly(PollableDescriptor(*client), 15));

  std::thread([&] { member->returnOwnership(); }).join();
  ASSERT_EQ(1, client->write("b", 1));
  EXPECT_EQ("b", readExactly(PollableDescriptor(*client), 1));  // the loop echoes again

  // Taken again and dropped by the worker: the loop forgets it.
  std::thread([&] {
    member->claimOwnership();
    TcpPolledFd::removeFdFromOutsideELoop(member);
  }).join();
  EXPECT_EQ(1, service.ended.get());
  EXPECT_EQ(0u, connections());
  EXPECT_TRUE(atEnd(PollableDescriptor(*client)));
}

TEST_P(TcpPolledFdTest, ALoopThatLetsGoLeavesTheConnectionToItsWorker) {
  EchoService& service = start();
  std::unique_ptr<ScopedFileDescriptor> client = connect();
  ASSERT_TRUE(service.created.waitFor([](const int& n) { return n == 1; }));
  TcpPolledFd* member = nullptr;
  inLoop(_loop, [&] { member = service.live.at(0); });
  std::thread([&] { member->claimOwnership(); }).join();
  inLoop(_loop, [&] { _accept->closeAllConnections(); });
  EXPECT_EQ(1, service.ended.get());
  // Still the worker's: it writes, and its hand-back closes and deletes.
  std::thread([&] {
    EXPECT_EQ(4, member->blockingWrite("last", 4, 5000));
    member->returnOwnership();
  }).join();
  EXPECT_EQ("last", readExactly(PollableDescriptor(*client), 4));
  EXPECT_TRUE(atEnd(PollableDescriptor(*client)));
}

TEST_P(TcpPolledFdTest, AnEndReportedOffTheLoopsThreadIsOnlyLogged) {
  EchoService& service = start();
  ScopedLogCapture capture("TcpPolledFd");
  TcpRawDataFd stray(&service, 16);
  _accept->afterFdRemoved(PollableDescriptor(-1), &stray);
  char expected[128];
  std::snprintf(expected, sizeof(expected),
                "WARN afterFdRemoved called out of thread pPolledFd=%p, this is ok during shutdown",
                static_cast<void*>(&stray));
  EXPECT_EQ(std::vector<std::string>({expected}), capture.lines());
  EXPECT_EQ(0, service.ended.get());
}

TEST(TcpPolledFdDeathTest, OnlyAWorkersConnectionIsRemovedFromOutside) {
  EchoService service;
  EXPECT_DEATH(
      {
        TcpRawDataFd owned(&service, 16);
        TcpPolledFd::removeFdFromOutsideELoop(&owned);
      },
      "Assertion failed: !pPolledFd->isOwnedByEventLoop\\(\\)");
}

}  // namespace
