#include "util/HashedStrMap.h"

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <vector>

#include "util/Str.h"

namespace {

std::string textOf(const HashedStrReference& key) { return std::string(key.data(), key.length()); }

// The map's contents as text -> value, checking on the way that entries run
// in hash order and that every entry sits under its own key's hash.
template <class V>
std::map<std::string, V> contentsOf(const HashedStrMap<V>& map) {
  std::map<std::string, V> out;
  uint64_t last = 0;
  for (const auto& [hash, entry] : map) {
    EXPECT_LE(last, hash);
    EXPECT_EQ(hash, entry.first.hash());
    last = hash;
    EXPECT_TRUE(out.emplace(textOf(entry.first), entry.second).second) << textOf(entry.first);
  }
  return out;
}

TEST(HashedStrMap, PermanentKeyIsStoredWithoutCopy) {
  static const HashedStr kHost("host");
  HashedStrMapKeyGenerator gen;
  const HashedStrReference generated = gen.get("source");  // permanent, as a reference
  HashedStrMap<Str> map;
  map[kHost] = "web01";
  map[generated] = "/var/log/messages";
  ASSERT_EQ(2u, map.size());
  EXPECT_EQ(kHost.data(), map._internal_find(kHost)->second.first.data());
  EXPECT_EQ(generated.data(), map._internal_find(generated)->second.first.data());
  EXPECT_EQ("web01", map[kHost]);
  EXPECT_EQ(2u, map.size());
}

TEST(HashedStrMap, PooledKeyIsCopiedIntoTheMapsPool) {
  HashedStrMap<Str> map;
  {
    HashedStrMap_KeyPool callerPool;
    const HashedStrReference key = callerPool.create("sourcetype");
    map[key] = "syslog";
    const HashedStrReference stored = map.begin()->second.first;
    EXPECT_NE(key.data(), stored.data());
    EXPECT_FALSE(stored.isPermanent());
    EXPECT_EQ("syslog", map[callerPool.create("sourcetype")]);  // a hit copies nothing
    EXPECT_EQ(1u, map.size());
  }
  // The caller's pool is gone; ASan would report any read of its blocks.
  EXPECT_EQ((std::map<std::string, Str>{{"sourcetype", "syslog"}}), contentsOf(map));
  HashedStrMap_KeyPool probe;
  EXPECT_TRUE(map.contains(probe.create("sourcetype")));
}

TEST(HashedStrMap, IndexCreatesTheKeyInThePool) {
  HashedStrMap<int> map;
  std::string text = "linecount";
  map.index(text.data(), text.size(), djb2_hash(text.data(), text.size())) = 7;
  text.assign("XXXXXXXXX");  // the map must not refer to the caller's bytes
  const auto it = map._internal_find("linecount", 9, djb2_hash("linecount"));
  ASSERT_NE(map.end(), it);
  EXPECT_EQ(7, it->second.second);
  EXPECT_FALSE(it->second.first.isPermanent());
  EXPECT_EQ(7, map.index("linecount", 9, djb2_hash("linecount")));
  EXPECT_EQ(1u, map.size());
}

TEST(HashedStrMap, CollidingKeysStandSideBySide) {
  HashedStrMap<int> map;
  // Three texts forced onto one hash, one neighbour each side of it.
  const struct { const char* text; uint64_t hash; int value; } kEntries[] = {
      {"abc", 42, 1}, {"xyz", 42, 2}, {"ab", 42, 3}, {"low", 41, 4}, {"high", 43, 5},
  };
  for (const auto& e : kEntries) map.index(e.text, strlen(e.text), e.hash) = e.value;
  ASSERT_EQ(5u, map.size());
  for (const auto& e : kEntries) {
    const auto it = map._internal_find(e.text, strlen(e.text), e.hash);
    ASSERT_NE(map.end(), it) << e.text;
    EXPECT_EQ(e.value, it->second.second) << e.text;
    EXPECT_EQ(e.text, textOf(it->second.first));
  }
  EXPECT_EQ(map.end(), map._internal_find("abd", 3, 42));
  EXPECT_EQ(map.end(), map._internal_find("abc", 3, 41));
  // Hash order outside, insertion order among equals.
  std::vector<std::string> order;
  for (const auto& entry : map) order.push_back(textOf(entry.second.first));
  EXPECT_EQ((std::vector<std::string>{"low", "abc", "xyz", "ab", "high"}), order);
}

TEST(HashedStrMap, LookupByReferenceComparesTextWithinAHash) {
  HashedStrMap_KeyPool pool;
  HashedStrMap<int> map;
  map[pool.create("abc", 3, 42)] = 1;
  map[pool.create("xyz", 3, 42)] = 2;
  EXPECT_EQ(2, map[pool.create("xyz", 3, 42)]);
  EXPECT_TRUE(map.contains(pool.create("abc", 3, 42)));
  EXPECT_FALSE(map.contains(pool.create("abd", 3, 42)));
  EXPECT_FALSE(map.contains(pool.create("abc")));  // true hash, so another bucket
  EXPECT_EQ(2u, map.size());
}

TEST(HashedStrMap, AgreesWithUnorderedMapOnRandomKeys) {
  std::mt19937 rng(12345);
  HashedStrMapKeyGenerator gen;
  HashedStrMap_KeyPool pool;
  HashedStrMap<int> map;
  std::unordered_map<std::string, int> oracle;
  for (int i = 0; i < 5000; ++i) {
    std::string text(rng() % 5, '\0');
    for (char& c : text) c = static_cast<char>("ab\xc3\xa9_"[rng() % 5]);
    int* slot = nullptr;
    switch (rng() % 3) {
      case 0: slot = &map[gen.get(text.data(), text.size())]; break;
      case 1: slot = &map[pool.create(text.data(), text.size())]; break;
      default: slot = &map.index(text.data(), text.size(), djb2_hash(text.data(), text.size()));
    }
    *slot += i;
    oracle[text] += i;
  }
  pool.freeAll();
  const std::map<std::string, int> expected(oracle.begin(), oracle.end());
  EXPECT_EQ(expected, contentsOf(map));
}

TEST(HashedStrMap, HoldsPointers) {
  int a = 1, b = 2;
  HashedStrMap<int*> map;
  HashedStrMapKeyGenerator gen;
  map[gen.get("a")] = &a;
  map[gen.get("b")] = &b;
  EXPECT_EQ(nullptr, map[gen.get("c")]);  // default V is a null pointer
  EXPECT_EQ(&a, map[gen.get("a")]);
  EXPECT_EQ(&b, map._internal_find(gen.get("b"))->second.second);
  EXPECT_EQ(3u, map.size());
}

TEST(HashedStrMap, CopyOfPermanentOnlyMapSharesKeys) {
  HashedStrMapKeyGenerator gen;
  HashedStrMap<Str> source;
  for (const char* k : {"host", "source", "sourcetype", "_time"}) source[gen.get(k)] = k;
  HashedStrMap<Str> copy;
  copy[gen.get("stale")] = "x";
  copy._copy_from(source);
  EXPECT_EQ(contentsOf(source), contentsOf(copy));
  for (const auto& entry : copy) {
    EXPECT_EQ(gen.get(entry.second.first.data()).data(), entry.second.first.data());
  }
}

TEST(HashedStrMap, CopyOfPooledMapOutlivesTheSource) {
  static const HashedStr kHost("host");
  HashedStrMap<Str> copy;
  std::map<std::string, Str> expected;
  {
    auto source = std::make_unique<HashedStrMap<Str>>();
    HashedStrMap_KeyPool callerPool;
    (*source)[kHost] = "web01";
    (*source)[callerPool.create("sourcetype")] = "syslog";
    source->index("index", 5, djb2_hash("index")) = "main";
    expected = contentsOf(*source);
    copy.index("old", 3, djb2_hash("old")) = "replaced";  // a pooled key of the target's own
    copy._copy_from(*source);
    EXPECT_EQ(kHost.data(), copy._internal_find(kHost)->second.first.data());
    const auto it = copy._internal_find("index", 5, djb2_hash("index"));
    EXPECT_NE(source->_internal_find("index", 5, djb2_hash("index"))->second.first.data(),
              it->second.first.data());
  }
  // Source and caller pool are freed: reading the copy proves it owns its keys.
  EXPECT_EQ(expected, contentsOf(copy));
  EXPECT_EQ(3u, copy.size());
}

TEST(HashedStrMap, CopyConstructionAssignmentAndMove) {
  HashedStrMap<int> source;
  source.index("a", 1, djb2_hash("a")) = 1;
  source.index("b", 1, djb2_hash("b")) = 2;
  HashedStrMap<int> constructed(source);
  HashedStrMap<int> assigned;
  assigned = source;
  assigned = assigned;  // self-assignment keeps the map
  EXPECT_EQ(contentsOf(source), contentsOf(constructed));
  EXPECT_EQ(contentsOf(source), contentsOf(assigned));
  HashedStrMap<int> moved(std::move(constructed));
  EXPECT_EQ(contentsOf(source), contentsOf(moved));
  assigned = std::move(moved);
  source.clear();
  EXPECT_EQ((std::map<std::string, int>{{"a", 1}, {"b", 2}}), contentsOf(assigned));
}

// A value whose copy throws once the budget runs out.
struct FragileValue {
  static int copiesLeft;
  int v = 0;
  FragileValue() = default;
  explicit FragileValue(int x) : v(x) {}
  FragileValue(const FragileValue& o) : v(o.v) {
    if (copiesLeft-- <= 0) throw std::runtime_error("copy refused");
  }
  FragileValue& operator=(const FragileValue&) = default;
};
int FragileValue::copiesLeft = 1000;

TEST(HashedStrMap, FailedCopyLeavesTargetIntact) {
  HashedStrMap<FragileValue> source, target;
  for (int i = 0; i < 6; ++i) {
    const std::string k = "src" + std::to_string(i);
    source.index(k.data(), k.size(), djb2_hash(k.data(), k.size())) = FragileValue(i);
  }
  target.index("keep", 4, djb2_hash("keep")) = FragileValue(99);
  for (int budget = 0; budget < 6; ++budget) {
    SCOPED_TRACE(budget);
    FragileValue::copiesLeft = budget;
    EXPECT_THROW(target._copy_from(source), std::runtime_error);
    ASSERT_EQ(1u, target.size());
    const auto it = target._internal_find("keep", 4, djb2_hash("keep"));
    ASSERT_NE(target.end(), it);
    EXPECT_EQ(99, it->second.second.v);
  }
  FragileValue::copiesLeft = 1000;
  target._copy_from(source);
  EXPECT_EQ(6u, target.size());
}

TEST(HashedStrMap, ClearEmptiesAndFreesThePool) {
  HashedStrMap_KeyPool pool;
  HashedStrMap<Str> map;
  map[pool.create("a")] = "1";
  map.index("b", 1, djb2_hash("b")) = "2";
  map[HashedStr::EMPTY_STR] = "empty";
  map.clear();
  EXPECT_TRUE(map.empty());
  EXPECT_FALSE(map.contains(pool.create("a")));
  EXPECT_FALSE(map.contains(HashedStr::EMPTY_STR));
  map[pool.create("a")] = "again";
  EXPECT_EQ((std::map<std::string, Str>{{"a", "again"}}), contentsOf(map));
}

}  // namespace
