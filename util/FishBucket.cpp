#include "util/FishBucket.h"

LocalFishBucket::LocalFishBucket(const CRC_t& blankKey, FishRecord& scratchRecord,
                                 int64_t intervalSeconds, uint32_t order)
    : bt::BTreeCP(blankKey, scratchRecord, intervalSeconds, order) {}

bool LocalFishBucket::open(const Pathname& dir) { return bt::BTreeCP::open(dir); }

void LocalFishBucket::close() { bt::BTreeCP::close(); }

bool LocalFishBucket::retrieve(const CRC_t& key, FishRecord& record) {
  return bt::BTreeCP::retrieve(key, record);
}

void LocalFishBucket::addUpdate(const CRC_t& key, const FishRecord& record) {
  bt::BTreeCP::addUpdate(key, record);
}
