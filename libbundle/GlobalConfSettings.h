// GlobalConfSettings: process-wide switches of how much configuration is
// loaded and for whom, set at start-up (minimal init loads only what the
// default user's "conf" bundles hold).
//
// Thread story: every member takes the settings' own mutex; safe from any
// thread.
#pragma once

#include <set>

#include "util/Str.h"

class GlobalConfSettings {
 public:
  // The "user-restriction" variable: "*" unless restricted to one user.
  static Str getUserRestrictionPattern();
  static void setUserRestrictionPattern(const Str& pattern);

  // With no whitelist set, every application and user passes. With one,
  // only the names in it (applications exactly, users without regard to
  // case); the default application and user always pass.
  static bool isAppWhitelisted(const Str& application);
  static bool isUserWhitelisted(const Str& user);
  static void setAppWhitelist(const std::set<Str>& applications);
  static void setUserWhitelist(const std::set<Str>& users);
  static void clearWhitelists();

  // Whether every bundle loads (true by default) or only the minimal set.
  static bool useAllConfData();
  static void setUseAllConfData(bool all);

  // The GUID naming this process in the sentinel file; made once per
  // process (random, "xxxxxxxx-xxxx-4xxx-yxxx-xxxxxxxxxxxx") unless set.
  static Str getConfSystemGuid();
  static void setConfSystemGuid(const Str& guid);
};
