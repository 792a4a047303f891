// A writer process killed with SIGKILL at random points, over and over, on
// one queue file: the next process must find every event whose insert had
// returned, in order, once, and the file must always open.
#include "framework/PersistentQueueWriter.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "framework/testing/QueueTestEvents.h"
#include "util/testing/TestTempDir.h"

namespace {

constexpr uint64_t kMemory = 1500;  // a few events, then the file
constexpr uint64_t kFile = 6000;    // small enough to wrap often
constexpr int kRuns = 200;

// One line of the child's report: 'S' (the file holds records, so nothing
// is only in memory any more), 'I' seq (insert returned), 'R' seq (remove
// returned).
struct Report {
  char kind;
  int32_t seq;
};

void send(int fd, char kind, int32_t seq) {
  const Report r{kind, seq};
  if (::write(fd, &r, sizeof r) != sizeof r) _exit(3);
}

std::string payload(int seq) {
  return "event-" + std::to_string(seq) + std::string(seq % 53, '.');
}

// The writer process: inserts and removes at random, never letting the
// file run empty once it holds records, until it is killed.
[[noreturn]] void runWriter(const Pathname& path, int fd, int32_t nextSeq, unsigned seed) {
  PersistentQueueWriter w(kMemory, kFile, path);
  if (!w.isFileUsable()) _exit(2);
  std::mt19937 rng(seed);
  bool spilled = false;
  for (int op = 0; op < 20000; op++) {
    if (!spilled && w.header().count != 0) {
      spilled = true;
      send(fd, 'S', 0);
    }
    bool inserted = false;
    if (rng() % 10 < 6) {
      CowPipelineData e =
          makeQueueEvent(payload(nextSeq), nextSeq % 4 == 0 ? "source::/c" : nullptr);
      if (w.insertAndClear(e)) {
        send(fd, 'I', nextSeq++);
        inserted = true;
      }
    }
    if (!inserted && w.header().count > 1) {
      CowPipelineData out;
      if (w.remove(out)) send(fd, 'R', std::stoi(rawOf(out).substr(6)));
    }
  }
  _exit(0);
}

// Everything a copy of the file gives back, read as the next process would.
std::vector<int32_t> readBack(const Pathname& path, const Pathname& copy, bool* usable) {
  std::filesystem::copy_file(std::string(path), std::string(copy),
                             std::filesystem::copy_options::overwrite_existing);
  PersistentQueueWriter w(kMemory, kFile, copy);
  *usable = w.isFileUsable();
  std::vector<int32_t> out;
  CowPipelineData e;
  while (w.hasData() && w.remove(e)) out.push_back(std::stoi(rawOf(e).substr(6)));
  return out;
}

TEST(PersistentQueueCrash, NothingReturnedIsLostAcrossSigkills) {
  TestTempDir dir;
  const Pathname path = dir / "q" / "w";
  const Pathname copy = dir / "copy";
  std::deque<int32_t> model;  // what the file must hold
  int32_t nextSeq = 0;
  std::mt19937 rng(20261123);
  const auto start = std::chrono::steady_clock::now();
  int runs = 0, inflightInserts = 0, inflightRemoves = 0;
  for (; runs < kRuns && std::chrono::steady_clock::now() - start < std::chrono::seconds(60);
       runs++) {
    int fds[2];
    ASSERT_EQ(0, pipe(fds));
    const unsigned seed = rng();
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      ::close(fds[0]);
      runWriter(path, fds[1], nextSeq, seed);
    }
    ::close(fds[1]);
    // Kill after a random number of reports once the file is in charge;
    // the child runs on meanwhile, so the kill lands anywhere.
    const int target = 1 + static_cast<int>(rng() % 120);
    std::vector<Report> reports;
    bool killed = false;
    int afterSpill = -1;
    Report r;
    while (::read(fds[0], &r, sizeof r) == sizeof r) {
      reports.push_back(r);
      if (r.kind == 'S') afterSpill = 0;
      else if (afterSpill >= 0 && ++afterSpill == target && !killed) {
        ::kill(pid, SIGKILL);
        killed = true;
      }
    }
    ::close(fds[0]);
    int status = 0;
    ASSERT_EQ(pid, waitpid(pid, &status, 0));
    ASSERT_TRUE(killed ? WIFSIGNALED(status) : WIFEXITED(status) && WEXITSTATUS(status) == 0)
        << "run " << runs << " status " << status;
    for (const Report& rep : reports) {
      if (rep.kind == 'I') {
        ASSERT_EQ(nextSeq, rep.seq);
        model.push_back(nextSeq++);
      } else if (rep.kind == 'R') {
        ASSERT_FALSE(model.empty());
        ASSERT_EQ(model.front(), rep.seq) << "run " << runs;
        model.pop_front();
      }
    }
    bool usable = false;
    const std::vector<int32_t> got = readBack(path, copy, &usable);
    ASSERT_TRUE(usable) << "run " << runs;
    // The operation under way at the kill may have committed or not.
    std::vector<int32_t> exact(model.begin(), model.end());
    std::vector<int32_t> plusInsert = exact;
    plusInsert.push_back(nextSeq);
    std::vector<int32_t> minusRemove(exact.empty() ? exact.begin() : exact.begin() + 1,
                                     exact.end());
    if (got == plusInsert) {
      model.push_back(nextSeq++);
      inflightInserts++;
    } else if (got == minusRemove && got != exact) {
      model.pop_front();
      inflightRemoves++;
    } else {
      ASSERT_EQ(exact, got) << "run " << runs;
    }
  }
  EXPECT_EQ(kRuns, runs);  // all runs within the minute
  RecordProperty("runs", runs);
  RecordProperty("events", nextSeq);
  RecordProperty("inflightInserts", inflightInserts);
  RecordProperty("inflightRemoves", inflightRemoves);
  std::printf("%d runs, %d events, %d in-flight inserts and %d removes committed\n", runs,
              nextSeq, inflightInserts, inflightRemoves);
}

}  // namespace
