// PropertyPagesContext: for whom layered configuration is read: which
// configuration root, which user and which application.
#pragma once

#include "libbundle/BundlesSetup.h"
#include "libbundle/User.h"
#include "util/Str.h"

// A plain value: one owner at a time, const methods safe to share.
class PropertyPagesContext {
 public:
  // The default root, no user, no application.
  PropertyPagesContext() = default;
  PropertyPagesContext(const BundlesSetup& setup, const User& user, const Str& application)
      : _bundlesSetup(setup), _user(user), _application(application) {}
  PropertyPagesContext(const User& user, const Str& application)
      : _user(user), _application(application) {}

  const BundlesSetup& bundlesSetup() const { return _bundlesSetup; }
  const User& user() const { return _user; }
  const Str& application() const { return _application; }
  bool hasUserContext() const { return !_user.empty(); }
  bool hasApplicationContext() const { return !_application.empty(); }

  // By bundles setup, then application bytewise, then user without regard
  // to case: ("Admin", "search") and ("admin", "search") are one context.
  bool operator<(const PropertyPagesContext& other) const;
  // "[setup=<root or default>, user=<user>, app=<application>]", for
  // messages.
  Str toString() const;

 private:
  BundlesSetup _bundlesSetup;
  User _user;
  Str _application;
};
