// The CSV half of SearchResults: escaping and cutting records, reading
// tables from text, readers and files, and writing them out atomically.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "framework/SearchResults.h"
#include "util/GzipFileDescriptor.h"
#include "util/Logger.h"

namespace {

Logger gLogger("SearchResults");

bool isAlnum(unsigned char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool endsWith(const Str& s, const char* suffix) {
  size_t n = strlen(suffix);
  return s.size() >= n && s.compare(s.size() - n, n, suffix) == 0;
}

// Names this system adds itself; a file from outside may not bring them in.
bool isInternalField(const Str& name) {
  if (name.size() < 2 || name[0] != '_') return false;
  if (name == "_raw" || name == "_time") return false;
  if (name.compare(0, SearchResults::MV_PREFIX_LEN, SearchResults::MV_PREFIX) == 0) return false;
  return true;
}

// Where a scan of one CSV record stands. Only a quote that opens a field
// opens a quoted value (a quote inside a bare field is data); inside one, a
// doubled quote is a quote and a single one closes it.
class CsvQuoteState {
 public:
  void feed(char c) {
    switch (_s) {
      case FIELD_START:
        _s = c == '"' ? QUOTED : c == ',' ? FIELD_START : BARE;
        break;
      case BARE:
        if (c == ',') _s = FIELD_START;
        break;
      case QUOTED:
        if (c == '"') _s = CLOSING;
        break;
      case CLOSING:
        _s = c == '"' ? QUOTED : c == ',' ? FIELD_START : BARE;
        break;
    }
  }
  void feed(const StrSegment& text) {
    // Without a quote a line cannot open a value; only the field state
    // moves, and it matters to nothing past the line's end but open().
    if (_s != QUOTED && memchr(text.data(), '"', text.size()) == nullptr) {
      _s = BARE;
      return;
    }
    for (size_t i = 0; i < text.size(); ++i) feed(text.data()[i]);
  }
  bool open() const { return _s == QUOTED; }

 private:
  enum { FIELD_START, BARE, QUOTED, CLOSING } _s = FIELD_START;
};

bool readWholeFile(const Pathname& path, Str& out, Str& errorKey) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    gLogger.error("Error while reading %s: %m", path.c_str());
    errorKey.format("SEARCHRESULTS_ERROR_READING_FILE__%s", path.c_str());
    return false;
  }
  ScopedFileDescriptor sfd{FileDescriptor(fd)};
  char buf[65536];
  if (endsWith(path, ".gz")) {
    gLogger.debug("Reading from gzip'ed file '%s'", path.c_str());
    ReadableGzipFileDescriptor gz(sfd);
    for (;;) {
      ssize_t n = gz.read(buf, sizeof(buf));
      if (n == 0) break;
      if (n < 0) {
        gLogger.error("Gave up reading %s: %m", path.c_str());
        errorKey.format("SEARCHRESULTS_GZOPEN_FAIL__%s", path.c_str());
        return false;
      }
      out.append(buf, static_cast<size_t>(n));
    }
    return true;
  }
  for (;;) {
    ssize_t n = sfd.read(buf, sizeof(buf));
    if (n == 0) break;
    if (n < 0) {
      if (errno == EINTR) continue;
      gLogger.error("Gave up reading %s: %m", path.c_str());
      errorKey.format("SEARCHRESULTS_ERROR_READING_FILE__%s", path.c_str());
      return false;
    }
    out.append(buf, static_cast<size_t>(n));
  }
  return true;
}

}  // namespace

// ---- writers ----

bool CSVFileWriter::write(const StrSegment& bytes) {
  return _fd.write(bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size());
}

CSVGZWriter::CSVGZWriter(FileDescriptor fd) : _gz(new WritableGzipFileDescriptor(fd)) {}

CSVGZWriter::~CSVGZWriter() { delete _gz; }

bool CSVGZWriter::write(const StrSegment& bytes) {
  return _gz->write(bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size());
}

bool CSVGZWriter::finish() {
  if (!_finished) {
    _finishedOk = _gz->finish();
    _finished = true;
  }
  return _finishedOk;
}

ScopedCSVWriter::ScopedCSVWriter(const Pathname& path) { open(path, endsWith(path, ".gz")); }

ScopedCSVWriter::ScopedCSVWriter(const Pathname& path, bool gzip) { open(path, gzip); }

void ScopedCSVWriter::open(const Pathname& path, bool gzip) {
  if (path.empty()) {
    gLogger.warn("ScopedCSVWriter called with empty filename, ignoring");
    return;
  }
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) {
    gLogger.error("Unable to open output file: path=%s error=%m", path.c_str());
    return;
  }
  _fd = FileDescriptor(fd);
  if (gzip) {
    _writer = new CSVGZWriter(_fd);
  } else {
    _writer = new CSVFileWriter(_fd);
  }
}

ScopedCSVWriter::~ScopedCSVWriter() {
  if (_writer != nullptr) _writer->finish();
  delete _writer;
}

bool ScopedCSVWriter::write(const StrSegment& bytes) {
  return _writer != nullptr && _writer->write(bytes);
}

bool ScopedCSVWriter::finish() { return _writer != nullptr && _writer->finish(); }

// ---- CSV ----

void SearchResults::csvEscape(const StrSegment& in, Str& out, bool dropCR) {
  if (in.size() == 0) {
    out.append("\"\"", 2);
    return;
  }
  size_t i = 0;
  while (i < in.size() && isAlnum(static_cast<unsigned char>(in.data()[i]))) ++i;
  if (i == in.size()) {
    out.append(in);
    return;
  }
  out.reserve(out.size() + in.size() * 2 + 2);
  out.push_back('"');
  for (size_t k = 0; k < in.size(); ++k) {
    char c = in.data()[k];
    if (c == '"') out.push_back('"');
    if (c == '\r' && dropCR) continue;
    out.push_back(c);
  }
  out.push_back('"');
}

bool SearchResults::inQuote(const StrSegment& text) {
  CsvQuoteState st;
  st.feed(text);
  return st.open();
}

bool SearchResults::splitCSVLine(const StrSegment& line, StrVector& fields,
                                 std::vector<bool>& present) {
  fields.clear();
  present.clear();
  const char* p = line.data();
  size_t n = line.size();
  if (n > 0 && p[n - 1] == '\r') --n;
  size_t i = 0;
  for (;;) {
    if (i < n && p[i] == '"') {
      Str val;
      size_t j = i + 1;
      bool closed = false;
      while (j < n) {
        if (p[j] == '"') {
          if (j + 1 < n && p[j + 1] == '"') {
            val.push_back('"');
            j += 2;
            continue;
          }
          closed = true;
          break;
        }
        val.push_back(p[j++]);
      }
      if (!closed) {
        gLogger.warn("Mismatched quotes in csv: '%.*s'", static_cast<int>(n), p);
        return false;
      }
      j++;  // past the closing quote
      if (j < n && p[j] != ',') {
        gLogger.warn("Corrupt CSV line, char #%u: %.*s", static_cast<unsigned>(j),
                     static_cast<int>(n), p);
        return false;
      }
      fields.push_back(std::move(val));
      present.push_back(true);
      if (j >= n) break;
      i = j + 1;
    } else {
      size_t j = i;
      while (j < n && p[j] != ',') ++j;
      fields.emplace_back(Str(p + i, j - i));
      present.push_back(j > i);
      if (j >= n) break;
      i = j + 1;
    }
  }
  return true;
}

// ---- CSV reading ----

bool SearchResults::readCSVHeader(const StrSegment& line, std::vector<size_t>& columns,
                                  bool external) {
  StrVector names;
  std::vector<bool> present;
  columns.clear();
  if (line.size() == 0 || !splitCSVLine(line, names, present)) {
    gLogger.error("Could not parse csv header.");
    _lastErrorKey = "SEARCHRESULTS_CSV_HEADER_PARSE_FAIL";
    return false;
  }
  std::map<Str, size_t> seen;
  for (size_t i = 0; i < names.size(); ++i) {
    const Str& name = names[i];
    if (name.empty()) {
      gLogger.warn("Corrupt csv header, contains empty value (col #%lu)",
                   static_cast<unsigned long>(i + 1));
      columns.push_back(0);
      continue;
    }
    auto it = seen.find(name);
    if (it != seen.end()) {
      gLogger.warn(
          "Corrupt csv header, 2 columns with the same name '%s' (col #%lu and #%lu, #%lu will "
          "be ignored)",
          name.c_str(), static_cast<unsigned long>(it->second), static_cast<unsigned long>(i + 1),
          static_cast<unsigned long>(i + 1));
      columns.push_back(0);
      continue;
    }
    seen.emplace(name, i + 1);
    if (external && isInternalField(name)) {
      gLogger.warn("External csv file contains internal field name '%s', ignoring column.",
                   name.c_str());
      columns.push_back(0);
      continue;
    }
    columns.push_back(keyIndex(name, true));
  }
  return true;
}

bool SearchResults::fromCSV(const Str& text, size_t start, size_t count, bool external) {
  return fromText(text, "<memory>", start, count, external);
}

bool SearchResults::fromText(const Str& text, const char* source, size_t start, size_t count,
                             bool external) {
  size_t pos = 0;
  // One record: physical lines joined while a quote stays open.
  auto nextRecord = [&](Str& rec) -> bool {
    if (pos >= text.size()) return false;
    size_t begin = pos;
    CsvQuoteState st;
    size_t i = pos;
    for (; i < text.size(); ++i) {
      const char c = text[i];
      if (c == '\n' && !st.open()) break;
      st.feed(c);
    }
    const bool quote = st.open();
    size_t end = i;
    // A quote still open at the end does not take the final line feed:
    // the line readers end the record there too.
    if (quote && end == text.size() && end > begin && text[end - 1] == '\n') --end;
    rec.assign(text.data() + begin, end - begin);
    pos = i < text.size() ? i + 1 : i;
    return true;
  };
  return fromRecords(nextRecord, source, start, count, external);
}

bool SearchResults::readCSVLine(LineReader& reader, Str& out) {
  // Lines come with their carriage returns: inside a quoted value they are
  // data, and splitCSVLine drops the one that ends a record.
  if (!reader.readlineKeepCR(out)) return false;
  // The quote state carries from line to line, so each physical line is
  // scanned once.
  CsvQuoteState st;
  st.feed(out);
  Str more;
  while (st.open() && reader.readlineKeepCR(more)) {
    out.push_back('\n');
    out.append(more);
    st.feed('\n');
    st.feed(more);
  }
  return true;
}

bool SearchResults::fromCSV(LineReader& reader, size_t start, size_t count, bool external) {
  auto nextRecord = [&reader](Str& rec) { return readCSVLine(reader, rec); };
  return fromRecords(nextRecord, "<reader>", start, count, external);
}

bool SearchResults::fromCSV(FileStar f, size_t start, size_t count, bool external) {
  FileStarLineReader reader(f, false);
  return fromCSV(reader, start, count, external);
}

bool SearchResults::fromRecords(const std::function<bool(Str&)>& nextRecord, const char* source,
                                size_t start, size_t count, bool external) {
  _lastErrorKey.clear();
  Str rec;
  if (!nextRecord(rec)) {
    gLogger.error("Could not parse csv header.");
    _lastErrorKey = "SEARCHRESULTS_CSV_HEADER_PARSE_FAIL";
    return false;
  }
  std::vector<size_t> columns;
  if (!readCSVHeader(rec, columns, external)) return false;
  size_t recno = 0, taken = 0;
  unsigned long inconsistent = 0;
  while (taken < count && nextRecord(rec)) {
    if (rec.size() == 0 || (rec.size() == 1 && rec[0] == '\r')) continue;
    if (recno++ < start) continue;
    SearchResult* row = new SearchResult(this);
    size_t nf = row->parseCSVLine(rec, columns);
    if (nf == 0) {
      delete row;
      continue;
    }
    if (nf != columns.size()) ++inconsistent;
    _rows.push_back(row);
    ++taken;
  }
  if (inconsistent) {
    gLogger.warn("While reading file '%s', encountered %lu inconsistent number of column errors.",
                 source, inconsistent);
  }
  return true;
}

bool SearchResults::fromCSV(const Pathname& path, size_t start, size_t count, bool external) {
  Str text;
  if (!readWholeFile(path, text, _lastErrorKey)) return false;
  return fromText(text, path.c_str(), start, count, external);
}

bool SearchResults::toCSV(CSVWriter& out, const StrVector& fields, size_t count, bool header,
                          bool dropCR) const {
  std::vector<size_t> cols;
  genFieldList(fields, cols);
  Str buf;
  if (header) {
    for (size_t i = 0; i < cols.size(); ++i) {
      if (i) buf.push_back(',');
      csvEscape(getKeyFromIndex(cols[i]), buf, dropCR);
    }
    buf.push_back('\n');
  }
  size_t n = count < _rows.size() ? count : _rows.size();
  for (size_t r = 0; r < n; ++r) {
    for (size_t i = 0; i < cols.size(); ++i) {
      if (i) buf.push_back(',');
      const Str* v = _rows[r]->valuePtr(cols[i]);
      if (v != nullptr) csvEscape(*v, buf, dropCR);
    }
    buf.push_back('\n');
    if (buf.size() >= 65536) {
      if (!out.write(buf)) return false;
      buf.clear();
    }
  }
  return buf.empty() || out.write(buf);
}

bool SearchResults::toCSV(Str& out, const StrVector& fields, size_t count, bool header,
                          bool dropCR) const {
  CSVStrWriter w(out);
  return toCSV(w, fields, count, header, dropCR);
}

bool SearchResults::toCSV(FileDescriptor fd, const StrVector& fields, size_t count, bool header,
                          bool dropCR) const {
  CSVFileWriter w(fd);
  return toCSV(w, fields, count, header, dropCR);
}

bool SearchResults::writeOnce(const Pathname& tmp, const Str& bytes, bool gzip) const {
  int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) {
    gLogger.error("Unable to open output file: path=%s error=%m", tmp.c_str());
    return false;
  }
  ScopedFileDescriptor sfd{FileDescriptor(fd)};
  if (gzip) {
    CSVGZWriter w(sfd);
    if (!w.write(bytes) || !w.finish()) {
      _lastErrorKey.format("SEARCHRESULTS_GZWRITE_ERROR__%s", strerror(errno));
      return false;
    }
  } else {
    CSVFileWriter w(sfd);
    if (!w.write(bytes)) {
      _lastErrorKey.format("SEARCHRESULTS_FILE_WRITE_FAIL__%s", tmp.c_str());
      return false;
    }
  }
  return sfd.close();
}

bool SearchResults::toCSV(const Pathname& path, const StrVector& fields, size_t count,
                          bool header, bool dropCR) const {
  _lastErrorKey.clear();
  if (path.empty()) {
    gLogger.error("Failed to open file for writing.");
    return false;
  }
  Str bytes;
  toCSV(bytes, fields, count, header, dropCR);
  bool gzip = endsWith(path, ".gz");
  if (gzip) gLogger.debug("Writing output atomically to gzipped file (%s).", path.c_str());
  Pathname tmp(path + ".tmp");
  // Zero retries still makes the one attempt.
  const unsigned tries = std::max(1U, getToCSVMaxRetry());
  unsigned period = getToCSVRetryPeriodMs();
  for (unsigned attempt = 0;; ++attempt) {
    if (writeOnce(tmp, bytes, gzip)) break;
    int err = errno;
    ::unlink(tmp.c_str());
    if (attempt + 1 >= tries) {
      errno = err;
      _lastErrorKey.format("SEARCHRESULTS_RETRY_WRITE_FAIL__%s_%lu_%lu_%s", path.c_str(),
                           static_cast<unsigned long>(attempt + 1),
                           static_cast<unsigned long>(tries), strerror(err));
      return false;
    }
    ::usleep(period * 1000U);
  }
  if (::rename(tmp.c_str(), path.c_str()) != 0) {
    gLogger.error("Failed to move file to final destination.");
    _lastErrorKey.format("SEARCHRESULTS_FILE_WRITE_FAIL__%s", path.c_str());
    ::unlink(tmp.c_str());
    return false;
  }
  return true;
}

bool SearchResults::writeAllToCSV(const Pathname& path) {
  SearchResults all;
  all.append(*this);
  StrVector order;
  getColumnOrder(order);
  for (const Pathname& f : _files) {
    SearchResults part;
    if (!part.fromCSV(f)) {
      _lastErrorKey = part._lastErrorKey;
      return false;
    }
    StrVector more;
    part.getColumnOrder(more);
    for (const Str& name : more) {
      if (std::find(order.begin(), order.end(), name) == order.end()) order.push_back(name);
    }
    all.appendDestructive(part);
  }
  all.setColumnOrder(order);
  if (!all.toCSV(path)) {
    _lastErrorKey = all._lastErrorKey;
    return false;
  }
  return true;
}

bool SearchResults::openFile(const Pathname& path) {
  if (_openWriter != nullptr) {
    errno = EBUSY;
    gLogger.error("Unable to open output file: path=%s error=%m", path.c_str());
    return false;
  }
  auto w = std::make_unique<ScopedCSVWriter>(path);
  if (!w->valid()) return false;
  _openWriter = std::move(w);
  _openPath = path;
  _openColumns.clear();
  _openFailed = false;
  return true;
}

bool SearchResults::appendCSV() {
  if (_openWriter == nullptr) return false;
  bool header = _openColumns.empty();
  if (header) {
    std::vector<size_t> cols;
    genFieldList(StrVector(), cols);
    for (size_t c : cols) _openColumns.push_back(getKeyFromIndex(c));
    if (_openColumns.empty()) return true;  // nothing to write yet
  }
  if (!toCSV(*_openWriter, _openColumns, SIZE_MAX, header, false)) {
    _openFailed = true;
    _lastErrorKey.format("SEARCHRESULTS_FILE_WRITE_FAIL__%s", _openPath.c_str());
    return false;
  }
  for (SearchResult* r : _rows) delete r;
  _rows.clear();
  return true;
}

bool SearchResults::closeFile() {
  if (_openWriter == nullptr) return false;
  const bool ok = _openWriter->finish() && !_openFailed;
  _openWriter.reset();
  _files.push_back(_openPath);
  _openPath = Pathname();
  _openColumns.clear();
  return ok;
}

bool SearchResults::splitFile(const Pathname& path, size_t chunkSize,
                              std::vector<Pathname>& out) {
  out.clear();
  SearchResults all;
  if (!all.fromCSV(path)) {
    _lastErrorKey = all._lastErrorKey;
    return false;
  }
  if (chunkSize == 0) chunkSize = 1;
  size_t slash = path.rfind('/');
  Str dir = slash == Str::npos ? Str() : path.substr(0, slash + 1);
  Str leaf = slash == Str::npos ? Str(path) : path.substr(slash + 1);
  for (size_t start = 0, n = 0; start < all.size() || n == 0; start += chunkSize, ++n) {
    Pathname piece(dir);
    piece.appendFormat("srsplit_%lu_%s", static_cast<unsigned long>(n), leaf.c_str());
    SearchResults chunk;
    chunk.clone(all, false);
    chunk.append(all, start, chunkSize);
    if (!chunk.toCSV(piece)) {
      _lastErrorKey.format("SEARCHRESULTS_SPLITFILE_WRITE_FAIL__%s", path.c_str());
      for (const Pathname& p : out) ::unlink(p.c_str());
      ::unlink(piece.c_str());
      out.clear();
      return false;
    }
    out.push_back(piece);
  }
  return true;
}

