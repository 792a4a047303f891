// LogConfigReader: reads the logging configuration files and applies them to
// the channels and appenders.
#pragma once

#include <map>
#include <vector>

#include "util/Pathname.h"
#include "util/Str.h"

// The file format, one setting per line:
//
//   # a comment to the end of the line; <!-- and --> enclose one that may
//   # span lines
//   rootCategory = WARN, main             (level and appenders of the root)
//   category.DateParser = DEBUG           (of one channel)
//   appender.main.fileName = ${KESTRO_HOME}/var/log/kestro/tool.log
//   appender.main.maxFileSize = 25000000
//   appender.main.maxBackupIndex = 5
//   appender.main.layout = PatternLayout
//   appender.main.layout.ConversionPattern = %d %-5p %c - %m%n
//   [section]                             (see the constructor)
//
// Leading blanks and tabs are skipped; a leading "log4cpp." on a key is
// dropped ("log4cpp.rootCategory" is "rootCategory"); a key ends at "=",
// ".", a blank or a tab. Appender attributes apply as they are read (LogAppender::
// setAttribute); the root and category lines are kept and applied by
// applyChannels(), the root first, then the categories in the order read,
// so later lines win. Problems are not reported while reading, since the
// logging system is not up yet: they are kept for reportErrors().
//
// One owner: the start-up code.
class LogConfigReader {
 public:
  // One problem found. `unterminatedComment` marks the end of a file inside
  // "<!--", reported at ERROR; the others are parse errors, at WARN.
  struct Error {
    Pathname file;
    unsigned line;
    Str text;  // the offending line, as read
    bool unterminatedComment;
  };

  // With a `section` (may be null), only the lines ahead of any "[...]"
  // line and those under "[section]" (compared without regard to case)
  // count; without one, section lines change nothing. `variables` is
  // borrowed and must outlive the reader.
  LogConfigReader(const char* section, const std::map<Str, Pathname>& variables);

  // Reads and parses one file. False, with errno set, when it cannot be
  // opened; nothing is recorded then.
  bool readFile(const Pathname& path);
  // Parses `text` as the contents of a file named `file`.
  void readText(const Pathname& file, const Str& text);
  // Configures the root channel, then every stored category; failures join
  // the errors.
  void applyChannels();
  // Reports each error through the logging system: "%s:%u: Parse error at
  // \"%s\"" at WARN, "%s:%u: Unterminated XML comment started" at ERROR.
  void reportErrors() const;

  const std::vector<Error>& errors() const { return _errors; }

  // The companion file read after `config`: "-local" ahead of the last "."
  // of the leaf, or appended when the leaf has none. "etc/log-cmdline.cfg"
  // gives "etc/log-cmdline-local.cfg", "a.b/cfg" gives "a.b/cfg-local".
  static Pathname localCompanion(const Pathname& config);

 private:
  // A line kept for later, with where it came from.
  struct Stored {
    Pathname file;
    unsigned line;
    Str value;  // for a category: the text from the name onward
    Str text;   // the whole line, for error reports
  };

  // `asRead` is the line as read (for error reports); parseKey gets it
  // again as `line` with a leading "log4cpp." dropped.
  void parseLine(const Pathname& file, unsigned lineNumber, const Str& asRead);
  void parseKey(const Pathname& file, unsigned lineNumber, const Str& line, const Str& asRead);
  void addError(const Pathname& file, unsigned line, const Str& text);

  const char* _section;
  const std::map<Str, Pathname>& _variables;
  bool _sectionActive;
  bool _haveRoot;
  Stored _root;
  std::vector<Stored> _categories;
  std::vector<Error> _errors;
};
