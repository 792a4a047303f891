#include "util/Evaluator.h"

#include <cctype>
#include <cstdlib>
#include <cstring>

#include "util/Assert.h"
#include "util/EvalFunctions.h"

namespace {

// Deeper nesting would risk the stack of the thread that parses.
constexpr unsigned kMaxDepth = 256;

// Characters that begin no operator this language has, when they stand
// where an operator must.
bool isStrayOperator(char c) { return c != '\0' && strchr("^~&|=<>!+-*/%.,?:;@#$`\\[]{}", c); }

bool isNameStart(char c) { return std::isalpha(static_cast<unsigned char>(c)) || c == '_'; }
bool isNameChar(char c) { return std::isalnum(static_cast<unsigned char>(c)) || c == '_'; }

bool isKeyword(const Str& name) {
  return name == "AND" || name == "OR" || name == "XOR" || name == "NOT";
}

// Counts one level of nesting for its scope.
class DepthGuard {
 public:
  explicit DepthGuard(Evaluator::parse_state& s) : _s(s) {
    if (++_s.depth > kMaxDepth) throw EvalUnexpectedTokenException(Str("nesting too deep"));
  }
  ~DepthGuard() { --_s.depth; }

 private:
  Evaluator::parse_state& _s;
};

// The node of a binary operator over `left` and `right`, which it takes.
EvaluatorNode* joinBinary(NonLeafEvaluatorNode* op, ScopedPointer<EvaluatorNode>& left,
                          ScopedPointer<EvaluatorNode>& right, size_t begin, size_t end) {
  op->addChild(left);
  op->addChild(right);
  op->setExprRange(begin, end);
  return op;
}

// Folds every non-leaf node whose children are constant into a constant.
class SimplifyCallback : public NonLeafEvaluatorNodeIteratorCallback {
 public:
  bool visit(EvaluatorNode** slot) override {
    NonLeafEvaluatorNode* node = static_cast<NonLeafEvaluatorNode*>(*slot);
    if (!node->tryPreEval()) return true;
    EvaluatorContext scratch;
    node->evaluate(&scratch);
    *slot = new ConstantEvaluatorNode(scratch.stack().singleValue());
    delete node;
    return true;
  }
};

}  // namespace

// ---- parse_state ----

void Evaluator::parse_state::skipWhitespace() {
  while (pos < text.size() && std::isspace(static_cast<unsigned char>(text[pos]))) ++pos;
}

bool Evaluator::parse_state::consume(const Str& word) {
  skipWhitespace();
  if (text.compare(pos, word.size(), word) != 0) return false;
  if (isNameChar(word.back()) && isNameChar(peek(word.size()))) return false;
  pos += word.size();
  return true;
}

bool Evaluator::parse_state::match(char c) {
  skipWhitespace();
  if (peek() != c) return false;
  ++pos;
  return true;
}

bool Evaluator::parse_state::getStringLiteral(Str& out) {
  skipWhitespace();
  if (peek() != '"') return false;
  out.clear();
  for (size_t p = pos + 1; p < text.size(); ++p) {
    if (text[p] == '"') {
      pos = p + 1;
      return true;
    }
    if (text[p] == '\\' && p + 1 < text.size() && (text[p + 1] == '"' || text[p + 1] == '\\')) ++p;
    out += text[p];
  }
  throw EvalMalformedExpressionWhileExpectingException(Str("\""));
}

// ---- the parser ----

void Evaluator::parse(const Str& expression) {
  parseWithoutChecking(expression);
  check();
}

void Evaluator::parseWithoutChecking(const Str& expression) {
  Str text = expression;
  parse_state s(text);
  ScopedPointer<EvaluatorNode> root(parseOr(s));
  if (!root.valid()) {
    s.skipWhitespace();
    if (s.atEnd()) throw EvalMissingOrTermException();
    if (isStrayOperator(s.peek()) && s.peek() != '.') throw EvalInvalidUnaryOperatorException();
    throw EvalUnexpectedTokenException(Str(text.c_str() + s.pos));
  }
  s.skipWhitespace();
  if (!s.atEnd()) {
    if (isStrayOperator(s.peek())) throw EvalInvalidOperatorException(Str(text.c_str() + s.pos));
    throw EvalUnexpectedTokenException(Str(text.c_str() + s.pos));
  }
  delete _root;
  _root = root.release();
  _expression.swap(text);
}

void Evaluator::check() {
  kassert(isParsed());
  _root->typeCheck();
  simplifyTree();
}

EvaluatorNode* Evaluator::parseOr(parse_state& s) {
  s.skipWhitespace();
  const size_t begin = s.pos;
  ScopedPointer<EvaluatorNode> left(parseAnd(s));
  if (!left.valid()) return nullptr;
  for (;;) {
    ScopedPointer<NonLeafEvaluatorNode> op;
    if (s.consume("OR") || s.consume("||")) {
      op.reset(new ORFunction);
    } else if (s.consume("XOR")) {
      op.reset(new XORFunction);
    } else {
      return left.release();
    }
    ScopedPointer<EvaluatorNode> right(parseAnd(s));
    if (!right.valid()) throw EvalMissingOrTermException(Str(op->name()));
    left.reset(joinBinary(op.release(), left, right, begin, s.pos));
  }
}

EvaluatorNode* Evaluator::parseAnd(parse_state& s) {
  s.skipWhitespace();
  const size_t begin = s.pos;
  ScopedPointer<EvaluatorNode> left(parseComparison(s));
  if (!left.valid()) return nullptr;
  while (s.consume("AND") || s.consume("&&")) {
    ScopedPointer<NonLeafEvaluatorNode> op(new ANDFunction);
    ScopedPointer<EvaluatorNode> right(parseComparison(s));
    if (!right.valid()) throw EvalMissingAndTermException(Str(op->name()));
    left.reset(joinBinary(op.release(), left, right, begin, s.pos));
  }
  return left.release();
}

EvaluatorNode* Evaluator::parseComparison(parse_state& s) {
  s.skipWhitespace();
  const size_t begin = s.pos;
  ScopedPointer<EvaluatorNode> left(parseTerm(s));
  if (!left.valid()) return nullptr;
  for (;;) {
    ScopedPointer<NonLeafEvaluatorNode> op;
    if (s.consume("==") || s.consume("=")) {
      op.reset(new EqualsFunction);
    } else if (s.consume("!=")) {
      op.reset(new NotEqualsFunction);
    } else if (s.consume("<=")) {
      op.reset(new LessThanOrEqualFunction);
    } else if (s.consume(">=")) {
      op.reset(new GreaterThanOrEqualFunction);
    } else if (s.consume("<")) {
      op.reset(new LessThanFunction);
    } else if (s.consume(">")) {
      op.reset(new GreaterThanFunction);
    } else {
      return left.release();
    }
    ScopedPointer<EvaluatorNode> right(parseTerm(s));
    if (!right.valid()) throw EvalMissingComparisonTermException(Str(op->name()));
    left.reset(joinBinary(op.release(), left, right, begin, s.pos));
  }
}

EvaluatorNode* Evaluator::parseTerm(parse_state& s) {
  s.skipWhitespace();
  const size_t begin = s.pos;
  ScopedPointer<EvaluatorNode> left(parseFactor(s));
  if (!left.valid()) return nullptr;
  for (;;) {
    ScopedPointer<NonLeafEvaluatorNode> op;
    if (s.match('+')) {
      op.reset(new AddFunction);
    } else if (s.match('-')) {
      op.reset(new SubFunction);
    } else if (s.match('.')) {
      op.reset(new ConcatFunction);
    } else {
      return left.release();
    }
    ScopedPointer<EvaluatorNode> right(parseFactor(s));
    if (!right.valid()) throw EvalMissingTermException(Str(op->name()));
    left.reset(joinBinary(op.release(), left, right, begin, s.pos));
  }
}

EvaluatorNode* Evaluator::parseFactor(parse_state& s) {
  s.skipWhitespace();
  const size_t begin = s.pos;
  ScopedPointer<EvaluatorNode> left(parseUnary(s));
  if (!left.valid()) return nullptr;
  for (;;) {
    ScopedPointer<NonLeafEvaluatorNode> op;
    if (s.match('*')) {
      op.reset(new MultFunction);
    } else if (s.match('/')) {
      op.reset(new DivFunction);
    } else if (s.match('%')) {
      op.reset(new ModFunction);
    } else {
      return left.release();
    }
    ScopedPointer<EvaluatorNode> right(parseUnary(s));
    if (!right.valid()) throw EvalMissingFactorException(Str(op->name()));
    left.reset(joinBinary(op.release(), left, right, begin, s.pos));
  }
}

EvaluatorNode* Evaluator::parseUnary(parse_state& s) {
  s.skipWhitespace();
  const size_t begin = s.pos;
  ScopedPointer<NonLeafEvaluatorNode> op;
  if (s.peek() == '-') {
    ++s.pos;
    op.reset(new NegateFunction);
  } else if (s.consume("NOT") || (s.peek() == '!' && s.peek(1) != '=' && s.match('!'))) {
    op.reset(new NOTFunction);
  } else if (strchr("+*/%=<>!^~&|", s.peek()) != nullptr && s.peek() != '\0') {
    throw EvalInvalidUnaryOperatorException(Str(1, s.peek()));
  } else {
    return parsePrimary(s);
  }
  DepthGuard depth(s);
  ScopedPointer<EvaluatorNode> operand(parseUnary(s));
  if (!operand.valid()) throw EvalMissingFactorException(Str(op->name()));
  op->addChild(operand);
  op->setExprRange(begin, s.pos);
  return op.release();
}

EvaluatorNode* Evaluator::parsePrimary(parse_state& s) {
  s.skipWhitespace();
  const size_t begin = s.pos;
  const char c = s.peek();
  if (c == '(') {
    DepthGuard depth(s);
    ++s.pos;
    ScopedPointer<EvaluatorNode> inner(parseOr(s));
    if (!inner.valid()) throw EvalMissingOrTermException(Str("("));
    if (!s.match(')')) {
      if (!s.atEnd() && isStrayOperator(s.peek())) throw EvalInvalidOperatorException(Str(1, s.peek()));
      throw EvalMalformedExpressionWhileExpectingException(Str(")"));
    }
    return inner.release();
  }
  if (c == '"') {
    Str text;
    s.getStringLiteral(text);
    EvalDatum value;
    value.setString(text);
    EvaluatorNode* node = new ConstantEvaluatorNode(value);
    node->setExprRange(begin, s.pos);
    return node;
  }
  if (std::isdigit(static_cast<unsigned char>(c)) ||
      (c == '.' && std::isdigit(static_cast<unsigned char>(s.peek(1))))) {
    return parseNumber(s);
  }
  if (isNameStart(c)) {
    size_t end = s.pos;
    while (end < s.text.size() && isNameChar(s.text[end])) ++end;
    const Str name(s.text.data() + s.pos, end - s.pos);
    if (isKeyword(name)) return nullptr;
    s.pos = end;
    if (s.match('(')) return parseCall(s, name, begin);
    EvaluatorNode* node = createVariableOrConstantNode(name);
    node->setExprRange(begin, s.pos);
    return node;
  }
  if (c == '\'') {
    ScopedPointer<EvaluatorNode> node;
    parseVariable(s, node);
    return node.release();
  }
  return nullptr;
}

EvaluatorNode* Evaluator::parseNumber(parse_state& s) {
  const size_t begin = s.pos;
  size_t p = s.pos;
  auto digits = [&] {
    while (p < s.text.size() && std::isdigit(static_cast<unsigned char>(s.text[p]))) ++p;
  };
  digits();
  if (p < s.text.size() && s.text[p] == '.') {
    ++p;
    digits();
  }
  if (p < s.text.size() && (s.text[p] == 'e' || s.text[p] == 'E')) {
    size_t q = p + 1;
    if (q < s.text.size() && (s.text[q] == '+' || s.text[q] == '-')) ++q;
    if (q < s.text.size() && std::isdigit(static_cast<unsigned char>(s.text[q]))) {
      p = q;
      digits();
    }
  }
  const char next = p < s.text.size() ? s.text[p] : '\0';
  const char after = p + 1 < s.text.size() ? s.text[p + 1] : '\0';
  const Str literal(s.text.data() + begin, p - begin);
  if (isNameChar(next) || (next == '.' && std::isdigit(static_cast<unsigned char>(after)))) {
    throw EvalInvalidNumberException(literal);
  }
  EvalDatum value;
  DoubleWithSignificantFigures number;
  number.set(std::strtod(literal.c_str(), nullptr));
  number.setSigFigAndPrecisionFrom(literal);
  value.setNumber(number);
  s.pos = p;
  EvaluatorNode* node = new ConstantEvaluatorNode(value);
  node->setExprRange(begin, p);
  return node;
}

EvaluatorNode* Evaluator::parseCall(parse_state& s, const Str& name, size_t begin) {
  DepthGuard depth(s);
  ScopedPointer<NonLeafEvaluatorNode> call(getCustomFunction(name));
  if (!call.valid()) call.reset(new UndefinedEvalNode(name));
  if (!s.match(')')) {
    for (;;) {
      ScopedPointer<EvaluatorNode> argument(parseOr(s));
      if (!argument.valid()) throw EvalMissingArgumentsException(name);
      call->addChild(argument);
      if (s.match(',')) continue;
      if (s.match(')')) break;
      throw EvalMalformedExpressionWhileExpectingException(Str(")"));
    }
  }
  call->setExprRange(begin, s.pos);
  return call.release();
}

bool Evaluator::parseVariable(parse_state& s, ScopedPointer<EvaluatorNode>& out) {
  s.skipWhitespace();
  const size_t begin = s.pos;
  Str name;
  if (s.peek() == '\'') {
    const size_t close = s.text.find('\'', s.pos + 1);
    if (close == Str::npos) throw EvalMalformedExpressionWhileExpectingException(Str("'"));
    name.assign(s.text, s.pos + 1, close - s.pos - 1);
    if (name.empty()) throw EvalBadVariableException(Str("''"));
    s.pos = close + 1;
    out.reset(new VariableEvaluatorNode(this, name));
  } else if (isNameStart(s.peek())) {
    size_t end = s.pos;
    while (end < s.text.size() && isNameChar(s.text[end])) ++end;
    name.assign(s.text, s.pos, end - s.pos);
    s.pos = end;
    out.reset(createVariableOrConstantNode(name));
  } else {
    return false;
  }
  out->setExprRange(begin, s.pos);
  return true;
}

// ---- the rest ----

void Evaluator::evaluate(EvaluatorContext* ctx) const {
  kassert(isParsed());
  ctx->stack().clear();
  _root->evaluate(ctx);
}

const EvaluatorType* Evaluator::returnType() const {
  kassert(isParsed());
  return _root->returnType();
}

void Evaluator::simplifyTree() {
  kassert(isParsed());
  SimplifyCallback fold;
  _root->forEachNonLeafNodeDepthFirst_internal(&_root, fold);
}

EvaluatorNode* Evaluator::createVariableOrConstantNode(const Str& name) const {
  EvalDatum value;
  if (lookupConstant(name, value)) return new ConstantEvaluatorNode(value);
  return new VariableEvaluatorNode(this, name);
}

NonLeafEvaluatorNode* Evaluator::getCustomFunction(const Str& name) {
  return createBuiltinEvalFunction(name);
}

bool Evaluator::lookupConstant(const Str& name, EvalDatum& out) const {
  Str lower = name;
  lower.toLowercase();
  if (lower == "true" || lower == "false") {
    out.setBool(lower == "true");
    return true;
  }
  if (lower == "null") {
    out.setNull();
    return true;
  }
  return false;
}

const EvaluatorType* Evaluator::getPossibleVarTypes(const Str&) const {
  return &EvalDatum::FieldValType::INSTANCE;
}
