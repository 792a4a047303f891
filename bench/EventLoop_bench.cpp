// The event loop's two costs that matter: a round trip through a member
// (socketpair in, loop, socketpair out) on each polling method, beside a
// thread that echoes with blocking calls; and timers fired per second,
// beside a binary heap of the standard library doing the same ordering.
#include <benchmark/benchmark.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <memory>
#include <queue>
#include <thread>
#include <vector>

#include "util/EventLoop.h"
#include "util/InThreadActor.h"

namespace {

// Echoes every byte it reads.
class EchoMember : public PolledFd {
 public:
  bool when_events(PollableDescriptor fd) override {
    char buf[256];
    for (;;) {
      const ssize_t n = ::read(fd.fd(), buf, sizeof(buf));
      if (n > 0) {
        fd.writeBlocking(buf, static_cast<size_t>(n));
        continue;
      }
      return n == 0;
    }
  }
};

class Actor : public InThreadActor {
 public:
  explicit Actor(std::function<void()> fn) : _fn(std::move(fn)) {}
  void callback() override { _fn(); }

 private:
  std::function<void()> _fn;
};

// One byte out and back, waiting with poll as a client would.
void roundTrip(int fd) {
  char c = 'x';
  benchmark::DoNotOptimize(::write(fd, &c, 1));
  pollfd p{fd, POLLIN, 0};
  ::poll(&p, 1, -1);
  benchmark::DoNotOptimize(::read(fd, &c, 1));
}

void BM_EventLoop_SocketpairRoundTrip(benchmark::State& state) {
  const auto method = static_cast<EventLoop::PollMethod>(state.range(0));
  int fds[2];
  ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, fds);
  EventLoop loop(method);
  EchoMember echo;
  loop.add(&echo, PollableDescriptor(fds[1]));
  std::thread runner([&] { loop.run(); });
  while (!loop.isRunning()) std::this_thread::yield();
  for (auto _ : state) roundTrip(fds[0]);
  Actor remove([&] { loop.removeActivePolledFd(&echo); });
  loop.internal_runInThread(&remove, true);
  loop.terminate();
  runner.join();
  ::close(fds[0]);
  ::close(fds[1]);
  state.SetItemsProcessed(state.iterations());
  state.SetLabel(method == EventLoop::USE_EPOLL ? "epoll" : "poll");
}
BENCHMARK(BM_EventLoop_SocketpairRoundTrip)->Arg(EventLoop::USE_REGULAR_POLL)
    ->Arg(EventLoop::USE_EPOLL)->UseRealTime();

// Baseline: a thread that echoes with a blocking read and write.
void BM_EventLoop_SocketpairRoundTrip_BlockingThread(benchmark::State& state) {
  int fds[2];
  ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds);
  std::thread echo([&] {
    char c;
    while (::read(fds[1], &c, 1) == 1) benchmark::DoNotOptimize(::write(fds[1], &c, 1));
  });
  for (auto _ : state) roundTrip(fds[0]);
  ::shutdown(fds[0], SHUT_WR);
  echo.join();
  ::close(fds[0]);
  ::close(fds[1]);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_EventLoop_SocketpairRoundTrip_BlockingThread)->UseRealTime();

// Counts firings and stops the loop after a set number.
class CountingTimeout : public Timeout {
 public:
  void when_expired(unsigned long long&) override {
    if (++*fired == target) loop->terminate();
  }
  EventLoop* loop = nullptr;
  long* fired = nullptr;
  long target = 0;
};

// `state.range(0)` repeating 1 ms timers, all inside the early-firing
// window, so that every pass of the loop fires each of them. A pass waits
// the 1 ms in poll, so the figure (per CPU second) is the loop's own cost
// per firing: 200 passes per run.
void BM_EventLoop_TimersFired(benchmark::State& state) {
  const long timers = state.range(0);
  const long perRun = 200 * timers;
  EventLoop loop(EventLoop::USE_EPOLL);
  std::vector<CountingTimeout> all(static_cast<size_t>(timers));
  long fired = 0;
  for (auto _ : state) {
    fired = 0;
    for (auto& t : all) {
      t.loop = &loop;
      t.fired = &fired;
      t.target = perRun;
      loop.add(&t, 1);
    }
    loop.run();
    for (auto& t : all) loop.remove(&t);
  }
  state.SetItemsProcessed(state.iterations() * perRun);
}
BENCHMARK(BM_EventLoop_TimersFired)->RangeMultiplier(8)->Range(1, 4096);

// Baseline: the same number of due times pushed and popped through a
// standard binary heap, without the loop or any clock.
void BM_EventLoop_TimersFired_PriorityQueue(benchmark::State& state) {
  const long timers = state.range(0);
  const long perRun = 200 * timers;
  for (auto _ : state) {
    std::priority_queue<long, std::vector<long>, std::greater<long>> heap;
    for (long i = 0; i < timers; ++i) heap.push(i);
    long now = 0;
    for (long fired = 0; fired < perRun; ++fired) {
      const long due = heap.top();
      heap.pop();
      heap.push(due + timers + (now++ & 1));
    }
    benchmark::DoNotOptimize(heap.top());
  }
  state.SetItemsProcessed(state.iterations() * perRun);
}
BENCHMARK(BM_EventLoop_TimersFired_PriorityQueue)->RangeMultiplier(8)->Range(1, 4096);

}  // namespace
