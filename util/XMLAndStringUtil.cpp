#include "util/XMLAndStringUtil.h"

#include <cstring>

#include "util/CharacterClass.h"
#include "util/Utf8.h"

namespace {

constexpr CharacterClass BLANKS(" \t\r\n");
constexpr char CDATA_OPEN[] = "<![CDATA[";
constexpr char CDATA_CLOSE[] = "]]>";

void appendHexByte(Str& out, unsigned char c) { out.appendFormat("\\x%02X", c); }

// The bytes xmlEscape changes; runs of the others are copied whole.
const CharacterClass& bytesToEscape() {
  static const CharacterClass kSet = [] {
    CharacterClass cc(false);
    for (int c = 0; c < 0x20; ++c) cc.set(static_cast<char>(c), true);
    cc.set("\t\n\r", false);
    cc.set("\"&'<>", true);
    return cc;
  }();
  return kSet;
}

void openKey(Str& out, const char* indent, const char* name) {
  out.append(indent).append("<key name=\"");
  XMLAndStringUtil::xmlEscapeString(out, name);
  out.append("\">");
}

void jsonString(Str& out, const Str& s) {
  out.push_back('"');
  XMLAndStringUtil::jsonEscape(out, s);
  out.push_back('"');
}

void jsonName(Str& out, const char* name) {
  jsonString(out, Str(name));
  out.append(": ");
}

}  // namespace

void XMLAndStringUtil::xmlEscape(Str& out, char c) {
  switch (c) {
    case '"':
      out.append("&quot;");
      return;
    case '&':
      out.append("&amp;");
      return;
    case '\'':
      out.append("&apos;");
      return;
    case '<':
      out.append("&lt;");
      return;
    case '>':
      out.append("&gt;");
      return;
    case '\t':
    case '\n':
    case '\r':
      out.push_back(c);
      return;
    default:
      break;
  }
  const unsigned char u = static_cast<unsigned char>(c);
  if (u < 0x20) {
    appendHexByte(out, u);
  } else {
    out.push_back(c);
  }
}

void XMLAndStringUtil::xmlEscapeString(Str& out, StrSegment in) {
  const CharacterClass& special = bytesToEscape();
  const char* p = in.data();
  const char* end = p + in.size();
  out.reserve(out.size() + in.size());
  while (p < end) {
    const char* run = p;
    while (p < end && !special.contains(*p)) ++p;
    out.append(run, static_cast<size_t>(p - run));
    if (p < end) xmlEscape(out, *p++);
  }
}

Str XMLAndStringUtil::xmlEscapeString(StrSegment in) {
  Str out;
  xmlEscapeString(out, in);
  return out;
}

void XMLAndStringUtil::utf8XmlEscape(Str& out, StrSegment in) {
  const char* p = in.data();
  const char* end = p + in.size();
  out.reserve(out.size() + in.size());
  while (p < end) {
    const unsigned char lead = static_cast<unsigned char>(*p);
    if (lead < 0x80) {
      xmlEscape(out, *p++);
      continue;
    }
    const size_t want = utf8_char_len(lead);
    if (want > 1 && static_cast<size_t>(end - p) >= want && mem_is_valid_utf8(p, want)) {
      out.append(p, want);
      p += want;
    } else {
      appendHexByte(out, lead);
      ++p;
    }
  }
}

void XMLAndStringUtil::jsonEscape(Str& out, Str const& in) {
  const size_t n = in.size();
  out.reserve(out.size() + n);
  for (size_t i = 0; i < n; ++i) {
    const unsigned char c = static_cast<unsigned char>(in[i]);
    switch (c) {
      case '\f':
        out.append("\\f");
        continue;
      case '\t':
        out.append("\\t");
        continue;
      case '\n':
        out.append("\\n");
        continue;
      case '"':
        out.append("\\\"");
        continue;
      case '\\':
        out.append("\\\\");
        continue;
      default:
        break;
    }
    // U+2028 and U+2029 are legal in JSON but end a line in JavaScript.
    if (c == 0xE2 && i + 2 < n && in[i + 1] == '\x80' && (in[i + 2] == '\xA8' || in[i + 2] == '\xA9')) {
      out.append(in[i + 2] == '\xA8' ? "\\u2028" : "\\u2029");
      i += 2;
    } else if (c < 0x20) {
      out.appendFormat("\\u%04hx", static_cast<unsigned short>(c));
    } else {
      out.push_back(static_cast<char>(c));
    }
  }
}

bool XMLAndStringUtil::removeCDATATags(Str& text) {
  const size_t openLen = sizeof(CDATA_OPEN) - 1;
  const size_t closeLen = sizeof(CDATA_CLOSE) - 1;
  bool removed = false;
  for (size_t from = 0;;) {
    const size_t open = text.find(CDATA_OPEN, from);
    if (open == Str::npos) break;
    const size_t close = text.find(CDATA_CLOSE, open + openLen);
    if (close == Str::npos) break;
    text.erase(close, closeLen);
    text.erase(open, openLen);
    from = close - openLen;
    removed = true;
  }
  return removed;
}

void XMLAndStringUtil::toRegex(Str& pattern, bool) {
  Str out;
  out.reserve(pattern.size() + 8);
  for (size_t i = 0; i < pattern.size(); ++i) {
    const char c = pattern[i];
    if (c == '.' && pattern.compare(i, 3, "...") == 0) {
      out.append(".*");
      i += 2;
    } else if (c == '.') {
      out.append("\\.");
    } else if (c == '*') {
      out.append("[^/]*");
    } else {
      out.push_back(c);
    }
  }
  pattern.swap(out);
}

void XMLAndStringUtil::xmlOutput(Str& out, char const* name, Str const& value) {
  openKey(out, "", name);
  xmlEscapeString(out, value);
  out.append("</key>\n");
}

void XMLAndStringUtil::xmlOutput(Str& out, char const* name, char const* value) {
  xmlOutput(out, name, Str(value));
}

void XMLAndStringUtil::xmlOutput(Str& out, char const* name, bool value) {
  xmlOutput(out, name, Str(value ? "1" : "0"));
}

void XMLAndStringUtil::xmlOutput(Str& out, char const* name, StrVector const& values) {
  openKey(out, "", name);
  out.append("\n\t<list>\n");
  for (const Str& v : values) {
    out.append("\t\t<item>");
    xmlEscapeString(out, v);
    out.append("</item>\n");
  }
  out.append("\t</list>\n</key>\n");
}

void XMLAndStringUtil::xmlOutput(Str& out, char const* name, MapVector const& maps) {
  openKey(out, "", name);
  out.append("\n\t<list>\n");
  for (const auto& map : maps) {
    out.append("\t\t<item>\n\t\t\t<dict>\n");
    for (const auto& [key, value] : map) {
      openKey(out, "\t\t\t\t", key.c_str());
      xmlEscapeString(out, value);
      out.append("</key>\n");
    }
    out.append("\t\t\t</dict>\n\t\t</item>\n");
  }
  out.append("\t</list>\n</key>\n");
}

void XMLAndStringUtil::jsonOutput(Str& out, char const* name, Str const& value) {
  jsonName(out, name);
  jsonString(out, value);
  out.append(",\n");
}

void XMLAndStringUtil::jsonOutput(Str& out, char const* name, char const* value) {
  jsonOutput(out, name, Str(value));
}

void XMLAndStringUtil::jsonOutput(Str& out, char const* name, bool value) {
  jsonName(out, name);
  out.append(value ? "true" : "false").append(",\n");
}

void XMLAndStringUtil::jsonOutput(Str& out, char const* name, StrVector const& values) {
  jsonName(out, name);
  out.push_back('[');
  for (size_t i = 0; i < values.size(); ++i) {
    if (i > 0) out.append(", ");
    jsonString(out, values[i]);
  }
  out.append("],\n");
}

void XMLAndStringUtil::jsonOutput(Str& out, char const* name, MapVector const& maps) {
  jsonName(out, name);
  out.push_back('[');
  for (size_t i = 0; i < maps.size(); ++i) {
    if (i > 0) out.append(", ");
    out.push_back('{');
    bool first = true;
    for (const auto& [key, value] : maps[i]) {
      if (!first) out.append(", ");
      first = false;
      jsonString(out, key);
      out.append(": ");
      jsonString(out, value);
    }
    out.push_back('}');
  }
  out.append("],\n");
}

Str XMLAndStringUtil::join(StrVector const& values, char const* separator) {
  Str out;
  values.joinInto(out, separator);
  return out;
}

void XMLAndStringUtil::liteTokenize(StrSegment text, StrVector& out) {
  text.splitNonEmptyInto(out, BLANKS);
}

bool XMLAndStringUtil::tokenizeString(StrSegment text, StrVector& out) {
  StrVector tokens;
  Str token;
  bool inToken = false;
  const char* p = text.data();
  const char* end = p + text.size();
  while (p < end) {
    const char c = *p++;
    if (c == '"') {
      inToken = true;
      for (;;) {
        if (p == end) return false;
        const char q = *p++;
        if (q == '"') break;
        if (q == '\\') {
          if (p == end) return false;
          token.push_back(*p++);
        } else {
          token.push_back(q);
        }
      }
    } else if (c == '\\' && p < end) {
      token.push_back(c);
      token.push_back(*p++);
      inToken = true;
    } else if (BLANKS.contains(static_cast<unsigned char>(c))) {
      if (inToken) tokens.push_back(std::move(token));
      token.clear();
      inToken = false;
    } else {
      token.push_back(c);
      inToken = true;
    }
  }
  if (inToken) tokens.push_back(std::move(token));
  out.append(tokens);
  return true;
}
