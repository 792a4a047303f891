// The users of the management port, their roles and capabilities, read
// from layered configuration of one root:
//
//   users.conf      one stanza per user, named by the user:
//                     [admin]
//                     password = pbkdf2_sha256$100000$<salt hex>$<hash hex>
//                     roles = admin, user
//                     realname = Administrator   (optional)
//                     tz = Europe/Paris           (optional)
//                     disabled = false            (optional)
//   authorize.conf  one stanza per role, "role_" and the role's name:
//                     [role_admin]
//                     importRoles = user
//                     admin_all_objects = enabled
//                     list_settings = enabled
//
// A role's capabilities are its keys whose value is "enabled", and those of
// the roles it imports (lists split at "," ";" or blanks; a cycle is
// harmless). Capability names are folded to lower case. User names are
// matched exactly first, then without regard to case.
#pragma once

#include <set>

#include "libbundle/BundlesSetup.h"
#include "libbundle/UserInfoProvider.h"
#include "util/Str.h"

class PropertiesMap;
class PropertyPages;

struct UserInfo {
  Str name;  // as configured
  Str realName;
  Str tz;
  bool disabled = false;
  std::set<Str> roles;
  std::set<Str> capabilities;
};

// Safe from any thread: it holds nothing but the root, and reads the pages
// (which have their own locking) on every call, so edits to the files are
// seen once the pages are refreshed.
class UserManager : public IUserInfoProvider {
 public:
  static constexpr const char* USERS_CONF = "users";
  static constexpr const char* AUTHORIZE_CONF = "authorize";
  // The capability that lets a user read and write as another.
  static constexpr const char* ADMIN_ALL_OBJECTS = "admin_all_objects";

  explicit UserManager(const BundlesSetup& setup = BundlesSetup());
  // The manager of the default root.
  static UserManager& instance();

  // The stored form of `password` for users.conf (PasswordHash::hash with
  // its default iterations).
  static Str hashPassword(const Str& password);

  bool userExists(const Str& name) const;
  // The user, his roles and their capabilities; false when unknown.
  bool getUserInfo(const Str& name, UserInfo& out) const;
  // Whether `password` is the user's. False for an unknown or disabled user
  // and for a stanza without a well-formed hash; an unknown user costs a
  // hash all the same, so that the time does not tell which users exist.
  // Passwords are never logged.
  bool checkPassword(const Str& name, const Str& password) const;
  // Whether the user holds `capability` (any case). A refusal is logged at
  // INFO with `auditLabel` ("REST: /services/x", say) on channel
  // "UserManager".
  bool hasCapability(const Str& user, const Str& capability, const Str& auditLabel) const;
  // The capabilities of `roles` and the roles they import.
  void getCapabilities(const std::set<Str>& roles, std::set<Str>& out) const;

  // Writes (or replaces) the user in users.conf of the system's local
  // layer, the password stored hashed. False, logged, when it cannot be
  // written.
  bool addUser(const Str& name, const Str& password, const Str& roles);

  // IUserInfoProvider: the current user is ScopedUserContext's.
  bool getCurrentUser(User& out) const override;
  bool getRoles(const User& user, std::set<Str>& out) const override;
  bool mayActForOthers(const User& user) const override;

  const BundlesSetup& setup() const { return _setup; }

 private:
  PropertyPages* page(const char* name) const;
  // The user's stanza into `out` and its name as configured into
  // `configured` (when not null); false when there is none.
  bool findUser(const Str& name, PropertiesMap& out, Str* configured = nullptr) const;
  BundlesSetup _setup;
};
