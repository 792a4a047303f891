// The page the date tool reads, on the install tree that the build stages:
// PropertyPages::propsInstance() on the default root, with "default" of
// etc/system/default/props.conf as the last layer.
#include <gtest/gtest.h>

#include <cstdlib>

#include "libbundle/IniFile.h"
#include "libbundle/PropertyPages.h"
#include "loaderinfo/LoaderInfo.h"
#include "util/Pathname.h"

namespace {

TEST(PropertyPagesDefaultRoot, PropsInstanceEndsWithTheStockDefaultStanza) {
  const Pathname home(KESTRO_TEST_STAGED_HOME);
  const Pathname stock = home / "etc/system/default/props.conf";
  if (!stock.exists()) GTEST_SKIP() << "the install tree has no " << stock;
  setenv("KESTRO_HOME", home.c_str(), 1);
  LoaderInfo::getInstance().populateFromEnvironment();

  // The oracle: the stanza as the ini reader sees it.
  const IniFile ini(stock);
  const IniStanza* dflt = ini.findStanza("default");
  ASSERT_NE(nullptr, dflt);
  const PropertiesMap expected(*dflt);
  ASSERT_FALSE(expected.empty());

  // A context that nothing else matches gets exactly the stock "default".
  PropertiesMap alone;
  PropertyPages::propsInstance()->fillLayers(&alone, "source::/no/such/file.log|host::nowhere",
                                             true);
  EXPECT_EQ(expected.size(), alone.size());
  for (const auto& [key, property] : expected) {
    const Property* got = alone.getProperty(key);
    ASSERT_NE(nullptr, got) << key;
    EXPECT_EQ(property.value(), got->value()) << key;
    EXPECT_EQ("default", got->sourceStanza()) << key;
  }
  // Any other context still has every key of it, as the last layer.
  for (const char* context : {"syslog", ""}) {
    PropertiesMap props;
    PropertyPages::propsInstance()->fillLayers(&props, context, true);
    for (const auto& [key, property] : expected) {
      EXPECT_NE(nullptr, props.getProperty(key)) << context << ": " << key;
    }
  }
}

}  // namespace
