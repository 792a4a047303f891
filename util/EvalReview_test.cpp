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

// ---- Built-in functions ----

TEST(EvalReviewFunctions, ArgumentCountsAreCheckedAtParse) {
  struct Row {
    const char* expr;
    const char* error;
  };
  const Row rows[] = {
      {"if(true, 1)", "Missing arguments"},
      {"if(true, 1, 2, 3)", "Invalid function argument"},
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
