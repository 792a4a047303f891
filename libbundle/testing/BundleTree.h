// A real configuration root in a fresh temporary directory for the store's
// tests, with the install's own bootstrap file: system, applications,
// users and legacy bundles are made by writing files into it. Test code
// only.
#pragma once

#include <string>

#include "libbundle/BundlesSetup.h"
#include "libbundle/ConfPathMapperManager.h"
#include "libbundle/ConfSettings.h"
#include "util/testing/TestTempDir.h"

// One owner: the test that made it. Each tree is a root of its own, so its
// mappers are built afresh.
class BundleTree {
 public:
  // `bootstrap` replaces the install's bootstrap file when not null.
  explicit BundleTree(const char* bootstrap = nullptr) : _root(_dir / "etc") {
    const std::string text =
        bootstrap != nullptr
            ? std::string(bootstrap)
            : readTestFile(Pathname(KESTRO_SOURCE_DIR) / "home/etc/system/default/conf.conf");
    if (text.empty()) ADD_FAILURE() << "no bootstrap file";
    put("system/default/conf.conf", text);
    put("apps/.keep", "");
    put("users/.keep", "");
    ConfPathMapperManager::instance().forgetNonDefault();
  }
  ~BundleTree() {
    ConfSettings::forget(setup());
    ConfPathMapperManager::instance().forgetNonDefault();
  }

  // Writes `text` to root / rel, making directories.
  void put(const std::string& rel, const std::string& text) const {
    writeTestFile(_root / rel, text);
  }
  std::string read(const std::string& rel) const { return readTestFile(_root / rel); }
  const Pathname& root() const { return _root; }
  Pathname path(const std::string& rel) const { return _root / rel; }
  BundlesSetup setup() const { return BundlesSetup(_root); }

 private:
  TestTempDir _dir;
  Pathname _root;
};
