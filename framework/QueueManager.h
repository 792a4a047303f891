// The process's queues by name, sized from stanza "queue" and
// "queue=<name>" of the "server" configuration.
#pragma once

#include <cstdint>
#include <map>

#include "util/Mutex.h"
#include "util/Pathname.h"
#include "util/Str.h"

class PersistentQueue;
class ProducerConsumerQueue;

// Thread story: safe from any thread; `_instanceMutex` guards the map.
class QueueManager {
 public:
  static QueueManager& instance();

  // The queue `name`, made in memory with getQueueSize(name) on first use.
  ProducerConsumerQueue* getQueue(const Str& name);
  // The queue `name` with a persistent writer of the same name over `path`.
  ProducerConsumerQueue* getPersistentQueue(const Str& name, uint64_t memorySize,
                                            uint64_t fileSize, const Pathname& path);
  ProducerConsumerQueue* getInMemoryQueue(const Str& name, uint64_t size);
  // "maxSize" of stanza "queue=<name>", else the default of stanza
  // "queue". All digits count 512-byte units; else a size with a unit.
  // Unparsable values warn and fall back (the default: 512000 bytes).
  uint64_t getQueueSize(const Str& name);
  uint64_t defaultQueueSize() const { return _defaultSize; }
  // Shuts the queue down and deletes it, here and in PersistentQueueManager.
  void shutdown(const Str& name);

  // A manager reading nothing from configuration, for tests and tools.
  explicit QueueManager(uint64_t defaultSize);

 private:
  QueueManager();
  ProducerConsumerQueue* internal_find(const Str& name);

  uint64_t _defaultSize;
  static Mutex _instanceMutex;
  std::map<Str, ProducerConsumerQueue*> _queues;  // guarded by _instanceMutex
};

// The PersistentQueue hubs by name. Thread story: safe from any thread.
class PersistentQueueManager {
 public:
  static PersistentQueueManager& getInstance();
  // The hub `name`, made on first use.
  PersistentQueue* getQueue(const Str& name);
  bool exists(const Str& name);
  // Shuts the hub down and deletes it; nothing when there is none.
  void shutdown(const Str& name);
  // Shuts down and deletes every hub.
  static void shutdown();

 private:
  static Mutex _singletonMutex;
  Mutex _mutex;
  std::map<Str, PersistentQueue*> _queues;  // guarded by _mutex
};

// The size a "maxSize"-style value gives: all digits count 512-byte units,
// anything else goes through UnitUtil::parseSizeInBytes. False when it is
// neither; an all-digit value too large to shift is also false.
bool parseQueueSizeValue(const Str& value, uint64_t* out);
