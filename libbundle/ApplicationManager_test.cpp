#include "libbundle/ApplicationManager.h"

#include <gtest/gtest.h>

#include "libbundle/testing/BundleTree.h"

namespace {

TEST(ApplicationManager, LocalStateOverridesDefaultState) {
  BundleTree t;
  t.put("apps/plain/default/props.conf", "");
  t.put("apps/off/default/app.conf", "[install]\nstate = disabled\n");
  t.put("apps/back/default/app.conf", "[install]\nstate = disabled\n");
  t.put("apps/back/local/app.conf", "[install]\nstate = enabled\n");
  t.put("apps/later/default/app.conf", "[install]\nstate = enabled\n");
  t.put("apps/later/local/app.conf", "[install]\n  state  =  disabled  \n");
  t.put("apps/other/local/app.conf", "[ui]\nstate = disabled\n");  // not the install stanza
  t.put("apps/afile", "");
  const ApplicationManager& m = ApplicationManager::instance(t.setup());
  const struct {
    const char* name;
    bool known;
    bool disabled;
  } kCases[] = {
      {"plain", true, false}, {"off", true, true},     {"back", true, false},
      {"later", true, true},  {"other", true, false},  {"system", true, false},
      {"afile", false, false}, {"missing", false, false}, {"..", false, false},
      {"", false, false},
  };
  for (const auto& c : kCases) {
    ApplicationInfo info;
    EXPECT_EQ(c.known, m.getApplicationInfo(c.name, info)) << c.name;
    EXPECT_EQ(c.disabled, m.isDisabled(c.name)) << c.name;
    if (c.known) {
      EXPECT_EQ(c.name, info.name);
      EXPECT_EQ(c.disabled, info.disabled) << c.name;
    }
  }
  // A change on disk is seen at once.
  t.put("apps/plain/local/app.conf", "[install]\nstate = disabled\n");
  EXPECT_TRUE(m.isDisabled("plain"));
}

}  // namespace
