#include "libbundle/IniFileParser.h"

#include "util/Logger.h"

namespace {

Logger gLogger("IniFile");

// What a blank line may hold.
constexpr const char* BLANK_CHARS = " \t\r\n";

}  // namespace

IniFileParser::IniFileParser(FileStar file, const Pathname& path)
    : ReadableUnicodeFileStar(file), _path(path), _isSpec(path.ext() == "spec") {}

Str IniFileParser::getCurrentLineNumberDebugStr() const {
  Str s(_path);
  s.append(", line ");
  s.append_unsignedlonglong(_lineNumber);
  return s;
}

bool IniFileParser::headerToStanza(const Str& line, unsigned long first, Str& name) {
  const size_t close = line.rfind(']');
  if (close == Str::npos || close < first) {
    gLogger.warn() << getCurrentLineNumberDebugStr() << ": Stanza header is missing terminator: "
                   << line;
    name.assign(line, first + 1, Str::npos);
    return false;
  }
  name.assign(line, first + 1, close - first - 1);
  return true;
}

IniFileParser::LineType IniFileParser::getLineType(Str& line, Str& name, Str& value) {
  if (!readline(line)) {
    line.clear();
    return LINE_EOF;
  }
  ++_lineNumber;
  const size_t first = line.find_first_not_of(BLANK_CHARS);
  if (first == Str::npos) return LINE_BLANK;
  if (line[first] == ';' || line[first] == '#') return LINE_COMMENT;

  Str next;
  while (line.back() == '\\') {
    line.back() = '\n';
    if (!readline(next)) break;
    ++_lineNumber;
    line.append(next);
  }
  if (line[first] == '[') {
    headerToStanza(line, first, name);
    return LINE_HEADER;
  }

  for (size_t i = 0; i < line.size(); ++i) {
    if (line[i] == '\\') {
      line.erase(i, 1);
      // The escaped character is the line's last: the line ends on the
      // escape, and no "=" can follow.
      if (i + 1 >= line.size()) {
        gLogger.warn() << getCurrentLineNumberDebugStr()
                       << ": Cannot end on an escape character: " << line;
        break;
      }
    } else if (line[i] == '=') {
      name.assign(line, 0, i);
      value.assign(line, i + 1, Str::npos);
      return LINE_SETTING;
    }
  }
  if (!_isSpec) {
    gLogger.warn() << getCurrentLineNumberDebugStr() << ": Cannot parse into key-value pair: "
                   << line;
  }
  return LINE_BLANK;
}
