#include "framework/InMemoryQueueWriter.h"

#include "framework/PersistentQueue.h"
#include "util/MetricsRegistry.h"

namespace {

uint64_t eventCost(const CowPipelineData& event) {
  return event->rawSize() + PersistentQueue::COWPD_META_OVERHEAD;
}

}  // namespace

void clearPipelineDataDeque(PipelineDataDeque& deque) {
  for (PipelineData* pd : deque) CowPipelineData::drop_reference(pd);
  deque.clear();
}

InMemoryQueueWriter::~InMemoryQueueWriter() { clearPipelineDataDeque(_deque); }

bool InMemoryQueueWriter::insertAndClear(CowPipelineData& event) {
  const uint64_t cost = eventCost(event);
  if (_maxBytes < _curBytes + cost && _curBytes != 0) return false;
  _curBytes += cost;
  event.pushToBackAndClear(_deque);
  _curCount++;
  if (_curCount > _largestCount) _largestCount = _curCount;
  return true;
}

bool InMemoryQueueWriter::isFull() {
  if (_curBytes + INMEMORY_QUEUE_FULL_MARGIN <= _maxBytes) return false;
  return _curBytes != 0;
}

bool InMemoryQueueWriter::remove(CowPipelineData& out) {
  if (!out.fetchFromFront(_deque)) {
    _curBytes = 0;
    return false;
  }
  const uint64_t cost = eventCost(out);
  _curBytes = cost > _curBytes ? 0 : _curBytes - cost;
  _curCount--;
  if (_curCount < _smallestCount) _smallestCount = _curCount;
  return true;
}

void InMemoryQueueWriter::addMetrics(metric* m) {
  m->add("current size", _curCount);
  m->add("largest size", _largestCount);
  m->add("smallest size", _smallestCount);
  m->add("max size", _maxBytes);
  m->add("current size kb", _curBytes >> 10);
  m->add("max size kb", _maxBytes >> 10);
  if (isFull()) m->add("blocked", Str("true"));
  _largestCount = _smallestCount = _curCount;
}

InMemoryQueueWriterByCount::~InMemoryQueueWriterByCount() { clearPipelineDataDeque(_deque); }

bool InMemoryQueueWriterByCount::insertAndClear(CowPipelineData& event) {
  if (_deque.size() >= _maxCount) return false;
  internal_push(event);
  return true;
}

void InMemoryQueueWriterByCount::internal_push(CowPipelineData& event) {
  event.pushToBackAndClear(_deque);
  if (_deque.size() > _largestCount) _largestCount = _deque.size();
}

bool InMemoryQueueWriterByCount::remove(CowPipelineData& out) {
  if (!out.fetchFromFront(_deque)) return false;
  if (_deque.size() < _smallestCount) _smallestCount = _deque.size();
  return true;
}

void InMemoryQueueWriterByCount::addMetrics(metric* m) {
  m->add("current size", static_cast<uint64_t>(_deque.size()));
  m->add("largest size", _largestCount);
  m->add("smallest size", _smallestCount);
  m->add("max size", _maxCount);
  if (isFull()) m->add("blocked", Str("true"));
  _largestCount = _smallestCount = _deque.size();
}
