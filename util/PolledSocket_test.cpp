#include "util/PolledSocket.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <string>
#include <thread>
#include <vector>

#include "util/EventLoop.h"
#include "util/testing/LoopTesting.h"

namespace {

// Collects commands; "stop" ends the loop.
class Commands : public SocketCommandConsumer {
 public:
  Commands(PollableDescriptor fd, EventLoop* loop) : SocketCommandConsumer(fd), _loop(loop) {}
  void consumeCommand(const Str& command) override {
    commands.push_back(command);
    if (command == "stop") _loop->terminate();
  }
  void badCommand(size_t length) override { dropped.push_back(length); }
  void after_eof(PollableDescriptor) override {
    ended = true;
    _loop->terminate();
  }

  std::vector<std::string> commands;
  std::vector<size_t> dropped;
  bool ended = false;

 private:
  EventLoop* _loop;
};

// A socket pair whose first end is handed over to its user.
struct HandOverPair {
  HandOverPair() {
    int fds[2];
    EXPECT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds));
    a = PollableDescriptor(fds[0]);
    b = FileDescriptor(fds[1]);
  }
  PollableDescriptor a;
  ScopedFileDescriptor b;
};

class PolledSocketTest : public ::testing::TestWithParam<EventLoop::PollMethod> {
 protected:
  EventLoop _loop{GetParam()};
};

INSTANTIATE_TEST_SUITE_P(BothMethods, PolledSocketTest,
                         ::testing::Values(EventLoop::USE_REGULAR_POLL, EventLoop::USE_EPOLL),
                         pollMethodName);

TEST_P(PolledSocketTest, ReadsOneCommandPerLineAndDropsOverlongOnes) {
  HandOverPair pair;
  Commands consumer(pair.a, &_loop);
  consumer.add_to_eventloop(&_loop);
  const std::string longest(SocketCommandConsumer::MAX_COMMAND, 'L');
  const std::string tooLong(SocketCommandConsumer::MAX_COMMAND + 1, 'X');
  const std::string text = "status\r\n\nreload conf\n" + longest + "\n" + tooLong +
                           "\nafter\nunfinished";
  std::thread writer([&] {
    PollableDescriptor(pair.b).writeBlocking(text.data(), text.size());
    pair.b.close();
  });
  _loop.run();
  writer.join();
  EXPECT_TRUE(consumer.ended);
  EXPECT_EQ(std::vector<std::string>({"status", "", "reload conf", longest, "after"}),
            consumer.commands);  // an unfinished last line is no command
  EXPECT_EQ(std::vector<size_t>({tooLong.size()}), consumer.dropped);
  EXPECT_FALSE(consumer.polledFd().isActive());
}

TEST_P(PolledSocketTest, OtherThreadsWriteThroughTheLoop) {
  HandOverPair pair;
  Commands consumer(pair.a, &_loop);
  {
    LoopThread running(_loop);
    _loop.addFromAnywhere(&consumer);
    std::vector<std::thread> writers;
    for (int t = 0; t < 4; ++t) {
      writers.emplace_back([&, t] {
        const std::string line = "reply " + std::to_string(t) + "\n";
        EXPECT_EQ(static_cast<ssize_t>(line.size()),
                  consumer.writeFromAnywhere(line.data(), line.size(), 5000));
      });
    }
    for (auto& w : writers) w.join();
    _loop.removeFromAnywhere(&consumer);
  }
  // Each write went whole, in some order.
  std::string got(64, '\0');
  size_t total = 0;
  while (total < 4 * 8) {
    const ssize_t n = PollableDescriptor(pair.b).readWithTimeout(got.data() + total, got.size() - total, 5000);
    ASSERT_GT(n, 0);
    total += static_cast<size_t>(n);
  }
  got.resize(total);
  for (int t = 0; t < 4; ++t) {
    EXPECT_NE(std::string::npos, got.find("reply " + std::to_string(t) + "\n")) << got;
  }
}

}  // namespace
