#include "util/HashedStr.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "util/Str.h"

namespace {

// Read during dynamic initialisation of this file, which may run before or
// after HashedStr.cpp's: only constant initialisation makes it safe.
const uint64_t kEmptyHashSeenAtStartup = HashedStr::EMPTY_STR.hash();
const HashedStr kHostKey("host");

const HashedStrKeyBlock* blockOf(const HashedStrReference& key) {
  return reinterpret_cast<const HashedStrKeyBlock*>(key.data()) - 1;
}

std::string randomText(std::mt19937& rng, size_t maxLen, bool allowNul) {
  std::uniform_int_distribution<int> len(0, static_cast<int>(maxLen));
  std::uniform_int_distribution<int> byte(allowNul ? 0 : 1, 255);
  std::string s(len(rng), '\0');
  for (char& c : s) c = static_cast<char>(byte(rng));
  return s;
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

TEST(Djb2Hash, KnownValues) {
  // Computed outside this code base, with bytes from 0x80 taken as negative.
  const struct { std::string text; uint64_t hash; } kCases[] = {
      {"", 5381},
      {"a", 177670},
      {"ab", 5863208},
      {"\xff", 177572},  // 5381 * 33 - 1
      {"\x80", 177445},  // 5381 * 33 - 128
      {"\x7f", 177700},  // last byte that adds as itself
      {std::string("a\0b", 3), 193482728},
      {"host", 6385303139ULL},
      {"caf\xc3\xa9", 210708550779ULL},
      {"sourcetype", 8246925089354512376ULL},  // wraps past 2^64
      {"The quick brown fox jumps over the lazy dog", 3950289020261251294ULL},
      {std::string(16, '\xff'), 5472370213401178101ULL},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.text);
    EXPECT_EQ(c.hash, djb2_hash(c.text.data(), c.text.size()));
    if (c.text.find('\0') == std::string::npos) {
      EXPECT_EQ(c.hash, djb2_hash(c.text.c_str()));
      size_t len = 99;
      EXPECT_EQ(c.hash, djb2_hash_and_strlen(c.text.c_str(), &len));
      EXPECT_EQ(c.text.size(), len);
    }
  }
}

TEST(Djb2Hash, HighBytesAddAsSignedValues) {
  for (int byte = 0x80; byte <= 0xFF; ++byte) {
    const char c = static_cast<char>(byte);
    EXPECT_EQ(5381u * 33 + byte - 256, djb2_hash(&c, 1)) << byte;
    EXPECT_NE(5381u * 33 + byte, djb2_hash(&c, 1)) << byte;
  }
}

TEST(Djb2Hash, AllFormsAgreeOnRandomText) {
  std::mt19937 rng(20240611);
  for (int i = 0; i < 2000; ++i) {
    const std::string text = randomText(rng, 64, false);
    size_t len = 12345;
    const uint64_t h = djb2_hash(text.data(), text.size());
    EXPECT_EQ(h, djb2_hash(text.c_str())) << i;
    EXPECT_EQ(h, djb2_hash_and_strlen(text.c_str(), &len)) << i;
    EXPECT_EQ(text.size(), len) << i;
  }
}

TEST(HashedStrReference, BlockLayout) {
  std::mt19937 rng(7);
  for (size_t len = 0; len <= 40; ++len) {
    std::string text(len, '\0');
    for (char& c : text) c = static_cast<char>(rng());
    const HashedStrReference key = HashedStrReference::_allocMem(text.data(), text.size());
    SCOPED_TRACE(len);
    EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(key.data()) % 8);
    EXPECT_EQ(key.data(), key.c_str());
    EXPECT_EQ(len, key.length());
    EXPECT_EQ(len, key.size());
    EXPECT_EQ(djb2_hash(text.data(), len), key.hash());
    EXPECT_EQ(text, std::string(key.c_str(), key.length()));
    EXPECT_TRUE(key.isPermanent());
    const HashedStrKeyBlock* block = blockOf(key);
    EXPECT_EQ(nullptr, block->next);
    EXPECT_EQ(nullptr, block->back_link);
    EXPECT_EQ(len, block->length);
    EXPECT_EQ(key.hash(), block->hash);
    // The whole rounded text area is ours (ASan would object otherwise):
    // the NUL, then zeroed padding.
    const size_t area = (len + 1 + 7) / 8 * 8;
    for (size_t i = len; i < area; ++i) EXPECT_EQ('\0', key.data()[i]) << i;
    key._freeMem();
  }
}

TEST(HashedStrReference, AllocShapesAgree) {
  const char* text = "sourcetype";
  const HashedStrReference a = HashedStrReference::_allocMem(text);
  const HashedStrReference b = HashedStrReference::_allocMem(text, 10);
  const HashedStrReference c = HashedStrReference::_allocMem(text, 10, djb2_hash(text, 10));
  EXPECT_EQ(a.hash(), b.hash());
  EXPECT_EQ(a.hash(), c.hash());
  EXPECT_TRUE(a == b && b == c);
  EXPECT_NE(a.data(), b.data());
  for (const HashedStrReference& k : {a, b, c}) k._freeMem();
}

TEST(HashedStrReference, EqualityWithCString) {
  HashedStrMap_KeyPool pool;
  const HashedStrReference key = pool.create("index");
  const struct { const char* text; bool equal; } kCases[] = {
      {"index", true},  {"Index", false}, {"inde", false},
      {"indexx", false}, {"", false},     {"xedni", false},
  };
  for (const auto& c : kCases) EXPECT_EQ(c.equal, key == c.text) << c.text;
  EXPECT_TRUE(HashedStr::EMPTY_STR == "");
  // The hash decides first: the same text under a wrong hash is not equal.
  EXPECT_FALSE(pool.create("index", 5, 1) == "index");
}

TEST(HashedStrReference, EqualityWithReference) {
  HashedStrMap_KeyPool pool;
  const HashedStrReference abc = pool.create("abc");
  const HashedStrReference abcAgain = pool.create("abc");
  const HashedStrReference collidingA = pool.create("abc", 3, 42);
  const HashedStrReference collidingX = pool.create("xyz", 3, 42);
  const HashedStrReference longer = pool.create("abcd", 4, 42);
  EXPECT_TRUE(abc == abcAgain);          // equal bytes in two blocks
  EXPECT_TRUE(collidingA == collidingA);  // identity
  EXPECT_FALSE(collidingA == collidingX);  // same hash and length, other bytes
  EXPECT_FALSE(collidingA == longer);      // same hash, other length
  EXPECT_FALSE(abc == collidingA);         // same bytes, other hash
  EXPECT_FALSE(abc == HashedStr::EMPTY_STR);
}

TEST(HashedStr, EmptyKeyIsConstantInitialised) {
  EXPECT_EQ(5381u, kEmptyHashSeenAtStartup);
  EXPECT_EQ(5381u, HashedStr::EMPTY_STR.hash());
  EXPECT_EQ(0u, HashedStr::EMPTY_STR.length());
  EXPECT_STREQ("", HashedStr::EMPTY_STR.c_str());
  EXPECT_TRUE(HashedStr::EMPTY_STR.isPermanent());
  EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(HashedStr::EMPTY_STR.data()) % 8);
}

TEST(HashedStr, StaticKeyIsPermanent) {
  EXPECT_TRUE(kHostKey.isPermanent());
  EXPECT_TRUE(kHostKey == "host");
  EXPECT_EQ(6385303139ULL, kHostKey.hash());
}

TEST(HashedStr, OffersTheSegmentVocabulary) {
  EXPECT_EQ(2u, kHostKey.find("st"));
  EXPECT_TRUE(kHostKey.startswith("ho"));
  EXPECT_TRUE(kHostKey.endswith('t'));
  EXPECT_EQ(0, kHostKey.compare(StrSegment("host")));
}

TEST(HashedStrMap_KeyPool, CreateLinksNewestFirst) {
  HashedStrMap_KeyPool pool;
  EXPECT_TRUE(pool.empty());
  const HashedStrReference a = pool.create("alpha");
  const HashedStrReference b = pool.create("beta", 4);
  const HashedStrReference c = pool.create("gamma", 5, djb2_hash("gamma"));
  EXPECT_EQ((std::vector<std::string>{"gamma", "beta", "alpha"}), poolTexts(pool));
  for (const HashedStrReference& k : {a, b, c}) {
    EXPECT_FALSE(k.isPermanent());
    EXPECT_EQ(djb2_hash(k.data(), k.length()), k.hash());
  }
  pool.freeAll();
  EXPECT_TRUE(pool.empty());
  EXPECT_TRUE(poolTexts(pool).empty());
}

TEST(HashedStrMap_KeyPool, UnlinkFromEveryPosition) {
  for (size_t n = 1; n <= 4; ++n) {
    for (size_t victim = 0; victim < n; ++victim) {
      SCOPED_TRACE(testing::Message() << n << " keys, removing #" << victim);
      HashedStrMap_KeyPool pool;
      std::vector<HashedStrReference> keys;
      std::vector<std::string> expected;  // newest first, as the list runs
      for (size_t i = 0; i < n; ++i) {
        const std::string text = "k" + std::to_string(i);
        keys.push_back(pool.create(text.c_str()));
        expected.insert(expected.begin(), text);
      }
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
  size_t i = 0;
  for (const HashedStrReference& key : vec) {
    SCOPED_TRACE(i);
    EXPECT_EQ(texts[i], std::string(key.data(), key.length()));
    EXPECT_NE(texts[i].data(), key.data());
    EXPECT_EQ(djb2_hash(texts[i].data(), texts[i].size()), key.hash());
    EXPECT_TRUE(key.isPermanent());
    ++i;
  }
  vec._freeMem();
  EXPECT_TRUE(vec.empty());
  EXPECT_TRUE(vec.push_back("again", 5) == "again");
  EXPECT_TRUE(vec[0] == "again");
}

TEST(HashedStrMapKeyGenerator, SameTextGivesSameKey) {
  HashedStrMapKeyGenerator gen;
  const HashedStr& a = gen.get("source");
  const HashedStr& b = gen.get("source", 6);
  const HashedStr& c = gen.get("source", 6, djb2_hash("source"));
  const HashedStr& d = gen.get("sourcetype");
  EXPECT_EQ(&a, &b);
  EXPECT_EQ(&a, &c);
  EXPECT_NE(&a, &d);
  EXPECT_TRUE(a.isPermanent());
  EXPECT_TRUE(a == "source");
  EXPECT_EQ(2u, gen.size());
}

TEST(HashedStrMapKeyGenerator, CollidingTextsGetTheirOwnKeys) {
  HashedStrMapKeyGenerator gen;
  const HashedStr& abc = gen.get("abc", 3, 42);
  const HashedStr& xyz = gen.get("xyz", 3, 42);
  const HashedStr& ab = gen.get("ab", 2, 42);
  EXPECT_NE(&abc, &xyz);
  EXPECT_NE(&abc, &ab);
  EXPECT_EQ(&xyz, &gen.get("xyz", 3, 42));
  EXPECT_EQ(&abc, &gen.get("abc", 3, 42));
  EXPECT_EQ(3u, gen.size());
}

TEST(HashedStrMapKeyGenerator, RandomTextsMapOneToOne) {
  std::mt19937 rng(99);
  HashedStrMapKeyGenerator gen;
  std::map<std::string, const HashedStr*> seen;
  for (int i = 0; i < 3000; ++i) {
    // Short texts over few letters, so that many repeat.
    std::string text(rng() % 4, 'a');
    for (char& ch : text) ch = static_cast<char>('a' + rng() % 3);
    const HashedStr& key = gen.get(text.data(), text.size());
    EXPECT_EQ(text, std::string(key.data(), key.length()));
    auto [it, fresh] = seen.emplace(text, &key);
    if (!fresh) {
      EXPECT_EQ(it->second, &key) << text;
    }
  }
  EXPECT_EQ(seen.size(), gen.size());
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
  s.prepend(key);
  EXPECT_EQ(std::string("x\0yabx\0y", 8), s);
  s.assign(key);
  EXPECT_EQ(std::string("x\0y", 3), s);
  s.assign(HashedStr::EMPTY_STR);
  EXPECT_TRUE(s.empty());
}

}  // namespace
