// Ini files: the .conf, .meta and .spec files of the layered configuration,
// parsed into ordered stanzas of ordered settings with enough of their text
// (comments, blank lines, order, encoding and byte-order mark) kept that a
// program can change one setting and write the file back with the rest in
// place. Layers and precedence are not known here. Diagnostics go to the
// "IniFile" log channel; bad content never throws.
#pragma once

#include <utility>

#include "libbundle/OrderedMap.h"
#include "libzero/FileEncoding.h"
#include "util/FileStar.h"
#include "util/Pathname.h"
#include "util/Str.h"
#include "util/StrVector.h"

class WritableUnicodeFileStar;

// The ordering of setting keys: both trimmed of blanks and tabs, then
// compared as unsigned bytes, a shorter prefix first; case counts. So "a"
// and " a " are one key, though a key is stored as it was written.
struct inicmp {
  bool operator()(const Str& a, const Str& b) const;
};

// One setting: its value and the comment and blank lines directly above it.
// A plain value; one owner at a time.
class IniSetting {
 public:
  IniSetting() = default;
  IniSetting(const Str& value, const StrVector& comments) : _comments(comments), _value(value) {}
  IniSetting(const Str& value, StrVector&& comments)
      : _comments(std::move(comments)), _value(value) {}

  // The lines above the setting, verbatim.
  const StrVector& comments() const { return _comments; }
  StrVector& comments() { return _comments; }
  // The value as it stood after the first unescaped "=": untrimmed, with
  // "\n" where continuation lines were joined.
  const Str& value() const { return _value; }
  void setValue(const Str& value) { _value = value; }

 private:
  StrVector _comments;
  Str _value;
};

// One stanza: the lines above its header and its settings in file order.
// A plain value; one owner at a time.
class IniStanza {
 public:
  typedef OrderedMap<Str, IniSetting, inicmp> Settings;

  IniStanza() = default;
  explicit IniStanza(const StrVector& comments) : _comments(comments) {}

  // Inserts a setting with no comments. As OrderedMap::insert, an existing
  // key (by inicmp) keeps its value and the bool is false.
  std::pair<Settings::iterator, bool> insert(const Str& key, const Str& value);
  // Removes every empty string from the comment lines, wherever it stands;
  // a line of blanks is not empty and stays.
  void headerRemoveLeadingNewlines();

  // The setting of `key` (by inicmp), or null.
  IniSetting* find(const Str& key) { return _settings.get(key); }
  const IniSetting* find(const Str& key) const { return _settings.get(key); }

  const StrVector& comments() const { return _comments; }
  StrVector& comments() { return _comments; }
  const Settings& settings() const { return _settings; }
  Settings& settings() { return _settings; }

 private:
  StrVector _comments;
  Settings _settings;
};

// A whole file. No lock of its own: one owner at a time, callers serialise.
// Two processes may flush one path at once: each writes a temporary file of
// its own and the last rename wins.
class IniFile {
 public:
  typedef OrderedMap<Str, IniStanza, OrderedMapLess<Str>> Stanzas;

  // "default": the stanza of settings that come before any header.
  static const Str DEFAULT_STANZA;
  // iniwrite flags.
  static constexpr unsigned INIWRITE_ESCAPE_NEWLINES = 1;
  static constexpr unsigned INIWRITE_NEWLINE = 2;

  // Empty, with no path.
  IniFile() = default;
  // fromPath(path).
  explicit IniFile(const Pathname& path);
  // Stores `path` (for flush and messages) and parses from `file`.
  IniFile(FileStar& file, const Pathname& path);
  IniFile(const IniFile&) = default;
  IniFile& operator=(const IniFile&) = default;
  ~IniFile() = default;

  // Stores the path, opens it with mode "r" and parses it (init).
  void fromPath(const Pathname& path);
  // Clears the content and parses the file behind `file`, which stays the
  // caller's. An invalid handle logs "Cannot open ini file for parsing: %m"
  // and leaves the file empty and isOpened() false. Bad lines are warned
  // about and parsing goes on; the encoding found is stored.
  void init(FileStar& file);

  // Rewrites the file at path(), atomically: writes path + "." + pid +
  // ".tmp" and renames it into place (up to 20 attempts, 100 ms apart).
  // False, with an error logged and the existing file untouched, when there
  // is no path, the write fails (the temporary file is removed) or the
  // rename fails (the temporary file stays).
  bool flush();
  // Writes the whole content to `path` in the stored encoding (UTF-8 when
  // none is known, which then becomes the stored one), with the mark if the
  // file had one. Stanzas and settings in their order, each after its
  // comment lines; a stanza after the first with no comment lines gets one
  // empty line above; settings as "key = value" with "=", "[" and "\"
  // escaped in the key. False, with an error logged, when the file cannot
  // be opened, the encoding has no engine, or a write or flush fails.
  bool flushToPath(const Pathname& path);
  // Removes the stanza `name` with its settings; false when there is none.
  // When it is the first stanza, the one after it loses its empty comment
  // lines, so that the file does not begin with a gap.
  bool erase(const Str& name);
  // Takes over what `other` has and this file lacks: a stanza it lacks is
  // copied whole, with its comments; settings of a stanza it has are added
  // under their trimmed keys, and a key it has keeps its value and comments.
  // Header and trailer lines, path and encoding of `other` are not taken.
  void merge(IniFile& other);
  // Sets `key` in `stanza`, making either as needed (with no comments); an
  // existing setting keeps its comments and its key as written.
  void set(const Str& stanza, const Str& key, const Str& value);

  // Writes `text` to `out`. INIWRITE_ESCAPE_NEWLINES puts a backslash ahead
  // of each line break inside it ("\r\n", "\n" or a lone "\r", kept as it
  // was); INIWRITE_NEWLINE appends "\n". False when the write fails.
  static bool iniwrite(WritableUnicodeFileStar& out, const Str& text, unsigned flags);

  const StrVector& fileHeaderLines() const { return _fileHeaderLines; }
  StrVector& fileHeaderLines() { return _fileHeaderLines; }
  const StrVector& fileTrailerLines() const { return _fileTrailerLines; }
  StrVector& fileTrailerLines() { return _fileTrailerLines; }
  const Stanzas& stanzas() const { return _stanzas; }
  Stanzas& stanzas() { return _stanzas; }
  // The stanza `name`, or null.
  IniStanza* findStanza(const Str& name) { return _stanzas.get(name); }
  const IniStanza* findStanza(const Str& name) const { return _stanzas.get(name); }
  // The value of `key` in `stanza`, or null.
  const Str* getValue(const Str& stanza, const Str& key) const;

  const Pathname& path() const { return _path; }
  void setPath(const Pathname& path) { _path = path; }
  // True once a readable handle was given to init.
  bool isOpened() const { return _opened; }
  // FileEncoding: the kind in the low byte, FILE_ENCODING_HAS_BOM for a mark.
  FileEncoding getFileEncoding() const { return _encoding; }
  void setFileEncoding(FileEncoding encoding) { _encoding = encoding; }

 private:
  StrVector _fileHeaderLines;
  StrVector _fileTrailerLines;
  Stanzas _stanzas;
  Pathname _path;
  bool _opened = false;
  FileEncoding _encoding = FILE_ENCODING_UNKNOWN;
};
