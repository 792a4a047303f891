#include "framework/PipelineDataMetaKey.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <strings.h>
#include <type_traits>

#include "framework/PipelineInputChannel.h"
#include "util/Assert.h"
#include "util/ExtraTimevalParseInfo.h"
#include "util/StrMem.h"
#include "util/Timeval.h"
#include "util/Utf8.h"

static_assert(std::is_trivially_copyable_v<HashedStrReference> &&
              sizeof(HashedStrReference) == sizeof(uint64_t));

namespace {

const size_t MAX_PUNCT_KEPT = 50;

uint64_t refBits(HashedStrReference ref) {
  uint64_t bits;
  std::memcpy(&bits, &ref, sizeof bits);
  return bits;
}

HashedStrReference refFromBits(uint64_t bits) {
  HashedStrReference ref = HashedStr::EMPTY_STR;
  std::memcpy(static_cast<void*>(&ref), &bits, sizeof bits);
  return ref;
}

bool isPunct(unsigned char c) {
  static const char* const PUNCT = " ,;-#$%&+./:=?@'|*(){}<>[]^!\t\r\"\\";
  return c != 0 && std::strchr(PUNCT, c) != nullptr;
}

bool isCapital(char c) { return c >= 'A' && c <= 'Z'; }
bool needsEscape(char c) { return c == ' ' || c == '"' || c == '\\'; }
bool isDigit(char c) { return c >= '0' && c <= '9'; }

// Flags for text: `capital` and `escape` bits, the scan stopping once both
// are found.
uint32_t scanFlags(const char* bytes, size_t length, uint32_t capital, uint32_t escape) {
  uint32_t flags = 0;
  for (size_t i = 0; i < length && flags != (capital | escape); i++) {
    if (isCapital(bytes[i])) flags |= capital;
    if (needsEscape(bytes[i])) flags |= escape;
  }
  return flags;
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

void appendCodepoint(Str* out, uint32_t codepoint) {
  if (codepoint < 0x80) {
    out->push_back(static_cast<char>(codepoint));
    return;
  }
  utf8_character_buffer buf;
  buf._set(codepoint);
  out->append(buf.data(), buf.size());
}

// One "%HH" at p, or -1.
int urlByte(const char* p, const char* end) {
  if (end - p < 3 || *p != '%') return -1;
  int hi = hexValue(p[1]), lo = hexValue(p[2]);
  return hi < 0 || lo < 0 ? -1 : hi * 16 + lo;
}

// "+" is a space; "%HH" runs that make one whole UTF-8 character are that
// character; anything else, a bad or partial escape included, stays text.
void interpret_urlescaper(Str* out, const char* p, const char* end) {
  while (p != end) {
    if (*p == '+') {
      out->push_back(' ');
      p++;
      continue;
    }
    int lead = urlByte(p, end);
    if (lead < 0) {
      out->push_back(*p++);
      continue;
    }
    size_t need = lead < 0x80 ? 1 : lead >= 0xC2 && lead <= 0xF4 ? utf8_char_len(lead) : 0;
    char bytes[4];
    size_t got = 0;
    for (const char* q = p; got < need; q += 3) {
      int b = urlByte(q, end);
      if (b < 0 || (got > 0 && (b & 0xC0) != 0x80)) break;
      bytes[got++] = static_cast<char>(b);
    }
    if (need == 0 || got < need || !mem_is_valid_utf8(bytes, got)) {
      out->push_back(*p++);  // the "%" stands; its digits follow as text
      continue;
    }
    out->append(bytes, got);
    p += 3 * got;
  }
}

// "&#NNN;", "&#xHH;" (to 0x10FFFF) and the five names in any case, at most
// five name characters; any other "&" stays text.
void interpret_xmlescaper(Str* out, const char* p, const char* end) {
  static const struct { const char* name; char c; } NAMES[] = {
      {"lt", '<'}, {"gt", '>'}, {"amp", '&'}, {"quot", '"'}, {"apos", '\''}};
  while (p != end) {
    if (*p != '&') {
      out->push_back(*p++);
      continue;
    }
    const char* semi = static_cast<const char*>(std::memchr(p, ';', std::min<size_t>(end - p, 12)));
    bool done = false;
    if (semi != nullptr && semi - p >= 2) {
      const char* body = p + 1;
      size_t len = static_cast<size_t>(semi - body);
      if (body[0] == '#') {
        bool hex = len > 1 && (body[1] == 'x' || body[1] == 'X');
        const char* d = body + (hex ? 2 : 1);
        uint64_t v = 0;
        bool ok = d != semi;
        for (; d != semi && ok; d++) {
          int digit = hex ? hexValue(*d) : (isDigit(*d) ? *d - '0' : -1);
          ok = digit >= 0 && (v = v * (hex ? 16 : 10) + static_cast<uint64_t>(digit)) <= 0x10FFFF;
        }
        if (ok) {
          appendCodepoint(out, static_cast<uint32_t>(v));
          done = true;
        }
      } else if (len <= 5) {
        for (const auto& n : NAMES) {
          if (std::strlen(n.name) == len && strncasecmp(n.name, body, len) == 0) {
            out->push_back(n.c);
            done = true;
            break;
          }
        }
      }
    }
    if (done) {
      p = semi + 1;
    } else {
      out->push_back(*p++);
    }
  }
}

// Reads up to `maxDigits` digits of `base` at p; false when none is there.
bool readDigits(const char*& p, const char* end, int base, size_t maxDigits, uint64_t* value) {
  uint64_t v = 0;
  size_t n = 0;
  for (; p != end && n < maxDigits; p++, n++) {
    int d = hexValue(*p);
    if (d < 0 || d >= base) break;
    v = v * static_cast<uint64_t>(base) + static_cast<uint64_t>(d);
  }
  *value = v;
  return n != 0;
}

// Exactly `count` hexadecimal digits at p, to at most 0x10FFFF.
bool readHexExactly(const char*& p, const char* end, size_t count, uint32_t* codepoint) {
  if (static_cast<size_t>(end - p) < count) return false;
  const char* q = p;
  uint64_t v;
  if (!readDigits(q, p + count, 16, count, &v) || q != p + count || v > 0x10FFFF) return false;
  p = q;
  *codepoint = static_cast<uint32_t>(v);
  return true;
}

// One escape after a backslash at p (p past the backslash). Returns false,
// consuming nothing, when the escape fails and the backslash is text.
bool interpretOneCEscape(Str* out, const char*& p, const char* end) {
  const char c = *p;
  const char* q = p + 1;
  uint64_t v = 0;
  uint32_t cp = 0;
  switch (c) {
    case '\n':
      break;
    case '\r':
      if (q != end && *q == '\n') q++;
      break;
    case '0': case '1': case '2': case '3': case '4': case '5': case '6': case '7':
      q = p;
      readDigits(q, end, 8, c == '0' ? 4 : c <= '3' ? 3 : 2, &v);
      appendCodepoint(out, static_cast<uint32_t>(v));
      break;
    case 'L': appendCodepoint(out, 0x2028); break;
    case 'N': appendCodepoint(out, 0x85); break;
    case 'P': appendCodepoint(out, 0x2029); break;
    case '_': appendCodepoint(out, 0xA0); break;
    case 'a': out->push_back(7); break;
    case 'b': out->push_back(8); break;
    case 'e': out->push_back(27); break;
    case 'f': out->push_back(12); break;
    case 'n': out->push_back(10); break;
    case 'r': out->push_back(13); break;
    case 't': out->push_back(9); break;
    case 'v': out->push_back(11); break;
    case 'c':
      if (q == end) return false;
      out->push_back(*q == '?' ? 127 : static_cast<char>(*q & 0x1F));
      q++;
      break;
    case 'x':
      if (!readDigits(q, end, 16, 2, &v)) return false;
      appendCodepoint(out, static_cast<uint32_t>(v));
      break;
    case 'u':
    case 'U':
      if (!readHexExactly(q, end, c == 'u' ? 4 : 8, &cp)) return false;
      if (cp >= 0xD800 && cp <= 0xDBFF) {
        // Joined with a following low surrogate; alone it stands as text.
        const char* r = q;
        uint32_t low = 0;
        if (end - r < 2 || r[0] != '\\' || r[1] != 'u') return false;
        r += 2;
        if (!readHexExactly(r, end, 4, &low) || low < 0xDC00 || low > 0xDFFF) return false;
        cp = 0x10000 + ((cp - 0xD800) << 10) + (low - 0xDC00);
        q = r;
      }
      appendCodepoint(out, cp);
      break;
    default:
      if (std::isalnum(static_cast<unsigned char>(c))) return false;
      out->push_back(c);
      break;
  }
  p = q;
  return true;
}

// C backslash escapes; a failed escape leaves its backslash as text.
void interpret_cescaper(Str* out, const char* p, const char* end) {
  while (p != end) {
    if (*p != '\\' || p + 1 == end) {
      out->push_back(*p++);
      continue;
    }
    p++;
    if (!interpretOneCEscape(out, p, end)) out->push_back('\\');
  }
}

const char CDATA_OPEN[] = "<![CDATA[";
const size_t CDATA_OPEN_LEN = sizeof CDATA_OPEN - 1;

// The end of the CDATA section opening at p (past its "]]>"), or null when
// p opens none or it never closes.
const char* find_end_of_cdata(const char* p, const char* end) {
  if (static_cast<size_t>(end - p) < CDATA_OPEN_LEN || std::memcmp(p, CDATA_OPEN, CDATA_OPEN_LEN) != 0) {
    return nullptr;
  }
  StrSegment body(p + CDATA_OPEN_LEN, static_cast<size_t>(end - p) - CDATA_OPEN_LEN);
  size_t close = body.find("]]>");
  return close == StrSegment::npos ? nullptr : body.data() + close + 3;
}

// XML entities outside CDATA sections, section bodies as they stand.
void interpret_xmlescaper_w_cdata(Str* out, const char* p, const char* end) {
  const char* text = p;
  while (p != end) {
    const char* open = static_cast<const char*>(std::memchr(p, '<', static_cast<size_t>(end - p)));
    if (open == nullptr) break;
    const char* after = find_end_of_cdata(open, end);
    if (after == nullptr) {
      p = open + 1;
      continue;
    }
    interpret_xmlescaper(out, text, open);
    out->append(open + CDATA_OPEN_LEN, static_cast<size_t>(after - 3 - open) - CDATA_OPEN_LEN);
    p = text = after;
  }
  interpret_xmlescaper(out, text, end);
}

bool keyHasSeparator(StrSegment key) {
  const char* colon = static_cast<const char*>(std::memchr(key.data(), ':', key.size()));
  return colon != nullptr && (key.endswith(':') || key.find("::") != StrSegment::npos);
}

void appendQuoted(Str* out, const char* bytes, size_t length) {
  out->push_back('"');
  for (size_t i = 0; i < length; i++) {
    if (bytes[i] == '"' || bytes[i] == '\\') out->push_back('\\');
    out->push_back(bytes[i]);
  }
  out->push_back('"');
}

void appendMaybeQuoted(Str* out, const char* bytes, size_t length, bool quote) {
  if (quote) {
    appendQuoted(out, bytes, length);
  } else {
    out->append(bytes, length);
  }
}

// The table of predefined strings, sorted by hash, made once.
struct PredefinedTable {
  std::vector<const HashedStr*> byHash;
  const HashedStr* months[13];
  const HashedStr* weekdays[8];

  PredefinedTable() {
    static const char* const NAMES[] = {
        "_subsecond", "date_second", "date_minute", "date_hour", "date_year", "date_month",
        "date_mday", "date_wday", "date_zone", "invalid", "sunday", "monday", "tuesday",
        "wednesday", "thursday", "friday", "saturday", "january", "february", "march", "april",
        "may", "june", "july", "august", "september", "october", "november", "december", "local",
        "-60", "-120", "-180", "-240", "-300", "-360", "-420", "-480", "-540", "-600", "-660",
        "punct", "timestartpos", "timeendpos", "signedSource", "blockSignature", "_indextime"};
    for (const char* name : NAMES) byHash.push_back(new HashedStr(name));
    for (int i = 0; i < 12; i++) months[i] = byHash[17 + i];
    months[12] = byHash[9];
    for (int i = 0; i < 7; i++) weekdays[i] = byHash[10 + i];
    weekdays[7] = byHash[9];
    std::sort(byHash.begin(), byHash.end(),
              [](const HashedStr* a, const HashedStr* b) { return a->hash() < b->hash(); });
  }

  const HashedStr* find(const char* text, size_t length) const {
    uint64_t hash = djb2_hash(text, length);
    auto it = std::lower_bound(byHash.begin(), byHash.end(), hash,
                               [](const HashedStr* s, uint64_t h) { return s->hash() < h; });
    for (; it != byHash.end() && (*it)->hash() == hash; ++it) {
      if ((*it)->length() == length && std::memcmp((*it)->data(), text, length) == 0) return *it;
    }
    return nullptr;
  }
};

const PredefinedTable& predefined() {
  static const PredefinedTable* table = new PredefinedTable;
  return *table;
}

// Is a plain key (not numbered) equal to `name`?
bool hasPlainKey(const PipelineDataMetaKeyAtom& atom, const char* name) {
  return !atom.keyIsNumber() && atom.keyRef() == name;
}

}  // namespace

namespace {

// The escaped type `wanted` only if `bytes` hold something it would change,
// else plain raw text.
uint32_t typeNeededFor(uint32_t wanted, StrSegment bytes) {
  const char* trigger = nullptr;
  switch (wanted) {
    case PDMKD_RAW_OFFSETLEN_REPEAT_DBLQUOTE: trigger = "\""; break;
    case PDMKD_RAW_OFFSETLEN_REPEAT_SNGLQUOTE: trigger = "'"; break;
    case PDMKD_RAW_OFFSETLEN_CESCAPING: trigger = "\\"; break;
    case PDMKD_RAW_OFFSETLEN_URLESCAPING: trigger = "+%"; break;
    case PDMKD_RAW_OFFSETLEN_XMLESCAPING: trigger = "&"; break;
    case PDMKD_RAW_OFFSETLEN_XMLESCAPING_W_CDATA: {
      bool amp = false;
      for (size_t i = 0; i < bytes.size(); i++) {
        if (bytes[i] == '&') amp = true;
        if (bytes[i] == '<' && find_end_of_cdata(bytes.data() + i, bytes.data() + bytes.size())) {
          return PDMKD_RAW_OFFSETLEN_XMLESCAPING_W_CDATA;
        }
      }
      return amp ? PDMKD_RAW_OFFSETLEN_XMLESCAPING : PDMKD_RAW_OFFSETLEN;
    }
    default: return wanted;
  }
  return bytes.find_first_of(trigger) == StrSegment::npos ? PDMKD_RAW_OFFSETLEN : wanted;
}

}  // namespace

// ---- Atom ----

void PipelineDataMetaKeyAtom::_setKey(HashedStrReference key) { _key = refBits(key); }

void PipelineDataMetaKeyAtom::_setString(HashedStrReference value) {
  _value = refBits(value);
  _blk.flags = (_blk.flags & ~PDMKD_FLAG_TYPEBITS) | PDMKD_STRING;
}

HashedStrReference PipelineDataMetaKeyAtom::keyRef() const {
  kassert(!keyIsNumber());
  return refFromBits(_key);
}

StrSegment PipelineDataMetaKeyAtom::key(const PipelineInputChannel* channel) const {
  if (keyIsNumber()) {
    kassert(channel != nullptr && keyNumber() < channel->numberedFieldNames().size());
    return StrSegment(channel->numberedFieldNames()[keyNumber()]);
  }
  HashedStrReference ref = refFromBits(_key);
  return StrSegment(ref.data(), ref.length());
}

StrSegment PipelineDataMetaKeyAtom::valueAsRawOffsetlen(StrSegment raw) const {
  kassert(valueType() <= PDMKD_RAW_OFFSETLEN_URLESCAPING);
  size_t offset = _value >> 32;
  size_t length = _value & 0xFFFFFFFFu;
  kassert(offset + length <= raw.size());
  return StrSegment(raw.data() + offset, length);
}

HashedStrReference PipelineDataMetaKeyAtom::valueAsString() const {
  kassert(valueType() == PDMKD_STRING);
  return refFromBits(_value);
}

bool PipelineDataMetaKeyAtom::set_to_unsigned(const char* begin, const char* end) {
  if (begin == end) return false;
  if (*begin == '0' && end - begin > 1) return false;
  uint64_t v = 0;
  for (const char* p = begin; p != end; p++) {
    if (!isDigit(*p) || v > 0x1999999999999999ull) return false;
    uint64_t next = v * 10 + static_cast<uint64_t>(*p - '0');
    if (next < v * 10) return false;  // 18446744073709551616 and up wrap here
    v = next;
  }
  _value = v;
  _blk.flags = (_blk.flags & ~(PDMKD_FLAG_TYPEBITS | PDMKD_FLAG_VALUE_NEEDS_ESCAPE |
                               PDMKD_FLAG_VALUE_HAS_CAPITAL)) |
               PDMKD_UNSIGNED;
  return true;
}

bool PipelineDataMetaKeyAtom::set_to_subsecond(const char* begin, const char* end,
                                               uint64_t* encoded) {
  uint64_t code;
  if (!PipelineDataMetaKey::encodeSubseconds(begin, end, &code)) return false;
  _value = code;
  _blk.flags = (_blk.flags & ~(PDMKD_FLAG_TYPEBITS | PDMKD_FLAG_VALUE_NEEDS_ESCAPE |
                               PDMKD_FLAG_VALUE_HAS_CAPITAL)) |
               PDMKD_ENCODED_SUBSECONDS;
  *encoded = code;
  return true;
}

void PipelineDataMetaKeyAtom::buildPunct(Str* out, StrSegment raw) {
  size_t kept = 0;
  for (size_t i = 0; i < raw.size() && kept < MAX_PUNCT_KEPT; i++) {
    unsigned char c = static_cast<unsigned char>(raw[i]);
    if (!isPunct(c)) continue;
    kept++;
    if (c == ' ') {
      out->push_back('_');
    } else if (c == '\t') {
      out->push_back('t');
    } else if (c == '\r') {
      out->append("\\r");
    } else {
      out->push_back(static_cast<char>(c));
    }
  }
}

void PipelineDataMetaKeyAtom::appendRawOffsetValueTo(Str* out, uint32_t type, const char* bytes,
                                                     size_t length) {
  if (type == PDMKD_RAW_OFFSETLEN_REPEAT_DBLQUOTE || type == PDMKD_RAW_OFFSETLEN_REPEAT_SNGLQUOTE) {
    char q = type == PDMKD_RAW_OFFSETLEN_REPEAT_DBLQUOTE ? '"' : '\'';
    for (size_t i = 0; i < length; i++) {
      out->push_back(bytes[i]);
      if (bytes[i] == q && i + 1 < length && bytes[i + 1] == q) i++;
    }
    return;
  }
  if (type == PDMKD_RAW_OFFSETLEN_URLESCAPING) {
    interpret_urlescaper(out, bytes, bytes + length);
    return;
  }
  if (type == PDMKD_RAW_OFFSETLEN_XMLESCAPING) {
    interpret_xmlescaper(out, bytes, bytes + length);
    return;
  }
  if (type == PDMKD_RAW_OFFSETLEN_XMLESCAPING_W_CDATA) {
    interpret_xmlescaper_w_cdata(out, bytes, bytes + length);
    return;
  }
  if (type == PDMKD_RAW_OFFSETLEN_CESCAPING) {
    interpret_cescaper(out, bytes, bytes + length);
    return;
  }
  kassert(type == PDMKD_RAW_OFFSETLEN);
  out->append(bytes, length);
}

void PipelineDataMetaKeyAtom::appendTo(Str* out, StrSegment raw,
                                       const PipelineInputChannel* channel) const {
  StrSegment k = key(channel);
  uint32_t keyFlags = _blk.flags;
  if (keyIsNumber()) keyFlags = channel->numberedFieldFlags()[keyNumber()];
  uint32_t type = valueType();
  // An empty key alone would print as nothing and vanish on the way back; a
  // key with "::" or a final ":" would be cut short there.
  bool quoteKey = (keyFlags & PDMKD_FLAG_KEY_NEEDS_ESCAPE) != 0 ||
                  (k.empty() && type == PDMKD_MISSING) || keyHasSeparator(k);
  appendMaybeQuoted(out, k.data(), k.size(), quoteKey);
  if (type == PDMKD_MISSING) return;
  out->append("::");
  switch (type) {
    case PDMKD_STRING: {
      HashedStrReference v = valueAsString();
      appendMaybeQuoted(out, v.data(), v.length(),
                        (_blk.flags & PDMKD_FLAG_VALUE_NEEDS_ESCAPE) != 0);
      break;
    }
    case PDMKD_UNSIGNED:
      out->append(std::to_string(_value));
      break;
    case PDMKD_ENCODED_SUBSECONDS: {
      Str text;
      PipelineDataMetaKey::decodeSubseconds(_value, &text);
      out->append(text);
      break;
    }
    case PDMKD_PUNCT: {
      Str punct;
      buildPunct(&punct, raw);
      for (char c : punct) {
        if (c == '"' || c == '\\') out->push_back('\\');
        out->push_back(c);
      }
      break;
    }
    default: {
      StrSegment v = valueAsRawOffsetlen(raw);
      if (type == PDMKD_RAW_OFFSETLEN) {
        // Whether to quote is known from the scan at add time.
        appendMaybeQuoted(out, v.data(), v.size(),
                          (_blk.flags & PDMKD_FLAG_VALUE_NEEDS_ESCAPE) != 0);
      } else {
        Str text;
        appendRawOffsetValueTo(&text, type, v.data(), v.size());
        appendMaybeQuoted(out, text.data(), text.size(),
                          scanFlags(text.data(), text.size(), 0, 1) != 0);
      }
      break;
    }
  }
}

bool PipelineDataMetaKeyAtom::asIndexableToken(st_token_answer* answer, StrSegment raw,
                                               const PipelineInputChannel* channel) const {
  Str token(key(channel));
  uint32_t type = valueType();
  if (type != PDMKD_MISSING) {
    token.append("::");
    switch (type) {
      case PDMKD_STRING: {
        HashedStrReference v = valueAsString();
        token.append(v.data(), v.length());
        break;
      }
      case PDMKD_UNSIGNED:
        token.append(std::to_string(_value));
        break;
      case PDMKD_ENCODED_SUBSECONDS:
        PipelineDataMetaKey::decodeSubseconds(_value, &token);
        break;
      case PDMKD_PUNCT:
        buildPunct(&token, raw);
        break;
      default: {
        StrSegment v = valueAsRawOffsetlen(raw);
        appendRawOffsetValueTo(&token, type, v.data(), v.size());
        break;
      }
    }
  }
  answer->length = 0;
  if (token.size() > sizeof answer->bytes) return false;
  std::memcpy(answer->bytes, token.data(), token.size());
  answer->length = token.size();
  return true;
}

void PipelineDataMetaKeyAtom::appendToEndingInQuote(Str* out, StrSegment raw,
                                                    const PipelineInputChannel* channel) const {
  kassert((_blk.flags & PDMKD_FLAG_ENDED_UNQUOTED) != 0);
  uint32_t type = valueType();
  PipelineDataMetaKeyAtom forced = *this;
  switch (type) {
    case PDMKD_STRING:
      forced._blk.flags |= PDMKD_FLAG_VALUE_NEEDS_ESCAPE;
      forced.appendTo(out, raw, channel);
      out->pop_back();
      break;
    case PDMKD_MISSING:
      kassert(!keyIsNumber());
      forced._blk.flags |= PDMKD_FLAG_KEY_NEEDS_ESCAPE;
      forced.appendTo(out, raw, channel);
      out->pop_back();
      break;
    case PDMKD_UNSIGNED:
    case PDMKD_ENCODED_SUBSECONDS: {
      // The open quote goes before the number: key::"123
      Str text;
      forced._blk.flags &= ~PDMKD_FLAG_ENDED_UNQUOTED;
      forced.appendTo(&text, raw, channel);
      size_t sep = text.rfind("::");
      text.insert(sep + 2, 1, '"');
      out->append(text);
      break;
    }
    default:
      kassert(type == PDMKD_STRING || type == PDMKD_MISSING || type == PDMKD_UNSIGNED);
  }
}

// ---- Meta key ----

PipelineDataMetaKey::PipelineDataMetaKey(const PipelineDataMetaKey& other)
    : _atoms(other._atoms),
      _encodedSubseconds(other._encodedSubseconds),
      _vflags(other._vflags) {
  clone_strings();
}

PipelineDataMetaKey& PipelineDataMetaKey::operator=(const PipelineDataMetaKey& other) {
  if (&other == this) return *this;
  PipelineDataMetaKey copy(other);
  _atoms.swap(copy._atoms);
  _pool.swap(copy._pool);
  _encodedSubseconds = copy._encodedSubseconds;
  _vflags = copy._vflags;
  return *this;
}

HashedStrReference PipelineDataMetaKey::alloc_hashed_str(const char* text, size_t length) {
  if (const HashedStr* p = predefined().find(text, length)) return *p;
  return _pool.create(text, length);
}

uint32_t PipelineDataMetaKey::extra_flags_for_key_name(const char* bytes, size_t length) {
  return scanFlags(bytes, length, PDMKD_FLAG_KEY_HAS_CAPITAL, PDMKD_FLAG_KEY_NEEDS_ESCAPE);
}

void PipelineDataMetaKey::set_string_val(PipelineDataMetaKeyAtom* atom, const char* bytes,
                                         size_t length) {
  bool allDigits = length != 0;
  for (size_t i = 0; i < length && allDigits; i++) allDigits = isDigit(bytes[i]);
  if (allDigits && atom->set_to_unsigned(bytes, bytes + length)) return;
  atom->_blk.flags &= ~(PDMKD_FLAG_VALUE_HAS_CAPITAL | PDMKD_FLAG_VALUE_NEEDS_ESCAPE);
  atom->_blk.flags |=
      scanFlags(bytes, length, PDMKD_FLAG_VALUE_HAS_CAPITAL, PDMKD_FLAG_VALUE_NEEDS_ESCAPE);
  atom->_setString(alloc_hashed_str(bytes, length));
}

PipelineDataMetaKeyAtom& PipelineDataMetaKey::add_datum_for_key(StrSegment key, uint32_t type) {
  kassert(type <= PDMKD_MISSING);
  PipelineDataMetaKeyAtom atom;
  atom._setKey(alloc_hashed_str(key.data(), key.size()));
  atom._blk.flags = type | extra_flags_for_key_name(key.data(), key.size());
  _atoms.push_back(atom);
  return _atoms.back();
}

void PipelineDataMetaKey::addUnsigned(StrSegment key, uint64_t value) {
  add_datum_for_key(key, PDMKD_UNSIGNED)._value = value;
}

void PipelineDataMetaKey::addString(StrSegment key, StrSegment value) {
  set_string_val(&add_datum_for_key(key, PDMKD_MISSING), value.data(), value.size());
}

void PipelineDataMetaKey::addMissing(StrSegment key) { add_datum_for_key(key, PDMKD_MISSING); }

void PipelineDataMetaKey::appendRawOffsetLen(StrSegment key, StrSegment raw, size_t offset,
                                             size_t length, uint32_t type) {
  kassert(type <= PDMKD_RAW_OFFSETLEN_URLESCAPING);
  kassert(offset + length <= raw.size() && offset <= 0xFFFFFFFFu && length <= 0xFFFFFFFFu);
  PipelineDataMetaKeyAtom& atom = add_datum_for_key(key, PDMKD_MISSING);
  const char* bytes = raw.data() + offset;
  bool allDigits = length != 0;
  for (size_t i = 0; i < length && allDigits; i++) allDigits = isDigit(bytes[i]);
  if (allDigits && atom.set_to_unsigned(bytes, bytes + length)) return;
  atom._blk.flags |=
      scanFlags(bytes, length, PDMKD_FLAG_VALUE_HAS_CAPITAL, PDMKD_FLAG_VALUE_NEEDS_ESCAPE);
  if (length == 0) offset = 0;
  // Escaped forms cost an unescape at print time only where an escape is.
  type = typeNeededFor(type, StrSegment(bytes, length));
  atom._value = (static_cast<uint64_t>(offset) << 32) | length;
  atom._blk.flags = (atom._blk.flags & ~PDMKD_FLAG_TYPEBITS) | type;
  _vflags |= VFLAG_HAS_RAW_REFERENCES;
}

void PipelineDataMetaKey::appendRawOffsetLenCEscaped(StrSegment key, StrSegment raw, size_t offset,
                                                     size_t length) {
  appendRawOffsetLen(key, raw, offset, length, PDMKD_RAW_OFFSETLEN_CESCAPING);
}

void PipelineDataMetaKey::appendRawOffsetLenCsvEscaped(StrSegment key, StrSegment raw,
                                                       size_t offset, size_t length) {
  appendRawOffsetLen(key, raw, offset, length, PDMKD_RAW_OFFSETLEN_REPEAT_DBLQUOTE);
}

void PipelineDataMetaKey::appendRawOffsetLenUrlEscaped(StrSegment key, StrSegment raw,
                                                       size_t offset, size_t length) {
  appendRawOffsetLen(key, raw, offset, length, PDMKD_RAW_OFFSETLEN_URLESCAPING);
}

void PipelineDataMetaKey::appendRawOffsetLenXmlEscaped(StrSegment key, StrSegment raw,
                                                       size_t offset, size_t length) {
  appendRawOffsetLen(key, raw, offset, length, PDMKD_RAW_OFFSETLEN_XMLESCAPING);
}

void PipelineDataMetaKey::appendRawOffsetLenXmlEscapedWCdata(StrSegment key, StrSegment raw,
                                                             size_t offset, size_t length) {
  appendRawOffsetLen(key, raw, offset, length, PDMKD_RAW_OFFSETLEN_XMLESCAPING_W_CDATA);
}

void PipelineDataMetaKey::appendRawOffsetLen(uint32_t keyNumber,
                                             const PipelineInputChannel* channel, StrSegment raw,
                                             size_t offset, size_t length) {
  kassert(keyNumber < channel->numberedFieldNames().size());
  appendRawOffsetLen(StrSegment(), raw, offset, length);
  PipelineDataMetaKeyAtom& atom = _atoms.back();
  atom._key = keyNumber;
  atom._blk.flags = (atom._blk.flags & ~(PDMKD_FLAG_KEY_HAS_CAPITAL | PDMKD_FLAG_KEY_NEEDS_ESCAPE)) |
                    PDMKD_FLAG_KEY_IS_NUMBER;
  _vflags |= VFLAG_USES_KEYS_IN_CHANNEL;
}

void PipelineDataMetaKey::addMetaTimeInfo(const Timeval* time, const ExtraTimevalParseInfo* info) {
  const int level = info->subsecDigits;
  if (level < -2) return;
  if (level > 0) {
    appendEncodedSubseconds(time->encodedSubseconds(static_cast<unsigned long>(std::min(level, 9))));
  }
  if (level >= 0) addUnsigned("date_second", static_cast<uint64_t>(info->second));
  if (level >= -1) {
    addUnsigned("date_hour", static_cast<uint64_t>(info->hour));
    addUnsigned("date_minute", static_cast<uint64_t>(info->minute));
  }
  const PredefinedTable& table = predefined();
  auto index = [](int32_t value, int32_t invalid) {
    return value < 0 || value > invalid ? invalid : value;
  };
  addString("date_year", std::to_string(info->year));
  const HashedStr* month = table.months[index(info->month, 12)];
  addString("date_month", StrSegment(month->data(), month->length()));
  addUnsigned("date_mday", static_cast<uint64_t>(info->mday));
  const HashedStr* wday = table.weekdays[index(info->wday, 7)];
  addString("date_wday", StrSegment(wday->data(), wday->length()));
  if (!info->timezoneKnown) {
    addString("date_zone", "local");
  } else {
    // Negative whole hours to -11 are predefined; the others cost a string.
    addString("date_zone", std::to_string(info->tzOffset / 60));
  }
}

void PipelineDataMetaKey::addTimeStartEndPos(uint64_t start, uint64_t end) {
  addUnsigned("timestartpos", start);
  addUnsigned("timeendpos", end);
}

void PipelineDataMetaKey::appendPunct() {
  add_datum_for_key("punct", PDMKD_PUNCT);
  _vflags |= VFLAG_HAS_PUNCT;
}

void PipelineDataMetaKey::appendEncodedSubseconds(uint64_t value) {
  add_datum_for_key("_subsecond", PDMKD_ENCODED_SUBSECONDS)._value = value;
  _encodedSubseconds = value;
}

void PipelineDataMetaKey::addBlockSignature(StrSegment raw, StrSegment signature) {
  addString("signedSource", raw);
  addString("blockSignature", signature);
  for (size_t i = _atoms.size() - 2; i < _atoms.size(); i++) {
    _atoms[i]._blk.flags = (_atoms[i]._blk.flags & PDMKD_FLAG_TYPEBITS) == PDMKD_STRING
                               ? (_atoms[i]._blk.flags | PDMKD_FLAG_KEY_HAS_CAPITAL)
                               : _atoms[i]._blk.flags;
  }
}

bool PipelineDataMetaKey::encodeSubseconds(const char* begin, const char* end, uint64_t* code) {
  if (begin == end || *begin != '.' || end - begin == 1) return false;
  const char* p = begin + 1;
  unsigned zeros = 0;
  for (; p != end && *p == '0'; p++) {
    if (++zeros >= 64) return false;
  }
  if (p == end) {
    *code = uint64_t{1} << zeros;
    return true;
  }
  uint64_t v = 0;
  for (; p != end; p++) {
    if (!isDigit(*p) || v > 0xCCCCCCCCCCCCCCCull) return false;
    v = v * 10 + static_cast<uint64_t>(*p - '0');
  }
  if (v >= (uint64_t{1} << 63) || v > (0x7FFFFFFFFFFFFFFFull >> zeros)) return false;
  *code = (2 * v + 1) << zeros;
  return true;
}

void PipelineDataMetaKey::decodeSubseconds(uint64_t code, Str* out) {
  out->push_back('.');
  if (code == 0) return;
  for (; (code & 1) == 0; code >>= 1) out->push_back('0');
  if (code > 1) out->append(std::to_string(code >> 1));
}

void PipelineDataMetaKey::parse(const char* begin, const char* end) {
  Str buf;
  buf.reserve(64);
  const char* p = begin;
  while (p != end) {
    while (p != end && *p == ' ') p++;
    if (p == end) break;
    bool quoted = false;
    if (*p == '"') {
      quoted = true;
      if (++p == end) break;
    }
    PipelineDataMetaKeyAtom atom;
    uint32_t flags = 0;
    bool inValue = false;
    bool nonDigit = false;
    buf.clear();
    while (p != end) {
      char c = *p;
      uint32_t escapeFlag = inValue ? PDMKD_FLAG_VALUE_NEEDS_ESCAPE : PDMKD_FLAG_KEY_NEEDS_ESCAPE;
      if (c == '"') {
        quoted = !quoted;
        p++;
        continue;
      }
      if (c == ' ' && !quoted) break;
      if (!inValue && !quoted && c == ':' && p + 1 != end && p[1] == ':') {
        atom._setKey(alloc_hashed_str(buf.data(), buf.size()));
        buf.clear();
        inValue = true;
        p += 2;
        continue;
      }
      if (c == '\\') {
        flags |= escapeFlag;
        if (p + 1 != end && (p[1] == '"' || p[1] == '\\')) {
          c = *++p;
        } else if (p + 1 != end) {
          // Any other escaped byte is kept together with its backslash, so
          // an escaped space stays inside the atom.
          buf.push_back(c);
          if (inValue) nonDigit = true;
          c = *++p;
          if (isCapital(c)) {
            flags |= inValue ? PDMKD_FLAG_VALUE_HAS_CAPITAL : PDMKD_FLAG_KEY_HAS_CAPITAL;
          }
        }
        // A lone closing backslash is kept as text.
        if (inValue && !isDigit(c)) nonDigit = true;
        buf.push_back(c);
        p++;
        continue;
      }
      if (c == ' ') flags |= escapeFlag;
      if (isCapital(c)) flags |= inValue ? PDMKD_FLAG_VALUE_HAS_CAPITAL : PDMKD_FLAG_KEY_HAS_CAPITAL;
      if (inValue && !isDigit(c)) nonDigit = true;
      buf.push_back(c);
      p++;
    }
    if (quoted) flags |= PDMKD_FLAG_ENDED_UNQUOTED;
    if (!inValue) {
      // Like a lone opening quote, an open quote around nothing is nothing.
      if (buf.empty() && quoted) break;
      atom._setKey(alloc_hashed_str(buf.data(), buf.size()));
      atom._blk.flags = flags | PDMKD_MISSING;
      _atoms.push_back(atom);
      continue;
    }
    atom._blk.flags = flags | PDMKD_STRING;
    uint64_t encoded;
    if (!buf.empty() && !nonDigit && atom.set_to_unsigned(buf.data(), buf.data() + buf.size())) {
      // stored as a number
    } else if (nonDigit && atom.keyRef() == "_subsecond" &&
               atom.set_to_subsecond(buf.data(), buf.data() + buf.size(), &encoded)) {
      _encodedSubseconds = encoded;
    } else {
      atom._setString(alloc_hashed_str(buf.data(), buf.size()));
    }
    _atoms.push_back(atom);
  }
}

void PipelineDataMetaKey::appendTo(Str* out, StrSegment raw,
                                   const PipelineInputChannel* channel) const {
  for (size_t i = 0; i < _atoms.size(); i++) {
    if (i != 0) out->push_back(' ');
    const PipelineDataMetaKeyAtom& atom = _atoms[i];
    if (i + 1 == _atoms.size() && (atom.flags() & PDMKD_FLAG_ENDED_UNQUOTED) != 0) {
      atom.appendToEndingInQuote(out, raw, channel);
    } else {
      atom.appendTo(out, raw, channel);
    }
  }
}

bool PipelineDataMetaKey::getTimeLocation(unsigned long* start, unsigned long* length,
                                          StrSegment raw) const {
  const PipelineDataMetaKeyAtom* s = nullptr;
  const PipelineDataMetaKeyAtom* e = nullptr;
  for (const PipelineDataMetaKeyAtom& atom : _atoms) {
    if (atom.valueType() != PDMKD_UNSIGNED) continue;
    if (hasPlainKey(atom, "timestartpos")) s = &atom;
    if (hasPlainKey(atom, "timeendpos")) e = &atom;
  }
  if (s == nullptr || e == nullptr || e->valueAsUnsigned() <= s->valueAsUnsigned()) return false;
  uint64_t startByte = s->valueAsUnsigned();
  uint64_t endByte = e->valueAsUnsigned();
  if (endByte > raw.size()) return false;
  uint64_t chars = 0, startChar = 0;
  bool sawStart = false;
  size_t i = 0;
  while (true) {
    if (i == startByte) {
      startChar = chars;
      sawStart = true;
    }
    if (i == endByte) break;
    if (i > endByte || i >= raw.size()) return false;
    unsigned char c = static_cast<unsigned char>(raw[i]);
    size_t width = 1;
    if (c >= 0xC2 && c <= 0xDF) {
      width = 2;
    } else if (c >= 0xE0 && c <= 0xEF) {
      width = 3;
    } else if (c >= 0xF0 && c <= 0xF4) {
      width = 4;
    } else if (c >= 0x80) {
      return false;
    }
    i += width;
    chars++;
  }
  if (!sawStart) return false;
  *start = startChar;
  *length = chars - startChar;
  return true;
}

bool PipelineDataMetaKey::removeIndexTime(StrSegment raw, Str* found) {
  for (auto it = _atoms.begin(); it != _atoms.end(); ++it) {
    if (!hasPlainKey(*it, "_indextime")) continue;
    found->clear();
    it->appendTo(found, raw, nullptr);
    _atoms.erase(it);
    return true;
  }
  return false;
}

void PipelineDataMetaKey::clone_strings() {
  HashedStrMap_KeyPool pool;
  auto copy = [&pool](HashedStrReference ref) {
    return ref.isPermanent() ? ref : pool.create(ref.data(), ref.length(), ref.hash());
  };
  for (PipelineDataMetaKeyAtom& atom : _atoms) {
    if (!atom.keyIsNumber()) atom._setKey(copy(atom.keyRef()));
    if (atom.valueType() == PDMKD_STRING) atom._value = refBits(copy(atom.valueAsString()));
  }
  _pool.swap(pool);
}

void PipelineDataMetaKey::_rawHasChanged(StrSegment raw) {
  std::vector<PipelineDataMetaKeyAtom> kept;
  for (PipelineDataMetaKeyAtom& atom : _atoms) {
    if (hasPlainKey(atom, "timestartpos") || hasPlainKey(atom, "timeendpos")) continue;
    uint32_t type = atom.valueType();
    Str text;
    if (type == PDMKD_PUNCT) {
      kassert(atom._blk.flags == PDMKD_PUNCT);
      PipelineDataMetaKeyAtom::buildPunct(&text, raw);
    } else if (type <= PDMKD_RAW_OFFSETLEN_URLESCAPING) {
      StrSegment v = atom.valueAsRawOffsetlen(raw);
      PipelineDataMetaKeyAtom::appendRawOffsetValueTo(&text, type, v.data(), v.size());
    } else {
      kept.push_back(atom);
      continue;
    }
    atom._blk.flags &= ~(PDMKD_FLAG_VALUE_HAS_CAPITAL | PDMKD_FLAG_VALUE_NEEDS_ESCAPE);
    atom._blk.flags |=
        scanFlags(text.data(), text.size(), PDMKD_FLAG_VALUE_HAS_CAPITAL, PDMKD_FLAG_VALUE_NEEDS_ESCAPE);
    atom._setString(alloc_hashed_str(text.data(), text.size()));
    kept.push_back(atom);
  }
  _atoms.swap(kept);
  _vflags &= ~(VFLAG_HAS_PUNCT | VFLAG_HAS_RAW_REFERENCES);
}

void PipelineDataMetaKey::_channelIsAboutToChange(const PipelineInputChannel* channel) {
  for (PipelineDataMetaKeyAtom& atom : _atoms) {
    if (!atom.keyIsNumber()) continue;
    StrSegment name = atom.key(channel);
    atom._setKey(alloc_hashed_str(name.data(), name.size()));
    atom._blk.flags = (atom._blk.flags & ~PDMKD_FLAG_KEY_IS_NUMBER) |
                      extra_flags_for_key_name(name.data(), name.size());
  }
  _vflags &= ~VFLAG_USES_KEYS_IN_CHANNEL;
}
