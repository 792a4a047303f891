// A fresh directory under the system's temporary directory for one test,
// removed with everything in it at the end, and plain reads and writes of
// the files in it. Test code only: it works through the standard library so
// that it does not depend on the code under test.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>
#include <system_error>

#include "util/Pathname.h"

// One owner: the test that made it.
class TestTempDir {
 public:
  // A directory that cannot be made ends the process with a message, so
  // that no test ever works under an empty path.
  TestTempDir() {
    const char* base = std::getenv("TMPDIR");
    std::string templ = std::string(base != nullptr && *base != '\0' ? base : "/tmp") +
                        "/kestro-test-XXXXXX";
    if (::mkdtemp(templ.data()) == nullptr) {
      std::perror(templ.c_str());
      std::abort();
    }
    _path = Pathname(templ);
  }
  ~TestTempDir() {
    std::error_code ec;
    // Give back write permission first so that tests of read-only trees
    // clean up too.
    for (auto it = std::filesystem::recursive_directory_iterator(std::string(_path), ec);
         !ec && it != std::filesystem::recursive_directory_iterator(); it.increment(ec)) {
      if (it->is_directory(ec) && !it->is_symlink(ec)) {
        std::filesystem::permissions(it->path(), std::filesystem::perms::owner_all,
                                     std::filesystem::perm_options::add, ec);
      }
    }
    std::filesystem::remove_all(std::string(_path), ec);
  }
  TestTempDir(const TestTempDir&) = delete;
  TestTempDir& operator=(const TestTempDir&) = delete;

  const Pathname& path() const { return _path; }
  Pathname operator/(const StrSegment& leaf) const { return _path / leaf; }

 private:
  Pathname _path;
};

// Replaces the file at `path` with `bytes`, making missing parent
// directories; a failure fails the running test.
inline void writeTestFile(const Pathname& path, std::string_view bytes) {
  const std::filesystem::path p{std::string(path)};
  std::error_code ec;
  std::filesystem::create_directories(p.parent_path(), ec);
  std::ofstream out(p, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  out.close();
  if (!out) ADD_FAILURE() << "cannot write " << path;
}

// The whole contents of the file at `path`; "" when it cannot be read.
inline std::string readTestFile(const Pathname& path) {
  std::ifstream in(std::string(path), std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}
