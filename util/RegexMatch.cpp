#include "util/RegexMatch.h"

#include <limits>

#include "util/Assert.h"
#include "util/Regex.h"

namespace {

bool isBlank(char c) { return c == ' ' || c == '\t'; }

}  // namespace

void RegexMatch::init(const Regex* regex, const char* subject, const int* offsets) {
  if (regex == nullptr || subject == nullptr || offsets == nullptr) return;
  _regex = regex;
  _subject = subject;
  _valid = true;
  _match.assign(subject + offsets[0], static_cast<size_t>(offsets[1] - offsets[0]));
  _groups.clear();
  const int32_t count = regex->getCaptureCount();
  _groups.reserve(static_cast<size_t>(count));
  for (int32_t i = 1; i <= count; ++i) {
    const int start = offsets[2 * i];
    const int end = offsets[2 * i + 1];
    if (start == -1) {
      _groups.emplace_back(nullptr, 0);
    } else {
      _groups.emplace_back(subject + start, static_cast<size_t>(end - start));
    }
  }
}

void RegexMatch::reset() {
  _valid = false;
  _regex = nullptr;
  _subject = nullptr;
  _groups.clear();
  _match.assign(nullptr, 0);
}

const StrSegment& RegexMatch::getGroup(size_t n) const {
  if (n == 0) return _match;
  if (n - 1 >= _groups.size()) {
    Str message;
    message.format("IndexOutOfBounds Exception: idx = %u, size = %u",
                   static_cast<unsigned>(n - 1), static_cast<unsigned>(_groups.size()));
    throw RegexException(message);
  }
  return _groups[n - 1];
}

const StrSegment* RegexMatch::_participating(size_t n) const {
  if (n >= _groups.size() || _groups[n].data() == nullptr) return nullptr;
  return &_groups[n];
}

bool RegexMatch::fetch(size_t n, StrSegment* out) const {
  const StrSegment* group = _participating(n);
  if (group == nullptr) {
    out->assign(nullptr, 0);
    return false;
  }
  *out = *group;
  return true;
}

bool RegexMatch::fetch(size_t n, Str* out) const {
  const StrSegment* group = _participating(n);
  if (group == nullptr) {
    out->clear();
    return false;
  }
  out->assign(group->data(), group->size());
  return true;
}

bool RegexMatch::_parse_unsigned_val(const StrSegment& segment, unsigned long long* out,
                                     unsigned long long max) {
  if (segment.data() == nullptr) return false;
  const char* p = segment.data();
  const char* const end = p + segment.size();
  while (p != end && isBlank(*p)) ++p;
  if (p == end || *p < '0' || *p > '9') return false;
  *out = static_cast<unsigned long long>(*p - '0');
  ++p;
  const unsigned long long limit = max / 10;
  for (; p != end && *p >= '0' && *p <= '9'; ++p) {
    if (*out > limit) return false;
    // A value of 9 or less after a further digit means a leading zero ("05")
    // or an overflow that wrapped around.
    *out = *out * 10 + static_cast<unsigned long long>(*p - '0');
    if (*out <= 9) return false;
  }
  while (p != end && isBlank(*p)) ++p;
  return p == end;
}

bool RegexMatch::_do_signed_fetch(size_t n, long long* out, size_t bytes) const {
  kassert(bytes >= 1 && bytes <= 8);
  const StrSegment* group = _participating(n);
  if (group == nullptr) return false;
  StrSegment text = group->trim(StrSegment::default_trimchars, true, false);
  if (text.empty()) return false;
  const unsigned long long power = 1ULL << (8 * bytes - 1);
  unsigned long long value = 0;
  if (text[0] == '-') {
    if (!_parse_unsigned_val(text.substr(1), &value, power)) return false;
    *out = static_cast<long long>(0ULL - value);
  } else {
    if (!_parse_unsigned_val(text, &value, power - 1)) return false;
    *out = static_cast<long long>(value);
  }
  return true;
}

template <class T>
bool RegexMatch::_fetchSigned(size_t n, T* out) const {
  long long value = 0;
  if (!_do_signed_fetch(n, &value, sizeof(T))) return false;
  *out = static_cast<T>(value);
  return true;
}

template <class T>
bool RegexMatch::_fetchUnsigned(size_t n, T* out) const {
  const StrSegment* group = _participating(n);
  if (group == nullptr) return false;
  unsigned long long value = 0;
  if (!_parse_unsigned_val(*group, &value, std::numeric_limits<T>::max())) return false;
  *out = static_cast<T>(value);
  return true;
}

bool RegexMatch::fetch(size_t n, short* out) const { return _fetchSigned(n, out); }
bool RegexMatch::fetch(size_t n, int* out) const { return _fetchSigned(n, out); }
bool RegexMatch::fetch(size_t n, long* out) const { return _fetchSigned(n, out); }
bool RegexMatch::fetch(size_t n, long long* out) const { return _fetchSigned(n, out); }
bool RegexMatch::fetch(size_t n, unsigned short* out) const { return _fetchUnsigned(n, out); }
bool RegexMatch::fetch(size_t n, unsigned* out) const { return _fetchUnsigned(n, out); }
bool RegexMatch::fetch(size_t n, unsigned long* out) const { return _fetchUnsigned(n, out); }
bool RegexMatch::fetch(size_t n, unsigned long long* out) const {
  return _fetchUnsigned(n, out);
}

void RegexMatch::getAllGroups(std::map<Str, Str>& out) const {
  if (_regex == nullptr) return;
  out.clear();
  for (const auto& [name, number] : _regex->getNameMap()) {
    const StrSegment* group = _participating(static_cast<size_t>(number) - 1);
    if (group != nullptr) out[name] = Str(*group);
  }
}

void RegexMatch::getAllGroups(std::map<Str, StrSegment>& out) const {
  if (_regex == nullptr) return;
  out.clear();
  for (const auto& [name, number] : _regex->getNameMap()) {
    const StrSegment* group = _participating(static_cast<size_t>(number) - 1);
    if (group != nullptr) out[name] = *group;
  }
}
