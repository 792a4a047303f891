#include "util/PollableDescriptor.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/ip.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <thread>

#include "util/EventLoopException.h"
#include "util/SocketAddress.h"
#include "util/testing/LoopTesting.h"
#include "util/testing/ThrownText.h"

namespace {

// A listener on 127.0.0.1 with a port of the system's choosing.
struct Listener {
  Listener() : fd(loopback(0).make_listener(16, SOCK_STREAM, 0)) {
    SocketAddress bound;
    EXPECT_TRUE(SocketAddress::localOf(fd, &bound));
    port = bound.port();
  }
  ScopedFileDescriptor fd;
  uint16_t port = 0;
};

int intOption(int fd, int level, int name) {
  int v = -1;
  socklen_t len = sizeof(v);
  EXPECT_EQ(0, ::getsockopt(fd, level, name, &v, &len));
  return v;
}

TEST(SocketAddress, ReadsNumericAddressesOnly) {
  const struct { const char* text; int family; const char* ip; } kGood[] = {
      {"127.0.0.1", AF_INET, "127.0.0.1"},
      {"0.0.0.0", AF_INET, "0.0.0.0"},
      {"::1", AF_INET6, "::1"},
      {"0:0:0:0:0:0:0:1", AF_INET6, "::1"},  // written back in the short form
      {"::ffff:127.0.0.1", AF_INET6, "::ffff:127.0.0.1"},
  };
  for (const auto& c : kGood) {
    SocketAddress a;
    ASSERT_TRUE(SocketAddress::fromNumeric(c.text, 8089, &a)) << c.text;
    EXPECT_EQ(c.family, a.family()) << c.text;
    EXPECT_EQ(c.ip, a.ip()) << c.text;
    EXPECT_EQ(8089, a.port()) << c.text;
  }
  for (const char* text : {"", "localhost", "127.0.0.256", "1.2.3", "::g", "127.0.0.1 ",
                           "[::1]", "127.0.0.1:80"}) {
    SocketAddress a = loopback(7);
    EXPECT_FALSE(SocketAddress::fromNumeric(text, 1, &a)) << text;
    EXPECT_EQ(7, a.port()) << text;  // left alone
  }
  const SocketAddress none;
  EXPECT_EQ(0, none.port());
  EXPECT_EQ("", none.ip());
}

TEST(PollableDescriptor, ListensConnectsAcceptsAndTalksOverLoopback) {
  Listener l;
  ASSERT_TRUE(l.fd.valid());
  ASSERT_NE(0, l.port);
  EXPECT_TRUE(PollableDescriptor(l.fd).isNonblock());
  EXPECT_NE(0, ::fcntl(l.fd.fd(), F_GETFD) & FD_CLOEXEC);

  ScopedFileDescriptor client(loopback(l.port).full_connect(5000));
  ASSERT_TRUE(client.valid()) << strerror(errno);
  EXPECT_FALSE(PollableDescriptor(client).isNonblock());  // comes back blocking
  ASSERT_EQ(1, PollableDescriptor(l.fd).select_for_loop(false, 5000));
  SocketAddress peer;
  ScopedFileDescriptor server(PollableDescriptor(l.fd).accept(peer));
  ASSERT_TRUE(server.valid());
  EXPECT_EQ("127.0.0.1", peer.ip());
  SocketAddress clientLocal, serverPeer;
  ASSERT_TRUE(SocketAddress::localOf(client, &clientLocal));
  ASSERT_TRUE(SocketAddress::peerOf(server, &serverPeer));
  EXPECT_EQ(clientLocal.port(), peer.port());
  EXPECT_EQ(clientLocal.port(), serverPeer.port());

  const std::string text = "GET / HTTP/1.1\r\n\r\n";
  EXPECT_EQ(static_cast<ssize_t>(text.size()),
            PollableDescriptor(client).writeWithTimeout(text.data(), text.size(), 5000));
  std::string got(64, '\0');
  const ssize_t n = PollableDescriptor(server).readWithTimeout(got.data(), got.size(), 5000);
  ASSERT_GT(n, 0);
  EXPECT_EQ(text, got.substr(0, static_cast<size_t>(n)));
  // A shutdown for writing is the end of the stream for the peer.
  EXPECT_TRUE(PollableDescriptor(client).shutdown(SHUT_WR, nullptr, false));
  EXPECT_EQ(0, PollableDescriptor(server).readWithTimeout(got.data(), got.size(), 5000));
  // Nothing is waiting on the listener now.
  EXPECT_FALSE(PollableDescriptor(l.fd).accept().valid());
  EXPECT_EQ(EAGAIN, errno);
}

TEST(PollableDescriptor, TimedReadsEndInTimeDataOrTheEnd) {
  SocketPair pair;
  PollableDescriptor r(pair.a);
  char buf[16];
  errno = 0;
  EXPECT_EQ(-1, r.readWithTimeout(buf, sizeof(buf), 0));
  EXPECT_EQ(ETIMEDOUT, errno);
  EXPECT_EQ(0, r.select_for(false, 0));
  ASSERT_EQ(3, pair.b.write("abc", 3));
  EXPECT_EQ(1, r.select_for(false, 0));
  EXPECT_EQ(3, r.readWithTimeout(buf, sizeof(buf), 1000));
  // A writer that comes later is waited for.
  std::thread late([&] { pair.b.write("d", 1); });
  EXPECT_EQ(1, r.readWithTimeout(buf, sizeof(buf), -1));
  EXPECT_EQ('d', buf[0]);
  late.join();
  pair.b.close();
  EXPECT_EQ(0, r.readWithTimeout(buf, sizeof(buf), 1000));
  // Neither a negative descriptor nor a closed one waits.
  const int closedNumber = pair.a.fd();
  pair.a.close();
  for (int fd : {-1, closedNumber}) {
    errno = 0;
    EXPECT_EQ(-1, PollableDescriptor(fd).select_for(false, 1000)) << fd;
    EXPECT_EQ(EBADF, errno) << fd;
  }
}

TEST(PollableDescriptor, TimedWritesWaitForRoomOrGiveUp) {
  SocketPair pair;
  PollableDescriptor w(pair.a);
  // Fill the socket.
  const std::string chunk(65536, 'x');
  size_t filled = 0;
  for (ssize_t n; (n = ::write(pair.a.fd(), chunk.data(), chunk.size())) > 0;) filled += n;
  ASSERT_EQ(EAGAIN, errno);
  EXPECT_EQ(0, w.select_for(true, 0));
  errno = 0;
  EXPECT_EQ(-1, w.writeWithTimeout("y", 1, 0));
  EXPECT_EQ(ETIMEDOUT, errno);
  // With a reader draining it, a large blocking write goes through whole.
  std::string payload(1 << 20, '\0');
  for (size_t i = 0; i < payload.size(); ++i) payload[i] = static_cast<char>('a' + i % 26);
  std::string received;
  std::thread reader([&] {
    PollableDescriptor r(pair.b);
    char buf[8192];
    while (received.size() < filled + payload.size()) {
      const ssize_t n = r.readWithTimeout(buf, sizeof(buf), -1);
      if (n <= 0) break;
      received.append(buf, static_cast<size_t>(n));
    }
  });
  EXPECT_EQ(static_cast<ssize_t>(payload.size()), w.writeBlocking(payload.data(), payload.size()));
  reader.join();
  ASSERT_EQ(filled + payload.size(), received.size());
  EXPECT_EQ(payload, received.substr(filled));
  // A closed peer is an error, not a signal.
  pair.b.close();
  EXPECT_EQ(-1, w.writeWithTimeout("z", 1, 1000));
  EXPECT_EQ(EPIPE, errno);
}

// A peer that went away counts as ready, so that the read that follows
// reports the end.
TEST(PollableDescriptor, HangUpCountsAsReady) {
  SocketPair p;
  PollableDescriptor a(p.a);
  p.b.close();
  EXPECT_EQ(1, a.select_for(false, 1000));
  EXPECT_EQ(1, a.select_for_loop(false, -1));
  char c;
  EXPECT_EQ(0, a.readWithTimeout(&c, 1, -1));

  int fds[2];
  ASSERT_EQ(0, ::pipe(fds));
  ScopedFileDescriptor r{FileDescriptor(fds[0])};
  ::close(fds[1]);
  EXPECT_EQ(1, PollableDescriptor(r).select_for(false, 1000));
  EXPECT_EQ(0, PollableDescriptor(r).readWithTimeout(&c, 1, 1000));
}

TEST(PollableDescriptor, TimedWritesToAFullSocketOrPipeGiveUp) {
  // No room and nobody reading: a wait that is not zero gives up too.
  {
    SocketPair p;
    PollableDescriptor a(p.a);
    a.try_setting_bufsize(SO_SNDBUF, 4096, 1024);
    const std::string big(8 << 20, 'b');
    errno = 0;
    EXPECT_EQ(-1, a.writeWithTimeout(big.data(), big.size(), 30));
    EXPECT_EQ(ETIMEDOUT, errno);
  }
  // A pipe: written with plain writes, and it times out the same way.
  {
    int fds[2];
    ASSERT_EQ(0, ::pipe2(fds, O_NONBLOCK | O_CLOEXEC));
    ScopedFileDescriptor r{FileDescriptor(fds[0])};
    ScopedFileDescriptor w{FileDescriptor(fds[1])};
    PollableDescriptor out(w);
    EXPECT_EQ(5, out.writeWithTimeout("pipe!", 5, 1000));
    char buf[8];
    EXPECT_EQ(5, PollableDescriptor(r).readWithTimeout(buf, sizeof(buf), 1000));
    EXPECT_EQ("pipe!", std::string(buf, 5));
    const std::string big(1 << 20, 'p');
    errno = 0;
    EXPECT_EQ(-1, out.writeWithTimeout(big.data(), big.size(), 20));
    EXPECT_EQ(ETIMEDOUT, errno);
  }
}

TEST(PollableDescriptor, ConnectsRefusedAndAsynchronous) {
  uint16_t closedPort;
  {
    Listener gone;
    closedPort = gone.port;
  }
  errno = 0;
  EXPECT_FALSE(loopback(closedPort).full_connect(5000).valid());
  EXPECT_EQ(ECONNREFUSED, errno);

  ScopedFileDescriptor refused(loopback(closedPort).start_async_connect());
  if (refused.valid()) {  // loopback may refuse at once or a moment later
    PollableDescriptor p(refused);
    ASSERT_EQ(1, p.select_for_loop(true, 5000));
    EXPECT_FALSE(p.finishAsyncConnect());
    EXPECT_EQ(ECONNREFUSED, errno);
  } else {
    EXPECT_EQ(ECONNREFUSED, errno);
  }

  Listener l;
  ScopedFileDescriptor async(loopback(l.port).start_async_connect());
  ASSERT_TRUE(async.valid());
  PollableDescriptor p(async);
  EXPECT_TRUE(p.isNonblock());
  ASSERT_EQ(1, p.select_for_loop(true, 5000));
  EXPECT_TRUE(p.finishAsyncConnect());
  EXPECT_EQ(0, p.so_error());

  // connect with a time limit on a socket of our own keeps it blocking.
  ScopedFileDescriptor own(FileDescriptor(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)));
  PollableDescriptor o(own);
  EXPECT_TRUE(o.connect(loopback(l.port), 5000));
  EXPECT_FALSE(o.isNonblock());
}

TEST(PollableDescriptor, SwitchesSetWhatTheSystemReportsBack) {
  ScopedFileDescriptor tcp(FileDescriptor(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)));
  PollableDescriptor t(tcp);
  const struct {
    const char* name;
    std::function<bool(bool)> set;
    int level, option;
  } kSwitches[] = {
      {"nodelay", [&](bool on) { return t.setNoDelay(on); }, IPPROTO_TCP, TCP_NODELAY},
      {"keepalive", [&](bool on) { return t.setKeepAlive(on); }, SOL_SOCKET, SO_KEEPALIVE},
      {"reuseaddr", [&](bool on) { return t.setReuseAddress(on); }, SOL_SOCKET, SO_REUSEADDR},
  };
  for (const auto& c : kSwitches) {
    EXPECT_TRUE(c.set(true)) << c.name;
    EXPECT_NE(0, intOption(tcp.fd(), c.level, c.option)) << c.name;
    EXPECT_TRUE(c.set(false)) << c.name;
    EXPECT_EQ(0, intOption(tcp.fd(), c.level, c.option)) << c.name;
  }
  EXPECT_TRUE(t.setTTL(7));
  EXPECT_EQ(7, intOption(tcp.fd(), IPPROTO_IP, IP_TTL));
  t.setNonblock(true);
  EXPECT_TRUE(t.isNonblock());
  t.setNonblock(false);
  EXPECT_FALSE(t.isNonblock());
  EXPECT_EQ(65536, t.try_setting_bufsize(SO_RCVBUF, 65536, 4096));
  EXPECT_GE(intOption(tcp.fd(), SOL_SOCKET, SO_RCVBUF), 65536);

  ScopedFileDescriptor udp(FileDescriptor(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)));
  EXPECT_TRUE(PollableDescriptor(udp).setMcastSelfSend(false));
  EXPECT_EQ(0, intOption(udp.fd(), IPPROTO_IP, IP_MULTICAST_LOOP));

  // A pipe is no socket: every switch says no.
  SocketPair unused;
  int fds[2];
  ASSERT_EQ(0, ::pipe2(fds, O_CLOEXEC));
  ScopedFileDescriptor r{FileDescriptor(fds[0])}, w{FileDescriptor(fds[1])};
  PollableDescriptor p(r);
  EXPECT_FALSE(p.setNoDelay(true));
  EXPECT_EQ(ENOTSOCK, errno);
  EXPECT_FALSE(p.setKeepAlive(true));
  EXPECT_FALSE(p.setTTL(3));
  EXPECT_EQ(0, p.try_setting_bufsize(SO_SNDBUF, 65536, 4096));
  EXPECT_NE(0, p.so_error());
}

TEST(PollableDescriptor, ModeChangesOnABadDescriptorThrow) {
  const std::string text =
      thrownText<PollableDescriptorException>([] { PollableDescriptor(-1).setNonblock(true); });
  EXPECT_NE(std::string::npos,
            text.find("about to throw a PollableDescriptorException: can't F_GETFL: Bad file "
                      "descriptor"))
      << text;
  EXPECT_FALSE(PollableDescriptor(-1).isNonblock());
}

TEST(PollableDescriptor, DatagramsComeWithTheirSender) {
  ScopedFileDescriptor a(FileDescriptor(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)));
  ScopedFileDescriptor b(FileDescriptor(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)));
  ASSERT_TRUE(PollableDescriptor(a).bind(loopback(0)));
  ASSERT_TRUE(PollableDescriptor(b).bind(loopback(0)));
  SocketAddress aAddr, bAddr;
  ASSERT_TRUE(SocketAddress::localOf(a, &aAddr));
  ASSERT_TRUE(SocketAddress::localOf(b, &bAddr));
  ASSERT_EQ(4, ::sendto(b.fd(), "ping", 4, 0, aAddr.sa(), aAddr.len()));
  ASSERT_EQ(1, PollableDescriptor(a).select_for_loop(false, 5000));
  char buf[16];
  SocketAddress from;
  EXPECT_EQ(4, PollableDescriptor(a).recvfrom(buf, sizeof(buf), &from));
  EXPECT_EQ(bAddr.port(), from.port());
  EXPECT_EQ("127.0.0.1", from.ip());
  ASSERT_EQ(2, ::sendto(b.fd(), "hi", 2, 0, aAddr.sa(), aAddr.len()));
  ASSERT_EQ(1, PollableDescriptor(a).select_for_loop(false, 5000));
  EXPECT_EQ(2, PollableDescriptor(a).recvfrom(buf, sizeof(buf), nullptr));
  // Binding the same address twice is refused.
  ScopedFileDescriptor c(FileDescriptor(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)));
  EXPECT_FALSE(PollableDescriptor(c).bind(aAddr));
  EXPECT_EQ(EADDRINUSE, errno);
}

}  // namespace
