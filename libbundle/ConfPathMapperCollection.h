// ConfPathMapperCollection: the ordered bundles of one configuration root,
// built from the bootstrap file's "bootstrap" stanza, and the "writes"
// stanza that says which bundle takes a write.
//
// Thread story: one owner at a time; ConfPathMapperManager holds its mutex
// around every call.
#pragma once

#include <map>
#include <set>
#include <memory>
#include <vector>

#include "libbundle/BundleHandlerData.h"
#include "libbundle/BundlesSetup.h"
#include "libbundle/ConfPath.h"
#include "libbundle/IConfPathMapper.h"
#include "libbundle/IniFile.h"
#include "libbundle/OrderedMap.h"
#include "libbundle/TemplateString.h"
#include "libbundle/UsernameMapper.h"
#include "util/Pathname.h"

struct PathnameCmp {
  bool operator()(const Pathname& a, const Pathname& b) const { return a < b; }
};

// The bundles that one glob pattern of "bootstrap" matched, in path order.
struct PatternMatches {
  Str handler;
  std::vector<IConfPathMapper*> mappers;
};

class ConfPathMapperCollection {
 public:
  typedef OrderedMap<Pathname, PatternMatches, PathnameCmp> Patterns;

  explicit ConfPathMapperCollection(const BundlesSetup& setup);
  ~ConfPathMapperCollection();
  ConfPathMapperCollection(const ConfPathMapperCollection&) = delete;
  ConfPathMapperCollection& operator=(const ConfPathMapperCollection&) = delete;

  // Reads the bootstrap file and builds the mappers (see the header of
  // this file). False, with the error logged, when the file cannot be read
  // ("Could not read bootstrap configuration: %s") or has no "bootstrap"
  // stanza ("Could not find '%s' stanza in bootstrapping conf: %s").
  bool runBaseSetup();
  // Globs every pattern again and adds the mappers of bundles that
  // appeared since; existing mappers stay where they are.
  bool redoSetup();

  // Decides whether `path` becomes a bundle of `handler` and builds its
  // mapper, by the accept rules in order, each logging its text:
  // a path with a mapper already: true; a leaf beginning with ".";
  // an application or user not whitelisted; a legacy bundle overridden by
  // an application of its leaf name; handlers "default" and "ignore";
  // another user's data or a non-default application's non-"conf" data
  // during minimal init; "confdb" only for ".meta" files; "conf", "xml",
  // "lookups", "searchscripts", "history"; anything else is an error and
  // false. The new mapper is recorded under `pattern` and its path.
  bool callHandler(const Str& handler, const Pathname& path, BundleHandlerData& data,
                   const Pathname& pattern = Pathname());

  // The variables of TemplateString::realize for `path` (see the bootstrap
  // file's documentation): apps-base, users-base, user-restriction, app,
  // user, user-case-handler, type.
  TemplateString::Variables templateVariables(const ConfPathBase& path) const;
  // `text` realized with those variables, "/" kept, a relative result
  // taken under getRoot(). False when a variable is unknown.
  bool realizePath(const Str& text, const ConfPathBase& path, Pathname& out) const;

  // The bundle that takes a write of `path`: the key is "data:", "meta:"
  // (flags & WRITE_META) or "pack:" (flags & WRITE_PACK, which wins),
  // then user ":" application ":" type. The exact key of "writes" is used,
  // else the first key that realizes to it; its template is realized into
  // `out`. False with "No write configuration for: %s" logged when none.
  bool toMapperPath(const ConfPathBase& path, unsigned flags, Pathname& out) const;

  // The mapper at `path`, or null.
  IConfPathMapper* getUpdateMapper(const Pathname& path) const;
  // The writer of `path` (toMapperPath), made on demand when the bundle
  // does not exist yet; null when there is no write configuration or no
  // handler can be found for the bundle path.
  IConfPathMapper* getCreateMapper(const ConfPathBase& path, unsigned flags);
  // Builds the mapper of `path` with the handler of the first bootstrap
  // pattern that would match it (Glob::wouldGlob), and puts it in that
  // pattern's place; null when no pattern fits or the handler refuses.
  IConfPathMapper* insertMapperAtPath(const Pathname& path);

  // Every mapper in order: bootstrap patterns in file order, each
  // pattern's bundles in path order.
  std::vector<IConfPathMapper*> orderedMappers() const;
  const Patterns& patterns() const { return _patterns; }
  const IniFile& getSetupIni() const { return _ini; }
  const BundlesSetup& bundlesSetup() const { return _setup; }
  UsernameMapper& usernameMapper() { return _usernames; }

 private:
  std::unique_ptr<IConfPathMapper> makeMapper(const Str& handler, BundleHandlerData& data);
  bool globPattern(const Pathname& pattern, const Str& handler, ReaddirCache& readdir);

  BundlesSetup _setup;
  UsernameMapper _usernames;
  IniFile _ini;
  Patterns _patterns;
  std::map<Pathname, IConfPathMapper*> _byPath;
  std::set<Pathname> _seen;  // every path a pattern matched, mapper or not
  std::vector<std::unique_ptr<IConfPathMapper>> _owned;
};
