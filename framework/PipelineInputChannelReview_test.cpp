#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "framework/PipelineDataMetaKey.h"
#include "framework/PipelineDataStreamId.h"
#include "framework/PipelineInputChannel.h"
#include "libbundle/PropertiesMap.h"
#include "util/testing/FixedClock.h"
#include "util/testing/LogCapture.h"

namespace {

class TuningFor {
 public:
  TuningFor(unsigned maxInactive, unsigned lowater, unsigned age) {
    PropertiesMap limits;
    limits.put("max_inactive", std::to_string(maxInactive));
    limits.put("lowater_inactive", std::to_string(lowater));
    limits.put("inactive_eligibility_age_seconds", std::to_string(age));
    PipelineInputChannel::tune(limits);
  }
  ~TuningFor() { PipelineInputChannel::tune(PropertiesMap()); }
};

std::vector<std::string> inactiveKeys(PipelineInputChannelSet& set) {
  std::vector<std::string> keys;
  for (const PipelineInputChannel* chan : set.inactiveList()) {
    keys.emplace_back(chan->conf().data(), chan->conf().length());
  }
  return keys;
}

std::unique_ptr<PipelineInputChannelReference> refTo(const std::string& key,
                                                     PipelineInputChannelSet* set) {
  return std::make_unique<PipelineInputChannelReference>(StrSegment(key), set, false);
}

TEST(PipelineInputChannelReview, ReturningStreamFindsItsChannelAgain) {
  ScopedFixedClock clock(Timeval(2000000, 0));
  PipelineInputChannelSet set(true);
  auto a = refTo("a|h|st|c", &set);
  const PipelineInputChannel* chan = a->get();
  const uint64_t id = chan->id();
  a->get()->utf8_state.payload.word = 77;
  a.reset();
  EXPECT_EQ(set.numInactive(), 1u);
  EXPECT_EQ(chan->onInactiveListSince(), 2000000);
  EXPECT_EQ(chan->refcnt(), 0u);
  clock.set(Timeval(2000100, 0));
  auto again = refTo("a|h|st|c", &set);
  EXPECT_EQ(again->get(), chan);
  EXPECT_EQ(again->get()->id(), id);
  EXPECT_EQ(again->get()->onInactiveListSince(), 0);
  EXPECT_EQ(again->get()->refcnt(), 1u);
  EXPECT_EQ(again->get()->utf8_state.payload.word, 77u);  // state survives the idle time
  EXPECT_EQ(set.numInactive(), 0u);
  EXPECT_EQ(set.numActive(), 1u);
}

TEST(PipelineInputChannelReview, InactiveListOrdersNewestFirstAndAbandonedLast) {
  ScopedFixedClock clock(Timeval(3000000, 0));
  auto* set = new PipelineInputChannelSet(false);
  std::vector<std::unique_ptr<PipelineInputChannelReference>> refs;
  for (const char* key : {"kept1", "gone", "kept2", "kept3"}) refs.push_back(refTo(key, set));
  // A stream that awaits its done key is no longer abandoned.
  for (int i : {0, 2, 3}) {
    refs[i]->setNeedsDoneKey(true);
    EXPECT_FALSE((*refs[i])->isAbandoned());
    EXPECT_TRUE((*refs[i])->needsDoneKey());
    EXPECT_EQ((*refs[i])->refcnt(), 2u);
    refs[i]->setNeedsDoneKey(false);
    EXPECT_EQ((*refs[i])->refcnt(), 1u);
  }
  EXPECT_TRUE((*refs[1])->isAbandoned());
  const PipelineInputChannel* gone = refs[1]->get();
  const struct {
    int index;
    std::vector<std::string> after;
  } kSteps[] = {
      {0, {"kept1"}},
      {1, {"kept1", "gone"}},
      {2, {"kept2", "kept1", "gone"}},
      {3, {"kept3", "kept2", "kept1", "gone"}},
  };
  int64_t now = 3000000;
  for (const auto& step : kSteps) {
    clock.set(Timeval(++now, 0));
    refs[step.index].reset();
    EXPECT_EQ(inactiveKeys(*set), step.after);
  }
  EXPECT_EQ(gone->onInactiveListSince(), 1);
  // The abandoned channel is taken first, though the list is short and young.
  auto fresh = refTo("fresh", set);
  EXPECT_EQ(fresh->get(), gone);
  EXPECT_EQ(inactiveKeys(*set), (std::vector<std::string>{"kept3", "kept2", "kept1"}));
  // Not abandoned and at or under the low-water mark: a new channel.
  auto other = refTo("other", set);
  EXPECT_NE(other->get(), gone);
  EXPECT_EQ(set->numInactive(), 3u);
  fresh.reset();
  other.reset();
  set->abandon();  // no active channel left: the set goes now (ASan watches)
}

TEST(PipelineInputChannelReview, LowWaterMarkHoldsEvenForRipeChannels) {
  ScopedFixedClock clock(Timeval(4000000, 0));
  const struct {
    int inactive;
    bool recycled;
  } kCases[] = {{1, false}, {32, false}, {33, true}};
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.inactive);
    clock.set(Timeval(4000000, 0));
    PipelineInputChannelSet set(true);
    for (int i = 0; i < c.inactive; i++) refTo(std::string("k") + std::to_string(i), &set);
    const PipelineInputChannel* oldest = set.inactiveList().back();
    clock.set(Timeval(4000000 + 100000, 0));
    auto fresh = refTo("fresh", &set);
    EXPECT_EQ(fresh->get() == oldest, c.recycled);
    EXPECT_EQ(set.size(), static_cast<size_t>(c.recycled ? c.inactive : c.inactive + 1));
  }
}

TEST(PipelineInputChannelReview, ListOverLoweredMaximumGivesUpItsOldestAtOnce) {
  ScopedFixedClock clock(Timeval(5000000, 0));
  PipelineInputChannelSet set(true);
  for (int i = 0; i < 6; i++) refTo(std::string("k") + std::to_string(i), &set);
  TuningFor tuning(4, 0, 100000);
  const PipelineInputChannel* oldest = set.inactiveList().back();
  auto fresh = refTo("fresh", &set);  // 6 inactive exceeds 4: young, still taken
  EXPECT_EQ(fresh->get(), oldest);
  EXPECT_EQ(set.numInactive(), 5u);
  fresh.reset();  // 6 again, over 4: the tail goes
  EXPECT_EQ(set.numInactive(), 5u);
  EXPECT_EQ(inactiveKeys(set).front(), "fresh");
  EXPECT_EQ(inactiveKeys(set).back(), "k2");
}

TEST(PipelineInputChannelReview, RecyclingResetsStreamState) {
  ScopedFixedClock clock(Timeval(6000000, 0));
  auto* set = new PipelineInputChannelSet(false);
  const PipelineInputChannel* first;
  uint64_t firstId;
  {
    PipelineInputChannelReference ref(StrSegment("src|host|st|chan"), set, true);
    first = ref.get();
    firstId = ref->id();
    ASSERT_NE(ref->properties(), nullptr);
    auto* utf8 = ref->utf8_state.findForOwner(&ref);
    utf8->payload.word = 5;
    utf8->payload.pending = "partial";
    auto* lb = ref->linebreaker_state.findForOwner(&ref);
    lb->payload.limit1 = 1;
    lb->payload.limit2 = 2;
    lb->payload.word = 3;
    auto* rx = ref->regexproc_state.findForOwner(&ref);
    rx->payload.word = 9;
    rx->payload.first.push_back("x");
    ref->setPreviewState(reinterpret_cast<PreviewState*>(0x1234));
  }
  PipelineInputChannelReference next(StrSegment("other|h2"), set, false);
  ASSERT_EQ(next.get(), first);
  EXPECT_NE(next->id(), firstId);
  EXPECT_EQ(next->properties(), nullptr);
  EXPECT_EQ(next->getPreviewState(), nullptr);
  EXPECT_EQ(next->utf8_state.owner(), nullptr);
  EXPECT_EQ(next->utf8_state.payload.word, 0u);
  EXPECT_TRUE(next->utf8_state.payload.pending.empty());
  EXPECT_EQ(next->linebreaker_state.payload.limit1, 10000u);
  EXPECT_EQ(next->linebreaker_state.payload.limit2, 100u);
  EXPECT_EQ(next->linebreaker_state.payload.word, 0u);
  EXPECT_EQ(next->regexproc_state.payload.word, 1u);
  EXPECT_TRUE(next->regexproc_state.payload.first.empty());
  EXPECT_EQ(std::string(next->conf().data(), next->conf().length()), "other|h2");
  EXPECT_EQ(Str(next->piece(0)), "other");
  EXPECT_EQ(Str(next->piece(1)), "h2");
  EXPECT_FALSE(next.hasSourceType());
  EXPECT_FALSE(next.hasPieceNumber(3));
  set->abandon();
}

TEST(PipelineInputChannelReview, AbandonedSetDeletesChannelsAsTheyGo) {
  ScopedLogCapture log("PipelineInputChannel");
  auto* set = new PipelineInputChannelSet(false);
  // Made before the idle ones go: an abandoned idle channel is recycled first.
  auto a = refTo("a", set);
  auto b = refTo("b", set);
  {
    auto idle1 = refTo("idle1", set);
    auto idle2 = refTo("idle2", set);
  }
  b->setNeedsDoneKey(true);
  EXPECT_EQ(set->numInactive(), 2u);
  set->abandon();
  EXPECT_EQ(set->numInactive(), 0u);
  EXPECT_EQ(set->size(), 2u);
  EXPECT_TRUE((*b)->isAbandoned());
  EXPECT_EQ((*b)->refcnt(), 1u);
  a.reset();  // deleted, not kept inactive
  EXPECT_EQ(set->numInactive(), 0u);
  EXPECT_EQ(set->size(), 1u);
  b.reset();  // the last one takes the set with it
  EXPECT_NE(log.text().find("channel \"b\" ended without a done-key"), std::string::npos)
      << log.text();
}

TEST(PipelineInputChannelReview, ReferencesCountCopiesAndAssignments) {
  PipelineInputChannelSet set(true);
  PipelineInputChannelReference none;
  EXPECT_FALSE(none.hasConf());
  PipelineInputChannelReference a(StrSegment("a"), &set, false);
  PipelineInputChannelReference b(StrSegment("b"), &set, false);
  EXPECT_TRUE(a.hasConf());
  {
    PipelineInputChannelReference copy(a);
    EXPECT_EQ(a->refcnt(), 2u);
    copy = b;
    EXPECT_EQ(a->refcnt(), 1u);
    EXPECT_EQ(b->refcnt(), 2u);
    copy = copy;
    EXPECT_EQ(b->refcnt(), 2u);
    copy = none;
    EXPECT_EQ(b->refcnt(), 1u);
    EXPECT_FALSE(copy.hasConf());
  }
  EXPECT_EQ(set.numInactive(), 0u);
  EXPECT_EQ(a->refcnt(), 1u);
}

TEST(PipelineInputChannelReview, NumbersFieldsInOrderWithTheirFlags) {
  PipelineInputChannelSet set(true);
  PipelineInputChannelReference ref(StrSegment("s|h|st|c"), &set, false);
  const struct {
    const char* name;
    uint32_t flags;
  } kFields[] = {{"plain", 0}, {"Cap", 0x40}, {"two words", 0x10}, {"A \"q\"", 0x50}};
  size_t expected = 0;
  for (const auto& f : kFields) {
    SCOPED_TRACE(f.name);
    EXPECT_EQ(ref->addNumberedField(StrSegment(f.name)), expected);
    EXPECT_EQ(ref->numberedFieldNames()[expected], f.name);
    EXPECT_EQ(ref->numberedFieldFlags()[expected], f.flags);
    ++expected;
  }
  // Numbered keys print by name, quoted when the name needs it.
  const std::string raw = "vv Ww";
  PipelineDataMetaKey meta;
  meta.appendRawOffsetLen(0, ref.get(), StrSegment(raw), 0, 2);
  meta.appendRawOffsetLen(2, ref.get(), StrSegment(raw), 3, 2);
  EXPECT_EQ(meta.vflags(), PipelineDataMetaKey::VFLAG_USES_KEYS_IN_CHANNEL |
                               PipelineDataMetaKey::VFLAG_HAS_RAW_REFERENCES);
  EXPECT_TRUE(meta.atoms()[0].keyIsNumber());
  Str out;
  meta.appendTo(&out, StrSegment(raw), ref.get());
  EXPECT_EQ(out, "plain::vv \"two words\"::Ww");
  meta._channelIsAboutToChange(ref.get());
  EXPECT_EQ(meta.vflags() & PipelineDataMetaKey::VFLAG_USES_KEYS_IN_CHANNEL, 0u);
  Str alone;
  meta.appendTo(&alone, StrSegment(raw), nullptr);
  EXPECT_EQ(alone, "plain::vv \"two words\"::Ww");
}

TEST(PipelineInputChannelReview, PiecesAndKeysFindTheSameChannel) {
  PipelineInputChannelSet set(true);
  const struct {
    const char* pieces[4];
    const char* key;
  } kCases[] = {
      {{"s", "h", "sourcetype::st", "c"}, "s|h|st|c"},
      {{"s", "h", "sourcetype::", "c"}, "s|h||c"},
      {{"s", "h", "sourcetype:", "c"}, "s|h||c"},
      {{"", "", "sourcetype::x", ""}, "||x|"},
      {{"s|t", "h", "sourcetype::st", "c|d"}, "s|t|h|st|c|d"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.key);
    Str p[4];
    const Str* pp[4];
    for (int i = 0; i < 4; i++) {
      p[i] = c.pieces[i];
      pp[i] = &p[i];
    }
    PipelineInputChannelReference byPieces(pp, &set, false);
    EXPECT_EQ(std::string(byPieces->conf().data(), byPieces->conf().length()), c.key);
    PipelineInputChannelReference byKey(StrSegment(c.key), &set, false);
    EXPECT_EQ(byPieces.get(), byKey.get());
    EXPECT_EQ(byKey->refcnt(), 2u);
  }
}

TEST(PipelineInputChannelReview, StreamIdTextTable) {
  const struct {
    PipelineDataStreamId id;
    const char* text;
  } kCases[] = {
      {{0, 1, 0}, "AAAAAAAAAAAB.A"},
      {{0, 0, 63}, "AAAAAAAAAAA./"},
      {{0, 0, 64}, "AAAAAAAAAAA.AB"},
      {{26, 0, 52}, "aAAAAAAAAAA.0"},
      {{62, 0, 0}, "+AAAAAAAAAA.A"},
      {{uint64_t(1) << 60, 0, 0}, "AAAAAAAAAAB.A"},
      {{0, uint64_t(1) << 63, 0}, "AAAAAAAAAAAAAAAAAAAAAI.A"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.text);
    Str out;
    c.id.serialize(&out);
    EXPECT_EQ(out, c.text);
    PipelineDataStreamId back;
    ASSERT_TRUE(back.parse(c.text, c.text + std::strlen(c.text)));
    EXPECT_EQ(back, c.id);
  }
  const struct {
    const char* text;
    bool ok;
    PipelineDataStreamId id;
  } kParse[] = {
      {"AAAAAAAAAAA", true, {0, 0, 0}},
      {"AAAAAAAAAAAA.A", true, {0, 0, 0}},
      {"AAAAAAAAAAA.AA", true, {0, 0, 0}},
      {"AAAAAAAAAAA//////////P", true, {0, UINT64_MAX, 0}},
      {"AAAAAAAAAAA//////////Q", false, {}},
      {"AAAAAAAAAAA//////////P/", false, {}},
      {"AAAAAAAAAAA.//////////Q", false, {}},
      {"AAAAAAAAAA-.A", false, {}},
      {"AAAAAAAAAAA=", false, {}},
      {"AAAAAAAAAAA.A ", false, {}},
      {"", false, {}},
      {".AAAAAAAAAAA", false, {}},
  };
  for (const auto& c : kParse) {
    SCOPED_TRACE(c.text);
    PipelineDataStreamId id;
    EXPECT_EQ(id.parse(c.text, c.text + std::strlen(c.text)), c.ok);
    if (c.ok) {
      EXPECT_EQ(id, c.id);
    }
  }
}


uint64_t metricValue(const PipelineInputChannelSetMetrics& m, const char* name) {
  for (const auto& [key, value] : m.values) {
    if (std::strcmp(key, name) == 0) return value;
  }
  ADD_FAILURE() << "no metric " << name;
  return 0;
}

TEST(PipelineInputChannelReview, LaterLookupFetchesSettingsOnceAndCountersReset) {
  PipelineInputChannelSet set(true);
  PipelineInputChannelReference a(StrSegment("src|h|st|c"), &set, false);
  EXPECT_EQ(a->properties(), nullptr);
  PipelineInputChannelReference b(StrSegment("src|h|st|c"), &set, true);
  ASSERT_EQ(a.get(), b.get());
  const PropertiesMap* fetched = b->properties();
  EXPECT_NE(fetched, nullptr);
  PipelineInputChannelReference c(StrSegment("src|h|st|c"), &set, true);
  EXPECT_EQ(c->properties(), fetched);
  { PipelineInputChannelReference other(StrSegment("other"), &set, false); }
  const struct {
    const char* name;
    uint64_t first, second;
  } kCounters[] = {{"current size", 2, 2}, {"new channels", 2, 0}, {"removed channels", 0, 0},
                   {"reclaimed channels", 0, 0}, {"abandoned channels", 0, 0}};
  PipelineInputChannelSetMetrics first, second;
  set.addMetrics(&first);
  set.addMetrics(&second);
  EXPECT_STREQ(first.group, "map:pipelineInputChannel");
  for (const auto& k : kCounters) {
    SCOPED_TRACE(k.name);
    EXPECT_EQ(metricValue(first, k.name), k.first);
    EXPECT_EQ(metricValue(second, k.name), k.second);
  }
}

TEST(PipelineInputChannelReview, UnreadableLimitsKeepTheDefaults) {
  {
    TuningFor tuning(7, 3, 11);
    EXPECT_EQ(PipelineInputChannel::tuning().max_inactive, 7u);
    EXPECT_EQ(PipelineInputChannel::tuning().lowater_inactive, 3u);
    EXPECT_EQ(PipelineInputChannel::tuning().inactive_eligibility_age_seconds, 11u);
  }
  PropertiesMap limits;
  limits.put("max_inactive", "abc");
  limits.put("lowater_inactive", "-5");
  limits.put("inactive_eligibility_age_seconds", "");
  PipelineInputChannel::tune(limits);
  EXPECT_EQ(PipelineInputChannel::tuning().max_inactive, 96u);
  EXPECT_EQ(PipelineInputChannel::tuning().lowater_inactive, 32u);
  EXPECT_EQ(PipelineInputChannel::tuning().inactive_eligibility_age_seconds, 330u);
  PipelineInputChannel::tune(PropertiesMap());
}


TEST(PipelineInputChannelReview, TimePositionsCountOnlyUnderPlainNumericKeys) {
  PipelineInputChannelSet set(true);
  PipelineInputChannelReference ref(StrSegment("s|h|st|c"), &set, false);
  ref->addNumberedField(StrSegment("timestartpos"));
  const std::string raw = "1 hello";
  const struct {
    const char* text;
    bool numberedStart;
    bool ok;
  } kCases[] = {
      {"timestartpos::1 timeendpos::3", false, true},
      {"timestartpos::x timeendpos::3", false, false},
      {"timestartpos::01 timeendpos::3", false, false},
      {"timestartpos timeendpos::3", false, false},
      {"timeendpos::3", true, false},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.text);
    PipelineDataMetaKey meta;
    meta.parse(c.text, c.text + std::strlen(c.text));
    if (c.numberedStart) meta.appendRawOffsetLen(0, ref.get(), StrSegment(raw), 0, 1);
    unsigned long start = 0, length = 0;
    EXPECT_EQ(meta.getTimeLocation(&start, &length, StrSegment(raw)), c.ok);
  }
}

// An abandoned channel joins at the tail, so pruning past the maximum takes it
// before older ordinary ones.
TEST(PipelineInputChannelReview, PruningTakesTheAbandonedTailFirst) {
  ScopedFixedClock clock(Timeval(7000000, 0));
  TuningFor tuning(2, 0, 330);
  auto* set = new PipelineInputChannelSet(false);
  auto a = refTo("a", set);
  auto b = refTo("b", set);
  auto c = refTo("c", set);
  for (auto* ref : {a.get(), b.get()}) {
    ref->setNeedsDoneKey(true);
    ref->setNeedsDoneKey(false);
  }
  a.reset();
  b.reset();
  c.reset();
  EXPECT_EQ(inactiveKeys(*set), (std::vector<std::string>{"b", "a"}));
  EXPECT_EQ(set->size(), 2u);
  PipelineInputChannelSetMetrics m;
  set->addMetrics(&m);
  EXPECT_EQ(metricValue(m, "removed channels"), 1u);
  EXPECT_EQ(metricValue(m, "new channels"), 3u);
  set->abandon();
}

}  // namespace
