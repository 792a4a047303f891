// LineReader: one interface for reading lines from a string, a C stream, a
// descriptor or a gzip file. The buffered readers live in
// util/BufferedLineReader.h, the gzip one in util/GZLineReader.h.
#pragma once

#include <cstdint>

#include "util/FileStar.h"
#include "util/Pathname.h"
#include "util/Str.h"
#include "util/StrSegment.h"

// A byte offset in a file.
typedef int64_t file_offset_t;

// Lines come without their line feed; each reader says what it does with a
// carriage return. One owner at a time: no reader locks.
class LineReader {
 public:
  virtual ~LineReader();

  // The next line into `out` (cleared first). False at the end or on a
  // read error; an empty line is true with `out` empty.
  virtual bool readline(Str& out) = 0;
  // As readline, but a carriage return ahead of the line feed (or at the
  // end of the last line) stays in `out`: "a\r\nb" gives "a\r", "b". For
  // text whose carriage returns are data, such as a quoted CSV value. The
  // base can only fold, through readline; every reader here overrides it.
  virtual bool readlineKeepCR(Str& out);
  // Back to the start. The base cannot, and returns false.
  virtual bool rewind();
  // Releases the source; the base has none.
  virtual void close();
  // Whether there is a source to read; the base says true.
  virtual bool valid() const;
  // The offset of the next unread byte; -1 when unknown (the base).
  virtual file_offset_t curPos() const;
  // Moves to `offset`; the base cannot, and returns false.
  virtual bool seek_set(file_offset_t offset);
};

// Lines of text held elsewhere: the bytes must outlive the reader.
class StringLineReader : public LineReader {
 public:
  explicit StringLineReader(const StrSegment& text) : _s(text) {}

  // Views the next line inside the text, copying nothing. The last line
  // needs no line feed; a carriage return before the end of a non-empty
  // line is dropped, so a line of only "\r" comes out empty: "a\r\n\r\nb"
  // gives "a", "", "b". False past the end,
  // with `out` cleared.
  bool readline(StrSegment& out) { return nextLine(out, false); }
  bool readline(Str& out) override;
  bool readlineKeepCR(Str& out) override;
  bool rewind() override;
  file_offset_t curPos() const override { return static_cast<file_offset_t>(_pos); }
  // False (nothing moved) for an offset outside the text.
  bool seek_set(file_offset_t offset) override;

 private:
  bool nextLine(StrSegment& out, bool keepCR);
  StrSegment _s;
  size_t _pos = 0;
};

// Lines of a C stream, by FileStar::readline (NUL bytes kept, CRLF folded).
class FileStarLineReader : public LineReader {
 public:
  // Opens `path` for reading and owns the stream; check valid().
  explicit FileStarLineReader(const Pathname& path);
  // Borrows `f`; with `rewindFirst`, seeks it to the start.
  FileStarLineReader(FileStar f, bool rewindFirst);
  ~FileStarLineReader() override;
  FileStarLineReader(const FileStarLineReader&) = delete;
  FileStarLineReader& operator=(const FileStarLineReader&) = delete;

  bool readline(Str& out) override;
  bool readlineKeepCR(Str& out) override;
  bool rewind() override;
  // Closes the stream, borrowed or owned.
  void close() override;
  bool valid() const override { return _f.valid(); }
  file_offset_t curPos() const override;
  bool seek_set(file_offset_t offset) override;

 private:
  FileStar _f;
  bool _owned;
};
