#include "util/LogConfig.h"

#include <algorithm>
#include <cstring>

#include "util/CaselessCompare.h"
#include "util/LogAppender.h"
#include "util/LogChannel.h"
#include "util/LogConfigFile.h"
#include "util/LogFormat.h"
#include "util/LogLevel.h"

namespace {

bool isBlank(char c) { return c == ' ' || c == '\t'; }

size_t skipBlanks(const Str& s, size_t pos) {
  while (pos < s.size() && isBlank(s[pos])) ++pos;
  return pos;
}

void cutTrailingBlanks(Str& s) {
  size_t end = s.size();
  while (end > 0 && isBlank(s[end - 1])) --end;
  s.resize(end);
}

// The key and name words end at any of these.
constexpr const char* KEY_END = "=. \t";

// Keys may carry this prefix from the format's origins; it says nothing, and
// the rest of the key is read as if it stood alone.
constexpr const char* DROPPED_KEY_PREFIX = "log4cpp.";

}  // namespace

LogConfigReader::LogConfigReader(const char* section, const std::map<Str, Pathname>& variables)
    : _section(section),
      _variables(variables),
      _sectionActive(true),
      _haveRoot(false),
      _root{Pathname(), 0, Str(), Str()} {}

Pathname LogConfigReader::localCompanion(const Pathname& config) {
  const size_t slash = config.rfind(Pathname::SEP);
  const size_t leafStart = slash == Str::npos ? 0 : slash + 1;
  const size_t dot = config.rfind('.');
  if (dot == Str::npos || dot < leafStart) return config + "-local";
  Pathname out(config.substr(0, dot));
  out.append("-local");
  out.append(config, dot, Str::npos);
  return out;
}

bool LogConfigReader::readFile(const Pathname& path) {
  Str text;
  if (!readLogConfigFile(path, &text)) return false;
  readText(path, text);
  return true;
}

void LogConfigReader::readText(const Pathname& file, const Str& text) {
  _sectionActive = true;
  bool inComment = false;
  unsigned commentStart = 0;
  unsigned lineNumber = 0;
  size_t pos = 0;
  while (pos < text.size()) {
    size_t end = text.find('\n', pos);
    if (end == Str::npos) end = text.size();
    Str raw(text, pos, end - pos);
    pos = end + 1;
    ++lineNumber;
    if (!raw.empty() && raw.back() == '\r') raw.pop_back();

    const size_t hash = raw.find('#');
    if (hash != Str::npos) raw.resize(hash);
    cutTrailingBlanks(raw);

    Str line;
    size_t i = 0;
    while (i < raw.size()) {
      if (inComment) {
        const size_t close = raw.find("-->", i);
        if (close == Str::npos) break;
        inComment = false;
        i = close + 3;
      } else {
        const size_t open = raw.find("<!--", i);
        if (open == Str::npos) {
          line.append(raw, i, Str::npos);
          break;
        }
        line.append(raw, i, open - i);
        inComment = true;
        commentStart = lineNumber;
        i = open + 4;
      }
    }
    line.erase(0, skipBlanks(line, 0));
    cutTrailingBlanks(line);
    if (line.empty()) continue;
    parseLine(file, lineNumber, line);
  }
  if (inComment) _errors.push_back({file, commentStart, Str(), true});
}

void LogConfigReader::parseLine(const Pathname& file, unsigned lineNumber, const Str& asRead) {
  if (asRead[0] == '[') {
    const size_t close = asRead.find(']');
    if (close == Str::npos) {
      addError(file, lineNumber, asRead);
      return;
    }
    if (_section != nullptr) {
      const Str name(asRead, 1, close - 1);
      _sectionActive =
          mem_compare_caseless(name.data(), name.size(), _section, std::strlen(_section)) == 0;
    }
    return;
  }
  if (!_sectionActive) return;
  if (asRead.startswith(DROPPED_KEY_PREFIX)) {
    parseKey(file, lineNumber, Str(asRead, std::strlen(DROPPED_KEY_PREFIX)), asRead);
    return;
  }
  parseKey(file, lineNumber, asRead, asRead);
}

void LogConfigReader::parseKey(const Pathname& file, unsigned lineNumber, const Str& line,
                               const Str& asRead) {

  const size_t keyEnd = std::min(line.find_first_of(KEY_END), line.size());
  const Str word(line, 0, keyEnd);
  const char next = keyEnd < line.size() ? line[keyEnd] : '\0';

  if (word == "rootCategory") {
    const size_t eq = skipBlanks(line, keyEnd);
    if (eq >= line.size() || line[eq] != '=') {
      addError(file, lineNumber, asRead);
      return;
    }
    _root = {file, lineNumber, Str(line, eq + 1, Str::npos), asRead};
    _haveRoot = true;
    return;
  }
  if (word == "category" && next == '.') {
    _categories.push_back({file, lineNumber, Str(line, keyEnd + 1, Str::npos), asRead});
    return;
  }
  if (word == "appender" && next == '.') {
    const size_t nameStart = keyEnd + 1;
    const size_t nameEnd = std::min(line.find_first_of(KEY_END, nameStart), line.size());
    if (nameEnd == nameStart) {
      addError(file, lineNumber, asRead);
      return;
    }
    LogAppender* appender = LogAppender::find(Str(line, nameStart, nameEnd - nameStart), true);
    if (nameEnd < line.size() && line[nameEnd] == '.') {
      const size_t attrStart = nameEnd + 1;
      const size_t attrEnd = std::min(line.find_first_of("= \t", attrStart), line.size());
      const size_t eq = skipBlanks(line, attrEnd);
      if (attrEnd == attrStart || eq >= line.size() || line[eq] != '=') {
        addError(file, lineNumber, asRead);
        return;
      }
      const Str value(line, skipBlanks(line, eq + 1), Str::npos);
      if (!appender->setAttribute(Str(line, attrStart, attrEnd - attrStart), value, _variables)) {
        addError(file, lineNumber, asRead);
      }
      return;
    }
    // A bare "appender.name =" names the appender and sets nothing.
    const size_t eq = skipBlanks(line, nameEnd);
    if (eq >= line.size() || line[eq] != '=') addError(file, lineNumber, asRead);
    return;
  }
  addError(file, lineNumber, asRead);
}

void LogConfigReader::addError(const Pathname& file, unsigned line, const Str& text) {
  _errors.push_back({file, line, text, false});
}

void LogConfigReader::applyChannels() {
  if (_haveRoot && !LogChannel::root().setConfig(_root.value.c_str())) {
    addError(_root.file, _root.line, _root.text);
  }
  for (const Stored& c : _categories) {
    const size_t eq = c.value.find('=');
    if (eq == Str::npos) {
      addError(c.file, c.line, c.text);
      continue;
    }
    Str name(c.value, 0, eq);
    cutTrailingBlanks(name);
    if (name.empty() ||
        !LogChannel::find(name)->setConfig(c.value.c_str() + eq + 1)) {
      addError(c.file, c.line, c.text);
    }
  }
}

void LogConfigReader::reportErrors() const {
  for (const Error& e : _errors) {
    if (e.unterminatedComment) {
      LogFormat::internal(nullptr, LOGLEVEL_ERROR, "%s:%u: Unterminated XML comment started",
                          e.file.c_str(), e.line);
    } else {
      LogFormat::internal(nullptr, LOGLEVEL_WARN, "%s:%u: Parse error at \"%s\"", e.file.c_str(),
                          e.line, e.text.c_str());
    }
  }
}
