// Pooled byte blocks that hold the raw text of events read back from a
// queue, so that a reader does not allocate per event and events cut from
// one block (sub-ranges, adjacent lines) share it.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "util/Mutex.h"
#include "util/StrSegment.h"

class CowPipelineData;
class PipelineDataRawStorage;
class PipelineDataRawStoragePool;

// Told when an event takes a block and when the block goes back.
class PipelineDataRawStorageObserver {
 public:
  virtual ~PipelineDataRawStorageObserver();
  virtual void setPD(CowPipelineData& pd) = 0;
  virtual void destroyed(PipelineDataRawStorage* storage) = 0;
};

// One block. Thread story: the count is atomic; the bytes are written once,
// before the block is shared.
class PipelineDataRawStorage {
 public:
  char* data = nullptr;
  std::atomic<uint32_t> _refcnt{1};
  PipelineDataRawStoragePool* _pool = nullptr;
  PipelineDataRawStorage* _nextFree = nullptr;
  PipelineDataRawStorageObserver* _observer = nullptr;

  void add_reference() { _refcnt.fetch_add(1, std::memory_order_relaxed); }
  // Drops one reference; the last one gives the block back to its pool.
  void abandon() {
    if (_refcnt.fetch_sub(1, std::memory_order_acq_rel) == 1) release_last();
  }
  void release_last();
};

// Free list of blocks of one size. The oversize pool (`_elemSize` 0) keeps
// nothing: each of its blocks has exactly the bytes it was asked for.
// Thread story: the list is under `_mutex`; the capacity test before a push
// is made without it, so the list may exceed `_maxFree` slightly.
class PipelineDataRawStoragePool {
 public:
  constexpr PipelineDataRawStoragePool(uint64_t elemSize, uint32_t maxFree)
      : _maxFree(maxFree), _elemSize(elemSize) {}
  ~PipelineDataRawStoragePool();
  PipelineDataRawStoragePool(const PipelineDataRawStoragePool&) = delete;
  PipelineDataRawStoragePool& operator=(const PipelineDataRawStoragePool&) = delete;

  PipelineDataRawStorage* alloc();
  void release(PipelineDataRawStorage* storage);

  Mutex _mutex;
  std::atomic<PipelineDataRawStorage*> _freeHead{nullptr};
  std::atomic<uint32_t> _freeCount{0};
  uint32_t _maxFree;
  uint64_t _elemSize;
};

extern PipelineDataRawStoragePool ressurrectedPD_mempool_128;
extern PipelineDataRawStoragePool ressurrectedPD_mempool_256;
extern PipelineDataRawStoragePool ressurrectedPD_mempool_512;
extern PipelineDataRawStoragePool ressurrectedPD_mempool_1K;
extern PipelineDataRawStoragePool ressurrectedPD_mempool_2K;
extern PipelineDataRawStoragePool ressurrectedPD_mempool_8K;
extern PipelineDataRawStoragePool ressurrectedPD_mempool_23K;
extern PipelineDataRawStoragePool ressurrectedPD_mempool_LWF;
extern PipelineDataRawStoragePool ressurrectedPD_mempool_oversize;

// A block being filled: the chosen pool, then the block once set.
class PipelineDataRawStorageReference {
 public:
  PipelineDataRawStorageReference() = default;
  ~PipelineDataRawStorageReference() {
    if (_p != nullptr) _p->abandon();
  }
  PipelineDataRawStorageReference(const PipelineDataRawStorageReference&) = delete;
  PipelineDataRawStorageReference& operator=(const PipelineDataRawStorageReference&) = delete;

  // The smallest sized pool whose elements hold `size` bytes; above 65536
  // the oversize pool.
  void findPool(size_t size);
  // Takes a block from the chosen pool and copies the bytes in.
  // REQUIRES: "_p == nullptr".
  void set(StrSegment bytes);

  PipelineDataRawStorage* _p = nullptr;
  PipelineDataRawStoragePool* _poolp = nullptr;
};

// Carries an observer into PipelineData::ressurrect, which takes it over.
class PipelineDataRawStorageObserverRef {
 public:
  PipelineDataRawStorageObserverRef() = default;
  explicit PipelineDataRawStorageObserverRef(PipelineDataRawStorageObserver* o) : _observer(o) {}
  ~PipelineDataRawStorageObserverRef() { delete _observer; }
  PipelineDataRawStorageObserverRef(const PipelineDataRawStorageObserverRef&) = delete;
  PipelineDataRawStorageObserverRef& operator=(const PipelineDataRawStorageObserverRef&) = delete;
  PipelineDataRawStorageObserver* take() {
    PipelineDataRawStorageObserver* o = _observer;
    _observer = nullptr;
    return o;
  }
  PipelineDataRawStorageObserver* get() const { return _observer; }

 private:
  PipelineDataRawStorageObserver* _observer = nullptr;
};
