#include "libbundle/PropertiesMapMetadata.h"

#include <gtest/gtest.h>

#include <vector>

#include "libbundle/PropertiesMap.h"

namespace {

struct Source {
  const char* key;  // null for the embedded property
  PropertySourceType type;
  const char* stanza;
  const char* user;
  const char* application;
};

PropertiesMap mapOf(const std::vector<Source>& sources) {
  PropertiesMap m;
  for (const Source& s : sources) {
    if (s.key != nullptr) m.put(s.key, "v");
    Property& p = s.key != nullptr ? *m.getProperty(s.key) : m.getEmbeddedProperty();
    p.setSourceType(s.type);
    p.setSourceStanza(s.stanza);
    p.setSourceUser(User(s.user));
    p.setSourceApplication(s.application);
  }
  return m;
}

}  // namespace

TEST(PropertiesMapMetadata, InitFromTakesOwnerAndSharingFromTheBestSource) {
  const struct {
    const char* name;
    std::vector<Source> sources;
    const char* owner;
    const char* application;
    PropertiesMapMetadata::ShareLevel sharing;
  } kCases[] = {
      {"empty map", {}, "system", "system", PropertiesMapMetadata::SHARE_SYSTEM},
      {"system default",
       {{nullptr, SOURCE_SYSTEM_DEFAULT, "s", "nobody", "search"}},
       "nobody", "search", PropertiesMapMetadata::SHARE_SYSTEM},
      {"global from another app",
       {{nullptr, SOURCE_GLOBAL_OTHER_APP, "s", "nobody", "other"}},
       "nobody", "other", PropertiesMapMetadata::SHARE_GLOBAL},
      {"global from the same app",
       {{nullptr, SOURCE_GLOBAL_SAME_APP, "s", "nobody", "search"}},
       "nobody", "search", PropertiesMapMetadata::SHARE_GLOBAL},
      {"app", {{"k", SOURCE_APP, "s", "nobody", "search"}}, "nobody", "search",
       PropertiesMapMetadata::SHARE_APP},
      {"user entry beats app stanza",
       {{nullptr, SOURCE_APP, "s", "nobody", "search"}, {"k", SOURCE_USER, "s", "Bob", "mine"}},
       "Bob", "mine", PropertiesMapMetadata::SHARE_USER},
      {"a tie keeps the embedded",
       {{nullptr, SOURCE_APP, "s", "a", "first"}, {"k", SOURCE_APP, "s", "b", "second"}},
       "a", "first", PropertiesMapMetadata::SHARE_APP},
      {"a tie among entries keeps the first key",
       {{"b", SOURCE_APP, "s", "b", "second"}, {"a", SOURCE_APP, "s", "a", "first"}},
       "a", "first", PropertiesMapMetadata::SHARE_APP},
      {"default entries passed over under a named stanza",
       {{nullptr, SOURCE_SYSTEM_DEFAULT, "s", "x", "named"},
        {"k", SOURCE_USER, "default", "Bob", "fallback"}},
       "x", "named", PropertiesMapMetadata::SHARE_SYSTEM},
      {"default entries count when the stanza is default",
       {{nullptr, SOURCE_SYSTEM_DEFAULT, "default", "x", "named"},
        {"k", SOURCE_USER, "default", "Bob", "fallback"}},
       "Bob", "fallback", PropertiesMapMetadata::SHARE_USER},
      {"system default on an entry", {{"k", SOURCE_SYSTEM_DEFAULT, "s", "ann", "appx"}}, "ann",
       "appx", PropertiesMapMetadata::SHARE_SYSTEM},
      {"global from another app on an entry", {{"k", SOURCE_GLOBAL_OTHER_APP, "s", "ann", "appx"}},
       "ann", "appx", PropertiesMapMetadata::SHARE_GLOBAL},
      {"global from the same app on an entry", {{"k", SOURCE_GLOBAL_SAME_APP, "s", "ann", "appx"}},
       "ann", "appx", PropertiesMapMetadata::SHARE_GLOBAL},
      {"user on the embedded", {{nullptr, SOURCE_USER, "s", "ann", "appx"}}, "ann", "appx",
       PropertiesMapMetadata::SHARE_USER},
      {"unset sources leave the defaults",
       {{nullptr, SOURCE_UNSET, "s", "x", "y"}, {"k", SOURCE_UNSET, "s", "x", "y"}},
       "system", "system", PropertiesMapMetadata::SHARE_SYSTEM},
  };
  for (const auto& c : kCases) {
    PropertiesMapMetadata md;
    md.setSharing(PropertiesMapMetadata::SHARE_USER);  // overwritten
    EXPECT_FALSE(md.isInitialized());
    md.initFrom(mapOf(c.sources));
    EXPECT_TRUE(md.isInitialized()) << c.name;
    EXPECT_EQ(c.owner, md.owner()) << c.name;
    EXPECT_EQ(c.application, md.application()) << c.name;
    EXPECT_EQ(c.sharing, md.sharing()) << c.name;
  }
}

TEST(PropertiesMapMetadata, InitFromCopiesRemovableAndPermissions) {
  PropertiesMap m = mapOf({{nullptr, SOURCE_APP, "s", "nobody", "search"}});
  m.getEmbeddedProperty().setSourceRemovable(true);
  ConfPathPermissions p;
  p.allow(ConfPathPermissions::ALLOW_GET, "user");
  p.allow(ConfPathPermissions::ALLOW_SET, "admin");
  m.mergePermissions(ConfPathPermissionsReference(p));
  PropertiesMapMetadata md;
  EXPECT_FALSE(md.isRemovable());
  EXPECT_EQ(PropertiesMapMetadata::SHARE_SYSTEM, md.sharing());  // before any initFrom
  EXPECT_EQ("system", md.getSharingAsStr());
  EXPECT_EQ("", md.owner());
  EXPECT_TRUE(md.permissions().empty());
  md.initFrom(m);
  EXPECT_TRUE(md.isRemovable());
  EXPECT_TRUE(md.permissions() == p);
  // Only the embedded property says whether a stanza is removable.
  PropertiesMap entryOnly = mapOf({{"k", SOURCE_USER, "s", "u", "a"}});
  entryOnly.getProperty("k")->setSourceRemovable(true);
  md.initFrom(entryOnly);
  EXPECT_FALSE(md.isRemovable());
  md.initFrom(PropertiesMap());
  EXPECT_FALSE(md.isRemovable());
  EXPECT_TRUE(md.permissions().empty());
}

TEST(PropertiesMapMetadata, SharingWordsRoundTripAndOthersAreRefused) {
  const struct {
    PropertiesMapMetadata::ShareLevel level;
    const char* word;
  } kLevels[] = {
      {PropertiesMapMetadata::SHARE_USER, "user"},
      {PropertiesMapMetadata::SHARE_APP, "app"},
      {PropertiesMapMetadata::SHARE_GLOBAL, "global"},
      {PropertiesMapMetadata::SHARE_SYSTEM, "system"},
  };
  for (const auto& l : kLevels) {
    PropertiesMapMetadata md;
    EXPECT_TRUE(md.setSharing(Str(l.word))) << l.word;
    EXPECT_EQ(l.level, md.sharing()) << l.word;
    EXPECT_EQ(l.word, md.getSharingAsStr()) << l.word;
    md.setSharing(l.level);
    EXPECT_EQ(l.word, md.getSharingAsStr()) << l.word;
    for (const char* bad : {"Global", "USER", "App", " app", "app ", "", "sys", "globally"}) {
      EXPECT_FALSE(md.setSharing(Str(bad))) << bad;
      EXPECT_EQ(l.level, md.sharing()) << bad;  // left alone
    }
  }
}
