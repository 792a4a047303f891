#include "util/PersistentHashManager.h"

#include <atomic>

namespace {

std::atomic<PersistentHashManager*> gInstance{nullptr};

}  // namespace

PersistentHashManager* PersistentHashManager::getInstance() {
  return gInstance.load(std::memory_order_acquire);
}

PersistentHashManager* PersistentHashManager::setInstance(PersistentHashManager* store) {
  return gInstance.exchange(store, std::memory_order_acq_rel);
}
