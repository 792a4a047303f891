#include "util/EvalDatum.h"

#include <gtest/gtest.h>

#include <string>

#include "util/EvalFunctions.h"
#include "util/EvalNode.h"
#include "util/Evaluator.h"

namespace {

TEST(DoubleWithSignificantFigures, FiguresAndPrecisionFromTheWayANumberIsWritten) {
  const uint16_t U = DoubleWithSignificantFigures::UNKNOWN;
  const struct { const char* text; uint16_t sigFigs, precision; } kCases[] = {
      {"1.50", 3, 2},   {"0.0012", 2, 4}, {"100.", 3, 0},  {"1e3", 1, 0},   {"0.000", 4, 3},
      {"-2.5", 2, 1},   {"12.345", 5, 3}, {"1.5e-3", 2, 4}, {"2.50E2", 3, 0}, {"42", U, U},
      {"-7", U, U},     {"+0.10", 2, 2},  {".5", 1, 1},
      {"007.10", 3, 2},    // leading zeros are no figures
      {"1.2345e2", 5, 2},  // the exponent moves the precision, not the figures
      {"0e0", 1, 0},    {"10.0", 3, 1},
  };
  for (const auto& c : kCases) {
    DoubleWithSignificantFigures d;
    d.set(1);
    d.setSigFigAndPrecisionFrom(StrSegment(c.text));
    EXPECT_EQ(c.sigFigs, d.sigFigs) << c.text;
    EXPECT_EQ(c.precision, d.precision) << c.text;
  }
}

TEST(DoubleWithSignificantFigures, RendersWithItsFiguresOrPlainly) {
  const uint16_t U = DoubleWithSignificantFigures::UNKNOWN;
  const struct { double value; uint16_t sigFigs, precision; const char* want; } kCases[] = {
      {1.5, 3, 2, "1.50"},
      {0.0012, 2, 4, "0.0012"},
      {1234.5678, 3, 0, "1235"},  // figures never drop below the integer digits
      {2.449, 2, 1, "2.4"},
      {2.45, 3, 2, "2.45"},
      {0, 1, 1, "0.0"},
      {-1.25, 3, 2, "-1.25"},
      {42, U, U, "42"},
      {-42, U, 2, "-42"},           // one field unknown: plain
      {0.5, U, U, "0.500000"},
      {1e19, U, U, "10000000000000000000.000000"},  // integral but past 2^63
      {9223372036854774784.0, U, U, "9223372036854774784"},  // the last double below 2^63
      {9223372036854775808.0, U, U, "9223372036854775808.000000"},
      {-9223372036854775808.0, U, U, "-9223372036854775808.000000"},
      {99.96, 3, 1, "100.0"},  // rounding carries into a new digit
      {5, 4, 0, "   5"},       // unused figures pad on the left
  };
  for (const auto& c : kCases) {
    DoubleWithSignificantFigures d{c.value, c.sigFigs, c.precision};
    Str out("x=");
    d.renderTo(out);
    EXPECT_EQ(std::string("x=") + c.want, out) << c.value;
  }
}

TEST(EvalDatum, TextFromAFieldIsBothStringAndNumberWhenItReads) {
  const struct { const char* text; bool numeric; double value; } kCases[] = {
      {"42", true, 42}, {"2.50", true, 2.5}, {"-1e3", true, -1000}, {"0x10", true, 16},  // the string converter reads hex
      {"abc", false, 0}, {"", false, 0},     {"1.5x", false, 0},    {" 1", false, 0},
      {"1.2.3", false, 0},
  };
  for (const auto& c : kCases) {
    EvalDatum d;
    d.setBothStringAndNumber(c.text);
    EXPECT_EQ(c.numeric, d.isNumeric()) << c.text;
    EXPECT_TRUE(d.isStringLike()) << c.text;
    EXPECT_EQ(c.text, d.asString());
    if (c.numeric) {
      EXPECT_EQ(c.value, d.asDouble()) << c.text;
      EXPECT_EQ(&EvaluatorTypeBothStringAndNumber::INSTANCE, d.type);
    }
    // It prints as the text it came from.
    EXPECT_EQ(c.text, d.stringify()) << c.text;
  }
}

TEST(EvalDatum, StringifiesEachType) {
  EvalDatum d;
  EXPECT_EQ("Null", d.stringify());
  d.setBool(true);
  EXPECT_EQ("True", d.stringify());
  d.setBool(false);
  EXPECT_EQ("False", d.stringify());
  d.setNumber(7);
  EXPECT_EQ("7", d.stringify());
  d.setString("text");
  EXPECT_EQ("text", d.stringify());
  StrVector& values = d.newMultiValValue();
  values = {"a", "b", "c"};
  EXPECT_EQ("a b c", d.stringify());
  d.str = "x";
  d.stringify();
  EXPECT_EQ("x a b c", d.str);  // behind the text already there
  d.newMultiValValue() = {"", "b"};
  EXPECT_EQ(" b", d.stringify());  // empty values keep their blanks
}

TEST(EvalDatum, CopiesSwapsAndOwnsItsMultiValues) {
  EvalDatum a;
  a.newMultiValValue() = {"one", "two"};
  EvalDatum b(a);
  EXPECT_NE(&a.asMultiVal(), &b.asMultiVal());  // a deep copy
  EXPECT_EQ(a.asMultiVal(), b.asMultiVal());
  b.asMultiVal().push_back("three");
  EXPECT_EQ(2u, a.asMultiVal().size());

  EvalDatum n;
  n.setNumber(3);
  n.swap(b);
  EXPECT_TRUE(n.isMultiVal());
  EXPECT_EQ(3u, n.asMultiVal().size());
  EXPECT_EQ(3, b.asDouble());

  EvalDatum c;
  c.copyFromDestructive(n);
  EXPECT_EQ(3u, c.asMultiVal().size());

  // A copy into a multi-value frees the old vector (the leak checker
  // watches), and a type kept costs no new vector.
  c.copyFrom(b);
  EXPECT_TRUE(c.isNumeric());
  c.setString("s");
  c = a;
  EXPECT_EQ(a.asMultiVal(), c.asMultiVal());
}

TEST(EvalDatumDeathTest, AccessorsAssertTheType) {
  EvalDatum d;
  d.setNumber(1);
  EXPECT_DEATH(d.asMultiVal(), "isMultiVal\\(\\)");
  EXPECT_DEATH(d.asString(), "isStringLike\\(\\)");
  EXPECT_DEATH(d.asBoolean(), "isBoolean\\(\\)");
  d.setString("x");
  EXPECT_DEATH(d.asNumber(), "isNumeric\\(\\)");
}

TEST(EvalDatumStack, GrowsFromEightByDoublingAndKeepsItsSlots) {
  EvalDatumStack stack;
  EXPECT_TRUE(stack.full());  // no slots yet
  EXPECT_EQ(0u, stack.capacity());
  for (int i = 0; i < 20; ++i) stack.push().setNumber(i);
  EXPECT_EQ(32u, stack.capacity());  // 8, 16, 32
  EXPECT_EQ(20u, stack.size());
  for (int i = 0; i < 20; ++i) EXPECT_EQ(19 - i, stack.peek(i).asDouble());  // moved over intact

  // Popped slots keep their values and their string capacity: a push that
  // does not fill the slot sees the old value, so pushers must set it.
  stack.clear();
  EvalDatum& s = stack.push();
  s.setString(std::string(1000, 'x'));
  const size_t capacity = s.str.capacity();
  stack.pop();
  EvalDatum& again = stack.push();
  EXPECT_EQ(&s, &again);
  EXPECT_TRUE(again.isStringLike());
  again.setString("short");
  EXPECT_GE(again.str.capacity(), capacity);
  EXPECT_EQ("short", stack.singleValue().str);
}

// A grow called by hand, not through push: the values move over, the new
// slots are null, and the top keeps its index.
TEST(EvalDatumStack, NewSlotsStartNullAndOldValuesMoveOver) {
  EvalDatumStack s;
  s.grow();
  EXPECT_EQ(s.capacity(), 8u);
  EXPECT_EQ(s.size(), 0u);
  for (int i = 0; i < 8; ++i) s.push().setString(StrSegment("v" + std::to_string(i)));
  ASSERT_TRUE(s.full());
  s.grow();
  EXPECT_EQ(s.capacity(), 16u);
  EXPECT_EQ(s.size(), 8u);
  EXPECT_FALSE(s.full());
  for (int i = 0; i < 8; ++i) {
    EXPECT_EQ(std::string(s.peek(7 - i).asString()), "v" + std::to_string(i));
  }
  for (int i = 0; i < 8; ++i) EXPECT_TRUE(s.push().isNull()) << i;
  EXPECT_TRUE(s.full());
}

struct TypeRow {
  const EvaluatorType* type;
  const char* name;
  bool isStr, isNum, isBool, isNull, isMulti;
  bool mightStr, mightNum, mightBool, mightNull, mightMulti;
};

TEST(EvaluatorType, NamesAndPredicates) {
  const TypeRow rows[] = {
      {&EvalDatum::NullType::INSTANCE, "Null", 0, 0, 0, 1, 0, 0, 0, 0, 1, 0},
      {&EvalDatum::BoolType::INSTANCE, "Bool", 0, 0, 1, 0, 0, 0, 0, 1, 0, 0},
      {&EvalDatum::NumericType::INSTANCE, "Number", 0, 1, 0, 0, 0, 0, 1, 0, 0, 0},
      {&EvalDatum::StringType::INSTANCE, "String", 1, 0, 0, 0, 0, 1, 0, 0, 0, 0},
      {&EvalDatum::MultiValType::INSTANCE, "Multivalue", 0, 0, 0, 0, 1, 0, 0, 0, 0, 1},
      {&EvaluatorTypeBothStringAndNumber::INSTANCE, "Number", 1, 1, 0, 0, 0, 1, 1, 0, 0, 0},
      {&EvalDatum::EitherStringOrNumberType::INSTANCE, "EitherStringOrNumber", 0, 0, 0, 0, 0, 1,
       1, 0, 0, 0},
      {&EvalDatum::EitherStringOrMultivalType::INSTANCE, "EitherStringOrMultivalue", 0, 0, 0, 0,
       0, 1, 0, 0, 0, 1},
      {&EvalDatum::FieldValType::INSTANCE, "FieldValue", 0, 0, 0, 0, 0, 1, 1, 0, 0, 1},
      {&EvalUndeterminedType::INSTANCE, "Undetermined", 0, 0, 0, 0, 0, 1, 1, 1, 1, 1},
  };
  for (const TypeRow& r : rows) {
    SCOPED_TRACE(r.name);
    EXPECT_STREQ(r.type->name(), r.name);
    EXPECT_TRUE(r.type->isType(Str(r.name)));
    EXPECT_FALSE(r.type->isType(Str("NoSuchType")));
    EXPECT_EQ(r.type->isStringLike(), r.isStr);
    EXPECT_EQ(r.type->isNumeric(), r.isNum);
    EXPECT_EQ(r.type->isBoolean(), r.isBool);
    EXPECT_EQ(r.type->isNull(), r.isNull);
    EXPECT_EQ(r.type->isMultiVal(), r.isMulti);
    EXPECT_EQ(r.type->mightBeStringLike(), r.mightStr);
    EXPECT_EQ(r.type->mightBeNumeric(), r.mightNum);
    EXPECT_EQ(r.type->mightBeBoolean(), r.mightBool);
    EXPECT_EQ(r.type->mightBeNull(), r.mightNull);
    EXPECT_EQ(r.type->mightBeMultiVal(), r.mightMulti);
  }
  // A string, a boolean or a number, and nothing else.
  const EvaluatorType& sbn = EvalStringBoolOrNumericType::INSTANCE;
  EXPECT_TRUE(sbn.mightBeStringLike() && sbn.mightBeNumeric() && sbn.mightBeBoolean());
  EXPECT_FALSE(sbn.mightBeNull() || sbn.mightBeMultiVal());
}

TEST(EvaluatorType, StaticOnlyTypesPrintTheirNameInTheGenericForm) {
  const EvaluatorType* types[] = {&EvalUndeterminedType::INSTANCE,
                                  &EvalDatum::FieldValType::INSTANCE,
                                  &EvalDatum::EitherStringOrNumberType::INSTANCE};
  for (const EvaluatorType* t : types) {
    EvalDatum d;
    d.changeType(t);
    EXPECT_EQ(std::string(d.stringify()),
              std::string("<instance of type \"") + t->name() + "\">");
  }
}

TEST(EvalDatumStackDeathTest, ContractsAreAsserted) {
  EvalDatumStack stack;
  stack.push();
  EXPECT_DEATH(stack.grow(), "full\\(\\)");
  stack.push();
  EXPECT_DEATH(stack.singleValue(), "size\\(\\) == 1");
  EXPECT_DEATH(stack.drop(3), "size\\(\\) >= n");
}

}  // namespace
