#pragma once

// A test program's install root for code that reads the default
// configuration root: a throw-away "<home>/etc" holding the given files, with
// KESTRO_HOME and LoaderInfo pointed at its home for the whole program.

#include <gtest/gtest.h>

#include <cstdlib>
#include <initializer_list>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "libbundle/testing/BundleTree.h"
#include "loaderinfo/LoaderInfo.h"

class DefaultRootEnvironment : public ::testing::Environment {
 public:
  // `files`: (path under etc/, contents), e.g. {"system/default/server.conf", "..."}.
  explicit DefaultRootEnvironment(
      std::initializer_list<std::pair<std::string, std::string>> files)
      : _files(files) {}

  void SetUp() override {
    _tree = std::make_unique<BundleTree>();
    for (const auto& [path, text] : _files) _tree->put(path, text);
    // The tree's root is "<home>/etc", the default place of the
    // configuration under the home.
    const std::string root(_tree->root().c_str());
    setenv("KESTRO_HOME", root.substr(0, root.rfind('/')).c_str(), 1);
    LoaderInfo::getInstance().populateFromEnvironment();
  }
  void TearDown() override { _tree.reset(); }

 private:
  std::vector<std::pair<std::string, std::string>> _files;
  std::unique_ptr<BundleTree> _tree;
};
