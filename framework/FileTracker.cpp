#include "framework/FileTracker.h"

#include <atomic>
#include <cstring>

#include "framework/FishState.h"
#include "framework/PipelineData.h"
#include "loaderinfo/LoaderInfo.h"
#include "util/Assert.h"
#include "util/Logger.h"
#include "util/PersistentHashManager.h"
#include "util/Timeval.h"
#include "util/XMLAndStringUtil.h"

namespace {

Logger gLogger("FileTracker");

std::atomic<FileTracker::HelperIfc*> gHelper{nullptr};

}  // namespace

// ---- HelperIfc ----

void FileTracker::HelperIfc::init() {
  HelperIfc* expected = nullptr;
  if (!gHelper.compare_exchange_strong(expected, this)) {
    kestroAssertFailed("HelperIfc::init called multipled times, this is a bug!!!", __FILE__,
                       __LINE__, __func__);
  }
}

FileTracker::HelperIfc* FileTracker::HelperIfc::instance() { return gHelper.load(); }

// ---- FileTracker ----

FileTracker& FileTracker::instance() {
  static FileTracker* const tracker = new FileTracker();
  return *tracker;
}

FileTracker::FileTracker() = default;

FileTracker::~FileTracker() = default;

bool FileTracker::init(const Pathname& path) {
  ScopedLock lock(_mutex);
  if (_bucket != nullptr) {
    gLogger.warn("init called twice");
    return true;
  }
  auto bucket = std::make_unique<LocalFishBucket>(CRC_t(), _scratch, CHECKPOINT_INTERVAL_SECONDS,
                                                  BTREE_ORDER);
  const Pathname dir = !path.empty()
                           ? path
                           : LoaderInfo::getInstance().getKestroDb() / "fishbucket" /
                                 "kestro_private_db";
  if (!dir.mkdir_p(Pathname::MKDIR_PRIVATE)) {
    gLogger.error("failed to mkdir %s: %m", dir.c_str());
    return false;
  }
  bool opened = false;
  try {
    opened = bucket->open(dir);
  } catch (const bt::BTree::Exception& e) {
    gLogger.error(e);
  }
  if (!opened) {
    gLogger.error("failed to open fish bucket");
    return false;
  }
  _bucket = std::move(bucket);
  return true;
}

CRC_t FileTracker::computeCRC(const void* bytes, size_t length) {
  return CRC_t(XMLAndStringUtil::halfMd5(bytes, length));
}

bool FileTracker::retrieve(const CRC_t& key, FishRecord& record, const Pathname& path) {
  ScopedLock lock(_mutex);
  const auto pending = _pending.find(key);
  if (pending != _pending.end()) {
    record = *pending->second;
    return true;
  }
  if (_bucket != nullptr && _bucket->retrieve(key, record)) {
    gLogger.debug("retrieve: key=%s rec=%s", key.toString().c_str(),
                  record.toStringVerbose().c_str());
    return true;
  }
  return legacyMigrateRetrieve(key, record, path);
}

bool FileTracker::legacyMigrateRetrieve(const CRC_t& key, FishRecord& record,
                                        const Pathname& path) {
  const unsigned long long crc = key._crc;
  if (_legacyState == LEGACY_UNKNOWN) {
    HelperIfc* helper = HelperIfc::instance();
    _legacyState = helper != nullptr && helper->isPresent() ? LEGACY_PRESENT : LEGACY_NONE;
  }
  if (_legacyState == LEGACY_PRESENT) {
    const Str query = path.empty() ? Str().format("initcrc::%llx", crc)
                                   : Str().format("filename::%s", path.c_str());
    Str value;
    FishRecord found;
    const bool ok = HelperIfc::instance()->query(query, value) &&
                    FishRecord::fromLegacyString(value, found);
    gLogger.info("fish bucket query completed: '%s' rc=%s", query.c_str(), ok ? "TRUE" : "FALSE");
    if (ok) {
      gLogger.info("lazy migrating key=0x%llx rec=[%s] from 3X fish bucket", crc,
                   found.toStringVerbose().c_str());
      // The position is good whether or not the copy lands; a failed copy
      // only means the older store is asked again next time.
      try {
        if (_bucket != nullptr) _bucket->addUpdate(key, found);
      } catch (const bt::BTree::Exception& e) {
        gLogger.error("exception encountered while updating btree: %s", e.what());
      }
      record = found;
      return true;
    }
  }
  PersistentHashManager* store = PersistentHashManager::getInstance();
  Str value;
  if (store != nullptr && store->lookup(Str().format("%llx", crc), value)) {
    gLogger.info("Seen this crc: %s", value.c_str());
    return FishRecord::fromLegacyString(value, record);
  }
  return false;
}

void FileTracker::_addUpdate(const CRC_t& key, const FishRecord& record) {
  if (record._filenameCrc.isBlank()) {
    gLogger.warn("Encountered fish record with filenameCRC=0.  This may be a bug.");
  }
  if (_bucket == nullptr) throw bt::BTree::IOException("fish bucket is not open in addUpdate");
  _bucket->addUpdate(key, record);
  const auto pending = _pending.find(key);
  if (pending != _pending.end() && pending->second->_seekPtr == record._seekPtr) {
    _pending.erase(pending);
  }
  gLogger.debug("addUpdate: key=%s %s", key.toString().c_str(), record.toStringVerbose().c_str());
}

void FileTracker::addUpdate(const CRC_t& key, const FishRecord& record) {
  ScopedLock lock(_mutex);
  _addUpdate(key, record);
}

void FileTracker::addUpdate(const CowPipelineData& event) {
  const FishState state = FishState::fromPData(event);
  if (state.isEmpty()) return;
  // The piece reads "source::<name>"; the record wants the name alone, as
  // the reader gave it to addUpdatePending.
  Str source;
  event->get_chan_piece_asstr(PipelineData::__inmap_source, &source);
  const size_t prefixLen = std::strlen(PipelineData::_sourcePrefix);
  if (source.compare(0, prefixLen, PipelineData::_sourcePrefix) == 0) source.erase(0, prefixLen);
  const FishRecord record(Timeval::now().tv_sec, state._modTime, state._seekCrc, state._fnameCrc,
                          state._startOffset, 0, source);
  ScopedLock lock(_mutex);
  try {
    _addUpdate(state._key, record);
  } catch (const bt::BTree::Exception& e) {
    gLogger.error("exception encountered while updating btree: %s", e.what());
  }
}

void FileTracker::addUpdatePending(const CRC_t& key, int64_t seekPtr, const CRC_t& seekCrc,
                                   const CRC_t& filenameCrc, const Pathname& path,
                                   int64_t modTime) {
  ScopedLock lock(_mutex);
  if (filenameCrc.isBlank()) {
    gLogger.warn("Adding pending fish record with filenameCRC=0.  This may be a bug.");
  }
  std::unique_ptr<FishRecord>& slot = _pending[key];
  if (slot == nullptr) slot = std::make_unique<FishRecord>();
  *slot = FishRecord(Timeval::now().tv_sec, modTime, seekCrc, filenameCrc, seekPtr, 0, path);
  gLogger.debug("addUpdatePending: key=%s %s", key.toString().c_str(),
                slot->toStringVerbose().c_str());
}

void FileTracker::addUpdatePending(const CRC_t& key, int64_t seekPtr, const CRC_t& seekCrc,
                                   const CRC_t& filenameCrc, const Pathname& path) {
  addUpdatePending(key, seekPtr, seekCrc, filenameCrc, path, 0);
}

size_t FileTracker::pendingCount() {
  ScopedLock lock(_mutex);
  return _pending.size();
}

uint32_t FileTracker::legacyState() {
  ScopedLock lock(_mutex);
  return _legacyState;
}
