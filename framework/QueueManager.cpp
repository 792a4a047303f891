#include "framework/QueueManager.h"

#include <cctype>
#include <vector>

#include "framework/PersistentQueue.h"
#include "framework/PersistentQueueConfig.h"
#include "framework/ProducerConsumerQueue.h"
#include "libbundle/PropertiesMap.h"
#include "util/Logger.h"
#include "util/UnitUtil.h"

namespace {

Logger gLogger("QueueManager");

constexpr unsigned long FALLBACK_UNITS = 1000;
constexpr int UNIT_SHIFT = 9;  // "maxSize" digits count 512-byte units

bool allDigits(const Str& s) {
  if (s.empty()) return false;
  for (char c : s) {
    if (!std::isdigit(static_cast<unsigned char>(c))) return false;
  }
  return true;
}

const Str* maxSizeOf(const Str& stanzaName, PropertiesMap* stanza) {
  fillQueueStanza("server", stanzaName, stanza);
  const Property* p = stanza->getProperty("maxSize");
  return p == nullptr || p->value().empty() ? nullptr : &p->value();
}

}  // namespace

bool parseQueueSizeValue(const Str& value, uint64_t* out) {
  if (allDigits(value)) {
    uint64_t units = 0;
    if (!UnitUtil::parseSizeInBytes(value, &units) || units > (UINT64_MAX >> UNIT_SHIFT)) {
      units = FALLBACK_UNITS;
    }
    *out = units << UNIT_SHIFT;
    return true;
  }
  return UnitUtil::parseSizeInBytes(value, out);
}

Mutex QueueManager::_instanceMutex;

QueueManager& QueueManager::instance() {
  static QueueManager* manager = [] {
    ScopedLock lock(_instanceMutex);
    return new QueueManager;
  }();
  return *manager;
}

QueueManager::QueueManager(uint64_t defaultSize) : _defaultSize(defaultSize) {}

QueueManager::QueueManager() : _defaultSize(FALLBACK_UNITS << UNIT_SHIFT) {
  PropertiesMap stanza;
  const Str* value = maxSizeOf("queue", &stanza);
  if (value == nullptr) return;
  gLogger.debug("using %s=%s for default queue", "maxSize", value->c_str());
  if (!parseQueueSizeValue(*value, &_defaultSize)) {
    _defaultSize = FALLBACK_UNITS << UNIT_SHIFT;
    gLogger.warn() << "Could not parse global queue configuration " << "maxSize" << "="
                   << *value << ". Please specify in form d+(K|M|G|T)B";
  }
}

uint64_t QueueManager::getQueueSize(const Str& name) {
  PropertiesMap stanza;
  const Str* value = maxSizeOf(Str::operator_plus("queue=", name), &stanza);
  if (value == nullptr) return _defaultSize;
  gLogger.debug("using %s=%s for queue=%s", "maxSize", value->c_str(), name.c_str());
  uint64_t size = 0;
  if (parseQueueSizeValue(*value, &size)) return size;
  gLogger.warn() << "Could not parse queue configuration for " << name << ". " << "maxSize"
                 << "=" << *value << ". Please specify in form d+(K|M|G|T)B";
  return _defaultSize;
}

ProducerConsumerQueue* QueueManager::internal_find(const Str& name) {
  auto it = _queues.find(name);
  return it == _queues.end() ? nullptr : it->second;
}

ProducerConsumerQueue* QueueManager::getQueue(const Str& name) {
  {
    ScopedLock lock(_instanceMutex);
    if (ProducerConsumerQueue* q = internal_find(name)) return q;
  }
  return getInMemoryQueue(name, getQueueSize(name));
}

ProducerConsumerQueue* QueueManager::getInMemoryQueue(const Str& name, uint64_t size) {
  ScopedLock lock(_instanceMutex);
  if (ProducerConsumerQueue* q = internal_find(name)) return q;
  PersistentQueue* pq = PersistentQueueManager::getInstance().getQueue(name);
  auto* q = new ProducerConsumerQueue(pq, pq->getReader(), pq->getInMemoryWriter(name, size));
  _queues[name] = q;
  return q;
}

ProducerConsumerQueue* QueueManager::getPersistentQueue(const Str& name, uint64_t memorySize,
                                                        uint64_t fileSize,
                                                        const Pathname& path) {
  ScopedLock lock(_instanceMutex);
  if (ProducerConsumerQueue* q = internal_find(name)) return q;
  PersistentQueue* pq = PersistentQueueManager::getInstance().getQueue(name);
  auto* q = new ProducerConsumerQueue(
      pq, pq->getReader(), pq->getPersistentQueueWriter(name, memorySize, fileSize, path));
  _queues[name] = q;
  return q;
}

void QueueManager::shutdown(const Str& name) {
  ProducerConsumerQueue* q;
  {
    ScopedLock lock(_instanceMutex);
    q = internal_find(name);
    if (q == nullptr) return;
    _queues.erase(name);
  }
  q->shutdown();
  delete q;
  PersistentQueueManager::getInstance().shutdown(name);
}

Mutex PersistentQueueManager::_singletonMutex;

PersistentQueueManager& PersistentQueueManager::getInstance() {
  static PersistentQueueManager* manager = [] {
    ScopedLock lock(_singletonMutex);
    return new PersistentQueueManager;
  }();
  return *manager;
}

PersistentQueue* PersistentQueueManager::getQueue(const Str& name) {
  ScopedLock lock(_mutex);
  PersistentQueue*& q = _queues[name];
  if (q == nullptr) q = new PersistentQueue(name);
  return q;
}

bool PersistentQueueManager::exists(const Str& name) {
  ScopedLock lock(_mutex);
  return _queues.count(name) != 0;
}

void PersistentQueueManager::shutdown(const Str& name) {
  PersistentQueue* q = nullptr;
  {
    ScopedLock lock(_mutex);
    auto it = _queues.find(name);
    if (it == _queues.end()) return;
    q = it->second;
    _queues.erase(it);
  }
  q->shutdown();
  delete q;
}

void PersistentQueueManager::shutdown() {
  PersistentQueueManager& m = getInstance();
  std::vector<PersistentQueue*> queues;
  {
    ScopedLock lock(m._mutex);
    for (auto& kv : m._queues) queues.push_back(kv.second);
    m._queues.clear();
  }
  for (PersistentQueue* q : queues) {
    q->shutdown();
    delete q;
  }
}
