// dateprobe: shows how the server would read the timestamp of a line, a
// file of lines, or each line of its built-in sample table.

#include <cstdio>
#include <exception>

#include "libbundle/IniFile.h"
#include "libbundle/PropertiesMap.h"
#include "loaderinfo/LoaderInfo.h"
#include "loaderinfo/SetupHelper.h"
#include "tools/dateprobe/DateprobeBack.h"
#include "tools/dateprobe/DateprobeFront.h"
#include "util/ScopedXmlLibInit.h"

namespace {

// INTERIM, until the layered configuration is wired in: only the "default"
// stanza of <home>/etc/system/default/props.conf, whatever the context.
// The real lookup fills the layers that match the context, highest
// precedence first, and replaces this function.
void fillDefaultStanzaOnly(PropertiesMap& props, const Str& /*context*/) {
  const IniFile file(LoaderInfo::getInstance().getKestroHome() / "etc" / "system" / "default" /
                     "props.conf");
  const IniStanza* stanza = file.findStanza("default");
  if (stanza != nullptr) props = PropertiesMap(*stanza);
}

}  // namespace

int main(int argc, char** argv) {
  // First, before any thread: the XML libraries live as long as the entry.
  ScopedXmlLibInit xmlInit;
  // Before the arguments are looked at: without an install root the tool
  // has nothing to read, whatever it was asked.
  SetupHelper::initCommon(false, nullptr);
  try {
    DateprobeBack back(fillDefaultStanzaOnly, LoaderInfo::getInstance().getKestroHome());
    return runDateprobe(argc, argv, back, stdout);
  } catch (const std::exception& e) {
    return reportDateprobeException(e, stdout);
  }
}
