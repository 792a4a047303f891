// Where the install is and how the process was started: the two environment
// variables, the daemon's command-line options, and their defaults.
//
// Thread story: no lock. The singleton is filled on the main thread before
// any other thread starts, and is read-only after that.
#pragma once

#include <cstdio>

#include "util/Pathname.h"
#include "util/Str.h"

class LoaderInfo {
 public:
  // The one instance, made on first use and never destroyed.
  static LoaderInfo& getInstance();

  // KESTRO_HOME and KESTRO_DB, when set and non-empty, with runs of
  // separators collapsed and trailing ones dropped; a value that cleaning
  // changed is written back to the environment so that child processes see
  // the same path. An unset or empty variable leaves the field alone.
  void populateFromEnvironment();

  // The daemon's options. Usage (--help, -?, --usage) prints to standard
  // output and exits 0; --waitonpid exits 1; a bad option or a missing
  // value prints its message and the usage to standard error and exits 8.
  void populateFromCommandLine(int argc, const char* const* argv);

  // What populateFromCommandLine does, with its streams given and the exit
  // status returned instead of taken: -1 means the scan ended normally.
  int parseCommandLine(int argc, const char* const* argv, FILE* out, FILE* err);

  // Null when the paths and names are usable, else the first failed
  // check's message (a static text for the caller to print).
  const char* validate() const;

  // "Usage: <program> [OPTION...]..." exactly as --help prints it.
  static Str usageText(const char* program);

  const Pathname& getKestroHome() const { return _home; }
  const Pathname& getKestroDb() const { return _db; }
  const Str& getComponentName() const { return _componentName; }
  const Pathname& getCommonConfigPath() const { return _commonConfigPath; }
  const Str& getInstallName() const { return _installName; }
  // Home, then the common config path, then the install name.
  Pathname getInstallConfigPath() const;
  int getPort() const { return _port; }
  const Str& getPortStr() const { return _portStr; }
  int getPid() const { return _pid; }
  bool getUseDebugLog() const { return _useDebugLog; }
  bool getDaemon() const { return _daemon; }
  const Str& getStartupMode() const { return _startupMode; }
  bool shouldWaitOnPid() const { return _waitOnPid; }
  int getPidToWaitOn() const { return _pidToWaitOn; }

  // A fresh record with every default, for tests; the process uses
  // getInstance().
  LoaderInfo();

 private:
  Pathname _home;
  Pathname _db;
  Str _componentName;
  Pathname _commonConfigPath;
  Str _installName;
  int _port;
  Str _portStr;
  int _pid;
  bool _useDebugLog = false;
  bool _daemon = true;
  int _reserved = 3;  // kept for the record's layout; nothing reads it
  Str _startupMode;
  bool _waitOnPid = false;
  int _pidToWaitOn = -1;
  bool _interpreterMissing = false;  // written only: no "bin/python" under home
};
