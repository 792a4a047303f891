#include "util/HashedStr.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "util/Str.h"
#include "util/testing/TestText.h"

namespace {

// Read during dynamic initialisation of this file, which may run before or
// after HashedStr.cpp's: only constant initialisation makes it safe.
const uint64_t kEmptyHashSeenAtStartup = HashedStr::EMPTY_STR.hash();
const HashedStr kHostKey("host");

const HashedStrKeyBlock* blockOf(const HashedStrReference& key) {
  return reinterpret_cast<const HashedStrKeyBlock*>(key.data()) - 1;
}

// Walks a pool's list from its head, checking at each block that back_link
// names the slot that points at it; returns the texts, newest first.
std::vector<std::string> poolTexts(HashedStrMap_KeyPool& pool) {
  static_assert(sizeof(HashedStrMap_KeyPool) == sizeof(HashedStrKeyBlock*));
  auto** slot = reinterpret_cast<HashedStrKeyBlock**>(&pool);
  std::vector<std::string> texts;
  for (HashedStrKeyBlock* b = *slot; b != nullptr; slot = &b->next, b = b->next) {
    EXPECT_EQ(slot, b->back_link) << "block " << texts.size();
    texts.emplace_back(b->text(), b->length);
  }
  return texts;
}

TEST(Djb2Hash, KnownValuesAndAllFormsAgree) {
  // Computed outside this code base, with bytes from 0x80 taken as negative.
  const struct { std::string text; uint64_t hash; } kCases[] = {
      {"", 5381}, {"a", 177670}, {"ab", 5863208}, {std::string("a\0b", 3), 193482728},
      {"\x7f", 177700},  // last byte that adds as itself
      {"caf\xc3\xa9", 210708550779ULL}, {std::string(16, '\xff'), 5472370213401178101ULL},
      {"sourcetype", 8246925089354512376ULL},  // wraps past 2^64
  };
  for (const auto& c : kCases) {
    EXPECT_EQ(c.hash, djb2_hash(c.text.data(), c.text.size())) << printable(c.text);
  }
  for (int byte = 0x80; byte <= 0xFF; ++byte) {  // 0xFF gives 5381 * 33 - 1
    const char c = static_cast<char>(byte);
    EXPECT_EQ(5381u * 33 + byte - 256, djb2_hash(&c, 1)) << byte;
  }
  // The C string forms agree on random text, the known values included.
  std::mt19937 rng(20240611);
  std::string noNul;
  for (int b = 1; b < 256; ++b) noNul.push_back(static_cast<char>(b));
  std::vector<std::string> texts = {"", "a", "ab", "\x7f", "caf\xc3\xa9", "sourcetype"};
  for (int i = 0; i < 2000; ++i) texts.push_back(randomText(rng, noNul, 64));
  for (const std::string& text : texts) {
    size_t len = 12345;
    const uint64_t h = djb2_hash(text.data(), text.size());
    EXPECT_EQ(h, djb2_hash(text.c_str())) << printable(text);
    EXPECT_EQ(h, djb2_hash_and_strlen(text.c_str(), &len)) << printable(text);
    EXPECT_EQ(text.size(), len) << printable(text);
  }
}

TEST(HashedStrReference, BlockLayout) {
  std::mt19937 rng(7);
  for (size_t len = 0; len <= 40; ++len) {
    std::string text(len, '\0');
    for (char& c : text) c = static_cast<char>(rng());
    const HashedStrReference key = HashedStrReference::_allocMem(text.data(), text.size());
    SCOPED_TRACE(len);
    const HashedStrKeyBlock* block = blockOf(key);
    EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(key.data()) % 8);
    EXPECT_EQ(key.data(), key.c_str());
    EXPECT_EQ(text, std::string(key.c_str(), key.length()));
    EXPECT_EQ(len, key.size());
    EXPECT_EQ(len, block->length);
    EXPECT_EQ(djb2_hash(text.data(), len), key.hash());
    EXPECT_EQ(key.hash(), block->hash);
    EXPECT_TRUE(key.isPermanent() && block->next == nullptr && block->back_link == nullptr);
    // The whole rounded text area is ours (the address sanitizer checks it):
    // the NUL, then zeroed padding.
    const size_t area = (len + 1 + 7) / 8 * 8;
    for (size_t i = len; i < area; ++i) EXPECT_EQ('\0', key.data()[i]) << i;
    key._freeMem();
  }
  const HashedStrReference a = HashedStrReference::_allocMem("sourcetype");
  const HashedStrReference c = HashedStrReference::_allocMem("sourcetype", 10, 42);
  EXPECT_EQ(djb2_hash("sourcetype"), a.hash());
  EXPECT_EQ(42u, c.hash());  // the given hash is stored as it is
  EXPECT_NE(a.data(), c.data());
  a._freeMem();
  c._freeMem();
}

TEST(HashedStrReference, EqualityDecidesByHashThenLengthThenBytes) {
  HashedStrMap_KeyPool pool;
  const HashedStrReference key = pool.create("index");
  for (const char* text : {"Index", "inde", "indexx", "", "xedni"}) {
    EXPECT_FALSE(key == text) << text;
  }
  EXPECT_TRUE(key == "index");
  EXPECT_TRUE(HashedStr::EMPTY_STR == "");
  EXPECT_FALSE(pool.create("index", 5, 1) == "index");  // the same text under a wrong hash

  const HashedStrReference abc = pool.create("abc");
  const HashedStrReference collidingA = pool.create("abc", 3, 42);
  const HashedStrReference collidingX = pool.create("xyz", 3, 42);
  EXPECT_TRUE(abc == pool.create("abc"));     // equal bytes in two blocks
  EXPECT_TRUE(collidingA == collidingA);       // identity
  EXPECT_FALSE(collidingA == collidingX);      // same hash and length, other bytes
  EXPECT_FALSE(collidingA == pool.create("abcd", 4, 42));  // same hash, other length
  EXPECT_FALSE(abc == collidingA);             // same bytes, other hash
}

TEST(HashedStr, PermanentKeysAndTheirVocabulary) {
  EXPECT_EQ(5381u, kEmptyHashSeenAtStartup);
  EXPECT_STREQ("", HashedStr::EMPTY_STR.c_str());
  EXPECT_TRUE(HashedStr::EMPTY_STR.isPermanent() && HashedStr::EMPTY_STR.length() == 0);
  EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(HashedStr::EMPTY_STR.data()) % 8);
  EXPECT_TRUE(kHostKey.isPermanent() && kHostKey == "host");
  EXPECT_EQ(6385303139ULL, kHostKey.hash());
  // The segment vocabulary reads the key's own bytes.
  EXPECT_EQ(2u, kHostKey.find("st"));
  EXPECT_TRUE(kHostKey.endswith('t'));
  EXPECT_EQ(0, kHostKey.compare(StrSegment("host")));
}

TEST(HashedStrMap_KeyPool, CreateLinksNewestFirstAndUnlinkFromEveryPosition) {
  for (size_t n = 1; n <= 4; ++n) {
    for (size_t victim = 0; victim < n; ++victim) {
      SCOPED_TRACE(testing::Message() << n << " keys, removing #" << victim);
      HashedStrMap_KeyPool pool;
      std::vector<HashedStrReference> keys;
      std::vector<std::string> expected;  // newest first, as the list runs
      for (size_t i = 0; i < n; ++i) {
        const std::string text = "k" + std::to_string(i);
        const char* p = text.c_str();
        keys.push_back(i == 0 ? pool.create(p) : i == 1 ? pool.create(p, 2)
                                                        : pool.create(p, 2, 42));
        EXPECT_FALSE(keys.back().isPermanent());
        EXPECT_TRUE(i >= 2 ? keys.back().hash() == 42 : keys.back() == p);  // hashed as compared
        expected.insert(expected.begin(), text);
      }
      EXPECT_EQ(expected, poolTexts(pool));
      keys[victim]._really_unlink_and_free();
      expected.erase(expected.begin() + (n - 1 - victim));
      EXPECT_EQ(expected, poolTexts(pool));
      // The list still works: add, then remove the rest one by one.
      pool.create("late");
      expected.insert(expected.begin(), "late");
      EXPECT_EQ(expected, poolTexts(pool));
      for (size_t i = 0; i < n; ++i) {
        if (i != victim) keys[i]._really_unlink_and_free();
      }
      EXPECT_EQ(std::vector<std::string>{"late"}, poolTexts(pool));
      pool.freeAll();
      EXPECT_TRUE(pool.empty());
    }
  }
}

TEST(HashedStrMap_KeyPool, SwapFixesBackLinks) {
  HashedStrMap_KeyPool left, right, empty;
  left.create("l1");
  const HashedStrReference l2 = left.create("l2");
  const HashedStrReference r1 = right.create("r1");
  left.swap(right);
  EXPECT_EQ(std::vector<std::string>{"r1"}, poolTexts(left));
  EXPECT_EQ((std::vector<std::string>{"l2", "l1"}), poolTexts(right));
  // Unlinking a head after the swap must write to its new pool.
  l2._really_unlink_and_free();
  r1._really_unlink_and_free();
  EXPECT_TRUE(left.empty());
  EXPECT_EQ(std::vector<std::string>{"l1"}, poolTexts(right));
  right.swap(empty);
  EXPECT_TRUE(right.empty());
  EXPECT_EQ(std::vector<std::string>{"l1"}, poolTexts(empty));
}

TEST(HashedStrVector, OwnsCopiesInOrder) {
  const std::vector<std::string> texts = {"host", "", std::string("a\0b", 3), "caf\xc3\xa9"};
  HashedStrVector vec;
  for (const std::string& t : texts) vec.push_back(t.data(), t.size());
  ASSERT_EQ(texts.size(), vec.size());
  for (size_t i = 0; i < texts.size(); ++i) {
    const HashedStrReference& key = *(vec.begin() + i);
    EXPECT_EQ(texts[i], std::string(key.data(), key.length())) << i;
    EXPECT_EQ(djb2_hash(texts[i].data(), texts[i].size()), key.hash()) << i;
    EXPECT_TRUE(key.isPermanent() && key.data() != texts[i].data()) << i;
  }
  vec._freeMem();
  EXPECT_TRUE(vec.empty());
  EXPECT_TRUE(vec.push_back("again", 5) == "again");
  EXPECT_TRUE(vec[0] == "again");
}

TEST(HashedStrMapKeyGenerator, SameTextGivesSameKey) {
  HashedStrMapKeyGenerator gen;
  const HashedStr& a = gen.get("source");
  EXPECT_EQ(&a, &gen.get("source", 6));
  EXPECT_EQ(&a, &gen.get("source", 6, djb2_hash("source")));
  EXPECT_TRUE(a.isPermanent());
  EXPECT_TRUE(a == "source");
  // Texts forced onto one hash get keys of their own.
  const HashedStr& abc = gen.get("abc", 3, 42);
  const HashedStr& xyz = gen.get("xyz", 3, 42);
  EXPECT_NE(&abc, &xyz);
  EXPECT_NE(&abc, &gen.get("ab", 2, 42));
  EXPECT_EQ(&xyz, &gen.get("xyz", 3, 42));
  EXPECT_EQ(&abc, &gen.get("abc", 3, 42));
  EXPECT_EQ(4u, gen.size());
  // Random short texts over few letters, so that many repeat.
  std::mt19937 rng(99);
  std::map<std::string, const HashedStr*> seen = {{"source", &a}};
  for (int i = 0; i < 3000; ++i) {
    const std::string text = randomText(rng, "abc", 3);
    const HashedStr& key = gen.get(text.data(), text.size());
    EXPECT_EQ(text, std::string(key.data(), key.length()));
    auto [it, fresh] = seen.emplace(text, &key);
    EXPECT_TRUE(fresh || it->second == &key) << text;
  }
  EXPECT_EQ(seen.size() + 3, gen.size());  // plus the three keys under hash 42
  gen.free_all();
  EXPECT_EQ(0u, gen.size());
  EXPECT_TRUE(gen.get("fresh") == "fresh");
}

TEST(StrFromHashedKey, BuildsAndEdits) {
  HashedStrMap_KeyPool pool;
  const HashedStrReference key = pool.create("x\0y", 3);
  EXPECT_EQ(std::string("x\0y", 3), Str(key));
  Str s("ab");
  s.append(key);
  EXPECT_EQ(std::string("abx\0y", 5), s);
  EXPECT_EQ(std::string("x\0yabx\0y", 8), s.prepend(key));
  s.assign(key);
  EXPECT_EQ(std::string("x\0y", 3), s);
  s.assign(HashedStr::EMPTY_STR);
  EXPECT_TRUE(s.empty());
}

}  // namespace
