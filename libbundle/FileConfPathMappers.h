// The mappers of bundles that hold whole files rather than stanzas:
// JSONConfPathMapper ("xml": "<bundle>/<type>/<name>.xml" or ".json", the
// stanza <name> of <type> with the file's contents as its value) and
// LookupTableConfPathMapper ("lookups", "searchscripts", "history": every
// file "<bundle>/<name>" is the stanza <name> of the type named after the
// handler, with the file's path as its value). A document bundle is
// writable when it lies in "local" ("<app>/local/data"); a lookup bundle is
// the application's own directory of tables and always writable.
#pragma once

#include "libbundle/ConfPathMapper.h"

class FileConfPathMapper : public BaseConfPathMapper {
 public:
  bool cpmSearch(const ConfPathBase& query, ConfPathTrie& out) override;
  void cpmReload(const Str& type) override;
  State cpmNewState(const Str& type) override;
  bool cpmHasChangedSince(const Str& type, State& state) override;
  bool cpmChangeNotify(const Pathname& path) override;
  // A stanza's value becomes the file's contents, written atomically
  // (ConfContentsCache::writeAtomic).
  void cpmMerge(const ConfPathTrie& changes) override;
  // Removes the stanza's file (level 4 only).
  bool cpmRemoveLayer(const ConfPathBase& path) override;

 protected:
  FileConfPathMapper(const Str& handler, BundleHandlerData& data, bool writable);
  struct Entry {
    Str type;
    Str stanza;
    Pathname file;
  };
  // The files of the bundle as entries, sorted by (type, stanza).
  virtual std::vector<Entry> listEntries() const = 0;
  // The file a new stanza of `type` is written to.
  virtual Pathname fileFor(const Str& type, const Str& stanza) const = 0;
  // The value of an entry.
  virtual Str valueOf(const Entry& entry) const = 0;
};

class JSONConfPathMapper : public FileConfPathMapper {
 public:
  explicit JSONConfPathMapper(BundleHandlerData& data);

 protected:
  std::vector<Entry> listEntries() const override;
  Pathname fileFor(const Str& type, const Str& stanza) const override;
  Str valueOf(const Entry& entry) const override;
};

class LookupTableConfPathMapper : public FileConfPathMapper {
 public:
  LookupTableConfPathMapper(const Str& handler, BundleHandlerData& data);

 protected:
  std::vector<Entry> listEntries() const override;
  Pathname fileFor(const Str& type, const Str& stanza) const override;
  Str valueOf(const Entry& entry) const override;
};
