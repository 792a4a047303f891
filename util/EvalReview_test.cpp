// Eval values, nodes and the parser, checked from the outside: the type
// table, the digit bookkeeping of numbers read from text, the value stack,
// the tree walks, calls to functions that are resolved late, the grammar
// and the built-in functions.
#include <gtest/gtest.h>

#include <cctype>
#include <cmath>
#include <map>
#include <string>
#include <vector>

#include "util/EvalDatum.h"
#include "util/EvalExceptions.h"
#include "util/EvalFunctions.h"
#include "util/EvalNode.h"
#include "util/Evaluator.h"
#include "util/ScopedPointer.h"
#include "util/testing/ThrownText.h"

namespace {

// A result whose fields hold text, as fields read from an event do. A name
// it does not know is left untouched, so the pushed null shows through.
using Fields = std::map<std::string, std::string>;

class FieldContext : public EvaluatorContext {
 public:
  FieldContext() = default;
  explicit FieldContext(std::map<std::string, std::string> fields) : _fields(std::move(fields)) {}
  void lookupVar(const EvaluatorVarReference& ref, EvalDatum& out) const override {
    auto it = _fields.find(ref.name());
    if (it != _fields.end()) out.setBothStringAndNumber(Str(it->second));
  }

 private:
  std::map<std::string, std::string> _fields;
};

EvalDatum evalIn(EvaluatorContext& ctx, const char* expr) {
  Evaluator e;
  e.parse(Str(expr));
  ctx.stack().clear();
  e.evaluate(&ctx);
  EvalDatum out;
  out.copyFrom(ctx.stack().singleValue());
  return out;
}

EvalDatum evalWith(const char* expr, std::map<std::string, std::string> fields = {}) {
  FieldContext ctx(std::move(fields));
  return evalIn(ctx, expr);
}

// The what() of the Eval exception that parsing `expr` throws.
std::string parseError(const char* expr) {
  try {
    Evaluator e;
    e.parse(Str(expr));
  } catch (const EvalException& ex) {
    return ex.what();
  }
  return "<nothing thrown>";
}

std::string text(EvalDatum d) { return std::string(d.stringify()); }

// ---- Types ----

struct TypeRow {
  const EvaluatorType* type;
  const char* name;
  bool isStr, isNum, isBool, isNull, isMulti;
  bool mightStr, mightNum, mightBool, mightNull, mightMulti;
};

TEST(EvalReviewTypes, NamesAndPredicates) {
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

TEST(EvalReviewTypes, StaticOnlyTypesPrintTheirNameInTheGenericForm) {
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

TEST(EvalReviewTypes, StringifyOfEachRunTimeType) {
  EvalDatum d;
  EXPECT_EQ(text(d), "Null");
  d.setBool(true);
  EXPECT_EQ(text(d), "True");
  d.setBool(false);
  EXPECT_EQ(text(d), "False");
  // A slot that held text before: the number's form replaces it.
  d.setString(StrSegment("junk"));
  d.setNumber(42.0);
  EXPECT_EQ(text(d), "42");
  d.setString(StrSegment("junk"));
  d.setNull();
  EXPECT_EQ(text(d), "Null");
  d.setBothStringAndNumber(Str("007.10"));
  EXPECT_EQ(text(d), "007.10");
}

// ---- Digits of numbers read from text ----

struct FigRow {
  const char* text;
  unsigned sigFigs;
  unsigned precision;
};

TEST(EvalReviewDigits, FiguresAndPrecisionFromText) {
  constexpr unsigned U = DoubleWithSignificantFigures::UNKNOWN;
  const FigRow rows[] = {
      {"100", U, U},      {"-42", U, U},       {"0", U, U},         {"1.50", 3, 2},
      {"0.0012", 2, 4},   {"100.", 3, 0},      {"1e3", 1, 0},       {"0.000", 4, 3},
      {"1.5e2", 2, 0},    {"1.2345e2", 5, 2},  {"-0.50", 2, 2},     {"+1.0", 2, 1},
      {"1.5e-2", 2, 3},   {"12.5E1", 3, 0},    {"0e0", 1, 0},       {".5", 1, 1},
      {"5.", 1, 0},       {"1.05", 3, 2},      {"10.0", 3, 1},      {"007.10", 3, 2},
      {"2.5e-3", 2, 4},   {"1000.25", 6, 2},
  };
  for (const FigRow& r : rows) {
    SCOPED_TRACE(r.text);
    DoubleWithSignificantFigures d;
    d.set(123.0);
    d.setSigFigAndPrecisionFrom(StrSegment(r.text));
    EXPECT_EQ(d.sigFigs, r.sigFigs);
    EXPECT_EQ(d.precision, r.precision);
    EXPECT_EQ(d.value, 123.0);  // the value itself is not touched
  }
}

struct RenderRow {
  double value;
  unsigned sigFigs;
  unsigned precision;
  const char* out;
};

TEST(EvalReviewDigits, RenderTo) {
  constexpr uint16_t U = DoubleWithSignificantFigures::UNKNOWN;
  const RenderRow rows[] = {
      // Unknown digits: integers as integers, anything else with six decimals.
      {42, U, U, "42"},
      {-7, U, U, "-7"},
      {0.5, U, U, "0.500000"},
      {0.5, 3, U, "0.500000"},
      {4, U, 2, "4"},
      {9223372036854774784.0, U, U, "9223372036854774784"},
      {9223372036854775808.0, U, U, "9223372036854775808.000000"},
      {-9223372036854775808.0, U, U, "-9223372036854775808.000000"},
      {1e19, U, U, "10000000000000000000.000000"},
      // Known digits: rounded to the figures, printed with the precision.
      {1.5, 3, 2, "1.50"},
      {1234.5678, 3, 0, "1235"},
      {0.001234, 2, 4, "0.0012"},
      {0.0016, 1, 3, "0.002"},
      {99.96, 3, 1, "100.0"},
      {0, 1, 0, "0"},
      {0, 2, 1, "0.0"},
      {2.675, 4, 3, "2.675"},
      {5, 4, 0, "   5"},
      {-3.14159, 3, 2, "-3.14"},
  };
  for (const RenderRow& r : rows) {
    SCOPED_TRACE(r.out);
    DoubleWithSignificantFigures d;
    d.value = r.value;
    d.sigFigs = static_cast<uint16_t>(r.sigFigs);
    d.precision = static_cast<uint16_t>(r.precision);
    Str out("x=");
    d.renderTo(out);
    EXPECT_EQ(std::string(out), std::string("x=") + r.out);
  }
}

// ---- Datum ----

TEST(EvalReviewDatum, TextFromFieldsBecomesNumberOnlyWhenItReads) {
  struct Row {
    const char* text;
    bool numeric;
    double value;
  };
  const Row rows[] = {{"3.50", true, 3.5},  {"1e3", true, 1000},   {"-0.5", true, -0.5},
                      {"42", true, 42},     {"abc", false, 0},     {"12ab", false, 0},
                      {"", false, 0},       {"1.2.3", false, 0}};
  for (const Row& r : rows) {
    SCOPED_TRACE(r.text);
    EvalDatum d;
    d.setBool(true);  // a slot of another type before
    d.setBothStringAndNumber(Str(r.text));
    EXPECT_EQ(std::string(d.str), r.text);
    EXPECT_TRUE(d.isStringLike());
    EXPECT_EQ(std::string(d.asString()), r.text);
    if (r.numeric) {
      EXPECT_EQ(d.type, &EvaluatorTypeBothStringAndNumber::INSTANCE);
      EXPECT_EQ(d.asDouble(), r.value);
    } else {
      EXPECT_EQ(d.type, &EvalDatum::StringType::INSTANCE);
    }
    EXPECT_EQ(text(d), r.text);
  }
  EvalDatum d;
  d.setBothStringAndNumber(Str("2.50"));
  EXPECT_EQ(d.asNumber().sigFigs, 3);
  EXPECT_EQ(d.asNumber().precision, 2);
}

// ---- Stack ----

// A grow called by hand, not through push: the values move over, the new
// slots are null, and the top keeps its index.
TEST(EvalReviewStack, NewSlotsStartNullAndOldValuesMoveOver) {
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

// ---- Context and leaves ----

TEST(EvalReviewContext, BaseLookupGivesTheNameBack) {
  EvaluatorContext ctx;
  EvalDatum d = evalIn(ctx, "user");
  EXPECT_EQ(d.type, &EvalDatum::StringType::INSTANCE);
  EXPECT_EQ(std::string(d.asString()), "user");
  d = evalIn(ctx, "'user id'");
  EXPECT_EQ(std::string(d.asString()), "user id");
  d = evalIn(ctx, "a . \"-\" . b");
  EXPECT_EQ(std::string(d.asString()), "a-b");
  EXPECT_EQ(ctx.getTimezone(), nullptr);
  ctx.stackPush().setNumber(3);
  ctx.stackSetTopToNull();
  EXPECT_TRUE(ctx.stack().peek().isNull());
}

TEST(EvalReviewContext, ReusedSlotsShowNoValueOfAnEarlierResult) {
  FieldContext ctx(Fields{{"a", "A"}});
  EXPECT_EQ(text(evalIn(ctx, "a . \"x\"")), "Ax");
  // "b" is not a field of this result: its slot is set to null first.
  EXPECT_TRUE(evalIn(ctx, "b").isNull());
  EXPECT_TRUE(evalIn(ctx, "coalesce(b, b)").isNull());
  EXPECT_EQ(text(evalIn(ctx, "coalesce(b, a)")), "A");
}

TEST(EvalReviewLeaves, ConstantsAndVariables) {
  Evaluator e;
  struct Row {
    const char* name;
    bool constant;
    const EvaluatorType* type;
  };
  const Row rows[] = {{"true", true, &EvalDatum::BoolType::INSTANCE},
                      {"FALSE", true, &EvalDatum::BoolType::INSTANCE},
                      {"Null", true, &EvalDatum::NullType::INSTANCE},
                      {"truex", false, &EvalDatum::FieldValType::INSTANCE},
                      {"host", false, &EvalDatum::FieldValType::INSTANCE}};
  for (const Row& r : rows) {
    SCOPED_TRACE(r.name);
    ScopedPointer<EvaluatorNode> n(e.createVariableOrConstantNode(Str(r.name)));
    ASSERT_TRUE(n.valid());
    EXPECT_EQ(n->isConstant(), r.constant);
    EXPECT_EQ(n->returnType(), r.type);
    std::vector<std::string> seen;
    struct Cb : EvaluatorVarReference::iterator_callback {
      std::vector<std::string>* out;
      void visit(const EvaluatorVarReference& ref) override { out->push_back(ref.name()); }
    } cb;
    cb.out = &seen;
    n->forEachVariable(cb);
    EXPECT_EQ(seen.size(), r.constant ? 0u : 1u);
  }
  EvalDatum v;
  EXPECT_TRUE(e.lookupConstant(Str("TrUe"), v));
  EXPECT_TRUE(v.asBoolean());
  EXPECT_FALSE(e.lookupConstant(Str("yes"), v));
}

// ---- Trees ----

struct NameRecorder : NonLeafEvaluatorNodeIteratorCallback {
  std::vector<std::string> names;
  bool answer = true;
  bool visit(EvaluatorNode** slot) override {
    names.push_back(dynamic_cast<NonLeafEvaluatorNode*>(*slot)->name());
    return answer;
  }
};

TEST(EvalReviewTree, WalkOrders) {
  Evaluator e;
  // Built unchecked so that nothing is folded: (1 * 2) + (3 - (4 / 5))
  e.parseWithoutChecking(Str("1 * 2 + (3 - 4 / 5)"));
  EvaluatorNode** root = e.rootSlot();
  NameRecorder first;
  (*root)->forEachNonLeafNodeDepthFirst_internal(root, first);
  EXPECT_EQ(first.names, (std::vector<std::string>{"*", "/", "-", "+"}));
  NameRecorder last;
  (*root)->forEachNonLeafNodeDepthLast_internal(root, last);
  EXPECT_EQ(last.names, (std::vector<std::string>{"+", "*", "-", "/"}));
  NameRecorder stop;
  stop.answer = false;
  (*root)->forEachNonLeafNodeDepthLast_internal(root, stop);
  EXPECT_EQ(stop.names, (std::vector<std::string>{"+"}));
  // A leaf has nothing to visit.
  ScopedPointer<EvaluatorNode> leaf(e.createVariableOrConstantNode(Str("x")));
  EvaluatorNode* raw = leaf.get();
  NameRecorder none;
  leaf->forEachNonLeafNodeDepthFirst_internal(&raw, none);
  leaf->forEachNonLeafNodeDepthLast_internal(&raw, none);
  EXPECT_TRUE(none.names.empty());
}

TEST(EvalReviewTree, ACallbackCanReplaceANodeInItsParent) {
  Evaluator e;
  e.parseWithoutChecking(Str("x + 2 * 3"));
  // Put a subtraction of the same operands where the product was: x + (2 - 3).
  struct Swap : NonLeafEvaluatorNodeIteratorCallback {
    bool visit(EvaluatorNode** slot) override {
      auto* n = dynamic_cast<NonLeafEvaluatorNode*>(*slot);
      if (std::string(n->name()) != "*") return true;
      auto* sub = new SubFunction;
      for (size_t i = 0; i < n->argn(); ++i) {
        EvalDatum v;
        v.setNumber(dynamic_cast<ConstantEvaluatorNode*>(n->child(i))->value().asDouble());
        ScopedPointer<EvaluatorNode> c(new ConstantEvaluatorNode(v));
        sub->addChild(c);
        EXPECT_FALSE(c.valid());
      }
      delete n;
      *slot = sub;
      return false;
    }
  } swap;
  (*e.rootSlot())->forEachNonLeafNodeDepthLast_internal(e.rootSlot(), swap);
  e.check();
  FieldContext ctx(Fields{{"x", "10"}});
  ctx.stack().clear();
  e.evaluate(&ctx);
  EXPECT_EQ(ctx.stack().singleValue().asDouble(), 9);
}

TEST(EvalReviewTree, ConstantSubtreesFoldAndVariablesStay) {
  struct Row {
    const char* expr;
    bool rootConstant;
  };
  const Row rows[] = {{"1 + 2", true},           {"(1 + 2) * 3 - 4", true},
                      {"\"a\" . \"b\"", true},   {"NOT true", true},
                      {"x + 1", false},          {"len(\"abc\") > 2", true},
                      {"if(x > 1, 1, 2)", false}};
  for (const Row& r : rows) {
    SCOPED_TRACE(r.expr);
    Evaluator e;
    e.parse(Str(r.expr));
    EXPECT_EQ((*e.rootSlot())->isConstant(), r.rootConstant);
  }
  // Inside a tree with a field, the constant part is folded all the same.
  Evaluator e;
  e.parse(Str("x + 2 * 3"));
  auto* add = dynamic_cast<NonLeafEvaluatorNode*>(*e.rootSlot());
  ASSERT_NE(add, nullptr);
  ASSERT_EQ(add->argn(), 2u);
  EXPECT_FALSE(add->child(0)->isConstant());
  ASSERT_TRUE(add->child(1)->isConstant());
  EXPECT_EQ(dynamic_cast<ConstantEvaluatorNode*>(add->child(1))->value().asDouble(), 6);
  EXPECT_FALSE(add->tryPreEval());
}

TEST(EvalReviewTree, VariablesInOrderAndReturnTypes) {
  Evaluator e;
  e.parse(Str("a + b * a - 'c d'"));
  struct Cb : EvaluatorVarReference::iterator_callback {
    std::vector<std::string> names;
    void visit(const EvaluatorVarReference& ref) override { names.push_back(ref.name()); }
  } cb;
  e.forEachVariable(cb);
  EXPECT_EQ(cb.names, (std::vector<std::string>{"a", "b", "a", "c d"}));
  EXPECT_EQ(e.returnType(), &EvalDatum::NumericType::INSTANCE);
  EXPECT_EQ((*e.rootSlot())->maxVersion(), 1u);

  Evaluator cmp;
  cmp.parse(Str("a < b AND c = 1"));
  EXPECT_TRUE(cmp.returnType()->mightBeBoolean());
  EXPECT_FALSE(cmp.returnType()->mightBeMultiVal());
}

TEST(EvalReviewTreeDeathTest, MathWithOneChildIsAProgrammingError) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        MultFunction m;
        EvalDatum v;
        v.setNumber(1);
        ScopedPointer<EvaluatorNode> c(new ConstantEvaluatorNode(v));
        m.addChild(c);
        m.typeCheck();
      },
      "argn\\(\\) == 2");
}

TEST(EvalReviewTree, MathCheckWantsNumbers) {
  struct Row {
    const char* expr;
    const char* error;
  };
  const Row rows[] = {{"true * 2", "Operator requires numeric types"},
                      {"2 - \"a\"", "Operator requires numeric types"},
                      {"\"a\" / 2", "Operator requires numeric types"},
                      {"1 % false", "Operator requires numeric types"},
                      {"null * 2", "Operator requires numeric types"},
                      {"x * 2", "<nothing thrown>"},
                      {"x % y", "<nothing thrown>"}};
  for (const Row& r : rows) {
    EXPECT_EQ(parseError(r.expr), r.error) << r.expr;
  }
}

// ---- Functions resolved late ----

TEST(EvalReviewUndefined, UnknownFunctionFailsCheckUntilProxied) {
  EXPECT_EQ(parseError("nofn(1)"), "Bad function");
  EXPECT_EQ(parseError("1 + nofn(x, 2)"), "Bad function");

  Evaluator e;
  e.parseWithoutChecking(Str("plus(x, 2)"));
  auto* u = dynamic_cast<UndefinedEvalNode*>(*e.rootSlot());
  ASSERT_NE(u, nullptr);
  EXPECT_STREQ(u->name(), "plus");
  EXPECT_EQ(u->argn(), 2u);
  EXPECT_FALSE(u->tryPreEval());
  EXPECT_EQ(thrownText<EvalBadFunctionException>([&] { e.check(); }), "Bad function");
  // With no proxy it evaluates to null.
  FieldContext ctx(Fields{{"x", "40"}});
  ctx.stack().clear();
  u->evaluate(&ctx);
  EXPECT_EQ(ctx.stack().size(), 1u);
  EXPECT_TRUE(ctx.stack().peek().isNull());

  u->proxyTo(new AddFunction);
  e.check();
  EXPECT_TRUE(e.returnType()->mightBeNumeric());
  ctx.stack().clear();
  e.evaluate(&ctx);
  EXPECT_EQ(ctx.stack().singleValue().asDouble(), 42);
  // The variables are still found through the proxy.
  struct Cb : EvaluatorVarReference::iterator_callback {
    int n = 0;
    void visit(const EvaluatorVarReference&) override { ++n; }
  } cb;
  e.forEachVariable(cb);
  EXPECT_EQ(cb.n, 1);
}

// ---- Failures ----

TEST(EvalReviewErrors, FixedTexts) {
  const std::pair<std::string, std::string> rows[] = {
      {EvalMissingArgumentsException().what(), "Missing arguments"},
      {EvalMissingFactorException().what(), "Missing factor"},
      {EvalMissingTermException().what(), "Missing term"},
      {EvalMissingComparisonTermException().what(), "Missing comparison term"},
      {EvalMissingAndTermException().what(), "Missing AND term"},
      {EvalMissingOrTermException().what(), "Missing OR term"},
      {EvalInvalidOperatorException().what(), "Invalid operator"},
      {EvalInvalidUnaryOperatorException().what(), "Invalid unary operator"},
      {EvalBadFunctionException().what(), "Bad function"},
      {EvalBadVariableException().what(), "Bad variable"},
      {EvalUnexpectedTokenException().what(), "Unexpected token"},
      {EvalMalformedExpressionWhileExpectingException().what(), "Expecting different token"},
      {EvalInvalidNumberException().what(), "Invalid number"},
      {EvalInvalidFunctionArgumentExpception().what(), "Invalid function argument"},
      {EvalRegularExpressionError().what(), "Regular expression error"},
      {EvalTypeNotConcatableException().what(), "Types not concatable"},
      {EvalOperatorTypesDifferException().what(), "Operator types incompatible"},
      {EvalBadPlusOperatorTypesException().what(), "Operator '+' types incompatible"},
      {EvalBadTypeForNumericalOperatorException().what(), "Operator requires numeric types"},
      {EvalBadTypeForBooleanOperatorException().what(), "Operator requires boolean types"},
  };
  for (const auto& [got, want] : rows) EXPECT_EQ(got, want);
  const std::runtime_error& base = EvalBadVariableException(Str("x"));
  EXPECT_STREQ(base.what(), "Bad variable");
}

TEST(EvalReviewErrors, NodeExceptionsNameTheNode) {
  MultFunction m;
  EvalOperatorTypesDifferException a = m.bad_operand_exception();
  EXPECT_STREQ(a.what(), "Operator types incompatible");
  EXPECT_NE(std::string(a.where()).find('*'), std::string::npos) << a.where();
  EvalInvalidFunctionArgumentExpception b = m.bad_arg_exception();
  EXPECT_STREQ(b.what(), "Invalid function argument");
  EXPECT_NE(std::string(b.where()).find('*'), std::string::npos) << b.where();
}

TEST(EvalReviewGrammar, DocumentedErrors) {
  struct Row {
    const char* expr;
    const char* error;
  };
  const Row rows[] = {
      {"a +", "Missing term"},
      {"a -", "Missing term"},
      {"a .", "Missing term"},
      {"a *", "Missing factor"},
      {"a %", "Missing factor"},
      {"a <", "Missing comparison term"},
      {"a !=", "Missing comparison term"},
      {"a AND", "Missing AND term"},
      {"a &&", "Missing AND term"},
      {"a OR", "Missing OR term"},
      {"a ||", "Missing OR term"},
      {"a XOR", "Missing OR term"},
      {"", "Missing OR term"},
      {"   ", "Missing OR term"},
      {"a ^ b", "Invalid operator"},
      {"+a", "Invalid unary operator"},
      {"(a", "Expecting different token"},
      {"len(a", "Expecting different token"},
      {"\"abc", "Expecting different token"},
      {"a b", "Unexpected token"},
      {")", "Unexpected token"},
      {"a ANDb", "Unexpected token"},
      {"1 2", "Unexpected token"},
      {"''", "Bad variable"},
      {"nofn(1)", "Bad function"},
      {"f(1,)", "Missing arguments"},
      {"len(1,)", "Missing arguments"},
      {"1.2.3", "Invalid number"},
      {"12ab", "Invalid number"},
      {"1e", "Invalid number"},
      {"a = 1.2.3", "Invalid number"},
  };
  for (const Row& r : rows) {
    EXPECT_EQ(parseError(r.expr), r.error) << "[" << r.expr << "]";
  }
}

TEST(EvalReviewGrammar, NestingLimit) {
  auto nested = [](int n) { return std::string(n, '(') + "1" + std::string(n, ')'); };
  EXPECT_EQ(parseError(nested(100).c_str()), "<nothing thrown>");
  EXPECT_EQ(parseError(nested(300).c_str()), "Unexpected token");
  EXPECT_EQ(parseError(nested(5000).c_str()), "Unexpected token");
  std::string unary(5000, '-');
  unary += "1";
  EXPECT_EQ(parseError(unary.c_str()), "Unexpected token");
  std::string nots;
  for (int i = 0; i < 5000; ++i) nots += "!";
  nots += "true";
  EXPECT_EQ(parseError(nots.c_str()), "Unexpected token");
}

TEST(EvalReviewGrammar, NumericResults) {
  struct Row {
    const char* expr;
    double value;
  };
  const Row rows[] = {
      {"7 - 2 - 1", 4},        {"2 + 3 * 4", 14},      {"(2 + 3) * 4", 20},
      {"100 / 10 / 5", 2},     {"10 / 4", 2.5},        {"7 % 3", 1},
      {"2 * 3 % 4", 2},        {"-3 + 5", 2},          {"- -3", 3},
      {"-(2 + 3)", -5},        {".5 * 4", 2},          {"1e3 + 1", 1001},
      {"2.50 * 2", 5},         {"x * 2", 8},           {"-x", -4},
      {"x - 1 - 1", 2},        {"'x' + 1", 5},         {"1E2", 100},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.expr);
    EvalDatum d = evalWith(r.expr, {{"x", "4"}});
    ASSERT_TRUE(d.isNumeric()) << d.type->name();
    EXPECT_DOUBLE_EQ(d.asDouble(), r.value);
  }
}

TEST(EvalReviewGrammar, NullResults) {
  const char* rows[] = {"1 / 0",     "5 % 0",        "x / 0",        "x * 2",
                        "null = 1",  "1 != null",    "nothere < 1",  "s * 2",
                        "nothere + 1", "x >= nothere"};
  for (const char* expr : rows) {
    EvalDatum d = evalWith(expr, {{"s", "abc"}, {"x", "abc"}});
    EXPECT_TRUE(d.isNull()) << expr << " gave " << d.type->name() << " " << text(d);
  }
}

TEST(EvalReviewGrammar, BooleanAndTextResults) {
  struct Row {
    const char* expr;
    const char* out;
  };
  const Row rows[] = {
      {"1 < 2", "True"},
      {"2 <= 2", "True"},
      {"3 > 2", "True"},
      {"2 >= 3", "False"},
      {"1 = 1.0", "True"},
      {"1 == 1", "True"},
      {"1 != 2", "True"},
      {"\"abc\" < \"abd\"", "True"},
      {"\"10\" < \"9\"", "True"},     // text orders bytewise
      {"ten < nine", "False"},         // fields "10" and "9" are numbers
      {"ten > nine", "True"},
      {"\"1\" = 1", "True"},           // a string against a number: by text
      {"\"1.0\" = 1", "False"},
      {"onefive = 1.5", "True"},       // field "1.50" is numeric
      {"true AND false", "False"},
      {"true && true", "True"},
      {"false OR true", "True"},
      {"false || false", "False"},
      {"true XOR true", "False"},
      {"true XOR false", "True"},
      {"NOT true", "False"},
      {"!false", "True"},
      {"1 < 2 AND 2 < 3 OR false", "True"},
      {"false AND true OR true", "True"},
      {"false AND (true OR true)", "False"},
      {"true OR false AND false", "True"},
      {"1 + 1 = 2", "True"},
      {"\"a\" . \"b\"", "ab"},
      {"\"a\" + \"b\"", "ab"},
      {"1 . 2", "12"},
      {"\"q\\\"q\"", "q\"q"},
      {"\"b\\\\s\"", "b\\s"},
      {"onefive . \"\"", "1.50"},
      {"'user id'", "jo"},
      {"TRUE", "True"},
      {"nULL", "Null"},
  };
  for (const Row& r : rows) {
    EvalDatum d = evalWith(
        r.expr, {{"ten", "10"}, {"nine", "9"}, {"onefive", "1.50"}, {"user id", "jo"}});
    EXPECT_EQ(text(d), r.out) << r.expr;
  }
}

// ---- Built-in functions ----

TEST(EvalReviewFunctions, TextResults) {
  struct Row {
    const char* expr;
    const char* out;
  };
  const Row rows[] = {
      {"if(true, \"a\", \"b\")", "a"},
      {"if(1 > 2, \"a\", \"b\")", "b"},
      {"case(false, \"a\", true, \"b\", true, \"c\")", "b"},
      {"coalesce(nothere, \"d\", \"e\")", "d"},
      {"coalesce(s, \"d\")", "hello"},
      {"lower(\"ÄBC\")", "äbc"},
      {"upper(\"éa\")", "ÉA"},
      {"substr(\"hello\", 2, 3)", "ell"},
      {"substr(\"hello\", 1)", "hello"},
      {"substr(\"hello\", -3)", "llo"},
      {"substr(\"hello\", -3, 2)", "ll"},
      {"substr(\"héllo\", 2, 2)", "él"},
      {"substr(s, 4)", "lo"},
      {"tostring(1234567.891, \"commas\")", "1,234,567.89"},
      {"tostring(\"abc\")", "abc"},
      {"tostring(true)", "True"},
      {"strftime(86400 * 400, \"%Y-%m\")", "1971-02"},
  };
  for (const Row& r : rows) {
    EvalDatum d = evalWith(r.expr, {{"s", "hello"}});
    EXPECT_EQ(text(d), r.out) << r.expr;
  }
  EvalDatum hex = evalWith("tostring(255, \"hex\")");
  std::string h = text(hex);
  for (char& c : h) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  EXPECT_EQ(h, "0xff");
}

TEST(EvalReviewFunctions, NumericResults) {
  struct Row {
    const char* expr;
    double value;
  };
  const Row rows[] = {
      {"len(\"héllo\")", 5},           {"len(\"\")", 0},
      {"len(s)", 5},                    {"tonumber(\"ff\", 16)", 255},
      {"tonumber(\"101\", 2)", 5},     {"tonumber(\"zz\", 36)", 1295},
      {"tonumber(\"1.5\")", 1.5},      {"tonumber(\"-12\")", -12},
      {"tonumber(n)", 42},              {"round(2.5)", 3},
      {"round(-2.5)", -3},              {"round(2.4)", 2},
      {"round(1.25, 1)", 1.3},          {"round(-1.25, 1)", -1.3},
      {"abs(-3.5)", 3.5},
      {"abs(n)", 42},                   {"if(false, 1, 2)", 2},
      {"case(1 > 2, 1, 2 > 1, 7)", 7},  {"coalesce(null, 3)", 3},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.expr);
    EvalDatum d = evalWith(r.expr, {{"s", "hello"}, {"n", "42"}});
    ASSERT_TRUE(d.isNumeric()) << d.type->name();
    EXPECT_NEAR(d.asDouble(), r.value, 1e-9);
  }
}

TEST(EvalReviewFunctions, NullAndBooleanResults) {
  const char* nulls[] = {"case(false, 1)",     "coalesce(null, null)", "tonumber(\"12x\")",
                         "tonumber(\"9\", 8)", "tonumber(s)",          "if(s = 1, 1, null)"};
  for (const char* expr : nulls) {
    EvalDatum d = evalWith(expr, {{"s", "hello"}});
    EXPECT_TRUE(d.isNull()) << expr << " gave " << d.type->name() << " " << text(d);
  }
  struct Row {
    const char* expr;
    bool value;
  };
  const Row bools[] = {{"isnull(null)", true},  {"isnull(1)", false},   {"isnull(nothere)", true},
                       {"isnull(s)", false},    {"isnum(1)", true},     {"isnum(\"1\")", false},
                       {"isnum(n)", true},      {"isnum(s)", false},    {"isnum(null)", false}};
  for (const Row& r : bools) {
    EvalDatum d = evalWith(r.expr, {{"s", "hello"}, {"n", "12"}});
    ASSERT_TRUE(d.isBoolean()) << r.expr << " gave " << d.type->name();
    EXPECT_EQ(d.asBoolean(), r.value) << r.expr;
  }
}

TEST(EvalReviewFunctions, ArgumentCountsAreCheckedAtParse) {
  struct Row {
    const char* expr;
    const char* error;
  };
  const Row rows[] = {
      {"len()", "Missing arguments"},
      {"len(1, 2)", "Invalid function argument"},
      {"if(true, 1)", "Missing arguments"},
      {"if(true, 1, 2, 3)", "Invalid function argument"},
      {"substr(\"a\")", "Missing arguments"},
      {"substr(\"a\", 1, 2, 3)", "Invalid function argument"},
      {"round(1, 2, 3)", "Invalid function argument"},
      {"abs()", "Missing arguments"},
      {"isnull()", "Missing arguments"},
      {"strftime(1)", "Missing arguments"},
      {"coalesce()", "Missing arguments"},
  };
  for (const Row& r : rows) EXPECT_EQ(parseError(r.expr), r.error) << r.expr;
  ScopedPointer<NonLeafEvaluatorNode> len(createBuiltinEvalFunction(Str("len")));
  ASSERT_TRUE(len.valid());
  EXPECT_STREQ(len->name(), "len");
  EXPECT_EQ(createBuiltinEvalFunction(Str("nofn")), nullptr);
}

}  // namespace
