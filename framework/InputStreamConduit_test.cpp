#include "framework/InputStreamConduit.h"

#include <gtest/gtest.h>

#include <thread>

namespace {

TEST(InputStreamConduit, WriterAndReaderAgreeOnOrderAndEnd) {
  InputStreamConduit conduit(nullptr, nullptr, 5000);
  EXPECT_EQ("queue_-1", conduit.queueName());
  Str expected;
  std::thread writer([&] {
    for (int i = 0; i < 500; i++) ASSERT_TRUE(conduit.write(std::to_string(i).c_str(), std::to_string(i).size()));
    conduit.sendDoneKey();
  });
  for (int i = 0; i < 500; i++) expected += std::to_string(i);
  Str got, piece;
  size_t count = 0;
  while (conduit.read(piece, count)) {
    EXPECT_EQ(piece.size(), count);
    got += piece;
  }
  writer.join();
  EXPECT_EQ(expected, got);
  EXPECT_EQ(0u, count);
  EXPECT_FALSE(conduit.write("late", 4));  // done is final
}

TEST(InputStreamConduit, FullQueueTimesOutTheWriterAndEmptyOneTheReader) {
  InputStreamConduit conduit(nullptr, nullptr, 200);
  for (size_t i = 0; i < STREAM_QUEUE_CAPACITY; i++) ASSERT_TRUE(conduit.write("x", 1));
  EXPECT_FALSE(conduit.write("y", 1));
  Str piece;
  size_t count = 0;
  for (size_t i = 0; i < STREAM_QUEUE_CAPACITY; i++) ASSERT_TRUE(conduit.read(piece, count));
  EXPECT_FALSE(conduit.read(piece, count));  // nothing more: the read gives up
  // The done key needs no room: it gets through a full queue.
  for (size_t i = 0; i < STREAM_QUEUE_CAPACITY; i++) ASSERT_TRUE(conduit.write("x", 1));
  conduit.sendDoneKey();
  size_t pieces = 0;
  while (conduit.read(piece, count)) pieces++;
  EXPECT_EQ(STREAM_QUEUE_CAPACITY, pieces);
}

}  // namespace
