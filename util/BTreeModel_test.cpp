// The tree against std::map: random inserts, updates and lookups with a
// fixed seed, the tree closed and reopened at random points, checkValid
// holding throughout, and the files read back by the independent layout
// reader at the end. BTREE_MODEL_OPS sets the number of operations per
// order (defaults 25000, 15000 and 10000: 50000 in all) for a longer run by hand.
#include "util/BTree.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <random>
#include <string>

#include "util/testing/BTreeLayoutReader.h"
#include "util/testing/BTreeTestTypes.h"
#include "util/testing/TestTempDir.h"

namespace {

using bt::BTree;

uint64_t opsPerOrder(uint64_t fallback) {
  const char* env = std::getenv("BTREE_MODEL_OPS");
  return env != nullptr ? std::strtoull(env, nullptr, 10) : fallback;
}

struct ModelRun {
  uint32_t order;
  uint64_t keySpace;  // keys drawn from 1..keySpace: small spaces mean many updates
  uint64_t ops;
};

void runModel(const ModelRun& run) {
  SCOPED_TRACE("order " + std::to_string(run.order));
  TestTempDir dir;
  std::mt19937_64 rng(0x5eed0000u + run.order);
  std::map<uint64_t, std::pair<uint64_t, uint64_t>> model;
  const U64Key blank(0);
  auto tree = std::make_unique<BTree>(blank, run.order);
  ASSERT_TRUE(tree->open(dir.path()));
  PairRecord scratch;
  uint64_t reopens = 0;
  uint64_t hits = 0;
  for (uint64_t i = 0; i < run.ops; ++i) {
    const uint64_t key = 1 + rng() % run.keySpace;
    const unsigned what = rng() % 100;
    if (what < 55) {
      const PairRecord rec(rng(), i);
      tree->addUpdate(U64Key(key), rec);
      model[key] = {rec.a(), rec.b()};
    } else {
      const auto it = model.find(key);
      PairRecord got(7, 7);
      const bool found = tree->retrieve(U64Key(key), got);
      ASSERT_EQ(it != model.end(), found) << "op " << i << " key " << key;
      if (found) {
        ++hits;
        ASSERT_EQ(PairRecord(it->second.first, it->second.second), got) << "op " << i;
      }
    }
    if (rng() % 4000 == 0) {
      // Reopened under a different order to show that the file's order wins.
      tree->close();
      tree = std::make_unique<BTree>(blank, run.order == 255 ? 100 : 255);
      ASSERT_TRUE(tree->open(dir.path()));
      ASSERT_EQ(run.order, tree->order());
      ++reopens;
    }
    if (i % 10000 == 9999) {
      ASSERT_TRUE(tree->checkValid(scratch)) << "op " << i;
    }
  }
  ASSERT_TRUE(tree->checkValid(scratch));
  tree->close();
  EXPECT_GT(reopens, 0u);
  EXPECT_GT(hits, 0u);
  const LayoutTree t = readLayoutTree(dir.path());
  ASSERT_TRUE(t.ok) << t.error;
  EXPECT_EQ(run.order, t.order);
  EXPECT_EQ(model, t.entries);
}

TEST(BTreeModel, SmallOrderDeepTree) { runModel({3, 20000, opsPerOrder(25000)}); }

TEST(BTreeModel, MiddleOrder) { runModel({16, 50000, opsPerOrder(15000)}); }

TEST(BTreeModel, FullBlockOrder) { runModel({255, 1000000, opsPerOrder(10000)}); }

}  // namespace
