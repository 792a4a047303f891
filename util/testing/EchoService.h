// An echo service for tests of AcceptFd and the TCP and TLS members: every
// connection sends back what it reads. Test code only.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "util/SSLPolledFd.h"
#include "util/TcpPolledFd.h"
#include "util/testing/LoopTesting.h"

// The factory and the data callback at once. Its members live on the loop's
// thread; the Waitable counters may be read from anywhere.
class EchoService : public TcpFdFactory, public TcpRawDataFdCallback {
 public:
  // With a context, connections are TLS; `refuse` declines every one.
  explicit EchoService(const SSLContext* tls = nullptr, bool refuse = false)
      : _tls(tls), _refuse(refuse) {}

  TcpPolledFd* createTcpPolledFd(PollableDescriptor, const SocketAddress&) override {
    if (_refuse) {
      refused.update([](int& n) { ++n; });
      return nullptr;
    }
    TcpPolledFd* member = _tls != nullptr
                              ? static_cast<TcpPolledFd*>(new SSLRawDataFd(_tls, this, 4096))
                              : new TcpRawDataFd(this, 4096);
    live.push_back(member);
    created.update([](int& n) { ++n; });
    return member;
  }
  void tcpPolledFdEnded(TcpPolledFd* member) override {
    std::erase(live, member);
    ended.update([](int& n) { ++n; });
  }
  void rawDataReceived(TcpPolledFd* fd, const char* data, size_t n) override {
    lastPeerName = fd->peerName();
    lastPeerIp = fd->peerIp();
    lastPeerPort = fd->peerPort();
    if (onData && onData(fd, std::string(data, n))) return;
    if (fd->blockingWrite(data, n, 5000) != static_cast<ssize_t>(n)) ++writeFailures;
  }
  void rawDataEnded(TcpPolledFd*, int errnum) override {
    endErrors.push_back(errnum);
  }

  // Loop thread only.
  std::vector<TcpPolledFd*> live;
  std::vector<int> endErrors;
  std::string lastPeerName, lastPeerIp;
  unsigned short lastPeerPort = 0;
  int writeFailures = 0;
  // Runs before the echo; true skips it.
  std::function<bool(TcpPolledFd*, const std::string&)> onData;
  // Any thread.
  Waitable<int> created, ended, refused;

 private:
  const SSLContext* _tls;
  bool _refuse;
};
