// The hub of every queue, persistent or not: one reader side over any
// number of named writer sides, served round robin, under one mutex.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <set>

#include "framework/Queue.h"
#include "util/Mutex.h"
#include "util/Pathname.h"
#include "util/PthreadCondition.h"
#include "util/Str.h"

class PersistentQueueWriter;

// Thread story: safe from any thread. `_mutex` guards every writer and the
// maps; producers wait on their writer's room condition, consumers on the
// queue's data condition. A producer is woken only when its writer is half
// empty, so that a busy consumer does not wake it on every removal.
//
// Each writer reports metrics under "queue:<name>" or
// "persistentQueue:<name>" while it exists; the callback takes `_mutex`.
class PersistentQueue : public Queue, public QueueReader {
 public:
  // The memory charged to one event on top of its raw length.
  static constexpr uint16_t COWPD_META_OVERHEAD = 200;

  // A writer side: the writer implementation under the queue's mutex.
  class LockedWriter : public QueueWriter {
   public:
    LockedWriter(PersistentQueue* parent, const Str& name, QueueWriterImpl* impl);
    ~LockedWriter() override;
    // Tries; when refused waits once on this writer's room condition and
    // tries once more. A success wakes one consumer.
    bool insertAndClear(CowPipelineData& event, const ConditionWaitTimeout& timeout) override;
    bool isFull() override;
    uint64_t getSize() override;
    const Str& name() const { return _name; }
    QueueWriterImpl* impl() { return _impl; }

   private:
    friend class PersistentQueue;
    // REQUIRES: the parent's mutex is held. Wakes all producers of this
    // writer when it is half empty afterwards.
    bool remove(CowPipelineData& out);

    PersistentQueue* _parent;
    Str _name;
    QueueWriterImpl* _impl;  // owned
    ConditionWakeAll _roomAvailable;
  };

  explicit PersistentQueue(const Str& name);
  ~PersistentQueue() override;
  PersistentQueue(const PersistentQueue&) = delete;
  PersistentQueue& operator=(const PersistentQueue&) = delete;

  // The writer named `name`, made on first use with these sizes and path;
  // later calls return the same writer and ignore the sizes.
  QueueWriter* getPersistentQueueWriter(const Str& name, uint64_t memorySize,
                                        uint64_t fileSize, const Pathname& path);
  // The in-memory writer named `name`, bounded by `size` bytes.
  QueueWriter* getInMemoryWriter(const Str& name, uint64_t size);
  // Installs `impl` (taking ownership) as the in-memory writer `name`; an
  // existing writer of that name keeps its place and `impl` is deleted.
  QueueWriter* setWriter(const Str& name, QueueWriterImpl* impl);

  QueueReader* getReader() override { return this; }
  // The next event from the writers in turn; false when none has one or the
  // queue is shut down.
  bool remove(CowPipelineData& out);
  // As remove(out), waiting once for at most `timeout` when there is none.
  bool remove(CowPipelineData& out, const ConditionWaitTimeout& timeout) override;
  // Refuses later inserts and removes, wakes every waiter, and shuts down
  // every writer (persistent ones write memory to their file). The writer
  // objects stay valid, refusing everything, until the queue is deleted.
  // A second call does nothing.
  void shutdown() override;
  bool isShutdown();
  const Str& name() const { return _name; }

 private:
  typedef std::map<Str, LockedWriter*> WriterMap;
  // Name order makes the round robin predictable; an in-memory and a
  // persistent writer may share a name, so equal names fall back to the
  // objects' addresses and both stay in the set.
  struct ByName {
    bool operator()(const LockedWriter* a, const LockedWriter* b) const {
      if (a->name() != b->name()) return a->name() < b->name();
      return std::less<const LockedWriter*>()(a, b);
    }
  };

  QueueWriter* internal_addWriter(WriterMap& map, const Str& name, QueueWriterImpl* impl);
  // remove(out) with `_mutex` already held.
  bool internal_remove(CowPipelineData& out);
  // Unregisters the metrics of the writers in `map` without the mutex, then
  // shuts them down under it.
  void shutdownQueue(WriterMap& map);
  // The figures of the writer `writerName` of `map` only: the other map may
  // hold a writer of the same name, reported under its own prefix.
  void reportMetrics(const WriterMap& map, const Str& writerName, metric* m);
  static Str metricsName(const LockedWriter* w);

  Str _name;
  ConditionMutex _mutex;
  WriterMap _inMemoryWriters;               // guarded by _mutex
  WriterMap _persistentWriters;             // guarded by _mutex
  std::set<LockedWriter*, ByName> _writers;  // guarded by _mutex
  std::set<LockedWriter*, ByName>::iterator _next;  // guarded by _mutex
  ConditionWakeAll _dataAvailable;
  bool _shutdown = false;  // guarded by _mutex
};
