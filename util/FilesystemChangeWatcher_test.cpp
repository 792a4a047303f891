#include "util/FilesystemChangeWatcher.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <utility>
#include <vector>

#include "util/testing/TestTempDir.h"

namespace {

// Records every report as "<change> <path relative to the root>" and walks
// into directories; links are followed only when asked.
class RecordingWatcher : public FilesystemChangeWatcher {
 public:
  RecordingWatcher(const Pathname& root, unsigned long interval)
      : FilesystemChangeWatcher(interval), _root(root) {}

  std::vector<std::string> take() {
    ScopedLock hold(_lock);
    std::vector<std::string> out;
    out.swap(_reports);
    return out;
  }
  // Waits (on a condition, woken by each report) until `want` was reported.
  bool waitFor(const std::string& want) {
    ScopedLock hold(_lock);
    for (int rounds = 0; rounds < 200; ++rounds) {
      for (const std::string& r : _reports) {
        if (r == want) return true;
      }
      _reported.wait(_lock, ConditionWaitTimeout(0, 50000000));
    }
    return false;
  }

  bool followLinks = false;
  std::set<std::string> refused;  // relative paths shouldWatchPath refuses
  std::string deferOnce;          // relative path whose first report is deferred

 protected:
  bool shouldWatchPath(const Pathname& path, WatchedFileState*) override {
    return refused.count(relative(path)) == 0;
  }
  int fileChanged(WatchedFileState* state, const Timeval&) override {
    static const char* const kNames[] = {"initial", "created", "modified", "removed", "deferred"};
    const std::string rel = relative(state->path());
    {
      ScopedLock hold(_lock);
      _reports.push_back(std::string(kNames[state->change()]) + " " + rel);
      _reported.internal_wake_one();
    }
    if (rel == deferOnce) {
      deferOnce.clear();
      deferChangeNotification(state, 0);
    }
    int disposition = DISPOSITION_DESCEND;
    if (followLinks) disposition |= DISPOSITION_FOLLOW;
    return disposition;
  }

 private:
  std::string relative(const Pathname& p) const {
    const std::string s = p;
    return s.size() > _root.size() ? s.substr(_root.size() + 1) : ".";
  }

  Pathname _root;
  ConditionMutex _lock;
  PthreadCondition _reported;
  std::vector<std::string> _reports;
};

using Reports = std::vector<std::string>;

TEST(FilesystemChangeWatcher, FirstWalkIsInitialThenEachChangeOnce) {
  TestTempDir dir;
  const Pathname root = dir.path() / "root";
  writeTestFile(root / "b.conf", "x");
  writeTestFile(root / "sub/a.conf", "y");
  RecordingWatcher w(root, 1000);
  w.addWatch(root);
  EXPECT_EQ(4u, w.scanOnce());
  EXPECT_EQ((Reports{"initial .", "initial b.conf", "initial sub", "initial sub/a.conf"}), w.take());
  EXPECT_EQ(0u, w.scanOnce());  // nothing changed

  writeTestFile(root / "b.conf", "longer");       // edit (size)
  writeTestFile(root / "sub/new.conf", "z");      // new file, so sub changes too
  ASSERT_TRUE((root / "sub/a.conf").unlink());    // removal
  w.scanOnce();
  EXPECT_EQ((Reports{"modified b.conf", "modified sub", "created sub/new.conf",
                     "removed sub/a.conf"}),
            w.take());

  // Same size, new modification time: still an edit.
  Timeval old(1000000000, 0);
  ASSERT_TRUE((root / "b.conf").setMtime(&old));
  w.scanOnce();
  EXPECT_EQ((Reports{"modified b.conf"}), w.take());

  // A whole directory going away reports each path under it.
  ASSERT_TRUE((root / "sub").removeRecursive());
  w.scanOnce();
  EXPECT_EQ((Reports{"modified .", "removed sub", "removed sub/new.conf"}), w.take());
}

TEST(FilesystemChangeWatcher, RefusedPathsAreNeitherReportedNorWalked) {
  TestTempDir dir;
  const Pathname root = dir.path() / "root";
  writeTestFile(root / "skip/inner.conf", "x");
  writeTestFile(root / "keep.conf", "x");
  RecordingWatcher w(root, 1000);
  w.refused = {"skip"};
  w.addWatch(root);
  w.scanOnce();
  EXPECT_EQ((Reports{"initial .", "initial keep.conf"}), w.take());
}

TEST(FilesystemChangeWatcher, LinksAreFollowedOnlyWhenTheDispositionSaysSo) {
  TestTempDir dir;
  const Pathname root = dir.path() / "root";
  writeTestFile(dir.path() / "elsewhere/x.conf", "x");
  ASSERT_TRUE((root).mkdir_p(Pathname::MKDIR_ALL));
  ASSERT_TRUE((root / "link").symlinkTo(dir.path() / "elsewhere"));
  for (bool follow : {false, true}) {
    RecordingWatcher w(root, 1000);
    w.followLinks = follow;
    w.addWatch(root);
    w.scanOnce();
    Reports want = {"initial .", "initial link"};
    if (follow) want.push_back("initial link/x.conf");
    EXPECT_EQ(want, w.take()) << follow;
  }
}

TEST(FilesystemChangeWatcher, ARootThatAppearsLaterIsReportedAsCreated) {
  TestTempDir dir;
  const Pathname root = dir.path() / "root";
  RecordingWatcher w(root, 1000);
  w.addWatch(root);
  EXPECT_EQ(0u, w.scanOnce());
  writeTestFile(root / "a", "x");
  w.scanOnce();
  EXPECT_EQ((Reports{"created .", "created a"}), w.take());
}

TEST(FilesystemChangeWatcher, DeferredReportsComeAgainWhenDue) {
  TestTempDir dir;
  const Pathname root = dir.path() / "root";
  writeTestFile(root / "a", "x");
  RecordingWatcher w(root, 1000);
  w.addWatch(root);
  w.scanOnce();
  w.take();
  w.deferOnce = "a";
  writeTestFile(root / "a", "xx");
  w.scanOnce();
  EXPECT_EQ((Reports{"modified a"}), w.take());
  EXPECT_EQ(1u, w.scanOnce());  // the next walk is the first one past the delay
  EXPECT_EQ((Reports{"deferred a"}), w.take());
  EXPECT_EQ(0u, w.scanOnce());
}

// The thread notices an edit, a new file and a removal within its interval.
TEST(FilesystemChangeWatcher, TheThreadReportsWithinItsInterval) {
  TestTempDir dir;
  const Pathname root = dir.path() / "root";
  writeTestFile(root / "edit.conf", "x");
  writeTestFile(root / "gone.conf", "x");
  RecordingWatcher w(root, 20);
  w.addWatch(root);
  w.start();
  ASSERT_TRUE(w.waitFor("initial gone.conf"));
  writeTestFile(root / "edit.conf", "edited");
  writeTestFile(root / "new.conf", "x");
  ASSERT_TRUE((root / "gone.conf").unlink());
  EXPECT_TRUE(w.waitFor("modified edit.conf"));
  EXPECT_TRUE(w.waitFor("created new.conf"));
  EXPECT_TRUE(w.waitFor("removed gone.conf"));
  w.stop();
  w.stop();  // harmless twice
}

}  // namespace
