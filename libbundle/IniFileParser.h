// IniFileParser: cuts an ini file into logical lines and says what each is.
// Used by IniFile::init; public so that its rules can be tested alone.
#pragma once

#include "util/FileStar.h"
#include "util/Pathname.h"
#include "util/ReadableUnicodeStream.h"
#include "util/Str.h"

// Reads UTF-8 whatever the file holds (see ReadableUnicodeStream). One owner
// at a time; the handle is borrowed.
class IniFileParser : public ReadableUnicodeFileStar {
 public:
  enum LineType { LINE_EOF = 0, LINE_BLANK, LINE_COMMENT, LINE_HEADER, LINE_SETTING };

  // `path` names the file in warnings, and a "spec" extension silences the
  // warning for lines that are not settings.
  IniFileParser(FileStar file, const Pathname& path);

  // Reads the next logical line into `line` and classifies it:
  //   LINE_BLANK    nothing but blanks, tabs, CR and LF; or a line that is
  //                 no setting, kept (backslashes removed) like a comment
  //   LINE_COMMENT  first significant character ";" or "#"; never continued
  //   LINE_HEADER   "[" first: `name` is what lies up to the last "]"
  //   LINE_SETTING  `name` is the key before the first unescaped "=" (a
  //                 backslash in the key is removed and the next character
  //                 taken literally), `value` all after it, untouched
  // A line ending in a backslash continues on the next physical line, the
  // backslash becoming "\n". Examples: "a\=b=c" is key "a=b", value "c";
  // "[a]b]" names "a]b"; "path=c:\dir" keeps its backslash.
  LineType getLineType(Str& line, Str& name, Str& value);
  // The stanza name of a header `line` whose "[" stands at `first`: up to the
  // last "]", whatever follows dropped. Without a "]", warns and takes the
  // rest of the line, returning false.
  bool headerToStanza(const Str& line, unsigned long first, Str& name);
  // "<path>, line <n>": n counts physical lines read so far.
  Str getCurrentLineNumberDebugStr() const;

 private:
  Pathname _path;
  bool _isSpec;
  unsigned long _lineNumber = 0;
};
