// The interfaces of the bounded queues between pipeline stages: a queue
// with one reader side and one or more writer sides, and the unlocked
// writer implementations that keep the events.
#pragma once

#include <cstdint>
#include <stdexcept>

#include "util/Str.h"

class ConditionWaitTimeout;
class CowPipelineData;
struct metric;

// A failure of a persistent queue's file: the message names the file or
// the operation, and, from throwPersistentQueueException, " error=" and
// the system's error text.
class PersistentQueueException : public std::runtime_error {
 public:
  explicit PersistentQueueException(const Str& what) : std::runtime_error(what) {}
};

// A queue file whose first four bytes are not "v1"; the text is those
// bytes up to the first NUL.
class InvalidPersistentQueueVersion : public std::runtime_error {
 public:
  explicit InvalidPersistentQueueVersion(const Str& version) : std::runtime_error(version) {}
};

class QueueReader {
 public:
  virtual ~QueueReader() = default;
  // Moves the next event into `out`, waiting at most once for `timeout`
  // when there is none. False, with `out` left as it was, when nothing came
  // or the queue is shut down.
  virtual bool remove(CowPipelineData& out, const ConditionWaitTimeout& timeout) = 0;
};

class Queue {
 public:
  virtual ~Queue() = default;
  virtual QueueReader* getReader() = 0;
  // Refuses all later inserts and removes and wakes every waiter.
  virtual void shutdown() = 0;
};

// A locked writer side. Safe from any thread.
class QueueWriter {
 public:
  virtual ~QueueWriter() = default;
  // Takes the event and leaves `event` unset; when the queue is full waits
  // once, at most `timeout`, for room. False, with `event` untouched, when
  // there was no room or the queue is shut down.
  virtual bool insertAndClear(CowPipelineData& event, const ConditionWaitTimeout& timeout) = 0;
  virtual bool isFull() = 0;
  // Events held.
  virtual uint64_t getSize() = 0;
};

// The storage behind one writer side. Thread story: no lock of its own;
// every call is made under the owning PersistentQueue's mutex.
class QueueWriterImpl {
 public:
  virtual ~QueueWriterImpl() = default;
  // Takes the event (leaving `event` unset) and returns true, or refuses
  // and leaves it untouched.
  virtual bool insertAndClear(CowPipelineData& event) = 0;
  virtual bool hasData() = 0;
  virtual bool isFull() = 0;
  // True when a blocked producer is worth waking.
  virtual bool isHalfEmpty() = 0;
  // Events held.
  virtual uint64_t getSize() = 0;
  // The oldest event into `out`; false when there is none.
  virtual bool remove(CowPipelineData& out) = 0;
  // Appends this writer's figures to `m` and restarts its largest and
  // smallest sizes from the current one.
  virtual void addMetrics(metric* m) = 0;
  // Last call before deletion: keep what must outlive the process.
  virtual void shutdown() = 0;
  // "queue" or "persistentQueue": the prefix of the metrics name.
  virtual const char* metricsPrefix() const { return "queue"; }
};
