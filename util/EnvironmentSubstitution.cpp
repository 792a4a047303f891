#include "util/EnvironmentSubstitution.h"

#include <cstdlib>
#include <functional>

namespace {

bool isNameStart(char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_'; }

bool isNameChar(char c) { return isNameStart(c) || (c >= '0' && c <= '9'); }

// The length of the name that starts at `i`, 0 when none starts there.
size_t nameLength(const StrSegment& in, size_t i) {
  if (i >= in.size() || !isNameStart(in.data()[i])) return 0;
  size_t j = i + 1;
  while (j < in.size() && isNameChar(in.data()[j])) ++j;
  return j - i;
}

void appendValueOf(const char* name, size_t len, Str& out) {
  const Str key(name, len);
  if (const char* value = std::getenv(key.c_str())) out.append(value);
}

}  // namespace

size_t substituteEnvironmentVariables(const StrSegment& in, Str& out) {
  const std::less<const char*> before;
  if (in.size() > 0 && !before(in.data(), out.data()) &&
      before(in.data(), out.data() + out.capacity())) {
    // `in` views out's own bytes, which clearing would destroy.
    const Str copy(in);
    return substituteEnvironmentVariables(copy, out);
  }
  out.clear();
  out.reserve(in.size());
  size_t replaced = 0;
  const char* const data = in.data();
  size_t i = 0;
  while (i < in.size()) {
    if (data[i] != '$') {
      out.push_back(data[i++]);
      continue;
    }
    if (const size_t len = nameLength(in, i + 1)) {
      appendValueOf(data + i + 1, len, out);
      i += 1 + len;
      ++replaced;
      continue;
    }
    if (i + 1 < in.size() && data[i + 1] == '{') {
      const size_t len = nameLength(in, i + 2);
      if (len > 0 && i + 2 + len < in.size() && data[i + 2 + len] == '}') {
        appendValueOf(data + i + 2, len, out);
        i += 3 + len;
        ++replaced;
        continue;
      }
    }
    out.push_back(data[i++]);
  }
  return replaced;
}
