// Where the server stands among the process's signal listeners: those
// registered below its priority hear a signal before the shutdown starts,
// those above it after.

#include "framework/HTTPServer.h"

#include <signal.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>
#include <vector>

#include "util/ConditionWaitTimeout.h"
#include "util/MainThread.h"
#include "util/SignalHandler.h"

namespace {

struct Seen {
  int priority;
  bool serverShuttingDown;
};

class Recorder : public MSignalHandler {
 public:
  Recorder(int priority, const HTTPServer& server, std::mutex& m, std::vector<Seen>& seen)
      : _priority(priority), _server(server), _m(m), _seen(seen) {}
  void handleSignal(int) override {
    std::lock_guard<std::mutex> l(_m);
    _seen.push_back({_priority, _server.isShuttingDown()});
  }

 private:
  int _priority;
  const HTTPServer& _server;
  std::mutex& _m;
  std::vector<Seen>& _seen;
};

TEST(HTTPServerSignalReview, ListenersAroundTheServerPriorityHearInOrder) {
  SignalHandler& signals = SignalHandler::instance();
  HTTPServerConfig config;
  HTTPServerConfig::HTTPPortEntry entry;
  entry.ip = "127.0.0.1";
  config._portList.push_back(entry);
  config._shutdownPollMs = 10;
  HTTPServer server;
  std::mutex m;
  std::vector<Seen> seen;
  // Registered before the server, and in an order other than their priority.
  Recorder after(HTTP_SERVER_SIGNAL_PRIORITY + 1, server, m, seen);
  Recorder before(HTTP_SERVER_SIGNAL_PRIORITY - 1, server, m, seen);
  signals.registerHandler(&after, HTTP_SERVER_SIGNAL_PRIORITY + 1);
  signals.registerHandler(&before, HTTP_SERVER_SIGNAL_PRIORITY - 1);
  ASSERT_TRUE(server.init(config));
  signals.attach(&server.loop());
  ASSERT_TRUE(signals.catchSignal(SIGUSR2));
  std::thread loop([&] { server.go(); });
  raise(SIGUSR2);
  loop.join();  // the signal reached the server: its shutdown ended the loop
  signals.detach(&server.loop());
  signals.releaseSignal(SIGUSR2);
  signals.unregisterHandler(&after);
  signals.unregisterHandler(&before);
  while (HTTPServer::liveRequestThreads() > 0) {
    MainThread::waitForJoinRequest(ConditionWaitTimeout(0, 100000000));
    MainThread::runPendingJoins();
  }
  ASSERT_EQ(2u, seen.size());
  EXPECT_EQ(HTTP_SERVER_SIGNAL_PRIORITY - 1, seen[0].priority);
  EXPECT_FALSE(seen[0].serverShuttingDown);
  EXPECT_EQ(HTTP_SERVER_SIGNAL_PRIORITY + 1, seen[1].priority);
  EXPECT_TRUE(seen[1].serverShuttingDown);
}

}  // namespace
