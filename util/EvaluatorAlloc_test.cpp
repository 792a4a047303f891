// Counts heap allocations while a checked expression runs over many rows:
// once the stack's slots and their strings are warm, a row costs none.
// The global operator new of this program counts, so it stands alone.

#include <gtest/gtest.h>

#include "util/testing/CountingNew.h"


#include "util/Evaluator.h"


namespace {

// Fields as field text arrives: assigned into the slot, which keeps its
// capacity.
class RowContext : public EvaluatorContext {
 public:
  Str status, bytes, host;
  void lookupVar(const EvaluatorVarReference& ref, EvalDatum& out) const override {
    const Str& name = ref.name();
    const Str* value = name == "status" ? &status : name == "bytes" ? &bytes : name == "host" ? &host : nullptr;
    if (value == nullptr) {
      out.setNull();
    } else {
      out.setBothStringAndNumber(*value);
    }
  }
};

TEST(EvaluatorAllocations, AWarmEvaluationAllocatesNothingPerRow) {
  const char* const kExpressions[] = {
      "if(status >= 500 AND bytes > 1000, bytes / 1024 * 8, -1)",
      "host . \":\" . status . \"/\" . len(host)",
      "case(status < 300, \"ok\", status < 500, \"client\", true, \"server\")",
      "coalesce(missing, upper(host)) . substr(host, 2, 3)",
      "round(abs(bytes - 5000) / 3, 2) + tonumber(status)",
  };
  for (const char* expr : kExpressions) {
    Evaluator e;
    e.parse(expr);
    RowContext row;
    row.host.reserve(64);
    row.status.reserve(16);
    row.bytes.reserve(16);
    auto runRows = [&](int from, int to) {
      for (int i = from; i < to; ++i) {
        row.status.format("%d", 200 + (i * 37) % 400);
        row.bytes.format("%d", (i * 7919) % 100000);
        row.host.format("web-%02d.example", i % 50);
        e.evaluate(&row);
        ASSERT_FALSE(row.stack().singleValue().isNull()) << expr;
      }
    };
    runRows(0, 1000);  // warm: slots grow to their largest strings
    const long before = testing_alloc::allocations();
    runRows(1000, 201000);  // a million warm rows over the five
    EXPECT_EQ(0, testing_alloc::allocations() - before) << expr;
  }
}

}  // namespace
