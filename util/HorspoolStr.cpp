#include "util/HorspoolStr.h"

#include <cstring>

void HorspoolStr::init(const char* needle) {
  _needle = needle != nullptr ? needle : "";
  _len = std::strlen(_needle);
  std::memset(_skip, _len > 255 ? 255 : static_cast<int>(_len), sizeof _skip);
  const size_t first = _len > 256 ? _len - 256 : 0;
  for (size_t i = first; i + 1 < _len; ++i) {
    _skip[static_cast<unsigned char>(_needle[i])] = static_cast<unsigned char>(_len - i - 1);
  }
}

size_t HorspoolStr::findIn(const StrSegment& haystack, size_t start) const {
  const size_t hlen = haystack.size();
  // start + _len - 1 >= hlen, written so that a huge start cannot wrap.
  if (_len == 0 || start >= hlen || _len > hlen - start) return StrSegment::npos;
  const char* const text = haystack.data();
  const char last = _needle[_len - 1];
  for (size_t pos = start; pos + _len <= hlen;) {
    const char probe = text[pos + _len - 1];
    if (probe == last && std::memcmp(text + pos, _needle, _len - 1) == 0) return pos;
    pos += _skip[static_cast<unsigned char>(probe)];
  }
  return StrSegment::npos;
}
