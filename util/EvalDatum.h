// The values of the eval language: EvalDatum, its run-time types and the
// value stack that evaluation runs on.
//
// A type is a stateless singleton compared by address; a datum changes its
// type only when the type really differs, so a slot that keeps its type
// costs nothing to reuse. Text that reads as a number becomes both a
// string and a number: it computes as the number and prints as the text.
//
// Thread story: types are immutable and shared. A datum or a stack has one
// owner at a time.
#pragma once

#include <cstddef>
#include <cstdint>

#include "util/Str.h"
#include "util/StrSegment.h"
#include "util/StrVector.h"

// A double that remembers how it was written, so that results can be shown
// with a sensible number of digits: "1.50" has 3 significant figures and a
// precision (digits after the point) of 2. Trivial on purpose: it lives in
// a union. UNKNOWN marks a field nobody could tell.
struct DoubleWithSignificantFigures {
  static constexpr uint16_t UNKNOWN = 0xFFFF;

  double value;
  uint16_t sigFigs;
  uint16_t precision;

  void set(double v) {
    value = v;
    sigFigs = UNKNOWN;
    precision = UNKNOWN;
  }
  bool isExact() const { return sigFigs != UNKNOWN && precision != UNKNOWN; }

  // Reads the figures and precision from the way `text` writes the value
  // (value itself is not touched). Text with neither "." nor an exponent
  // leaves both UNKNOWN. Examples: "1.50" 3 and 2; "0.0012" 2 and 4;
  // "100." 3 and 0; "1e3" 1 and 0; "0.000" 4 and 3.
  void setSigFigAndPrecisionFrom(const StrSegment& text);
  // Appends the value to `out`: with both fields known, rounded to the
  // significant figures and printed with that precision ("1.50"); else an
  // integral value below 2^63 in magnitude as an integer ("42"), any other
  // with "%lf" ("0.500000").
  void renderTo(Str& out) const;
};

class EvalDatum;

// A run-time (or, for the "might be" types, a static) type. Stateless: one
// instance per class, compared by address.
class EvaluatorType {
 public:
  constexpr EvaluatorType() = default;
  virtual const char* name() const = 0;
  // Whether `typeName` names this type.
  virtual bool isType(const Str& typeName) const;
  virtual bool isStringLike() const { return false; }
  virtual bool isNumeric() const { return false; }
  virtual bool isBoolean() const { return false; }
  virtual bool isNull() const { return false; }
  virtual bool isMultiVal() const { return false; }
  // What a value of this static type could turn out to be.
  virtual bool mightBeStringLike() const { return isStringLike(); }
  virtual bool mightBeNumeric() const { return isNumeric(); }
  virtual bool mightBeBoolean() const { return isBoolean(); }
  virtual bool mightBeNull() const { return isNull(); }
  virtual bool mightBeMultiVal() const { return isMultiVal(); }
  // The value part of a datum that takes, drops or copies this type.
  virtual void createInstance(EvalDatum* d) const;
  virtual void releaseInstance(EvalDatum* d) const;
  virtual void copyInstance(EvalDatum* to, const EvalDatum* from) const;
  virtual ~EvaluatorType() = default;
  // Leaves the datum's printable form in its `str`.
  virtual void stringify(EvalDatum& d) const;
};

// A number read from text: numeric for computing, a string for printing.
class EvaluatorTypeBothStringAndNumber : public EvaluatorType {
 public:
  constexpr EvaluatorTypeBothStringAndNumber() = default;
  const char* name() const override { return "Number"; }
  bool isStringLike() const override { return true; }
  bool isNumeric() const override { return true; }
  void copyInstance(EvalDatum* to, const EvalDatum* from) const override;
  void stringify(EvalDatum& d) const override;  // keeps the text
  static const EvaluatorTypeBothStringAndNumber INSTANCE;
};

// Static typing only: nothing is known yet.
class EvalUndeterminedType : public EvaluatorType {
 public:
  constexpr EvalUndeterminedType() = default;
  const char* name() const override { return "Undetermined"; }
  bool mightBeStringLike() const override { return true; }
  bool mightBeNumeric() const override { return true; }
  bool mightBeBoolean() const override { return true; }
  bool mightBeNull() const override { return true; }
  bool mightBeMultiVal() const override { return true; }
  static const EvalUndeterminedType INSTANCE;
};

// Static typing only: a string, a boolean or a number.
class EvalStringBoolOrNumericType : public EvaluatorType {
 public:
  constexpr EvalStringBoolOrNumericType() = default;
  const char* name() const override { return "StringBoolOrNumber"; }
  bool mightBeStringLike() const override { return true; }
  bool mightBeNumeric() const override { return true; }
  bool mightBeBoolean() const override { return true; }
  static const EvalStringBoolOrNumericType INSTANCE;
};

class EvalDatum {
 public:
  class NullType : public EvaluatorType {
   public:
    constexpr NullType() = default;
    const char* name() const override { return "Null"; }
    bool isNull() const override { return true; }
    void stringify(EvalDatum& d) const override;
    static const NullType INSTANCE;
  };
  class BoolType : public EvaluatorType {
   public:
    constexpr BoolType() = default;
    const char* name() const override { return "Bool"; }
    bool isBoolean() const override { return true; }
    void copyInstance(EvalDatum* to, const EvalDatum* from) const override;
    void stringify(EvalDatum& d) const override;
    static const BoolType INSTANCE;
  };
  class NumericType : public EvaluatorType {
   public:
    constexpr NumericType() = default;
    const char* name() const override { return "Number"; }
    bool isNumeric() const override { return true; }
    void copyInstance(EvalDatum* to, const EvalDatum* from) const override;
    void stringify(EvalDatum& d) const override;
    static const NumericType INSTANCE;
  };
  class StringType : public EvaluatorType {
   public:
    constexpr StringType() = default;
    const char* name() const override { return "String"; }
    bool isStringLike() const override { return true; }
    void stringify(EvalDatum& d) const override;  // the string is the form
    static const StringType INSTANCE;
  };
  // The datum owns its vector of values.
  class MultiValType : public EvaluatorType {
   public:
    constexpr MultiValType() = default;
    const char* name() const override { return "Multivalue"; }
    bool isMultiVal() const override { return true; }
    void createInstance(EvalDatum* d) const override;
    void releaseInstance(EvalDatum* d) const override;
    void copyInstance(EvalDatum* to, const EvalDatum* from) const override;
    void stringify(EvalDatum& d) const override;
    static const MultiValType INSTANCE;
  };
  // Static typing only.
  class EitherStringOrNumberType : public EvaluatorType {
   public:
    constexpr EitherStringOrNumberType() = default;
    const char* name() const override { return "EitherStringOrNumber"; }
    bool mightBeStringLike() const override { return true; }
    bool mightBeNumeric() const override { return true; }
    static const EitherStringOrNumberType INSTANCE;
  };
  class EitherStringOrMultivalType : public EvaluatorType {
   public:
    constexpr EitherStringOrMultivalType() = default;
    const char* name() const override { return "EitherStringOrMultivalue"; }
    bool mightBeStringLike() const override { return true; }
    bool mightBeMultiVal() const override { return true; }
    static const EitherStringOrMultivalType INSTANCE;
  };
  // The type of a field before any value is seen.
  class FieldValType : public EvaluatorType {
   public:
    constexpr FieldValType() = default;
    const char* name() const override { return "FieldValue"; }
    bool mightBeStringLike() const override { return true; }
    bool mightBeNumeric() const override { return true; }
    bool mightBeMultiVal() const override { return true; }
    static const FieldValType INSTANCE;
  };

  EvalDatum() = default;
  ~EvalDatum() { type->releaseInstance(this); }
  EvalDatum(const EvalDatum& other) { copyFrom(other); }
  EvalDatum& operator=(const EvalDatum& other) {
    if (this != &other) copyFrom(other);
    return *this;
  }

  // Changes the type, paying only when it differs.
  void changeType(const EvaluatorType* t) {
    if (type != t) really_change_type(t);
  }
  // The old type's releaseInstance, then `t` and its createInstance.
  void really_change_type(const EvaluatorType* t);

  // This becomes a copy of `other` (str, type, value).
  void copyFrom(const EvalDatum& other);
  // As copyFrom, but may take `other`'s storage; `other` is left valid but
  // unspecified.
  void copyFromDestructive(EvalDatum& other);
  void swap(EvalDatum& other);

  void setNull() { changeType(&NullType::INSTANCE); }
  void setBool(bool b);
  void setNumber(double v);
  void setNumber(const DoubleWithSignificantFigures& v);
  void setString(const StrSegment& s);
  // Text from a field: both string and number when it reads as a double
  // (with its figures and precision), else a string. `str` is the text.
  void setBothStringAndNumber(const Str& text);
  // Makes this an empty multi-value and gives its vector.
  StrVector& newMultiValValue();

  bool isNull() const { return type->isNull(); }
  bool isBoolean() const { return type->isBoolean(); }
  bool isNumeric() const { return type->isNumeric(); }
  bool isStringLike() const { return type->isStringLike(); }
  bool isMultiVal() const { return type->isMultiVal(); }

  // Accessors; each asserts the type ("isMultiVal()", "isStringLike()",
  // "isBoolean()", "isNumeric()").
  StrVector& asMultiVal() const;
  const Str& asString() const;
  bool asBoolean() const;
  const DoubleWithSignificantFigures& asNumber() const;
  double asDouble() const { return asNumber().value; }

  // Leaves the printable form in `str` and returns it.
  const Str& stringify() {
    type->stringify(*this);
    return str;
  }

  const EvaluatorType* type = &NullType::INSTANCE;  // never null
  Str str;

 private:
  friend class EvaluatorType;
  friend class EvaluatorTypeBothStringAndNumber;
  union Value {
    DoubleWithSignificantFigures number;
    bool boolean;
    StrVector* multi;
  };
  Value _value{};
};

// The stack evaluation runs on. Slots live as long as the stack, so a
// slot's string keeps its capacity from one result to the next: pushing
// only moves the top, and whoever pushes fills the slot (or nulls it).
class EvalDatumStack {
 public:
  EvalDatumStack() = default;
  ~EvalDatumStack() { delete[] _start; }
  EvalDatumStack(const EvalDatumStack&) = delete;
  EvalDatumStack& operator=(const EvalDatumStack&) = delete;

  bool full() const { return _top == _limit; }
  // Room for more: 8 slots the first time, then twice as many, each new
  // slot null; the values move over by swap. REQUIRES: full() ("full()").
  void grow();
  // The new top, growing first when full. Its old contents stay.
  EvalDatum& push() {
    if (full()) grow();
    return *_top++;
  }
  // REQUIRES: not empty.
  void pop() { drop(1); }
  // REQUIRES: at least n values.
  void drop(size_t n);
  // The value `fromTop` places below the top (0 is the top).
  EvalDatum& peek(size_t fromTop = 0) const { return _top[-1 - static_cast<ptrdiff_t>(fromTop)]; }
  size_t size() const { return static_cast<size_t>(_top - _start); }
  size_t capacity() const { return static_cast<size_t>(_limit - _start); }
  void clear() { _top = _start; }
  // The one value left after an evaluation. REQUIRES: size() == 1.
  EvalDatum& singleValue();

 private:
  EvalDatum* _top = nullptr;
  EvalDatum* _start = nullptr;
  EvalDatum* _limit = nullptr;
};
