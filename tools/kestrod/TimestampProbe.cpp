#include "tools/kestrod/TimestampProbe.h"

#include <stdio.h>
#include <stdlib.h>

#include <exception>

#include "framework/DateprobeBack.h"
#include "framework/LineProbe.h"

Str probeTimestamp(const Pathname& home, const Str& line, const Str& context) {
  char* buffer = nullptr;
  size_t size = 0;
  FILE* out = open_memstream(&buffer, &size);
  if (out == nullptr) return Str("Exception hit out of memory\n");
  try {
    DateprobeBack back(propsPagesFiller(), home);
    back.setUp(context.empty() ? Str("*") : context);
    probeLine(back, line, out);
  } catch (const std::exception& e) {
    fprintf(out, "Exception hit %s\n", e.what());
  }
  fclose(out);
  Str text(buffer, size);
  free(buffer);
  return text;
}
