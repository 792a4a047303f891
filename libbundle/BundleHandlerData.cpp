#include "libbundle/BundleHandlerData.h"

#include "libbundle/ConfPath.h"
#include "libbundle/UsernameMapper.h"
#include "util/Logger.h"
#include "util/PathnameVector.h"

namespace {

Logger gLogger("BundleHandlerData");

// The elements of `path` below `dir`, when `path` is `dir` or lies under
// it; false otherwise.
bool elementsUnder(const Pathname& path, const Pathname& dir, PathnameVector& out) {
  if (!path.startswith(StrSegment(dir))) return false;
  if (path.size() != dir.size() && path[dir.size()] != Pathname::SEP) return false;
  Pathname(path.substr(dir.size())).splitOnSepInto(out);
  return true;
}

}  // namespace

BundleHandlerData::BundleHandlerData(BundlesSetup& setup, const Pathname& path,
                                     const IniStanza& settings, UsernameMapper& usernames,
                                     ReaddirCache& readdir)
    : _setup(setup), _path(path), _settings(settings), _usernames(usernames), _readdir(readdir) {
  if (!path.isAbsolute()) {
    throw ConfPathException(
        Str().format("BundleHandlerData given a relative path: %s", path.c_str()));
  }
}

bool get_user_app_from_path(BundleHandlerData& data, Pathname& root, User& user,
                            Str& application) {
  const BundlesSetup& setup = data.bundlesSetup();
  const Pathname& path = data.path();
  PathnameVector rest;
  if (elementsUnder(path, setup.getApps(), rest) && !rest.empty()) {
    user = ConfPath::getDefaultUser();
    application = rest[0];
    root = setup.getApps() / rest[0];
    return true;
  }
  rest.clear();
  if (elementsUnder(path, setup.getSystem(), rest)) {
    user = ConfPath::getDefaultUser();
    application = setup.getSystem().toLeaf();
    root = setup.getSystem();
    return true;
  }
  rest.clear();
  if (elementsUnder(path, setup.getUsers(), rest) && !rest.empty()) {
    Str name(rest[0]);
    name.toLowercase();
    size_t next = 1;
    Pathname userDir = setup.getUsers() / rest[0];
    user = User(name);
    if (name == UsernameMapper::getReservedUsername()) {
      user = User();
      if (rest.size() > 1) {
        User real;
        if (data.usernameMapper().getRealUsername(rest[1], real)) {
          user = real;
        } else {
          gLogger.error("Failed to look up real username for: %s", path.c_str());
        }
        userDir /= rest[1];
      }
      next = 2;
    }
    application = rest.size() > next ? Str(rest[next]) : Str();
    root = rest.size() > next ? userDir / rest[next] : userDir;
    return true;
  }
  user = ConfPath::getDefaultUser();
  application = ConfPath::getDefaultApplication();
  rest.clear();
  if (elementsUnder(path, setup.getLegacy(), rest)) {
    root = rest.empty() ? setup.getLegacy() : setup.getLegacy() / rest[0];
    return true;
  }
  root = path;
  return false;
}
