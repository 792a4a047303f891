#include "util/HashedStrMap.h"

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <vector>

#include "util/Str.h"
#include "util/testing/TestText.h"

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

TEST(HashedStrMap, PermanentKeysAreSharedAndOthersCopiedIntoThePool) {
  static const HashedStr kHost("host");
  HashedStrMapKeyGenerator gen;
  const HashedStrReference generated = gen.get("source");  // permanent, as a reference
  HashedStrMap<const char*> map;
  map[kHost] = "web01";
  EXPECT_EQ(nullptr, map[generated]);  // a miss inserts a default V
  std::string text = "linecount";
  map.index(text.data(), text.size(), djb2_hash(text.data(), text.size())) = "7";
  text.assign("XXXXXXXXX");  // the map must not refer to the caller's bytes
  {
    HashedStrMap_KeyPool callerPool;
    const HashedStrReference key = callerPool.create("sourcetype");
    map[key] = "syslog";
    EXPECT_NE(key.data(), map._internal_find(key)->second.first.data());
    EXPECT_STREQ("syslog", map[callerPool.create("sourcetype")]);  // a hit copies nothing
  }
  // The caller's pool is gone; the address sanitizer reports any read of it.
  for (const auto& [hash, entry] : map) {
    const std::string name = textOf(entry.first);
    EXPECT_EQ(name == "host" || name == "source", entry.first.isPermanent()) << name;
  }
  EXPECT_EQ(kHost.data(), map._internal_find(kHost)->second.first.data());
  EXPECT_EQ(generated.data(), map._internal_find(generated)->second.first.data());
  EXPECT_STREQ("web01", map[kHost]);
  EXPECT_STREQ("7", map.index("linecount", 9, djb2_hash("linecount")));
  EXPECT_STREQ("syslog", map[gen.get("sourcetype")]);
  EXPECT_EQ(4u, map.size());
}

TEST(HashedStrMap, CollidingKeysStandSideBySide) {
  HashedStrMap<int> map;
  HashedStrMap_KeyPool pool;
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
    EXPECT_EQ(e.value, map[pool.create(e.text, strlen(e.text), e.hash)]) << e.text;
  }
  EXPECT_EQ(map.end(), map._internal_find("abd", 3, 42));
  EXPECT_EQ(map.end(), map._internal_find("abc", 3, 41));
  EXPECT_FALSE(map.contains(pool.create("abd", 3, 42)));
  EXPECT_FALSE(map.contains(pool.create("abc")));  // true hash, so another bucket
  // Hash order outside, insertion order among equals.
  std::vector<std::string> order;
  for (const auto& entry : map) order.push_back(textOf(entry.second.first));
  EXPECT_EQ((std::vector<std::string>{"low", "abc", "xyz", "ab", "high"}), order);
}

TEST(HashedStrMap, AgreesWithUnorderedMapOnRandomKeys) {
  std::mt19937 rng(12345);
  HashedStrMapKeyGenerator gen;
  HashedStrMap_KeyPool pool;
  HashedStrMap<int> map;
  std::unordered_map<std::string, int> oracle;
  for (int i = 0; i < 5000; ++i) {
    const std::string text = randomText(rng, "ab\xc3\xa9_", 4);
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

TEST(HashedStrMap, CopyFromSharesPermanentKeysAndCopiesPooledOnes) {
  // A source whose keys are all permanent is copied as a plain tree.
  HashedStrMapKeyGenerator gen;
  HashedStrMap<Str> permanent;
  for (const char* k : {"host", "source", "_time"}) permanent[gen.get(k)] = k;
  HashedStrMap<Str> copy;
  copy[gen.get("stale")] = "x";
  copy._copy_from(permanent);
  EXPECT_EQ(contentsOf(permanent), contentsOf(copy));
  for (const auto& entry : copy) {
    EXPECT_EQ(gen.get(entry.second.first.data()).data(), entry.second.first.data());
  }
  std::map<std::string, Str> expected;
  {
    auto source = std::make_unique<HashedStrMap<Str>>();
    HashedStrMap_KeyPool callerPool;
    (*source)[gen.get("host")] = "web01";
    (*source)[callerPool.create("sourcetype")] = "syslog";
    source->index("index", 5, djb2_hash("index")) = "main";
    expected = contentsOf(*source);
    copy.index("old", 3, djb2_hash("old")) = "replaced";  // a pooled key of the target's own
    copy._copy_from(*source);
    EXPECT_EQ(gen.get("host").data(), copy._internal_find(gen.get("host"))->second.first.data());
    const auto it = copy._internal_find("index", 5, djb2_hash("index"));
    EXPECT_NE(source->_internal_find("index", 5, djb2_hash("index"))->second.first.data(),
              it->second.first.data());
  }
  // Source and caller pool are freed: reading the copy proves it owns its keys.
  EXPECT_EQ(expected, contentsOf(copy));
}

TEST(HashedStrMap, CopyMoveAndClear) {
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
  EXPECT_TRUE(source.empty());
  EXPECT_EQ(source.end(), source._internal_find("a", 1, djb2_hash("a")));
  source.index("a", 1, djb2_hash("a")) = 3;
  EXPECT_EQ((std::map<std::string, int>{{"a", 3}}), contentsOf(source));
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

}  // namespace
