// Helpers for tests of the event loop and its members: a loop run on its own
// thread, actors made of lambdas, socket pairs, a member that collects what
// it reads, and a waitable record of what happened. Test code only: the
// synchronisation here uses the standard library, not the code under test.
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

#include "util/EventLoop.h"
#include "util/FileDescriptor.h"
#include "util/InThreadActor.h"
#include "util/PolledFd.h"
#include "util/SocketAddress.h"

// The two methods, named for parameterised test output.
inline std::string pollMethodName(const ::testing::TestParamInfo<EventLoop::PollMethod>& info) {
  return info.param == EventLoop::USE_EPOLL ? "epoll" : "poll";
}

// 127.0.0.1 at `port` (0: the system's choice when binding).
inline SocketAddress loopback(uint16_t port) {
  SocketAddress a;
  EXPECT_TRUE(SocketAddress::fromNumeric("127.0.0.1", port, &a));
  return a;
}

// An actor that runs a function.
class FunctionActor : public InThreadActor {
 public:
  explicit FunctionActor(std::function<void()> fn) : _fn(std::move(fn)) {}
  void callback() override { _fn(); }

 private:
  std::function<void()> _fn;
};

// Runs `fn` on the loop's thread and returns when it is done.
inline void inLoop(EventLoop& loop, std::function<void()> fn) {
  FunctionActor actor(std::move(fn));
  loop.internal_runInThread(&actor, true);
}

// A value that tests wait on until a condition over it holds. Any thread.
template <class T>
class Waitable {
 public:
  void update(const std::function<void(T&)>& fn) {
    {
      std::lock_guard<std::mutex> hold(_mutex);
      fn(_value);
    }
    _changed.notify_all();
  }
  // Waits until `pred` holds (for at most a minute, so that a broken test
  // fails instead of hanging); whether it held.
  bool waitFor(const std::function<bool(const T&)>& pred) {
    std::unique_lock<std::mutex> hold(_mutex);
    return _changed.wait_for(hold, std::chrono::seconds(60), [&] { return pred(_value); });
  }
  T get() {
    std::lock_guard<std::mutex> hold(_mutex);
    return _value;
  }

 private:
  std::mutex _mutex;
  std::condition_variable _changed;
  T _value{};
};

// A loop run on a thread of its own for the life of the object; the
// destructor terminates and joins it. The loop must outlive it.
class LoopThread {
 public:
  explicit LoopThread(EventLoop& loop) : _loop(loop), _thread([this] { _loop.run(); }) {
    // Returns once the loop runs, so that tests start from a known state.
    while (!_loop.isRunning()) std::this_thread::yield();
  }
  ~LoopThread() {
    _loop.terminate();
    _thread.join();
  }

 private:
  EventLoop& _loop;
  std::thread _thread;
};

// A connected pair of non-blocking, close-on-exec stream sockets.
struct SocketPair {
  SocketPair() {
    int fds[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, fds) != 0) {
      ADD_FAILURE() << "socketpair";
      return;
    }
    a = FileDescriptor(fds[0]);
    b = FileDescriptor(fds[1]);
  }
  ScopedFileDescriptor a;
  ScopedFileDescriptor b;
};

// A member that reads what comes into `text` and finishes at the end of
// the stream; `onEvent`, when set, runs first at each event, and may end
// the member by returning true.
class ReadingMember : public PolledFd {
 public:
  bool when_events(PollableDescriptor fd) override {
    ++events;
    lastRevents = epoll_revents();
    if (onEvent && onEvent(*this)) return true;
    char buf[4096];
    for (;;) {
      const ssize_t n = ::read(fd.fd(), buf, sizeof(buf));
      if (n > 0) {
        text.append(buf, static_cast<size_t>(n));
        if (onData) onData(*this);
        continue;
      }
      return n == 0;
    }
  }
  void after_eof(PollableDescriptor fd) override {
    eofFd = fd.fd();
    if (onEof) onEof(*this);
  }

  std::string text;
  int events = 0;
  unsigned lastRevents = 0;
  int eofFd = -2;
  std::function<bool(ReadingMember&)> onEvent;
  std::function<void(ReadingMember&)> onData;
  std::function<void(ReadingMember&)> onEof;
};
