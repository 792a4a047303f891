// The server name from the "server" configuration of a real root, made in
// a temporary directory and installed as the process's default root before
// anything reads it; hence an executable of its own.
#include "framework/ServerConfig.h"

#include <sys/utsname.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>

#include "framework/PipelineData.h"
#include "libbundle/PropertiesMap.h"
#include "libbundle/testing/BundleTree.h"
#include "loaderinfo/LoaderInfo.h"

namespace {

class ServerRoot : public ::testing::Environment {
 public:
  void SetUp() override {
    _tree = std::make_unique<BundleTree>();
    _tree->put("system/default/server.conf", "[general]\nserverName = from-default\n");
    _tree->put("system/local/server.conf", "[general]\nserverName = indexer-7 \n");
    // The tree's root is "<home>/etc", the default place of the
    // configuration under the home.
    const std::string root(_tree->root().c_str());
    setenv("KESTRO_HOME", root.substr(0, root.rfind('/')).c_str(), 1);
    LoaderInfo::getInstance().populateFromEnvironment();
  }
  void TearDown() override { _tree.reset(); }

 private:
  std::unique_ptr<BundleTree> _tree;
};

const auto* const gRoot = ::testing::AddGlobalTestEnvironment(new ServerRoot);

TEST(ServerConfig, TheConfiguredNameWinsOverTheMachines) {
  // The local layer over the default one, blanks trimmed.
  EXPECT_EQ(ServerConfig::readServerName(), "indexer-7");
  EXPECT_EQ(ServerConfig::getServerName(), "indexer-7");
  CowPipelineData pd;
  pd.writable()->load(nullptr);
  Str host;
  ASSERT_TRUE(pd->get_chan_piece_asstr(PipelineData::__inmap_host, &host));
  EXPECT_EQ(host, "host::indexer-7");
}

TEST(ServerConfig, MachineHostNameMatchesUname) {
  struct utsname u;
  ASSERT_EQ(uname(&u), 0);
  EXPECT_EQ(ServerConfig::machineHostName(), u.nodename[0] ? Str(u.nodename) : Str("localhost"));
}

}  // namespace
