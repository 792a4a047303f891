#include "libbundle/UsernameMapper.h"

namespace {

const Str RESERVED("_encoded");

bool isSafeChar(unsigned char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
         c == '-' || c == '.' || c == '@';
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

}  // namespace

const Str& UsernameMapper::getReservedUsername() { return RESERVED; }

bool UsernameMapper::isSafeUsername(const Str& user) const {
  if (user.empty() || user.front() == '.') return false;
  if (User(user).isSameUser(User(RESERVED))) return false;
  for (char c : user) {
    if (!isSafeChar(static_cast<unsigned char>(c))) return false;
  }
  return true;
}

Str UsernameMapper::getSafeUsername(const Str& user) const {
  static const char* const kHex = "0123456789abcdef";
  Str folded(user);
  folded.toLowercase();
  Str out = RESERVED + "/u";
  for (char c : folded) {
    const unsigned char b = static_cast<unsigned char>(c);
    out.push_back(kHex[b >> 4]);
    out.push_back(kHex[b & 15]);
  }
  return out;
}

bool UsernameMapper::getRealUsername(const Str& safe, User& out) const {
  StrSegment text(safe);
  const Str prefix = RESERVED + "/";
  if (text.startswith(StrSegment(prefix))) text = StrSegment(safe.data() + prefix.size(), safe.size() - prefix.size());
  if (text.size() < 3 || text[0] != 'u' || (text.size() - 1) % 2 != 0) return false;
  Str name;
  for (size_t i = 1; i < text.size(); i += 2) {
    const int hi = hexValue(text[i]);
    const int lo = hexValue(text[i + 1]);
    if (hi < 0 || lo < 0) return false;
    name.push_back(static_cast<char>(hi * 16 + lo));
  }
  out = User(name);
  return true;
}
