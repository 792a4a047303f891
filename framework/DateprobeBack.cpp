#include "framework/DateprobeBack.h"

#include <utility>

#include "libbundle/DatetimeInitUtils.h"
#include "libbundle/PropertyPages.h"
#include "util/Assert.h"
#include "util/ExtraTimevalParseInfo.h"
#include "util/HashedStr.h"
#include "util/TimezoneCache.h"

DateprobePropsFiller propsPagesFiller() {
  return [](PropertiesMap& props, const Str& context) {
    PropertyPages::propsInstance()->fillLayers(&props, StrSegment(context), true);
  };
}

DateprobeBack::DateprobeBack(DateprobePropsFiller fillProps, const Pathname& home)
    : _fillProps(std::move(fillProps)), _home(home) {}

DateprobeBack::~DateprobeBack() = default;

void DateprobeBack::initProcess() {}

void DateprobeBack::setUp(const Str& context) {
  setupTimezoneSupport(_home / "share" / "kestro" / "zoneinfo");
  // The tool searches every line afresh: no memory of winning patterns.
  _parser = std::make_unique<DateParser>(false);
  _props.clear();
  if (_fillProps) _fillProps(_props, context);
  DatetimeInitUtils::initDateParser(_props, *_parser, _firstRef, Str::EMPTY_STR, nullptr);
  _stockPath = _home / "etc" / "datetime.xml";
  _stockRef.load(_stockPath, true);
  _stockRef.assignTo(_parser.get());
}

DateParser& DateprobeBack::parser() {
  kassert(_parser != nullptr);
  return *_parser;
}

void DateprobeBack::setSource(const Str& text) {
  const HashedStrReference context = HashedStrReference::_allocMem(text.data(), text.size());
  parser().setContext(context);
  context._freeMem();
  parser().setDateByString(StrSegment(text), true);
}

bool DateprobeBack::parse(const Str& line, const Timeval& now, Timeval* out) {
  Timeval t;
  int timeStart, timeEnd, dateStart, dateEnd;
  if (!parser().parseDate(t, StrSegment(line), now, timeStart, timeEnd, dateStart, dateEnd,
                          nullptr)) {
    return false;
  }
  *out = t;
  return true;
}

bool DateprobeBack::parseDetailed(const Str& line, const Timeval& now, DateprobeParse* out) {
  DateprobeParse result;
  ExtraTimevalParseInfo extra;
  if (!parser().parseDate(result.time, StrSegment(line), now, result.timeStart, result.timeEnd,
                          result.dateStart, result.dateEnd, &extra)) {
    return false;
  }
  result.subsecDigits = extra.subsecDigits;
  *out = result;
  return true;
}

Str DateprobeBack::lastPatternName() const {
  return _parser != nullptr ? _parser->getLastDatePatternName() : Str();
}
