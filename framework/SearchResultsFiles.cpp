// The backing-file half of SearchResults: spilling rows to a private
// temporary directory and reading them back a file at a time.
#include <errno.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <random>

#include "framework/SearchResults.h"
#include "util/Logger.h"

namespace {

Logger gLogger("SearchResults");

const char TEMP_DIR_PREFIX[] = "srtemp_";
const char RANDOM_FILE_PREFIX[] = "srfiletmp_";
// A name drawn twice in a row is taken by someone else's file; give up
// well before that is likely to be chance.
constexpr int CREATE_ATTEMPTS = 16;

bool isOurTempDir(const Pathname& dir) {
  size_t slash = dir.rfind('/');
  size_t start = slash == Str::npos ? 0 : slash + 1;
  return dir.compare(start, strlen(TEMP_DIR_PREFIX), TEMP_DIR_PREFIX) == 0;
}

}  // namespace

bool SearchResults::createTempDir(const Pathname& parent) {
  std::string templ = std::string(parent) + "/" + TEMP_DIR_PREFIX + "XXXXXX";
  if (::mkdtemp(templ.data()) == nullptr) {
    gLogger.error("Could not create directory \"%s\": %m", templ.c_str());
    return false;
  }
  _tempDir = Pathname(templ);
  return true;
}

Str SearchResults::getRandomFileName(bool gzip) {
  // One engine per thread, seeded from the system, so that concurrent
  // tables need no lock and processes forked from one parent still differ.
  thread_local std::mt19937_64 engine{(static_cast<uint64_t>(std::random_device{}()) << 32) ^
                                      std::random_device{}() ^
                                      static_cast<uint64_t>(::getpid())};
  char name[64];
  snprintf(name, sizeof(name), "%s%016llx%s", RANDOM_FILE_PREFIX,
           static_cast<unsigned long long>(engine()), gzip ? ".csv.gz" : ".csv");
  return Str(name);
}

bool SearchResults::createNewFileInDir(const Pathname& dir, bool gzip, Pathname& out) {
  for (int attempt = 0; attempt < CREATE_ATTEMPTS; ++attempt) {
    Pathname path = dir / getRandomFileName(gzip);
    ScopedFileDescriptor fd(path.openCreateOnly(Pathname::CREATE_NORMAL));
    if (fd.valid()) {
      out = path;
      return true;
    }
    if (errno != EEXIST) return false;
  }
  return false;
}

bool SearchResults::writeFile() {
  if (_tempDir.empty()) {
    const char* base = getenv("TMPDIR");
    if (!createTempDir(Pathname(base != nullptr && *base != '\0' ? base : "/tmp"))) return false;
  }
  char name[64];
  snprintf(name, sizeof(name), "srtmpfile_%zu.csv.gz", _fileSeq++);
  Pathname path = _tempDir / name;
  if (!toCSV(path)) return false;
  _files.push_back(path);
  for (SearchResult* r : _rows) delete r;
  _rows.clear();
  return true;
}

bool SearchResults::nextFile() {
  for (SearchResult* r : _rows) delete r;
  _rows.clear();
  if (_nextFile >= _files.size()) return false;
  return readFile(_files[_nextFile++]);
}

bool SearchResults::deleteFile(const Pathname& which) {
  const Pathname path = which;  // `which` may be an entry of _files
  for (size_t i = 0; i < _files.size(); ++i) {
    if (_files[i] != path) continue;
    _files.erase(_files.begin() + static_cast<std::ptrdiff_t>(i));
    if (i < _nextFile) --_nextFile;
    break;
  }
  if (_cowFiles) {
    gLogger.debug("Copy on write file not deleted: %s", path.c_str());
    return true;
  }
  if (_keepFiles) {
    gLogger.info("For debugging, temporary file not deleted: %s", path.c_str());
    return true;
  }
  if (::unlink(path.c_str()) != 0 && errno != ENOENT) {
    gLogger.error("Error deleting file: %s", path.c_str());
    return false;
  }
  return true;
}

void SearchResults::removeFiles() {
  while (!_files.empty()) deleteFile(_files.back());
  _nextFile = 0;
  if (_tempDir.empty()) return;
  if (_keepFiles) {
    gLogger.info("For debugging, temporary file not deleted: %s", _tempDir.c_str());
  } else if (!isOurTempDir(_tempDir)) {
    gLogger.error("in _removeDirs(), not a temporary directory: %s", _tempDir.c_str());
  } else if (::rmdir(_tempDir.c_str()) != 0 && errno != ENOENT) {
    gLogger.error("Failed to remove temporary directory: %s", _tempDir.c_str());
  }
  _tempDir = Pathname();
}
