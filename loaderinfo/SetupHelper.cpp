#include "loaderinfo/SetupHelper.h"

#include <cstdio>
#include <cstdlib>

#include "loaderinfo/LoaderInfo.h"
#include "util/Logger.h"
#include "util/StringMgr.h"

void SetupHelper::initCommon(bool quiet, const char* logConfigName) {
  initCommon(std::map<Str, Pathname>(), quiet, logConfigName);
}

void SetupHelper::initCommon(std::map<Str, Pathname> variables, bool quiet,
                             const char* logConfigName) {
  LoaderInfo& info = LoaderInfo::getInstance();
  info.populateFromEnvironment();
  const Pathname& home = info.getKestroHome();
  if (logConfigName == nullptr) logConfigName = "log-cmdline.cfg";
  if (home.empty()) {
    fputs("KESTRO_HOME must be set.  Stopping.\n", stderr);
    std::exit(-1);
  }
  variables[Str("KESTRO_HOME")] = home;
  const Pathname config = home / "etc" / logConfigName;
  if (!quiet) fprintf(stderr, "Using logging configuration at %s.\n", config.c_str());
  Logger::initialize(config, nullptr, variables, true);
  StringMgr::instance();
}
