#include "util/InThreadActorList.h"

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>


namespace {

class Recording : public InThreadActor {
 public:
  Recording(int id, std::vector<int>* log) : _id(id), _log(log) {}
  void callback() override {
    _log->push_back(_id);
    if (throws) throw std::runtime_error("from the actor");
  }
  bool throws = false;

 private:
  int _id;
  std::vector<int>* _log;
};

TEST(InThreadActorList, HandsOutActorsOldestFirstAndCanTakeOneBack) {
  InThreadActorList list;
  std::vector<int> log;
  Recording a(1, &log), b(2, &log), c(3, &log);
  {
    ScopedLock hold(list.mutex());
    list.add(&a);
    list.add(&b);
    list.add(&c);
    EXPECT_TRUE(list.removeFromPendingList(&b));
    EXPECT_FALSE(list.removeFromPendingList(&b));  // no longer pending
    list.add(&b);                                  // and may come again, last
  }
  bool more = false;
  const struct { InThreadActor* actor; bool more; } kExpected[] = {
      {&a, true}, {&c, true}, {&b, false}, {nullptr, false}};
  for (const auto& e : kExpected) {
    EXPECT_EQ(e.actor, list.getNext(&more));
    EXPECT_EQ(e.more, more);
  }
  EXPECT_TRUE(log.empty());  // getNext never runs anything
}

TEST(InThreadActorList, ClaimsBelongToOneThreadAtATime) {
  InThreadActorList list;
  {
    ScopedLock hold(list.mutex());
    EXPECT_EQ(InThreadActorList::CLAIMED, list.tryClaim());
    EXPECT_EQ(InThreadActorList::ALREADY_OWNER, list.tryClaim());
    EXPECT_TRUE(list.isOwner());
  }
  InThreadActorList::Claim seen = InThreadActorList::CLAIMED;
  size_t ran = 1;
  std::thread other([&] {
    ran = list.runInThreadWorkIfLoopDown();  // the claim is not its own
    ScopedLock hold(list.mutex());
    seen = list.tryClaim();
  });
  other.join();
  EXPECT_EQ(InThreadActorList::BUSY, seen);
  EXPECT_EQ(0u, ran);
  ScopedLock hold(list.mutex());
  list.drainAndRelease();
  EXPECT_FALSE(list.isOwner());
  EXPECT_TRUE(list.tryClaimWouldSucceed());
}

TEST(InThreadActorList, AnActorThatThrowsStillLeavesTheListUsable) {
  InThreadActorList list;
  std::vector<int> log;
  Recording thrower(1, &log), after(2, &log);
  thrower.throws = true;
  {
    ScopedLock hold(list.mutex());
    list.add(&thrower);
    list.add(&after);
  }
  EXPECT_THROW(list.runInThreadWorkIfLoopDown(), std::runtime_error);
  // The mutex and the claim were given back: another thread runs the rest.
  size_t ran = 0;
  std::thread other([&] { ran = list.runInThreadWorkIfLoopDown(); });
  other.join();
  EXPECT_EQ(1u, ran);
  EXPECT_EQ(std::vector<int>({1, 2}), log);
}

TEST(InThreadActorList, WaitsUntilEveryActorWasHandedOut) {
  InThreadActorList list;
  std::vector<int> log;
  std::vector<std::unique_ptr<Recording>> actors;
  {
    ScopedLock hold(list.mutex());
    for (int i = 0; i < 50; ++i) {
      actors.push_back(std::make_unique<Recording>(i, &log));
      list.add(actors.back().get());
    }
  }
  size_t ran = 0;
  std::thread worker([&] { ran = list.runInThreadWorkIfLoopDown(); });
  list.waitForAllActorsToBeNotified();
  worker.join();
  EXPECT_EQ(50u, ran);
  ASSERT_EQ(50u, log.size());
  for (int i = 0; i < 50; ++i) EXPECT_EQ(i, log[i]);
  // A running loop's list is left to the loop.
  {
    ScopedLock hold(list.mutex());
    list.setRunning(true);
    list.add(actors[0].get());
  }
  EXPECT_EQ(0u, list.runInThreadWorkIfLoopDown());
  ScopedLock hold(list.mutex());
  list.setRunning(false);
  EXPECT_TRUE(list.hasPending());
  EXPECT_EQ(actors[0].get(), list.popPending());
}

}  // namespace
