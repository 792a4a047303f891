#include "util/PipeToLogger.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "util/EventLoop.h"
#include "util/testing/LogCapture.h"
#include "util/testing/LoopTesting.h"

namespace {

Logger gChild("PipeToLoggerTestChild");

// Stops the loop when the pipe ends, or when a line `stopAt` is logged.
template <class Base>
class Stopping : public Base {
 public:
  Stopping(EventLoop* loop, const char* stopAt = nullptr)
      : Base(loop, &gChild, LOGLEVEL_INFO), _loop(loop), _stopAt(stopAt) {}
  void after_eof(PollableDescriptor) override { _loop->terminate(); }

 protected:
  void logLine(const Str& line) override {
    Base::logLine(line);
    if (_stopAt != nullptr && line == _stopAt) _loop->terminate();
  }

 private:
  EventLoop* _loop;
  const char* _stopAt;
};

class PipeToLoggerTest : public ::testing::TestWithParam<EventLoop::PollMethod> {
 protected:
  EventLoop _loop{GetParam()};
};

INSTANTIATE_TEST_SUITE_P(BothMethods, PipeToLoggerTest,
                         ::testing::Values(EventLoop::USE_REGULAR_POLL, EventLoop::USE_EPOLL),
                         pollMethodName);

TEST_P(PipeToLoggerTest, LogsEachLineAndTheRestAtTheEnd) {
  ScopedLogCapture capture("PipeToLoggerTestChild");
  Stopping<PipeToLogger> pipe(&_loop);
  pipe.add_to_eventloop(&_loop);
  const std::string huge(PipeToLogger::MAX_LINE + 10, 'h');
  const std::string text = "one\ntwo\r\n\nthree %s %m\n" + huge + "\nlast without end";
  std::thread writer([&] {
    pipe.writeEnd().writeBlocking(text.data(), text.size());
    pipe.closeWriteEnd();
  });
  _loop.run();
  writer.join();
  EXPECT_FALSE(pipe.polledFd().isActive());
  const std::vector<std::string> expected = {
      "INFO one", "INFO two", "INFO ", "INFO three %s %m",  // no directive is read
      "INFO " + huge.substr(0, PipeToLogger::MAX_LINE),      // cut at the limit
      "INFO hhhhhhhhhh", "INFO last without end"};
  EXPECT_EQ(expected, capture.lines());
}

TEST_P(PipeToLoggerTest, APartialLineIsLoggedWhenItWaitedLongEnough) {
  ScopedLogCapture capture("PipeToLoggerTestChild");
  Stopping<PipeToLogger> pipe(&_loop, "no end yet");
  pipe.add_to_eventloop(&_loop);
  ASSERT_EQ(10, pipe.writeEnd().write("no end yet", 10));
  _loop.run();  // until the timer logs it
  EXPECT_EQ(std::vector<std::string>({"INFO no end yet"}), capture.lines());
  pipe.remove_from_eventloop(&_loop);
  EXPECT_TRUE(_loop.empty());
}

TEST_P(PipeToLoggerTest, TheParsedFormTakesTheLevelFromTheFirstWord) {
  ScopedLogCapture capture("PipeToLoggerTestChild");
  Stopping<PipeParsedToLogger> pipe(&_loop);
  pipe.add_to_eventloop(&_loop);
  const struct { const char* line; const char* logged; } kCases[] = {
      {"ERROR disk full", "ERROR disk full"},
      {"DEBUG  two spaces", "DEBUG  two spaces"},  // only the first is eaten
      {"EMERG x", "EMERG x"},
      {"warn lower case", "INFO warn lower case"},
      {"WARNING not a level", "INFO WARNING not a level"},
      {"FATAL", "INFO FATAL"},  // a level word with no message after it
      {"plain", "INFO plain"},
  };
  std::string text;
  std::vector<std::string> expected;
  for (const auto& c : kCases) {
    text += std::string(c.line) + "\n";
    expected.push_back(c.logged);
  }
  ASSERT_EQ(static_cast<ssize_t>(text.size()), pipe.writeEnd().write(text.data(), text.size()));
  pipe.closeWriteEnd();
  _loop.run();
  EXPECT_EQ(expected, capture.lines());
}

}  // namespace
