// tzpack: stages a compiled zoneinfo tree into the install tree and writes
// the packed zone file beside it. Run by the build; only files whose bytes
// change are written, so a second run touches nothing but the stamp.
//
//   tzpack <source-zoneinfo> <staged-zoneinfo> <packed-file> [<stamp>]
#include <cstdio>
#include <fstream>
#include <string>

#include "tools/tzpack/TzPackWriter.h"
#include "tools/tzpack/ZoneinfoTree.h"

int main(int argc, char** argv) {
  if (argc != 4 && argc != 5) {
    std::fprintf(stderr,
                 "usage: tzpack <source-zoneinfo> <staged-zoneinfo> <packed-file> [<stamp>]\n");
    return 1;
  }
  ZoneinfoFiles zones;
  std::string error;
  if (!collectZoneinfo(argv[1], &zones, &error)) {
    std::fprintf(stderr, "tzpack: %s\n", error.c_str());
    return 2;
  }
  if (zones.empty()) {
    std::fprintf(stderr, "tzpack: no TZif files under %s\n", argv[1]);
    return 2;
  }
  size_t written = 0;
  if (!stageZoneinfo(zones, argv[2], &written, &error)) {
    std::fprintf(stderr, "tzpack: %s\n", error.c_str());
    return 3;
  }
  TzPackWriter writer;
  for (const auto& [name, bytes] : zones) {
    if (!writer.add(name, bytes)) {
      std::fprintf(stderr, "tzpack: %s clashes with another zone name\n", name.c_str());
      return 4;
    }
  }
  bool changed = false;
  if (!writeFileIfChanged(argv[3], writer.build(), &changed, &error)) {
    std::fprintf(stderr, "tzpack: %s\n", error.c_str());
    return 3;
  }
  if (argc == 5) std::ofstream(argv[4], std::ios::trunc) << zones.size() << " zones\n";
  std::printf("tzpack: %zu zones, %zu files written, packed file %s\n", zones.size(), written,
              changed ? "written" : "unchanged");
  return 0;
}
