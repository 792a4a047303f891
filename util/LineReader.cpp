#include "util/LineReader.h"

#include <cstdio>

#include "util/Assert.h"

LineReader::~LineReader() = default;
bool LineReader::rewind() { return false; }
void LineReader::close() {}
bool LineReader::valid() const { return true; }
file_offset_t LineReader::curPos() const { return -1; }
bool LineReader::seek_set(file_offset_t) { return false; }
bool LineReader::readlineKeepCR(Str& out) { return readline(out); }

bool StringLineReader::nextLine(StrSegment& out, bool keepCR) {
  if (_pos >= _s.size()) {
    kassert(_pos == _s.size());
    out.clear();
    return false;
  }
  size_t end = _s.find('\n', _pos);
  const size_t next = end == StrSegment::npos ? _s.size() : end + 1;
  if (end == StrSegment::npos) end = _s.size();
  if (!keepCR && end > _pos && _s[end - 1] == '\r') --end;
  out.assign(_s.data() + _pos, end - _pos);
  _pos = next;
  return true;
}

bool StringLineReader::readline(Str& out) {
  StrSegment line;
  const bool got = readline(line);
  out.assign(line.data(), line.size());
  return got;
}

bool StringLineReader::readlineKeepCR(Str& out) {
  StrSegment line;
  const bool got = nextLine(line, true);
  out.assign(line.data(), line.size());
  return got;
}

bool StringLineReader::rewind() {
  _pos = 0;
  return true;
}

bool StringLineReader::seek_set(file_offset_t offset) {
  if (offset < 0 || static_cast<uint64_t>(offset) > _s.size()) return false;
  _pos = static_cast<size_t>(offset);
  return true;
}

FileStarLineReader::FileStarLineReader(const Pathname& path)
    : _f(path.fopen("r")), _owned(true) {}

FileStarLineReader::FileStarLineReader(FileStar f, bool rewindFirst) : _f(f), _owned(false) {
  if (rewindFirst && _f.valid()) rewind();
}

FileStarLineReader::~FileStarLineReader() {
  if (_owned) _f.close_saveErrno();
}

bool FileStarLineReader::readline(Str& out) {
  if (!_f.valid()) {
    out.clear();
    return false;
  }
  return _f.readline(out);
}

bool FileStarLineReader::readlineKeepCR(Str& out) {
  if (!_f.valid()) {
    out.clear();
    return false;
  }
  return _f.readline(out, true);
}

bool FileStarLineReader::rewind() {
  if (!_f.valid() || fseeko(_f.get(), 0, SEEK_SET) != 0) return false;
  clearerr(_f.get());
  return true;
}

void FileStarLineReader::close() { _f.close_saveErrno(); }

file_offset_t FileStarLineReader::curPos() const {
  return _f.valid() ? static_cast<file_offset_t>(ftello(_f.get())) : -1;
}

bool FileStarLineReader::seek_set(file_offset_t offset) {
  return _f.valid() && fseeko(_f.get(), static_cast<off_t>(offset), SEEK_SET) == 0;
}
