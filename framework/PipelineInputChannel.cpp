#include "framework/PipelineInputChannel.h"

#include <cstring>

#include "framework/PipelineDataMetaKey.h"
#include "libbundle/PropertiesMap.h"
#include "libbundle/PropertyPages.h"
#include "util/Assert.h"
#include "util/Logger.h"
#include "util/StrMem.h"
#include "util/Timeval.h"

namespace {

Logger gLogger("PipelineInputChannel");

const size_t SOURCETYPE_PREFIX_LEN = 12;  // "sourcetype::"
// Keys below this are built on the stack.
const size_t STACK_KEY_BYTES = 1500;

PipelineInputChannelTuning gTuning;

// Guards `_owner` and the chains of every state block.
Mutex& stateMutex() {
  static Mutex* m = new Mutex;
  return *m;
}

Mutex& idMutex() {
  static Mutex* m = new Mutex;
  return *m;
}

unsigned readLimit(const PropertiesMap& limits, const char* key, unsigned dflt) {
  return limits.toUnsigned(Str(key), dflt);
}

}  // namespace

// ---- Lists ----

void PipelineInputChannelLinks::unlink() {
  _prev->_next = _next;
  _next->_prev = _prev;
  _next = _prev = this;
}

void PipelineInputChannelLinks::insertAfter(PipelineInputChannelLinks* where) {
  _prev = where;
  _next = where->_next;
  where->_next->_prev = this;
  where->_next = this;
}

void PipelineInputChannelLinks::insertBefore(PipelineInputChannelLinks* where) {
  insertAfter(where->_prev);
}

// ---- State blocks ----

template <class Payload>
PipelineInputChannelStateBlock<Payload>* PipelineInputChannelStateBlock<Payload>::findForOwner(
    const void* who) {
  if (_owner == nullptr) {
    ScopedLock lock(stateMutex());
    if (_owner == nullptr) {
      _owner = who;
      return this;
    }
  }
  kassert(_owner != who);
  ScopedLock lock(stateMutex());
  PipelineInputChannelStateBlock* block = this;
  while (block->_next != nullptr) {
    block = block->_next.get();
    if (block->_owner == who) return block;
    if (block->_owner == nullptr) {
      block->_owner = who;
      return block;
    }
  }
  block->_next.reset(new PipelineInputChannelStateBlock);
  block->_next->_owner = who;
  return block->_next.get();
}

template <class Payload>
void PipelineInputChannelStateBlock<Payload>::cleanup() {
  _cleanup(&payload);
  payload.reset();
  _cleanup = &_null_cleanup_fn;
  ScopedLock lock(stateMutex());
  if (_next == nullptr) _owner = nullptr;
}

template <class Payload>
void PipelineInputChannelStateBlock<Payload>::Locked_cleanup() {
  _cleanup(&payload);
  payload.reset();
  _cleanup = &_null_cleanup_fn;
  _owner = nullptr;
  // Iterative, so a long chain cannot exhaust the stack.
  std::unique_ptr<PipelineInputChannelStateBlock> chain = std::move(_next);
  while (chain != nullptr) {
    chain->_cleanup(&chain->payload);
    chain->_cleanup = &_null_cleanup_fn;
    std::unique_ptr<PipelineInputChannelStateBlock> rest = std::move(chain->_next);
    chain = std::move(rest);
  }
}

template class PipelineInputChannelStateBlock<PipelineInputChannelUtf8Payload>;
template class PipelineInputChannelStateBlock<PipelineInputChannelLinebreakerPayload>;
template class PipelineInputChannelStateBlock<PipelineInputChannelHeaderPayload>;
template class PipelineInputChannelStateBlock<PipelineInputChannelRegexPayload>;
template class PipelineInputChannelStateBlock<PipelineInputChannelAggregatorPayload>;

void PipelineInputChannelHeaderPayload::reset() {
  kassert(pattern == nullptr);
  word = 0;
}

void PipelineInputChannelAggregatorPayload::reset() { kassert(aggregator == nullptr); }

// ---- Channel ----

const char* const PipelineInputChannel::UNSET_PIECE = reinterpret_cast<const char*>(0xBAD);

PipelineInputChannel PipelineInputChannelReference::__null_channel(nullptr);
PipelineInputChannelSet& global_channel_set = *new PipelineInputChannelSet(true);

PipelineInputChannel::PipelineInputChannel(PipelineInputChannelSet* chanset)
    : _chanset(chanset),
      _id(_nextId()),
      _abandoned(chanset != nullptr && !chanset->isGlobal()) {
  for (StrSegment& p : _pieces) p.assign(UNSET_PIECE, 0);
}

PipelineInputChannel::~PipelineInputChannel() = default;

uint64_t PipelineInputChannel::_nextId() {
  static uint64_t next = 0;
  ScopedLock lock(idMutex());
  return ++next;
}

const PipelineInputChannelTuning& PipelineInputChannel::tuning() { return gTuning; }

void PipelineInputChannel::tune(const PropertiesMap& limits) {
  gTuning.max_inactive = readLimit(limits, "max_inactive", 96);
  gTuning.lowater_inactive = readLimit(limits, "lowater_inactive", 32);
  gTuning.inactive_eligibility_age_seconds =
      readLimit(limits, "inactive_eligibility_age_seconds", 330);
  gLogger.info("Tuning: keeping at most %u inactive channels in memory", gTuning.max_inactive);
  gLogger.info("Tuning: not pruning inactive list until it has at least %u elements",
               gTuning.lowater_inactive);
  gLogger.info("Tuning: considering inactive channels ripe for pruning after %u seconds",
               gTuning.inactive_eligibility_age_seconds);
}

void PipelineInputChannel::tune() {
  PropertiesMap limits;
  PropertyPages::instance(Str("limits"))->getStanza(Str("input_channels"), limits);
  tune(limits);
}

void PipelineInputChannel::drop_reference() {
  PipelineInputChannelSet* set = _chanset;
  bool deleteSet = false;
  {
    ScopedLock lock(set->_mutex);
    kassert(_refcnt > 0);
    if (--_refcnt != 0) return;
    unlink();
    if (set->_wantToDelete) {
      set->_eraseFromMap(this);
      delete this;
      deleteSet = set->_channel_by_name.empty();
    } else {
      if (_abandoned) {
        _onInactiveListSince = 1;
        insertBefore(&set->_inactive_channels);
      } else {
        // A clock at or before the epoch still marks the channel inactive.
        int64_t now = Timeval::now().tv_sec;
        _onInactiveListSince = now > 1 ? now : 2;
        insertAfter(&set->_inactive_channels);
      }
      if (++set->_num_inactive_channels > gTuning.max_inactive) {
        PipelineInputChannel* oldest =
            static_cast<PipelineInputChannel*>(set->_inactive_channels._prev);
        oldest->unlink();
        set->_num_inactive_channels--;
        set->_eraseFromMap(oldest);
        delete oldest;
        set->_removedChannels++;
      }
    }
  }
  if (deleteSet) delete set;
}

void PipelineInputChannel::set_pieces_from_conf() {
  size_t offsets[4] = {0, 0, 0, 0};
  ptrdiff_t lengths[4] = {-1, -1, -1, -1};
  StrSegment conf(_conf.data(), _conf.length());
  size_t start = 0;
  for (int n = 0; n < 4; n++) {
    size_t bar = n < 3 ? conf.find('|', start) : StrSegment::npos;
    offsets[n] = start;
    if (bar == StrSegment::npos) {
      lengths[n] = static_cast<ptrdiff_t>(conf.size() - start);
      break;
    }
    lengths[n] = static_cast<ptrdiff_t>(bar - start);
    start = bar + 1;
  }
  _setPieces(offsets, lengths);
}

void PipelineInputChannel::_setPieces(const size_t offsets[4], const ptrdiff_t lengths[4]) {
  for (int n = 0; n < 4; n++) {
    if (lengths[n] < 0) {
      _pieces[n].assign(nullptr, 0);
    } else {
      _pieces[n].assign(_conf.data() + offsets[n], static_cast<size_t>(lengths[n]));
    }
  }
  _sourcetypeWithPrefix.clear();
  StrSegment& st = _pieces[PIECE_SOURCETYPE];
  if (st.data() != nullptr && !st.empty()) {
    _sourcetypeWithPrefix.append("sourcetype::");
    _sourcetypeWithPrefix.append(st.data(), st.size());
    st.assign(_sourcetypeWithPrefix.data(), _sourcetypeWithPrefix.size());
  }
}

void PipelineInputChannel::fetch_properties() {
  ScopedLock lock(_chanset->_mutex);
  if (_pmap == nullptr) Locked_fetch_properties();
}

void PipelineInputChannel::Locked_fetch_properties() {
  kassert(_pmap == __null);
  auto map = std::make_unique<PropertiesMap>();
  PropertyPages::propsInstance()->fillLayers(map.get(), StrSegment(_conf.data(), _conf.length()),
                                             true);
  _pmap = std::move(map);
}

void PipelineInputChannel::addProperties(const PropertiesMap& map) {
  kassert(_pmap != nullptr);
  kassert(_refcnt == 1);
  for (const auto& entry : map) _pmap->put(entry.first, entry.second.value());
}

size_t PipelineInputChannel::addNumberedField(StrSegment name) {
  kassert(_refcnt == 1);
  _numberedFieldNames.emplace_back(name);
  _numberedFieldFlags.push_back(
      PipelineDataMetaKey::extra_flags_for_key_name(name.data(), name.size()));
  return _numberedFieldNames.size() - 1;
}

void PipelineInputChannel::_resetForReuse() {
  _id = _nextId();
  _abandoned = 0;
  _needsDoneKey = 0;
  _pmap.reset();
  {
    ScopedLock lock(stateMutex());
    utf8_state.Locked_cleanup();
    linebreaker_state.Locked_cleanup();
    headerproc_state.Locked_cleanup();
    regexproc_state.Locked_cleanup();
    aggregatorproc_state.Locked_cleanup();
  }
  _zero = 0;
  _previewState = nullptr;
  _numberedFieldNames.clear();
  _numberedFieldFlags.clear();
  for (StrSegment& p : _pieces) p.assign(UNSET_PIECE, 0);
  _sourcetypeWithPrefix.clear();
}

// ---- Set ----

PipelineInputChannelSet::PipelineInputChannelSet(bool isGlobal) : _isGlobal(isGlobal) {}

PipelineInputChannelSet::~PipelineInputChannelSet() {
  // Idle channels die with their set; referenced ones may not outlive it.
  while (_inactive_channels.isLinked()) {
    PipelineInputChannel* chan = static_cast<PipelineInputChannel*>(_inactive_channels._next);
    kassert(chan->_refcnt == 0);
    chan->unlink();
    _num_inactive_channels--;
    _eraseFromMap(chan);
    delete chan;
  }
  kassert(!_active_channels.isLinked());
  kassert(!_inactive_channels.isLinked());
  kassert(_channel_by_name.empty());
  kassert(_num_inactive_channels == 0);
}

PipelineInputChannel* PipelineInputChannelSet::get_potential_victim() {
  if (_num_inactive_channels == 0) return nullptr;
  PipelineInputChannel* oldest = static_cast<PipelineInputChannel*>(_inactive_channels._prev);
  if (oldest->_abandoned) return oldest;
  if (_num_inactive_channels <= gTuning.lowater_inactive) return nullptr;
  if (_num_inactive_channels > gTuning.max_inactive) return oldest;
  int64_t now = Timeval::now().tv_sec;
  int64_t since = oldest->_onInactiveListSince;
  // A time in the future means the clock went back: treat it as stale.
  if (since > now || now - since >= static_cast<int64_t>(gTuning.inactive_eligibility_age_seconds)) {
    return oldest;
  }
  return nullptr;
}

PipelineInputChannel* PipelineInputChannelSet::alloc_new(const char* name, size_t length,
                                                         uint64_t hash) {
  PipelineInputChannel* chan = get_potential_victim();
  if (chan == nullptr) {
    chan = new PipelineInputChannel(this);
    _newChannels++;
  } else {
    kassert(chan->_onInactiveListSince != 0 && chan->_refcnt == 0);
    chan->unlink();
    _num_inactive_channels--;
    _eraseFromMap(chan);
    chan->_refcnt = 1;
    chan->_onInactiveListSince = 0;
    if (chan->_abandoned) {
      _abandonedChannels++;
    } else {
      _reclaimedChannels++;
    }
    chan->_resetForReuse();
  }
  _channel_by_name.index(name, length, hash) = chan;
  chan->_conf = _channel_by_name._internal_find(name, length, hash)->second.first;
  chan->insertAfter(&_active_channels);
  return chan;
}

void PipelineInputChannelSet::_eraseFromMap(PipelineInputChannel* chan) {
  auto it = _channel_by_name._internal_find(chan->_conf);
  kassert(it != _channel_by_name.end());
  chan->_conf = HashedStr::EMPTY_STR;
  _channel_by_name.erase(it);
}

void PipelineInputChannelSet::_attach_existing(PipelineInputChannel* chan) {
  if (chan->_onInactiveListSince != 0) {
    chan->_onInactiveListSince = 0;
    chan->unlink();
    chan->insertAfter(&_active_channels);
    kassert(_num_inactive_channels > 0);
    _num_inactive_channels--;
  }
  chan->_refcnt++;
}

PipelineInputChannel* PipelineInputChannelSet::_lookup(const char* key, size_t length,
                                                       bool fetchProperties,
                                                       const size_t* offsets,
                                                       const ptrdiff_t* lengths) {
  uint64_t hash = djb2_hash(key, length);
  ScopedLock lock(_mutex);
  PipelineInputChannel* chan;
  auto it = _channel_by_name._internal_find(key, length, hash);
  if (it != _channel_by_name.end()) {
    chan = it->second.second;
    _attach_existing(chan);
  } else {
    chan = alloc_new(key, length, hash);
    if (offsets != nullptr) {
      chan->_setPieces(offsets, lengths);
    } else {
      chan->set_pieces_from_conf();
    }
  }
  if (fetchProperties && chan->_pmap == nullptr) chan->Locked_fetch_properties();
  return chan;
}

void PipelineInputChannelSet::_setNeedsDoneKey(PipelineInputChannel* chan, bool on) {
  PipelineInputChannelSet* set = chan->_chanset;
  kassert(!set->_isGlobal);
  ScopedLock lock(set->_mutex);
  chan->_abandoned = 0;
  if (on == (chan->_needsDoneKey != 0)) return;
  chan->_needsDoneKey = on;
  if (on) {
    chan->_refcnt++;
  } else {
    kassert(chan->_refcnt > 1);
    chan->_refcnt--;
  }
}

void PipelineInputChannelSet::abandon() {
  kassert(!_isGlobal && !_wantToDelete);
  bool deleteNow;
  {
    ScopedLock lock(_mutex);
    while (_inactive_channels.isLinked()) {
      PipelineInputChannel* chan = static_cast<PipelineInputChannel*>(_inactive_channels._next);
      kassert(chan->_refcnt == 0);
      chan->unlink();
      _num_inactive_channels--;
      _eraseFromMap(chan);
      delete chan;
      _timedoutChannels++;
    }
    deleteNow = !_active_channels.isLinked();
    for (PipelineInputChannelLinks* l = _active_channels._next; l != &_active_channels;
         l = l->_next) {
      PipelineInputChannel* chan = static_cast<PipelineInputChannel*>(l);
      chan->_abandoned = 1;
      if (chan->_needsDoneKey) {
        gLogger.warn("channel \"%s\" ended without a done-key", chan->_conf.c_str());
        chan->_needsDoneKey = 0;
        // The list holds only referenced channels, so the done-key
        // reference is never the last one while others are outstanding;
        // when it is, the channel goes now.
        if (--chan->_refcnt == 0) {
          l = l->_prev;
          chan->unlink();
          _eraseFromMap(chan);
          delete chan;
        }
      }
    }
    if (!_active_channels.isLinked()) deleteNow = true;
    _wantToDelete = 1;
  }
  if (deleteNow) delete this;
}

void PipelineInputChannelSet::addMetrics(PipelineInputChannelSetMetrics* out) {
  ScopedLock lock(_mutex);
  auto take = [](uint64_t& counter) {
    uint64_t v = counter;
    counter = 0;
    return v;
  };
  out->values.emplace_back("current size", _channel_by_name.size());
  out->values.emplace_back("new channels", take(_newChannels));
  out->values.emplace_back("removed channels", take(_removedChannels));
  out->values.emplace_back("timedout channels", take(_timedoutChannels));
  out->values.emplace_back("reclaimed channels", take(_reclaimedChannels));
  out->values.emplace_back("abandoned channels", take(_abandonedChannels));
  out->values.emplace_back("inactive channels", _num_inactive_channels);
}

namespace {

struct MetricsRegistration {
  Mutex mutex;
  bool registered = false;  // guarded by mutex
};

MetricsRegistration& metricsRegistration() {
  static MetricsRegistration* r = new MetricsRegistration;
  return *r;
}

}  // namespace

bool PipelineInputChannelMetricsProvider::registerMetricsCallback() {
  MetricsRegistration& r = metricsRegistration();
  ScopedLock lock(r.mutex);
  if (r.registered) return false;
  r.registered = true;
  return true;
}

bool PipelineInputChannelMetricsProvider::isRegistered() {
  MetricsRegistration& r = metricsRegistration();
  ScopedLock lock(r.mutex);
  return r.registered;
}

bool PipelineInputChannelMetricsProvider::collect(PipelineInputChannelSetMetrics* out) {
  if (!isRegistered()) return false;
  global_channel_set.addMetrics(out);
  return true;
}

size_t PipelineInputChannelSet::size() {
  ScopedLock lock(_mutex);
  return _channel_by_name.size();
}

unsigned PipelineInputChannelSet::numInactive() {
  ScopedLock lock(_mutex);
  return _num_inactive_channels;
}

size_t PipelineInputChannelSet::numActive() {
  ScopedLock lock(_mutex);
  size_t n = 0;
  for (auto* l = _active_channels._next; l != &_active_channels; l = l->_next) n++;
  return n;
}

std::vector<const PipelineInputChannel*> PipelineInputChannelSet::inactiveList() {
  ScopedLock lock(_mutex);
  std::vector<const PipelineInputChannel*> out;
  for (auto* l = _inactive_channels._next; l != &_inactive_channels; l = l->_next) {
    out.push_back(static_cast<const PipelineInputChannel*>(l));
  }
  return out;
}

// ---- References ----

PipelineInputChannelReference::PipelineInputChannelReference(StrSegment key,
                                                             PipelineInputChannelSet* set,
                                                             bool fetchProperties)
    : _chan(set->_lookup(key.data(), key.size(), fetchProperties, nullptr, nullptr)) {}

PipelineInputChannelReference::PipelineInputChannelReference(const Str* const pieces[4],
                                                             PipelineInputChannelSet* set,
                                                             bool fetchProperties) {
  StrSegment parts[4];
  ptrdiff_t lengths[4];
  size_t offsets[4];
  size_t needed = 3;
  for (int n = 0; n < 4; n++) {
    if (pieces[n] == nullptr) {
      lengths[n] = -1;
      continue;
    }
    parts[n] = StrSegment(*pieces[n]);
    if (n == PipelineInputChannel::PIECE_SOURCETYPE) {
      parts[n] = parts[n].size() <= SOURCETYPE_PREFIX_LEN
                     ? StrSegment()
                     : StrSegment(parts[n].data() + SOURCETYPE_PREFIX_LEN,
                                  parts[n].size() - SOURCETYPE_PREFIX_LEN);
    }
    lengths[n] = static_cast<ptrdiff_t>(parts[n].size());
    needed += parts[n].size();
  }
  char stackBuf[STACK_KEY_BYTES];
  std::unique_ptr<char[]> heapBuf;
  char* buf = stackBuf;
  if (needed >= STACK_KEY_BYTES) {
    heapBuf.reset(new char[needed]);
    buf = heapBuf.get();
  }
  size_t pos = 0;
  for (int n = 0; n < 4; n++) {
    if (n != 0) buf[pos++] = '|';
    offsets[n] = pos;
    if (!parts[n].empty()) std::memcpy(buf + pos, parts[n].data(), parts[n].size());
    pos += parts[n].size();
  }
  _chan = set->_lookup(buf, pos, fetchProperties, offsets, lengths);
}

PipelineInputChannelReference::PipelineInputChannelReference(
    const PipelineInputChannelReference& other)
    : _chan(&__null_channel) {
  do_assign(other);
}

PipelineInputChannelReference::~PipelineInputChannelReference() {
  if (_chan != &__null_channel) _chan->drop_reference();
}

void PipelineInputChannelReference::do_assign(const PipelineInputChannelReference& other) {
  if (other._chan == _chan) return;
  if (other._chan != &__null_channel) {
    ScopedLock lock(other._chan->_chanset->_mutex);
    other._chan->_refcnt++;
  }
  PipelineInputChannel* old = _chan;
  _chan = other._chan;
  if (old != &__null_channel) old->drop_reference();
}

void PipelineInputChannelReference::setNeedsDoneKey(bool on) {
  kassert(_chan != &__null_channel);
  PipelineInputChannelSet::_setNeedsDoneKey(_chan, on);
}
