#include "framework/SearchResults.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <algorithm>
#include <cstring>
#include <exception>

#include "framework/LimitsStanza.h"
#include "libbundle/PropertiesMap.h"
#include "libbundle/PropertiesMap.h"
#include "util/GzipFileDescriptor.h"
#include "util/Logger.h"
#include "util/Timeval.h"

namespace {

Logger gLogger("SearchResults");

const char MV_PREFIX[] = "__mv_";
constexpr size_t MV_PREFIX_LEN = sizeof(MV_PREFIX) - 1;

bool isAlnum(unsigned char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

Str mvName(const Str& name) {
  Str s(MV_PREFIX);
  s.append(StrSegment(name));
  return s;
}

bool endsWith(const Str& s, const char* suffix) {
  size_t n = strlen(suffix);
  return s.size() >= n && s.compare(s.size() - n, n, suffix) == 0;
}

// Names this system adds itself; a file from outside may not bring them in.
bool isInternalField(const Str& name) {
  if (name.size() < 2 || name[0] != '_') return false;
  if (name == "_raw" || name == "_time") return false;
  if (name.compare(0, MV_PREFIX_LEN, MV_PREFIX) == 0) return false;
  return true;
}

unsigned long limitsSetting(const char* key, unsigned long dflt) {
  PropertiesMap stanza;
  if (!getLimitsStanza("searchresults", stanza)) return dflt;
  return stanza.get(key).toUnsignedLong(dflt);
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

// ---- SearchResult ----

SearchResult::~SearchResult() {
  for (Str* v : _values) delete v;
}

const Str* SearchResult::valuePtr(size_t index) const {
  if (index == 0 || index > _values.size()) return nullptr;
  return _values[index - 1];
}

bool SearchResult::getValue(size_t index, Str& out) const {
  const Str* v = valuePtr(index);
  if (v == nullptr) return false;
  out = *v;
  return true;
}

bool SearchResult::getValue(const Str& name, Str& out) const {
  return getValue(static_cast<const SearchResults*>(_parent)->keyIndex(name), out);
}

void SearchResult::usurpValue(size_t index, Str* value) {
  if (index == 0) {
    delete value;
    return;
  }
  if (index > _values.size()) {
    if (value == nullptr) return;
    _values.resize(index, nullptr);
  }
  delete _values[index - 1];
  _values[index - 1] = value;
}

void SearchResult::setValue(size_t index, const StrSegment& value) {
  if (index == 0) return;
  const Str* existing = valuePtr(index);
  if (existing != nullptr) {
    Str* v = _values[index - 1];
    v->assign(value.data(), value.size());
    return;
  }
  usurpValue(index, new Str(value));
}

void SearchResult::setValue(const Str& name, const StrSegment& value) {
  setValue(_parent->keyIndex(name, true), value);
}

void SearchResult::removeValue(size_t index) { usurpValue(index, nullptr); }

bool SearchResult::getMultiValues(size_t index, StrVector& out) const {
  out.clear();
  size_t mv = _parent->getMVIndex(index);
  const Str* enc = valuePtr(mv);
  if (enc != nullptr) {
    if (!SearchResults::decodeMV(*enc, out)) {
      gLogger.warn("Corrupt internal representation for multi-value field '%s'",
                   _parent->getKeyFromIndex(index).c_str());
    }
    return true;
  }
  const Str* plain = valuePtr(index);
  if (plain == nullptr) return false;
  out.push_back(*plain);
  return true;
}

void SearchResult::setMultiValues(const Str& name, const StrVector& values,
                                  const StrSegment& separator) {
  size_t index = _parent->keyIndex(name, true);
  Str joined;
  for (size_t i = 0; i < values.size(); ++i) {
    if (i) joined.append(separator);
    joined.append(values[i]);
  }
  setValue(index, joined);
  if (values.size() > 1) {
    setOnlyMultiValues(name, values);
  } else {
    removeValue(_parent->getMVIndex(index));
  }
}

void SearchResult::setOnlyMultiValues(const Str& name, const StrVector& values) {
  Str enc;
  SearchResults::encodeMV(values, enc);
  setValue(_parent->keyIndex(mvName(name), true), enc);
}

bool SearchResult::getTimeval(Timeval& out, size_t index) const {
  if (index == 0) index = static_cast<const SearchResults*>(_parent)->keyIndex(Str("_time"));
  const Str* v = valuePtr(index);
  if (v == nullptr) return false;
  size_t i = 0, n = v->size();
  bool negative = i < n && (*v)[i] == '-';
  if (negative) ++i;
  size_t digitsStart = i;
  int64_t sec = 0;
  for (; i < n && (*v)[i] >= '0' && (*v)[i] <= '9'; ++i) {
    if (i - digitsStart >= 18) return false;  // would not fit
    sec = sec * 10 + ((*v)[i] - '0');
  }
  if (i == digitsStart) return false;
  int64_t usec = 0;
  if (i < n && (*v)[i] == '.') {
    ++i;
    size_t fracStart = i;
    int64_t scale = 100000;
    for (; i < n && (*v)[i] >= '0' && (*v)[i] <= '9'; ++i) {
      usec += ((*v)[i] - '0') * scale;
      scale /= 10;
    }
    if (i == fracStart) return false;
  }
  if (i != n) return false;
  if (negative) {
    sec = -sec;
    if (usec != 0) {
      sec -= 1;
      usec = 1000000 - usec;
    }
  }
  out = Timeval(sec, usec);
  return true;
}

uint64_t SearchResult::hash() const {
  // FNV-1a over (index, length, bytes) of each present value.
  uint64_t h = 1469598103934665603ULL;
  auto mix = [&h](const void* p, size_t n) {
    const unsigned char* b = static_cast<const unsigned char*>(p);
    for (size_t i = 0; i < n; ++i) {
      h ^= b[i];
      h *= 1099511628211ULL;
    }
  };
  for (size_t i = 0; i < _values.size(); ++i) {
    if (_values[i] == nullptr) continue;
    size_t n = _values[i]->size();
    mix(&i, sizeof(i));
    mix(&n, sizeof(n));
    mix(_values[i]->data(), n);
  }
  return h;
}

size_t SearchResult::parseCSVLine(const StrSegment& line, const std::vector<size_t>& columns) {
  StrVector fields;
  std::vector<bool> present;
  if (!SearchResults::splitCSVLine(line, fields, present)) return 0;
  for (size_t i = 0; i < fields.size() && i < columns.size(); ++i) {
    if (columns[i] == 0 || !present[i]) continue;
    usurpValue(columns[i], new Str(std::move(fields[i])));
  }
  return fields.size();
}

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

// ---- SearchResults: keys and rows ----

SearchResults::~SearchResults() {
  if (_openWriter != nullptr) {
    gLogger.warn("CSV File still open at SearchResults destructor.");
    closeFile();
  }
  removeFiles();
  freeAll();
}

size_t SearchResults::keyIndex(const Str& name) const {
  auto it = _keyMap.find(name);
  return it == _keyMap.end() ? 0 : it->second;
}

size_t SearchResults::keyIndex(const Str& name, bool create) {
  size_t idx = static_cast<const SearchResults*>(this)->keyIndex(name);
  if (idx != 0 || !create) return idx;
  _keys.push_back(name);
  _keyMap.emplace(name, _keys.size());
  return _keys.size();
}

void SearchResults::keyIndexes(const StrVector& names, std::vector<size_t>& out) {
  out.clear();
  for (const Str& n : names) out.push_back(keyIndex(n, true));
}

const Str& SearchResults::getKeyFromIndex(size_t index) const {
  static const Str kEmpty;
  if (index == 0 || index > _keys.size()) return kEmpty;
  return _keys[index - 1];
}

size_t SearchResults::getMVIndex(size_t index) const {
  const Str& name = getKeyFromIndex(index);
  if (name.empty()) return 0;
  return keyIndex(mvName(name));
}

bool SearchResults::removeKey(const Str& name) {
  size_t idx = keyIndex(name);
  if (idx == 0) return false;
  for (SearchResult* r : _rows) {
    if (idx <= r->_values.size()) {
      delete r->_values[idx - 1];
      r->_values.erase(r->_values.begin() + static_cast<std::ptrdiff_t>(idx - 1));
    }
  }
  _keys.erase(_keys.begin() + static_cast<std::ptrdiff_t>(idx - 1));
  _keyMap.clear();
  for (size_t i = 0; i < _keys.size(); ++i) _keyMap.emplace(_keys[i], i + 1);
  return true;
}

bool SearchResults::renameKey(const Str& oldName, const Str& newName) {
  size_t idx = keyIndex(oldName);
  if (idx == 0 || keyIndex(newName) != 0) return false;
  std::replace(_columnOrder.begin(), _columnOrder.end(), oldName, newName);
  _keyMap.erase(oldName);
  _keys[idx - 1] = newName;
  _keyMap.emplace(newName, idx);
  return true;
}

void SearchResults::getColumnOrder(StrVector& out) const {
  out.clear();
  std::vector<bool> used(_keys.size() + 1, false);
  for (const Str& name : _columnOrder) {
    size_t idx = keyIndex(name);
    if (idx == 0 || used[idx]) continue;
    used[idx] = true;
    out.push_back(name);
  }
  for (size_t i = 1; i <= _keys.size(); ++i) {
    if (!used[i]) out.push_back(_keys[i - 1]);
  }
}

size_t SearchResults::collapse() {
  std::vector<bool> hasValue(_keys.size() + 1, false);
  for (SearchResult* r : _rows) {
    for (size_t i = 0; i < r->_values.size(); ++i) {
      if (r->_values[i] != nullptr) hasValue[i + 1] = true;
    }
  }
  StrVector unused;
  for (size_t i = 1; i <= _keys.size(); ++i) {
    if (!hasValue[i]) unused.push_back(_keys[i - 1]);
  }
  for (const Str& name : unused) removeKey(name);
  for (SearchResult* r : _rows) {
    while (!r->_values.empty() && r->_values.back() == nullptr) r->_values.pop_back();
  }
  return unused.size();
}

SearchResult* SearchResults::addNewResult() {
  SearchResult* r = new SearchResult(this);
  _rows.push_back(r);
  return r;
}

void SearchResults::usurpNewResult(SearchResult* row) {
  row->_parent = this;
  _rows.push_back(row);
}

void SearchResults::moveResult(SearchResults& other, size_t i) {
  if (i >= other._rows.size()) return;
  SearchResult* src = other._rows[i];
  other._rows.erase(other._rows.begin() + static_cast<std::ptrdiff_t>(i));
  if (&other == this) {
    _rows.push_back(src);
    return;
  }
  SearchResult* dst = addNewResult();
  for (size_t k = 0; k < src->_values.size(); ++k) {
    if (src->_values[k] == nullptr) continue;
    dst->usurpValue(keyIndex(other._keys[k], true), src->_values[k]);
    src->_values[k] = nullptr;
  }
  delete src;
}

void SearchResults::append(const SearchResults& other, size_t start, size_t count) {
  if (start >= other._rows.size()) return;
  size_t end = other._rows.size() - start < count ? other._rows.size() : start + count;
  std::vector<size_t> map(other._keys.size());
  for (size_t k = 0; k < other._keys.size(); ++k) map[k] = keyIndex(other._keys[k], true);
  for (size_t i = start; i < end; ++i) {
    const SearchResult* src = other._rows[i];
    SearchResult* dst = addNewResult();
    for (size_t k = 0; k < src->_values.size(); ++k) {
      if (src->_values[k] != nullptr) dst->usurpValue(map[k], new Str(*src->_values[k]));
    }
  }
}

void SearchResults::appendDestructive(SearchResults& other) {
  if (&other == this) return;
  while (!other._rows.empty()) moveResult(other, 0);
}

void SearchResults::eraseResults(const std::vector<size_t>& sortedIndexes) {
  size_t d = 0, w = 0;
  for (size_t i = 0; i < _rows.size(); ++i) {
    if (d < sortedIndexes.size() && sortedIndexes[d] == i) {
      delete _rows[i];
      ++d;
    } else {
      _rows[w++] = _rows[i];
    }
  }
  _rows.resize(w);
}

void SearchResults::slice(size_t start, size_t count) {
  std::vector<SearchResult*> kept;
  for (size_t i = 0; i < _rows.size(); ++i) {
    if (i >= start && i - start < count) {
      kept.push_back(_rows[i]);
    } else {
      delete _rows[i];
    }
  }
  _rows.swap(kept);
}

void SearchResults::clone(const SearchResults& other, bool rows) {
  if (&other == this) return;
  freeAll();
  _keys = other._keys;
  _keyMap = other._keyMap;
  _columnOrder = other._columnOrder;
  if (rows) append(other);
}

void SearchResults::usurp(SearchResults& other, bool keepKeys) {
  if (&other == this) return;
  freeAll();
  _rows.swap(other._rows);
  for (SearchResult* r : _rows) r->_parent = this;
  _keys = other._keys;
  _keyMap = other._keyMap;
  _columnOrder = other._columnOrder;
  if (!keepKeys) {
    other._keys.clear();
    other._keyMap.clear();
  }
}

void SearchResults::freeAll() {
  for (SearchResult* r : _rows) delete r;
  _rows.clear();
  _keys.clear();
  _keyMap.clear();
  _columnOrder.clear();
}

int SearchResults::guessTimeOrder() const {
  size_t idx = keyIndex(Str("_time"));
  bool up = false, down = false, any = false, any2 = false;
  double prev = 0;
  for (const SearchResult* r : _rows) {
    const Str* v = r->valuePtr(idx);
    double t;
    if (v == nullptr || !v->tryToDouble(t)) continue;
    if (any) {
      any2 = true;
      if (t > prev) up = true;
      if (t < prev) down = true;
    }
    prev = t;
    any = true;
  }
  if (!any2 || (up && down)) return 0;
  return down ? -1 : 1;
}

// ---- encodings ----

bool SearchResults::decodeMV(const StrSegment& text, StrVector& out) {
  out.clear();
  bool inside = false;
  Str cur;
  for (size_t i = 0; i < text.size(); ++i) {
    char c = text.data()[i];
    if (!inside) {
      if (c == '$') {
        inside = true;
        cur.clear();
      } else if (c != ';') {
        out.clear();
        return false;
      }
    } else if (c == '$') {
      if (i + 1 < text.size() && text.data()[i + 1] == '$') {
        cur.push_back('$');
        ++i;
      } else {
        out.push_back(cur);
        inside = false;
      }
    } else {
      cur.push_back(c);
    }
  }
  // An unterminated value is kept as far as it went.
  if (inside) out.push_back(cur);
  return true;
}

void SearchResults::encodeMV(const StrVector& values, Str& out) {
  out.clear();
  for (size_t i = 0; i < values.size(); ++i) {
    if (i) out.push_back(';');
    out.push_back('$');
    for (char c : values[i]) {
      if (c == '$') out.push_back('$');
      out.push_back(c);
    }
    out.push_back('$');
  }
}

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

// ---- CSV writing ----

void SearchResults::genFieldList(const StrVector& fields, std::vector<size_t>& out) const {
  out.clear();
  StrVector ordered;
  if (fields.empty()) getColumnOrder(ordered);
  const StrVector& names = fields.empty() ? ordered : fields;
  std::vector<bool> used(_keys.size() + 1, false);
  for (const Str& n : names) {
    if (n.compare(0, MV_PREFIX_LEN, MV_PREFIX) == 0 && keyIndex(n.substr(MV_PREFIX_LEN)) != 0 &&
        (fields.empty() ||
         std::find(fields.begin(), fields.end(), n.substr(MV_PREFIX_LEN)) != fields.end())) {
      continue;  // placed next to its field
    }
    size_t idx = keyIndex(n);
    if (idx == 0 || used[idx]) continue;
    out.push_back(idx);
    used[idx] = true;
    size_t mv = getMVIndex(idx);
    if (mv != 0 && !used[mv]) {
      out.push_back(mv);
      used[mv] = true;
    }
  }
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

// ---- settings ----

size_t SearchResults::getMaxResultRows(bool reload) {
  static size_t cached = 0;
  if (cached == 0 || reload) cached = limitsSetting("maxresultrows", 50000);
  return cached;
}

unsigned SearchResults::getToCSVMaxRetry() {
  return static_cast<unsigned>(limitsSetting("tocsv_maxretry", 5));
}

unsigned SearchResults::getToCSVRetryPeriodMs() {
  return static_cast<unsigned>(limitsSetting("tocsv_retryperiod_ms", 500));
}
