// ConfPathMapper, the "conf" handler: a bundle directory of ini files, one
// per configuration type ("<bundle>/props.conf" is the type "props"). And
// BaseConfPathMapper, what every mapper shares: whose bundle it is, its
// mutex, and the fingerprints of its files.
#pragma once

#include <map>
#include <vector>

#include "libbundle/BundleHandlerData.h"
#include "libbundle/ConfPathTrie.h"
#include "libbundle/IConfPathMapper.h"
#include "libbundle/IniFile.h"
#include "util/Mutex.h"
#include "util/Timeval.h"

// The common part; subclasses take _mutex in every cpm operation.
class BaseConfPathMapper : public IConfPathMapper {
 public:
  // Whose bundle: get_user_app_from_path(data).
  BaseConfPathMapper(const Str& handler, BundleHandlerData& data, bool writable);

  const Pathname& cpmPath() const override { return _path; }
  const Str& cpmHandlerName() const override { return _handler; }
  const User& cpmUser() const override { return _user; }
  const Str& cpmApplication() const override { return _application; }
  const Pathname& cpmBundleRoot() const override { return _root; }
  bool cpmIsWritable() const override { return _writable; }
  bool cpmRemoveMetadata(const ConfPathBase& path) override;

  // Whether `query`'s user and application segments admit this bundle
  // (empty matches; the user without regard to case).
  bool admits(const ConfPathBase& query) const;
  // The path (cpmUser(), cpmApplication()).
  ConfPathBase bundleBase() const;
  // The node of this bundle's (user, application) in `changes`, the user
  // matched without regard to case; null when absent.
  const ConfPathTrie::Node* ownSubtree(const ConfPathTrie& changes) const;
  // "name size inode mtime\n" of `file`, "name -\n" when missing.
  static Str fingerprintOf(const Pathname& file);

 protected:
  // REQUIRES: writable; throws ConfPathException "Cannot write to a
  // read-only bundle: %s" otherwise.
  void requireWritable() const;

  mutable Mutex _mutex;
  const Str _handler;
  const Pathname _path;
  Pathname _root;
  User _user;
  Str _application;
  const bool _writable;
};

class ConfPathMapper : public BaseConfPathMapper {
 public:
  // Writable when the bundle's leaf is BUNDLES_PATH_LOCAL.
  explicit ConfPathMapper(BundleHandlerData& data);

  bool cpmSearch(const ConfPathBase& query, ConfPathTrie& out) override;
  void cpmReload(const Str& type) override;
  State cpmNewState(const Str& type) override;
  bool cpmHasChangedSince(const Str& type, State& state) override;
  bool cpmChangeNotify(const Pathname& path) override;
  // Values at level 4 (a stanza's embedded value is not stored in ini
  // files and is ignored) and 5 become "key = value" in "<type>.conf";
  // an existing setting keeps its comments. IniFile::flush replaces the
  // file atomically.
  void cpmMerge(const ConfPathTrie& changes) override;
  bool cpmRemoveLayer(const ConfPathBase& path) override;

  // The file of `type`: cpmPath() / type + ".conf".
  Pathname fileOf(const Str& type) const;

 private:
  struct Loaded {
    IniFile ini;
    Timeval modTime;
  };
  // The parsed file of `type`, read when not held. REQUIRES: _mutex held.
  const Loaded& loadLocked(const Str& type);
  // The types present on disk ("*.conf" leaves), sorted.
  std::vector<Str> listTypesLocked() const;

  std::map<Str, Loaded> _loaded;  // guarded by _mutex
};
