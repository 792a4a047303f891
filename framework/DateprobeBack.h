// The real back of dateprobe: a DateParser set up exactly as the server
// would set it up for one source context, and handed the tool's lines.
#pragma once

#include <functional>
#include <memory>

#include "libbundle/PropertiesMap.h"
#include "framework/MDateprobeBack.h"
#include "util/DateParser.h"
#include "util/DateParserConfigRef.h"
#include "util/Pathname.h"

// Fills `props` with the merged settings of the layered configuration for
// `context`, the highest precedence first.
typedef std::function<void(PropertiesMap& props, const Str& context)> DateprobePropsFiller;

// The server's own lookup: the layers of the "props" page of the default
// configuration root that apply to the context, with pattern stanzas
// matched, and the stanza "default" last.
DateprobePropsFiller propsPagesFiller();

// One owner, the tool's main thread. setUp builds the parser; the parse
// calls need it.
class DateprobeBack : public MDateprobeBack {
 public:
  // `fillProps` is the configuration lookup; `home` the install root.
  DateprobeBack(DateprobePropsFiller fillProps, const Pathname& home);
  ~DateprobeBack() override;

  // Nothing: the parser needs nothing before the arguments are looked at.
  void initProcess() override;
  // In order: timezone support from <home>/share/kestro/zoneinfo, a parser
  // without memory of patterns, the settings of `context`, initDateParser
  // with them, and then <home>/etc/datetime.xml over whatever
  // DATETIME_CONFIG chose: the tool always shows the stock patterns.
  // Throws DateParseException when a pattern file does not load.
  void setUp(const Str& context) override;
  // The parser's log context and its date from the source's name, taken
  // from `text` as it is, so the name searched begins "source::source::".
  void setSource(const Str& text) override;
  bool parse(const Str& line, const Timeval& now, Timeval* out) override;
  bool parseDetailed(const Str& line, const Timeval& now, DateprobeParse* out) override;
  // The define name of the date pattern that won last; empty when none.
  Str lastPatternName() const override;

  // The parser, once setUp ran. REQUIRES: setUp ran.
  DateParser& parser();

 private:
  DateprobePropsFiller _fillProps;
  Pathname _home;
  // Destroyed in the reverse order: the stock patterns' handle first, the
  // parser last.
  std::unique_ptr<DateParser> _parser;
  PropertiesMap _props;
  DateParserConfigRef _firstRef;
  Pathname _stockPath;
  DateParserConfigRef _stockRef;
};
