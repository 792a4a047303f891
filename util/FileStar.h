// FileStar: a thin value wrapper around a C stream, with a line reader that
// keeps NUL bytes inside lines; ScopedFileStar owns one and closes it.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdio>

#include <sys/types.h>

class HashedStrReference;
class Pathname;
class Str;
class XmlAttribute;
class XmlDocument;
class XmlNode;

// A stream pointer, null when closed. Copying copies the pointer, so a
// FileStar borrows and never closes on its own. Thread story: one owner at
// a time.
class FileStar {
 public:
  FileStar() : _f(nullptr) {}
  explicit FileStar(FILE* f) : _f(f) {}

  FILE* get() const { return _f; }
  bool valid() const { return _f != nullptr; }

  // fread of up to n bytes: the count read, or -1 when nothing was read and
  // the stream is not at its end (an error; errno set).
  ssize_t read(void* buf, size_t n) const;
  // fwrite: the count written, or -1 when a non-empty request wrote nothing.
  ssize_t write(const void* buf, size_t n) const;
  // The key's text, without its NUL.
  ssize_t write(const HashedStrReference& key) const;
  // The serialised form, as Str::append gives it; write's result.
  ssize_t write(const XmlNode& node) const;
  ssize_t write(const XmlAttribute& attr) const;
  ssize_t write(const XmlDocument& doc) const;
  // vfprintf's result.
  int format(const char* fmt, ...) const __attribute__((format(printf, 2, 3)));

  // Reads one line into `out` (cleared first) without its line feed or a
  // carriage return ahead of it. NUL bytes inside the line are kept when
  // the stream can tell its position (files); a pipe is read byte by byte.
  // True for a non-empty line, and for an empty one unless the end or an
  // error is flagged: "a\n\nb" gives "a", "", "b", then false. With
  // `keepCR` the carriage return stays: "a\r\n" gives "a\r".
  bool readline(Str& out, bool keepCR = false) const;

  // True when already closed; else fclose's success. The pointer is null
  // afterwards whatever happened.
  bool close();
  // As close(), but a failing close leaves errno as it was before.
  bool close_saveErrno();
  // The stream has its error flag set and errno is ENOTCONN.
  bool hasNetworkError() const;

  // An anonymous read-write file that vanishes when closed; null on failure.
  static FileStar openTemporaryFile();

 protected:
  FILE* _f;
};

// Owns its stream and closes it on destruction. One owner at a time.
class ScopedFileStar : public FileStar {
 public:
  ScopedFileStar() = default;
  // Takes ownership of `f`.
  explicit ScopedFileStar(FileStar f) : FileStar(f) {}
  // Opens `path` with fopen's `mode`; check valid().
  ScopedFileStar(const Pathname& path, const char* mode);
  ~ScopedFileStar() { close_saveErrno(); }
  ScopedFileStar(const ScopedFileStar&) = delete;
  ScopedFileStar& operator=(const ScopedFileStar&) = delete;

  // Closes the stream held and takes ownership of `f`.
  ScopedFileStar& operator=(FileStar f);
  // Moves the stream out of `other`, which becomes closed; the one held
  // before is closed.
  void claimObjectFrom(ScopedFileStar& other);
};
