#include "util/SignalHandler.h"

#include <signal.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "util/EventLoop.h"

namespace {

// Notes each call in a shared journal; the one marked last stops the loop.
class Recorder : public MSignalHandler {
 public:
  Recorder(std::vector<std::pair<char, int>>* journal, char name, EventLoop* stops = nullptr)
      : _journal(journal), _name(name), _stops(stops) {}
  void handleSignal(int signal) override {
    _journal->emplace_back(_name, signal);
    if (_stops != nullptr) _stops->terminate();
  }

 private:
  std::vector<std::pair<char, int>>* _journal;
  char _name;
  EventLoop* _stops;
};

class SignalHandlerTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(SignalHandler::instance().catchSignal(SIGUSR1));
    SignalHandler::instance().attach(&_loop);
  }
  void TearDown() override {
    SignalHandler::instance().releaseSignal(SIGUSR1);
    SignalHandler::instance().detach(&_loop);
  }
  EventLoop _loop;
  std::vector<std::pair<char, int>> _journal;
};

TEST_F(SignalHandlerTest, HandlersRunOnTheLoopByPriorityThenRegistration) {
  Recorder late(&_journal, 'z', &_loop), a(&_journal, 'a'), b(&_journal, 'b'), c(&_journal, 'c');
  SignalHandler& sh = SignalHandler::instance();
  sh.registerHandler(&late, 1000);
  sh.registerHandler(&b, 100);
  sh.registerHandler(&c, 100);
  sh.registerHandler(&a, 50);
  sh.registerHandler(&c, 20);  // again: only its priority changes
  ASSERT_EQ(0, raise(SIGUSR1));
  EXPECT_TRUE(_journal.empty());  // nothing runs in signal context
  _loop.run();
  const std::vector<std::pair<char, int>> first = {
      {'c', SIGUSR1}, {'a', SIGUSR1}, {'b', SIGUSR1}, {'z', SIGUSR1}};
  EXPECT_EQ(first, _journal);

  // Two arrivals are two rounds; an unregistered handler hears neither.
  _journal.clear();
  sh.unregisterHandler(&a);
  sh.unregisterHandler(&a);  // unknown by now: ignored
  ASSERT_EQ(0, raise(SIGUSR1));
  ASSERT_EQ(0, raise(SIGUSR1));
  _loop.run();
  const std::vector<std::pair<char, int>> twice = {{'c', SIGUSR1}, {'b', SIGUSR1},
                                                   {'z', SIGUSR1}, {'c', SIGUSR1},
                                                   {'b', SIGUSR1}, {'z', SIGUSR1}};
  EXPECT_EQ(twice, _journal);
  for (MSignalHandler* h : {static_cast<MSignalHandler*>(&late), static_cast<MSignalHandler*>(&b),
                            static_cast<MSignalHandler*>(&c)}) {
    sh.unregisterHandler(h);
  }
}

TEST_F(SignalHandlerTest, ASignalFromOutsideWakesARunningLoop) {
  Recorder stop(&_journal, 's', &_loop);
  SignalHandler::instance().registerHandler(&stop, 100);
  std::thread loop([this] { _loop.run(); });
  // The loop may not be polling yet: the byte waits in the pipe either way.
  ASSERT_EQ(0, kill(getpid(), SIGUSR1));
  loop.join();
  SignalHandler::instance().unregisterHandler(&stop);
  ASSERT_EQ(1u, _journal.size());
  EXPECT_EQ(SIGUSR1, _journal[0].second);
}

}  // namespace
