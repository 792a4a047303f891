#include "util/EvalNode.h"

#include <cmath>
#include <cstring>

#include "util/Assert.h"
#include "util/Evaluator.h"

namespace {

// Digits before the point: 1 for zero, 0 or less for |v| < 1.
long integerDigits(double v) {
  if (v == 0 || !std::isfinite(v)) return 1;
  return static_cast<long>(std::floor(std::log10(std::fabs(v)))) + 1;
}

uint16_t clampFigure(long n) {
  if (n < 0) return 0;
  return static_cast<uint16_t>(n >= DoubleWithSignificantFigures::UNKNOWN ? DoubleWithSignificantFigures::UNKNOWN - 1 : n);
}

// An integer written without a point is a count, exact to any figure, so
// it does not limit the result's figures; any other number of unknown
// figures makes the result's unknown too.
bool limitsFigures(const DoubleWithSignificantFigures& d) { return d.isExact(); }
bool isCount(const DoubleWithSignificantFigures& d) {
  return !d.isExact() && std::isfinite(d.value) && d.value == std::floor(d.value);
}

// A sum or difference is as precise as its least precise operand.
void additivePrecision(const DoubleWithSignificantFigures& a, const DoubleWithSignificantFigures& b,
                       DoubleWithSignificantFigures* out) {
  if (!(limitsFigures(a) || isCount(a)) || !(limitsFigures(b) || isCount(b))) return;
  if (!limitsFigures(a) && !limitsFigures(b)) return;
  uint16_t precision = DoubleWithSignificantFigures::UNKNOWN;
  if (limitsFigures(a)) precision = a.precision;
  if (limitsFigures(b) && b.precision < precision) precision = b.precision;
  out->precision = precision;
  const long figures = integerDigits(out->value) + out->precision;
  out->sigFigs = clampFigure(figures < 1 ? 1 : figures);
}

// A product or quotient has as many figures as its operand with fewest.
void multiplicativePrecision(const DoubleWithSignificantFigures& a,
                             const DoubleWithSignificantFigures& b,
                             DoubleWithSignificantFigures* out) {
  if (!(limitsFigures(a) || isCount(a)) || !(limitsFigures(b) || isCount(b))) return;
  if (!limitsFigures(a) && !limitsFigures(b)) return;
  uint16_t figures = DoubleWithSignificantFigures::UNKNOWN;
  if (limitsFigures(a)) figures = a.sigFigs;
  if (limitsFigures(b) && b.sigFigs < figures) figures = b.sigFigs;
  out->sigFigs = figures;
  out->precision = clampFigure(static_cast<long>(out->sigFigs) - integerDigits(out->value));
}

// The printable text of a value in a stack slot (a multi-value joined).
const Str& textOf(EvalDatum& d) {
  if (d.isMultiVal()) d.str.clear();
  return d.stringify();
}

// -1, 0 or 1: numerically when both are numeric, else bytewise by text.
int compareValues(EvalDatum& a, EvalDatum& b) {
  if (a.isNumeric() && b.isNumeric()) {
    const double x = a.asDouble(), y = b.asDouble();
    return x < y ? -1 : (x > y ? 1 : 0);
  }
  const Str& s = textOf(a);
  const Str& t = textOf(b);
  const int c = s.compare(t);
  return c < 0 ? -1 : (c > 0 ? 1 : 0);
}

}  // namespace

// ---- context and leaves ----

void EvaluatorContext::lookupVar(const EvaluatorVarReference& ref, EvalDatum& out) const {
  out.setString(ref.name());
}

void EvaluatorNode::forEachNonLeafNodeDepthFirst_internal(EvaluatorNode**,
                                                          NonLeafEvaluatorNodeIteratorCallback&) {}

void EvaluatorNode::forEachNonLeafNodeDepthLast_internal(EvaluatorNode**,
                                                         NonLeafEvaluatorNodeIteratorCallback&) {}

Str EvaluatorNode::getExprStr(const StrSegment& expr) const {
  if (_exprBegin >= _exprEnd || _exprEnd > expr.size()) return Str();
  // The parser looks past blanks for the next operator before it closes a
  // node's range; those blanks are not the node's.
  size_t end = _exprEnd;
  while (end > _exprBegin && (expr.data()[end - 1] == ' ' || expr.data()[end - 1] == '\t' ||
                              expr.data()[end - 1] == '\n' || expr.data()[end - 1] == '\r')) {
    --end;
  }
  return Str(expr.data() + _exprBegin, end - _exprBegin);
}

VariableEvaluatorNode::VariableEvaluatorNode(const Evaluator* evaluator, const Str& name)
    : _ref(name), _type(evaluator->getPossibleVarTypes(name)) {}

void VariableEvaluatorNode::evaluate(EvaluatorContext* ctx) const {
  EvalDatum& slot = ctx->stackPush();
  slot.setNull();
  ctx->lookupVar(_ref, slot);
}

// ---- non-leaf nodes ----

NonLeafEvaluatorNode::~NonLeafEvaluatorNode() {
  for (EvaluatorNode* c : _children) delete c;
}

void NonLeafEvaluatorNode::addChild(ScopedPointer<EvaluatorNode>& child) {
  _children.reserve(_children.size() + 1);
  _children.push_back(child.release());
}

bool NonLeafEvaluatorNode::allChildrenAreConstant() const {
  for (const EvaluatorNode* c : _children) {
    if (!c->isConstant()) return false;
  }
  return true;
}

void NonLeafEvaluatorNode::typeCheck() {
  for (EvaluatorNode* c : _children) c->typeCheck();
  _returnType = checkArguments();
}

void NonLeafEvaluatorNode::forEachVariable(EvaluatorVarReference::iterator_callback& cb) {
  for (EvaluatorNode* c : _children) c->forEachVariable(cb);
}

unsigned NonLeafEvaluatorNode::maxVersion() const {
  unsigned best = nodeVersion();
  for (const EvaluatorNode* c : _children) {
    const unsigned v = c->maxVersion();
    if (v > best) best = v;
  }
  return best;
}

void NonLeafEvaluatorNode::forEachNonLeafNodeDepthFirst_internal(
    EvaluatorNode** self, NonLeafEvaluatorNodeIteratorCallback& cb) {
  for (EvaluatorNode*& c : _children) c->forEachNonLeafNodeDepthFirst_internal(&c, cb);
  cb.visit(self);
}

void NonLeafEvaluatorNode::forEachNonLeafNodeDepthLast_internal(
    EvaluatorNode** self, NonLeafEvaluatorNodeIteratorCallback& cb) {
  if (!cb.visit(self)) return;
  // The callback may have put another node in this one's place.
  if (*self != this) {
    (*self)->forEachNonLeafNodeDepthLast_internal(self, cb);
    return;
  }
  for (EvaluatorNode*& c : _children) c->forEachNonLeafNodeDepthLast_internal(&c, cb);
}

EvalOperatorTypesDifferException NonLeafEvaluatorNode::bad_operand_exception() const {
  return EvalOperatorTypesDifferException(Str(name()));
}

EvalInvalidFunctionArgumentExpception NonLeafEvaluatorNode::bad_arg_exception() const {
  return EvalInvalidFunctionArgumentExpception(Str(name()));
}

void NonLeafEvaluatorNode::requireArgs(size_t min, size_t max) const {
  if (argn() < min) throw EvalMissingArgumentsException(Str(name()));
  if (argn() > max) throw bad_arg_exception();
}

void FunctionEvaluatorNode::evaluate(EvaluatorContext* ctx) const {
  for (const EvaluatorNode* c : _children) c->evaluate(ctx);
  go(ctx);
}

EvalDatum& FunctionEvaluatorNode::collapse(EvaluatorContext* ctx) const {
  if (argn() == 0) return ctx->stackPush();
  ctx->stack().drop(argn() - 1);
  return ctx->stack().peek();
}

// ---- UndefinedEvalNode ----

void UndefinedEvalNode::proxyTo(NonLeafEvaluatorNode* real) {
  kassert(!_proxy.valid());
  real->_children.swap(_children);
  _proxy.reset(real);
}

const EvaluatorType* UndefinedEvalNode::checkArguments() {
  if (!_proxy.valid()) throw EvalBadFunctionException(_functionName);
  return _proxy->checkArguments();
}

void UndefinedEvalNode::typeCheck() {
  if (!_proxy.valid()) throw EvalBadFunctionException(_functionName);
  _proxy->typeCheck();
  _returnType = _proxy->returnType();
}

const EvaluatorType* UndefinedEvalNode::returnType() const {
  return _proxy.valid() ? _proxy->returnType() : _returnType;
}

void UndefinedEvalNode::evaluate(EvaluatorContext* ctx) const {
  if (_proxy.valid()) {
    _proxy->evaluate(ctx);
    return;
  }
  ctx->stackPush().setNull();
}

void UndefinedEvalNode::forEachVariable(EvaluatorVarReference::iterator_callback& cb) {
  if (_proxy.valid()) _proxy->forEachVariable(cb);
  NonLeafEvaluatorNode::forEachVariable(cb);
}

// ---- operators ----

const EvaluatorType* ConcatFunction::checkArguments() {
  kassert(argn() == 2);
  for (const EvaluatorNode* c : _children) {
    const EvaluatorType* t = c->returnType();
    if (!t->mightBeStringLike() && !t->mightBeNumeric() && !t->mightBeNull()) {
      throw EvalTypeNotConcatableException(Str(name()));
    }
  }
  return &EvalDatum::StringType::INSTANCE;
}

void ConcatFunction::go(EvaluatorContext* ctx) const {
  EvalDatum& a = arg(ctx, 0);
  EvalDatum& b = arg(ctx, 1);
  if (a.isNull() || b.isNull()) {
    a.setNull();
  } else {
    textOf(a);
    a.str += textOf(b);
    a.changeType(&EvalDatum::StringType::INSTANCE);
  }
  collapse(ctx);
}

const EvaluatorType* AddFunction::checkArguments() {
  kassert(argn() == 2);
  const EvaluatorType* a = child(0)->returnType();
  const EvaluatorType* b = child(1)->returnType();
  const bool numbers = a->mightBeNumeric() && b->mightBeNumeric();
  const bool strings = a->mightBeStringLike() && b->mightBeStringLike();
  if (!numbers && !strings) throw EvalBadPlusOperatorTypesException(Str(name()));
  if (a->isNumeric() && b->isNumeric()) return &EvalDatum::NumericType::INSTANCE;
  if (!numbers) return &EvalDatum::StringType::INSTANCE;
  return &EvalDatum::EitherStringOrNumberType::INSTANCE;
}

void AddFunction::go(EvaluatorContext* ctx) const {
  EvalDatum& a = arg(ctx, 0);
  EvalDatum& b = arg(ctx, 1);
  if (a.isNumeric() && b.isNumeric()) {
    DoubleWithSignificantFigures sum;
    sum.set(a.asDouble() + b.asDouble());
    additivePrecision(a.asNumber(), b.asNumber(), &sum);
    a.setNumber(sum);
  } else if (a.isStringLike() && b.isStringLike()) {
    a.str += b.str;
    a.changeType(&EvalDatum::StringType::INSTANCE);
  } else {
    a.setNull();
  }
  collapse(ctx);
}

const EvaluatorType* BasicMathFunction::checkArguments() {
  kassert(argn() == 2);
  for (const EvaluatorNode* c : _children) {
    if (!c->returnType()->mightBeNumeric()) throw EvalBadTypeForNumericalOperatorException(Str(name()));
  }
  return &EvalDatum::NumericType::INSTANCE;
}

void BasicMathFunction::go(EvaluatorContext* ctx) const {
  EvalDatum& a = arg(ctx, 0);
  EvalDatum& b = arg(ctx, 1);
  DoubleWithSignificantFigures result;
  if (a.isNumeric() && b.isNumeric() && compute(a.asNumber(), b.asNumber(), &result)) {
    a.setNumber(result);
  } else {
    a.setNull();
  }
  collapse(ctx);
}

bool SubFunction::compute(const DoubleWithSignificantFigures& a,
                          const DoubleWithSignificantFigures& b,
                          DoubleWithSignificantFigures* out) const {
  out->set(a.value - b.value);
  additivePrecision(a, b, out);
  return true;
}

bool MultFunction::compute(const DoubleWithSignificantFigures& a,
                           const DoubleWithSignificantFigures& b,
                           DoubleWithSignificantFigures* out) const {
  out->set(a.value * b.value);
  multiplicativePrecision(a, b, out);
  return true;
}

bool DivFunction::compute(const DoubleWithSignificantFigures& a,
                          const DoubleWithSignificantFigures& b,
                          DoubleWithSignificantFigures* out) const {
  if (b.value == 0) return false;
  out->set(a.value / b.value);
  multiplicativePrecision(a, b, out);
  return true;
}

bool ModFunction::compute(const DoubleWithSignificantFigures& a,
                          const DoubleWithSignificantFigures& b,
                          DoubleWithSignificantFigures* out) const {
  if (b.value == 0) return false;
  out->set(std::fmod(a.value, b.value));
  additivePrecision(a, b, out);
  return true;
}

const EvaluatorType* EqualsFunction::checkArguments() {
  kassert(argn() == 2);
  return &EvalDatum::BoolType::INSTANCE;
}

void EqualsFunction::go(EvaluatorContext* ctx) const {
  EvalDatum& a = arg(ctx, 0);
  EvalDatum& b = arg(ctx, 1);
  if (a.isNull() || b.isNull()) {
    a.setNull();
  } else {
    a.setBool((compareValues(a, b) == 0) != negate());
  }
  collapse(ctx);
}

const EvaluatorType* GenericComparisonFunction::checkArguments() {
  kassert(argn() == 2);
  const EvaluatorType* a = child(0)->returnType();
  const EvaluatorType* b = child(1)->returnType();
  // A null on either side gives null at run time, so it fits any order.
  if (a->mightBeNull() || b->mightBeNull()) return &EvalDatum::BoolType::INSTANCE;
  const bool numbers = a->mightBeNumeric() && b->mightBeNumeric();
  const bool strings = a->mightBeStringLike() && b->mightBeStringLike();
  if (!numbers && !strings) throw bad_operand_exception();
  return &EvalDatum::BoolType::INSTANCE;
}

void GenericComparisonFunction::go(EvaluatorContext* ctx) const {
  EvalDatum& a = arg(ctx, 0);
  EvalDatum& b = arg(ctx, 1);
  if (a.isNull() || b.isNull()) {
    a.setNull();
  } else {
    a.setBool(holds(compareValues(a, b)));
  }
  collapse(ctx);
}

const EvaluatorType* BasicBooleanFunction::checkArguments() {
  kassert(argn() == 2);
  for (const EvaluatorNode* c : _children) {
    if (!c->returnType()->mightBeBoolean()) throw EvalBadTypeForBooleanOperatorException(Str(name()));
  }
  return &EvalDatum::BoolType::INSTANCE;
}

void BasicBooleanFunction::go(EvaluatorContext* ctx) const {
  EvalDatum& a = arg(ctx, 0);
  EvalDatum& b = arg(ctx, 1);
  if (a.isBoolean() && b.isBoolean()) {
    a.setBool(combine(a.asBoolean(), b.asBoolean()));
  } else {
    a.setNull();
  }
  collapse(ctx);
}

const EvaluatorType* NegateFunction::checkArguments() {
  kassert(argn() == 1);
  if (!child(0)->returnType()->mightBeNumeric()) {
    throw EvalBadTypeForNumericalOperatorException(Str(name()));
  }
  return &EvalDatum::NumericType::INSTANCE;
}

void NegateFunction::go(EvaluatorContext* ctx) const {
  EvalDatum& a = arg(ctx, 0);
  if (a.isNumeric()) {
    DoubleWithSignificantFigures n = a.asNumber();
    n.value = -n.value;
    a.setNumber(n);
  } else {
    a.setNull();
  }
}

const EvaluatorType* NOTFunction::checkArguments() {
  kassert(argn() == 1);
  if (!child(0)->returnType()->mightBeBoolean()) {
    throw EvalBadTypeForBooleanOperatorException(Str(name()));
  }
  return &EvalDatum::BoolType::INSTANCE;
}

void NOTFunction::go(EvaluatorContext* ctx) const {
  EvalDatum& a = arg(ctx, 0);
  if (a.isBoolean()) {
    a.setBool(!a.asBoolean());
  } else {
    a.setNull();
  }
}
