// One event on its way through the pipeline, and CowPipelineData, the
// one-pointer copy-on-write handle through which all code holds an event.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <queue>
#include <vector>
#include <set>
#include <stdexcept>

#include "framework/PipelineDataMetaKey.h"
#include "framework/PipelineDataRawStorage.h"
#include "framework/PipelineDataStreamId.h"
#include "framework/PipelineInputChannel.h"
#include "util/Assert.h"
#include "util/HashedStr.h"
#include "util/HashedStrMap.h"
#include "util/Str.h"
#include "util/StrSegment.h"

class InputStream;
class OutputStream;
class PropertiesMap;
class Timeval;

static const uint32_t PDFLAG_HAS_DONE_NORMAL = 0x2;
static const uint32_t PDFLAG_HAS_DONE_IN_MAP = 0x4;
static const uint32_t PDFLAG_HAS_HOST_IN_CHAN = 0x800;
static const uint32_t PDFLAG_HAS_SOURCETYPE_IN_MAP = 0x4000;
static const uint32_t PDFLAG_HAS_META = 0x80000;
static const uint32_t PDFLAG_HAS_STMID = 0x400000;
static const uint32_t PDFLAG_HAS_FLUSH_NORMAL = 0x2000000;
static const uint32_t PDFLAG_HAS_FLUSH_IN_MAP = 0x4000000;
static const uint32_t PDFLAG_IS_POINTING_AT_RAWSTOR = 0x8000000;
static const uint32_t PDFLAG_HAS_MULTI_RAWSTOR = 0x10000000;
static const uint32_t PDFLAG_ANY_CHANPIECE_IN_MAP = 0x15400;

// A reference count whose sole-owner test reads as the invariant it checks.
struct PipelineDataRefCount : std::atomic<uint32_t> {
  using std::atomic<uint32_t>::atomic;
  // A count of 1 needs no atomic read: only the sole owner can change it.
  bool refcntIsOne() const { return load(std::memory_order_relaxed) == 1; }
};

class KeyNotFoundException : public std::runtime_error {
 public:
  explicit KeyNotFoundException(const Str& what) : std::runtime_error(what) {}
};

// Receives each name and value of an event, for the text forms.
class PipelineDataKeyValueAcceptor {
 public:
  virtual ~PipelineDataKeyValueAcceptor();
  virtual void each(const char* key, const char* value, size_t length) = 0;
};

// Thread story: mutated only while `_refcnt` is exactly 1; records shared
// by more handles are read-only and may be read from several threads.
class PipelineData {
 public:
  // A name registered in the process-wide table, so that map entries under
  // it share its text.
  class predefined_key : public HashedStr {
   public:
    explicit predefined_key(const char* name);
  };
  class special_key : public predefined_key {
   public:
    special_key(const char* name, uint32_t normal, uint32_t inmap)
        : predefined_key(name), normal_flag(normal), inmap_flag(inmap) {}
    uint32_t normal_flag;
    uint32_t inmap_flag;
  };
  // Its fast place holds one value, the key's own name; storing it sets a bit.
  class special_key_oneval : public special_key {
   public:
    special_key_oneval(const char* name, uint32_t normal, uint32_t inmap)
        : special_key(name, normal, inmap), value(name) {}
    Str value;
  };
  // A key ordered by its name: by hash first, then bytewise (as unsigned
  // bytes) with `<` or, when `orEqual`, with `<=`; of two texts that agree
  // over the shorter one's length, the shorter sorts first ("ab" before
  // "abc"). Equal texts: lessThan(x, false) is false, lessThan(x, true)
  // true. Borrows the key's block like any HashedStrReference.
  class byname_key : public HashedStrReference {
   public:
    explicit byname_key(const HashedStrReference& key) : HashedStrReference(key) {}
    bool lessThan(const HashedStrReference& other, bool orEqual) const;
    bool operator<(const byname_key& other) const { return lessThan(other, false); }
    bool operator<=(const byname_key& other) const { return lessThan(other, true); }
  };
  // Its fast place is piece `piece_num` of the input channel.
  class special_key_chanpiece : public special_key {
   public:
    special_key_chanpiece(const char* name, uint32_t normal, uint32_t inmap, int piece)
        : special_key(name, normal, inmap), piece_num(piece) {}
    int piece_num;
  };

  static const special_key_oneval __inmap_done, __inmap_utf8, __inmap_linebreaker,
      __inmap_recover_event, __inmap_headerproc_off_by_default, __inmap_dstrx, __inmap_flush;
  static const special_key __inmap_time;
  static const special_key_chanpiece __inmap_source, __inmap_host, __inmap_sourcetype,
      __inmap_channel;
  static const predefined_key _pathKey, _origPathKey, _charSetKey, _indexKey, _queueKey,
      _reportingHostKey, _hostRegexKey, _hostSegmentKey, _followTailKey, _signatureKey,
      _seekAddrKey, _rawSizeKey, _useHostKey, _controlKey, _linecountKey, _blocksigningKey,
      _loggingKey, _previewCompleteKey, _startOffsetKey, _fishKey, _seekCrcKey, _fnameCrcKey,
      _modTimeKey, _tzHintKey, _deleteOnEOFKey, _rawKey, _confKey, _metaKey_name, _stmidKey;
  static const char* const _deleteValue;
  static const char* const _shutdownValue;
  static const char* const _sourcePrefix;
  static const char* const _sourceTypePrefix;
  static const char* const _hostPrefix;
  static const unsigned MAX_REGISTERED_KEYS = 74;
  static unsigned num_registered_keys_minus1;

  PipelineData();
  ~PipelineData();
  PipelineData(const PipelineData&) = delete;
  PipelineData& operator=(const PipelineData&) = delete;

  // Reading.
  const Str& get(const predefined_key& key) const;
  const Str* getIfAvail(const predefined_key& key) const;
  bool contains(const HashedStrReference& key) const;
  // The value of any name; special parts are printed into *scratch.
  // Returns null when absent.
  const Str* internal_get(const char* name, size_t length, uint64_t hash, Str* scratch) const;
  const Str* getSourceTypeIfAvail(Str* scratch) const;
  bool getTimeKey(Timeval* out) const;
  bool get_chan_piece(const special_key_chanpiece& key, StrSegment* out) const;
  bool get_chan_piece_asstr(const special_key_chanpiece& key, Str* out) const;
  bool hasRaw() const { return _rawSeg.data() != nullptr; }
  StrSegment raw() const { return hasRaw() ? _rawSeg : StrSegment(); }
  size_t rawSize() const { return _rawSeg.size(); }
  uint32_t flags() const { return _flags; }
  uint32_t refcnt() const { return _refcnt.load(std::memory_order_relaxed); }
  const HashedStrMap<Str>& contentMap() const { return _contentMap; }
  const PipelineInputChannelReference& channel() const { return _chan; }
  PipelineInputChannelSet* chanset() const { return _chanset != nullptr ? _chanset : &global_channel_set; }
  const PipelineDataMetaKey& metaKey() const { return _metaKey; }
  const PipelineDataStreamId& streamId() const { return _streamId; }
  // The raw storages this record holds a reference on.
  size_t rawStorageCount() const;
  bool holdsRawStorage(const PipelineDataRawStorage* s) const;

  // Writing; all REQUIRE an unshared record.
  void put(const predefined_key& key, const Str& value);
  // Stores any name: special names land in their fast places or flags.
  // "_stmid" takes the text form of PipelineDataStreamId; a text that does
  // not parse leaves the record with no stream id at all (flag clear,
  // fields zero), replacing any it had, since the flag promises an id that
  // means something and a half-parsed one would be written back as a
  // different position. ressurrect reads "_stmid" the same way and keeps
  // the rest of the event.
  void internal_put(const char* name, size_t length, uint64_t hash, const Str& value);
  // Removes a map entry. REQUIRES: present ("it != end()").
  void remove(const predefined_key& key);
  bool removeIfAvail(const predefined_key& key);
  // A special key wherever it lives, fast place or map; the forms above
  // for a special key come here. remove REQUIRES that it be present.
  void remove(const special_key& key);
  bool removeIfAvail(const special_key& key);
  void appendToRaw(const char* bytes, size_t length);
  void appendLog(const Str& text);
  void set_channel(const Str* source, const Str* host, const Str* sourcetype);
  void setChannelDestructive(Str& channel);
  void recomputeConfKey(bool create);
  // Fills the record from an input's settings. Each setting with a
  // non-empty value, its name taken without regard to ASCII case: "_raw"
  // is skipped; "source", "sourcetype" and "host" become the channel's
  // pieces with their prefixes ("source::", "sourcetype::", "host::");
  // "reportinghost" goes under _reportingHostKey as "reportinghost::"
  // plus the value; "index" under _indexKey; any other name through
  // internal_put, verbatim. Without a host, the host is "host::" plus
  // ServerConfig::getServerName(). Then set_channel with the pieces given.
  // A null `props` counts as no settings.
  void load(const PropertiesMap* props);
  // For an input named by `path`: nothing when `props` is disabled or the
  // path holds no ":". Otherwise the part after the first run of ":" and
  // the run of "/" after it, trailing "/" stripped, is stored under
  // _pathKey behind one "/", then load(props):
  //   "monitor:///var/log/" -> "/var/log"     "tcp://9997" -> "/9997"
  //   "monitor://x" -> "/" (a one-character remainder is dropped)
  //   "monitor://" -> "/"                    "/var/log" -> nothing at all
  void load(const PropertiesMap* props, const Str& path);
  // Replaces the channel set; REQUIRES: still the global set.
  void attachChannelSet(PipelineInputChannelSetHolder& holder);
  // For a record in a channel set of its own: unless the record carries
  // "_done" or "_flush" (as a bit or in the map), its channel keeps a
  // reference until a done key comes; then the channel's settings are
  // fetched. REQUIRES: a channel.
  void finalizeChannelSet();
  // The channel, attaching the default one first when there is none.
  PipelineInputChannel* getInputChannel();
  // The channel's text key from the pieces wherever they live.
  void defaultConf(Str& out) const;

  // Traversal.
  void iterate(PipelineDataKeyValueAcceptor* acceptor) const;
  void serialize(OutputStream& out) const;
  bool ressurrect(InputStream& in, PipelineDataRawStorageObserverRef& observerRef, bool create);
  bool ressurrect(InputStream& in, bool create);
  Str toString() const;
  void fwrite(FILE* f) const;

  void assertIsUnshared() const;

 private:
  void assert_has_raw() const { kassert(hasRaw()); }
  void remove_special_key(const special_key& key);
  // Merges one special key's place after appendAndReset copied the other
  // record's missing map entries: this record's value wins.
  void postmerge_fixup(const special_key& key, uint32_t otherFlags);
  friend class CowPipelineData;

  explicit PipelineData(uint32_t initialRefs);

  void add_reference() { _refcnt.fetch_add(1, std::memory_order_relaxed); }
  // True when this was the last reference.
  bool drop_ref() { return _refcnt.fetch_sub(1, std::memory_order_acq_rel) == 1; }
  // Back to the state of a new record, keeping `_refcnt`.
  void reset();

  void put_special_oneval(const special_key_oneval& key, StrSegment value);
  void set_time_key(StrSegment value);
  Str& key_index(const char* name, size_t length, uint64_t hash);
  void erase_key(const HashedStrReference& key);
  const Str* find_value(const HashedStrReference& key) const;
  void put_chanpiece_optional(const special_key_chanpiece& key, const Str* value);
  void consolidate_item_in_chan(const special_key_chanpiece& key);
  void migrate_item_out_of_chan(const special_key_chanpiece& key);
  void consolidate_all_in_chan();
  void migrate_all_out_of_chan();
  void set_conf(StrSegment value);
  void set_raw(StrSegment value);
  void set_meta(StrSegment value);
  void set_stmid(StrSegment value);
  void notify_raw_change();
  void notify_channel_change(const PipelineInputChannel* chan);
  // A piece the record had in its map before reading: a value from the
  // stream wins, else the old one is taken up; the entry goes either way.
  void pull_old_inmap_after_resurrect(const special_key_chanpiece& key, StrSegment* value,
                                      bool* have, Str* owned);
  void post_resurrect_chanpiece_merge(const special_key_chanpiece& key, const StrSegment* value,
                                      bool have, const PipelineInputChannel* oldChan,
                                      const PipelineInputChannel* newChan);

  void add_to_rawstor(PipelineDataRawStorage* s);
  void steal_rawstors_from(PipelineData& other);
  void copy_rawstors_from(const PipelineData& other);
  // Exchanges the storage pointers and the multi flag with `other`.
  void swap_rawstors_with(PipelineData& other);
  void reset_rawstor();
  void copy_rawdata_and_flags_from(const PipelineData& other);
  void aim_at_rawAsStr() { _rawSeg = StrSegment(_rawAsStr.data(), _rawAsStr.size()); }

  PipelineDataRefCount _refcnt{1};
  StrSegment _rawSeg{nullptr, 0};
  uint32_t _flags = 0;
  PipelineDataMetaKey _metaKey;
  PipelineInputChannelReference _chan;
  int64_t _timeKey = 0;
  PipelineDataStreamId _streamId;
  HashedStrMap<Str> _contentMap;
  union {
    PipelineDataRawStorage* single;
    std::set<PipelineDataRawStorage*>* multi;
  } _rawStor{nullptr};
  Str _rawAsStr;
  PipelineInputChannelSet* _chanset = nullptr;  // null: global_channel_set, which may not exist yet
};

// Plain sequences of records; each element owns one reference, which the
// handle's push and fetch operations move in and out.
typedef std::vector<PipelineData*> PipelineDataVector;
typedef std::deque<PipelineData*> PipelineDataDeque;
typedef std::queue<PipelineData*> PipelineDataQueue;

class CowPipelineData {
 public:
  CowPipelineData() : _pd(&_emptyPipelineData) { _pd->add_reference(); }
  CowPipelineData(const CowPipelineData& other) : _pd(other._pd) { _pd->add_reference(); }
  CowPipelineData& operator=(const CowPipelineData& other);
  ~CowPipelineData() { drop_reference(_pd); }
  // A copy of `model`'s event narrowed to raw [startRawPos, +newRawLen).
  CowPipelineData(const CowPipelineData& model, size_t startRawPos, size_t newRawLen);
  // A copy of `model`'s event with new raw text.
  CowPipelineData(const CowPipelineData& model, StrSegment newRaw);
  // A copy of `model`'s event whose raw is the first `length` bytes of a
  // storage block; with `claim_storage` the caller's reference is taken over.
  CowPipelineData(const CowPipelineData& model, PipelineDataRawStorageReference& storage,
                  size_t length, bool claim_storage,
                  PipelineDataRawStorageObserver* observer = nullptr);

  const PipelineData* operator->() const { return _pd; }
  const PipelineData& operator*() const { return *_pd; }
  const PipelineData* get() const { return _pd; }
  // The record for writing, copied first when shared or unset.
  PipelineData* writable() {
    if (_pd == &_emptyPipelineData || _pd->refcnt() != 1) make_writable();
    return _pd;
  }
  // Always installs a new copy.
  void make_writable();
  bool isUnset() const { return _pd == &_emptyPipelineData; }
  void clear();
  void set(CowPipelineData& other) { *this = other; }
  void createFrom(const CowPipelineData& other);
  void createFrom(const CowPipelineData& other, StrSegment raw);
  void appendAndReset(CowPipelineData& other);
  PipelineInputChannel* getInputChannel();
  bool isLogging() const { return _pd->contains(PipelineData::_loggingKey); }

  // Moves the record into the container and leaves this handle unset.
  void pushToBackAndClear(PipelineDataVector& v);
  void pushToBackAndClear(PipelineDataDeque& d);
  void pushToFrontAndClear(PipelineDataDeque& d);
  void pushToAndClear(PipelineDataQueue& q);
  // Takes an element out in place of this handle's record; false when the
  // container is empty.
  bool fetchFromFront(PipelineDataDeque& d);
  bool fetchFromBack(PipelineDataDeque& d);
  bool fetchFrom(PipelineDataQueue& q);
  // Shares the front element, leaving it in place.
  bool frontRef(const PipelineDataDeque& d);

  static void drop_reference(PipelineData* pd);
  static PipelineData _emptyPipelineData;

 private:
  // A record for createFrom: this one reset when it is sole owner.
  void reuse_or_new();
  // Gives up the record without dropping its reference.
  PipelineData* release();
  void adopt(PipelineData* pd) {
    drop_reference(_pd);
    _pd = pd;
  }
  friend class PipelineDataVectorIterator;
  PipelineData* _pd;
};

// Walks a vector holding the current element in its own handle, so that
// the element can be changed (copied on write) through it; moving on, and
// the end of the walk, put it back.
class PipelineDataVectorIterator {
 public:
  explicit PipelineDataVectorIterator(PipelineDataVector& v);
  ~PipelineDataVectorIterator() { put_back(); }
  PipelineDataVectorIterator(const PipelineDataVectorIterator&) = delete;
  PipelineDataVectorIterator& operator=(const PipelineDataVectorIterator&) = delete;
  bool atEnd() const { return _pos >= _v.size(); }
  CowPipelineData& operator*() { return _cur; }
  CowPipelineData* operator->() { return &_cur; }
  PipelineDataVectorIterator& operator++();

 private:
  void take();
  void put_back();
  PipelineDataVector& _v;
  size_t _pos = 0;
  bool _holding = false;
  CowPipelineData _cur;
};
