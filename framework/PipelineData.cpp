#include "framework/PipelineData.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <vector>

#include "framework/PipelineDataLogger.h"
#include "util/Assert.h"
#include "util/InputStream.h"
#include "util/OutputStream.h"
#include "util/StrMem.h"
#include "util/Timeval.h"

namespace {

// Registered keys sorted by hash. Filled only by static initialisers.
std::vector<const PipelineData::predefined_key*>& registeredKeys() {
  static std::vector<const PipelineData::predefined_key*> keys;
  return keys;
}

bool sameName(const HashedStrReference& key, const char* name, size_t length, uint64_t hash) {
  return key.hash() == hash && key.length() == length &&
         std::memcmp(key.data(), name, length) == 0;
}

bool sameBytes(StrSegment a, StrSegment b) {
  return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size()) == 0;
}

const uint32_t RAW_DEPENDENT_META =
    PipelineDataMetaKey::VFLAG_HAS_PUNCT | PipelineDataMetaKey::VFLAG_HAS_RAW_REFERENCES;

}  // namespace

unsigned PipelineData::num_registered_keys_minus1 = static_cast<unsigned>(-1);

PipelineData::predefined_key::predefined_key(const char* name) : HashedStr(name) {
  std::vector<const predefined_key*>& keys = registeredKeys();
  kassert(keys.size() < MAX_REGISTERED_KEYS);
  auto at = std::upper_bound(keys.begin(), keys.end(), hash(),
                             [](uint64_t h, const predefined_key* k) { return h < k->hash(); });
  keys.insert(at, this);
  num_registered_keys_minus1++;
}

bool PipelineData::byname_key::lessThan(const HashedStrReference& other, bool orEqual) const {
  if (hash() != other.hash()) return hash() < other.hash();
  const int c = std::memcmp(data(), other.data(), std::min(length(), other.length()));
  if (c != 0) return c < 0;
  if (length() != other.length()) return length() < other.length();
  return orEqual;
}

const PipelineData::special_key_oneval PipelineData::__inmap_done("_done", 0x2, 0x4);
const PipelineData::special_key_oneval PipelineData::__inmap_utf8("_utf8", 0x8, 0x10);
const PipelineData::special_key_oneval PipelineData::__inmap_linebreaker("_linebreaker", 0x20,
                                                                         0x40);
const PipelineData::special_key PipelineData::__inmap_time("_time", 0x80, 0x100);
const PipelineData::special_key_chanpiece PipelineData::__inmap_source("MetaData:Source", 0x200,
                                                                       0x400, 0);
const PipelineData::special_key_chanpiece PipelineData::__inmap_host("MetaData:Host", 0x800,
                                                                     0x1000, 1);
const PipelineData::special_key_chanpiece PipelineData::__inmap_sourcetype("MetaData:Sourcetype",
                                                                           0x2000, 0x4000, 2);
const PipelineData::special_key_chanpiece PipelineData::__inmap_channel("_channel", 0x8000,
                                                                        0x10000, 3);
const PipelineData::special_key_oneval PipelineData::__inmap_recover_event("_recoverevent",
                                                                           0x20000, 0x40000);
const PipelineData::special_key_oneval PipelineData::__inmap_headerproc_off_by_default(
    "_hpn", 0x100000, 0x200000);
const PipelineData::special_key_oneval PipelineData::__inmap_dstrx("_dstrx", 0x800000,
                                                                   0x1000000);
const PipelineData::special_key_oneval PipelineData::__inmap_flush("_flush", 0x2000000,
                                                                   0x4000000);

const PipelineData::predefined_key PipelineData::_pathKey("_path");
const PipelineData::predefined_key PipelineData::_origPathKey("_origPath");
const PipelineData::predefined_key PipelineData::_charSetKey("_charSet");
const PipelineData::predefined_key PipelineData::_indexKey("_MetaData:Index");
const PipelineData::predefined_key PipelineData::_queueKey("queue");
const PipelineData::predefined_key PipelineData::_reportingHostKey("ReportingHost");
const PipelineData::predefined_key PipelineData::_hostRegexKey("host_regex");
const PipelineData::predefined_key PipelineData::_hostSegmentKey("host_segment");
const PipelineData::predefined_key PipelineData::_followTailKey("followTail");
const PipelineData::predefined_key PipelineData::_signatureKey("_sig");
const PipelineData::predefined_key PipelineData::_seekAddrKey("seekaddr");
const PipelineData::predefined_key PipelineData::_rawSizeKey("__raw_size__");
const PipelineData::predefined_key PipelineData::_useHostKey("connection_host");
const PipelineData::predefined_key PipelineData::_controlKey("_control");
const PipelineData::predefined_key PipelineData::_linecountKey("_linecount");
const PipelineData::predefined_key PipelineData::_blocksigningKey("_blocksigning");
const PipelineData::predefined_key PipelineData::_loggingKey("_loggingKey");
const PipelineData::predefined_key PipelineData::_previewCompleteKey("_previewCompleteKey");
const PipelineData::predefined_key PipelineData::_startOffsetKey("_startOffset");
const PipelineData::predefined_key PipelineData::_fishKey("_fishKey");
const PipelineData::predefined_key PipelineData::_seekCrcKey("_seekCrc");
const PipelineData::predefined_key PipelineData::_fnameCrcKey("_fnameCrc");
const PipelineData::predefined_key PipelineData::_modTimeKey("_modTime");
const PipelineData::predefined_key PipelineData::_tzHintKey("_tzhint");
const PipelineData::predefined_key PipelineData::_deleteOnEOFKey("_deleteOnEOF");
const PipelineData::predefined_key PipelineData::_rawKey("_raw");
const PipelineData::predefined_key PipelineData::_confKey("_conf");
const PipelineData::predefined_key PipelineData::_metaKey_name("_meta");
const PipelineData::predefined_key PipelineData::_stmidKey("_stmid");
const char* const PipelineData::_deleteValue = "_delete_control";
const char* const PipelineData::_shutdownValue = "_shutdown_control";
const char* const PipelineData::_sourcePrefix = "source::";
const char* const PipelineData::_sourceTypePrefix = "sourcetype::";
const char* const PipelineData::_hostPrefix = "host::";

namespace {

const PipelineData::special_key_oneval* const kOnevalKeys[] = {
    &PipelineData::__inmap_done,   &PipelineData::__inmap_flush,
    &PipelineData::__inmap_utf8,   &PipelineData::__inmap_linebreaker,
    &PipelineData::__inmap_dstrx,  &PipelineData::__inmap_recover_event,
    &PipelineData::__inmap_headerproc_off_by_default,
};
const PipelineData::special_key_chanpiece* const kPieceKeys[] = {
    &PipelineData::__inmap_source, &PipelineData::__inmap_host,
    &PipelineData::__inmap_sourcetype, &PipelineData::__inmap_channel};

}  // namespace

// Shared by every unset handle and never mutated or freed: it starts with
// two references so that it never counts as sole owner.
PipelineData CowPipelineData::_emptyPipelineData(2);

namespace {
// Any program that builds events also gets the date set-up's reports on
// their channels; a program without events keeps the plain log line.
const bool kRegexReporterInstalled = (PipelineDataLogger::installDatetimeRegexReporter(), true);
}  // namespace

PipelineDataKeyValueAcceptor::~PipelineDataKeyValueAcceptor() = default;

PipelineData::PipelineData() = default;

PipelineData::PipelineData(uint32_t initialRefs) : _refcnt(initialRefs) {}

PipelineData::~PipelineData() {
  kassert(_refcnt.load() < 2 || this == &CowPipelineData::_emptyPipelineData);
  reset_rawstor();
}

void PipelineData::assertIsUnshared() const { kassert(_refcnt.refcntIsOne()); }

void PipelineData::reset() {
  _rawSeg = StrSegment(nullptr, 0);
  _flags = 0;
  _metaKey = PipelineDataMetaKey();
  _chan = PipelineInputChannelReference();
  _timeKey = 0;
  _streamId = PipelineDataStreamId();
  _contentMap.clear();
  reset_rawstor();
  _rawAsStr.clear();
}

// ---- lookups ----

const Str* PipelineData::find_value(const HashedStrReference& key) const {
  auto it = _contentMap._internal_find(key);
  return it == _contentMap.end() ? nullptr : &it->second.second;
}

const Str& PipelineData::get(const predefined_key& key) const {
  const Str* v = getIfAvail(key);
  if (v == nullptr) {
    Str what("This key could not be found : ");
    what.append(key);
    throw KeyNotFoundException(what);
  }
  return *v;
}

const Str* PipelineData::getIfAvail(const predefined_key& key) const { return find_value(key); }

bool PipelineData::contains(const HashedStrReference& key) const {
  if (_contentMap.contains(key)) return true;
  for (const special_key_oneval* k : kOnevalKeys) {
    if (*k == key) return (_flags & k->normal_flag) != 0;
  }
  for (const special_key_chanpiece* k : kPieceKeys) {
    if (*k == key) return (_flags & k->normal_flag) != 0;
  }
  if (__inmap_time == key) return (_flags & __inmap_time.normal_flag) != 0;
  if (_rawKey == key) return hasRaw();
  if (_metaKey_name == key) return (_flags & PDFLAG_HAS_META) != 0;
  if (_stmidKey == key) return (_flags & PDFLAG_HAS_STMID) != 0;
  return false;
}

const Str* PipelineData::internal_get(const char* name, size_t length, uint64_t hash,
                                      Str* scratch) const {
  auto it = const_cast<HashedStrMap<Str>&>(_contentMap)._internal_find(name, length, hash);
  if (it != _contentMap.end()) return &it->second.second;
  for (const special_key_chanpiece* k :
       {&__inmap_host, &__inmap_source, &__inmap_sourcetype, &__inmap_channel}) {
    if (sameName(*k, name, length, hash)) {
      StrSegment seg;
      if (!get_chan_piece(*k, &seg)) return nullptr;
      scratch->assign(seg.data(), seg.size());
      return scratch;
    }
  }
  if (sameName(_rawKey, name, length, hash)) {
    if (!hasRaw()) return nullptr;
    if (!(_flags & PDFLAG_IS_POINTING_AT_RAWSTOR) && _rawSeg.data() == _rawAsStr.data() &&
        _rawSeg.size() == _rawAsStr.size()) {
      return &_rawAsStr;
    }
    scratch->assign(_rawSeg.data(), _rawSeg.size());
    return scratch;
  }
  if (sameName(_metaKey_name, name, length, hash)) {
    if (!(_flags & PDFLAG_HAS_META)) return nullptr;
    scratch->clear();
    _metaKey.appendTo(scratch, raw(), _chan.get());
    return scratch;
  }
  if (sameName(_stmidKey, name, length, hash)) {
    if (!(_flags & PDFLAG_HAS_STMID)) return nullptr;
    scratch->clear();
    _streamId.serialize(scratch);
    return scratch;
  }
  for (const special_key_oneval* k : kOnevalKeys) {
    if (sameName(*k, name, length, hash)) {
      return (_flags & k->normal_flag) ? &k->value : nullptr;
    }
  }
  if (sameName(__inmap_time, name, length, hash)) {
    if (!(_flags & __inmap_time.normal_flag)) return nullptr;
    scratch->clear();
    scratch->append_longlong(_timeKey);
    return scratch;
  }
  return nullptr;
}

const Str* PipelineData::getSourceTypeIfAvail(Str* scratch) const {
  StrSegment seg;
  if (!get_chan_piece(__inmap_sourcetype, &seg)) return nullptr;
  scratch->assign(seg.data(), seg.size());
  return scratch;
}

bool PipelineData::getTimeKey(Timeval* out) const {
  if (!(_flags & __inmap_time.normal_flag)) return false;
  *out = Timeval(static_cast<time_t>(_timeKey), 0);
  return true;
}

bool PipelineData::get_chan_piece(const special_key_chanpiece& key, StrSegment* out) const {
  const special_key_chanpiece* ims = &key;
  if (_flags & ims->normal_flag) {
    kassert(_chan.hasPieceNumber(ims->piece_num));
    kassert((_flags & ims->inmap_flag) == 0);
    *out = _chan->piece(ims->piece_num);
    return true;
  }
  if (_flags & ims->inmap_flag) {
    const Str& v = _contentMap.at(key);
    *out = StrSegment(v.data(), v.size());
    return true;
  }
  return false;
}

bool PipelineData::get_chan_piece_asstr(const special_key_chanpiece& key, Str* out) const {
  StrSegment seg;
  if (!get_chan_piece(key, &seg)) return false;
  out->assign(seg.data(), seg.size());
  return true;
}

// ---- writing ----

void PipelineData::erase_key(const HashedStrReference& key) {
  auto it = _contentMap._internal_find(key);
  if (it != _contentMap.end()) _contentMap.erase(it);
}

Str& PipelineData::key_index(const char* name, size_t length, uint64_t hash) {
  const std::vector<const predefined_key*>& keys = registeredKeys();
  auto it = std::lower_bound(keys.begin(), keys.end(), hash,
                             [](const predefined_key* k, uint64_t h) { return k->hash() < h; });
  for (; it != keys.end() && (*it)->hash() == hash; ++it) {
    if (sameName(**it, name, length, hash)) return _contentMap[**it];
  }
  return _contentMap.index(name, length, hash);
}

void PipelineData::put(const predefined_key& key, const Str& value) {
  internal_put(key.data(), key.length(), key.hash(), value);
}

void PipelineData::put_special_oneval(const special_key_oneval& key, StrSegment value) {
  if (sameBytes(value, key.value)) {
    _flags |= key.normal_flag;
    if (_flags & key.inmap_flag) {
      erase_key(key);
      _flags &= ~key.inmap_flag;
    }
  } else {
    _contentMap[key].assign(value.data(), value.size());
    _flags = (_flags | key.inmap_flag) & ~key.normal_flag;
  }
}

void PipelineData::set_time_key(StrSegment value) {
  // Digits are taken without checking; the round trip through "%lld"
  // below is what decides whether the text is a plain number.
  uint64_t v = 0;
  size_t i = 0;
  const bool negative = !value.empty() && value[0] == '-';
  if (negative) i = 1;
  for (; i < value.size(); i++) v = v * 10 + static_cast<uint64_t>(value[i] - '0');
  const int64_t t = static_cast<int64_t>(negative ? 0 - v : v);
  char buf[30];
  const int n = std::snprintf(buf, sizeof(buf), "%lld", static_cast<long long>(t));
  kassert(n <= 29);
  const bool plain = value.size() > static_cast<size_t>(negative ? 1 : 0) &&
                     sameBytes(StrSegment(buf, static_cast<size_t>(n)), value);
  if (plain) {
    _timeKey = t;
    if (_flags & __inmap_time.inmap_flag) erase_key(__inmap_time);
    _flags = (_flags | __inmap_time.normal_flag) & ~__inmap_time.inmap_flag;
  } else {
    _contentMap[__inmap_time].assign(value.data(), value.size());
    _flags = (_flags | __inmap_time.inmap_flag) & ~__inmap_time.normal_flag;
  }
}

void PipelineData::notify_raw_change() {
  if ((_flags & PDFLAG_HAS_META) && (_metaKey.vflags() & RAW_DEPENDENT_META) && hasRaw()) {
    _metaKey._rawHasChanged(_rawSeg);
  }
}

void PipelineData::notify_channel_change(const PipelineInputChannel* chan) {
  if ((_flags & PDFLAG_HAS_META) &&
      (_metaKey.vflags() & PipelineDataMetaKey::VFLAG_USES_KEYS_IN_CHANNEL)) {
    _metaKey._channelIsAboutToChange(chan);
  }
}

void PipelineData::set_raw(StrSegment value) {
  notify_raw_change();
  _rawAsStr.assign(value.data(), value.size());
  _flags &= ~PDFLAG_IS_POINTING_AT_RAWSTOR;
  aim_at_rawAsStr();
}

void PipelineData::set_meta(StrSegment value) {
  _metaKey = PipelineDataMetaKey();
  _metaKey.parse(value.data(), value.data() + value.size());
  _flags |= PDFLAG_HAS_META;
}

void PipelineData::set_stmid(StrSegment value) {
  if (_streamId.parse(value.data(), value.data() + value.size())) {
    _flags |= PDFLAG_HAS_STMID;
  } else {
    _streamId = PipelineDataStreamId();
    _flags &= ~PDFLAG_HAS_STMID;
  }
}

void PipelineData::set_conf(StrSegment value) {
  migrate_all_out_of_chan();
  PipelineInputChannelReference fresh(value, chanset(), true);
  notify_channel_change(_chan.get());
  _chan = fresh;
  consolidate_all_in_chan();
}

void PipelineData::internal_put(const char* name, size_t length, uint64_t hash,
                                const Str& value) {
  assertIsUnshared();
  for (const special_key_chanpiece* k : {&__inmap_source, &__inmap_host, &__inmap_sourcetype}) {
    if (sameName(*k, name, length, hash)) {
      _contentMap[*k] = value;
      _flags = (_flags | k->inmap_flag) & ~k->normal_flag;
      return;
    }
  }
  if (sameName(_rawKey, name, length, hash)) return set_raw(value);
  if (sameName(_metaKey_name, name, length, hash)) return set_meta(value);
  if (sameName(_stmidKey, name, length, hash)) return set_stmid(value);
  for (const special_key_oneval* k : kOnevalKeys) {
    if (sameName(*k, name, length, hash)) return put_special_oneval(*k, value);
  }
  if (sameName(__inmap_channel, name, length, hash)) {
    _contentMap[__inmap_channel] = value;
    _flags = (_flags | __inmap_channel.inmap_flag) & ~__inmap_channel.normal_flag;
    return;
  }
  if (sameName(_confKey, name, length, hash)) return set_conf(value);
  if (sameName(__inmap_time, name, length, hash)) return set_time_key(value);
  key_index(name, length, hash) = value;
}

void PipelineData::remove(const predefined_key& key) {
  assertIsUnshared();
  _contentMap.erase(_contentMap._internal_find(key));
}

void PipelineData::remove_special_key(const special_key& key) {
  if (_flags & key.inmap_flag) erase_key(key);
  _flags &= ~(key.normal_flag | key.inmap_flag);
}

void PipelineData::remove(const special_key& key) {
  assertIsUnshared();
  kassert((_flags & (key.normal_flag | key.inmap_flag)) != 0);
  remove_special_key(key);
}

bool PipelineData::removeIfAvail(const special_key& key) {
  assertIsUnshared();
  if ((_flags & (key.normal_flag | key.inmap_flag)) == 0) return false;
  remove_special_key(key);
  return true;
}

bool PipelineData::removeIfAvail(const predefined_key& key) {
  assertIsUnshared();
  auto it = _contentMap._internal_find(key);
  if (it == _contentMap.end()) return false;
  _contentMap.erase(it);
  return true;
}

void PipelineData::appendToRaw(const char* bytes, size_t length) {
  assertIsUnshared();
  kassert(hasRaw());
  notify_raw_change();
  if (_flags & PDFLAG_IS_POINTING_AT_RAWSTOR) {
    Str copy;
    copy.reserve(_rawSeg.size() + length);
    copy.append(_rawSeg);
    _rawAsStr.swap(copy);
    _flags &= ~PDFLAG_IS_POINTING_AT_RAWSTOR;
  } else if (_rawSeg.data() == _rawAsStr.data()) {
    if (_rawSeg.size() != _rawAsStr.size()) {
      kassert(_rawAsStr.size() > _rawSeg.size());
      _rawAsStr.resize(_rawSeg.size());
    }
  } else {
    Str copy(_rawSeg);
    _rawAsStr.swap(copy);
  }
  _rawAsStr.append(bytes, length);
  aim_at_rawAsStr();
}

void PipelineData::appendLog(const Str& text) {
  assertIsUnshared();
  _contentMap[_loggingKey].append(text);
}

// ---- channel pieces ----

void PipelineData::consolidate_item_in_chan(const special_key_chanpiece& key) {
  if (!(_flags & key.inmap_flag) || !_chan.hasConf() || !_chan.hasPieceNumber(key.piece_num)) {
    return;
  }
  if (!sameBytes(_contentMap.at(key), _chan->piece(key.piece_num))) return;
  erase_key(key);
  _flags = (_flags | key.normal_flag) & ~key.inmap_flag;
}

void PipelineData::migrate_item_out_of_chan(const special_key_chanpiece& key) {
  if (!(_flags & key.normal_flag)) return;
  kassert(_chan.hasPieceNumber(key.piece_num));
  _contentMap[key] = Str(_chan->piece(key.piece_num));
  _flags = (_flags | key.inmap_flag) & ~key.normal_flag;
}

void PipelineData::consolidate_all_in_chan() {
  for (const special_key_chanpiece* k : kPieceKeys) consolidate_item_in_chan(*k);
}

void PipelineData::migrate_all_out_of_chan() {
  for (const special_key_chanpiece* k : kPieceKeys) migrate_item_out_of_chan(*k);
}

void PipelineData::put_chanpiece_optional(const special_key_chanpiece& key, const Str* value) {
  if (value == nullptr) {
    if (_flags & key.inmap_flag) erase_key(key);
    _flags &= ~(key.inmap_flag | key.normal_flag);
    return;
  }
  if (_chan.hasConf() && _chan.hasPieceNumber(key.piece_num) &&
      sameBytes(*value, _chan->piece(key.piece_num))) {
    if (_flags & key.inmap_flag) erase_key(key);
    _flags = (_flags | key.normal_flag) & ~key.inmap_flag;
  } else {
    Str copy(*value);  // `value` may be the map entry itself
    _contentMap[key] = copy;
    _flags = (_flags | key.inmap_flag) & ~key.normal_flag;
  }
}

void PipelineData::set_channel(const Str* source, const Str* host, const Str* sourcetype) {
  assertIsUnshared();
  Str cur[4];
  const Str* pieces[4] = {source, host, sourcetype, nullptr};
  for (int n = 0; n < 4; n++) {
    if (pieces[n] == nullptr && get_chan_piece_asstr(*kPieceKeys[n], &cur[n])) {
      pieces[n] = &cur[n];
    }
  }
  Str own[4];
  for (int n = 0; n < 4; n++) {
    if (pieces[n] != nullptr) {
      own[n] = *pieces[n];
      pieces[n] = &own[n];
    }
  }
  PipelineInputChannelReference fresh(pieces, chanset(), true);
  notify_channel_change(_chan.get());
  PipelineInputChannelReference old = _chan;
  _chan = fresh;
  for (int n = 0; n < 4; n++) put_chanpiece_optional(*kPieceKeys[n], pieces[n]);
}

void PipelineData::setChannelDestructive(Str& channel) {
  assertIsUnshared();
  _contentMap[__inmap_channel].swap(channel);
  if (_flags & __inmap_host.inmap_flag) erase_key(__inmap_host);
  _flags &= 0xFFFF67FF;
  _flags |= __inmap_channel.inmap_flag;
}

void PipelineData::recomputeConfKey(bool create) {
  assertIsUnshared();
  PreviewState* previewState = _chan->getPreviewState();
  if (_flags & PDFLAG_ANY_CHANPIECE_IN_MAP) {
    set_channel(nullptr, nullptr, nullptr);
  } else if (!_chan.hasConf()) {
    _chan = PipelineInputChannelReference(StrSegment("|||"), &global_channel_set, create);
  }
  if (previewState != nullptr) {
    PreviewState* newState = _chan->getPreviewState();
    if (newState == nullptr) {
      _chan->setPreviewState(previewState);
    } else {
      kassert(newState == previewState);
    }
  }
}

void PipelineData::attachChannelSet(PipelineInputChannelSetHolder& holder) {
  kassert(_chanset == nullptr || _chanset == &global_channel_set);
  _chanset = holder.get();
}

void PipelineData::finalizeChannelSet() {
  kassert(_chan.hasConf());
  constexpr uint32_t kDoneOrFlush = PDFLAG_HAS_DONE_NORMAL | PDFLAG_HAS_DONE_IN_MAP |
                                     PDFLAG_HAS_FLUSH_NORMAL | PDFLAG_HAS_FLUSH_IN_MAP;
  if ((_flags & kDoneOrFlush) == 0) _chan.setNeedsDoneKey(true);
  _chan->fetch_properties();
}

PipelineInputChannel* PipelineData::getInputChannel() {
  if (!_chan.hasConf()) recomputeConfKey(true);
  return _chan.get();
}

void PipelineData::defaultConf(Str& out) const {
  out.clear();
  StrSegment seg;
  if (get_chan_piece(__inmap_source, &seg)) out.append(seg);
  out.append("|");
  if (get_chan_piece(__inmap_host, &seg)) out.append(seg);
  out.append("|");
  if (get_chan_piece(__inmap_sourcetype, &seg) && seg.size() > 12) {
    out.append(StrSegment(seg.data() + 12, seg.size() - 12));
  }
  out.append("|");
  if (get_chan_piece(__inmap_channel, &seg)) out.append(seg);
}

// ---- raw storage ----

void PipelineData::add_to_rawstor(PipelineDataRawStorage* s) {
  if (_flags & PDFLAG_HAS_MULTI_RAWSTOR) {
    if (!_rawStor.multi->insert(s).second) s->abandon();
  } else if (_rawStor.single == nullptr) {
    _rawStor.single = s;
  } else if (_rawStor.single == s) {
    s->abandon();
  } else {
    auto* multi = new std::set<PipelineDataRawStorage*>{_rawStor.single, s};
    _rawStor.multi = multi;
    _flags |= PDFLAG_HAS_MULTI_RAWSTOR;
  }
}

void PipelineData::steal_rawstors_from(PipelineData& other) {
  if (rawStorageCount() == 0) {
    // Holding nothing, this record can take other's set whole.
    swap_rawstors_with(other);
    return;
  }
  if (other._flags & PDFLAG_HAS_MULTI_RAWSTOR) {
    for (PipelineDataRawStorage* s : *other._rawStor.multi) add_to_rawstor(s);
    delete other._rawStor.multi;
    other._flags &= ~PDFLAG_HAS_MULTI_RAWSTOR;
  } else if (other._rawStor.single != nullptr) {
    add_to_rawstor(other._rawStor.single);
  }
  other._rawStor.single = nullptr;
}

void PipelineData::copy_rawstors_from(const PipelineData& other) {
  if (other._flags & PDFLAG_HAS_MULTI_RAWSTOR) {
    for (PipelineDataRawStorage* s : *other._rawStor.multi) {
      s->add_reference();
      add_to_rawstor(s);
    }
  } else if (other._rawStor.single != nullptr) {
    other._rawStor.single->add_reference();
    add_to_rawstor(other._rawStor.single);
  }
}

void PipelineData::swap_rawstors_with(PipelineData& other) {
  std::swap(_rawStor, other._rawStor);
  const uint32_t mine = _flags & PDFLAG_HAS_MULTI_RAWSTOR;
  _flags = (_flags & ~PDFLAG_HAS_MULTI_RAWSTOR) | (other._flags & PDFLAG_HAS_MULTI_RAWSTOR);
  other._flags = (other._flags & ~PDFLAG_HAS_MULTI_RAWSTOR) | mine;
}

void PipelineData::reset_rawstor() {
  if (_flags & PDFLAG_HAS_MULTI_RAWSTOR) {
    for (PipelineDataRawStorage* s : *_rawStor.multi) s->abandon();
    delete _rawStor.multi;
    _flags &= ~PDFLAG_HAS_MULTI_RAWSTOR;
  } else if (_rawStor.single != nullptr) {
    _rawStor.single->abandon();
  }
  _rawStor.single = nullptr;
}

size_t PipelineData::rawStorageCount() const {
  if (_flags & PDFLAG_HAS_MULTI_RAWSTOR) return _rawStor.multi->size();
  return _rawStor.single != nullptr ? 1 : 0;
}

bool PipelineData::holdsRawStorage(const PipelineDataRawStorage* s) const {
  if (_flags & PDFLAG_HAS_MULTI_RAWSTOR) {
    return _rawStor.multi->count(const_cast<PipelineDataRawStorage*>(s)) != 0;
  }
  return _rawStor.single == s;
}

void PipelineData::copy_rawdata_and_flags_from(const PipelineData& other) {
  kassert(!hasRaw() && rawStorageCount() == 0);
  if (other.hasRaw() && other.rawStorageCount() != 0) copy_rawstors_from(other);
  if (other._flags & PDFLAG_IS_POINTING_AT_RAWSTOR) {
    _rawSeg = other._rawSeg;
  } else if (other.hasRaw()) {
    if (other._rawSeg.data() == other._rawAsStr.data() &&
        other._rawSeg.size() == other._rawAsStr.size()) {
      _rawAsStr = other._rawAsStr;
    } else {
      _rawAsStr.assign(other._rawSeg.data(), other._rawSeg.size());
    }
    aim_at_rawAsStr();
  }
  _flags = (other._flags & ~PDFLAG_HAS_MULTI_RAWSTOR) | (_flags & PDFLAG_HAS_MULTI_RAWSTOR);
}

// ---- serial form ----

void PipelineData::serialize(OutputStream& out) const {
  const bool hasChan = _chan.hasConf();
  uint32_t count = static_cast<uint32_t>(_contentMap.size());
  if (hasRaw()) count++;
  for (const special_key_oneval* k : kOnevalKeys) count += (_flags & k->normal_flag) ? 1 : 0;
  if (_flags & PDFLAG_HAS_META) count++;
  if (_flags & PDFLAG_HAS_STMID) count++;
  if (_flags & __inmap_time.normal_flag) count++;
  if (hasChan) {
    count++;
    for (const special_key_chanpiece* k : kPieceKeys) count += (_flags & k->normal_flag) ? 1 : 0;
  }
  out.write_32(count);
  if (hasRaw()) {
    out.write(_rawKey);
    out.write(_rawSeg);
  }
  Str text;
  if (_flags & PDFLAG_HAS_META) {
    _metaKey.appendTo(&text, raw(), _chan.get());
    out.write(_metaKey_name);
    out.write(text);
  }
  if (_flags & PDFLAG_HAS_STMID) {
    text.clear();
    _streamId.serialize(&text);
    out.write(_stmidKey);
    out.write(text);
  }
  for (const special_key_oneval* k : kOnevalKeys) {
    if (_flags & k->normal_flag) {
      out.write(*k);
      out.write(k->value);
    }
  }
  if (_flags & __inmap_time.normal_flag) {
    text.clear();
    text.append_longlong(_timeKey);
    out.write(__inmap_time);
    out.write(text);
  }
  if (hasChan) {
    out.write(_confKey);
    out.write(_chan->conf());
    for (const special_key_chanpiece* k : kPieceKeys) {
      if (_flags & k->normal_flag) {
        out.write(*k);
        out.write(_chan->piece(k->piece_num));
      }
    }
  }
  for (const auto& entry : _contentMap) {
    out.write(entry.second.first);
    out.write(entry.second.second);
  }
  out.write_32(0);
  out.write(_rawKey);
}

void PipelineData::pull_old_inmap_after_resurrect(const special_key_chanpiece& key,
                                                  StrSegment* value, bool* have, Str* owned) {
  if (!(_flags & key.inmap_flag)) return;
  if (!*have) {
    *owned = _contentMap.at(key);
    *value = *owned;
    *have = true;
  }
  erase_key(key);
  _flags &= ~key.inmap_flag;
}

void PipelineData::post_resurrect_chanpiece_merge(const special_key_chanpiece& key,
                                                  const StrSegment* value, bool have,
                                                  const PipelineInputChannel* oldChan,
                                                  const PipelineInputChannel* newChan) {
  const bool newHas = newChan != &PipelineInputChannelReference::__null_channel &&
                      newChan->hasPiece(key.piece_num);
  if (have) {
    if (newHas && sameBytes(*value, newChan->piece(key.piece_num))) {
      if (_flags & key.inmap_flag) erase_key(key);
      _flags = (_flags | key.normal_flag) & ~key.inmap_flag;
    } else {
      _contentMap[key].assign(value->data(), value->size());
      _flags = (_flags | key.inmap_flag) & ~key.normal_flag;
    }
    return;
  }
  if (!(_flags & key.normal_flag) || oldChan == newChan) return;
  const bool oldHas = oldChan != &PipelineInputChannelReference::__null_channel &&
                      oldChan->hasPiece(key.piece_num);
  kassert(oldHas);
  if (newHas && sameBytes(newChan->piece(key.piece_num), oldChan->piece(key.piece_num))) return;
  _contentMap[key] = Str(oldChan->piece(key.piece_num));
  _flags = (_flags | key.inmap_flag) & ~key.normal_flag;
}

bool PipelineData::ressurrect(InputStream& in, PipelineDataRawStorageObserverRef& observerRef,
                              bool create) {
  assertIsUnshared();
  unsigned count;
  if (!in.tryRead32(count)) return false;
  StrSegment pieceVal[4];
  bool pieceHave[4] = {false, false, false, false};
  Str pieceOwned[4];
  PipelineInputChannelReference newChan;
  bool gotConf = false;
  for (unsigned i = 0; i < count; i++) {
    StrSegment name, value;
    if (!in.tryReadSeg(name) || !in.tryReadSeg(value)) return false;
    const uint64_t hash = djb2_hash(name.data(), name.size());
    if (sameName(_rawKey, name.data(), name.size(), hash)) {
      notify_raw_change();
      _flags &= ~PDFLAG_IS_POINTING_AT_RAWSTOR;
      reset_rawstor();
      PipelineDataRawStorageReference ref;
      ref.findPool(value.size());
      ref.set(value);
      ref._p->_observer = observerRef.take();
      add_to_rawstor(ref._p);
      _rawSeg = StrSegment(ref._p->data, value.size());
      ref._p = nullptr;
      _flags |= PDFLAG_IS_POINTING_AT_RAWSTOR;
      continue;
    }
    if (sameName(_metaKey_name, name.data(), name.size(), hash)) {
      set_meta(value);
      continue;
    }
    if (sameName(_stmidKey, name.data(), name.size(), hash)) {
      set_stmid(value);
      continue;
    }
    bool done = false;
    for (const special_key_oneval* k : kOnevalKeys) {
      if (sameName(*k, name.data(), name.size(), hash)) {
        put_special_oneval(*k, value);
        done = true;
        break;
      }
    }
    if (done) continue;
    if (sameName(__inmap_time, name.data(), name.size(), hash)) {
      set_time_key(value);
      continue;
    }
    for (int n = 0; n < 4; n++) {
      if (sameName(*kPieceKeys[n], name.data(), name.size(), hash)) {
        pieceVal[n] = value;
        pieceHave[n] = true;
        done = true;
        break;
      }
    }
    if (done) continue;
    if (sameName(_confKey, name.data(), name.size(), hash)) {
      newChan = PipelineInputChannelReference(value, chanset(), create);
      gotConf = true;
      continue;
    }
    key_index(name.data(), name.size(), hash).assign(value.data(), value.size());
  }

  if (_flags & PDFLAG_ANY_CHANPIECE_IN_MAP) {
    for (int n = 0; n < 4; n++) {
      pull_old_inmap_after_resurrect(*kPieceKeys[n], &pieceVal[n], &pieceHave[n], &pieceOwned[n]);
    }
  }
  const PipelineInputChannel* oldChan = _chan.get();
  const PipelineInputChannel* target = gotConf ? newChan.get() : oldChan;
  for (int n = 0; n < 4; n++) {
    post_resurrect_chanpiece_merge(*kPieceKeys[n], &pieceVal[n], pieceHave[n], oldChan, target);
  }
  if (gotConf) {
    notify_channel_change(oldChan);
    _chan = newChan;
  }

  unsigned trailing;
  if (!in.tryRead32(trailing)) return false;
  for (unsigned i = 0; i < trailing; i++) {
    StrSegment ignored;
    unsigned a, b;
    if (!in.tryReadSeg(ignored) || !in.tryRead32(a) || !in.tryRead32(b)) return false;
  }
  StrSegment closing;
  return in.tryReadSeg(closing);
}

bool PipelineData::ressurrect(InputStream& in, bool create) {
  PipelineDataRawStorageObserverRef none;
  return ressurrect(in, none, create);
}

// ---- text forms ----

void PipelineData::iterate(PipelineDataKeyValueAcceptor* acceptor) const {
  for (const auto& entry : _contentMap) {
    acceptor->each(entry.second.first.c_str(), entry.second.second.data(),
                   entry.second.second.size());
  }
  Str text;
  if (hasRaw()) {
    text.assign(_rawSeg.data(), _rawSeg.size());
    acceptor->each("_raw", text.c_str(), text.size());
  }
  if (_flags & PDFLAG_HAS_META) {
    text.clear();
    _metaKey.appendTo(&text, raw(), _chan.get());
    acceptor->each("_meta", text.c_str(), text.size());
  }
  if (_flags & PDFLAG_HAS_STMID) {
    text.clear();
    _streamId.serialize(&text);
    acceptor->each("_stmid", text.c_str(), text.size());
  }
  auto piece = [&](const special_key_chanpiece& k) {
    if (_flags & k.normal_flag) {
      text = Str(_chan->piece(k.piece_num));
      acceptor->each(k.c_str(), text.c_str(), text.size());
    }
  };
  piece(__inmap_source);
  piece(__inmap_host);
  piece(__inmap_sourcetype);
  for (const special_key_oneval* k : kOnevalKeys) {
    if (_flags & k->normal_flag) acceptor->each(k->c_str(), k->value.c_str(), k->value.size());
  }
  if (_flags & __inmap_time.normal_flag) {
    text.clear();
    text.append_longlong(_timeKey);
    acceptor->each("_time", text.c_str(), text.size());
  }
  if (_chan.hasConf()) {
    text.assign(_chan->conf());
    acceptor->each("_conf", text.c_str(), text.size());
  }
  piece(__inmap_channel);
}

namespace {

class PipelineData_toString_iterator : public PipelineDataKeyValueAcceptor {
 public:
  explicit PipelineData_toString_iterator(Str* out) : _out(out) {}
  void each(const char* key, const char* value, size_t length) override {
    _out->appendFormat("[%s] = ", key);
    _out->append(value, length);
    _out->append("\n");
  }

 private:
  Str* _out;
};

class PipelineData_fwrite_iterator : public PipelineDataKeyValueAcceptor {
 public:
  explicit PipelineData_fwrite_iterator(FILE* f) : _f(f) {}
  void each(const char* key, const char* value, size_t length) override {
    std::fprintf(_f, "[%s] = ", key);
    std::fwrite(value, 1, length, _f);
    std::fputc('\n', _f);
  }

 private:
  FILE* _f;
};

}  // namespace

Str PipelineData::toString() const {
  Str out;
  PipelineData_toString_iterator it(&out);
  iterate(&it);
  return out;
}

void PipelineData::fwrite(FILE* f) const {
  PipelineData_fwrite_iterator it(f);
  iterate(&it);
}

// ---- the handle ----

void CowPipelineData::drop_reference(PipelineData* pd) {
  if (pd->drop_ref()) delete pd;
}

CowPipelineData& CowPipelineData::operator=(const CowPipelineData& other) {
  if (this == &other || _pd == other._pd) return *this;
  other._pd->add_reference();
  drop_reference(_pd);
  _pd = other._pd;
  return *this;
}

void CowPipelineData::make_writable() {
  PipelineData* fresh = new PipelineData;
  PipelineData* old = _pd;
  if (old == &_emptyPipelineData) {
    _pd = fresh;
    old->drop_ref();
    return;
  }
  fresh->_contentMap = old->_contentMap;
  fresh->copy_rawdata_and_flags_from(*old);
  if (old->_flags & PDFLAG_HAS_META) {
    fresh->_metaKey = old->_metaKey;  // the copy clones the pooled strings
    if (old->_metaKey.vflags() & RAW_DEPENDENT_META) fresh->_metaKey._rawHasChanged(fresh->raw());
  }
  if (old->_flags & PDFLAG_HAS_STMID) fresh->_streamId = old->_streamId;
  fresh->_timeKey = old->_timeKey;
  fresh->_chan = old->_chan;
  fresh->_chanset = old->_chanset;
  _pd = fresh;
  drop_reference(old);
}

void CowPipelineData::clear() {
  if (_pd == &_emptyPipelineData) return;
  _emptyPipelineData.add_reference();
  drop_reference(_pd);
  _pd = &_emptyPipelineData;
}

void CowPipelineData::reuse_or_new() {
  if (_pd != &_emptyPipelineData) {
    if (_pd->refcnt() == 1) {
      _pd->reset();
      _pd->_chanset = nullptr;
      return;
    }
    if (_pd->drop_ref()) {
      // The other holders let go meanwhile: the record is ours after all.
      _pd->_refcnt.store(1);
      _pd->reset();
      _pd->_chanset = nullptr;
      return;
    }
  } else {
    _pd->drop_ref();
  }
  _pd = new PipelineData;
}

void CowPipelineData::createFrom(const CowPipelineData& other) {
  if (other.isUnset()) return clear();
  if (&other == this || other._pd == _pd) {
    make_writable();
    return;
  }
  reuse_or_new();
  PipelineData* me = _pd;
  const PipelineData* o = other._pd;
  me->copy_rawdata_and_flags_from(*o);
  me->_contentMap = o->_contentMap;
  if (o->_flags & PDFLAG_HAS_META) me->_metaKey = o->_metaKey;
  if (o->_flags & PDFLAG_HAS_STMID) me->_streamId = o->_streamId;
  me->_timeKey = o->_timeKey;
  me->_chan = o->_chan;
  me->_chanset = o->_chanset;
}

void CowPipelineData::createFrom(const CowPipelineData& other, StrSegment raw) {
  if (other.isUnset()) return clear();
  CowPipelineData keep(other);  // `other` may be this handle
  reuse_or_new();
  PipelineData* me = _pd;
  const PipelineData* o = keep._pd;
  me->_contentMap = o->_contentMap;
  me->_flags = o->_flags & ~(PDFLAG_IS_POINTING_AT_RAWSTOR | PDFLAG_HAS_MULTI_RAWSTOR);
  if (o->_flags & PDFLAG_HAS_META) {
    me->_metaKey = o->_metaKey;
    if (o->_metaKey.vflags() & RAW_DEPENDENT_META) me->_metaKey._rawHasChanged(o->raw());
  }
  if (o->_flags & PDFLAG_HAS_STMID) me->_streamId = o->_streamId;
  me->_timeKey = o->_timeKey;
  me->_chan = o->_chan;
  me->_chanset = o->_chanset;
  me->_rawAsStr.assign(raw.data(), raw.size());
  me->aim_at_rawAsStr();
}

CowPipelineData::CowPipelineData(const CowPipelineData& model, size_t startRawPos,
                                 size_t newRawLen)
    : _pd(new PipelineData) {
  const PipelineData& other = *model._pd;
  kassert(startRawPos <= other.rawSize());
  kassert(startRawPos + newRawLen <= other.rawSize());
  _pd->_contentMap = other._contentMap;
  if (other._flags & PDFLAG_IS_POINTING_AT_RAWSTOR) {
    _pd->copy_rawstors_from(other);
    _pd->_rawSeg = StrSegment(other._rawSeg.data() + startRawPos, newRawLen);
    _pd->_flags = (other._flags & ~PDFLAG_HAS_MULTI_RAWSTOR) |
                  (_pd->_flags & PDFLAG_HAS_MULTI_RAWSTOR);
  } else {
    _pd->_rawAsStr.assign(other._rawSeg.data() + startRawPos, newRawLen);
    _pd->aim_at_rawAsStr();
    _pd->_flags = other._flags & ~(PDFLAG_IS_POINTING_AT_RAWSTOR | PDFLAG_HAS_MULTI_RAWSTOR);
  }
  if (other._flags & PDFLAG_HAS_META) {
    _pd->_metaKey = other._metaKey;
    if (other._metaKey.vflags() & RAW_DEPENDENT_META) _pd->_metaKey._rawHasChanged(other.raw());
  }
  _pd->_streamId = other._streamId;
  _pd->_timeKey = other._timeKey;
  _pd->_chan = other._chan;
  _pd->_chanset = other._chanset;
}

CowPipelineData::CowPipelineData(const CowPipelineData& model, StrSegment newRaw)
    : _pd(&_emptyPipelineData) {
  _emptyPipelineData.add_reference();
  createFrom(model, newRaw);
}

CowPipelineData::CowPipelineData(const CowPipelineData& model,
                                 PipelineDataRawStorageReference& storage, size_t length,
                                 bool claim_storage, PipelineDataRawStorageObserver* observer)
    : _pd(new PipelineData) {
  kassert(!observer || claim_storage);
  kassert(storage._p != nullptr);
  const PipelineData& other = *model._pd;
  _pd->_contentMap = other._contentMap;
  _pd->_flags = other._flags & ~(PDFLAG_IS_POINTING_AT_RAWSTOR | PDFLAG_HAS_MULTI_RAWSTOR);
  if (other._flags & PDFLAG_HAS_META) _pd->_metaKey = other._metaKey;
  _pd->_streamId = other._streamId;
  _pd->_timeKey = other._timeKey;
  _pd->_chan = other._chan;
  _pd->_chanset = other._chanset;
  PipelineDataRawStorage* s = storage._p;
  if (claim_storage) {
    storage._p = nullptr;
    if (observer != nullptr) s->_observer = observer;
  } else {
    s->add_reference();
  }
  _pd->add_to_rawstor(s);
  _pd->_rawSeg = StrSegment(s->data, length);
  _pd->_flags |= PDFLAG_IS_POINTING_AT_RAWSTOR;
}

void CowPipelineData::appendAndReset(CowPipelineData& other) {
  kassert(this != &other);
  PipelineData* me = writable();
  PipelineData* o = other._pd;
  kassert(me->_chan.get() == o->_chan.get() && me->chanset() == o->chanset());
  if (isLogging()) {
    const Str* log = o->getIfAvail(PipelineData::_loggingKey);
    if (log != nullptr) me->appendLog(*log);
  }
  for (const auto& entry : o->_contentMap) {
    if (!me->_contentMap.contains(entry.second.first)) {
      me->_contentMap[entry.second.first] = entry.second.second;
    }
  }
  me->assert_has_raw();
  if (o->refcnt() == 1) {
    me->steal_rawstors_from(*o);
  } else {
    me->copy_rawstors_from(*o);
  }
  if (o->hasRaw()) {
    me->notify_raw_change();
    const bool bothInStorage = (me->_flags & PDFLAG_IS_POINTING_AT_RAWSTOR) &&
                               (o->_flags & PDFLAG_IS_POINTING_AT_RAWSTOR);
    if (bothInStorage && o->_rawSeg.data() == me->_rawSeg.end() + 1 &&
        *me->_rawSeg.end() == '\n') {
      me->_rawSeg = StrSegment(me->_rawSeg.data(), me->_rawSeg.size() + 1 + o->_rawSeg.size());
    } else {
      Str joined;
      joined.reserve(me->_rawSeg.size() + 1 + o->_rawSeg.size());
      joined.append(me->_rawSeg);
      joined.append("\n");
      joined.append(o->_rawSeg);
      me->_rawAsStr.swap(joined);
      me->_flags &= ~PDFLAG_IS_POINTING_AT_RAWSTOR;
      me->aim_at_rawAsStr();
    }
  }
  const uint32_t of = o->_flags, mf = me->_flags;
  if ((of & 0x7FFFFFE) != (mf & 0xDAAAA8)) {
    for (const PipelineData::special_key* k :
         {static_cast<const PipelineData::special_key*>(&PipelineData::__inmap_done),
          static_cast<const PipelineData::special_key*>(&PipelineData::__inmap_flush)}) {
      if (of & k->inmap_flag) {
        // The entry came over with the map; the bit already says it here.
        if (me->_flags & k->normal_flag) {
          me->erase_key(*k);
        } else {
          me->_flags |= k->inmap_flag;
        }
      } else if ((of & k->normal_flag) && !(me->_flags & (k->normal_flag | k->inmap_flag))) {
        me->_flags |= k->normal_flag;
      }
    }
    if (!(me->_flags & PDFLAG_HAS_META) && (of & PDFLAG_HAS_META)) {
      me->_metaKey = o->_metaKey;
      if (o->_metaKey.vflags() & RAW_DEPENDENT_META) me->_metaKey._rawHasChanged(o->raw());
      me->_flags |= PDFLAG_HAS_META;
    }
    if (!(me->_flags & PDFLAG_HAS_STMID) && (of & PDFLAG_HAS_STMID)) {
      me->_streamId = o->_streamId;
      me->_flags |= PDFLAG_HAS_STMID;
    }
    const PipelineData::special_key* fixups[] = {
        &PipelineData::__inmap_utf8,          &PipelineData::__inmap_linebreaker,
        &PipelineData::__inmap_dstrx,         &PipelineData::__inmap_recover_event,
        &PipelineData::__inmap_headerproc_off_by_default,
        &PipelineData::__inmap_host,          &PipelineData::__inmap_source,
        &PipelineData::__inmap_channel,       &PipelineData::__inmap_sourcetype};
    for (const PipelineData::special_key* k : fixups) me->postmerge_fixup(*k, of);
    const PipelineData::special_key& t = PipelineData::__inmap_time;
    if (!(me->_flags & (t.normal_flag | t.inmap_flag))) {
      me->_timeKey = o->_timeKey;
      me->_flags |= of & (t.normal_flag | t.inmap_flag);
    } else if ((me->_flags & t.normal_flag) && (of & t.inmap_flag)) {
      me->erase_key(t);
    }
  }
  other.clear();
}

void PipelineData::postmerge_fixup(const special_key& key, uint32_t otherFlags) {
  const bool meNormal = _flags & key.normal_flag, meMap = _flags & key.inmap_flag;
  if (otherFlags & key.normal_flag) {
    if (!meNormal && !meMap) _flags |= key.normal_flag;
  } else if (otherFlags & key.inmap_flag) {
    // The entry was copied from the other record when this one lacked it.
    if (meNormal) {
      erase_key(key);
    } else if (!meMap) {
      _flags |= key.inmap_flag;
    }
  }
}

PipelineInputChannel* CowPipelineData::getInputChannel() {
  if (!_pd->_chan.hasConf()) return writable()->getInputChannel();
  return _pd->_chan.get();
}

PipelineData* CowPipelineData::release() {
  PipelineData* pd = _pd;
  _emptyPipelineData.add_reference();
  _pd = &_emptyPipelineData;
  return pd;
}

void CowPipelineData::pushToBackAndClear(PipelineDataVector& v) { v.push_back(release()); }
void CowPipelineData::pushToBackAndClear(PipelineDataDeque& d) { d.push_back(release()); }
void CowPipelineData::pushToFrontAndClear(PipelineDataDeque& d) { d.push_front(release()); }
void CowPipelineData::pushToAndClear(PipelineDataQueue& q) { q.push(release()); }

bool CowPipelineData::fetchFromFront(PipelineDataDeque& d) {
  if (d.empty()) return false;
  adopt(d.front());
  d.pop_front();
  return true;
}

bool CowPipelineData::fetchFromBack(PipelineDataDeque& d) {
  if (d.empty()) return false;
  adopt(d.back());
  d.pop_back();
  return true;
}

bool CowPipelineData::fetchFrom(PipelineDataQueue& q) {
  if (q.empty()) return false;
  adopt(q.front());
  q.pop();
  return true;
}

bool CowPipelineData::frontRef(const PipelineDataDeque& d) {
  if (d.empty()) return false;
  d.front()->add_reference();
  adopt(d.front());
  return true;
}

PipelineDataVectorIterator::PipelineDataVectorIterator(PipelineDataVector& v) : _v(v) { take(); }

void PipelineDataVectorIterator::take() {
  if (atEnd()) return;
  _cur.adopt(_v[_pos]);
  _holding = true;
}

void PipelineDataVectorIterator::put_back() {
  if (!_holding) return;
  _v[_pos] = _cur.release();
  _holding = false;
}

PipelineDataVectorIterator& PipelineDataVectorIterator::operator++() {
  put_back();
  _pos++;
  take();
  return *this;
}
