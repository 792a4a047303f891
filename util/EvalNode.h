// The expression tree of the eval language. A tree is built by Evaluator's
// parser, type-checked once (typeCheck), simplified once (constant
// subtrees folded), and then evaluated for every result over the context's
// value stack: evaluate() leaves exactly one new value on top of the stack
// and allocates nothing per node once the stack's slots are warm.
//
// Thread story: a checked tree is immutable, and any number of threads may
// evaluate it at once, each with its own EvaluatorContext. Building and
// checking need one owner.
#pragma once

#include <cstddef>
#include <vector>

#include "util/EvalDatum.h"
#include "util/EvalExceptions.h"
#include "util/ScopedPointer.h"
#include "util/Str.h"

class Evaluator;
class EvaluatorNode;
class Timezone;

// A variable (a field of the result) named in an expression.
class EvaluatorVarReference {
 public:
  explicit EvaluatorVarReference(const Str& name) : _name(name) {}
  const Str& name() const { return _name; }

  // The visitor of EvaluatorNode::forEachVariable.
  class iterator_callback {
   public:
    virtual ~iterator_callback() = default;
    virtual void visit(const EvaluatorVarReference& ref) = 0;
  };

 private:
  Str _name;
};

// What an evaluation reads from: the variables of one result, the zone for
// time functions, and the value stack. One per thread.
class EvaluatorContext {
 public:
  EvaluatorContext() = default;
  virtual ~EvaluatorContext() = default;
  // Fills `out` with the variable's value. This base gives the name back
  // as a string; a subclass looks the field up in its result.
  virtual void lookupVar(const EvaluatorVarReference& ref, EvalDatum& out) const;
  // The zone time functions render in; null is the process's local zone.
  virtual const Timezone* getTimezone() const { return nullptr; }

  // A new top of stack, holding whatever the slot held last: fill it.
  EvalDatum& stackPush() { return _stack.push(); }
  void stackSetTopToNull() { _stack.peek().setNull(); }
  EvalDatumStack& stack() { return _stack; }

 private:
  EvalDatumStack _stack;
};

// The visitor of the non-leaf walks. It gets the address of the pointer to
// the node, so that it can put another node in its place (and then owns the
// one it took out). Depth-last walks go into a node's children only when
// visit answered true; depth-first walks ignore the answer.
class NonLeafEvaluatorNodeIteratorCallback {
 public:
  virtual ~NonLeafEvaluatorNodeIteratorCallback() = default;
  virtual bool visit(EvaluatorNode** slot) = 0;
};

class EvaluatorNode {
 public:
  virtual ~EvaluatorNode() = default;
  // Leaves the node's value as one new top of stack.
  virtual void evaluate(EvaluatorContext* ctx) const = 0;
  // The static type of the value (after typeCheck for non-leaf nodes).
  virtual const EvaluatorType* returnType() const = 0;
  virtual bool isConstant() const { return false; }
  // Checks the subtree's types; throws the Eval...Exception that says why
  // not. Nothing for leaves.
  virtual void typeCheck() {}
  virtual void forEachVariable(EvaluatorVarReference::iterator_callback& cb) = 0;
  // The language version the node needs, and the greatest in its subtree.
  virtual unsigned nodeVersion() const { return 1; }
  virtual unsigned maxVersion() const { return nodeVersion(); }
  // The walks over non-leaf nodes; `self` is where the caller keeps this
  // node. Leaves have nothing to visit.
  virtual void forEachNonLeafNodeDepthFirst_internal(EvaluatorNode** self,
                                                     NonLeafEvaluatorNodeIteratorCallback& cb);
  virtual void forEachNonLeafNodeDepthLast_internal(EvaluatorNode** self,
                                                    NonLeafEvaluatorNodeIteratorCallback& cb);

  // The part of `expr` (the text the tree was parsed from) that this node
  // came from, for messages.
  Str getExprStr(const StrSegment& expr) const;
  void setExprRange(size_t begin, size_t end) {
    _exprBegin = begin;
    _exprEnd = end;
  }

 private:
  size_t _exprBegin = 0;
  size_t _exprEnd = 0;
};

// A literal, or a folded constant subtree: pushes a copy of its value.
class ConstantEvaluatorNode : public EvaluatorNode {
 public:
  explicit ConstantEvaluatorNode(const EvalDatum& value) : _value(value) {}
  void evaluate(EvaluatorContext* ctx) const override { ctx->stackPush().copyFrom(_value); }
  const EvaluatorType* returnType() const override { return _value.type; }
  bool isConstant() const override { return true; }
  void forEachVariable(EvaluatorVarReference::iterator_callback&) override {}
  const EvalDatum& value() const { return _value; }

 private:
  EvalDatum _value;
};

// A field of the result: pushes a null, then lets the context fill it.
class VariableEvaluatorNode : public EvaluatorNode {
 public:
  // The static type is what `evaluator` knows of the name.
  VariableEvaluatorNode(const Evaluator* evaluator, const Str& name);
  void evaluate(EvaluatorContext* ctx) const override;
  const EvaluatorType* returnType() const override { return _type; }
  void forEachVariable(EvaluatorVarReference::iterator_callback& cb) override { cb.visit(_ref); }
  const EvaluatorVarReference& reference() const { return _ref; }

 private:
  EvaluatorVarReference _ref;
  const EvaluatorType* _type;
};

// A node with children: operators and functions.
class NonLeafEvaluatorNode : public EvaluatorNode {
 public:
  ~NonLeafEvaluatorNode() override;
  // The operator or function name, for messages.
  virtual const char* name() const = 0;
  // Checks the children's static types (already checked themselves) and
  // gives the node's return type; throws when they do not fit.
  virtual const EvaluatorType* checkArguments() = 0;
  // Whether the node may be computed once, at simplification.
  virtual bool tryPreEval() const { return false; }

  // Takes the child; `child` is left empty.
  void addChild(ScopedPointer<EvaluatorNode>& child);
  size_t argn() const { return _children.size(); }
  EvaluatorNode* child(size_t i) const { return _children[i]; }
  bool allChildrenAreConstant() const;

  // Children first, then checkArguments, whose answer becomes returnType.
  void typeCheck() override;
  const EvaluatorType* returnType() const override { return _returnType; }
  void forEachVariable(EvaluatorVarReference::iterator_callback& cb) override;
  unsigned maxVersion() const override;
  void forEachNonLeafNodeDepthFirst_internal(EvaluatorNode** self,
                                             NonLeafEvaluatorNodeIteratorCallback& cb) override;
  void forEachNonLeafNodeDepthLast_internal(EvaluatorNode** self,
                                            NonLeafEvaluatorNodeIteratorCallback& cb) override;

  // The failures of an operand or an argument, naming this node.
  EvalOperatorTypesDifferException bad_operand_exception() const;
  EvalInvalidFunctionArgumentExpception bad_arg_exception() const;

 protected:
  // Throws EvalMissingArgumentsException below `min` children and
  // bad_arg_exception above `max`.
  void requireArgs(size_t min, size_t max) const;

  friend class UndefinedEvalNode;
  std::vector<EvaluatorNode*> _children;  // owned
  const EvaluatorType* _returnType = &EvalUndeterminedType::INSTANCE;
};

// A node whose value depends on its children only.
class PureNonLeafEvaluatorNode : public NonLeafEvaluatorNode {
 public:
  bool tryPreEval() const override { return allChildrenAreConstant(); }
};

// Evaluates its children in order, then go(), which finds their values on
// top of the stack and leaves its one result in their place.
class FunctionEvaluatorNode : public PureNonLeafEvaluatorNode {
 public:
  void evaluate(EvaluatorContext* ctx) const override;
  virtual void go(EvaluatorContext* ctx) const = 0;

 protected:
  // Argument i (0 is the first) while go() runs.
  EvalDatum& arg(EvaluatorContext* ctx, size_t i) const { return ctx->stack().peek(argn() - 1 - i); }
  // Drops the arguments but the first and gives its slot, the result's
  // place (a new slot when there are no arguments).
  EvalDatum& collapse(EvaluatorContext* ctx) const;
};

// A call to a function that is not known yet. It fails typeCheck with
// "Bad function" until proxyTo gave it the real node, to which it then
// forwards.
class UndefinedEvalNode : public NonLeafEvaluatorNode {
 public:
  explicit UndefinedEvalNode(const Str& functionName) : _functionName(functionName) {}
  const char* name() const override { return _functionName.c_str(); }
  // Hands the children to `real` and keeps it. At most once per node
  // ("!_proxy.valid()").
  void proxyTo(NonLeafEvaluatorNode* real);
  const EvaluatorType* checkArguments() override;
  void typeCheck() override;
  const EvaluatorType* returnType() const override;
  void evaluate(EvaluatorContext* ctx) const override;
  void forEachVariable(EvaluatorVarReference::iterator_callback& cb) override;

 private:
  Str _functionName;
  ScopedPointer<NonLeafEvaluatorNode> _proxy;
};

// ---- Operators ----

// "a . b": the texts of both, joined.
class ConcatFunction : public FunctionEvaluatorNode {
 public:
  const char* name() const override { return "."; }
  const EvaluatorType* checkArguments() override;
  void go(EvaluatorContext* ctx) const override;
};

// "a + b": the sum of numbers, or the join of strings.
class AddFunction : public FunctionEvaluatorNode {
 public:
  const char* name() const override { return "+"; }
  const EvaluatorType* checkArguments() override;
  void go(EvaluatorContext* ctx) const override;
};

// The arithmetic of two numbers; a non-number gives null, and so does a
// division or remainder by zero.
class BasicMathFunction : public FunctionEvaluatorNode {
 public:
  const EvaluatorType* checkArguments() override;
  void go(EvaluatorContext* ctx) const override;

 protected:
  // False when there is no result.
  virtual bool compute(const DoubleWithSignificantFigures& a, const DoubleWithSignificantFigures& b,
                       DoubleWithSignificantFigures* out) const = 0;
};

class SubFunction : public BasicMathFunction {
 public:
  const char* name() const override { return "-"; }

 protected:
  bool compute(const DoubleWithSignificantFigures& a, const DoubleWithSignificantFigures& b,
               DoubleWithSignificantFigures* out) const override;
};

class MultFunction : public BasicMathFunction {
 public:
  const char* name() const override { return "*"; }

 protected:
  bool compute(const DoubleWithSignificantFigures& a, const DoubleWithSignificantFigures& b,
               DoubleWithSignificantFigures* out) const override;
};

class DivFunction : public BasicMathFunction {
 public:
  const char* name() const override { return "/"; }

 protected:
  bool compute(const DoubleWithSignificantFigures& a, const DoubleWithSignificantFigures& b,
               DoubleWithSignificantFigures* out) const override;
};

class ModFunction : public BasicMathFunction {
 public:
  const char* name() const override { return "%"; }

 protected:
  bool compute(const DoubleWithSignificantFigures& a, const DoubleWithSignificantFigures& b,
               DoubleWithSignificantFigures* out) const override;
};

// "a = b" and "a != b": numbers compare as numbers when both are numeric,
// anything else by its text; a null operand gives null.
class EqualsFunction : public FunctionEvaluatorNode {
 public:
  const char* name() const override { return "="; }
  const EvaluatorType* checkArguments() override;
  void go(EvaluatorContext* ctx) const override;

 protected:
  virtual bool negate() const { return false; }
};

class NotEqualsFunction : public EqualsFunction {
 public:
  const char* name() const override { return "!="; }

 protected:
  bool negate() const override { return true; }
};

// The orderings: numerically when both are numeric, else bytewise by text;
// a null operand gives null.
class GenericComparisonFunction : public FunctionEvaluatorNode {
 public:
  const EvaluatorType* checkArguments() override;
  void go(EvaluatorContext* ctx) const override;

 protected:
  // Whether a result of the three-way comparison `c` (<0, 0, >0) holds.
  virtual bool holds(int c) const = 0;
};

class LessThanFunction : public GenericComparisonFunction {
 public:
  const char* name() const override { return "<"; }

 protected:
  bool holds(int c) const override { return c < 0; }
};

class LessThanOrEqualFunction : public GenericComparisonFunction {
 public:
  const char* name() const override { return "<="; }

 protected:
  bool holds(int c) const override { return c <= 0; }
};

class GreaterThanFunction : public GenericComparisonFunction {
 public:
  const char* name() const override { return ">"; }

 protected:
  bool holds(int c) const override { return c > 0; }
};

class GreaterThanOrEqualFunction : public GenericComparisonFunction {
 public:
  const char* name() const override { return ">="; }

 protected:
  bool holds(int c) const override { return c >= 0; }
};

// The boolean operators; a non-boolean operand gives null.
class BasicBooleanFunction : public FunctionEvaluatorNode {
 public:
  const EvaluatorType* checkArguments() override;
  void go(EvaluatorContext* ctx) const override;

 protected:
  virtual bool combine(bool a, bool b) const = 0;
};

class ANDFunction : public BasicBooleanFunction {
 public:
  const char* name() const override { return "AND"; }

 protected:
  bool combine(bool a, bool b) const override { return a && b; }
};

class ORFunction : public BasicBooleanFunction {
 public:
  const char* name() const override { return "OR"; }

 protected:
  bool combine(bool a, bool b) const override { return a || b; }
};

class XORFunction : public BasicBooleanFunction {
 public:
  const char* name() const override { return "XOR"; }

 protected:
  bool combine(bool a, bool b) const override { return a != b; }
};

// The unary operators: "-x" and "NOT x" (also "!x").
class NegateFunction : public FunctionEvaluatorNode {
 public:
  const char* name() const override { return "-"; }
  const EvaluatorType* checkArguments() override;
  void go(EvaluatorContext* ctx) const override;
};

class NOTFunction : public FunctionEvaluatorNode {
 public:
  const char* name() const override { return "NOT"; }
  const EvaluatorType* checkArguments() override;
  void go(EvaluatorContext* ctx) const override;
};
