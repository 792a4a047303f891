#include "tools/dateprobe/DateprobeArgs.h"

#include <cstdlib>
#include <cstring>

DateprobeArgs classifyDateprobeArgs(int argc, const char* const* argv) {
  DateprobeArgs args;
  if (argc < 2) return args;
  const char* first = argv[1];
  if (strcmp(first, "file") == 0 && (argc == 3 || argc == 4)) {
    args.mode = DateprobeMode::FILE_LINES;
    args.text = argv[2];
    if (argc == 4) args.context = argv[3];
  } else if (strcmp(first, "test") == 0) {
    args.mode = DateprobeMode::SELF_TEST;
    if (argc == 3) {
      args.hasStartRow = true;
      args.startRow = strtol(argv[2], nullptr, 10);
    }
  } else if (argc == 2 || argc == 3) {
    args.mode = DateprobeMode::ONE_STRING;
    args.text = first;
    if (argc == 3) args.context = argv[2];
  }
  return args;
}

void printDateprobeUsage(FILE* out) {
  fprintf(out, "Usage: \n");
  fprintf(out,
          "\tdateprobe \"<string>\" [\"<sourcetype>|source::<filename>|host::<hostname>\"]\n");
  fprintf(out, "\tdateprobe file <filename> [\"<sourcetype>|host::<hostname>\"]\n");
  fprintf(out, "For example:\n");
  fprintf(out, "\tdateprobe \"10/11/2009 12:11:13\" \"syslog\"\n");
  fprintf(out, "\tdateprobe file \"foo.log\" \"syslog\"\n");
}
