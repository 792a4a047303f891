// A configuration root in an install that has no bootstrap file. Its own
// program, since the default root is settled once per process.

#include "libbundle/BundlesSetup.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "libbundle/ConfPathMapperManager.h"
#include "loaderinfo/LoaderInfo.h"
#include "util/testing/TestTempDir.h"

namespace {

// KESTRO_HOME for the whole program: an empty directory.
class EmptyInstall : public ::testing::Environment {
 public:
  void SetUp() override {
    ::setenv("KESTRO_HOME", std::string(_home.path()).c_str(), 1);
    LoaderInfo::getInstance().populateFromEnvironment();
  }
  TestTempDir _home;
};
const auto* const gEmptyInstall = ::testing::AddGlobalTestEnvironment(new EmptyInstall);

// The default setup fails, leaves no mappers, and every spelling of the
// root says so.
TEST(BundlesSetup, DefaultRootWithoutABootstrapFileIsInvalid) {
  EXPECT_FALSE(BundlesSetup(BundlesSetup::commonConfigPath()).valid());
  const BundlesSetup byDefault;
  EXPECT_FALSE(byDefault.valid());
  EXPECT_FALSE(BundlesSetup("$KESTRO_HOME/etc").valid());
  EXPECT_EQ(0u, ConfPathMapperManager::instance().getMappers(byDefault).size());
}

}  // namespace
