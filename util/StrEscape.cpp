// Str's escaping schemes: one per use (search terms, list elements, CSV,
// log lines, URIs), each with its own rules. The paths that find nothing to
// do leave the string untouched, since most text needs nothing.
#include <array>
#include <cstdio>

#include "util/Str.h"
#include "util/StrVector.h"
#include "util/Utf8.h"

namespace {

constexpr char HEX_UPPER[] = "0123456789ABCDEF";

constexpr CharacterClass URI_UNRESERVED(
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_.~");
// Bytes that makeSafeForLogging keeps as they are: printable ASCII.
constexpr CharacterClass printableAscii() {
  CharacterClass cc(false);
  for (int c = 0x20; c <= 0x7E; ++c) cc.set(static_cast<char>(c), true);
  return cc;
}
constexpr CharacterClass LOG_SAFE = printableAscii();

// URI table, one entry per byte value: the byte when unreserved, else %HH.
struct UriTable {
  std::array<Str, 256> entries;
  UriTable() {
    for (int b = 0; b < 256; ++b) {
      if (URI_UNRESERVED.contains(static_cast<unsigned char>(b))) {
        entries[b] = Str(1, static_cast<char>(b));
      } else {
        entries[b].format("%%%02X", b);
      }
    }
  }
};
const UriTable URI_TABLE;

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// The log-safe spelling of one byte, or null when it stays as it is.
const char* unsafeByteSpelling(unsigned char b, char* buf) {
  if (LOG_SAFE.contains(b)) return nullptr;
  if (b == '\n') return "\\n";
  if (b == '\r') return "\\r";
  if (b == '\t') return " ";
  buf[0] = '\\';
  buf[1] = 'x';
  buf[2] = HEX_UPPER[b >> 4];
  buf[3] = HEX_UPPER[b & 15];
  buf[4] = '\0';
  return buf;
}

}  // namespace

void Str::makeSafeForLogging() {
  size_type i = find_first_not_of(LOG_SAFE);
  if (i == npos) return;
  char buf[5];
  Str out;
  out.reserve(size() + 16);
  out.std::string::append(data(), i);
  for (; i < size(); ++i) {
    const char* spelling = unsafeByteSpelling(static_cast<unsigned char>((*this)[i]), buf);
    if (spelling == nullptr) {
      out.push_back((*this)[i]);
    } else {
      out.std::string::append(spelling);
    }
  }
  swap(out);
}

void Str::appendUriEncodedTo(Str& out) const {
  for (char c : *this) out.std::string::append(URI_TABLE.entries[static_cast<unsigned char>(c)]);
}

Str Str::asUriEncoded() const {
  Str out;
  out.reserve(size());
  appendUriEncodedTo(out);
  return out;
}

void Str::uriEncode() {
  if (find_first_not_of(URI_UNRESERVED) == npos) return;
  Str out = asUriEncoded();
  swap(out);
}

bool Str::uriDecode() {
  if (find_first_of("%+") == npos) return mem_is_valid_utf8(data(), size());
  Str out;
  out.reserve(size());
  for (size_type i = 0; i < size(); ++i) {
    const char c = (*this)[i];
    if (c == '+') {
      out.push_back(' ');
    } else if (c == '%' && i + 2 < size() && hexValue((*this)[i + 1]) >= 0 &&
               hexValue((*this)[i + 2]) >= 0) {
      out.push_back(static_cast<char>(hexValue((*this)[i + 1]) * 16 + hexValue((*this)[i + 2])));
      i += 2;
    } else {
      out.push_back(c);
    }
  }
  if (!mem_is_valid_utf8(out.data(), out.size())) return false;
  swap(out);
  return true;
}

void Str::appendAsCSV(const StrSegment& seg) {
  if (seg.find_first_of(",\r\n\"") == StrSegment::npos) {
    append(seg);
    return;
  }
  reserve(size() + seg.size() + 2 + seg.count_char('"'));
  push_back('"');
  for (char c : seg) {
    if (c == '"') push_back('"');
    push_back(c);
  }
  push_back('"');
}

Str Str::asEscaped(const CharacterClass& cc, char esc) const {
  Str out;
  out.reserve(size() + count_char(cc));
  for (char c : *this) {
    if (cc.contains(c)) out.push_back(esc);
    out.push_back(c);
  }
  return out;
}

Str Str::asEscapedSearchTerm(bool forceQuote) const {
  const bool needsEscapes = find_first_not_of(CharacterClass::ALPHA_NUM_UNDER) != npos;
  if (!empty() && !needsEscapes && !forceQuote) return *this;
  Str out;
  out.reserve(size() + 2);
  out.push_back('"');
  out += needsEscapes ? asEscaped(CharacterClass::SEARCH_ESC, '\\') : *this;
  out.push_back('"');
  return out;
}

void Str::unescapeSearchTerm() {
  if (empty() || front() != '"') return;
  stripQuotes('"');
  size_type w = 0;
  for (size_type r = 0; r < size(); ++r) {
    const char c = (*this)[r];
    if (c == '\\' && r + 1 < size() && ((*this)[r + 1] == '\\' || (*this)[r + 1] == '"')) {
      (*this)[w++] = (*this)[++r];
    } else {
      (*this)[w++] = c;
    }
  }
  resize(w);
}

void Str::encodeListElement(const Str& element, char sep) {
  reserve(size() + element.size() + 1);
  for (char c : element) {
    if (c == '\n') {
      std::string::append("\\n");
    } else if (c == '\r') {
      std::string::append("\\r");
    } else {
      if (c == '\\' || c == sep) push_back('\\');
      push_back(c);
    }
  }
  if (sep != '\0') push_back(sep);
}

void Str::encodeStrVec(const StrVector& vec, char sep) {
  clear();
  for (const Str& element : vec) encodeListElement(element, sep);
}

Str::size_type Str::decodeStrVec(StrVector& target, char sep) const {
  target.clear();
  Str element;
  for (size_type i = 0; i < size(); ++i) {
    char c = (*this)[i];
    if (c == '\\' && i + 1 < size()) {
      c = (*this)[++i];
      element.push_back(c == 'n' ? '\n' : c == 'r' ? '\r' : c);
    } else if (c == sep) {
      target.push_back(std::move(element));
      element.clear();
    } else {
      element.push_back(c);
    }
  }
  return target.size();
}

void Str::encodeStrMap(const std::map<Str, Str>& map, char sep) {
  StrVector flat;
  flat.reserve(map.size() * 2);
  for (const auto& [key, value] : map) {
    flat.push_back(key);
    flat.push_back(value);
  }
  encodeStrVec(flat, sep);
}

bool Str::decodeStrMap(std::map<Str, Str>& map, char sep) const {
  map.clear();
  StrVector flat;
  if (decodeStrVec(flat, sep) % 2 != 0) return false;
  for (size_t i = 0; i < flat.size(); i += 2) map[flat[i]] = std::move(flat[i + 1]);
  return true;
}
