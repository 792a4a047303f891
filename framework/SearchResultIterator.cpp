// Row walkers and builders declared in SearchResults.h, and the file line
// reader the CSV loaders use.
#include <cerrno>

#include "framework/SearchResults.h"
#include "util/BufferedLineReader.h"
#include "util/GZLineReader.h"
#include "util/Logger.h"

namespace {

Logger gLogger("SearchResults");

bool hasGzSuffix(const Pathname& path) {
  return path.size() >= 3 && path.compare(path.size() - 3, 3, ".gz") == 0;
}

}  // namespace

SearchResult* SearchResultIterator::next() {
  if (_pos >= _results.size()) return nullptr;
  return _results[_pos++];
}

SearchResultInserter::SearchResultInserter(SearchResults& results, const StrVector& columns)
    : _results(results) {
  _results.keyIndexes(columns, _columns);
}

SearchResultInserter::~SearchResultInserter() { delete _row; }

void SearchResultInserter::processToken(const Str& token) {
  if (_next >= _columns.size()) {
    ++_dropped;
    return;
  }
  if (_row == nullptr) _row = new SearchResult(&_results);
  _row->setValue(_columns[_next++], token);
}

bool SearchResultInserter::endRow() {
  _next = 0;
  if (_row == nullptr) return false;
  _results.usurpNewResult(_row);
  _row = nullptr;
  return true;
}

FileBackedLineReader::FileBackedLineReader(const Pathname& path) {
  if (hasGzSuffix(path)) {
    gLogger.debug("Reading from gzip'ed file '%s'", path.c_str());
    _reader = std::make_unique<GZLineReader>(path);
  } else {
    _reader = std::make_unique<FileDescriptorLineReader>(path);
  }
  if (!_reader->valid()) gLogger.error("Error while reading %s: %m", path.c_str());
}

FileBackedLineReader::~FileBackedLineReader() = default;

bool FileBackedLineReader::readline(Str& out) { return _reader->readline(out); }
bool FileBackedLineReader::readlineKeepCR(Str& out) { return _reader->readlineKeepCR(out); }
bool FileBackedLineReader::rewind() { return _reader->rewind(); }
void FileBackedLineReader::close() { _reader->close(); }
bool FileBackedLineReader::valid() const { return _reader->valid(); }
file_offset_t FileBackedLineReader::curPos() const { return _reader->curPos(); }
bool FileBackedLineReader::seek_set(file_offset_t offset) { return _reader->seek_set(offset); }
