// The TCP members of an event loop: AcceptFd, a listening socket that makes
// a member for each connection through a TcpFdFactory; TcpPolledFd, one
// connection, which a worker thread may take out of the loop to write to
// and hand back; and TcpRawDataFd, which delivers the bytes it reads.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <memory>
#include <set>

#include "util/PolledFd.h"
#include "util/SocketAddress.h"
#include "util/Str.h"

class AcceptFd;
class EventLoop;
class SSLNetworkConnection;
class TcpPolledFd;

// Makes the members of an AcceptFd's connections and hears of their end.
// Called on the loop's thread.
class TcpFdFactory {
 public:
  virtual ~TcpFdFactory() = default;
  // A member, allocated with new, for the accepted non-blocking `fd` from
  // `peer`; the loop owns it from then on. Null refuses the connection and
  // the descriptor is closed.
  virtual TcpPolledFd* createTcpPolledFd(PollableDescriptor fd, const SocketAddress& peer) = 0;
  // The loop is done with `member` (it ended, or closeAllConnections ran);
  // it is about to be closed and deleted, by the loop or by the worker that
  // owns it.
  virtual void tcpPolledFdEnded(TcpPolledFd* member) = 0;
};

// One connection. It begins owned by the loop, which closes and deletes it
// when it ends. A worker thread may claimOwnership(), write with
// blockingWrite(), and then either returnOwnership() or
// removeFdFromOutsideELoop(). Loop-thread object except for those calls.
class TcpPolledFd : public PolledFd {
 public:
  TcpPolledFd() = default;
  ~TcpPolledFd() override = default;

  // Writes all `n` bytes, waiting up to `timeoutMs` (negative: no limit);
  // n, or -1 with errno (ETIMEDOUT). From the loop's thread, or from the
  // worker that owns the member.
  virtual ssize_t blockingWrite(const char* data, size_t n, int timeoutMs);
  // The TLS session; null for a plain connection.
  virtual SSLNetworkConnection* getSSL();
  // Tells the AcceptFd, which tells the factory and lets go of it.
  void after_eof(PollableDescriptor fd) override;

  AcceptFd* acceptFd() const { return _acceptFd; }
  EventLoop* loop() const { return _loop; }
  // The peer's name (its reverse lookup when the AcceptFd asked for it),
  // its numeric address and its port.
  const Str& peerName() const { return _peerName; }
  const Str& peerIp() const { return _peerIp; }
  unsigned short peerPort() const { return _peerPort; }
  bool isOwnedByEventLoop() const { return _ownedByEventLoop; }

  // From a worker: takes the member out of polling (ClaimOwnershipActor,
  // waited for). REQUIRES: the member belongs to an AcceptFd's loop.
  void claimOwnership();
  // From the owning worker: the loop polls it again; if the loop finished
  // with it meanwhile, the member is closed and deleted instead.
  void returnOwnership();
  // From the owning worker: the loop forgets the member (RemoveFdActor,
  // waited for), and the member is closed and deleted. REQUIRES: a worker
  // owns it ("!pPolledFd->isOwnedByEventLoop()").
  static void removeFdFromOutsideELoop(TcpPolledFd* pPolledFd);
  // On the loop's thread, when the loop no longer needs the member: closes
  // and deletes it, unless a worker owns it, which then does that.
  void eventLoopThreadIsDoneWithUs();

 private:
  friend class AcceptFd;
  friend class ClaimOwnershipActor;
  friend class ReturnOwnershipActor;
  friend class RemoveFdActor;

  AcceptFd* _acceptFd = nullptr;
  EventLoop* _loop = nullptr;
  Str _peerName;
  Str _peerIp;
  unsigned short _peerPort = 0;
  bool _ownedByEventLoop = true;  // changed on the loop's thread only
  bool _loopDone = false;         // the loop let go while a worker owned it
};

// What a data member does with its bytes. Called on the loop's thread.
class TcpRawDataFdCallback {
 public:
  virtual ~TcpRawDataFdCallback() = default;
  // `n` bytes came in on `fd`; the callee may answer with blockingWrite.
  virtual void rawDataReceived(TcpPolledFd* fd, const char* data, size_t n) = 0;
  // The stream ended: `errnum` 0 for the peer's close, else the error. The
  // loop then removes the member.
  virtual void rawDataEnded(TcpPolledFd* fd, int errnum) = 0;
};

// A connection that reads whatever comes, in chunks of up to `bufferSize`
// bytes, and hands it to its callback.
class TcpRawDataFd : public TcpPolledFd {
 public:
  // REQUIRES: bufferSize > 0; `callback` outlives the member.
  TcpRawDataFd(TcpRawDataFdCallback* callback, size_t bufferSize);
  // Reads until the socket has no more; true at the end or on an error.
  bool when_events(PollableDescriptor fd) override;

 private:
  TcpRawDataFdCallback* _callback;
  std::unique_ptr<char[]> _buffer;
  size_t _bufferSize;
};

// A listening socket in a loop. Owns the listening descriptor it is added
// with, and the members of its connections. Loop-thread object.
class AcceptFd : public PolledFd {
 public:
  // `user` is the caller's, kept for it; with `reverseDns` each peer's
  // name is looked up, otherwise it is the numeric address.
  AcceptFd(void* user, EventLoop* loop, TcpFdFactory* factory, bool reverseDns);
  // Closes the listening descriptor. REQUIRES: out of the loop, with no
  // connection left (closeAllConnections).
  ~AcceptFd() override;

  unsigned defaultEvents() const override;  // readable only
  // Accepts every waiting connection: each becomes non-blocking, gets its
  // member from the factory (or is closed when that declines), and joins
  // the loop. An accept failure ends the round; the listener stays.
  bool when_events(PollableDescriptor fd) override;
  // A member ended. Off the loop's thread this only logs at WARN
  // "afterFdRemoved called out of thread pPolledFd=%p, this is ok during
  // shutdown". Otherwise the factory is told, the member forgotten, and
  // eventLoopThreadIsDoneWithUs called.
  void afterFdRemoved(PollableDescriptor fd, TcpPolledFd* member);
  // Ends every connection: the factory is told, each member leaves the
  // loop and is done with. On the loop's thread.
  void closeAllConnections();

  void* user() const { return _user; }
  EventLoop* loop() const { return _loop; }
  size_t connectionCount() const { return _fds.size(); }

 private:
  friend class RemoveFdActor;

  void* _user;
  EventLoop* _loop;
  TcpFdFactory* _factory;
  std::set<TcpPolledFd*> _fds;
  bool _reverseDns;
};
