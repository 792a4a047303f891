// ConfPathMetadata: what the store knows of a node besides its value: to
// whom it is exported, who owns it, who may read and write it, whether the
// layer it came from lets it be removed, and when it last changed.
//
// On disk it lives in ini files "<bundle>/metadata/default.meta" and
// "<bundle>/metadata/local.meta", read by ConfObjectManager. A stanza names
// the node below the bundle's (user, application):
//   []                          the application as a whole
//   [props]                     a type
//   [props/syslog]              a stanza
//   [props/syslog/TZ]           a setting
// Inside a segment "%" is written "%25" and "/" is written "%2F", so
// [props/source::%2Fvar%2Flog] is the stanza "source::/var/log". Its keys:
//   export  = app | global        (anything else: none)
//   owner   = <user name>
//   app     = <application the data belongs to, when not the bundle's>
//   access  = read : [ admin, * ], write : [ admin ]
//   modtime = <seconds since the epoch>[.<microseconds>]
#pragma once

#include <vector>

#include "libbundle/ConfPathPermissions.h"
#include "libbundle/User.h"
#include "util/Str.h"
#include "util/Timeval.h"

class IniStanza;

// A plain value: one owner at a time, const methods safe to share.
class ConfPathMetadata {
 public:
  enum Export { EXPORT_NONE = 0, EXPORT_APP = 1, EXPORT_GLOBAL = 2 };

  ConfPathMetadata() = default;
  // Reads the keys above from `stanza`. Unknown keys are ignored; an
  // "access" value that does not parse leaves the permissions empty.
  explicit ConfPathMetadata(const IniStanza& stanza);

  Export exportTo() const { return _export; }
  const User& owner() const { return _owner; }
  const Str& application() const { return _application; }
  const ConfPathPermissionsReference& permissions() const { return _permissions; }
  bool isRemovable() const { return _removable; }
  const Timeval& modTime() const { return _modTime; }

  void setExport(Export e) { _export = e; }
  void setOwner(const User& owner) { _owner = owner; }
  void setApplication(const Str& application) { _application = application; }
  void setPermissions(const ConfPathPermissionsReference& p) { _permissions = p; }
  void setRemovable(bool removable) { _removable = removable; }
  void setModTime(const Timeval& t) { _modTime = t; }

  // True when no export, owner, application or permissions are set: the
  // stub a write adds to a path without metadata.
  bool isStub() const;
  // The stanza's keys as they are written: only those set, in the order
  // export, owner, app, access, modtime. `out` is cleared first.
  void toSettings(std::vector<std::pair<Str, Str>>& out) const;

  // "app", "global" or "" / the inverse (anything else gives EXPORT_NONE).
  static const char* exportName(Export e);
  static Export parseExport(const Str& text);
  // Parses ConfPathPermissions::toString() text back ("read : [ a, b ],
  // write : [ c ]", blanks optional, either part may be left out). False
  // on anything else, `out` left alone.
  static bool parsePermissions(const Str& text, ConfPathPermissions& out);

  // The ".meta" stanza name of the segments below (user, application), and
  // back. decodeStanzaName gives false for a "%" that starts no "%25" or
  // "%2F" (case of the hex digits ignored), `out` left alone.
  static Str encodeStanzaName(const std::vector<Str>& segments);
  static bool decodeStanzaName(const Str& name, std::vector<Str>& out);

 private:
  Export _export = EXPORT_NONE;
  User _owner;
  Str _application;
  ConfPathPermissionsReference _permissions;
  bool _removable = false;
  Timeval _modTime;
};
