// BundleHandlerData: what a bundle's mapper is built from, and
// get_user_app_from_path, which says whose bundle a path is.
#pragma once

#include "libbundle/ConfPathException.h"

#include "libbundle/BundlesSetup.h"
#include "libbundle/IniFile.h"
#include "libbundle/User.h"
#include "util/Pathname.h"
#include "util/ReaddirCache.h"

class UsernameMapper;

// Borrows the setup, the mapper of user names and the directory cache: all
// must outlive it. One owner at a time.
class BundleHandlerData {
 public:
  // Throws ConfPathException "BundleHandlerData given a relative path: %s"
  // unless `path` is absolute.
  BundleHandlerData(BundlesSetup& setup, const Pathname& path, const IniStanza& settings,
                    UsernameMapper& usernames, ReaddirCache& readdir);

  BundlesSetup& bundlesSetup() const { return _setup; }
  const Pathname& path() const { return _path; }
  // The settings of the stanza named after the handler; empty when none.
  const IniStanza& settings() const { return _settings; }
  UsernameMapper& usernameMapper() const { return _usernames; }
  ReaddirCache& readdirCache() const { return _readdir; }

 private:
  BundlesSetup& _setup;
  Pathname _path;
  IniStanza _settings;
  UsernameMapper& _usernames;
  ReaddirCache& _readdir;
};

// Whose bundle data.path() is, by where it lies:
//   <apps>/<app>/...                 (nobody, <app>), true
//   <system>/...                     (nobody, "system"), true
//   <users>/<user>/<app>/...         (<user> in lower case, <app>), true
//   <users>/<reserved>/<safe>/<app>/... (getRealUsername(<safe>), <app>);
//       a safe name that does not decode logs "Failed to look up real
//       username for: %s" and leaves the user empty
//   <legacy>/...                     (nobody, "system"), true
//   anything else                    (nobody, "system"), false
// `root` receives the bundle's root: the application's (or user
// application's) directory, getSystem() for the system, the path's first
// element under getLegacy() for legacy bundles, the path itself otherwise.
bool get_user_app_from_path(BundleHandlerData& data, Pathname& root, User& user,
                            Str& application);
