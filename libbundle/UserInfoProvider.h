// IUserInfoProvider: what configuration needs to know about the user a
// request runs for, supplied by the identity layer above it; and the one
// process-wide registration of a provider.
#pragma once

#include <set>

#include "libbundle/User.h"
#include "util/Str.h"

// Implementations must be safe to call from any thread.
class IUserInfoProvider {
 public:
  virtual ~IUserInfoProvider() = default;
  // The user the calling thread acts for; false when there is none (a
  // thread of the server's own).
  virtual bool getCurrentUser(User& out) const = 0;
  // The roles of `user`, replacing `out`; false when the user is unknown.
  virtual bool getRoles(const User& user, std::set<Str>& out) const = 0;
  // Whether `user` may read and write configuration as another user.
  virtual bool mayActForOthers(const User& user) const = 0;
};

// The registration. The provider is borrowed: it must stay alive until it
// is unregistered. Safe from any thread.
class UserInfoProviderRegistry {
 public:
  // Replaces any provider registered before.
  static void registerProvider(const IUserInfoProvider* provider);
  // Removes `provider` if it is the one registered; otherwise does nothing.
  static void unregisterProvider(const IUserInfoProvider* provider);
  // The provider, or null.
  static const IUserInfoProvider* getProvider();
};
