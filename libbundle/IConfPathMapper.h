// IConfPathMapper: one bundle of a configuration root as the store sees it.
// A mapper answers searches with a ConfPathTrie, tells whether its files
// changed, and takes writes. The mappers of a root are ordered by the
// bootstrap file (ConfPathMapperCollection).
//
// Thread story: every cpm operation may be called from any thread; each
// mapper serialises them with a mutex of its own.
#pragma once

#include "libbundle/ConfPath.h"
#include "libbundle/User.h"
#include "util/Pathname.h"
#include "util/Str.h"

class ConfPathTrie;

class IConfPathMapper {
 public:
  // What cpmHasChangedSince compares: a fingerprint of the stat data
  // (name, size, inode, modification time) of the files a type is read
  // from. Empty until cpmNewState fills it. A plain value.
  struct State {
    Str fingerprint;
  };

  virtual ~IConfPathMapper() = default;

  // The bundle's directory or file, absolute.
  virtual const Pathname& cpmPath() const = 0;
  // The handler it was built for: "conf", "confdb", "xml", "lookups"...
  virtual const Str& cpmHandlerName() const = 0;
  // Whose layer this is (get_user_app_from_path): every path it reports
  // lies under (cpmUser(), cpmApplication()).
  virtual const User& cpmUser() const = 0;
  virtual const Str& cpmApplication() const = 0;
  // The bundle's root for expanded stanza names ("://./" markers).
  virtual const Pathname& cpmBundleRoot() const = 0;
  // Whether writes may go here: the bundle's leaf is "local" (for "confdb",
  // the file is "local.meta"). Values it reads carry this as their
  // removable flag.
  virtual bool cpmIsWritable() const = 0;

  // Merges into `out` what the bundle holds under `query` (see
  // ConfPathBase: empty segments match all; a query of level 0-2 finds
  // every type). `out` keeps a value it already has (ConfPathTrie::merge).
  // True when anything matched. Files are read once and kept until they
  // change (cpmReload, cpmChangeNotify); unreadable files count as empty.
  virtual bool cpmSearch(const ConfPathBase& query, ConfPathTrie& out) = 0;
  // Drops what was read of `type`, or of every type for "", so that the
  // next search reads from disk again.
  virtual void cpmReload(const Str& type) = 0;
  // The current state of `type` ("" for all).
  virtual State cpmNewState(const Str& type) = 0;
  // Whether `type` ("" for all) changed since `state` was taken; `state`
  // becomes the current one. A change also drops what was read.
  virtual bool cpmHasChangedSince(const Str& type, State& state) = 0;
  // A file of the bundle changed on disk (the change watcher): drops what
  // was read of it. Returns true when the change is complete, false while
  // the file is still being written (its size or time moved while it was
  // looked at), so that the watcher asks again later.
  virtual bool cpmChangeNotify(const Pathname& path) = 0;

  // Writes `changes` (a trie rooted at the store root; only the subtree of
  // (cpmUser(), cpmApplication()) is taken, and only the parts this mapper
  // holds: values for data mappers, metadata for "confdb"). Only the
  // settings in the trie are written; the rest of each file stays as it
  // was, comments included. The file is replaced atomically.
  // Throws ConfPathException when the bundle is not writable or the file
  // cannot be written.
  virtual void cpmMerge(const ConfPathTrie& changes) = 0;
  // Removes what `path` names from the bundle's files: a type (level 3),
  // a stanza (4) or a setting (5). False when there was nothing to remove.
  // Throws ConfPathException as cpmMerge.
  virtual bool cpmRemoveLayer(const ConfPathBase& path) = 0;
  // Removes the metadata of `path` and of everything below it. False when
  // there was none, and always for mappers that hold no metadata.
  virtual bool cpmRemoveMetadata(const ConfPathBase& path) = 0;
};
