#include "util/EvalFunctions.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "util/Assert.h"
#include "util/DateTime.h"
#include "util/TimeFormat.h"
#include "util/Timeval.h"
#include "util/Utf8.h"

namespace {

// Characters of UTF-8 text; a broken sequence counts byte by byte as the
// stepping rules of utf8_char_len go.
size_t characterCount(const Str& s) {
  size_t n = 0;
  for (size_t i = 0; i < s.size(); ++n) i += utf8_char_len(static_cast<unsigned char>(s[i]));
  return n;
}

// The byte offset of character `index` (clamped to the end).
size_t byteOffset(const Str& s, size_t index) {
  size_t i = 0;
  for (; i < s.size() && index > 0; --index) i += utf8_char_len(static_cast<unsigned char>(s[i]));
  return i < s.size() ? i : s.size();
}

// The text form of a value, for functions that work on text.
const Str& textOf(EvalDatum& d) {
  if (d.isMultiVal()) d.str.clear();
  return d.stringify();
}

bool mightBeText(const EvaluatorType* t) {
  return t->mightBeStringLike() || t->mightBeNumeric() || t->mightBeMultiVal();
}

// A function with a fixed return type and argument count range, and a
// check of each argument's static type.
class SimpleFunction : public FunctionEvaluatorNode {
 protected:
  const EvaluatorType* checkSimple(size_t min, size_t max, bool (*fits)(const EvaluatorType*),
                                   const EvaluatorType* result) {
    requireArgs(min, max);
    for (const EvaluatorNode* c : _children) {
      if (fits != nullptr && !fits(c->returnType())) throw bad_arg_exception();
    }
    return result;
  }
};

const EvaluatorType* kString = &EvalDatum::StringType::INSTANCE;
const EvaluatorType* kNumber = &EvalDatum::NumericType::INSTANCE;
const EvaluatorType* kBool = &EvalDatum::BoolType::INSTANCE;

bool fitsNumber(const EvaluatorType* t) { return t->mightBeNumeric(); }

// Whether `text` is a decimal number as expressions write them, with an
// optional sign: "12", "-0.5", ".5", "+1e3"; not "0x1F", "1.", "1e".
bool isDecimalNumber(const Str& text) {
  size_t i = 0;
  const size_t n = text.size();
  if (i < n && (text[i] == '+' || text[i] == '-')) ++i;
  size_t digits = 0;
  while (i < n && text[i] >= '0' && text[i] <= '9') ++i, ++digits;
  if (i < n && text[i] == '.') {
    ++i;
    size_t fraction = 0;
    while (i < n && text[i] >= '0' && text[i] <= '9') ++i, ++fraction;
    if (fraction == 0) return false;
    digits += fraction;
  }
  if (digits == 0) return false;
  if (i < n && (text[i] == 'e' || text[i] == 'E')) {
    ++i;
    if (i < n && (text[i] == '+' || text[i] == '-')) ++i;
    size_t exponent = 0;
    while (i < n && text[i] >= '0' && text[i] <= '9') ++i, ++exponent;
    if (exponent == 0) return false;
  }
  return i == n;
}

// The common type of a set of branches, or Undetermined when they differ.
const EvaluatorType* commonType(const std::vector<const EvaluatorType*>& types) {
  if (types.empty()) return &EvalUndeterminedType::INSTANCE;
  for (const EvaluatorType* t : types) {
    if (t != types.front()) return &EvalUndeterminedType::INSTANCE;
  }
  return types.front();
}

class IfFunction : public FunctionEvaluatorNode {
 public:
  const char* name() const override { return "if"; }
  const EvaluatorType* checkArguments() override {
    requireArgs(3, 3);
    if (!child(0)->returnType()->mightBeBoolean()) throw bad_arg_exception();
    return commonType({child(1)->returnType(), child(2)->returnType()});
  }
  void go(EvaluatorContext* ctx) const override {
    EvalDatum& cond = arg(ctx, 0);
    if (!cond.isBoolean()) {
      cond.setNull();
    } else {
      cond.copyFromDestructive(arg(ctx, cond.asBoolean() ? 1 : 2));
    }
    collapse(ctx);
  }
};

class CaseFunction : public FunctionEvaluatorNode {
 public:
  const char* name() const override { return "case"; }
  const EvaluatorType* checkArguments() override {
    if (argn() < 2) throw EvalMissingArgumentsException(Str(name()));
    if (argn() % 2 != 0) throw bad_arg_exception();
    std::vector<const EvaluatorType*> values;
    for (size_t i = 0; i < argn(); i += 2) {
      if (!child(i)->returnType()->mightBeBoolean()) throw bad_arg_exception();
      values.push_back(child(i + 1)->returnType());
    }
    return commonType(values);
  }
  void go(EvaluatorContext* ctx) const override {
    EvalDatum& first = arg(ctx, 0);
    size_t chosen = argn();
    for (size_t i = 0; i < argn(); i += 2) {
      const EvalDatum& c = arg(ctx, i);
      if (c.isBoolean() && c.asBoolean()) {
        chosen = i + 1;
        break;
      }
    }
    if (chosen == argn()) {
      first.setNull();
    } else {
      first.copyFromDestructive(arg(ctx, chosen));
    }
    collapse(ctx);
  }
};

class CoalesceFunction : public FunctionEvaluatorNode {
 public:
  const char* name() const override { return "coalesce"; }
  const EvaluatorType* checkArguments() override {
    if (argn() < 1) throw EvalMissingArgumentsException(Str(name()));
    std::vector<const EvaluatorType*> types;
    for (const EvaluatorNode* c : _children) types.push_back(c->returnType());
    return commonType(types);
  }
  void go(EvaluatorContext* ctx) const override {
    EvalDatum& first = arg(ctx, 0);
    for (size_t i = 1; i < argn() && first.isNull(); ++i) first.copyFromDestructive(arg(ctx, i));
    collapse(ctx);
  }
};

class LenFunction : public SimpleFunction {
 public:
  const char* name() const override { return "len"; }
  const EvaluatorType* checkArguments() override { return checkSimple(1, 1, mightBeText, kNumber); }
  void go(EvaluatorContext* ctx) const override {
    EvalDatum& a = arg(ctx, 0);
    if (a.isNull()) return;
    a.setNumber(static_cast<double>(characterCount(textOf(a))));
  }
};

class CaseFoldFunction : public SimpleFunction {
 public:
  explicit CaseFoldFunction(bool upper) : _upper(upper) {}
  const char* name() const override { return _upper ? "upper" : "lower"; }
  const EvaluatorType* checkArguments() override { return checkSimple(1, 1, mightBeText, kString); }
  void go(EvaluatorContext* ctx) const override {
    EvalDatum& a = arg(ctx, 0);
    if (a.isNull()) return;
    // The fold goes into a per-thread buffer that then swaps with the
    // slot's string, so both keep their capacity from row to row.
    thread_local Str folded;
    if (_upper) {
      Str::str_toupper(textOf(a), &folded);
    } else {
      Str::str_tolower(textOf(a), &folded);
    }
    a.str.swap(folded);
    a.changeType(kString);
  }

 private:
  bool _upper;
};

class SubstrFunction : public SimpleFunction {
 public:
  const char* name() const override { return "substr"; }
  const EvaluatorType* checkArguments() override {
    checkSimple(2, 3, nullptr, kString);
    if (!mightBeText(child(0)->returnType())) throw bad_arg_exception();
    for (size_t i = 1; i < argn(); ++i) {
      if (!child(i)->returnType()->mightBeNumeric()) throw bad_arg_exception();
    }
    return kString;
  }
  void go(EvaluatorContext* ctx) const override {
    EvalDatum& s = arg(ctx, 0);
    const EvalDatum& start = arg(ctx, 1);
    const bool hasCount = argn() == 3;
    if (s.isNull() || !start.isNumeric() || (hasCount && !arg(ctx, 2).isNumeric())) {
      s.setNull();
      collapse(ctx);
      return;
    }
    const Str& text = textOf(s);
    const long long chars = static_cast<long long>(characterCount(text));
    long long from = static_cast<long long>(start.asDouble());
    from = from < 0 ? chars + from : from - 1;
    if (from < 0) from = 0;
    long long count = hasCount ? static_cast<long long>(arg(ctx, 2).asDouble()) : chars;
    if (count < 0) count = 0;
    const size_t b = byteOffset(text, static_cast<size_t>(from));
    const size_t e =
        from + count >= chars ? text.size() : byteOffset(text, static_cast<size_t>(from + count));
    // In place, so the slot keeps its capacity.
    s.str.erase(e);
    s.str.erase(0, b);
    s.changeType(kString);
    collapse(ctx);
  }
};

class ToNumberFunction : public SimpleFunction {
 public:
  const char* name() const override { return "tonumber"; }
  const EvaluatorType* checkArguments() override {
    checkSimple(1, 2, nullptr, kNumber);
    if (argn() == 2 && !child(1)->returnType()->mightBeNumeric()) throw bad_arg_exception();
    return kNumber;
  }
  void go(EvaluatorContext* ctx) const override {
    EvalDatum& a = arg(ctx, 0);
    int base = 10;
    if (argn() == 2) base = arg(ctx, 1).isNumeric() ? static_cast<int>(arg(ctx, 1).asDouble()) : 0;
    if (a.isNull() || base < 2 || base > 36) {
      a.setNull();
    } else if (base == 10) {
      if (isDecimalNumber(textOf(a))) {
        DoubleWithSignificantFigures n;
        n.set(std::strtod(a.str.c_str(), nullptr));
        n.setSigFigAndPrecisionFrom(a.str);
        a.setNumber(n);
      } else {
        a.setNull();
      }
    } else {
      const Str& text = textOf(a);
      char* end = nullptr;
      errno = 0;
      const long long v = std::strtoll(text.c_str(), &end, base);
      if (text.empty() || errno != 0 || *end != '\0') {
        a.setNull();
      } else {
        a.setNumber(static_cast<double>(v));
      }
    }
    collapse(ctx);
  }
};

// Thousands grouped with commas, two decimals: 1234567.891 "1,234,567.89".
void appendWithCommas(double v, Str& out) {
  Str digits;
  digits.format("%.2f", std::fabs(v));
  const size_t dot = digits.find('.');
  if (v < 0) out += '-';
  for (size_t i = 0; i < dot; ++i) {
    if (i > 0 && (dot - i) % 3 == 0) out += ',';
    out += digits[i];
  }
  out.append(digits, dot, Str::npos);
}

class ToStringFunction : public SimpleFunction {
 public:
  const char* name() const override { return "tostring"; }
  const EvaluatorType* checkArguments() override {
    checkSimple(1, 2, nullptr, kString);
    if (argn() == 2 && !child(1)->returnType()->mightBeStringLike()) throw bad_arg_exception();
    return kString;
  }
  void go(EvaluatorContext* ctx) const override {
    EvalDatum& a = arg(ctx, 0);
    if (a.isNull()) {
      collapse(ctx);
      return;
    }
    const Str mode = argn() == 2 && arg(ctx, 1).isStringLike() ? arg(ctx, 1).str : Str();
    if (mode == "hex" && a.isNumeric()) {
      const double v = a.asDouble();
      Str text;
      text.format("0x%llX", static_cast<unsigned long long>(static_cast<long long>(v)));
      a.setString(text);
    } else if (mode == "commas" && a.isNumeric()) {
      Str text;
      appendWithCommas(a.asDouble(), text);
      a.setString(text);
    } else {
      textOf(a);
      a.changeType(kString);
    }
    collapse(ctx);
  }
};

class RoundFunction : public SimpleFunction {
 public:
  const char* name() const override { return "round"; }
  const EvaluatorType* checkArguments() override { return checkSimple(1, 2, fitsNumber, kNumber); }
  void go(EvaluatorContext* ctx) const override {
    EvalDatum& a = arg(ctx, 0);
    long places = 0;
    if (argn() == 2) places = arg(ctx, 1).isNumeric() ? static_cast<long>(arg(ctx, 1).asDouble()) : -1;
    if (!a.isNumeric() || places < 0 || places > 15) {
      a.setNull();
      collapse(ctx);
      return;
    }
    const double scale = std::pow(10.0, static_cast<double>(places));
    DoubleWithSignificantFigures r;
    r.set(std::round(a.asDouble() * scale) / scale);
    if (places > 0) {
      r.precision = static_cast<uint16_t>(places);
      const double magnitude = std::fabs(r.value);
      const long digits = magnitude < 1 ? 1 : static_cast<long>(std::floor(std::log10(magnitude))) + 1;
      r.sigFigs = static_cast<uint16_t>(digits + places);
    }
    a.setNumber(r);
    collapse(ctx);
  }
};

class AbsFunction : public SimpleFunction {
 public:
  const char* name() const override { return "abs"; }
  const EvaluatorType* checkArguments() override { return checkSimple(1, 1, fitsNumber, kNumber); }
  void go(EvaluatorContext* ctx) const override {
    EvalDatum& a = arg(ctx, 0);
    if (!a.isNumeric()) {
      a.setNull();
      return;
    }
    DoubleWithSignificantFigures n = a.asNumber();
    n.value = std::fabs(n.value);
    a.setNumber(n);
  }
};

class IsFunction : public SimpleFunction {
 public:
  explicit IsFunction(bool null) : _null(null) {}
  const char* name() const override { return _null ? "isnull" : "isnum"; }
  const EvaluatorType* checkArguments() override { return checkSimple(1, 1, nullptr, kBool); }
  void go(EvaluatorContext* ctx) const override {
    EvalDatum& a = arg(ctx, 0);
    a.setBool(_null ? a.isNull() : a.isNumeric());
  }

 private:
  bool _null;
};

// The time functions compile a constant format once at type check, and any
// other per call.
class TimeFunction : public SimpleFunction {
 protected:
  const EvaluatorType* checkTime(bool (*first)(const EvaluatorType*), const EvaluatorType* result) {
    requireArgs(2, 2);
    if (!first(child(0)->returnType()) || !child(1)->returnType()->mightBeStringLike()) {
      throw bad_arg_exception();
    }
    if (child(1)->isConstant()) {
      const EvalDatum& fmt = static_cast<const ConstantEvaluatorNode*>(child(1))->value();
      if (!fmt.isStringLike() || !_format.setFtime(fmt.str.c_str())) throw bad_arg_exception();
    }
    return result;
  }
  // The compiled format for this call; null when it does not compile.
  const TimeFormat* formatFor(const EvalDatum& fmt, std::unique_ptr<TimeFormat>& scratch) const {
    if (_format.isSet()) return &_format;
    if (!fmt.isStringLike()) return nullptr;
    scratch = std::make_unique<TimeFormat>();
    return scratch->setFtime(fmt.str.c_str()) ? scratch.get() : nullptr;
  }

  TimeFormat _format;
};

class StrftimeFunction : public TimeFunction {
 public:
  const char* name() const override { return "strftime"; }
  const EvaluatorType* checkArguments() override { return checkTime(fitsNumber, kString); }
  void go(EvaluatorContext* ctx) const override {
    EvalDatum& t = arg(ctx, 0);
    std::unique_ptr<TimeFormat> scratch;
    const TimeFormat* format = formatFor(arg(ctx, 1), scratch);
    StructTmInTimezoneHires tm(ctx->getTimezone());
    if (!t.isNumeric() || format == nullptr || !std::isfinite(t.asDouble())) {
      t.setNull();
      collapse(ctx);
      return;
    }
    const double value = t.asDouble();
    const double whole = std::floor(value);
    if (whole < -9.2e18 || whole > 9.2e18 || !tm.fromUnixTime(static_cast<long>(whole))) {
      t.setNull();
      collapse(ctx);
      return;
    }
    tm.microseconds = static_cast<uint64_t>((value - whole) * 1e6 + 0.5) % 1000000;
    t.str.clear();
    tm.appendFtime(t.str, *format);
    t.changeType(kString);
    collapse(ctx);
  }
};

class StrptimeFunction : public TimeFunction {
 public:
  const char* name() const override { return "strptime"; }
  const EvaluatorType* checkArguments() override { return checkTime(mightBeText, kNumber); }
  void go(EvaluatorContext* ctx) const override {
    EvalDatum& s = arg(ctx, 0);
    std::unique_ptr<TimeFormat> scratch;
    const TimeFormat* format = formatFor(arg(ctx, 1), scratch);
    Timeval when;
    if (s.isNull() || format == nullptr ||
        when.parse(*format, textOf(s).c_str(), s.str.size(), ctx->getTimezone()) < 0) {
      s.setNull();
    } else {
      s.setNumber(static_cast<double>(when.tv_sec) + static_cast<double>(when.tv_usec) / 1e6);
    }
    collapse(ctx);
  }
};

}  // namespace

NonLeafEvaluatorNode* createBuiltinEvalFunction(const Str& name) {
  if (name == "if") return new IfFunction;
  if (name == "case") return new CaseFunction;
  if (name == "coalesce") return new CoalesceFunction;
  if (name == "len") return new LenFunction;
  if (name == "lower") return new CaseFoldFunction(false);
  if (name == "upper") return new CaseFoldFunction(true);
  if (name == "substr") return new SubstrFunction;
  if (name == "tonumber") return new ToNumberFunction;
  if (name == "tostring") return new ToStringFunction;
  if (name == "round") return new RoundFunction;
  if (name == "abs") return new AbsFunction;
  if (name == "isnull") return new IsFunction(true);
  if (name == "isnum") return new IsFunction(false);
  if (name == "strftime") return new StrftimeFunction;
  if (name == "strptime") return new StrptimeFunction;
  return nullptr;
}
