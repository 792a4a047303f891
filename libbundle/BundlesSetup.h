// BundlesSetup: one configuration root and the directories of its bundles.
// The default root is the install's common configuration path ("etc" under
// KESTRO_HOME); any other root is a directory of the same shape.
#pragma once

#include "util/Pathname.h"
#include "util/Str.h"

// A plain value: one owner at a time, const methods safe to share.
class BundlesSetup {
 public:
  // The segments of the layout, constants of the program.
  static const Pathname BUNDLES_PATH_DEFAULT;  // "default"
  static const Pathname BUNDLES_PATH_LOCAL;    // "local"
  static const Pathname SYSTEM_DIR;            // "system"
  static const Pathname APPS_DIR;              // "apps"
  static const Pathname USERS_DIR;             // "users"
  static const Pathname LEGACY_DIR;            // "bundles"
  static const Pathname BOOTSTRAP_CONF;        // "conf.conf"
  static const Pathname SENTINEL_FILE;         // "sentinel.txt"
  static const Pathname POOLING_DIR;           // "pooling"
  static const Pathname POOLING_INI;           // "pooling.ini"
  static const Str LOOKUP_STAGING_NAME;        // "lookup_tmp"

  // The default root, set up once per process (defaultInit).
  BundlesSetup();
  // `root` with environment variables substituted. When that equals the
  // common configuration path the root is emptied and this is the default
  // setup; otherwise the root is used as it is (the mappers of a
  // non-default root are set up on first use).
  explicit BundlesSetup(const Pathname& root);

  // The install's common configuration path, absolute: LoaderInfo's
  // getCommonConfigPath(), under KESTRO_HOME when it is relative.
  static Pathname commonConfigPath();

  bool isDefaultRoot() const { return _root.empty(); }
  // Whether the setup of this root's mappers succeeded: for the default
  // root the once-per-process setup; for another root its collection's
  // (true until it is built). Asking sets the default root up once.
  bool valid() const;
  // runSetup() once per process for the default root and remember the
  // result; later calls give the remembered result.
  static bool defaultInit();
  // ConfPathMapperManager::setupMappers(*this).
  bool runSetup() const;

  Pathname getRoot() const;
  // getRoot() with a leading value of KESTRO_HOME replaced by the literal
  // "$KESTRO_HOME": "/opt/k/etc" gives "$KESTRO_HOME/etc" when KESTRO_HOME
  // is "/opt/k"; "/opt/kx/etc" stays (only a whole element counts).
  Pathname getUnexpandedRoot() const;
  Pathname getSystem() const;
  Pathname getSystemDefault() const;
  Pathname getSystemLocal() const;
  Pathname getBootstrapConf() const;
  static Pathname getFallbackBootstrapConf();
  Pathname getLegacy() const;
  Pathname getLegacyDefault() const;
  // Without pooling: the root. With pooling: the pool's storage path
  // joined with the install's relative configuration path.
  Pathname getPooledStorageOrRoot() const;
  Pathname getApps() const;
  Pathname getUsers() const;
  Pathname getSentinel() const;
  // storage / relative configuration path / "pooling" / "pooling.ini".
  // Throws ConfPathException ("No pooling configured for: %s") without a
  // pool.
  Pathname getPoolingInfo() const;
  Pathname getLookupStagingArea() const;

  // "default" for the default root, else the root; for logs.
  Str toString() const;

  // By root, bytewise; the default root (empty) first.
  bool operator<(const BundlesSetup& o) const { return _root < o._root; }
  bool operator==(const BundlesSetup& o) const { return _root == o._root; }
  bool operator!=(const BundlesSetup& o) const { return _root != o._root; }

 private:
  Pathname _root;
  bool _valid = true;
};
