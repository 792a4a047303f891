// The scratch directory of a fuzz target that works on files, and writing
// one file there. Made once per process; the listed log channels are
// silenced, since every mutated input would otherwise log its refusal.
#pragma once

#include <cstdlib>
#include <initializer_list>
#include <string>

#include "util/Assert.h"
#include "util/FileDescriptor.h"
#include "util/LogChannel.h"
#include "util/Logger.h"
#include "util/Pathname.h"

inline Pathname makeQuietFuzzDir(const char* templ, std::initializer_list<const char*> channels) {
  std::string dir(templ);
  kassert(::mkdtemp(dir.data()) != nullptr);
  Logger::initialize();
  LogChannel::root().setLevel(LOGLEVEL_EMERG);
  for (const char* channel : channels) LogChannel::find(Str(channel))->setLevel(LOGLEVEL_EMERG);
  return Pathname(dir);
}

inline void writeFuzzFile(const Pathname& path, const std::string& bytes) {
  ScopedFileDescriptor fd(path.openCreateOrReplace(Pathname::CREATE_PRIVATE));
  kassert(fd.valid());
  kassert(fd.write(bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()));
}
