// Crash safety: a child process inserts, updates and checkpoints, telling
// the parent over a pipe after each step; the parent kills it with SIGKILL
// at a random point and reopens the database. The open must succeed, and
// the tree must then be either the live one, holding every acknowledged
// operation (and perhaps the one in flight), or, with the damaged files set
// aside in corrupt/, a checkpoint no older than the last acknowledged one.
// BTREE_CRASH_RUNS sets the number of runs (default 30, within ~30 s).
#include "util/BTreeCP.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <iostream>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "util/testing/BTreeTestTypes.h"
#include "util/testing/TestTempDir.h"

namespace {

using bt::BTree;
using bt::BTreeCP;

constexpr uint32_t kOrder = 4;
constexpr int kOps = 2000;
constexpr int kCheckpointEvery = 100;
constexpr uint64_t kKeySpace = 600;
constexpr int64_t kNeverDue = int64_t{1} << 40;

struct Op {
  uint64_t key;
  uint64_t a;
  uint64_t b;
};

using Model = std::map<uint64_t, std::pair<uint64_t, uint64_t>>;

Model modelAfter(const std::vector<Op>& ops, int count) {
  Model m;
  for (int i = 0; i < count; ++i) m[ops[i].key] = {ops[i].a, ops[i].b};
  return m;
}

// Acknowledgements on the pipe: +n after the n-th operation, -n after the
// checkpoint that follows it.
[[noreturn]] void runChild(const Pathname& dir, const std::vector<Op>& ops, int ackFd) {
  const int devnull = ::open("/dev/null", O_WRONLY);
  ::dup2(devnull, 2);
  const U64Key blank(0);
  PairRecord scratch;
  BTreeCP tree(blank, scratch, kNeverDue, kOrder);
  if (!tree.open(dir)) ::_exit(3);
  for (int i = 0; i < static_cast<int>(ops.size()); ++i) {
    tree.addUpdate(U64Key(ops[i].key), PairRecord(ops[i].a, ops[i].b));
    int32_t ack = i + 1;
    if (::write(ackFd, &ack, sizeof ack) != sizeof ack) ::_exit(4);
    if ((i + 1) % kCheckpointEvery == 0) {
      if (!tree.checkpoint()) ::_exit(5);
      ack = -(i + 1);
      if (::write(ackFd, &ack, sizeof ack) != sizeof ack) ::_exit(4);
    }
  }
  ::_exit(0);
}

// True when the tree holds exactly `model` over the keys 1..kKeySpace.
bool holds(BTree& tree, const Model& model) {
  PairRecord r;
  for (uint64_t k = 1; k <= kKeySpace; ++k) {
    const auto it = model.find(k);
    const bool found = tree.retrieve(U64Key(k), r);
    if (found != (it != model.end())) return false;
    if (found && !(r == PairRecord(it->second.first, it->second.second))) return false;
  }
  return true;
}

struct Outcome {
  bool restored = false;
  int done = 0;        // acknowledged operations
  int checkpoint = 0;  // operations behind the last acknowledged checkpoint
};

Outcome crashOnce(std::mt19937_64& rng, const Pathname& dir, const std::vector<Op>& ops) {
  Outcome out;
  int fds[2];
  EXPECT_EQ(0, ::pipe(fds));
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::close(fds[0]);
    runChild(dir, ops, fds[1]);
  }
  ::close(fds[1]);
  const int killAfter = 1 + static_cast<int>(rng() % (kOps + kOps / 4));
  int acks = 0;
  int32_t ack;
  bool killed = false;
  while (::read(fds[0], &ack, sizeof ack) == sizeof ack) {
    if (ack > 0) out.done = ack;
    if (ack < 0) out.checkpoint = -ack;
    if (!killed && ++acks >= killAfter) {
      ::usleep(static_cast<useconds_t>(rng() % 3000));
      ::kill(pid, SIGKILL);
      killed = true;
    }
  }
  ::close(fds[0]);
  int status = 0;
  ::waitpid(pid, &status, 0);
  EXPECT_TRUE(killed ? (WIFSIGNALED(status) || WEXITSTATUS(status) == 0) : WEXITSTATUS(status) == 0)
      << status;

  const U64Key blank(0);
  PairRecord scratch;
  BTreeCP tree(blank, scratch, kNeverDue, kOrder);
  bool opened = false;
  try {
    opened = tree.open(dir);
  } catch (const BTree::Exception& e) {
    ADD_FAILURE() << "unreadable database: " << e.what();
  }
  if (!opened) return out;
  out.restored = (dir / "corrupt").exists();
  EXPECT_TRUE(tree.checkValid(scratch));
  std::set<int> candidates;
  if (out.restored) {
    // The last acknowledged checkpoint, or the next one if it finished
    // before the kill but after the last acknowledgement.
    candidates = {out.checkpoint};
    const int next = out.checkpoint + kCheckpointEvery;
    if (out.done >= next) candidates.insert(next);
  } else {
    candidates = {out.done, std::min(out.done + 1, kOps)};
  }
  bool matched = false;
  for (int j : candidates) matched = matched || holds(tree, modelAfter(ops, j));
  EXPECT_TRUE(matched) << "restored=" << out.restored << " done=" << out.done
                       << " checkpoint=" << out.checkpoint;
  return out;
}

TEST(BTreeCrash, KilledWriterLeavesAReadableTree) {
  const char* env = std::getenv("BTREE_CRASH_RUNS");
  const int runs = env != nullptr ? std::atoi(env) : 30;
  const auto deadline = std::chrono::steady_clock::now() +
                        std::chrono::seconds(env != nullptr ? 36000 : 30);
  std::mt19937_64 rng(0xc0ffee);
  int restored = 0;
  int done = 0;
  for (int run = 0; run < runs && std::chrono::steady_clock::now() < deadline; ++run) {
    SCOPED_TRACE(run);
    std::vector<Op> ops;
    for (int i = 0; i < kOps; ++i) ops.push_back({1 + rng() % kKeySpace, rng(), uint64_t(i)});
    TestTempDir dir;
    const Outcome o = crashOnce(rng, dir.path(), ops);
    restored += o.restored ? 1 : 0;
    ++done;
    if (::testing::Test::HasFailure()) break;
  }
  std::cout << done << " runs, " << restored << " restored from a checkpoint\n";
  EXPECT_GE(done, 5);
}

}  // namespace
