// Archives (tar, with or without gzip or bzip2, and zip) read and written
// through libarchive: entries come out one at a time with their metadata,
// and go in from any source of bytes.
#pragma once

#include <sys/types.h>

#include <cstdint>

#include "util/FileDescriptor.h"
#include "util/Pathname.h"
#include "util/Str.h"
#include "util/Timeval.h"

class FileStar;
struct archive;

// One entry's metadata. A plain value.
struct ArchiveFileEntry {
  enum Type { REGULAR, DIRECTORY, SYMLINK, OTHER };

  Pathname name;        // as stored: relative, "/" between elements
  Type type = REGULAR;
  int64_t size = 0;     // bytes of data; 0 for all but regular files
  mode_t perm = 0644;   // the permission bits only
  Timeval mtime;
  Pathname linkTarget;  // for SYMLINK
};

// Where an entry's bytes come from. One owner at a time.
class ArchiveFileDataProvider {
 public:
  virtual ~ArchiveFileDataProvider();
  // Up to `len` bytes: the count, 0 at the end, -1 with errno.
  virtual ssize_t read(void* buf, size_t len) = 0;
};

// A provider that also describes the entry it provides.
class ArchiveFileDataProviderWithStat : public ArchiveFileDataProvider {
 public:
  // Fills everything but the name; false with errno when it cannot.
  virtual bool stat(ArchiveFileEntry* out) = 0;
};

// Where an entry's bytes go. One owner at a time.
class ArchiveFileWriter {
 public:
  virtual ~ArchiveFileWriter();
  // All `len` bytes: `len`, or -1 with errno.
  virtual ssize_t write(const void* buf, size_t len) = 0;
};

// A borrowed descriptor's file as a provider: its bytes from the current
// position, and fstat for the entry (regular file or directory).
class FdReader : public ArchiveFileDataProviderWithStat {
 public:
  explicit FdReader(FileDescriptor fd) : _fd(fd) {}
  ssize_t read(void* buf, size_t len) override;
  bool stat(ArchiveFileEntry* out) override;

 private:
  FileDescriptor _fd;
};

// A borrowed descriptor as a writer.
class FdWriter : public ArchiveFileWriter {
 public:
  explicit FdWriter(FileDescriptor fd) : _fd(fd) {}
  ssize_t write(const void* buf, size_t len) override;

 private:
  FileDescriptor _fd;
};

// Reading entries in order from an open archive; subclasses open it.
// Failures are logged on the channel "ArchiveFile" as "In archive '%s':
// %s" with libarchive's text (or "not open" when nothing is open), and kept
// for lastError(). One owner at a time.
class base_ReadableArchiveFile {
 public:
  base_ReadableArchiveFile();
  virtual ~base_ReadableArchiveFile();
  base_ReadableArchiveFile(const base_ReadableArchiveFile&) = delete;
  base_ReadableArchiveFile& operator=(const base_ReadableArchiveFile&) = delete;

  // The next entry's metadata into *out: 1, or 0 after the last entry, or
  // -1 on a damaged or unreadable archive (errno set). The data of the
  // entry before, when not read, is skipped.
  int nextHeader(ArchiveFileEntry* out);
  // Passes over the current entry's data. False, logging "Error skiping
  // archive entry: %m", when the archive ends or fails inside it.
  bool skipEntry();
  // Copies the current entry's data to `f` (or `w`). False when the
  // archive fails (as nextHeader) or the write does (errno kept).
  bool writeEntryTo(FileStar& f);
  bool writeEntryTo(ArchiveFileWriter& w);
  // Up to `len` bytes of the current entry: the count, 0 at its end, -1.
  ssize_t readEntryData(void* buf, size_t len);
  // Releases the archive. False, logging "error closing archive file: %m",
  // when libarchive reports a failure; true when nothing was open.
  bool close();
  bool isOpen() const { return _a != nullptr; }
  // The last failure's text, without the "In archive" prefix.
  const Str& lastError() const { return _error; }

 protected:
  // Takes over a read handle opened by the subclass; on a failed open the
  // error is reported and the handle freed. False then.
  bool internal_adopt(struct archive* a, int openResult, const Pathname& name);
  bool internal_checkOpen();
  void internal_fail(const char* text, int err);

  struct archive* _a = nullptr;
  Pathname _name;
  Str _error;
};

// An archive file on disk, in any format and compression libarchive reads.
class ReadableArchiveFile : public base_ReadableArchiveFile {
 public:
  // Opens `path` (closing any archive open before). False, with the
  // failure logged, when it cannot be read as an archive.
  bool open(const Pathname& path);

  // The current entry's bytes as a provider; borrows the archive, which
  // must stay open and on that entry.
  class FileReader : public ArchiveFileDataProvider {
   public:
    explicit FileReader(base_ReadableArchiveFile& archive) : _archive(archive) {}
    ssize_t read(void* buf, size_t len) override { return _archive.readEntryData(buf, len); }

   private:
    base_ReadableArchiveFile& _archive;
  };
};

// Writes a new archive file entry by entry. Failures are logged on the
// channel "ArchiveFile" and kept for lastError(). One owner at a time.
class WritableArchive {
 public:
  enum Format { TAR, TAR_GZ, TAR_BZ2, ZIP };

  WritableArchive();
  // close(), when not done.
  ~WritableArchive();
  WritableArchive(const WritableArchive&) = delete;
  WritableArchive& operator=(const WritableArchive&) = delete;

  // The format that a file name asks for: ".tar", ".tar.gz" or ".tgz",
  // ".tar.bz2" or ".tbz2", ".zip" (in any case). False for anything else.
  static bool formatFromName(const Pathname& path, Format* out);

  // Creates or replaces `path`. Tar is written in the restricted pax form,
  // which plain ustar readers also take.
  bool open(const Pathname& path, Format format);
  // Adds one entry named `name` from `data`: its stat, then (for a regular
  // file) exactly the size it stated. A provider that gives a different
  // amount, fails, or cannot stat fails the entry. A provider that throws
  // is reported as "Exception: %s when adding entry: %s" or "Unknown
  // Exception when adding entry: %s", and false. REQUIRES: data != null.
  bool addEntry(const Pathname& name, ArchiveFileDataProviderWithStat* data);
  // Finishes the file. False, logging "error closing archive file: %m",
  // when the last writes fail; true when nothing was open.
  bool close();
  bool isOpen() const { return _a != nullptr; }
  const Str& lastError() const { return _error; }

 private:
  bool internal_addEntry(const Pathname& name, ArchiveFileDataProviderWithStat* data);
  void internal_fail(const Str& text, int err);

  struct archive* _a = nullptr;
  Pathname _name;
  Str _error;
};
