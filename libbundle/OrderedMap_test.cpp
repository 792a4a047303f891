#include "libbundle/OrderedMap.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "libbundle/IniFile.h"

namespace {

typedef OrderedMap<std::string, int> Map;

std::vector<std::string> keysOf(const Map& m) {
  std::vector<std::string> out;
  for (auto it = m.begin(); it != m.end(); ++it) out.push_back(it.key());
  return out;
}

TEST(OrderedMap, IteratesInInsertionOrderAndKeepsTheFirstOfEqualKeys) {
  Map m;
  for (const char* k : {"zeta", "alpha", "mid", "alpha", "zeta", "beta"}) {
    m.insert(k, static_cast<int>(m.size()));
  }
  EXPECT_EQ(std::vector<std::string>({"zeta", "alpha", "mid", "beta"}), keysOf(m));
  EXPECT_EQ(0, *m.get("zeta"));
  EXPECT_EQ(1, *m.get("alpha"));
  EXPECT_EQ(3, *m.get("beta"));
  EXPECT_EQ(nullptr, m.get("gamma"));

  auto again = m.insert("mid", 99);
  EXPECT_FALSE(again.second);
  EXPECT_EQ(2, again.first.value());  // the element that stayed
  auto fresh = m.insert("omega", 7);
  EXPECT_TRUE(fresh.second);
  EXPECT_EQ("omega", fresh.first.key());
}

TEST(OrderedMap, AFoundIteratorReadsOneElementThenEnds) {
  Map m;
  m.insert("a", 1);
  m.insert("b", 2);
  m.insert("c", 3);
  auto it = m.find("b");
  ASSERT_NE(m.end(), it);
  EXPECT_EQ("b", it.key());
  EXPECT_EQ(2, it->second[0]);
  it.value() = 20;
  EXPECT_EQ(20, *m.get("b"));
  ++it;
  EXPECT_EQ(m.end(), it);
  EXPECT_EQ(m.end(), m.find("nope"));
  const Map& cm = m;
  EXPECT_EQ(1, cm.find("a").value());
}

TEST(OrderedMap, EraseFreesAndKeepsTheOrderOfTheRest) {
  Map m;
  for (const char* k : {"a", "b", "c", "d"}) m.insert(k, 0);
  EXPECT_TRUE(m.erase("b"));
  EXPECT_FALSE(m.erase("b"));
  EXPECT_TRUE(m.erase("d"));
  EXPECT_EQ(std::vector<std::string>({"a", "c"}), keysOf(m));
  m.insert("b", 5);  // back, at the end this time
  EXPECT_EQ(std::vector<std::string>({"a", "c", "b"}), keysOf(m));
  m.clear();
  EXPECT_TRUE(m.empty());
  EXPECT_EQ(m.begin(), m.end());
}

TEST(OrderedMap, CopiesAreDeepAndIndependent) {
  Map m;
  m.insert("x", 1);
  m.insert("y", 2);
  Map copy(m);
  *copy.get("x") = 10;
  copy.erase("y");
  copy.insert("z", 3);
  EXPECT_EQ(1, *m.get("x"));
  EXPECT_EQ(std::vector<std::string>({"x", "y"}), keysOf(m));
  EXPECT_EQ(std::vector<std::string>({"x", "z"}), keysOf(copy));
  m = copy;
  EXPECT_EQ(10, *m.get("x"));
  EXPECT_EQ(std::vector<std::string>({"x", "z"}), keysOf(m));
  Map moved(std::move(copy));
  EXPECT_EQ(std::vector<std::string>({"x", "z"}), keysOf(moved));
  EXPECT_TRUE(copy.empty());
}

TEST(OrderedMap, ComparesWithTheGivenOrdering) {
  OrderedMap<Str, int, inicmp> m;
  EXPECT_TRUE(m.insert(" key\t", 1).second);
  EXPECT_FALSE(m.insert("key", 2).second);
  EXPECT_TRUE(m.insert("Key", 3).second);  // case counts
  EXPECT_EQ(" key\t", m.begin().key());      // stored as written
  EXPECT_EQ(1, *m.get("  key  "));
}

TEST(inicmp, TrimsBlanksAndTabsThenComparesUnsignedBytes) {
  const struct {
    const char* a;
    const char* b;
    int want;  // sign of a against b
  } kCases[] = {
      {"a", " a ", 0},       {"\ta\t", "a", 0},    {"a", "b", -1},
      {"ab", "a", 1},        {"", " \t ", 0},      {"A", "a", -1},
      {"\xC3\xA9", "z", 1},  // unsigned: a high byte sorts last
      {"a b", "a  b", 1},    // inner blanks are kept
      {"a\n", "a", 1},       // only blank and tab are trimmed
  };
  inicmp less;
  for (const auto& c : kCases) {
    EXPECT_EQ(c.want < 0, less(c.a, c.b)) << c.a << "|" << c.b;
    EXPECT_EQ(c.want > 0, less(c.b, c.a)) << c.a << "|" << c.b;
  }
  OrderedMapLess<Str> plain;
  EXPECT_TRUE(plain(" a", "a"));  // stanza names are not trimmed
  EXPECT_TRUE(plain("a", "\xC3\xA9"));
}

}  // namespace
