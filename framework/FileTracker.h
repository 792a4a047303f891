// FileTracker: the process-wide record of how far each tailed file was read,
// so that reading resumes at the right place after a restart or a rename.
// Positions the reader has reached wait in memory ("pending") until the
// pipeline confirms them; confirmed ones go to the fish bucket on disk,
// <db>/fishbucket/kestro_private_db by default.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>

#include "util/FishBucket.h"
#include "util/FishRecord.h"
#include "util/Mutex.h"
#include "util/Pathname.h"
#include "util/Str.h"

class CowPipelineData;

// Thread story: every public operation takes the one mutex, disk access
// included, so readers and the pipeline's end may call from any thread.
// Log channel "FileTracker".
class FileTracker {
 public:
  // A store kept by an older release, read through its helper. One instance
  // per process, installed by init(); its calls come under the tracker's
  // mutex.
  class HelperIfc {
   public:
    virtual ~HelperIfc() = default;
    // True and `value` set when `key` ("filename::<path>" or
    // "initcrc::<hex>") is in the store.
    virtual bool query(const Str& key, Str& value) = 0;
    // Whether the older store exists at all.
    virtual bool isPresent() = 0;
    // Installs this object (borrowed, and it must live for the process) as
    // the instance. A second call in a process is a programming error and
    // ends it with "HelperIfc::init called multipled times, this is a bug!!!".
    void init();
    // The installed helper, or null.
    static HelperIfc* instance();
  };

  static constexpr int64_t CHECKPOINT_INTERVAL_SECONDS = 3600;
  // 8-byte keys: a node of order 255 is 4088 bytes, inside one block.
  static constexpr uint32_t BTREE_ORDER = 255;
  enum LegacyState : uint32_t { LEGACY_UNKNOWN = 0, LEGACY_PRESENT = 1, LEGACY_NONE = 2 };

  // The process's tracker, made on first use and never destroyed.
  static FileTracker& instance();
  // A tracker of its own, for tests and tools; the process uses instance().
  FileTracker();
  ~FileTracker();
  FileTracker(const FileTracker&) = delete;
  FileTracker& operator=(const FileTracker&) = delete;

  // Opens the bucket in `path`, or with an empty path in
  // <KESTRO_DB>/fishbucket/kestro_private_db (LoaderInfo), making missing
  // directories. False after "failed to mkdir %s: %m" or "failed to open
  // fish bucket"; init may then be called again. Once it succeeded, a
  // further call logs "init called twice" and returns true.
  bool init(const Pathname& path);

  // The MD5 of the bytes, its first eight read big-endian: the identity the
  // reader gives a file, its name or a window of its content. Not a CRC,
  // whatever the name says. Pure; safe from any thread.
  static CRC_t computeCRC(const void* bytes, size_t length);

  // The position for `key`, memory first: a pending one (reached but not
  // yet confirmed) wins over the bucket; then the bucket; then the older
  // stores, migrated lazily (see legacyMigrateRetrieve). False for a file
  // never seen. `path` is the file's name, for the older store; it may be
  // empty. Throws bt::BTree::Exception when the bucket fails, and
  // bt::BTree::InvalidKeyException for the blank key unless it is pending.
  bool retrieve(const CRC_t& key, FishRecord& record, const Pathname& path);

  // Commits `record` to the bucket; a pending entry at the same seek pointer
  // is dropped (the pipeline caught up), one at another pointer stays.
  // Warns "Encountered fish record with filenameCRC=0.  This may be a bug."
  // for a zero name CRC. Throws bt::BTree::Exception when the bucket fails
  // or was never opened.
  void addUpdate(const CRC_t& key, const FishRecord& record);
  // The pipeline's end-of-file commit of the FishState the event carries,
  // named by the event's source piece without its "source::". Nothing for an
  // event without a state.
  // A bucket failure is logged ("exception encountered while updating
  // btree: %s") and swallowed: a lost position costs a re-read, and must
  // not stop the pipeline. KeyNotFoundException from a half-filled state
  // passes through.
  void addUpdate(const CowPipelineData& event);
  // Records in memory that the reader has reached `seekPtr`; a crash loses
  // it, so that reading resumes from a confirmed position. Warns "Adding
  // pending fish record with filenameCRC=0.  This may be a bug." for a zero
  // name CRC. Never touches the disk.
  void addUpdatePending(const CRC_t& key, int64_t seekPtr, const CRC_t& seekCrc,
                        const CRC_t& filenameCrc, const Pathname& path, int64_t modTime);
  void addUpdatePending(const CRC_t& key, int64_t seekPtr, const CRC_t& seekCrc,
                        const CRC_t& filenameCrc, const Pathname& path);

  // How many positions wait for confirmation.
  size_t pendingCount();
  uint32_t legacyState();

 private:
  // Older stores, per file as it is asked for. Whether the helper's store
  // is present is decided once. If it is, "filename::<path>" (or
  // "initcrc::<hex key>" without a path) is asked and a parsed answer is
  // copied into the bucket. Otherwise, or when that fails,
  // PersistentHashManager is asked for "<hex key>", and its answer is
  // returned without a copy. Answers are FishRecord::fromLegacyString texts.
  bool legacyMigrateRetrieve(const CRC_t& key, FishRecord& record, const Pathname& path);
  void _addUpdate(const CRC_t& key, const FishRecord& record);

  Mutex _mutex;
  // All below guarded by _mutex.
  FishRecord _scratch;  // the bucket's validation record; outlives _bucket
  std::unique_ptr<IFishBucket> _bucket;  // null until init succeeds
  std::map<CRC_t, std::unique_ptr<FishRecord>> _pending;
  uint32_t _legacyState = LEGACY_UNKNOWN;
};
