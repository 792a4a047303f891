// A fresh directory for one benchmark's files, removed with them at the end.
#pragma once

#include <cstdlib>
#include <string>

#include "util/Pathname.h"

class BenchDir {
 public:
  // Under $TMPDIR (or /tmp); a directory that cannot be made ends the run,
  // so that no benchmark writes under an empty path.
  BenchDir() {
    const char* tmp = std::getenv("TMPDIR");
    std::string templ =
        std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/kestro-bench-XXXXXX";
    if (::mkdtemp(templ.data()) == nullptr) std::abort();
    _path = Pathname(templ);
  }
  ~BenchDir() { _path.removeRecursive(); }
  BenchDir(const BenchDir&) = delete;
  BenchDir& operator=(const BenchDir&) = delete;

  const Pathname& path() const { return _path; }

 private:
  Pathname _path;
};
