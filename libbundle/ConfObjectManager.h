// ConfObjectManager, the "confdb" handler: one ".meta" file of a bundle,
// the metadata of the bundle's nodes (format in ConfPathMetadata.h).
#pragma once

#include "libbundle/ConfPathMapper.h"

class ConfObjectManager : public BaseConfPathMapper {
 public:
  // The path is the ".meta" file; writable when it is "local.meta". Its
  // bundle is the directory above "metadata".
  explicit ConfObjectManager(BundleHandlerData& data);

  // Metadata only: each stanza becomes the metadata of its node under
  // (user, application), removable when the file is writable, with the
  // file's modification time unless the stanza gives one.
  bool cpmSearch(const ConfPathBase& query, ConfPathTrie& out) override;
  void cpmReload(const Str& type) override;
  State cpmNewState(const Str& type) override;
  bool cpmHasChangedSince(const Str& type, State& state) override;
  bool cpmChangeNotify(const Pathname& path) override;
  // The metadata of the trie's nodes replaces the stanzas of those nodes.
  void cpmMerge(const ConfPathTrie& changes) override;
  // Holds no values: nothing to remove.
  bool cpmRemoveLayer(const ConfPathBase& path) override;
  bool cpmRemoveMetadata(const ConfPathBase& path) override;

 private:
  const IniFile& loadLocked();

  bool _loaded = false;  // guarded by _mutex
  IniFile _ini;          // guarded by _mutex
};
