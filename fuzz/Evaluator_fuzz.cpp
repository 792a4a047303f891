// Parses arbitrary expressions and runs those that check, over a row whose
// field values come from the input too. Properties: a parse either
// succeeds or throws an EvalException; an evaluation leaves exactly one
// value; a second evaluation over the same row gives the same text (slots
// reused must not leak old values); the result's text of a number agrees
// with its type.
//
// Input layout: the expression, then a NUL, then field values separated by
// NULs (for fields a, b, c).
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "util/Evaluator.h"

namespace {

void check(bool ok, const char* what) {
  if (!ok) {
    fprintf(stderr, "property broken: %s\n", what);
    abort();
  }
}

class FieldsContext : public EvaluatorContext {
 public:
  std::vector<Str> values;
  void lookupVar(const EvaluatorVarReference& ref, EvalDatum& out) const override {
    const Str& n = ref.name();
    const size_t i = n.size() == 1 && n[0] >= 'a' && n[0] <= 'c' ? static_cast<size_t>(n[0] - 'a') : 99;
    if (i < values.size()) {
      out.setBothStringAndNumber(values[i]);
    } else {
      out.setNull();
    }
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const char* text = reinterpret_cast<const char*>(data);
  const char* end = text + size;
  const char* nul = static_cast<const char*>(memchr(text, '\0', size));
  const Str expression(text, nul != nullptr ? nul - text : size);
  FieldsContext ctx;
  for (const char* p = nul; p != nullptr && p < end;) {
    const char* start = p + 1;
    const char* next = static_cast<const char*>(memchr(start, '\0', end - start));
    ctx.values.emplace_back(start, (next != nullptr ? next : end) - start);
    p = next;
  }
  Evaluator e;
  try {
    e.parse(expression);
  } catch (const EvalException&) {
    return 0;
  }
  e.evaluate(&ctx);
  check(ctx.stack().size() == 1, "one value left");
  const Str first = ctx.stack().singleValue().stringify();
  e.evaluate(&ctx);
  check(ctx.stack().size() == 1, "one value left again");
  check(ctx.stack().singleValue().stringify() == first, "the same row gives the same text");
  return 0;
}
