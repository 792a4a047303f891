#include "libbundle/LiteralsLoader.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "loaderinfo/LoaderInfo.h"
#include "util/StringMgr.h"
#include "util/testing/TestTempDir.h"

namespace {

// The catalogue is built once per process, so one test does it all: an
// install whose default root holds "literals" in the system and in an
// application, read through the page on first use.
TEST(LiteralsLoader, FillsTheCatalogueFromTheLiteralsPage) {
  TestTempDir home;
  writeTestFile(home / "etc/system/default/conf.conf",
                readTestFile(Pathname(KESTRO_SOURCE_DIR) / "home/etc/system/default/conf.conf"));
  writeTestFile(home / "etc/system/default/literals.conf",
                "[LOGIN]\nFAILED = Login failed for %s\nOK = fine\n");
  writeTestFile(home / "etc/system/local/literals.conf", "[LOGIN]\nOK = local wins\n");
  writeTestFile(home / "etc/apps/search/default/literals.conf", "[SEARCH]\nEMPTY = No results\n");
  setenv("KESTRO_HOME", home.path().c_str(), 1);
  LoaderInfo::getInstance().populateFromEnvironment();

  installLiteralsLoader();
  StringMgr::instance();
  const struct {
    const char* key;
    const char* text;
  } kCases[] = {
      {"LOGIN_FAILED", "Login failed for %s"},
      {"login_%failed", "Login failed for %s"},
      {"LOGIN_OK", "local wins"},
      {"SEARCH_EMPTY", "No results"},
      {"LOGIN_NONE", "String not found in literals.conf: LOGIN_NONE"},
  };
  for (const auto& c : kCases) EXPECT_STREQ(c.text, StringMgr::str(c.key)) << c.key;
  EXPECT_EQ("Login failed for bob", StringMgr::fStr("LOGIN_FAILED", "bob"));
}

}  // namespace
