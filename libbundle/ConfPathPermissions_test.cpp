#include "libbundle/ConfPathPermissions.h"

#include <gtest/gtest.h>

TEST(ConfPathPermissions, EmptinessTextAndSharing) {
  ConfPathPermissions p;
  EXPECT_TRUE(p.empty());
  EXPECT_EQ("read : [ ], write : [ ]", p.toString());
  p.allow(ConfPathPermissions::ALLOW_SET, "power");
  EXPECT_FALSE(p.empty());
  p.allow(ConfPathPermissions::ALLOW_GET, "user");
  p.allow(ConfPathPermissions::ALLOW_GET, "admin");
  p.allow(ConfPathPermissions::ALLOW_GET, "admin");
  EXPECT_EQ("read : [ admin, user ], write : [ power ]", p.toString());
  EXPECT_TRUE(p.isAllowed(ConfPathPermissions::ALLOW_GET, "admin"));
  EXPECT_FALSE(p.isAllowed(ConfPathPermissions::ALLOW_SET, "admin"));
  EXPECT_FALSE(p.isAllowed(ConfPathPermissions::ALLOW_GET, "Admin"));
  EXPECT_FALSE(p.isAllowed(ConfPathPermissions::ALLOW_GET, "*"));

  const ConfPathPermissionsReference none;
  EXPECT_TRUE(none.empty());
  EXPECT_TRUE(none.get().empty());
  EXPECT_EQ(0, none.useCount());
  const ConfPathPermissionsReference ref(p);
  p.allow(ConfPathPermissions::ALLOW_SET, "later");  // the shared copy does not see it
  EXPECT_FALSE(ref.get().isAllowed(ConfPathPermissions::ALLOW_SET, "later"));
  const ConfPathPermissionsReference copy = ref;
  EXPECT_TRUE(copy.isSameObject(ref));
  EXPECT_EQ(2, ref.useCount());
  EXPECT_FALSE(ConfPathPermissionsReference(ref.get()).isSameObject(ref));
  EXPECT_TRUE(ConfPathPermissionsReference(ref.get()).get() == ref.get());
  EXPECT_TRUE(ConfPathPermissionsReference(ConfPathPermissions()).empty());
}
