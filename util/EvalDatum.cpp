#include "util/EvalDatum.h"

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>

#include "util/Assert.h"

constinit const EvaluatorTypeBothStringAndNumber EvaluatorTypeBothStringAndNumber::INSTANCE;
constinit const EvalUndeterminedType EvalUndeterminedType::INSTANCE;
constinit const EvalStringBoolOrNumericType EvalStringBoolOrNumericType::INSTANCE;
constinit const EvalDatum::NullType EvalDatum::NullType::INSTANCE;
constinit const EvalDatum::BoolType EvalDatum::BoolType::INSTANCE;
constinit const EvalDatum::NumericType EvalDatum::NumericType::INSTANCE;
constinit const EvalDatum::StringType EvalDatum::StringType::INSTANCE;
constinit const EvalDatum::MultiValType EvalDatum::MultiValType::INSTANCE;
constinit const EvalDatum::EitherStringOrNumberType EvalDatum::EitherStringOrNumberType::INSTANCE;
constinit const EvalDatum::EitherStringOrMultivalType EvalDatum::EitherStringOrMultivalType::INSTANCE;
constinit const EvalDatum::FieldValType EvalDatum::FieldValType::INSTANCE;

// ---- DoubleWithSignificantFigures ----

void DoubleWithSignificantFigures::setSigFigAndPrecisionFrom(const StrSegment& text) {
  const char* const begin = text.data();
  const size_t len = text.size();
  const char* const end = begin + len;
  const char* dot = static_cast<const char*>(memchr(begin, '.', len));
  const char* exp = nullptr;
  for (const char* p = begin; p < end; ++p) {
    if (*p == 'e' || *p == 'E') {
      exp = p;
      break;
    }
  }
  if (dot == nullptr && exp == nullptr) {
    sigFigs = UNKNOWN;
    precision = UNKNOWN;
    return;
  }
  if (dot != nullptr && exp != nullptr && dot > exp) dot = nullptr;  // a "." in the exponent
  const char* const mantissaEnd = exp != nullptr ? exp : end;
  const char* first = begin;
  while (first < end && strchr("-+0.", *first) != nullptr && *first != '\0') ++first;
  long figures = 0;
  if (first < end && *first != 'e' && *first != 'E') {
    for (const char* p = first; p < mantissaEnd; ++p) figures += (*p >= '0' && *p <= '9');
  } else {
    for (const char* p = begin; p < mantissaEnd; ++p) figures += *p == '0';
  }
  long e = 1;
  if (exp != nullptr) e = std::strtol(std::string(exp + 1, end).c_str(), nullptr, 10) + 1;
  long prec = dot != nullptr ? static_cast<long>(mantissaEnd - dot) - e : 1 - e;
  if (prec < 1) prec = 0;
  sigFigs = static_cast<uint16_t>(figures > UNKNOWN - 1 ? UNKNOWN - 1 : figures);
  precision = static_cast<uint16_t>(prec > UNKNOWN - 1 ? UNKNOWN - 1 : prec);
}

void DoubleWithSignificantFigures::renderTo(Str& out) const {
  if (!isExact()) {
    if (std::isfinite(value) && value == std::floor(value) && std::fabs(value) < 9223372036854775808.0) {
      out.appendFormat("%lld", static_cast<long long>(value));
    } else {
      out.appendFormat("%lf", value);
    }
    return;
  }
  const double magnitude = std::fabs(value);
  const double log = value == 0 ? 0 : std::floor(std::log10(magnitude));
  const long digits = value == 0 ? 1 : static_cast<long>(log) + 1;
  const long figures = digits > sigFigs ? digits : sigFigs;
  const double scale = std::pow(10.0, static_cast<double>(figures) - log - 1);
  double rounded = value;
  if (std::isfinite(scale) && scale != 0) rounded = std::floor(value * scale + 0.5) / scale;
  out.appendFormat("%*.*lf", static_cast<int>(figures), static_cast<int>(precision), rounded);
}

// ---- EvaluatorType and the types ----

bool EvaluatorType::isType(const Str& typeName) const { return typeName == name(); }

void EvaluatorType::createInstance(EvalDatum*) const {}
void EvaluatorType::releaseInstance(EvalDatum*) const {}
void EvaluatorType::copyInstance(EvalDatum*, const EvalDatum*) const {}

void EvaluatorType::stringify(EvalDatum& d) const {
  d.str.format("<instance of type \"%s\">", name());
}

void EvaluatorTypeBothStringAndNumber::copyInstance(EvalDatum* to, const EvalDatum* from) const {
  to->_value.number = from->_value.number;
}

void EvaluatorTypeBothStringAndNumber::stringify(EvalDatum&) const {}

void EvalDatum::NullType::stringify(EvalDatum& d) const { d.str = "Null"; }

void EvalDatum::BoolType::copyInstance(EvalDatum* to, const EvalDatum* from) const {
  to->_value.boolean = from->_value.boolean;
}

void EvalDatum::BoolType::stringify(EvalDatum& d) const { d.str = d._value.boolean ? "True" : "False"; }

void EvalDatum::NumericType::copyInstance(EvalDatum* to, const EvalDatum* from) const {
  to->_value.number = from->_value.number;
}

void EvalDatum::NumericType::stringify(EvalDatum& d) const {
  d.str.clear();
  d._value.number.renderTo(d.str);
}

void EvalDatum::StringType::stringify(EvalDatum&) const {}

void EvalDatum::MultiValType::createInstance(EvalDatum* d) const { d->_value.multi = new StrVector; }

void EvalDatum::MultiValType::releaseInstance(EvalDatum* d) const {
  delete d->_value.multi;
  d->_value.multi = nullptr;
}

void EvalDatum::MultiValType::copyInstance(EvalDatum* to, const EvalDatum* from) const {
  *to->_value.multi = *from->_value.multi;
}

void EvalDatum::MultiValType::stringify(EvalDatum& d) const {
  bool blank = !d.str.empty();  // text already there is kept, a blank after it
  for (const Str& v : *d._value.multi) {
    if (blank) d.str += ' ';
    d.str += v;
    blank = true;
  }
}

// ---- EvalDatum ----

void EvalDatum::really_change_type(const EvaluatorType* t) {
  type->releaseInstance(this);
  type = t;
  type->createInstance(this);
}

void EvalDatum::copyFrom(const EvalDatum& other) {
  str = other.str;
  changeType(other.type);
  type->copyInstance(this, &other);
}

void EvalDatum::copyFromDestructive(EvalDatum& other) {
  if (other.type->isMultiVal()) {
    swap(other);
    return;
  }
  str.swap(other.str);
  changeType(other.type);
  type->copyInstance(this, &other);
}

void EvalDatum::swap(EvalDatum& other) {
  std::swap(type, other.type);
  str.swap(other.str);
  std::swap(_value, other._value);
}

void EvalDatum::setBool(bool b) {
  changeType(&BoolType::INSTANCE);
  _value.boolean = b;
}

void EvalDatum::setNumber(double v) {
  changeType(&NumericType::INSTANCE);
  _value.number.set(v);
}

void EvalDatum::setNumber(const DoubleWithSignificantFigures& v) {
  changeType(&NumericType::INSTANCE);
  _value.number = v;
}

void EvalDatum::setString(const StrSegment& s) {
  changeType(&StringType::INSTANCE);
  str.assign(s.data(), s.size());
}

void EvalDatum::setBothStringAndNumber(const Str& text) {
  str = text;
  double v = 0;
  if (text.tryToDouble(v)) {
    changeType(&EvaluatorTypeBothStringAndNumber::INSTANCE);
    _value.number.value = v;
    _value.number.setSigFigAndPrecisionFrom(text);
  } else {
    changeType(&StringType::INSTANCE);
  }
}

StrVector& EvalDatum::newMultiValValue() {
  changeType(&MultiValType::INSTANCE);
  _value.multi->clear();
  str.clear();
  return *_value.multi;
}

StrVector& EvalDatum::asMultiVal() const {
  kassert(isMultiVal());
  return *_value.multi;
}

const Str& EvalDatum::asString() const {
  kassert(isStringLike());
  return str;
}

bool EvalDatum::asBoolean() const {
  kassert(isBoolean());
  return _value.boolean;
}

const DoubleWithSignificantFigures& EvalDatum::asNumber() const {
  kassert(isNumeric());
  return _value.number;
}

// ---- EvalDatumStack ----

void EvalDatumStack::grow() {
  kassert(full());
  const size_t used = size();
  const size_t slots = _start == nullptr ? 8 : capacity() * 2;
  EvalDatum* fresh = new EvalDatum[slots];
  for (size_t i = 0; i < used; ++i) fresh[i].swap(_start[i]);
  delete[] _start;
  _start = fresh;
  _top = fresh + used;
  _limit = fresh + slots;
  kassert(!full());
}

void EvalDatumStack::drop(size_t n) {
  kassert(size() >= n);
  _top -= n;
}

EvalDatum& EvalDatumStack::singleValue() {
  kassert(size() == 1);
  return *_start;
}
