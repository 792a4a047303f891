// The fish bucket: the store behind FileTracker that maps a file's CRC_t to
// its FishRecord. IFishBucket is what the tracker needs; LocalFishBucket is
// the checkpointed disk B-tree that provides it.
#pragma once

#include <cstdint>

#include "util/BTreeCP.h"
#include "util/FishRecord.h"
#include "util/Pathname.h"

// Thread story: one owner at a time; FileTracker's mutex serialises every
// call, disk access included.
class IFishBucket {
 public:
  virtual ~IFishBucket() = default;
  // Opens or creates the store in directory `dir`; false after a log line.
  virtual bool open(const Pathname& dir) = 0;
  // Harmless when closed.
  virtual void close() = 0;
  // True and `record` filled when `key` is stored; false otherwise.
  // Throws bt::BTree::Exception when the store is closed or damaged.
  virtual bool retrieve(const CRC_t& key, FishRecord& record) = 0;
  // Inserts or overwrites. Throws bt::BTree::Exception on failure.
  virtual void addUpdate(const CRC_t& key, const FishRecord& record) = 0;
};

// The bucket on disk: bt::BTreeCP with CRC_t keys and FishRecord records,
// each IFishBucket operation forwarded to the tree's. Recovery from damage
// and the checkpoints are the tree's (util/BTreeCP.h).
class LocalFishBucket : public bt::BTreeCP, public IFishBucket {
 public:
  // As BTreeCP: `scratchRecord` is borrowed and must outlive the bucket.
  LocalFishBucket(const CRC_t& blankKey, FishRecord& scratchRecord, int64_t intervalSeconds,
                  uint32_t order);

  bool open(const Pathname& dir) override;
  void close() override;
  bool retrieve(const CRC_t& key, FishRecord& record) override;
  void addUpdate(const CRC_t& key, const FishRecord& record) override;
  using bt::BTreeCP::addUpdate;
  using bt::BTreeCP::retrieve;
};
