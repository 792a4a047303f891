// ApplicationManager: the applications under a root's "apps" directory, as
// far as configuration needs them: does one exist, and is it disabled.
//
// An application is disabled by "state = disabled" in the stanza
// "[install]" of its "app.conf": the one in "local" when it says anything,
// else the one in "default". Any other state (or none) is enabled.
//
// Thread story: safe from any thread; every lookup reads the files afresh,
// so a change on disk is seen at once.
#pragma once

#include "libbundle/BundlesSetup.h"
#include "util/Pathname.h"
#include "util/Str.h"

struct ApplicationInfo {
  Str name;
  Pathname path;  // getApps() / name
  bool disabled = false;
};

class ApplicationManager {
 public:
  static constexpr const char* APP_CONF = "app.conf";
  static constexpr const char* INSTALL_STANZA = "install";
  static constexpr const char* STATE_KEY = "state";
  static constexpr const char* STATE_DISABLED = "disabled";

  // The manager of `setup`'s root, made on first use and kept for the
  // process.
  static ApplicationManager& instance(const BundlesSetup& setup);

  // Whether `name` is an application (a directory getApps()/name). When
  // it is, fills `out`. "system" is always known and never disabled.
  bool getApplicationInfo(const Str& name, ApplicationInfo& out) const;
  // Known and disabled.
  bool isDisabled(const Str& name) const;

 private:
  explicit ApplicationManager(const BundlesSetup& setup) : _setup(setup) {}
  BundlesSetup _setup;
};
