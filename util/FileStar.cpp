#include "util/FileStar.h"

#include <cerrno>

#include "util/Assert.h"
#include "util/HashedStr.h"
#include "util/Pathname.h"
#include "util/Str.h"

namespace {

constexpr size_t LINE_CHUNK = 256;

// fgets can return bytes past a NUL that strlen would lose; the stream
// position says how many it really stored.
bool readlineSeekable(FILE* f, off_t pos, Str& out) {
  char buf[LINE_CHUNK];
  for (;;) {
    if (fgets(buf, sizeof(buf), f) == nullptr) return true;
    const off_t after = ftello(f);
    if (after < 0) return false;
    const size_t str_size = static_cast<size_t>(after - pos);
    kassert(str_size > 0);
    out.append(buf, str_size);
    if (str_size < LINE_CHUNK - 1 || buf[str_size - 1] == '\n') return true;
    pos = after;
  }
}

void readlineUnseekable(FILE* f, Str& out) {
  char buf[LINE_CHUNK];
  size_t used = 0;
  for (;;) {
    const int c = getc(f);
    if (c == EOF) break;
    buf[used++] = static_cast<char>(c);
    if (c == '\n') break;
    if (used == sizeof(buf)) {
      out.append(buf, used);
      used = 0;
    }
  }
  out.append(buf, used);
}

}  // namespace

ssize_t FileStar::read(void* buf, size_t n) const {
  const size_t got = fread(buf, 1, n, _f);
  if (got == 0 && n > 0 && !feof(_f)) return -1;
  return static_cast<ssize_t>(got);
}

ssize_t FileStar::write(const void* buf, size_t n) const {
  const size_t put = fwrite(buf, 1, n, _f);
  if (put == 0 && n > 0) return -1;
  return static_cast<ssize_t>(put);
}

ssize_t FileStar::write(const HashedStrReference& key) const {
  return write(key.data(), key.size());
}

int FileStar::format(const char* fmt, ...) const {
  va_list args;
  va_start(args, fmt);
  const int rv = vfprintf(_f, fmt, args);
  va_end(args);
  return rv;
}

bool FileStar::readline(Str& out, bool keepCR) const {
  out.clear();
  const off_t pos = ftello(_f);
  const bool seekable = pos >= 0;
  if (seekable) {
    if (!readlineSeekable(_f, pos, out)) return false;
    if (!out.empty() && out.back() == '\0') out.pop_back();
  } else {
    readlineUnseekable(_f, out);
  }
  if (!out.empty() && out.back() == '\n') {
    out.pop_back();
    if (!keepCR && !out.empty() && out.back() == '\r') out.pop_back();
  }
  if (!out.empty()) return true;
  return !feof(_f) && !ferror(_f);
}

bool FileStar::close() {
  if (_f == nullptr) return true;
  const int rv = fclose(_f);
  _f = nullptr;
  return rv == 0;
}

bool FileStar::close_saveErrno() {
  const int saved = errno;
  const bool ok = close();
  if (!ok) errno = saved;
  return ok;
}

bool FileStar::hasNetworkError() const { return ferror(_f) && errno == ENOTCONN; }

FileStar FileStar::openTemporaryFile() { return FileStar(tmpfile()); }

ScopedFileStar::ScopedFileStar(const Pathname& path, const char* mode)
    : FileStar(path.fopen(mode)) {}

ScopedFileStar& ScopedFileStar::operator=(FileStar f) {
  if (f.get() != _f) close_saveErrno();
  _f = f.get();
  return *this;
}

void ScopedFileStar::claimObjectFrom(ScopedFileStar& other) {
  if (&other == this) return;
  close_saveErrno();
  _f = other._f;
  other._f = nullptr;
}
