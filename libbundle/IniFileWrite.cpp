// IniFile's way back to disk: the writing of the text and the atomic
// rewrite through a temporary file.
#include "libbundle/IniFile.h"

#include <unistd.h>

#include <cerrno>

#include "util/ConditionWaitTimeout.h"
#include "util/Logger.h"
#include "util/PathnameOpResult.h"
#include "util/WritableUnicodeFileStar.h"

namespace {

Logger gLogger("IniFile");

constexpr unsigned RENAME_ATTEMPTS = 20;
constexpr ConditionWaitTimeout RENAME_WAIT(0, 100 * 1000 * 1000);

// The characters of a key that would read as something else on the way back.
bool needsEscapeInKey(char c) { return c == '=' || c == '[' || c == '\\'; }

// "key = value", with the key escaped and both trimmed.
Str settingLine(const Str& key, const Str& value) {
  const StrSegment trimmedKey = StrSegment(key).trim();
  const StrSegment trimmedValue = StrSegment(value).trim();
  Str line;
  line.reserve(trimmedKey.size() + trimmedValue.size() + 4);
  for (char c : trimmedKey) {
    if (needsEscapeInKey(c)) line.push_back('\\');
    line.push_back(c);
  }
  if (!line.endswith(' ')) line.push_back(' ');
  line.push_back('=');
  if (!trimmedValue.startswith(' ')) line.push_back(' ');
  line.append(trimmedValue);
  return line;
}

}  // namespace

bool IniFile::iniwrite(WritableUnicodeFileStar& out, const Str& text, unsigned flags) {
  if ((flags & INIWRITE_ESCAPE_NEWLINES) == 0 || text.find_first_of("\r\n") == Str::npos) {
    if (!out.put(text)) return false;
    return (flags & INIWRITE_NEWLINE) == 0 || out.put("\n", 1);
  }
  Str escaped;
  escaped.reserve(text.size() + 8);
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '\r' || c == '\n') escaped.push_back('\\');
    escaped.push_back(c);
    if (c == '\r' && i + 1 < text.size() && text[i + 1] == '\n') escaped.push_back(text[++i]);
  }
  if ((flags & INIWRITE_NEWLINE) != 0) escaped.push_back('\n');
  return out.put(escaped);
}

bool IniFile::flushToPath(const Pathname& path) {
  if (fileEncodingKind(_encoding) < FILE_ENCODING_UTF8) {
    _encoding = (_encoding & ~FILE_ENCODING_KIND_MASK) | FILE_ENCODING_UTF8;
  }
  ScopedFileStar file(path, "w");
  if (!file.valid()) {
    gLogger.error("Cannot open tmp file: %s: %m", path.c_str());
    return false;
  }
  WritableUnicodeFileStar out(file, _encoding);
  if (!out.valid()) {
    errno = EINVAL;
    gLogger.error("Cannot open unicode-translated tmp file: %s: %m", path.c_str());
    return false;
  }

  const unsigned LINE = INIWRITE_NEWLINE;
  const unsigned ITEM = INIWRITE_ESCAPE_NEWLINES | INIWRITE_NEWLINE;
  bool ok = true;
  for (const Str& line : _fileHeaderLines) ok = iniwrite(out, line, LINE) && ok;
  bool firstStanza = true;
  Str header;
  for (auto st = _stanzas.begin(); st != _stanzas.end(); ++st) {
    const IniStanza& stanza = st.value();
    for (const Str& line : stanza.comments()) ok = iniwrite(out, line, LINE) && ok;
    if (!firstStanza && stanza.comments().empty()) ok = iniwrite(out, Str::EMPTY_STR, LINE) && ok;
    firstStanza = false;
    header.clear();
    header.push_back('[');
    header.append(st.key());
    header.push_back(']');
    ok = iniwrite(out, header, ITEM) && ok;
    for (auto s = stanza.settings().begin(); s != stanza.settings().end(); ++s) {
      for (const Str& line : s.value().comments()) ok = iniwrite(out, line, LINE) && ok;
      ok = iniwrite(out, settingLine(s.key(), s.value().value()), ITEM) && ok;
    }
  }
  for (const Str& line : _fileTrailerLines) ok = iniwrite(out, line, LINE) && ok;
  if (!out.flush() || !ok || !file.close()) {
    gLogger.error("Cannot flush tmp file: %s: %m", path.c_str());
    return false;
  }
  return true;
}

bool IniFile::flush() {
  if (_path.empty()) {
    gLogger.error("No destination set for IniFile flush");
    return false;
  }
  Pathname tmp(_path);
  tmp.appendFormat(".%ld.tmp", static_cast<long>(getpid()));
  if (!flushToPath(tmp)) {
    gLogger.error("Error while writing to: %s", _path.c_str());
    tmp.unlink();
    return false;
  }
  const PathnameOpResult result = tmp.renameToRetry(_path, RENAME_ATTEMPTS, RENAME_WAIT);
  if (!result._success) {
    gLogger.error("Cannot rename %s to %s: %s", tmp.c_str(), _path.c_str(),
                  result.toString().c_str());
    return false;
  }
  gLogger.log(result._attempts < 2 ? LOGLEVEL_INFO : LOGLEVEL_WARN, "Renamed %s to %s: %s",
              tmp.c_str(), _path.c_str(), result.toString().c_str());
  return true;
}
