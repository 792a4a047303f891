#include "util/Evaluator.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <iterator>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "util/EvalExceptions.h"
#include "util/EvalFunctions.h"
#include "util/EvalNode.h"
#include "util/ScopedPointer.h"
#include "util/testing/ScopedTz.h"

namespace {

// A result of named fields, read as field text is.
class MapContext : public EvaluatorContext {
 public:
  std::map<std::string, std::string> fields;
  void lookupVar(const EvaluatorVarReference& ref, EvalDatum& out) const override {
    // A name it does not know is left alone: the evaluator's own null shows.
    const auto it = fields.find(ref.name());
    if (it != fields.end()) out.setBothStringAndNumber(Str(it->second));
  }
};

// The printed value of `expr` over the fields of `ctx`, or "error: <what>".
std::string eval(const std::string& expr, MapContext& ctx) {
  Evaluator e;
  try {
    e.parse(Str(expr));
  } catch (const EvalException& ex) {
    return std::string("error: ") + ex.what();
  }
  e.evaluate(&ctx);
  EvalDatum& result = ctx.stack().singleValue();
  if (result.isNull()) return "null";
  return result.stringify();
}

std::string eval(const std::string& expr) {
  MapContext ctx;
  ctx.fields = {{"bytes", "2048"}, {"status", "503"}, {"host", "Web-01"}, {"ratio", "0.50"},
                {"user", "ana"},   {"word", "h\xC3\xA9llo"}};
  return eval(expr, ctx);
}

TEST(Evaluator, ArithmeticComparisonAndLogic) {
  const struct { const char* expr; const char* want; } kCases[] = {
      {"1 + 2 * 3", "7"},
      {"(1 + 2) * 3", "9"},
      {"10 - 4 - 3", "3"},          // left-associative
      {"7 % 3", "1"},
      {"bytes / 1024", "2"},
      {"bytes / 0", "null"},        // no result, no failure
      {"-bytes", "-2048"},
      {"- -3", "3"},
      {"1.50 + 2.25", "3.75"},      // the least precise operand rules
      {"1.5 + 2.25", "3.8"},
      {"ratio * 3", "1.5"},         // field text keeps its figures too
      {"2.0 * 3.14159", "6.3"},
      {"1.50 + 2", "3.50"},         // an integer is a count: it limits nothing
      {"0.1 * 3", "0.3"},
      {"1.5 * 0.5", "0.8"},         // one figure in 0.5
      {"status >= 500", "True"},
      {"status < 500", "False"},
      {"\"abc\" < \"abd\"", "True"},
      {"\"10\" < \"9\"", "True"},   // strings order bytewise
      {"status = \"503\"", "True"}, // a number from text equals its text
      {"status != 503", "False"},
      {"missing = 1", "null"},      // a null operand
      {"null < 1", "null"},
      {"1 >= null", "null"},
      {"true AND false", "False"},
      {"true OR false", "True"},
      {"true XOR true", "False"},
      {"NOT false", "True"},
      {"!true", "False"},
      {"status > 400 && status < 600", "True"},
      {"1 = 1 || 1 = 2", "True"},
      {"true OR false AND false", "True"},  // AND binds tighter
      {"bytes > status", "True"},   // fields that read as numbers compare as numbers
      {"\"1.0\" = 1", "False"},     // a string against a number: by text
      {"bytes % 0", "null"},
      {"host . \":\" . bytes", "Web-01:2048"},
      {"\"a\" + \"b\"", "ab"},
      {"user + 1", "null"},         // neither two numbers nor two strings
      {"\"quote \\\" inside\"", "quote \" inside"},
      {"\"b\\\\s\"", "b\\s"},
      {"'status' + 1", "504"},
      {"TRUE", "True"},
      {"null", "null"},
  };
  for (const auto& c : kCases) EXPECT_EQ(c.want, eval(c.expr)) << c.expr;
}

TEST(Evaluator, Functions) {
  ScopedTz utc("UTC");
  const struct { const char* expr; const char* want; } kCases[] = {
      {"if(status >= 500, \"error\", \"ok\")", "error"},
      {"if(status < 500, \"error\", \"ok\")", "ok"},
      {"if(missing = 1, 1, 2)", "null"},
      {"case(status = 1, \"one\", status = 503, \"busy\")", "busy"},
      {"case(false, 1)", "null"},
      {"coalesce(missing, nothing, user, host)", "ana"},
      {"coalesce(missing)", "null"},
      {"len(user)", "3"},
      {"len(word)", "5"},            // characters, not bytes
      {"len(bytes)", "4"},
      {"lower(host)", "web-01"},
      {"upper(word)", "H\xC3\x89LLO"},
      {"substr(host, 1, 3)", "Web"},
      {"substr(host, 5)", "01"},
      {"substr(host, -2)", "01"},
      {"substr(word, 2, 1)", "\xC3\xA9"},
      {"substr(host, 10)", ""},
      {"substr(host, -3, 2)", "-0"},
      {"lower(\"\xC3\x84" "BC\")", "\xC3\xA4" "bc"},
      {"tonumber(\"ff\", 16)", "255"},
      {"tonumber(\"12\") + 1", "13"},
      {"tonumber(\"12x\")", "null"},
      {"tonumber(\"7\", 1)", "null"},
      {"tonumber(\"0x1F\")", "null"},      // base 10 reads decimals only
      {"tonumber(\".5\") * 2", "1"},
      {"tonumber(\"+5\")", "5"},
      {"tonumber(\"zz\", 36)", "1295"},
      {"tonumber(\"9\", 8)", "null"},    // a digit past the base
      {"tonumber(\"1.\")", "null"},
      {"tostring(255, \"hex\")", "0xFF"},
      {"tostring(1234567.891, \"commas\")", "1,234,567.89"},
      {"tostring(-1234, \"commas\")", "-1,234.00"},
      {"tostring(1 = 1)", "True"},
      {"tostring(bytes) . \"B\"", "2048B"},
      {"round(2.567, 2)", "2.57"},
      {"round(2.5)", "3"},
      {"round(-2.5)", "-3"},
      {"round(-1.25, 1)", "-1.3"},
      {"abs(-4.25)", "4.25"},
      {"isnull(missing)", "True"},
      {"isnull(user)", "False"},
      {"isnum(bytes)", "True"},
      {"isnum(user)", "False"},
      {"strftime(0, \"%Y-%m-%d %H:%M:%S\")", "1970-01-01 00:00:00"},
      {"strftime(1234567890.25, \"%H:%M:%S.%3N\")", "23:31:30.250"},
      {"strftime(bytes, \"%s\")", "2048"},
      {"strptime(\"2009-02-13 23:31:30 +0100\", \"%Y-%m-%d %H:%M:%S %z\")", "1234564290"},
      {"strptime(\"2001-01-01 00:00:00.500\", \"%Y-%m-%d %H:%M:%S.%3N\")", "978307200.500000"},
      {"strptime(\"not a date\", \"%Y-%m-%d\")", "null"},
      {"strptime(\"02/30/2020 10:00\", \"%m/%d/%Y %H:%M\")", "null"},
  };
  for (const auto& c : kCases) EXPECT_EQ(c.want, eval(c.expr)) << c.expr;
}

// The run-time type of each result beside its text.
TEST(Evaluator, ResultTypes) {
  ScopedTz utc("UTC");
  const struct { const char* expr; const char* type; const char* text; } kCases[] = {
      {"bytes", "Number", "2048"},          // field text that reads: both
      {"ratio", "Number", "0.50"},
      {"host", "String", "Web-01"},
      {"missing", "Null", "Null"},
      {"42", "Number", "42"},
      {"4.20", "Number", "4.20"},
      {"\"42\"", "String", "42"},
      {"true", "Bool", "True"},
      {"bytes + 0", "Number", "2048"},
      {"ratio + 0", "Number", "0.50"},
      {"host . 1", "String", "Web-011"},
      {"1 . 2", "String", "12"},
      {"\"x\" + \"y\"", "String", "xy"},
      {"bytes + status", "Number", "2551"},
      {"bytes < status", "Bool", "False"},
      {"NOT (bytes < status)", "Bool", "True"},
      {"-ratio", "Number", "-0.50"},
      {"len(host)", "Number", "6"},
      {"upper(1.5)", "String", "1.5"},
      {"substr(bytes, 2)", "String", "048"},
      {"tonumber(\"0.250\")", "Number", "0.250"},
      {"tonumber(\"1e2\")", "Number", "100"},
      {"tostring(2.50)", "String", "2.50"},
      {"round(1.23456, 3)", "Number", "1.235"},
      {"round(0.5, 1)", "Number", "0.5"},
      {"abs(-3)", "Number", "3"},
      {"isnull(null)", "Bool", "True"},
      {"if(true, host, 1)", "String", "Web-01"},
      {"if(false, host, 1)", "Number", "1"},
      {"coalesce(null, null)", "Null", "Null"},
      {"case(1 = 2, 1)", "Null", "Null"},
      {"strftime(86400, \"%a %b %e\")", "String", "Fri Jan  2"},
      {"10 / 4", "Number", "2.500000"},     // integers: no figures to keep
      {"10.0 / 4", "Number", "2.50"},        // three figures from 10.0
      {"1e3 + 1", "Number", "1001"},
  };
  for (const auto& c : kCases) {
    Evaluator e;
    e.parse(Str(c.expr));
    MapContext ctx;
    ctx.fields = {{"bytes", "2048"}, {"status", "503"}, {"host", "Web-01"}, {"ratio", "0.50"}};
    e.evaluate(&ctx);
    EvalDatum& result = ctx.stack().singleValue();
    EXPECT_STREQ(c.type, result.type->name()) << c.expr;
    EXPECT_EQ(c.text, result.stringify()) << c.expr;
  }
}

TEST(Evaluator, ParseAndTypeErrorsNameTheirKind) {
  const struct { const char* expr; const char* what; } kCases[] = {
      {"", "Missing OR term"},
      {"1 OR", "Missing OR term"},
      {"true AND", "Missing AND term"},
      {"1 <", "Missing comparison term"},
      {"1 +", "Missing term"},
      {"1 .", "Missing term"},
      {"2 *", "Missing factor"},
      {"-", "Missing factor"},
      {"1 ^ 2", "Invalid operator"},
      {"1 & 2", "Invalid operator"},
      {"(1 ^ 2)", "Invalid operator"},
      {"+1", "Invalid unary operator"},
      {"*1", "Invalid unary operator"},
      {"(1 + 2", "Expecting different token"},
      {"f(1, 2", "Expecting different token"},
      {"\"open", "Expecting different token"},
      {"1 2", "Unexpected token"},
      {")", "Unexpected token"},
      {"''", "Bad variable"},
      {"nosuch(1)", "Bad function"},
      {"len()", "Missing arguments"},
      {"len(1,)", "Missing arguments"},
      {"substr(\"a\")", "Missing arguments"},
      {"len(1, 2)", "Invalid function argument"},
      {"if(1, 2, 3)", "Invalid function argument"},
      {"strftime(1, \"%Q%\")", "Invalid function argument"},
      {"1.2.3", "Invalid number"},
      {"12ab", "Invalid number"},
      {"1e", "Invalid number"},
      {"a ANDb", "Unexpected token"},
      {"a XOR", "Missing OR term"},
      {"null * 2", "Operator requires numeric types"},
      {"true * 2", "Operator requires numeric types"},
      {"1 AND true", "Operator requires boolean types"},
      {"true + 1", "Operator '+' types incompatible"},
      {"true . \"x\"", "Types not concatable"},
      {"(1 < 2) < \"x\"", "Operator types incompatible"},
      {"if(true, 1)", "Missing arguments"},
      {"if(true, 1, 2, 3)", "Invalid function argument"},
      {"substr(\"a\", 1, 2, 3)", "Invalid function argument"},
      {"round(1, 2, 3)", "Invalid function argument"},
      {"abs()", "Missing arguments"},
      {"isnull()", "Missing arguments"},
      {"strftime(1)", "Missing arguments"},
      {"coalesce()", "Missing arguments"},
  };
  for (const auto& c : kCases) EXPECT_EQ(std::string("error: ") + c.what, eval(c.expr)) << c.expr;
  // Nesting is bounded rather than left to the stack.
  EXPECT_EQ("error: Unexpected token", eval(std::string(5000, '(') + "1"));
  EXPECT_EQ("error: Unexpected token", eval(std::string(5000, '-') + "1"));
  EXPECT_EQ("error: Unexpected token", eval(std::string(5000, '!') + "true"));
  EXPECT_EQ("1", eval(std::string(256, '(') + "1" + std::string(256, ')')));
  EXPECT_EQ("error: Unexpected token", eval(std::string(257, '(') + "1" + std::string(257, ')')));
}

// A failed parse keeps the expression that was there.
TEST(Evaluator, AFailedParseKeepsTheOldTree) {
  Evaluator e;
  e.parse("1 + 1");
  EXPECT_THROW(e.parse("1 +"), EvalMissingTermException);
  MapContext ctx;
  e.evaluate(&ctx);
  EXPECT_EQ(2, ctx.stack().singleValue().asDouble());
  EXPECT_EQ("1 + 1", e.expression());
}

// Records the variables an expression reads.
class Names : public EvaluatorVarReference::iterator_callback {
 public:
  void visit(const EvaluatorVarReference& ref) override { seen.insert(ref.name()); }
  std::set<std::string> seen;
};

TEST(Evaluator, ConstantSubtreesAreFoldedAndVariablesListed) {
  Evaluator e;
  e.parse("(2 * 3 + 1) . \"-\" . lower(\"AB\") . host");
  Names names;
  e.forEachVariable(names);
  EXPECT_EQ((std::set<std::string>{"host"}), names.seen);
  // The left part became one constant: the root's first child.
  const auto* root = static_cast<NonLeafEvaluatorNode*>(*e.rootSlot());
  ASSERT_EQ(2u, root->argn());
  ASSERT_TRUE(root->child(0)->isConstant());
  EXPECT_EQ("7-ab", static_cast<const ConstantEvaluatorNode*>(root->child(0))->value().str);
  EXPECT_FALSE(root->child(1)->isConstant());

  Evaluator whole;
  whole.parse("len(\"abc\") * 2");
  EXPECT_TRUE((*whole.rootSlot())->isConstant());
  EXPECT_EQ(&EvalDatum::NumericType::INSTANCE, whole.returnType());
}

TEST(Evaluator, StaticTypes) {
  const struct { const char* expr; const EvaluatorType* type; } kCases[] = {
      {"1 + 2", &EvalDatum::NumericType::INSTANCE},
      {"\"a\" + \"b\"", &EvalDatum::StringType::INSTANCE},
      {"host + 1", &EvalDatum::EitherStringOrNumberType::INSTANCE},
      {"host", &EvalDatum::FieldValType::INSTANCE},
      {"host < 3", &EvalDatum::BoolType::INSTANCE},
      {"if(host = 1, 1, 2)", &EvalDatum::NumericType::INSTANCE},
      {"if(host = 1, 1, \"x\")", &EvalUndeterminedType::INSTANCE},
  };
  for (const auto& c : kCases) {
    Evaluator e;
    e.parse(c.expr);
    EXPECT_EQ(c.type, e.returnType()) << c.expr << " gives " << e.returnType()->name();
  }
}

// Evaluating many results over one context reuses the stack's slots.
TEST(Evaluator, RepeatedEvaluationReusesTheStack) {
  Evaluator e;
  e.parse("if(len(user) > 2, upper(user) . \"!\", coalesce(missing, \"short\"))");
  MapContext ctx;
  for (int i = 0; i < 100; ++i) {
    ctx.fields["user"] = i % 2 ? "al" : "anna";
    e.evaluate(&ctx);
    EXPECT_EQ(i % 2 ? "short" : "ANNA!", ctx.stack().singleValue().stringify()) << i;
  }
  EXPECT_EQ(8u, ctx.stack().capacity());
}

// The base context gives a variable's name back as its value.
TEST(Evaluator, TheBaseContextAnswersWithTheName) {
  Evaluator e;
  e.parse("upper(field)");
  EvaluatorContext ctx;
  e.evaluate(&ctx);
  EXPECT_EQ("FIELD", ctx.stack().singleValue().str);
}

// A caller that knows more functions resolves unknown calls between the
// two halves of a parse.
class TwiceFunction : public FunctionEvaluatorNode {
 public:
  const char* name() const override { return "twice"; }
  const EvaluatorType* checkArguments() override {
    requireArgs(1, 1);
    return &EvalDatum::NumericType::INSTANCE;
  }
  void go(EvaluatorContext* ctx) const override {
    EvalDatum& a = arg(ctx, 0);
    if (a.isNumeric()) a.setNumber(a.asDouble() * 2); else a.setNull();
  }
};

class ProxyAll : public NonLeafEvaluatorNodeIteratorCallback {
 public:
  bool visit(EvaluatorNode** slot) override {
    if (auto* undefined = dynamic_cast<UndefinedEvalNode*>(*slot)) undefined->proxyTo(new TwiceFunction);
    return true;
  }
};

TEST(Evaluator, UnknownFunctionsCanBeProxiedBeforeTheCheck) {
  Evaluator e;
  e.parseWithoutChecking("twice(bytes) + 1");
  ProxyAll proxy;
  (*e.rootSlot())->forEachNonLeafNodeDepthLast_internal(e.rootSlot(), proxy);
  e.check();
  MapContext ctx;
  ctx.fields["bytes"] = "20";
  e.evaluate(&ctx);
  EXPECT_EQ(41, ctx.stack().singleValue().asDouble());
}

TEST(EvaluatorDeathTest, ASecondProxyIsAProgrammingError) {
  UndefinedEvalNode node("f");
  node.proxyTo(new TwiceFunction);
  EXPECT_DEATH(node.proxyTo(new TwiceFunction), "!_proxy.valid\\(\\)");
}

TEST(Evaluator, AnUnresolvedCallEvaluatesToNull) {
  UndefinedEvalNode node("f");
  EXPECT_THROW(node.typeCheck(), EvalBadFunctionException);
  EvaluatorContext ctx;
  node.evaluate(&ctx);
  EXPECT_TRUE(ctx.stack().singleValue().isNull());
}

// A subclass adds a function and a constant and defers to the base.
class CustomEvaluator : public Evaluator {
 public:
  NonLeafEvaluatorNode* getCustomFunction(const Str& name) override {
    if (name == "twice") return new TwiceFunction;
    return Evaluator::getCustomFunction(name);
  }
  bool lookupConstant(const Str& name, EvalDatum& out) const override {
    if (name == "answer") {
      out.setNumber(42);
      return true;
    }
    return Evaluator::lookupConstant(name, out);
  }
};

TEST(Evaluator, SubclassesSupplyFunctionsAndConstants) {
  CustomEvaluator e;
  e.parse("twice(answer) + len(\"ab\")");
  EvaluatorContext ctx;
  e.evaluate(&ctx);
  EXPECT_EQ(86, ctx.stack().singleValue().asDouble());
  EXPECT_TRUE((*e.rootSlot())->isConstant());
}

TEST(Evaluator, NodesKnowTheTextTheyCameFrom) {
  Evaluator e;
  e.parseWithoutChecking("len(host)   +  bytes   ");
  const auto* root = static_cast<NonLeafEvaluatorNode*>(*e.rootSlot());
  EXPECT_EQ("len(host)   +  bytes", root->getExprStr(e.expression()));  // blanks after: not its
  EXPECT_EQ("len(host)", root->child(0)->getExprStr(e.expression()));
  EXPECT_EQ("bytes", root->child(1)->getExprStr(e.expression()));
}

}  // namespace

namespace {

// A random arithmetic tree as text, and its value computed directly with
// doubles: the outside oracle of the evaluator's arithmetic and ordering.
struct Generated {
  std::string text;
  bool null = false;
  double value = 0;
};

class TreeGenerator {
 public:
  TreeGenerator(unsigned seed, const std::map<std::string, double>& fields)
      : _state(seed), _fields(fields) {}

  Generated arithmetic(int depth) {
    const unsigned pick = next() % (depth <= 0 ? 2 : 8);
    if (pick == 0) {  // a literal
      Generated g;
      const long whole = static_cast<long>(next() % 2000) - 1000;
      if (next() % 2) {
        g.text = std::to_string(whole);
        g.value = static_cast<double>(whole);
      } else {
        g.text = std::to_string(whole) + "." + std::to_string(next() % 100);
        g.value = std::strtod(g.text.c_str(), nullptr);
      }
      if (g.value < 0) g.text = "(" + g.text + ")";
      return g;
    }
    if (pick == 1) {  // a field
      auto it = _fields.begin();
      std::advance(it, next() % _fields.size());
      return {it->first, false, it->second};
    }
    if (pick == 2) {  // negation
      Generated inner = arithmetic(depth - 1);
      return {"-(" + inner.text + ")", inner.null, -inner.value};
    }
    static const char* const kOps[] = {"+", "-", "*", "/", "%"};
    const char* op = kOps[next() % 5];
    Generated a = arithmetic(depth - 1), b = arithmetic(depth - 1);
    Generated g{"(" + a.text + " " + op + " " + b.text + ")", a.null || b.null, 0};
    switch (op[0]) {
      case '+': g.value = a.value + b.value; break;
      case '-': g.value = a.value - b.value; break;
      case '*': g.value = a.value * b.value; break;
      case '/': g.null = g.null || b.value == 0; g.value = b.value == 0 ? 0 : a.value / b.value; break;
      default: g.null = g.null || b.value == 0; g.value = b.value == 0 ? 0 : std::fmod(a.value, b.value);
    }
    return g;
  }

  unsigned next() {
    _state = _state * 1103515245u + 12345u;
    return _state >> 8;
  }

 private:
  unsigned _state;
  std::map<std::string, double> _fields;
};

// Slots are reused from one evaluation to the next; a field the result
// lacks must not show an earlier value.
TEST(Evaluator, ReusedSlotsShowNoValueOfAnEarlierResult) {
  MapContext ctx;
  ctx.fields = {{"a", "A"}};
  EXPECT_EQ("Ax", eval("a . \"x\"", ctx));
  EXPECT_EQ("null", eval("b", ctx));
  EXPECT_EQ("null", eval("coalesce(b, b)", ctx));
  EXPECT_EQ("A", eval("coalesce(b, a)", ctx));
}

TEST(EvaluatorNode, ConstantsAndVariables) {
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

struct NameRecorder : NonLeafEvaluatorNodeIteratorCallback {
  std::vector<std::string> names;
  bool answer = true;
  bool visit(EvaluatorNode** slot) override {
    names.push_back(dynamic_cast<NonLeafEvaluatorNode*>(*slot)->name());
    return answer;
  }
};

TEST(EvaluatorNode, WalkOrders) {
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

TEST(EvaluatorNode, ACallbackCanReplaceANodeInItsParent) {
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
  MapContext ctx;
  ctx.fields = {{"x", "10"}};
  e.evaluate(&ctx);
  EXPECT_EQ(ctx.stack().singleValue().asDouble(), 9);
}

TEST(EvaluatorNode, VariablesInOrderAndReturnTypes) {
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

TEST(EvaluatorNodeDeathTest, MathWithOneChildIsAProgrammingError) {
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

TEST(EvalException, NodeExceptionsNameTheNode) {
  MultFunction m;
  EvalOperatorTypesDifferException a = m.bad_operand_exception();
  EXPECT_STREQ(a.what(), "Operator types incompatible");
  EXPECT_NE(std::string(a.where()).find('*'), std::string::npos) << a.where();
  EvalInvalidFunctionArgumentExpception b = m.bad_arg_exception();
  EXPECT_STREQ(b.what(), "Invalid function argument");
  EXPECT_NE(std::string(b.where()).find('*'), std::string::npos) << b.where();
}

// Texts no parse reaches, and the base class's view of a typed one.
TEST(EvalException, TextsBeyondTheParser) {
  EXPECT_STREQ("Regular expression error", EvalRegularExpressionError().what());
  const std::runtime_error& base = EvalBadVariableException(Str("x"));
  EXPECT_STREQ("Bad variable", base.what());
  ScopedPointer<NonLeafEvaluatorNode> len(createBuiltinEvalFunction(Str("len")));
  ASSERT_TRUE(len.valid());
  EXPECT_STREQ("len", len->name());
  EXPECT_EQ(nullptr, createBuiltinEvalFunction(Str("nofn")));
}

TEST(Evaluator, ArithmeticAndOrderingAgreeWithDirectComputation) {
  for (unsigned seed = 1; seed <= 400; ++seed) {
    MapContext ctx;
    std::map<std::string, double> values;
    TreeGenerator gen(seed, {});
    for (const char* name : {"x", "y", "z"}) {
      const std::string text = std::to_string(static_cast<int>(gen.next() % 200) - 100) + "." +
                               std::to_string(gen.next() % 10);
      ctx.fields[name] = text;
      values[name] = std::strtod(text.c_str(), nullptr);
    }
    TreeGenerator trees(seed, values);
    const Generated a = trees.arithmetic(4);
    const Generated b = trees.arithmetic(3);

    Evaluator e;
    e.parse(Str(a.text));
    e.evaluate(&ctx);
    const EvalDatum& got = ctx.stack().singleValue();
    ASSERT_EQ(a.null, got.isNull()) << a.text;
    if (!a.null) {
      EXPECT_EQ(a.value, got.asDouble()) << a.text;
    }

    static const char* const kComparisons[] = {"<", "<=", ">", ">=", "=", "!="};
    const std::string op = kComparisons[seed % 6];
    Evaluator cmp;
    cmp.parse(Str(a.text + " " + op + " " + b.text));
    cmp.evaluate(&ctx);
    const EvalDatum& order = ctx.stack().singleValue();
    if (a.null || b.null) {
      EXPECT_TRUE(order.isNull()) << a.text << op << b.text;
      continue;
    }
    const bool want = op == "<" ? a.value < b.value : op == "<=" ? a.value <= b.value
                    : op == ">" ? a.value > b.value : op == ">=" ? a.value >= b.value
                    : op == "=" ? a.value == b.value : a.value != b.value;
    ASSERT_TRUE(order.isBoolean()) << a.text << op << b.text;
    EXPECT_EQ(want, order.asBoolean()) << a.text << op << b.text;
  }
}

}  // namespace

#include "util/testing/TimezoneTestSupport.h"

namespace {

// A row whose time functions render in one zone.
class ZoneContext : public MapContext {
 public:
  explicit ZoneContext(const Timezone* zone) : _zone(zone) {}
  const Timezone* getTimezone() const override { return _zone; }

 private:
  const Timezone* _zone;
};

// strftime in an expression against the C library's strftime under TZ,
// for random instants in zones of both hemispheres and odd offsets.
TEST(Evaluator, StrftimeAndStrptimeAgreeWithTheCLibraryInEachZone) {
  const char* const kZones[] = {"UTC", "America/New_York", "Europe/Berlin", "Australia/Sydney",
                                "Asia/Kolkata", "America/St_Johns", "Pacific/Chatham"};
  const char kFormat[] = "%Y-%m-%d %H:%M:%S %Z %z %a %j";
  Evaluator e;
  e.parse(Str(std::string("strftime(t, \"") + kFormat + "\")"));
  Evaluator back;
  back.parse("strptime(text, \"%Y-%m-%d %H:%M:%S %Z %z\")");
  unsigned state = 12345;
  for (const char* name : kZones) {
    Timezone zone;
    ASSERT_TRUE(loadStagedZone(name, &zone)) << name;
    ZoneContext ctx(&zone);
    ScopedTz tz(name);
    for (int i = 0; i < 300; ++i) {
      state = state * 1103515245u + 12345u;
      const time_t t = static_cast<time_t>(state % 2000000000u) + 100000000;
      ctx.fields["t"] = std::to_string(static_cast<long long>(t));
      e.evaluate(&ctx);
      tm broken;
      localtime_r(&t, &broken);
      char want[128];
      strftime(want, sizeof want, kFormat, &broken);
      EXPECT_EQ(want, ctx.stack().singleValue().stringify()) << name << " " << t;
      // Back through strptime in the same zone: the instant returns, as
      // mktime has it (the offset in the text settles any ambiguity).
      ctx.fields["text"] = want;
      back.evaluate(&ctx);
      ASSERT_TRUE(ctx.stack().singleValue().isNumeric()) << want;
      EXPECT_EQ(static_cast<double>(t), ctx.stack().singleValue().asDouble()) << name << " " << want;
    }
  }
}

}  // namespace
