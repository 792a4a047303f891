#include "framework/ProducerConsumerQueue.h"

#include "framework/PersistentQueue.h"

ProducerConsumerQueue::ProducerConsumerQueue(Str& name, unsigned long size)
    : _queue(new PersistentQueue(name)), _ownsQueue(true) {
  _reader = _queue->getReader();
  _writer = _queue->getInMemoryWriter(name, size);
}

ProducerConsumerQueue::ProducerConsumerQueue(PersistentQueue* queue, QueueReader* reader,
                                             QueueWriter* writer)
    : _queue(queue), _reader(reader), _writer(writer), _ownsQueue(false) {}

ProducerConsumerQueue::~ProducerConsumerQueue() {
  if (_ownsQueue) delete _queue;
}

bool ProducerConsumerQueue::insertAndClear(CowPipelineData& event,
                                           const ConditionWaitTimeout& timeout) {
  return _writer->insertAndClear(event, timeout);
}

bool ProducerConsumerQueue::remove(CowPipelineData& out, const ConditionWaitTimeout& timeout) {
  return _reader->remove(out, timeout);
}

uint64_t ProducerConsumerQueue::getSize() { return _writer->getSize(); }

bool ProducerConsumerQueue::isFull() { return _writer->isFull(); }

void ProducerConsumerQueue::shutdown() { _queue->shutdown(); }
