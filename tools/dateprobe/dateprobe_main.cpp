// dateprobe: shows how the server would read the timestamp of a line, a
// file of lines, or each line of its built-in sample table.

#include <cstdio>
#include <exception>

#include "libbundle/LiteralsLoader.h"
#include "loaderinfo/LoaderInfo.h"
#include "loaderinfo/SetupHelper.h"
#include "framework/DateprobeBack.h"
#include "tools/dateprobe/DateprobeFront.h"
#include "util/ScopedXmlLibInit.h"

int main(int argc, char** argv) {
  // First, before any thread: the XML libraries live as long as the entry.
  ScopedXmlLibInit xmlInit;
  // The message catalogue is read from the layered configuration, which
  // the start-up below cannot see on its own.
  installLiteralsLoader();
  // Before the arguments are looked at: without an install root the tool
  // has nothing to read, whatever it was asked.
  SetupHelper::initCommon(false, nullptr);
  try {
    const Pathname& home = LoaderInfo::getInstance().getKestroHome();
    DateprobeBack back(propsPagesFiller(), home);
    return runDateprobe(argc, argv, back, stdout);
  } catch (const std::exception& e) {
    return reportDateprobeException(e, stdout);
  }
}
