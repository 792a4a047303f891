#include "framework/PipelineDataRawStorage.h"

#include <cstring>

#include "util/Assert.h"

PipelineDataRawStoragePool ressurrectedPD_mempool_128(112, 400);
PipelineDataRawStoragePool ressurrectedPD_mempool_256(240, 80);
PipelineDataRawStoragePool ressurrectedPD_mempool_512(496, 30);
PipelineDataRawStoragePool ressurrectedPD_mempool_1K(1008, 10);
PipelineDataRawStoragePool ressurrectedPD_mempool_2K(2032, 5);
PipelineDataRawStoragePool ressurrectedPD_mempool_8K(8192, 5);
// Between 16 KiB and 32 KiB at their geometric mean.
PipelineDataRawStoragePool ressurrectedPD_mempool_23K(23170, 4);
PipelineDataRawStoragePool ressurrectedPD_mempool_LWF(65536, 30);
PipelineDataRawStoragePool ressurrectedPD_mempool_oversize(0, 0);

namespace {

PipelineDataRawStoragePool* const kSizedPools[] = {
    &ressurrectedPD_mempool_128, &ressurrectedPD_mempool_256, &ressurrectedPD_mempool_512,
    &ressurrectedPD_mempool_1K,  &ressurrectedPD_mempool_2K,  &ressurrectedPD_mempool_8K,
    &ressurrectedPD_mempool_23K, &ressurrectedPD_mempool_LWF,
};

void freeStorage(PipelineDataRawStorage* s) {
  delete[] s->data;
  delete s;
}

}  // namespace

PipelineDataRawStorageObserver::~PipelineDataRawStorageObserver() = default;

void PipelineDataRawStorage::release_last() {
  if (_observer != nullptr) {
    _observer->destroyed(this);
    delete _observer;
    _observer = nullptr;
  }
  _pool->release(this);
}

PipelineDataRawStoragePool::~PipelineDataRawStoragePool() {
  PipelineDataRawStorage* s = _freeHead.load();
  while (s != nullptr) {
    PipelineDataRawStorage* next = s->_nextFree;
    freeStorage(s);
    s = next;
  }
}

PipelineDataRawStorage* PipelineDataRawStoragePool::alloc() {
  if (_freeHead.load(std::memory_order_acquire) != nullptr) {
    ScopedLock lock(_mutex);
    PipelineDataRawStorage* s = _freeHead.load(std::memory_order_relaxed);
    if (s != nullptr) {
      _freeHead.store(s->_nextFree, std::memory_order_release);
      _freeCount.fetch_sub(1, std::memory_order_relaxed);
      s->_nextFree = nullptr;
      return s;
    }
  }
  PipelineDataRawStorage* s = new PipelineDataRawStorage;
  s->data = new char[_elemSize];
  s->_pool = this;
  return s;
}

void PipelineDataRawStoragePool::release(PipelineDataRawStorage* s) {
  if (_freeCount.load(std::memory_order_relaxed) >= _maxFree) {
    freeStorage(s);
    return;
  }
  s->_refcnt.store(1, std::memory_order_relaxed);
  ScopedLock lock(_mutex);
  s->_nextFree = _freeHead.load(std::memory_order_relaxed);
  _freeHead.store(s, std::memory_order_release);
  _freeCount.fetch_add(1, std::memory_order_relaxed);
}

void PipelineDataRawStorageReference::findPool(size_t size) {
  size_t lo = 0, hi = sizeof(kSizedPools) / sizeof(kSizedPools[0]);
  while (lo < hi) {
    const size_t mid = (lo + hi) / 2;
    if (kSizedPools[mid]->_elemSize < size) {
      lo = mid + 1;
    } else {
      hi = mid;
    }
  }
  _poolp = lo < sizeof(kSizedPools) / sizeof(kSizedPools[0]) ? kSizedPools[lo]
                                                              : &ressurrectedPD_mempool_oversize;
}

void PipelineDataRawStorageReference::set(StrSegment bytes) {
  kassert(_p == nullptr);
  if (_poolp == nullptr) findPool(bytes.size());
  if (bytes.size() <= _poolp->_elemSize) {
    _p = _poolp->alloc();
  } else {
    kassert(_poolp->_maxFree == 0 && _poolp->_elemSize == 0);
    _p = new PipelineDataRawStorage;
    _p->data = new char[bytes.size() == 0 ? 1 : bytes.size()];
    _p->_pool = _poolp;
  }
  if (!bytes.empty()) std::memcpy(_p->data, bytes.data(), bytes.size());
}
