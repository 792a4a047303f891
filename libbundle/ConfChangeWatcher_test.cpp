#include "libbundle/ConfChangeWatcher.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "libbundle/ConfPathTrie.h"
#include "libbundle/testing/BundleTree.h"
#include "util/testing/LogCapture.h"

namespace {

// Collects the bundles the watcher reports, relative to the root.
class Reports {
 public:
  explicit Reports(const Pathname& root) : _root(root) {}
  void add(IConfPathMapper* m) {
    std::lock_guard<std::mutex> hold(_mutex);
    _seen.push_back(m->cpmPath().substr(_root.size() + 1));
    _changed.notify_all();
  }
  // Waits until `rel` was reported `times` times in all; false after ten
  // seconds, which only a broken watcher takes.
  bool waitFor(const std::string& rel, size_t times = 1) {
    std::unique_lock<std::mutex> hold(_mutex);
    return _changed.wait_for(hold, std::chrono::seconds(10), [&] {
      size_t n = 0;
      for (const std::string& s : _seen) n += s == rel;
      return n >= times;
    });
  }

 private:
  Pathname _root;
  std::mutex _mutex;
  std::condition_variable _changed;
  std::vector<std::string> _seen;
};

TEST(ConfChangeWatcher, NoticesEditsNewFilesRemovalsAndNewBundles) {
  BundleTree t;
  t.put("apps/search/local/props.conf", "[s]\nk = 1\n");
  t.put("apps/search/local/old.conf", "[s]\n");
  IConfPathMapper* m =
      ConfPathMapperManager::instance().getUpdateMapper(t.setup(), t.path("apps/search/local"));
  ASSERT_NE(nullptr, m);
  ConfPathTrie before;
  m->cpmSearch(ConfPathBase(User("nobody"), "search", "props"), before);

  Reports reports(t.root());
  ScopedLogCapture log("ConfChangeWatcher");
  ConfChangeWatcher watcher(t.setup(), 20);
  watcher.setDeferMsec(30);
  watcher.setListener([&](const BundlesSetup&, IConfPathMapper* mapper) { reports.add(mapper); });
  ASSERT_TRUE(watcher.init());
  watcher.scanOnce();  // the first walk only learns what is there
  watcher.start();

  t.put("apps/search/local/props.conf", "[s]\nk = 22\n");
  ASSERT_TRUE(reports.waitFor("apps/search/local", 1));
  ConfPathTrie after;
  m->cpmSearch(ConfPathBase(User("nobody"), "search", "props"), after);
  EXPECT_EQ("22", after.find(ConfPathBase(User("nobody"), "search", "props", "s", "k"))->value());

  t.put("apps/search/local/inputs.conf", "[x]\n");
  ASSERT_TRUE(reports.waitFor("apps/search/local", 2));
  ASSERT_TRUE(t.path("apps/search/local/old.conf").unlink());
  ASSERT_TRUE(reports.waitFor("apps/search/local", 3));
  t.put("apps/fresh/local/props.conf", "[y]\nz = 1\n");
  ASSERT_TRUE(reports.waitFor("apps/fresh/local", 1));
  watcher.stop();
  EXPECT_NE(std::string::npos,
            log.text().find(t.path("apps/search/local/inputs.conf") + ": Possible file change"));
}

}  // namespace
