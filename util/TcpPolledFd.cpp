#include "util/TcpPolledFd.h"

#include <unistd.h>

#include <cerrno>

#include "util/Assert.h"
#include "util/EventLoop.h"
#include "util/Logger.h"

namespace {

Logger gLogger("TcpPolledFd");

void closeAndDelete(TcpPolledFd* member) {
  PollableDescriptor fd = member->descriptor();
  delete member;
  fd.close_saveErrno();
}

}  // namespace

// Takes a member out of polling for a worker.
class ClaimOwnershipActor : public InThreadActor {
 public:
  explicit ClaimOwnershipActor(TcpPolledFd* member) : _member(member) {}
  void callback() override {
    if (_member->isActive()) _member->_loop->removeActivePolledFd(_member);
    _member->_ownedByEventLoop = false;
  }

 private:
  TcpPolledFd* _member;
};

// Gives a member back to the loop; notes whether the loop had let go.
class ReturnOwnershipActor : public InThreadActor {
 public:
  explicit ReturnOwnershipActor(TcpPolledFd* member) : _member(member) {}
  void callback() override {
    if (_member->_loopDone) {
      abandoned = true;
      return;
    }
    _member->_ownedByEventLoop = true;
    _member->_loop->add(_member, _member->descriptor());
  }

  bool abandoned = false;

 private:
  TcpPolledFd* _member;
};

// Makes the loop forget a member that a worker owns.
class RemoveFdActor : public InThreadActor {
 public:
  explicit RemoveFdActor(TcpPolledFd* member) : _member(member) {}
  void callback() override {
    if (_member->isActive()) _member->_loop->removeActivePolledFd(_member);
    AcceptFd* owner = _member->_acceptFd;
    if (_member->_loopDone || owner == nullptr) return;
    owner->_factory->tcpPolledFdEnded(_member);
    owner->_fds.erase(_member);
    _member->_loopDone = true;
  }

 private:
  TcpPolledFd* _member;
};

ssize_t TcpPolledFd::blockingWrite(const char* data, size_t n, int timeoutMs) {
  return descriptor().writeWithTimeout(data, n, timeoutMs);
}

SSLNetworkConnection* TcpPolledFd::getSSL() { return nullptr; }

void TcpPolledFd::after_eof(PollableDescriptor fd) {
  if (_acceptFd != nullptr) {
    _acceptFd->afterFdRemoved(fd, this);
  } else {
    eventLoopThreadIsDoneWithUs();
  }
}

void TcpPolledFd::claimOwnership() {
  kassert(_loop != nullptr);
  ClaimOwnershipActor actor(this);
  _loop->internal_runInThread(&actor, true);
}

void TcpPolledFd::returnOwnership() {
  ReturnOwnershipActor actor(this);
  _loop->internal_runInThread(&actor, true);
  if (actor.abandoned) closeAndDelete(this);
}

void TcpPolledFd::removeFdFromOutsideELoop(TcpPolledFd* pPolledFd) {
  kassert(!pPolledFd->isOwnedByEventLoop());
  RemoveFdActor actor(pPolledFd);
  pPolledFd->_loop->internal_runInThread(&actor, true);
  closeAndDelete(pPolledFd);
}

void TcpPolledFd::eventLoopThreadIsDoneWithUs() {
  if (_ownedByEventLoop) {
    closeAndDelete(this);
  } else {
    _loopDone = true;
  }
}

TcpRawDataFd::TcpRawDataFd(TcpRawDataFdCallback* callback, size_t bufferSize)
    : _callback(callback), _buffer(new char[bufferSize]), _bufferSize(bufferSize) {
  kassert(bufferSize > 0);
}

bool TcpRawDataFd::when_events(PollableDescriptor fd) {
  for (;;) {
    const ssize_t n = ::read(fd.fd(), _buffer.get(), _bufferSize);
    if (n > 0) {
      _callback->rawDataReceived(this, _buffer.get(), static_cast<size_t>(n));
      // A callback that gave the member to a worker leaves the rest to it.
      if (!isActive()) return false;
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && errno == EAGAIN) return false;
    _callback->rawDataEnded(this, n == 0 ? 0 : errno);
    return true;
  }
}

AcceptFd::AcceptFd(void* user, EventLoop* loop, TcpFdFactory* factory, bool reverseDns)
    : _user(user), _loop(loop), _factory(factory), _reverseDns(reverseDns) {}

AcceptFd::~AcceptFd() {
  kassert(_fds.empty());
  PollableDescriptor fd = descriptor();
  fd.close_saveErrno();
}

unsigned AcceptFd::defaultEvents() const { return EV_READ; }

bool AcceptFd::when_events(PollableDescriptor fd) {
  for (;;) {
    SocketAddress peer;
    PollableDescriptor conn = fd.accept(peer);
    if (!conn.valid()) return false;
    conn.setNonblock(true);
    TcpPolledFd* member = _factory->createTcpPolledFd(conn, peer);
    if (member == nullptr) {
      conn.close_saveErrno();
      return false;
    }
    member->_acceptFd = this;
    member->_loop = _loop;
    member->_peerName = _reverseDns ? peer.reverseDns() : peer.ip();
    member->_peerIp = peer.ip();
    member->_peerPort = peer.port();
    _fds.insert(member);
    _loop->add(member, conn);
  }
}

void AcceptFd::afterFdRemoved(PollableDescriptor, TcpPolledFd* member) {
  if (!_loop->isInThread()) {
    gLogger.warn("afterFdRemoved called out of thread pPolledFd=%p, this is ok during shutdown",
                 static_cast<void*>(member));
    return;
  }
  _factory->tcpPolledFdEnded(member);
  _fds.erase(member);
  member->eventLoopThreadIsDoneWithUs();
}

void AcceptFd::closeAllConnections() {
  _loop->assertInThread();
  std::set<TcpPolledFd*> members;
  members.swap(_fds);
  for (TcpPolledFd* member : members) {
    _factory->tcpPolledFdEnded(member);
    if (member->isActive()) _loop->removeActivePolledFd(member);
    member->eventLoopThreadIsDoneWithUs();
  }
}
