// The start-up that every executable shares, after ScopedXmlLibInit and
// before its own work: the install paths from the environment, logging,
// and the message catalogue.
#pragma once

#include <map>

#include "util/Pathname.h"
#include "util/Str.h"

class SetupHelper {
 public:
  // Reads the environment into LoaderInfo. Without a home directory it
  // prints "KESTRO_HOME must be set.  Stopping.\n" to standard error and
  // exits with status 255, before logging exists. Otherwise it starts
  // logging from home/etc/<logConfigName> ("log-cmdline.cfg" when null),
  // saying which file on standard error unless `quiet`, with KESTRO_HOME
  // among the `variables` the configuration may refer to; then it builds
  // the message catalogue.
  static void initCommon(bool quiet, const char* logConfigName);
  static void initCommon(std::map<Str, Pathname> variables, bool quiet,
                         const char* logConfigName);
};
