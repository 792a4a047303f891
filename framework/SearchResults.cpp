#include "framework/SearchResults.h"

#include <algorithm>

#include "framework/LimitsStanza.h"
#include "libbundle/PropertiesMap.h"
#include "util/Logger.h"
#include "util/Timeval.h"

namespace {

Logger gLogger("SearchResults");

Str mvName(const Str& name) {
  Str s(SearchResults::MV_PREFIX);
  s.append(StrSegment(name));
  return s;
}

unsigned long limitsSetting(const char* key, unsigned long dflt) {
  PropertiesMap stanza;
  if (!getLimitsStanza("searchresults", stanza)) return dflt;
  return stanza.get(key).toUnsignedLong(dflt);
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

// ---- columns written ----

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
