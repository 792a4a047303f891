// Evaluator: owns one parsed, checked and simplified eval expression.
//
// The grammar, loosest binding first (names of the levels are those of the
// "Missing ..." errors):
//
//   or          := and { ("OR" | "||" | "XOR") and }
//   and         := comparison { ("AND" | "&&") comparison }
//   comparison  := term { ("=" | "==" | "!=" | "<" | "<=" | ">" | ">=") term }
//   term        := factor { ("+" | "-" | ".") factor }
//   factor      := unary { ("*" | "/" | "%") unary }
//   unary       := ("-" | "NOT" | "!") unary | primary
//   primary     := number | "string" | 'field name' | name | name "(" [or {"," or}] ")"
//                | "(" or ")"
//
// A number is digits with an optional fraction and exponent ("3", "2.50",
// "1e3", ".5"); a number run into more of one ("1.2.3", "12ab") is
// "Invalid number". A string is double-quoted, with \" and \\ as escapes.
// A name ([A-Za-z_][A-Za-z0-9_]*) is a constant if lookupConstant knows it
// ("true", "false", "null", any case), else a field; single quotes make any
// text a field name ('user id'). Operators are binary and left-associative;
// "." joins texts, "+" adds numbers or joins strings. Examples:
//
//   bytes / 1024 * 8              a number
//   if(status >= 500, "error", "ok")
//   lower(host) . ":" . port      a string
//   NOT isnull(user) AND len(user) > 3
//
// Errors (all Eval...Exception, see util/EvalExceptions.h):
//   "a +"      Missing term             "a *"     Missing factor
//   "a <"      Missing comparison term  "a AND"   Missing AND term
//   "a OR", "" Missing OR term          "a ^ b"   Invalid operator
//   "+a"       Invalid unary operator   "(a"      Expecting different token
//   "a b", ")" Unexpected token         "''"      Bad variable
//   "nofn(1)"  Bad function             "f(1,)"   Missing arguments
// and the type errors of the nodes, such as "Operator requires numeric
// types" for "true * 2". More than 256 levels of parentheses, calls and
// unary operators, counted together, is "Unexpected token".
//
// Thread story: parse() needs one owner; a parsed Evaluator is immutable,
// and evaluate() may run on many threads at once, each with its own
// context.
#pragma once

#include "util/EvalNode.h"
#include "util/ScopedPointer.h"
#include "util/Str.h"

class Evaluator {
 public:
  // The parser's cursor over the expression text.
  struct parse_state {
    explicit parse_state(const Str& text) : text(text) {}
    const Str& text;
    size_t pos = 0;
    unsigned depth = 0;

    bool atEnd() const { return pos >= text.size(); }
    char peek(size_t ahead = 0) const {
      return pos + ahead < text.size() ? text[pos + ahead] : '\0';
    }
    void skipWhitespace();
    // After white space: takes `word` if the text goes on with it (a word
    // of letters must not run on into more letters or digits).
    bool consume(const Str& word);
    // After white space: takes `c` if it is next.
    bool match(char c);
    // A double-quoted string into `out`; false (nothing taken) when the
    // text does not start one; throws "Expecting different token" when it
    // does not end.
    bool getStringLiteral(Str& out);
  };

  Evaluator() = default;
  virtual ~Evaluator() { delete _root; }
  Evaluator(const Evaluator&) = delete;
  Evaluator& operator=(const Evaluator&) = delete;

  // Parses `expression`, type-checks the tree and simplifies it. Throws
  // the Eval...Exception of the first error; the old tree stays then.
  void parse(const Str& expression);
  // The two halves of parse(), for a caller that resolves calls to unknown
  // functions (UndefinedEvalNode::proxyTo) in between. A failed parse
  // keeps the old tree; a failed check leaves the unchecked one.
  void parseWithoutChecking(const Str& expression);
  void check();
  // The tree's root, for walks between the two halves.
  EvaluatorNode** rootSlot() { return &_root; }
  bool isParsed() const { return _root != nullptr; }
  const Str& expression() const { return _expression; }

  // Runs the tree; the result is ctx->stack().singleValue(). REQUIRES:
  // isParsed().
  void evaluate(EvaluatorContext* ctx) const;
  const EvaluatorType* returnType() const;
  // Folds constant subtrees into constants. parse() calls it.
  void simplifyTree();
  // Every field the expression reads.
  void forEachVariable(EvaluatorVarReference::iterator_callback& cb) { _root->forEachVariable(cb); }

  // A constant node for a name lookupConstant knows, else a variable.
  EvaluatorNode* createVariableOrConstantNode(const Str& name) const;
  // Parses a name or a quoted field name at the cursor into `out`; false
  // when there is none. Throws "Bad variable" for ''.
  bool parseVariable(parse_state& state, ScopedPointer<EvaluatorNode>& out);

  // The node of function `name` with no children yet, or null when there
  // is no such function. This base knows the built-in functions
  // (util/EvalFunctions.h); a subclass adds its own and defers to it.
  virtual NonLeafEvaluatorNode* getCustomFunction(const Str& name);
  // The value of a named constant: "true", "false" and "null", any case.
  virtual bool lookupConstant(const Str& name, EvalDatum& out) const;
  // What a field may hold before its value is seen: FieldValType.
  virtual const EvaluatorType* getPossibleVarTypes(const Str& name) const;

 private:
  EvaluatorNode* parseOr(parse_state& s);
  EvaluatorNode* parseAnd(parse_state& s);
  EvaluatorNode* parseComparison(parse_state& s);
  EvaluatorNode* parseTerm(parse_state& s);
  EvaluatorNode* parseFactor(parse_state& s);
  EvaluatorNode* parseUnary(parse_state& s);
  EvaluatorNode* parsePrimary(parse_state& s);
  EvaluatorNode* parseNumber(parse_state& s);
  EvaluatorNode* parseCall(parse_state& s, const Str& name, size_t begin);

  Str _expression;
  EvaluatorNode* _root = nullptr;  // owned; a raw pointer so walks can replace it
};
