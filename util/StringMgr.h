// StringMgr: the catalogue of the system's message texts, looked up by key
// and filled from the "literals" configuration.
#pragma once

#include <map>

#include "util/Str.h"

// A process-wide map from key to message text. Keys from the configuration
// are stanza name, "_", setting name ([LOGIN] FAILED = ... gives
// "LOGIN_FAILED"). A lookup upper-cases a to z and drops every "%" from the
// key it is given, so "login_failed" and "LOGIN_%FAILED" both find
// "LOGIN_FAILED"; stored keys are taken as written, so only upper-case keys
// without "%" can ever be hit.
//
// The catalogue lives in util, below the configuration layer, so it cannot
// read the "literals" pages itself. That layer hands it a loader with
// setLiteralsLoader() at start-up; instance() runs the loader once, when it
// builds the catalogue, and the loader calls addLiteral() once per setting.
// Without a loader the catalogue starts empty.
//
// Thread story: not locked. instance() is safe to call from any thread, but
// str() and fStr() change the map on a miss, so concurrent callers need a
// guard of their own.
class StringMgr {
 public:
  // Fills a fresh catalogue, calling addLiteral for each setting.
  typedef void (*LiteralsLoader)(StringMgr& mgr);

  // Sets the loader that instance() runs when it builds the catalogue.
  // REQUIRES: instance() has not been called yet.
  static void setLiteralsLoader(LiteralsLoader loader);

  // The catalogue, built (and loaded) on first call. It is never destroyed.
  static StringMgr& instance();

  // Stores `value` under stanza + "_" + setting. A key already present keeps
  // its text, so a pointer handed out by str() never dangles.
  void addLiteral(const Str& stanza, const Str& setting, const Str& value);

  // The text for `key`, valid for the life of the process. On a miss it
  // returns, and remembers under the normalised key, "String not found in
  // literals.conf: " followed by the key as given, its first "__" rewritten
  // as " Arguments: ":
  //   "NO_SUCH"           -> "String not found in literals.conf: NO_SUCH"
  //   "CANT_OPEN__path"   -> "String not found in literals.conf: CANT_OPEN Arguments: path"
  // REQUIRES: instance() has been called ("_instance" otherwise).
  static const char* str(const char* key);

  // A Str formatted printf-style with str(key) as the format. The caller
  // supplies the arguments that text expects.
  static Str fStr(const char* key, ...);

 private:
  StringMgr() = default;

  // Upper-cases a to z and drops every "%".
  static Str _normalise(const char* key);
  const char* _lookup(const char* key);

  static StringMgr* _instance;
  static LiteralsLoader _loader;
  std::map<Str, Str> _literals;
};
