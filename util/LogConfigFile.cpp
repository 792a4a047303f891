#include "util/LogConfigFile.h"

#include "util/FileDescriptor.h"

bool readLogConfigFile(const Pathname& path, Str* text) {
  text->clear();
  ScopedFileDescriptor fd(path.openReadOnly());
  if (!fd.valid()) return false;
  char buf[8192];
  for (;;) {
    const ssize_t n = fd.read(buf, sizeof buf);
    if (n < 0) {
      text->clear();
      return false;
    }
    if (n == 0) break;
    text->append(buf, static_cast<size_t>(n));
  }
  if (text->compare(0, 3, "\xEF\xBB\xBF") == 0) text->erase(0, 3);
  return true;
}
