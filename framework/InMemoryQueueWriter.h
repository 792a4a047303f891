// Writer sides that keep their events in memory only: bounded by the bytes
// the events take, or by their number.
#pragma once

#include <cstdint>

#include "framework/PipelineData.h"
#include "framework/Queue.h"

// isFull() reports room only while this much more would fit.
constexpr uint64_t INMEMORY_QUEUE_FULL_MARGIN = 500;

// Bounded by bytes: an event costs its raw length plus 200. One event
// larger than the whole queue still enters an empty queue, so a queue of
// size 0 holds one event at a time.
// Thread story: externally locked (QueueWriterImpl).
class InMemoryQueueWriter : public QueueWriterImpl {
 public:
  explicit InMemoryQueueWriter(uint64_t maxBytes) : _maxBytes(maxBytes) {}
  ~InMemoryQueueWriter() override;

  // Refuses when the event does not fit and the queue is not empty.
  bool insertAndClear(CowPipelineData& event) override;
  bool hasData() override { return !_deque.empty(); }
  // False while 500 more bytes would fit; true otherwise unless empty.
  bool isFull() override;
  // More than half the maximum is free; never while an oversized event
  // holds more than the maximum.
  bool isHalfEmpty() override {
    return _curBytes < _maxBytes && _maxBytes - _curBytes > _maxBytes / 2;
  }
  uint64_t getSize() override { return _curCount; }
  // An empty queue also forgets its byte count.
  bool remove(CowPipelineData& out) override;
  // "current size", "largest size", "smallest size" (events), "max size",
  // "current size kb", "max size kb" (bytes), "blocked" while full.
  void addMetrics(metric* m) override;
  void shutdown() override {}

  uint64_t maxBytes() const { return _maxBytes; }
  uint64_t currentBytes() const { return _curBytes; }

 private:
  uint64_t _maxBytes;
  uint64_t _curBytes = 0;
  uint64_t _curCount = 0;
  uint64_t _largestCount = 0;
  uint64_t _smallestCount = 0;
  PipelineDataDeque _deque;
};

// Bounded by the number of events. Thread story: externally locked.
class InMemoryQueueWriterByCount : public QueueWriterImpl {
 public:
  explicit InMemoryQueueWriterByCount(uint64_t maxCount) : _maxCount(maxCount) {}
  ~InMemoryQueueWriterByCount() override;

  // Refuses at or beyond the maximum count.
  bool insertAndClear(CowPipelineData& event) override;
  bool hasData() override { return !_deque.empty(); }
  bool isFull() override { return _deque.size() >= _maxCount; }
  bool isHalfEmpty() override { return _deque.size() <= _maxCount / 2; }
  uint64_t getSize() override { return _deque.size(); }
  bool remove(CowPipelineData& out) override;
  // "current size", "largest size", "smallest size", "max size" (events),
  // "blocked" while full.
  void addMetrics(metric* m) override;
  void shutdown() override {}

 protected:
  // The insertion itself, without the limit, for writers that admit some
  // events past it.
  void internal_push(CowPipelineData& event);

 private:
  uint64_t _largestCount = 0;
  uint64_t _smallestCount = 0;
  PipelineDataDeque _deque;
  uint64_t _maxCount;
};


// Drops the references a deque still owns and empties it.
void clearPipelineDataDeque(PipelineDataDeque& deque);
