// The failures of parsing and type-checking an eval expression. Each class
// has a fixed what(); where() names the node (or the text) it concerns,
// empty when nothing more is known.
#pragma once

#include <stdexcept>

#include "util/Str.h"

class EvalException : public std::runtime_error {
 public:
  EvalException(const char* what, const Str& where) : std::runtime_error(what), _where(where) {}
  const Str& where() const { return _where; }

 private:
  Str _where;
};

#define KESTRO_EVAL_EXCEPTION(Name, Text)                                    \
  class Name : public EvalException {                                        \
   public:                                                                   \
    explicit Name(const Str& where = Str()) : EvalException(Text, where) {} \
  };

KESTRO_EVAL_EXCEPTION(EvalMissingArgumentsException, "Missing arguments")
KESTRO_EVAL_EXCEPTION(EvalMissingFactorException, "Missing factor")
KESTRO_EVAL_EXCEPTION(EvalMissingTermException, "Missing term")
KESTRO_EVAL_EXCEPTION(EvalMissingComparisonTermException, "Missing comparison term")
KESTRO_EVAL_EXCEPTION(EvalMissingAndTermException, "Missing AND term")
KESTRO_EVAL_EXCEPTION(EvalMissingOrTermException, "Missing OR term")
KESTRO_EVAL_EXCEPTION(EvalInvalidOperatorException, "Invalid operator")
KESTRO_EVAL_EXCEPTION(EvalInvalidUnaryOperatorException, "Invalid unary operator")
KESTRO_EVAL_EXCEPTION(EvalBadFunctionException, "Bad function")
KESTRO_EVAL_EXCEPTION(EvalBadVariableException, "Bad variable")
KESTRO_EVAL_EXCEPTION(EvalUnexpectedTokenException, "Unexpected token")
KESTRO_EVAL_EXCEPTION(EvalMalformedExpressionWhileExpectingException, "Expecting different token")
KESTRO_EVAL_EXCEPTION(EvalInvalidNumberException, "Invalid number")
KESTRO_EVAL_EXCEPTION(EvalInvalidFunctionArgumentExpception, "Invalid function argument")
KESTRO_EVAL_EXCEPTION(EvalRegularExpressionError, "Regular expression error")
KESTRO_EVAL_EXCEPTION(EvalTypeNotConcatableException, "Types not concatable")
KESTRO_EVAL_EXCEPTION(EvalOperatorTypesDifferException, "Operator types incompatible")
KESTRO_EVAL_EXCEPTION(EvalBadPlusOperatorTypesException, "Operator '+' types incompatible")
KESTRO_EVAL_EXCEPTION(EvalBadTypeForNumericalOperatorException, "Operator requires numeric types")
KESTRO_EVAL_EXCEPTION(EvalBadTypeForBooleanOperatorException, "Operator requires boolean types")

#undef KESTRO_EVAL_EXCEPTION
