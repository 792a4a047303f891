// A queue as its users see it: one writer side and the reader side of a
// PersistentQueue, behind one handle.
#pragma once

#include <cstdint>

#include "framework/Queue.h"
#include "util/Str.h"

class PersistentQueue;

// Thread story: safe from any thread, as its parts are.
class ProducerConsumerQueue {
 public:
  // A private in-memory queue of `size` bytes, owned by this handle.
  ProducerConsumerQueue(Str& name, unsigned long size);
  // A handle on parts owned elsewhere (QueueManager's queues).
  ProducerConsumerQueue(PersistentQueue* queue, QueueReader* reader, QueueWriter* writer);
  ~ProducerConsumerQueue();
  ProducerConsumerQueue(const ProducerConsumerQueue&) = delete;
  ProducerConsumerQueue& operator=(const ProducerConsumerQueue&) = delete;

  // See QueueWriter::insertAndClear and QueueReader::remove.
  bool insertAndClear(CowPipelineData& event, const ConditionWaitTimeout& timeout);
  bool remove(CowPipelineData& out, const ConditionWaitTimeout& timeout);
  uint64_t getSize();
  bool isFull();
  void shutdown();
  PersistentQueue* queue() const { return _queue; }
  QueueWriter* writer() const { return _writer; }

 private:
  PersistentQueue* _queue;
  QueueReader* _reader;
  QueueWriter* _writer;
  bool _ownsQueue;
};
