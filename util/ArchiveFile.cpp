// The one file that speaks to libarchive.
#include "util/ArchiveFile.h"

#include <archive.h>
#include <archive_entry.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <vector>

#include "util/Assert.h"
#include "util/FileStar.h"
#include "util/Logger.h"

namespace {

Logger gLogger("ArchiveFile");

const size_t COPY_BUFFER_SIZE = 65536;
const size_t READ_BLOCK_SIZE = 10240;

// libarchive's text for the last failure, or a stand-in when it has none.
Str archiveErrorText(struct archive* a) {
  const char* text = archive_error_string(a);
  return Str(text != nullptr ? text : "unknown archive error");
}

// libarchive's errno for the last failure; EIO when it has none.
int archiveErrno(struct archive* a) {
  const int e = archive_errno(a);
  return e > 0 ? e : EIO;
}

ArchiveFileEntry::Type typeOfMode(mode_t mode) {
  switch (mode & S_IFMT) {
    case S_IFREG:
      return ArchiveFileEntry::REGULAR;
    case S_IFDIR:
      return ArchiveFileEntry::DIRECTORY;
    case S_IFLNK:
      return ArchiveFileEntry::SYMLINK;
    default:
      return ArchiveFileEntry::OTHER;
  }
}

}  // namespace

ArchiveFileDataProvider::~ArchiveFileDataProvider() = default;
ArchiveFileWriter::~ArchiveFileWriter() = default;

ssize_t FdReader::read(void* buf, size_t len) {
  ssize_t rv;
  do {
    rv = ::read(_fd.fd(), buf, len);
  } while (rv < 0 && errno == EINTR);
  return rv;
}

bool FdReader::stat(ArchiveFileEntry* out) {
  FileDescriptorStat st;
  if (!_fd.stat(&st)) return false;
  out->type = typeOfMode(st.st.st_mode);
  if (out->type != ArchiveFileEntry::REGULAR && out->type != ArchiveFileEntry::DIRECTORY) {
    errno = EINVAL;
    return false;
  }
  out->size = out->type == ArchiveFileEntry::REGULAR ? static_cast<int64_t>(st.st.st_size) : 0;
  out->perm = st.st.st_mode & 07777;
  out->mtime = Timeval(st.st.st_mtim.tv_sec, st.st.st_mtim.tv_nsec / 1000);
  out->linkTarget.clear();
  return true;
}

ssize_t FdWriter::write(const void* buf, size_t len) {
  const ssize_t rv = _fd.write(buf, len);
  if (rv >= 0 && static_cast<size_t>(rv) != len) {
    if (rv == 0 || errno == 0) errno = ENOSPC;
    return -1;
  }
  return rv;
}

// ---- Reading ----

base_ReadableArchiveFile::base_ReadableArchiveFile() = default;

base_ReadableArchiveFile::~base_ReadableArchiveFile() { close(); }

void base_ReadableArchiveFile::internal_fail(const char* text, int err) {
  _error = text;
  gLogger.error("In archive '%s': %s", _name.c_str(), text);
  errno = err;
}

bool base_ReadableArchiveFile::internal_checkOpen() {
  if (_a != nullptr) return true;
  internal_fail("not open", EBADF);
  return false;
}

bool base_ReadableArchiveFile::internal_adopt(struct archive* a, int openResult,
                                              const Pathname& name) {
  _name = name;
  _error.clear();
  if (openResult != ARCHIVE_OK) {
    const Str text = archiveErrorText(a);
    const int err = archiveErrno(a);
    archive_read_free(a);
    internal_fail(text.c_str(), err);
    return false;
  }
  _a = a;
  return true;
}

int base_ReadableArchiveFile::nextHeader(ArchiveFileEntry* out) {
  if (!internal_checkOpen()) return -1;
  struct archive_entry* e = nullptr;
  int rc = archive_read_next_header(_a, &e);
  if (rc == ARCHIVE_EOF) return 0;
  if (rc == ARCHIVE_WARN) {
    gLogger.warn("In archive '%s': %s", _name.c_str(), archiveErrorText(_a).c_str());
    rc = ARCHIVE_OK;
  }
  if (rc != ARCHIVE_OK) {
    internal_fail(archiveErrorText(_a).c_str(), archiveErrno(_a));
    return -1;
  }
  const char* name = archive_entry_pathname(e);
  if (name == nullptr) name = archive_entry_pathname_utf8(e);
  out->name = name != nullptr ? name : "";
  out->type = typeOfMode(archive_entry_filetype(e));
  out->size = archive_entry_size_is_set(e) ? archive_entry_size(e) : 0;
  out->perm = archive_entry_perm(e);
  out->mtime = Timeval(archive_entry_mtime(e), archive_entry_mtime_nsec(e) / 1000);
  const char* target = archive_entry_symlink(e);
  out->linkTarget = target != nullptr ? target : "";
  return 1;
}

bool base_ReadableArchiveFile::skipEntry() {
  if (!internal_checkOpen()) return false;
  if (archive_read_data_skip(_a) == ARCHIVE_OK) return true;
  _error = archiveErrorText(_a);
  errno = archiveErrno(_a);
  gLogger.error("Error skiping archive entry: %m");
  return false;
}

ssize_t base_ReadableArchiveFile::readEntryData(void* buf, size_t len) {
  if (!internal_checkOpen()) return -1;
  const la_ssize_t rv = archive_read_data(_a, buf, len);
  if (rv < 0) {
    internal_fail(archiveErrorText(_a).c_str(), archiveErrno(_a));
    return -1;
  }
  return static_cast<ssize_t>(rv);
}

bool base_ReadableArchiveFile::writeEntryTo(ArchiveFileWriter& w) {
  if (!internal_checkOpen()) return false;
  std::vector<char> buf(COPY_BUFFER_SIZE);
  for (;;) {
    const ssize_t n = readEntryData(buf.data(), buf.size());
    if (n < 0) return false;
    if (n == 0) return true;
    if (w.write(buf.data(), static_cast<size_t>(n)) != n) {
      const int err = errno;
      Str text;
      Logger::format(text, err, "cannot write the entry's data: %m");
      internal_fail(text.c_str(), err);
      return false;
    }
  }
}

bool base_ReadableArchiveFile::writeEntryTo(FileStar& f) {
  class StarWriter : public ArchiveFileWriter {
   public:
    explicit StarWriter(FileStar& f) : _f(f) {}
    ssize_t write(const void* buf, size_t len) override {
      const ssize_t rv = _f.write(buf, len);
      if (rv >= 0 && static_cast<size_t>(rv) != len) {
        if (errno == 0) errno = EIO;
        return -1;
      }
      return rv;
    }

   private:
    FileStar& _f;
  } w(f);
  return writeEntryTo(w);
}

bool base_ReadableArchiveFile::close() {
  if (_a == nullptr) return true;
  struct archive* a = _a;
  _a = nullptr;
  bool ok = true;
  if (archive_read_close(a) != ARCHIVE_OK) {
    errno = archiveErrno(a);
    gLogger.error("error closing archive file: %m");
    ok = false;
  }
  const int saved = errno;
  archive_read_free(a);
  errno = saved;
  return ok;
}

bool ReadableArchiveFile::open(const Pathname& path) {
  close();
  struct archive* a = archive_read_new();
  if (a == nullptr) throw std::bad_alloc();
  archive_read_support_filter_all(a);
  archive_read_support_format_all(a);
  return internal_adopt(a, archive_read_open_filename(a, path.c_str(), READ_BLOCK_SIZE), path);
}

// ---- Writing ----

WritableArchive::WritableArchive() = default;

WritableArchive::~WritableArchive() { close(); }

bool WritableArchive::formatFromName(const Pathname& path, Format* out) {
  Str lower(path);
  lower.toLowercase();
  const struct {
    const char* suffix;
    Format format;
  } kSuffixes[] = {{".tar.gz", TAR_GZ}, {".tgz", TAR_GZ},  {".tar.bz2", TAR_BZ2},
                   {".tbz2", TAR_BZ2},  {".tar", TAR},     {".zip", ZIP}};
  for (const auto& s : kSuffixes) {
    if (lower.endswith(s.suffix)) {
      *out = s.format;
      return true;
    }
  }
  return false;
}

void WritableArchive::internal_fail(const Str& text, int err) {
  _error = text;
  gLogger.error("In archive '%s': %s", _name.c_str(), text.c_str());
  errno = err;
}

bool WritableArchive::open(const Pathname& path, Format format) {
  close();
  _name = path;
  _error.clear();
  struct archive* a = archive_write_new();
  if (a == nullptr) throw std::bad_alloc();
  int rc = format == ZIP ? archive_write_set_format_zip(a) : archive_write_set_format_pax_restricted(a);
  if (rc == ARCHIVE_OK && format == TAR_GZ) rc = archive_write_add_filter_gzip(a);
  if (rc == ARCHIVE_OK && format == TAR_BZ2) rc = archive_write_add_filter_bzip2(a);
  if (rc == ARCHIVE_OK) rc = archive_write_open_filename(a, path.c_str());
  if (rc != ARCHIVE_OK) {
    const Str text = archiveErrorText(a);
    const int err = archiveErrno(a);
    archive_write_free(a);
    internal_fail(text, err);
    return false;
  }
  _a = a;
  return true;
}

bool WritableArchive::addEntry(const Pathname& name, ArchiveFileDataProviderWithStat* data) {
  kassert(data != nullptr);
  if (_a == nullptr) {
    internal_fail("not open", EBADF);
    return false;
  }
  // The provider is the caller's code: whatever it throws is reported here
  // and fails this entry alone.
  try {
    return internal_addEntry(name, data);
  } catch (const std::exception& e) {
    _error.format("Exception: %s when adding entry: %s", e.what(), name.c_str());
  } catch (...) {
    _error.format("Unknown Exception when adding entry: %s", name.c_str());
  }
  gLogger.error("%s", _error.c_str());
  errno = EIO;
  return false;
}

bool WritableArchive::internal_addEntry(const Pathname& name, ArchiveFileDataProviderWithStat* data) {
  ArchiveFileEntry meta;
  if (!data->stat(&meta)) {
    const int err = errno;
    Str text;
    internal_fail(Logger::format(text, err, "cannot describe entry '%s': %m", name.c_str()), err);
    return false;
  }
  struct archive_entry* e = archive_entry_new();
  if (e == nullptr) throw std::bad_alloc();
  archive_entry_set_pathname(e, name.c_str());
  const mode_t type = meta.type == ArchiveFileEntry::DIRECTORY ? AE_IFDIR
                      : meta.type == ArchiveFileEntry::SYMLINK ? AE_IFLNK
                                                               : AE_IFREG;
  archive_entry_set_filetype(e, type);
  archive_entry_set_perm(e, meta.perm);
  archive_entry_set_size(e, type == AE_IFREG ? meta.size : 0);
  archive_entry_set_mtime(e, meta.mtime.tv_sec, static_cast<long>(meta.mtime.tv_usec * 1000));
  if (type == AE_IFLNK) archive_entry_set_symlink(e, meta.linkTarget.c_str());
  const int rc = archive_write_header(_a, e);
  archive_entry_free(e);
  if (rc != ARCHIVE_OK) {
    internal_fail(archiveErrorText(_a), archiveErrno(_a));
    return false;
  }
  if (type != AE_IFREG) return true;

  std::vector<char> buf(COPY_BUFFER_SIZE);
  int64_t total = 0;
  for (;;) {
    const ssize_t n = data->read(buf.data(), buf.size());
    if (n < 0) {
      const int err = errno;
      Str text;
      internal_fail(Logger::format(text, err, "cannot read data for entry '%s': %m", name.c_str()), err);
      return false;
    }
    if (n == 0) break;
    total += n;
    if (total > meta.size) break;
    const la_ssize_t written = archive_write_data(_a, buf.data(), static_cast<size_t>(n));
    if (written != n) {
      internal_fail(archiveErrorText(_a), archiveErrno(_a));
      return false;
    }
  }
  if (total != meta.size) {
    Str text;
    text.format("entry '%s' has %s data than its size of %lld bytes", name.c_str(),
                total < meta.size ? "less" : "more", static_cast<long long>(meta.size));
    internal_fail(text, EINVAL);
    return false;
  }
  if (archive_write_finish_entry(_a) != ARCHIVE_OK) {
    internal_fail(archiveErrorText(_a), archiveErrno(_a));
    return false;
  }
  return true;
}

bool WritableArchive::close() {
  if (_a == nullptr) return true;
  struct archive* a = _a;
  _a = nullptr;
  bool ok = true;
  if (archive_write_close(a) != ARCHIVE_OK) {
    errno = archiveErrno(a);
    _error = archiveErrorText(a);
    gLogger.error("error closing archive file: %m");
    ok = false;
  }
  const int saved = errno;
  archive_write_free(a);
  errno = saved;
  return ok;
}
