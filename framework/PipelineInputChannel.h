// Input channels: the shared, reference-counted identity of one stream of
// events (source, host, sourcetype, channel name), with the stream's settings
// and the state its processors keep between events, held in a set that
// keeps idle channels for a while and recycles them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "util/HashedStr.h"
#include "util/HashedStrMap.h"
#include "util/Mutex.h"
#include "util/Str.h"
#include "util/StrSegment.h"

class PipelineInputChannel;
class PipelineInputChannelSet;
class PreviewState;
class PropertiesMap;

// Links of the circular active and inactive lists. A set's list heads are
// bare links; every other link is a channel.
struct PipelineInputChannelLinks {
  PipelineInputChannelLinks* _next = this;
  PipelineInputChannelLinks* _prev = this;

  bool isLinked() const { return _next != this; }
  void unlink();
  // Puts this link just after `where` (at the head when `where` is a list
  // head) or just before it (at the tail).
  void insertAfter(PipelineInputChannelLinks* where);
  void insertBefore(PipelineInputChannelLinks* where);
};

// One processor's state on one channel, and the chain of blocks of further
// owners of the same processor class. The owner only identifies; it is never
// called through. Thread story: the payload belongs to the owner's thread;
// claiming and releasing `_owner` and the chain take the process-wide state
// mutex (after the set's mutex when both are held).
template <class Payload>
class PipelineInputChannelStateBlock {
 public:
  typedef void (*cleanup_fn)(Payload* payload);

  PipelineInputChannelStateBlock() = default;
  ~PipelineInputChannelStateBlock() { Locked_cleanup(); }
  PipelineInputChannelStateBlock(const PipelineInputChannelStateBlock&) = delete;
  PipelineInputChannelStateBlock& operator=(const PipelineInputChannelStateBlock&) = delete;

  // The block that `who` uses: this block when it has no owner (claimed for
  // `who`), else a block of the chain that `who` owns or that is free, else
  // a new block linked at the end. Asking again for this block's own owner
  // is a programming error ("_owner != who").
  PipelineInputChannelStateBlock* findForOwner(const void* who);
  // Runs the cleanup function, resets the payload, installs the no-op
  // cleanup, and gives up the owner unless other owners are chained here.
  void cleanup();
  // The same for this block and its whole chain, deleting the chained
  // blocks. REQUIRES: the state mutex is held, or the channel is private to
  // the caller (recycling, destruction).
  void Locked_cleanup();
  // Installs the function that cleanup() runs on the payload.
  void setCleanup(cleanup_fn fn) { _cleanup = fn; }

  static void _null_cleanup_fn(Payload*) {}

  Payload payload;
  const void* owner() const { return _owner; }
  const PipelineInputChannelStateBlock* next() const { return _next.get(); }

 private:
  cleanup_fn _cleanup = &_null_cleanup_fn;
  const void* _owner = nullptr;
  std::unique_ptr<PipelineInputChannelStateBlock> _next;
};

// The payloads, each with the values a fresh or cleaned-up block holds.
struct PipelineInputChannelUtf8Payload {
  uint32_t word = 0;
  Str pending;
  void reset() { *this = PipelineInputChannelUtf8Payload(); }
};
struct PipelineInputChannelLinebreakerPayload {
  uint64_t limit1 = 10000;
  uint64_t limit2 = 100;
  uint32_t word = 0;
  uintptr_t pointerWord = 0;
  void reset() { *this = PipelineInputChannelLinebreakerPayload(); }
};
struct PipelineInputChannelHeaderPayload {
  void* pattern = nullptr;  // must be null once the cleanup function ran
  uint32_t word = 0;
  void reset();
};
struct PipelineInputChannelRegexPayload {
  uint32_t word = 1;
  std::vector<Str> first;
  std::vector<Str> second;
  void reset() { *this = PipelineInputChannelRegexPayload(); }
};
struct PipelineInputChannelAggregatorPayload {
  void* aggregator = nullptr;  // must be null once the cleanup function ran
  void reset();
};

// The tuning of every set, from limits stanza "input_channels".
struct PipelineInputChannelTuning {
  unsigned max_inactive = 96;
  unsigned lowater_inactive = 32;
  unsigned inactive_eligibility_age_seconds = 330;
};

// One stream's identity, settings and processor state. Thread story: every
// list, map and reference count change happens under the owning set's mutex;
// the pieces and `_conf` are immutable while the channel is referenced.
class PipelineInputChannel : public PipelineInputChannelLinks {
 public:
  typedef PipelineInputChannelStateBlock<PipelineInputChannelUtf8Payload> utf8_state_t;
  typedef PipelineInputChannelStateBlock<PipelineInputChannelLinebreakerPayload> linebreaker_state_t;
  typedef PipelineInputChannelStateBlock<PipelineInputChannelHeaderPayload> headerproc_state_t;
  typedef PipelineInputChannelStateBlock<PipelineInputChannelRegexPayload> regexproc_state_t;
  typedef PipelineInputChannelStateBlock<PipelineInputChannelAggregatorPayload> aggregatorproc_state_t;

  enum piece_num { PIECE_SOURCE = 0, PIECE_HOST = 1, PIECE_SOURCETYPE = 2, PIECE_CHANNEL = 3 };
  // What an unset piece points at: a use before set_pieces_from_conf fails
  // noisily.
  static const char* const UNSET_PIECE;

  explicit PipelineInputChannel(PipelineInputChannelSet* chanset);
  ~PipelineInputChannel();
  PipelineInputChannel(const PipelineInputChannel&) = delete;
  PipelineInputChannel& operator=(const PipelineInputChannel&) = delete;

  // Reads "max_inactive", "lowater_inactive" and
  // "inactive_eligibility_age_seconds" from `limits` (an absent or unreadable
  // value keeps the default) and logs each at info level. The no-argument
  // form reads stanza "input_channels" of the "limits" page.
  static void tune(const PropertiesMap& limits);
  static void tune();
  static const PipelineInputChannelTuning& tuning();

  // Gives up one reference; see PipelineInputChannelSet for what happens at
  // zero. The channel may be gone when this returns.
  void drop_reference();
  // Splits `_conf` at the first three "|": source, host, sourcetype, and the
  // rest (further "|" included) as the channel; missing parts are null
  // pieces. A non-empty sourcetype reads with its "sourcetype::" prefix.
  void set_pieces_from_conf();
  // Fills `_pmap` from the props page's layers for `_conf`, once.
  void fetch_properties();
  // The same; REQUIRES: the set's mutex is held and "_pmap == __null".
  void Locked_fetch_properties();
  // Overrides or inserts each setting of `map` into `_pmap`.
  // REQUIRES: `_pmap` is fetched and the caller holds the only reference.
  void addProperties(const PropertiesMap& map);
  // Appends a field name and returns its key number for meta atoms.
  // REQUIRES: "_refcnt == 1".
  size_t addNumberedField(StrSegment name);

  void setPreviewState(PreviewState* state) { _previewState = state; }
  PreviewState* getPreviewState() const { return _previewState; }

  // The piece, or a null-data segment when absent.
  const StrSegment& piece(int n) const { return _pieces[n]; }
  bool hasPiece(int n) const { return _pieces[n].data() != nullptr; }
  const HashedStrReference& conf() const { return _conf; }
  const PropertiesMap* properties() const { return _pmap.get(); }
  PipelineInputChannelSet* chanset() const { return _chanset; }
  uint64_t id() const { return _id; }
  uint32_t refcnt() const { return _refcnt; }
  int64_t onInactiveListSince() const { return _onInactiveListSince; }
  bool isAbandoned() const { return _abandoned != 0; }
  bool needsDoneKey() const { return _needsDoneKey != 0; }
  const std::vector<Str>& numberedFieldNames() const { return _numberedFieldNames; }
  const std::vector<uint32_t>& numberedFieldFlags() const { return _numberedFieldFlags; }

  utf8_state_t utf8_state;
  linebreaker_state_t linebreaker_state;
  headerproc_state_t headerproc_state;
  regexproc_state_t regexproc_state;
  aggregatorproc_state_t aggregatorproc_state;

 private:
  friend class PipelineInputChannelSet;
  friend class PipelineInputChannelReference;

  // Sets the pieces from known offsets into `_conf`; -1 lengths are absent.
  void _setPieces(const size_t offsets[4], const ptrdiff_t lengths[4]);
  // The recycling reset: new id, state blocks cleaned, settings dropped.
  void _resetForReuse();
  static uint64_t _nextId();

  HashedStrReference _conf = HashedStr::EMPTY_STR;
  PipelineInputChannelSet* _chanset;
  StrSegment _pieces[4];
  Str _sourcetypeWithPrefix;
  std::unique_ptr<PropertiesMap> _pmap;
  uint32_t _refcnt = 1;  // guarded by _chanset->_mutex
  uint64_t _id;
  int64_t _onInactiveListSince = 0;  // 0 active, 1 reclaim first
  uint8_t _abandoned;
  uint8_t _needsDoneKey = 0;
  uint32_t _zero = 0;
  PreviewState* _previewState = nullptr;
  std::vector<Str> _numberedFieldNames;
  std::vector<uint32_t> _numberedFieldFlags;
};

// Per-set counters, each reset as addMetrics reads it.
struct PipelineInputChannelSetMetrics {
  const char* group = "map:pipelineInputChannel";
  std::vector<std::pair<const char*, uint64_t>> values;  // "current size" first
};

// The channels of one process (global_channel_set) or of one reader of a
// persistent queue. Active channels are on a circular list; inactive ones on
// another, newest at the head, oldest at the tail.
// Thread story: safe from any thread; every list, map and count change takes
// `_mutex`.
class PipelineInputChannelSet {
 public:
  // `isGlobal` gives a set that behaves as global_channel_set: channels
  // start out not abandoned, and abandon() is refused.
  explicit PipelineInputChannelSet(bool isGlobal = false);
  // Deletes the inactive channels, then REQUIRES: "_active_channels.empty()", "_inactive_channels.empty()",
  // "_channel_by_name.empty()", "_num_inactive_channels == 0".
  ~PipelineInputChannelSet();
  PipelineInputChannelSet(const PipelineInputChannelSet&) = delete;
  PipelineInputChannelSet& operator=(const PipelineInputChannelSet&) = delete;

  // A channel for the key, recycled from the inactive list when
  // get_potential_victim offers one, else new; entered in the map under the
  // key with one reference, at the front of the active list, pieces unset.
  // REQUIRES: `_mutex` is held and the key is not in the map.
  PipelineInputChannel* alloc_new(const char* name, size_t length, uint64_t hash);
  // The oldest inactive channel if it may be recycled now, else null.
  // REQUIRES: `_mutex` is held.
  PipelineInputChannel* get_potential_victim();
  // Ends a queue reader's set: frees inactive channels, marks the active
  // ones abandoned (releasing done-key references, with a warning), and
  // lets the last drop_reference delete the set. REQUIRES: not the global
  // set, and not already abandoned.
  void abandon();
  // Appends the size and the counters, resetting the counters.
  void addMetrics(PipelineInputChannelSetMetrics* out);

  bool isGlobal() const { return _isGlobal; }
  // Snapshots under the mutex, for checks: sizes, and the inactive list
  // from head (newest) to tail (oldest).
  size_t size();
  unsigned numInactive();
  size_t numActive();
  std::vector<const PipelineInputChannel*> inactiveList();

 private:
  friend class PipelineInputChannel;
  friend class PipelineInputChannelReference;

  // Finds or makes the channel for the key, with one more reference.
  // `pieces` (offsets and lengths into the key) are used for a new channel
  // when given; otherwise the key is split.
  PipelineInputChannel* _lookup(const char* key, size_t length, bool fetchProperties,
                                const size_t* offsets, const ptrdiff_t* lengths);
  void _attach_existing(PipelineInputChannel* chan);
  void _eraseFromMap(PipelineInputChannel* chan);
  void _releaseDoneKey(PipelineInputChannel* chan);
  static void _setNeedsDoneKey(PipelineInputChannel* chan, bool on);

  PipelineInputChannelLinks _active_channels;
  PipelineInputChannelLinks _inactive_channels;  // head newest, tail oldest
  uint32_t _num_inactive_channels = 0;
  uint8_t _wantToDelete = 0;
  bool _isGlobal;
  Mutex _mutex;
  HashedStrMap<PipelineInputChannel*> _channel_by_name;  // guarded by _mutex
  uint64_t _newChannels = 0, _removedChannels = 0, _timedoutChannels = 0;
  uint64_t _reclaimedChannels = 0, _abandonedChannels = 0;
};

// The process-wide set; never destroyed.
extern PipelineInputChannelSet& global_channel_set;

// The process's report of global_channel_set under "map:pipelineInputChannel".
// Nothing is reported until registerMetricsCallback() has run, so that a
// tool that never serves metrics never pays for the counters' reads.
// Thread story: safe from any thread.
class PipelineInputChannelMetricsProvider {
 public:
  // Registers the report once; true only for the call that did.
  static bool registerMetricsCallback();
  static bool isRegistered();
  // Appends the report of global_channel_set (resetting its counters) to
  // *out; false, leaving *out as it was, before registration.
  static bool collect(PipelineInputChannelSetMetrics* out);
};

// Owns one set made for a reader of a persistent queue, so that restored
// streams do not mix with live ones. Its end abandons the set.
class PipelineInputChannelSetHolder {
 public:
  PipelineInputChannelSetHolder() : _set(new PipelineInputChannelSet(false)) {}
  ~PipelineInputChannelSetHolder() { _set->abandon(); }
  PipelineInputChannelSetHolder(const PipelineInputChannelSetHolder&) = delete;
  PipelineInputChannelSetHolder& operator=(const PipelineInputChannelSetHolder&) = delete;
  PipelineInputChannelSet* get() const { return _set; }

 private:
  PipelineInputChannelSet* _set;  // deleted by its last channel, or by abandon
};

// One counted pointer to a channel; copies add references. The default is
// __null_channel, which stands for no channel and is never counted.
// Thread story: one owner per reference object; any number of references to
// one channel may be used from different threads.
class PipelineInputChannelReference {
 public:
  PipelineInputChannelReference() = default;
  // The channel for a key such as "source::a|host::b|st|chan".
  PipelineInputChannelReference(StrSegment key, PipelineInputChannelSet* set,
                                bool fetchProperties);
  // The channel for pieces (source, host, sourcetype with its
  // "sourcetype::" prefix, channel); a null entry is an absent piece. The
  // key is built on the stack below 1500 bytes.
  PipelineInputChannelReference(const Str* const pieces[4], PipelineInputChannelSet* set,
                                bool fetchProperties);
  PipelineInputChannelReference(const PipelineInputChannelReference& other);
  PipelineInputChannelReference& operator=(const PipelineInputChannelReference& other) {
    do_assign(other);
    return *this;
  }
  ~PipelineInputChannelReference();

  void do_assign(const PipelineInputChannelReference& other);
  // Keeps one extra reference while a done key is awaited. Only for
  // channels outside global_channel_set; turning it off must leave a
  // reference ("_chan->_refcnt > 1").
  void setNeedsDoneKey(bool on);
  bool hasPieceNumber(int n) const { return _chan->hasPiece(n); }
  bool hasSourceType() const { return hasPieceNumber(PipelineInputChannel::PIECE_SOURCETYPE); }
  bool hasConf() const { return _chan != &__null_channel; }
  PipelineInputChannel* get() const { return _chan; }
  PipelineInputChannel* operator->() const { return _chan; }

  static PipelineInputChannel __null_channel;

 private:
  PipelineInputChannel* _chan = &__null_channel;
};
