#include "framework/PipelineData.h"

#include <atomic>
#include <functional>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "util/InputStream.h"
#include "util/OutputStream.h"
#include "util/StrMem.h"
#include "util/Timeval.h"

namespace {

void putKey(PipelineData* pd, const char* name, const Str& value) {
  pd->internal_put(name, std::strlen(name), djb2_hash(name), value);
}

Str serialized(const PipelineData& pd) {
  NativeByteOrderOutputStream out(256, 2);
  pd.serialize(out);
  return Str(std::string(reinterpret_cast<const char*>(out.data()), out.size()));
}

// Reads `bytes` into a fresh handle; false when refused. The bytes are
// copied into a buffer of exactly their size, so that a read past the end
// is an error the address sanitizer sees.
bool readBack(const Str& bytes, CowPipelineData* out) {
  std::unique_ptr<char[]> exact(new char[bytes.size()]);
  std::memcpy(exact.get(), bytes.data(), bytes.size());
  NativeByteOrderInputStream in(exact.get(), bytes.size());
  return out->writable()->ressurrect(in, false);
}

// A stream built by hand: pairs, then the trailing count and mark.
Str handStream(const std::vector<std::pair<Str, Str>>& pairs) {
  NativeByteOrderOutputStream out(256, 2);
  out.write_32(static_cast<unsigned>(pairs.size()));
  for (const auto& [k, v] : pairs) {
    out.write(k);
    out.write(v);
  }
  out.write_32(0);
  out.write(Str("_raw"));
  return Str(std::string(reinterpret_cast<const char*>(out.data()), out.size()));
}

const char* const kConf = "source::/var/log/a|host::web01|syslog|chan1";

// A record with the channel of kConf, its pieces in their fast places.
CowPipelineData withChannel(const Str& raw) {
  CowPipelineData pd;
  EXPECT_TRUE(readBack(handStream({{"_raw", raw}, {"_conf", kConf},
                                   {"MetaData:Source", "source::/var/log/a"},
                                   {"MetaData:Host", "host::web01"},
                                   {"MetaData:Sourcetype", "sourcetype::syslog"},
                                   {"_channel", "chan1"}}),
                       &pd));
  return pd;
}

TEST(PipelineData, ChannelPiecesLiveInTheChannelUnlessTheyDeviate) {
  CowPipelineData pd = withChannel("hello");
  EXPECT_EQ(pd->flags() & 0x1FE00, 0x200u | 0x800u | 0x2000u | 0x8000u);
  EXPECT_EQ(pd->contentMap().size(), 0u);
  StrSegment seg;
  ASSERT_TRUE(pd->get_chan_piece(PipelineData::__inmap_host, &seg));
  EXPECT_EQ(Str(seg), "host::web01");

  // A source differing from the channel's comes back in the map.
  CowPipelineData dev;
  ASSERT_TRUE(readBack(handStream({{"_conf", kConf}, {"MetaData:Source", "source::other"}}), &dev));
  EXPECT_EQ(dev->flags() & 0x600, 0x400u);
  ASSERT_TRUE(dev->get_chan_piece(PipelineData::__inmap_source, &seg));
  EXPECT_EQ(Str(seg), "source::other");
  CowPipelineData again;
  ASSERT_TRUE(readBack(serialized(*dev), &again));
  EXPECT_EQ(again->flags() & 0x600, 0x400u);
  ASSERT_TRUE(again->get_chan_piece(PipelineData::__inmap_source, &seg));
  EXPECT_EQ(Str(seg), "source::other");
  EXPECT_EQ(serialized(*again), serialized(*dev));
}

TEST(PipelineData, TimeKeepsItsFastPlaceOnlyForPlainNumbers) {
  struct Case {
    const char* text;
    bool fast;
    long long secs;
  } cases[] = {{"7", true, 7},        {"007", false, 0},  {"-12", true, -12}, {"+7", false, 0},
               {"1.5", false, 0},     {"", false, 0},     {"-", false, 0},    {"-0", false, 0},
               {"1700000000", true, 1700000000}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    CowPipelineData pd;
    putKey(pd.writable(), "_time", c.text);
    Timeval tv;
    EXPECT_EQ(pd->getTimeKey(&tv), c.fast);
    EXPECT_EQ((pd->flags() & 0x80) != 0, c.fast);
    EXPECT_EQ((pd->flags() & 0x100) != 0, !c.fast);
    if (c.fast) {
      EXPECT_EQ(tv.tv_sec, c.secs);
    }
    CowPipelineData back;
    ASSERT_TRUE(readBack(serialized(*pd), &back));
    Str scratch;
    const Str* v = back->internal_get("_time", 5, djb2_hash("_time"), &scratch);
    ASSERT_NE(v, nullptr);
    EXPECT_EQ(*v, c.text);
    EXPECT_EQ(back->flags(), pd->flags());
  }
}

TEST(PipelineData, OneValueKeysCostABitUnlessTheValueDiffers) {
  CowPipelineData pd;
  putKey(pd.writable(), "_done", "_done");
  EXPECT_EQ(pd->flags(), PDFLAG_HAS_DONE_NORMAL);
  EXPECT_EQ(pd->contentMap().size(), 0u);
  putKey(pd.writable(), "_done", "other");
  EXPECT_EQ(pd->flags(), PDFLAG_HAS_DONE_IN_MAP);
  EXPECT_EQ(pd->contentMap().size(), 1u);
  putKey(pd.writable(), "_done", "_done");
  EXPECT_EQ(pd->flags(), PDFLAG_HAS_DONE_NORMAL);
  EXPECT_EQ(pd->contentMap().size(), 0u);
  EXPECT_TRUE(pd->contains(PipelineData::__inmap_done));
}

TEST(PipelineData, GetOfAnAbsentKeyThrowsWithTheKeyName) {
  CowPipelineData pd;
  try {
    pd->get(PipelineData::_pathKey);
    FAIL() << "no exception";
  } catch (const KeyNotFoundException& e) {
    EXPECT_STREQ(e.what(), "This key could not be found : _path");
  }
  pd.writable()->put(PipelineData::_pathKey, "/x");
  EXPECT_EQ(pd->get(PipelineData::_pathKey), "/x");
  // Registered keys share their text with the map entry.
  EXPECT_EQ(pd->contentMap().begin()->second.first.data(), PipelineData::_pathKey.data());
}

// ---- round trip over generated records ----

Str randomText(std::mt19937& rng, size_t maxLen) {
  std::uniform_int_distribution<size_t> len(0, maxLen);
  std::uniform_int_distribution<int> ch(0, 255);
  Str s;
  const size_t n = len(rng);
  for (size_t i = 0; i < n; i++) s.push_back(static_cast<char>(ch(rng)));
  return s;
}

TEST(PipelineData, SerialiseThenReadBackIsTheIdentity) {
  std::mt19937 rng(1234);
  const char* onevals[] = {"_done", "_flush", "_utf8", "_linebreaker", "_dstrx", "_recoverevent",
                           "_hpn"};
  const char* pieces[] = {"MetaData:Source", "MetaData:Host", "MetaData:Sourcetype", "_channel"};
  const char* pieceValues[] = {"source::/var/log/a", "host::web01", "sourcetype::syslog", "chan1"};
  const char* times[] = {"7", "007", "-3", "+1", "1.25", ""};
  const char* metas[] = {"a::b c::\"d e\"", "n::7 n::007", "_subsecond::.120", "flag"};
  // Where the raw bytes end up before the record is written.
  enum RawShape { NONE, BLOCK, LARGE_BLOCK, OWNED, SUB_RANGE, TWO_BLOCKS, POOL_EDGE, SHAPES };
  for (int round = 0; round < 350; round++) {
    SCOPED_TRACE(round);
    std::vector<std::pair<Str, Str>> pairs;
    const int rawShape = round % SHAPES;
    if (rawShape == BLOCK || rawShape == SUB_RANGE || rawShape == TWO_BLOCKS) {
      pairs.push_back({"_raw", "<" + randomText(rng, 200) + ">"});
    }
    if (rawShape == LARGE_BLOCK) pairs.push_back({"_raw", Str(std::string(3000 + round, 'r'))});
    if (rawShape == POOL_EDGE) {
      pairs.push_back({"_raw", Str(std::string(65536 + (round / SHAPES) % 2, 'e'))});
    }
    if (rng() % 3 == 0) pairs.push_back({"_meta", metas[rng() % 4]});
    for (const char* k : onevals) {
      if (rng() % 3 == 0) pairs.push_back({k, rng() % 2 ? Str(k) : randomText(rng, 5)});
    }
    if (rng() % 2) pairs.push_back({"_time", times[rng() % 6]});
    if (rng() % 2) pairs.push_back({"_stmid", "AAAAAAAAAAB" + std::to_string(rng() % 5) + ".C"});
    const bool conf = rng() % 2;
    if (conf) pairs.push_back({"_conf", kConf});
    for (int n = 0; n < 4; n++) {
      const unsigned pick = rng() % 3;
      if (pick == 1) pairs.push_back({pieces[n], pieceValues[n]});
      if (pick == 2) pairs.push_back({pieces[n], "deviant" + std::to_string(n)});
    }
    const int fields = static_cast<int>(rng() % 8);
    for (int f = 0; f < fields; f++) {
      pairs.push_back({rng() % 2 ? Str("field" + std::to_string(f)) : Str("_path"),
                       randomText(rng, 20)});
    }
    CowPipelineData first;
    ASSERT_TRUE(readBack(handStream(pairs), &first));
    if (rawShape == OWNED) putKey(first.writable(), "_raw", randomText(rng, 100));
    if (rawShape == SUB_RANGE) first = CowPipelineData(first, 1, first->rawSize() - 2);
    if (rawShape == TWO_BLOCKS) {
      CowPipelineData tail;
      ASSERT_TRUE(readBack(handStream(pairs), &tail));
      first.appendAndReset(tail);
      ASSERT_EQ(first->rawStorageCount(), 2u);
    }
    const Str bytes = serialized(*first);
    CowPipelineData second;
    ASSERT_TRUE(readBack(bytes, &second));
    EXPECT_EQ(serialized(*second), bytes);
    const uint32_t whereRawLives = PDFLAG_HAS_MULTI_RAWSTOR | PDFLAG_IS_POINTING_AT_RAWSTOR;
    EXPECT_EQ(second->flags() & ~whereRawLives, first->flags() & ~whereRawLives);
    EXPECT_EQ(Str(second->raw()), Str(first->raw()));
    EXPECT_EQ(second->toString(), first->toString());
    EXPECT_EQ(second->channel().get(), first->channel().get());
    // Each value reads back the same wherever it lives.
    for (const auto& [k, v] : pairs) {
      Str s1, s2;
      const Str* a = first->internal_get(k.data(), k.size(), djb2_hash(k.data(), k.size()), &s1);
      const Str* b = second->internal_get(k.data(), k.size(), djb2_hash(k.data(), k.size()), &s2);
      ASSERT_EQ(a == nullptr, b == nullptr) << k;
      if (a != nullptr) {
        EXPECT_EQ(*a, *b) << k;
      }
    }
    // A copy made writable serialises the same.
    CowPipelineData copy(second);
    copy.make_writable();
    EXPECT_NE(copy.get(), second.get());
    EXPECT_EQ(serialized(*copy), bytes);
  }
}

TEST(PipelineData, SwappedByteOrderRoundTrips) {
  CowPipelineData pd = withChannel("swapped raw");
  pd.writable()->put(PipelineData::_indexKey, "main");
  SwappedByteOrderOutputStream out(64, 2);
  pd->serialize(out);
  SwappedByteOrderInputStream in(out.data(), out.size());
  CowPipelineData back;
  ASSERT_TRUE(back.writable()->ressurrect(in, false));
  EXPECT_EQ(serialized(*back), serialized(*pd));
}

// ---- damaged input ----

TEST(PipelineData, DamagedSerialFormsAreRefused) {
  CowPipelineData pd = withChannel("abc");
  pd.writable()->put(PipelineData::_pathKey, "/p");
  putKey(pd.writable(), "_time", "7");
  const Str bytes = serialized(*pd);
  for (size_t cut = 0; cut < bytes.size(); cut++) {
    CowPipelineData back;
    EXPECT_FALSE(readBack(bytes.substr(0, cut), &back)) << cut;
  }
  // A count larger than the pairs present.
  Str more = bytes;
  uint32_t count;
  std::memcpy(&count, more.data(), 4);
  count += 1;
  std::memcpy(more.data(), &count, 4);
  CowPipelineData a;
  EXPECT_FALSE(readBack(more, &a));
  // A huge count.
  Str huge = bytes;
  count = 0xFFFFFFFFu;
  std::memcpy(huge.data(), &count, 4);
  CowPipelineData b;
  EXPECT_FALSE(readBack(huge, &b));
  // A string length running past the end, and a zero length.
  for (uint32_t len : {0x7FFFFFFFu, static_cast<uint32_t>(bytes.size()), 0u}) {
    Str bad = bytes;
    std::memcpy(bad.data() + 4, &len, 4);
    CowPipelineData c;
    EXPECT_FALSE(readBack(bad, &c)) << len;
  }
  // A trailing count promising entries that are not there.
  Str trail = handStream({{Str("x"), Str("y")}});
  const size_t at = trail.size() - 4 - 9;  // before the closing "_raw"
  uint32_t three = 3;
  std::memcpy(trail.data() + at, &three, 4);
  CowPipelineData d;
  EXPECT_FALSE(readBack(trail, &d));
}

// ---- raw storage ----

TEST(PipelineData, RawReadBackUsesTheSmallestPoolThatHoldsIt) {
  struct Case {
    size_t size;
    PipelineDataRawStoragePool* pool;
  } cases[] = {{0, &ressurrectedPD_mempool_128},      {112, &ressurrectedPD_mempool_128},
               {113, &ressurrectedPD_mempool_256},    {2032, &ressurrectedPD_mempool_2K},
               {2033, &ressurrectedPD_mempool_8K},    {23170, &ressurrectedPD_mempool_23K},
               {23171, &ressurrectedPD_mempool_LWF},  {65536, &ressurrectedPD_mempool_LWF},
               {65537, &ressurrectedPD_mempool_oversize}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.size);
    PipelineDataRawStorageReference ref;
    ref.findPool(c.size);
    EXPECT_EQ(ref._poolp, c.pool);
  }
}

TEST(PipelineData, TheLargestPooledSizeIsKeptAndOversizeIsFreed) {
  const Str lwf(std::string(65536, 'a'));
  const Str over(std::string(65537, 'b'));
  uint32_t lwfInUse = 0;
  {
    CowPipelineData pd;
    ASSERT_TRUE(readBack(handStream({{"_raw", lwf}}), &pd));
    EXPECT_TRUE(pd->flags() & PDFLAG_IS_POINTING_AT_RAWSTOR);
    EXPECT_EQ(Str(pd->raw()), lwf);
    lwfInUse = ressurrectedPD_mempool_LWF._freeCount;
  }
  EXPECT_EQ(ressurrectedPD_mempool_LWF._freeCount, lwfInUse + 1);
  {
    CowPipelineData pd;
    ASSERT_TRUE(readBack(handStream({{"_raw", over}}), &pd));
    EXPECT_EQ(Str(pd->raw()), over);
  }
  EXPECT_EQ(ressurrectedPD_mempool_oversize._freeCount, 0u);
  EXPECT_EQ(ressurrectedPD_mempool_oversize._freeHead.load(), nullptr);
  // A pooled block is handed out again.
  PipelineDataRawStorage* kept = ressurrectedPD_mempool_LWF._freeHead.load();
  CowPipelineData again;
  ASSERT_TRUE(readBack(handStream({{"_raw", lwf}}), &again));
  EXPECT_TRUE(again->holdsRawStorage(kept));
}

class CountingObserver : public PipelineDataRawStorageObserver {
 public:
  explicit CountingObserver(int* destroyed) : _destroyed(destroyed) {}
  void setPD(CowPipelineData&) override {}
  void destroyed(PipelineDataRawStorage*) override { (*_destroyed)++; }

 private:
  int* _destroyed;
};

TEST(PipelineData, SubRangesShareTheBlockAndTheObserverHearsTheLastRelease) {
  int destroyed = 0;
  const Str text("first line\nsecond line\nthird");
  {
    CowPipelineData whole;
    PipelineDataRawStorageObserverRef obs(new CountingObserver(&destroyed));
    const Str stream = handStream({{"_raw", text}});
    NativeByteOrderInputStream in2(stream.data(), stream.size());
    ASSERT_TRUE(whole.writable()->ressurrect(in2, obs, false));
    EXPECT_EQ(obs.get(), nullptr);
    CowPipelineData a(whole, 0, 10);
    CowPipelineData b(whole, 11, 11);
    EXPECT_EQ(Str(a->raw()), "first line");
    EXPECT_EQ(Str(b->raw()), "second line");
    EXPECT_EQ(a->raw().data(), whole->raw().data());
    EXPECT_EQ(b->raw().data(), whole->raw().data() + 11);
    whole.clear();
    EXPECT_EQ(destroyed, 0);

    // Adjacent lines of one block merge by growing the segment alone.
    a.appendAndReset(b);
    EXPECT_TRUE(b.isUnset());
    EXPECT_TRUE(a->flags() & PDFLAG_IS_POINTING_AT_RAWSTOR);
    EXPECT_EQ(Str(a->raw()), "first line\nsecond line");
    EXPECT_EQ(a->rawStorageCount(), 1u);

    // Lines of two blocks end in the owned string, joined by one newline.
    CowPipelineData other;
    ASSERT_TRUE(readBack(handStream({{Str("_raw"), Str("elsewhere")}}), &other));
    a.appendAndReset(other);
    EXPECT_FALSE(a->flags() & PDFLAG_IS_POINTING_AT_RAWSTOR);
    EXPECT_EQ(Str(a->raw()), "first line\nsecond line\nelsewhere");
    EXPECT_EQ(a->rawStorageCount(), 2u);
    EXPECT_TRUE(a->flags() & PDFLAG_HAS_MULTI_RAWSTOR);
    EXPECT_EQ(destroyed, 0);
  }
  EXPECT_EQ(destroyed, 1);
}

TEST(PipelineData, AppendAndResetKeepsExistingValuesAndTakesMissingOnes) {
  CowPipelineData a, b;
  putKey(a.writable(), "_raw", "one");
  putKey(a.writable(), "k", "a-value");
  putKey(b.writable(), "_raw", "two");
  putKey(b.writable(), "k", "b-value");
  putKey(b.writable(), "only_b", "x");
  putKey(b.writable(), "_time", "42");
  a.appendAndReset(b);
  Str s;
  EXPECT_EQ(*a->internal_get("k", 1, djb2_hash("k"), &s), "a-value");
  EXPECT_EQ(*a->internal_get("only_b", 6, djb2_hash("only_b"), &s), "x");
  EXPECT_EQ(Str(a->raw()), "one\ntwo");
  Timeval tv;
  ASSERT_TRUE(a->getTimeKey(&tv));
  EXPECT_EQ(tv.tv_sec, 42);
}

// ---- the handle ----

TEST(CowPipelineData, UnsetHandlesShareTheEmptyRecord) {
  CowPipelineData pd;
  EXPECT_TRUE(pd.isUnset());
  pd.clear();
  EXPECT_TRUE(pd.isUnset());
  EXPECT_GE(CowPipelineData::_emptyPipelineData.refcnt(), 2u);
  PipelineData* w = pd.writable();
  EXPECT_NE(w, &CowPipelineData::_emptyPipelineData);
  EXPECT_EQ(w->refcnt(), 1u);
  EXPECT_GE(CowPipelineData::_emptyPipelineData.refcnt(), 2u);
  // The date tool reports on the channel of a record that no pipeline made.
  PipelineInputChannel* chan = pd.getInputChannel();
  ASSERT_NE(chan, nullptr);
  EXPECT_TRUE(pd->channel().hasConf());
  EXPECT_EQ(chan, pd.getInputChannel());
}

TEST(CowPipelineData, CreateFromReusesASoleOwnersRecord) {
  CowPipelineData model;
  putKey(model.writable(), "_raw", "model raw");
  putKey(model.writable(), "k", "v");
  CowPipelineData pd;
  putKey(pd.writable(), "stale", "x");
  const PipelineData* before = pd.get();
  pd.createFrom(model);
  EXPECT_EQ(pd.get(), before);
  EXPECT_EQ(serialized(*pd), serialized(*model));
  // Shared: a new record, the old one untouched.
  CowPipelineData share(pd);
  pd.createFrom(model, StrSegment("new raw"));
  EXPECT_NE(pd.get(), share.get());
  EXPECT_EQ(Str(pd->raw()), "new raw");
  EXPECT_EQ(Str(share->raw()), "model raw");
  // From an unset handle: cleared.
  pd.createFrom(CowPipelineData());
  EXPECT_TRUE(pd.isUnset());
}

// Writers copy and change while they and the others read the shared
// record: every private copy holds only its own thread's change, and the
// shared record reads the same throughout.
TEST(CowPipelineData, EightThreadsTakePrivateCopies) {
  CowPipelineData shared = withChannel("shared raw");
  putKey(shared.writable(), "base", "1");
  const Str original = serialized(*shared);
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; t++) {
    threads.emplace_back([&, t] {
      const Str own = std::to_string(t);
      for (int i = 0; i < 200; i++) {
        CowPipelineData mine(shared);
        PipelineData* w = mine.writable();
        putKey(w, "thread", own);
        w->appendToRaw("!", 1);
        Str scratch;
        const Str* v = mine->internal_get("thread", 6, djb2_hash("thread"), &scratch);
        if (mine.get() == shared.get() || Str(mine->raw()) != "shared raw!" || v == nullptr ||
            *v != own || serialized(*shared) != original) {
          wrong++;
        }
      }
    });
  }
  for (std::thread& th : threads) th.join();
  EXPECT_EQ(wrong.load(), 0);
  EXPECT_EQ(serialized(*shared), original);
  EXPECT_EQ(shared->refcnt(), 1u);
}

TEST(CowPipelineData, ContainerMovesKeepTheCountsAndTheOrder) {
  CowPipelineData a, b, c;
  putKey(a.writable(), "_raw", "a");
  putKey(b.writable(), "_raw", "b");
  putKey(c.writable(), "_raw", "c");
  const PipelineData* pa = a.get();
  PipelineDataDeque d;
  a.pushToBackAndClear(d);
  b.pushToBackAndClear(d);
  c.pushToFrontAndClear(d);
  EXPECT_TRUE(a.isUnset() && b.isUnset() && c.isUnset());
  EXPECT_EQ(pa->refcnt(), 1u);
  CowPipelineData h;
  ASSERT_TRUE(h.frontRef(d));
  EXPECT_EQ(Str(h->raw()), "c");
  EXPECT_EQ(h->refcnt(), 2u);
  ASSERT_TRUE(h.fetchFromBack(d));
  EXPECT_EQ(Str(h->raw()), "b");
  EXPECT_EQ(h->refcnt(), 1u);
  ASSERT_TRUE(h.fetchFromFront(d));
  EXPECT_EQ(Str(h->raw()), "c");
  EXPECT_EQ(h->refcnt(), 1u);  // the frontRef share went with the last fetch
  ASSERT_TRUE(h.fetchFromFront(d));
  EXPECT_EQ(h.get(), pa);
  EXPECT_FALSE(h.fetchFromFront(d));
  EXPECT_EQ(h.get(), pa);

  PipelineDataQueue q;
  h.pushToAndClear(q);
  ASSERT_TRUE(a.fetchFrom(q));
  EXPECT_EQ(a.get(), pa);
  EXPECT_FALSE(a.fetchFrom(q));

  // Changes made through the vector iterator land in the vector.
  PipelineDataVector v;
  CowPipelineData keep(a);
  a.pushToBackAndClear(v);
  b.writable();
  b.pushToBackAndClear(v);
  for (PipelineDataVectorIterator it(v); !it.atEnd(); ++it) putKey(it->writable(), "seen", "1");
  ASSERT_EQ(v.size(), 2u);
  Str s;
  for (PipelineData* pd : v) {
    EXPECT_NE(pd->internal_get("seen", 4, djb2_hash("seen"), &s), nullptr);
    EXPECT_EQ(pd->refcnt(), 1u);
  }
  EXPECT_NE(v[0], keep.get());  // shared, so copied on write
  EXPECT_EQ(keep->internal_get("seen", 4, djb2_hash("seen"), &s), nullptr);
  for (PipelineData* pd : v) CowPipelineData::drop_reference(pd);
}

TEST(PipelineData, DefaultConfJoinsThePiecesWhereverTheyLive) {
  CowPipelineData pd = withChannel("x");
  Str conf;
  pd->defaultConf(conf);
  EXPECT_EQ(conf, kConf);
  Str chan("moved");
  pd.writable()->setChannelDestructive(chan);
  EXPECT_EQ(chan, "");
  pd->defaultConf(conf);
  // Host and channel leave the fast places; source and sourcetype stay.
  EXPECT_EQ(conf, "source::/var/log/a||syslog|moved");
  EXPECT_EQ(pd->channel().get()->conf(), kConf);
}

TEST(PipelineData, AStreamIdThatDoesNotParseLeavesNone) {
  const struct {
    const char* text;
    bool kept;
  } kCases[] = {
      {"AAAAAAAAAAB.C", true},
      {"AAAAAAAAAAA", true},        // no ".": the third number is zero
      {"AAAAAAAAAA", false},        // ten digits
      {"AAAAAAAAAAB.", false},      // "." with nothing after it
      {"AAAAAAAAAA*.B", false},     // a byte outside the alphabet
      {"", false},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.text);
    // Over an earlier id: put replaces it, whatever the new text is.
    CowPipelineData pd;
    putKey(pd.writable(), "_stmid", "AAAAAAAAAAZ.Z");
    putKey(pd.writable(), "_stmid", c.text);
    EXPECT_EQ((pd->flags() & PDFLAG_HAS_STMID) != 0, c.kept);
    Str scratch;
    const Str* v = pd->internal_get("_stmid", 6, djb2_hash("_stmid"), &scratch);
    EXPECT_EQ(v != nullptr, c.kept);
    if (!c.kept) {
      EXPECT_EQ(pd->streamId(), PipelineDataStreamId());
    }
    // Read from a stream, the rest of the event stays.
    CowPipelineData back;
    ASSERT_TRUE(readBack(handStream({{"_raw", "r"}, {"_stmid", c.text}}), &back));
    EXPECT_EQ((back->flags() & PDFLAG_HAS_STMID) != 0, c.kept);
    EXPECT_EQ(Str(back->raw()), "r");
  }
}

TEST(PipelineData, BynameKeyOrdersByHashThenBytes) {
  // "aB" and "b!" share their djb2 hash: 97*33+66 == 98*33+33.
  ASSERT_EQ(djb2_hash("aB"), djb2_hash("b!"));
  const struct {
    const char* a;
    const char* b;
  } kPairs[] = {{"aB", "b!"}, {"b!", "aB"}, {"aB", "aB"}, {"host", "source"},
                {"source", "host"}, {"", "x"}, {"x", "x"}};
  HashedStrMap_KeyPool pool;
  for (const auto& p : kPairs) {
    SCOPED_TRACE(std::string(p.a) + " vs " + p.b);
    const HashedStrReference ha = pool.create(p.a), hb = pool.create(p.b);
    const PipelineData::byname_key a(ha), b(hb);
    // Oracle: the hash, then std::string's bytewise order.
    const bool less = ha.hash() != hb.hash() ? ha.hash() < hb.hash()
                                             : std::string(p.a) < std::string(p.b);
    const bool equal = std::string(p.a) == p.b;
    EXPECT_EQ(a < b, less);
    EXPECT_EQ(a <= b, less || equal);
    EXPECT_EQ(a.lessThan(hb, true), less || equal);
  }
}

TEST(PipelineData, RemovingASpecialKeyClearsItWhereverItLives) {
  const struct {
    const char* name;
    const char* value;
    const PipelineData::special_key* key;
  } kCases[] = {
      {"_done", "_done", &PipelineData::__inmap_done},    // a bit
      {"_done", "other", &PipelineData::__inmap_done},    // the map
      {"_time", "7", &PipelineData::__inmap_time},        // the fast field
      {"_time", "007", &PipelineData::__inmap_time},      // the map
      {"MetaData:Host", "host::h", &PipelineData::__inmap_host},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(std::string(c.name) + "=" + c.value);
    CowPipelineData pd;
    putKey(pd.writable(), c.name, c.value);
    ASSERT_TRUE(pd->contains(*c.key) || !pd->contentMap().empty());
    EXPECT_TRUE(pd.writable()->removeIfAvail(*c.key));
    EXPECT_EQ(pd->flags() & (c.key->normal_flag | c.key->inmap_flag), 0u);
    EXPECT_TRUE(pd->contentMap().empty());
    EXPECT_FALSE(pd.writable()->removeIfAvail(*c.key));
    Str scratch;
    EXPECT_EQ(pd->internal_get(c.name, std::strlen(c.name), djb2_hash(c.name), &scratch), nullptr);
  }
}

// A done or flush key of the next line merges into the first; the first
// line's own form wins, and no map entry is left beside a bit.
TEST(PipelineData, AppendAndResetMergesDoneAndFlush) {
  const struct {
    const char* key;
    const char* mine;  // null: absent
    const char* next;
    uint32_t flags;    // of the key's two flags, afterwards
    bool inMap;
  } kCases[] = {
      {"_done", nullptr, "_done", PDFLAG_HAS_DONE_NORMAL, false},
      {"_done", nullptr, "x", PDFLAG_HAS_DONE_IN_MAP, true},
      {"_done", "_done", "x", PDFLAG_HAS_DONE_NORMAL, false},
      {"_done", "y", "_done", PDFLAG_HAS_DONE_IN_MAP, true},
      {"_done", "y", "x", PDFLAG_HAS_DONE_IN_MAP, true},
      {"_flush", "_flush", "x", PDFLAG_HAS_FLUSH_NORMAL, false},
      {"_flush", nullptr, "x", PDFLAG_HAS_FLUSH_IN_MAP, true},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(std::string(c.key) + " " + (c.mine ? c.mine : "-") + " + " + c.next);
    CowPipelineData a, b;
    putKey(a.writable(), "_raw", "one");
    if (c.mine != nullptr) putKey(a.writable(), c.key, c.mine);
    putKey(b.writable(), "_raw", "two");
    putKey(b.writable(), c.key, c.next);
    a.appendAndReset(b);
    const uint32_t both = c.key[1] == 'd' ? PDFLAG_HAS_DONE_NORMAL | PDFLAG_HAS_DONE_IN_MAP
                                          : PDFLAG_HAS_FLUSH_NORMAL | PDFLAG_HAS_FLUSH_IN_MAP;
    EXPECT_EQ(a->flags() & both, c.flags);
    EXPECT_EQ(a->contentMap().size(), c.inMap ? 1u : 0u);
    // Written out and read back, the key appears once.
    CowPipelineData back;
    ASSERT_TRUE(readBack(serialized(*a), &back));
    EXPECT_EQ(back->flags() & both, c.flags);
  }
}

// The contract checks whose texts are fixed, each reached through the
// public interface by the misuse it guards against.
TEST(PipelineDataDeathTest, MisuseEndsTheProcessWithTheInvariantsText) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  CowPipelineData noRaw;
  noRaw.writable();
  CowPipelineData withRaw;
  putKey(withRaw.writable(), "_raw", "abc");
  const struct {
    const char* text;
    std::function<void()> misuse;
  } kCases[] = {
      {"_refcnt\\.refcntIsOne\\(\\)",
       [&] {
         CowPipelineData share(withRaw);
         const_cast<PipelineData*>(share.get())->put(PipelineData::_pathKey, "/x");
       }},
      {"hasRaw\\(\\)", [&] { const_cast<PipelineData*>(noRaw.get())->appendToRaw("x", 1); }},
      {"hasRaw\\(\\)",
       [&] {
         CowPipelineData other(withRaw, StrSegment("more"));
         noRaw.appendAndReset(other);
       }},
      {"it != end\\(\\)",
       [&] { const_cast<PipelineData*>(noRaw.get())->remove(PipelineData::_pathKey); }},
      {"this != &other", [&] { withRaw.appendAndReset(withRaw); }},
      {"startRawPos <= other\\.rawSize\\(\\)", [&] { CowPipelineData cut(withRaw, 4, 0); }},
      {"!observer \\|\\| claim_storage",
       [&] {
         PipelineDataRawStorageReference ref;
         ref.set(StrSegment("abc"));
         int destroyed = 0;
         CowPipelineData pd(withRaw, ref, 3, false, new CountingObserver(&destroyed));
       }},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.text);
    EXPECT_DEATH(c.misuse(), std::string("Assertion failed: ") + c.text);
  }
}

}  // namespace

// A record in a channel set of its own holds its channel open for the done
// key that ends the stream, unless it already is that key.
TEST(PipelineData, FinalizingAPrivateChannelSetAwaitsTheDoneKey) {
  for (const bool done : {false, true}) {
    SCOPED_TRACE(done);
    PipelineInputChannelSetHolder holder;
    CowPipelineData pd;
    PipelineData* w = pd.writable();
    w->attachChannelSet(holder);
    const Str source("source::/var/log/a"), host("host::web01"), type("sourcetype::syslog");
    w->set_channel(&source, &host, &type);
    if (done) {
      putKey(w, "_done", "yes");
      ASSERT_NE(0u, w->flags() & (PDFLAG_HAS_DONE_NORMAL | PDFLAG_HAS_DONE_IN_MAP));
    }
    const uint32_t before = w->channel()->refcnt();
    w->finalizeChannelSet();
    EXPECT_EQ(before + (done ? 0 : 1), w->channel()->refcnt());
  }
}
