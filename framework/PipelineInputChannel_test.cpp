#include "framework/PipelineInputChannel.h"

#include <atomic>
#include <deque>
#include <map>
#include <random>
#include <thread>

#include <gtest/gtest.h>

#include "framework/PipelineDataStreamId.h"
#include "libbundle/PropertiesMap.h"
#include "util/testing/FixedClock.h"
#include "util/testing/LogCapture.h"

namespace {

Str pieceText(const PipelineInputChannel* chan, int n) {
  return chan->hasPiece(n) ? Str(chan->piece(n)) : Str("<null>");
}

// Sets the tuning for one test and restores the defaults after it.
class ScopedTuning {
 public:
  ScopedTuning(unsigned maxInactive, unsigned lowater, unsigned age) {
    PropertiesMap limits;
    limits.put("max_inactive", std::to_string(maxInactive));
    limits.put("lowater_inactive", std::to_string(lowater));
    limits.put("inactive_eligibility_age_seconds", std::to_string(age));
    PipelineInputChannel::tune(limits);
  }
  ~ScopedTuning() { PipelineInputChannel::tune(PropertiesMap()); }
};

uint64_t metric(PipelineInputChannelSet& set, const char* name) {
  PipelineInputChannelSetMetrics m;
  set.addMetrics(&m);
  for (const auto& [key, value] : m.values) {
    if (std::strcmp(key, name) == 0) return value;
  }
  ADD_FAILURE() << "no metric " << name;
  return 0;
}

TEST(PipelineInputChannel, SplitsTheKeyIntoPieces) {
  const struct { const char* key; const char* pieces[4]; } kCases[] = {
      {"src|host|st|chan", {"src", "host", "sourcetype::st", "chan"}},
      {"src|host|st", {"src", "host", "sourcetype::st", "<null>"}},  // two "|"
      {"a|b|c|d|e", {"a", "b", "sourcetype::c", "d|e"}},          // the rest keeps its "|"
      {"src|host||chan", {"src", "host", "", "chan"}},             // empty sourcetype unprefixed
      {"solo", {"solo", "<null>", "<null>", "<null>"}},
      {"", {"", "<null>", "<null>", "<null>"}},
  };
  PipelineInputChannelSet set(true);
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.key);
    PipelineInputChannelReference ref(StrSegment(c.key), &set, false);
    EXPECT_EQ(ref->conf(), c.key);
    for (int n = 0; n < 4; n++) EXPECT_EQ(pieceText(ref.get(), n), c.pieces[n]) << n;
    EXPECT_EQ(ref.hasSourceType(), std::strcmp(c.pieces[2], "<null>") != 0);
  }
}

TEST(PipelineInputChannel, LooksUpByPiecesWithoutThePrefix) {
  PipelineInputChannelSet set(true);
  const Str source = "source::/var/log/x", host = "host::web01", st = "sourcetype::syslog";
  const Str chan = "c1", shortSt = "sourcetype::";
  const Str* full[4] = {&source, &host, &st, &chan};
  PipelineInputChannelReference byPieces(full, &set, false);
  PipelineInputChannelReference byKey(StrSegment("source::/var/log/x|host::web01|syslog|c1"),
                                      &set, false);
  EXPECT_EQ(byPieces.get(), byKey.get());
  EXPECT_EQ(byKey->refcnt(), 2u);
  EXPECT_EQ(pieceText(byPieces.get(), 2), "sourcetype::syslog");

  const Str* sparse[4] = {&source, nullptr, &shortSt, nullptr};
  PipelineInputChannelReference absent(sparse, &set, false);
  EXPECT_EQ(absent->conf(), "source::/var/log/x|||");
  EXPECT_FALSE(absent.hasPieceNumber(1));
  EXPECT_EQ(pieceText(absent.get(), 2), "");  // 12 characters or fewer: empty
  EXPECT_FALSE(absent.hasPieceNumber(3));

  const Str longSource(5000, 's');  // past the stack buffer
  const Str* big[4] = {&longSource, &host, &st, &chan};
  PipelineInputChannelReference large(big, &set, false);
  EXPECT_EQ(large->conf().size(), 5000u + 3 + 11 + 6 + 2);
  EXPECT_EQ(pieceText(large.get(), 0), longSource);
}

TEST(PipelineInputChannel, DroppingPastMaxInactiveDeletesTheOldest) {
  ScopedFixedClock clock(Timeval(1000000, 0));
  PipelineInputChannelSet set(true);
  std::vector<std::unique_ptr<PipelineInputChannelReference>> refs;
  for (int i = 0; i < 97; i++) {
    Str key;
    key.format("k%d", i);
    refs.push_back(std::make_unique<PipelineInputChannelReference>(StrSegment(key), &set, false));
  }
  for (int i = 0; i < 96; i++) {
    clock.set(Timeval(1000000 + i, 0));
    refs[i].reset();
  }
  EXPECT_EQ(set.numInactive(), 96u);
  EXPECT_EQ(set.size(), 97u);
  refs[96].reset();  // 97 would exceed max_inactive
  EXPECT_EQ(set.numInactive(), 96u);
  EXPECT_EQ(set.size(), 96u);
  EXPECT_EQ(set.inactiveList().back()->conf(), "k1");
  EXPECT_EQ(metric(set, "removed channels"), 1u);
}

TEST(PipelineInputChannel, RecyclesOnlyRipeOrAbandonedChannels) {
  ScopedFixedClock clock(Timeval(5000000, 0));
  {
    PipelineInputChannelSet set(true);
    for (int i = 0; i < 33; i++) {
      PipelineInputChannelReference ref(StrSegment(Str(std::string("k") + std::to_string(i))), &set, false);
    }
    const PipelineInputChannel* oldest = set.inactiveList().back();
    clock.set(Timeval(5000000 + 329, 0));
    { PipelineInputChannelReference fresh(StrSegment("young"), &set, false); }
    EXPECT_EQ(set.size(), 34u);  // nobody was ripe: a new channel
    EXPECT_EQ(metric(set, "new channels"), 34u);
    clock.set(Timeval(5000000 + 330, 0));
    PipelineInputChannelReference ripe(StrSegment("ripe"), &set, false);
    EXPECT_EQ(ripe.get(), oldest);
    EXPECT_EQ(metric(set, "reclaimed channels"), 1u);
    clock.set(Timeval(10, 0));  // the clock went back: every time is in the future
    PipelineInputChannelReference stale(StrSegment("stale"), &set, false);
    EXPECT_EQ(set.size(), 34u);
  }
  auto* set = new PipelineInputChannelSet(false);
  uint64_t firstId;
  const PipelineInputChannel* first;
  {
    PipelineInputChannelReference ref(StrSegment("gone"), set, false);
    EXPECT_TRUE(ref->isAbandoned());  // a queue reader's streams start abandoned
    first = ref.get();
    firstId = ref->id();
  }
  PipelineInputChannelReference next(StrSegment("next"), set, false);
  EXPECT_EQ(next.get(), first);  // below lowater, yet taken first
  EXPECT_NE(next->id(), firstId);
  EXPECT_FALSE(next->isAbandoned());
  EXPECT_EQ(next->refcnt(), 1u);
  EXPECT_EQ(metric(*set, "abandoned channels"), 1u);
  set->abandon();  // deleted with the last reference
}

// A plain model of one set: which keys exist, their references, and the
// inactive list from newest to oldest.
struct ChannelModel {
  struct Entry {
    int refs = 0;
    bool abandoned = true;
    int64_t since = 0;
    const PipelineInputChannel* chan = nullptr;
  };
  std::map<Str, Entry> entries;
  std::deque<Str> inactive;  // front newest
  PipelineInputChannelTuning tuning;

  void removeInactive(const Str& key) {
    inactive.erase(std::find(inactive.begin(), inactive.end(), key));
  }
  // The key whose channel a new key takes over, or "".
  Str victim(int64_t now) const {
    if (inactive.empty()) return "";
    const Entry& oldest = entries.at(inactive.back());
    if (oldest.abandoned) return inactive.back();
    if (inactive.size() <= tuning.lowater_inactive) return "";
    if (inactive.size() > tuning.max_inactive) return inactive.back();
    if (oldest.since > now || now - oldest.since >= tuning.inactive_eligibility_age_seconds) {
      return inactive.back();
    }
    return "";
  }
};

TEST(PipelineInputChannelSet, KeepsTheInactiveListInvariantsUnderChurn) {
  ScopedTuning tuning(24, 6, 50);
  ScopedFixedClock clock(Timeval(1000000, 0));
  int64_t now = 1000000;
  auto* set = new PipelineInputChannelSet(false);
  ChannelModel model;
  model.tuning = PipelineInputChannel::tuning();
  std::mt19937 rng(7);
  std::vector<std::pair<Str, std::unique_ptr<PipelineInputChannelReference>>> held;
  unsigned recycled = 0;
  for (int step = 0; step < 20000; step++) {
    if (rng() % 4 == 0) {
      now += rng() % 20;
      clock.set(Timeval(now, 0));
    }
    if (held.empty() || rng() % 2 == 0) {
      Str key = std::string("key") + std::to_string(rng() % 400);
      bool existed = model.entries.count(key) != 0;
      Str victim = existed ? Str() : model.victim(now);
      auto ref = std::make_unique<PipelineInputChannelReference>(StrSegment(key), set, false);
      if (existed) {
        ChannelModel::Entry& e = model.entries[key];
        if (e.refs == 0) model.removeInactive(key);
        e.refs++;
        ASSERT_EQ(ref->get(), e.chan) << key;
      } else {
        ChannelModel::Entry e;
        e.refs = 1;
        e.chan = ref->get();
        if (!victim.empty()) {
          ASSERT_EQ(e.chan, model.entries[victim].chan) << "recycled the wrong channel";
          e.abandoned = false;  // recycling clears it
          model.removeInactive(victim);
          model.entries.erase(victim);
          recycled++;
        }
        model.entries[key] = e;
      }
      // Some streams expect a done key, which makes them ordinary.
      if (rng() % 3 == 0) {
        ref->setNeedsDoneKey(true);
        ref->setNeedsDoneKey(false);
        model.entries[key].abandoned = false;
      }
      held.emplace_back(key, std::move(ref));
    } else {
      size_t i = rng() % held.size();
      Str key = held[i].first;
      held.erase(held.begin() + static_cast<ptrdiff_t>(i));
      ChannelModel::Entry& e = model.entries[key];
      if (--e.refs == 0) {
        if (e.abandoned) {
          e.since = 1;
          model.inactive.push_back(key);
        } else {
          e.since = now;
          model.inactive.push_front(key);
        }
        if (model.inactive.size() > model.tuning.max_inactive) {
          model.entries.erase(model.inactive.back());
          model.inactive.pop_back();
        }
      }
    }
    // The set against the model.
    ASSERT_EQ(set->size(), model.entries.size()) << step;
    std::vector<const PipelineInputChannel*> list = set->inactiveList();
    ASSERT_EQ(list.size(), model.inactive.size()) << step;
    ASSERT_LE(list.size(), model.tuning.max_inactive);
    ASSERT_EQ(set->numInactive(), list.size());
    int64_t previous = INT64_MAX;
    for (size_t i = 0; i < list.size(); i++) {
      ASSERT_EQ(Str(list[i]->conf()), model.inactive[i]) << step << " at " << i;
      ASSERT_EQ(list[i]->refcnt(), 0u);
      ASSERT_LE(list[i]->onInactiveListSince(), previous) << "age order broken at " << step;
      previous = list[i]->onInactiveListSince();
    }
  }
  EXPECT_GT(recycled, 1000u);
  held.clear();
  set->abandon();
}

TEST(PipelineInputChannelSet, CountsReferencesAcrossThreads) {
  auto* set = new PipelineInputChannelSet(false);
  std::atomic<int> mismatches{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; t++) {
    threads.emplace_back([set, t, &mismatches] {
      std::mt19937 rng(t);
      std::vector<PipelineInputChannelReference> held;
      for (int i = 0; i < 4000; i++) {
        Str key;
        key.format("k%u", static_cast<unsigned>(rng() % 150));
        PipelineInputChannelReference ref(StrSegment(key), set, false);
        if (!(ref->conf() == key.c_str())) mismatches++;
        if (held.size() < 6) {
          held.push_back(ref);  // a copy: one more reference
        } else {
          held[rng() % held.size()] = ref;
        }
        if (rng() % 5 == 0) held.clear();
      }
    });
  }
  for (std::thread& th : threads) th.join();
  EXPECT_EQ(mismatches.load(), 0);
  EXPECT_EQ(set->numActive(), 0u);
  EXPECT_EQ(set->numInactive(), set->size());
  for (const PipelineInputChannel* chan : set->inactiveList()) EXPECT_EQ(chan->refcnt(), 0u);
  set->abandon();
}

TEST(PipelineInputChannelSet, AbandonWarnsForStreamsWithoutDoneKey) {
  ScopedLogCapture log("PipelineInputChannel");
  auto* set = new PipelineInputChannelSet(false);
  { PipelineInputChannelReference idle(StrSegment("idle"), set, false); }
  auto waiting = std::make_unique<PipelineInputChannelReference>(StrSegment("waiting"), set, false);
  (*waiting).setNeedsDoneKey(true);
  EXPECT_EQ((*waiting)->refcnt(), 2u);
  set->abandon();
  EXPECT_EQ(set->numInactive(), 0u);  // idle one freed
  EXPECT_EQ((*waiting)->refcnt(), 1u);
  EXPECT_TRUE((*waiting)->isAbandoned());
  waiting.reset();  // the last reference deletes the set (ASan watches)
  EXPECT_NE(log.text().find("WARN channel \"waiting\" ended without a done-key"),
            std::string::npos)
      << log.text();
}

TEST(PipelineInputChannel, TuneReadsLimitsAndLogsThem) {
  ScopedLogCapture log("PipelineInputChannel");
  {
    ScopedTuning tuning(10, 3, 60);
    EXPECT_EQ(PipelineInputChannel::tuning().max_inactive, 10u);
    EXPECT_EQ(PipelineInputChannel::tuning().lowater_inactive, 3u);
    EXPECT_EQ(PipelineInputChannel::tuning().inactive_eligibility_age_seconds, 60u);
  }
  EXPECT_EQ(PipelineInputChannel::tuning().max_inactive, 96u);
  const std::string text = log.text();
  for (const char* line : {"INFO Tuning: keeping at most 10 inactive channels in memory",
                           "INFO Tuning: not pruning inactive list until it has at least 3 elements",
                           "INFO Tuning: considering inactive channels ripe for pruning after 60 seconds",
                           "INFO Tuning: keeping at most 96 inactive channels in memory"}) {
    EXPECT_NE(text.find(line), std::string::npos) << line;
  }
}

TEST(PipelineInputChannel, StateBlocksKeepOneBlockPerOwner) {
  PipelineInputChannelSet set(true);
  PipelineInputChannelReference ref(StrSegment("s|h|t|c"), &set, false);
  int a, b, c;
  auto& head = ref->regexproc_state;
  auto* forA = head.findForOwner(&a);
  EXPECT_EQ(forA, &head);
  auto* forB = head.findForOwner(&b);
  EXPECT_NE(forB, forA);
  EXPECT_EQ(head.findForOwner(&b), forB);  // found on the chain
  forB->payload.word = 9;
  forB->payload.first.push_back("x");
  static int cleaned = 0;
  forB->setCleanup([](PipelineInputChannelRegexPayload*) { cleaned++; });
  forB->cleanup();
  EXPECT_EQ(cleaned, 1);
  EXPECT_EQ(forB->payload.word, 1u);  // the reset value
  EXPECT_TRUE(forB->payload.first.empty());
  EXPECT_EQ(forB->owner(), nullptr);
  EXPECT_EQ(head.findForOwner(&c), forB);  // a freed block is reused
  head.cleanup();
  EXPECT_EQ(head.owner(), &a);  // others are chained: the owner stays
}

uint64_t valueOf(const PipelineInputChannelSetMetrics& m, const char* name) {
  for (const auto& [key, value] : m.values) {
    if (std::strcmp(key, name) == 0) return value;
  }
  ADD_FAILURE() << "no metric " << name;
  return 0;
}

TEST(PipelineInputChannelMetricsProvider, ReportsTheGlobalSetOnceRegistered) {
  PipelineInputChannelSetMetrics before;
  EXPECT_FALSE(PipelineInputChannelMetricsProvider::collect(&before));
  EXPECT_TRUE(before.values.empty());

  // Racing registrations: exactly one wins.
  std::atomic<int> winners{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; i++) {
    threads.emplace_back([&] {
      if (PipelineInputChannelMetricsProvider::registerMetricsCallback()) winners++;
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(winners.load(), 1);
  EXPECT_FALSE(PipelineInputChannelMetricsProvider::registerMetricsCallback());

  PipelineInputChannelSetMetrics baseline;  // reads and resets the counters
  ASSERT_TRUE(PipelineInputChannelMetricsProvider::collect(&baseline));
  {
    PipelineInputChannelReference a(StrSegment("metrics|a"), &global_channel_set, false);
    PipelineInputChannelReference b(StrSegment("metrics|b"), &global_channel_set, false);
    PipelineInputChannelReference c(StrSegment("metrics|c"), &global_channel_set, false);
    PipelineInputChannelReference again(StrSegment("metrics|a"), &global_channel_set, false);
  }
  PipelineInputChannelSetMetrics after;
  ASSERT_TRUE(PipelineInputChannelMetricsProvider::collect(&after));
  EXPECT_STREQ(after.group, "map:pipelineInputChannel");
  std::vector<std::string> names;
  for (const auto& entry : after.values) names.push_back(entry.first);
  EXPECT_EQ(names, (std::vector<std::string>{"current size", "new channels", "removed channels",
                                              "timedout channels", "reclaimed channels",
                                              "abandoned channels", "inactive channels"}));
  // Three keys, the fourth lookup found one of them.
  EXPECT_EQ(valueOf(after, "new channels") + valueOf(after, "reclaimed channels"), 3u);
  // All three went idle; any recycled one left the inactive list first.
  EXPECT_EQ(valueOf(after, "inactive channels") + valueOf(after, "reclaimed channels"),
            valueOf(baseline, "inactive channels") + 3);
  PipelineInputChannelSetMetrics reset;
  ASSERT_TRUE(PipelineInputChannelMetricsProvider::collect(&reset));
  EXPECT_EQ(valueOf(reset, "new channels"), 0u);
  EXPECT_EQ(valueOf(reset, "inactive channels"), valueOf(after, "inactive channels"));
}

TEST(PipelineInputChannelDeathTest, ContractsEndTheProcess) {
  PipelineInputChannelSet set(true);
  PipelineInputChannelReference ref(StrSegment("s|h|t|c"), &set, false);
  int owner;
  ref->utf8_state.findForOwner(&owner);
  EXPECT_DEATH(ref->utf8_state.findForOwner(&owner), "_owner != who");
  PipelineInputChannelReference second(ref);
  EXPECT_DEATH(ref->addNumberedField("f"), "_refcnt == 1");
  EXPECT_DEATH(ref.setNeedsDoneKey(true), "_isGlobal");
}

TEST(PipelineDataStreamId, PrintsAndParsesTheTextForm) {
  const struct { PipelineDataStreamId id; const char* text; } kCases[] = {
      {{0, 0, 0}, "AAAAAAAAAAA.A"},
      {{1, 0, 1}, "BAAAAAAAAAA.B"},
      {{63, 64, 65}, "/AAAAAAAAAAAB.BB"},  // lowest digit first
      {{UINT64_MAX, UINT64_MAX, UINT64_MAX}, "//////////P//////////P.//////////P"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.text);
    Str out;
    c.id.serialize(&out);
    EXPECT_EQ(out, c.text);
    PipelineDataStreamId back;
    ASSERT_TRUE(back.parse(out.data(), out.data() + out.size()));
    EXPECT_EQ(back, c.id);
  }
  PipelineDataStreamId noDot;
  const char* text = "BAAAAAAAAAAC";
  ASSERT_TRUE(noDot.parse(text, text + 12));
  EXPECT_EQ(noDot, (PipelineDataStreamId{1, 2, 0}));
  for (const char* bad : {"AAAAAAAAAA", "AAAAAAAAAAA.", "AAAAAAAAAA*A.A", "AAAAAAAAA.A.A",
                          "AAAAAAAAAAA.A.A", "AAAAAAAAAAAAAAAAAAAAAAAA.A",
                          "AAAAAAAAAA/.A" /* the 11th digit past 64 bits */}) {
    SCOPED_TRACE(bad);
    PipelineDataStreamId id;
    EXPECT_FALSE(id.parse(bad, bad + std::strlen(bad)));
  }
}

}  // namespace
