// A fresh directory under the system's temporary directory for one test,
// removed with everything in it at the end. Test code only: it removes with
// std::filesystem so that it does not depend on the code under test.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

#include "util/Pathname.h"

// One owner: the test that made it.
class TestTempDir {
 public:
  TestTempDir() {
    const char* base = std::getenv("TMPDIR");
    std::string templ = std::string(base != nullptr && *base != '\0' ? base : "/tmp") +
                        "/kestro-test-XXXXXX";
    if (::mkdtemp(templ.data()) != nullptr) _path = Pathname(templ);
  }
  ~TestTempDir() {
    if (_path.empty()) return;
    std::error_code ec;
    // Give back write permission first so that tests of read-only trees
    // clean up too.
    for (auto it = std::filesystem::recursive_directory_iterator(std::filesystem::path(std::string(_path)), ec);
         !ec && it != std::filesystem::recursive_directory_iterator(); it.increment(ec)) {
      if (it->is_directory(ec) && !it->is_symlink(ec)) {
        std::filesystem::permissions(it->path(), std::filesystem::perms::owner_all,
                                     std::filesystem::perm_options::add, ec);
      }
    }
    std::filesystem::remove_all(std::filesystem::path(std::string(_path)), ec);
  }
  TestTempDir(const TestTempDir&) = delete;
  TestTempDir& operator=(const TestTempDir&) = delete;

  // Empty when the directory could not be made.
  const Pathname& path() const { return _path; }
  Pathname operator/(const StrSegment& leaf) const { return _path / leaf; }

 private:
  Pathname _path;
};
