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
#include "libbundle/testing/DefaultRootEnvironment.h"
#include "loaderinfo/LoaderInfo.h"

namespace {

const auto* const gRoot = ::testing::AddGlobalTestEnvironment(
    new DefaultRootEnvironment({{"system/default/server.conf", "[general]\nserverName = from-default\n"},
                                {"system/local/server.conf", "[general]\nserverName = indexer-7 \n"}}));

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
