// A channel's settings from the props page of a real configuration root,
// made in a temporary directory and installed as the process's default
// root before anything reads it; hence an executable of its own.
#include <gtest/gtest.h>

#include <cstdlib>

#include "framework/PipelineInputChannel.h"
#include "libbundle/PropertiesMap.h"
#include "libbundle/testing/BundleTree.h"
#include "loaderinfo/LoaderInfo.h"

namespace {

const char* const kProps =
    "[default]\n"
    "d = from_default\n"
    "[source::/var/log/app.log]\n"
    "s = from_source\n"
    "[host::web1]\n"
    "h = from_host\n"
    "[access_combined]\n"
    "t = from_sourcetype\n"
    "[other_type]\n"
    "t = from_other\n";

const char* const kKey = "source::/var/log/app.log|host::web1|access_combined|chan";

class PropsRoot : public ::testing::Environment {
 public:
  void SetUp() override {
    _tree = std::make_unique<BundleTree>();
    _tree->put("system/default/props.conf", kProps);
    // The tree's root is "<home>/etc", the default place of the
    // configuration under the home.
    const std::string root(_tree->root().c_str());
    const std::string home = root.substr(0, root.rfind('/'));
    setenv("KESTRO_HOME", home.c_str(), 1);
    LoaderInfo::getInstance().populateFromEnvironment();
  }
  void TearDown() override { _tree.reset(); }

 private:
  std::unique_ptr<BundleTree> _tree;
};

const auto* const gRoot = ::testing::AddGlobalTestEnvironment(new PropsRoot);

Str setting(const PipelineInputChannel* chan, const char* key) {
  const Property* p = chan->properties()->getProperty(key);
  return p == nullptr ? Str("<absent>") : Str(p->value());
}

TEST(PipelineInputChannelProperties, LookupResolvesSourceHostAndSourcetypeStanzas) {
  const struct {
    const char* key;
    const char* s;
    const char* h;
    const char* t;
  } kCases[] = {
      {kKey, "from_source", "from_host", "from_sourcetype"},
      {"source::/var/log/app.log|host::web2|other_type|c", "from_source", "<absent>", "from_other"},
      {"source::/elsewhere|host::web1|none|c", "<absent>", "from_host", "<absent>"},
      // No stanza at all is not an error: "default" alone.
      {"source::/nowhere|host::none|none|c", "<absent>", "<absent>", "<absent>"},
      {"plain", "<absent>", "<absent>", "<absent>"},
  };
  PipelineInputChannelSet set(true);
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.key);
    PipelineInputChannelReference ref{StrSegment(c.key), &set, true};
    ASSERT_NE(ref->properties(), nullptr);
    EXPECT_EQ(setting(ref.get(), "s"), c.s);
    EXPECT_EQ(setting(ref.get(), "h"), c.h);
    EXPECT_EQ(setting(ref.get(), "t"), c.t);
    EXPECT_EQ(setting(ref.get(), "d"), "from_default");
  }
}

TEST(PipelineInputChannelProperties, FetchedOnceOnDemandAndSharedByLookups) {
  PipelineInputChannelSet set(true);
  PipelineInputChannelReference lazy{StrSegment(kKey), &set, false};
  EXPECT_EQ(lazy->properties(), nullptr);
  lazy->fetch_properties();
  const PropertiesMap* first = lazy->properties();
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(setting(lazy.get(), "t"), "from_sourcetype");
  lazy->fetch_properties();  // a second call keeps the map
  EXPECT_EQ(lazy->properties(), first);
  PipelineInputChannelReference again{StrSegment(kKey), &set, true};
  EXPECT_EQ(again.get(), lazy.get());
  EXPECT_EQ(again->properties(), first);
}

TEST(PipelineInputChannelProperties, RecycledChannelTakesTheNewKeysSettings) {
  PipelineInputChannelSetHolder holder;
  const PipelineInputChannel* before;
  {
    // Channels of a queue reader's set start abandoned, so the next new
    // key recycles this one at once.
    PipelineInputChannelReference ref{StrSegment(kKey), holder.get(), true};
    before = ref.get();
    EXPECT_EQ(setting(ref.get(), "h"), "from_host");
  }
  PipelineInputChannelReference next{StrSegment("source::/x|host::y|other_type|c"), holder.get(),
                                     true};
  EXPECT_EQ(next.get(), before);
  EXPECT_EQ(setting(next.get(), "h"), "<absent>");
  EXPECT_EQ(setting(next.get(), "t"), "from_other");
}

TEST(PipelineInputChannelProperties, AddPropertiesOverridesAndInserts) {
  PipelineInputChannelSet set(true);
  PipelineInputChannelReference ref{StrSegment(kKey), &set, true};
  const size_t fetched = ref->properties()->size();
  PropertiesMap extra;
  extra.put("t", "overridden");
  extra.put("n", "inserted");
  ref->addProperties(extra);
  EXPECT_EQ(setting(ref.get(), "t"), "overridden");
  EXPECT_EQ(setting(ref.get(), "n"), "inserted");
  EXPECT_EQ(setting(ref.get(), "s"), "from_source");  // untouched settings stay
  EXPECT_EQ(ref->properties()->size(), fetched + 1);
  ref->addProperties(PropertiesMap());  // nothing to merge
  EXPECT_EQ(ref->properties()->size(), fetched + 1);
}

TEST(PipelineInputChannelPropertiesDeathTest, ContractsEndTheProcess) {
  PipelineInputChannelSet set(true);
  PipelineInputChannelReference unfetched{StrSegment("a|b|c|d"), &set, false};
  EXPECT_DEATH(unfetched->addProperties(PropertiesMap()), "_pmap != nullptr");
  PipelineInputChannelReference fetched{StrSegment(kKey), &set, true};
  EXPECT_DEATH(fetched->Locked_fetch_properties(), "_pmap == __null");
  PipelineInputChannelReference second(fetched);
  EXPECT_DEATH(fetched->addProperties(PropertiesMap()), "_refcnt == 1");
}

}  // namespace
