#include "libbundle/IniFile.h"

#include <string_view>
#include <utility>

#include "libbundle/IniFileParser.h"
#include "util/Logger.h"

namespace {

Logger gLogger("IniFile");

// The key without blanks and tabs at either end. Keys are compared on every
// step of a lookup, so this stays a plain scan.
std::string_view trimmedKey(const Str& key) {
  size_t begin = 0;
  size_t end = key.size();
  while (begin < end && (key[begin] == ' ' || key[begin] == '\t')) ++begin;
  while (end > begin && (key[end - 1] == ' ' || key[end - 1] == '\t')) --end;
  return std::string_view(key.data() + begin, end - begin);
}

}  // namespace

const Str IniFile::DEFAULT_STANZA("default");

bool inicmp::operator()(const Str& a, const Str& b) const {
  // std::string_view compares as unsigned bytes, a shorter prefix first.
  return trimmedKey(a) < trimmedKey(b);
}

std::pair<IniStanza::Settings::iterator, bool> IniStanza::insert(const Str& key,
                                                                 const Str& value) {
  return _settings.insert(key, IniSetting(value, StrVector()));
}

void IniStanza::headerRemoveLeadingNewlines() {
  StrVector kept;
  for (Str& line : _comments) {
    if (!line.empty()) kept.push_back(std::move(line));
  }
  _comments.swap(kept);
}

IniFile::IniFile(const Pathname& path) { fromPath(path); }

IniFile::IniFile(FileStar& file, const Pathname& path) : _path(path) { init(file); }

void IniFile::fromPath(const Pathname& path) {
  _path = path;
  ScopedFileStar file(path, "r");
  init(file);
}

void IniFile::init(FileStar& file) {
  _fileHeaderLines.clear();
  _fileTrailerLines.clear();
  _stanzas.clear();
  if (!file.valid()) {
    _opened = false;
    gLogger.error("Cannot open ini file for parsing: %m");
    return;
  }
  _opened = true;

  IniFileParser parser(file, _path);
  Str line, name, value;
  IniFileParser::LineType type;
  while ((type = parser.getLineType(line, name, value)) == IniFileParser::LINE_BLANK ||
         type == IniFileParser::LINE_COMMENT) {
    _fileHeaderLines.push_back(line);
  }

  IniStanza* current = nullptr;
  StrVector pending;
  for (;; type = parser.getLineType(line, name, value)) {
    switch (type) {
      case IniFileParser::LINE_BLANK:
      case IniFileParser::LINE_COMMENT:
        pending.push_back(line);
        break;
      case IniFileParser::LINE_HEADER:
        // A repeated header joins the first occurrence; its comments go.
        current = &_stanzas.insert(name, IniStanza(pending)).first.value();
        pending.clear();
        break;
      case IniFileParser::LINE_SETTING:
        if (current == nullptr) {
          current = &_stanzas.insert(DEFAULT_STANZA, IniStanza()).first.value();
        }
        if (!current->settings().insert(name, IniSetting(value, std::move(pending))).second) {
          gLogger.warn() << parser.getCurrentLineNumberDebugStr()
                         << ": Key used more than once in the same stanza: " << name << ": "
                         << value;
        }
        pending.clear();
        break;
      case IniFileParser::LINE_EOF:
        _fileTrailerLines.swap(pending);
        _encoding = parser.getFileEncoding();
        return;
    }
  }
}

bool IniFile::erase(const Str& name) {
  if (_stanzas.get(name) == nullptr) return false;
  auto first = _stanzas.begin();
  if (first.key() == name) {
    auto follower = first;
    if (++follower != _stanzas.end()) follower.value().headerRemoveLeadingNewlines();
  }
  return _stanzas.erase(name);
}

void IniFile::merge(IniFile& other) {
  for (auto it = other._stanzas.begin(); it != other._stanzas.end(); ++it) {
    IniStanza* mine = _stanzas.get(it.key());
    if (mine == nullptr) {
      _stanzas.insert(it.key(), it.value());
      continue;
    }
    const IniStanza::Settings& theirs = it.value().settings();
    for (auto s = theirs.begin(); s != theirs.end(); ++s) {
      mine->settings().insert(s.key().trim(), s.value());
    }
  }
}

void IniFile::set(const Str& stanza, const Str& key, const Str& value) {
  IniStanza& st = _stanzas.insert(stanza, IniStanza()).first.value();
  IniSetting* setting = st.find(key);
  if (setting != nullptr) {
    setting->setValue(value);
  } else {
    st.insert(key, value);
  }
}

const Str* IniFile::getValue(const Str& stanza, const Str& key) const {
  const IniStanza* st = _stanzas.get(stanza);
  if (st == nullptr) return nullptr;
  const IniSetting* setting = st->find(key);
  return setting == nullptr ? nullptr : &setting->value();
}
