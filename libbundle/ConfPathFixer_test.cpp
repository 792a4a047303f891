#include "libbundle/ConfPathFixer.h"

#include <gtest/gtest.h>

#include <string>

#include "libbundle/testing/BundleTree.h"
#include "util/testing/LogCapture.h"

namespace {

// The install's bootstrap file with pooling turned on into `storage`.
std::string pooledBootstrap(const Pathname& storage) {
  std::string text =
      readTestFile(Pathname(KESTRO_SOURCE_DIR) / "home/etc/system/default/conf.conf");
  const std::string off = "state = disabled\n";
  const size_t at = text.find(off);
  if (at == std::string::npos) ADD_FAILURE() << "the install's pooling stanza changed";
  else text.replace(at, off.size(), "state = enabled\nstorage = " + storage + "\n");
  return text;
}

void putDangling(const BundleTree& t) {
  t.put("system/local/props.conf", "[st]\nk = v\n[keep]\nx = 1\n");
  t.put("system/metadata/local.meta", "[props/st]\nowner = alice\napp = search\n");
}

TEST(ConfPathFixer, MovesSystemDataToItsOwnersLayer) {
  TestTempDir pool;
  BundleTree t(pooledBootstrap(pool.path()).c_str());
  putDangling(t);
  ConfPathFixer fixer(t.setup());
  ConfPathTrie found;
  ASSERT_TRUE(fixer.findDanglingData(found));
  EXPECT_EQ("/nobody/system/props/st = \n/nobody/system/props/st @meta\n"
            "/nobody/system/props/st/k = v\n",
            found.toString());

  ScopedLogCapture log("ConfPathFixer");
  EXPECT_EQ(1u, fixer.fixDanglingData());
  EXPECT_EQ("[st]\nk = v\n", readTestFile(pool.path() / "etc/users/alice/search/local/props.conf"));
  EXPECT_EQ("[keep]\nx = 1\n", t.read("system/local/props.conf"));
  EXPECT_EQ("", t.read("system/metadata/local.meta"));
  EXPECT_NE(std::string::npos,
            log.text().find("Found dangling data at: /nobody/system/props/st -> "
                            "/alice/search/props/st"))
      << log.text();
  EXPECT_EQ(0u, fixer.fixDanglingData());
  EXPECT_NE(std::string::npos, log.text().find("No dangling data found: " + t.root()));
}

TEST(ConfPathFixer, RestrictionsNarrowTheSearch) {
  TestTempDir pool;
  BundleTree t(pooledBootstrap(pool.path()).c_str());
  putDangling(t);
  ConfPathTrie found;
  ConfPathFixer otherApp(t.setup());
  otherApp.restrictToApp("other");
  EXPECT_FALSE(otherApp.findDanglingData(found));
  ConfPathFixer otherType(t.setup());
  otherType.restrictToType("inputs");
  EXPECT_FALSE(otherType.findDanglingData(found));
  ConfPathFixer same(t.setup());
  same.restrictToApp("search");
  same.restrictToType("props");
  EXPECT_TRUE(same.findDanglingData(found));
}

TEST(ConfPathFixer, DoesNothingWithoutPooling) {
  BundleTree t;
  putDangling(t);
  EXPECT_EQ(0u, ConfPathFixer(t.setup()).fixDanglingData());
  EXPECT_EQ("[st]\nk = v\n[keep]\nx = 1\n", t.read("system/local/props.conf"));
}

}  // namespace
