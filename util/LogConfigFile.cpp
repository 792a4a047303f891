#include "util/LogConfigFile.h"

#include <cerrno>
#include <cstdio>

#include "util/FileStar.h"
#include "util/ReadableUnicodeStream.h"
#include "util/StrSegment.h"

bool readLogConfigFile(const Pathname& path, Str* text) {
  text->clear();
  ScopedFileStar file(path, "r");
  if (!file.valid()) return false;
  ReadableUnicodeFileStar in(file);
  StrSegment line;
  while (in.readline(line)) {
    text->append(line);
    text->push_back('\n');
  }
  if (ferror(file.get())) {
    if (errno == 0) errno = EIO;
    text->clear();
    return false;
  }
  return true;
}
