#include "framework/PersistentQueue.h"

#include <vector>

#include "framework/InMemoryQueueWriter.h"
#include "framework/PersistentQueueWriter.h"
#include "framework/PipelineData.h"
#include "util/Logger.h"
#include "util/MetricsRegistry.h"

namespace {

Logger gLogger("PersistentQueue");

}  // namespace

PersistentQueue::LockedWriter::LockedWriter(PersistentQueue* parent, const Str& name,
                                            QueueWriterImpl* impl)
    : _parent(parent), _name(name), _impl(impl) {}

PersistentQueue::LockedWriter::~LockedWriter() { delete _impl; }

bool PersistentQueue::LockedWriter::insertAndClear(CowPipelineData& event,
                                                   const ConditionWaitTimeout& timeout) {
  ScopedLock lock(_parent->_mutex);
  if (_parent->_shutdown) return false;
  if (!_impl->insertAndClear(event)) {
    _roomAvailable.wait(_parent->_mutex, timeout);
    if (_parent->_shutdown || !_impl->insertAndClear(event)) return false;
  }
  _parent->_dataAvailable.internal_wake_one();
  return true;
}

bool PersistentQueue::LockedWriter::isFull() {
  ScopedLock lock(_parent->_mutex);
  return _impl->isFull();
}

uint64_t PersistentQueue::LockedWriter::getSize() {
  ScopedLock lock(_parent->_mutex);
  return _impl->getSize();
}

bool PersistentQueue::LockedWriter::remove(CowPipelineData& out) {
  if (!_impl->remove(out)) return false;
  if (_impl->isHalfEmpty()) _roomAvailable.wake_all();
  return true;
}

PersistentQueue::PersistentQueue(const Str& name) : _name(name), _next(_writers.end()) {}

PersistentQueue::~PersistentQueue() {
  shutdown();
  for (LockedWriter* w : _writers) delete w;
}

Str PersistentQueue::metricsName(const LockedWriter* w) {
  return Str().format("%s:%s", w->_impl->metricsPrefix(), w->name().c_str());
}

QueueWriter* PersistentQueue::internal_addWriter(WriterMap& map, const Str& name,
                                                QueueWriterImpl* impl) {
  LockedWriter* w;
  {
    ScopedLock lock(_mutex);
    auto it = map.find(name);
    if (it != map.end()) {
      delete impl;
      return it->second;
    }
    w = new LockedWriter(this, name, impl);
    map[name] = w;
    _writers.insert(w);
    if (_next == _writers.end()) _next = _writers.begin();
  }
  // Registered outside the mutex: the callback takes it.
  const Str writerName = name;
  MetricsRegistry::instance().registerCallback(
      metricsName(w),
      [this, &map, writerName](metric* m) { reportMetrics(map, writerName, m); });
  return w;
}

void PersistentQueue::reportMetrics(const WriterMap& map, const Str& writerName, metric* m) {
  ScopedLock lock(_mutex);
  auto it = map.find(writerName);
  if (it != map.end()) it->second->_impl->addMetrics(m);
}

QueueWriter* PersistentQueue::getPersistentQueueWriter(const Str& name, uint64_t memorySize,
                                                       uint64_t fileSize,
                                                       const Pathname& path) {
  {
    ScopedLock lock(_mutex);
    auto it = _persistentWriters.find(name);
    if (it != _persistentWriters.end()) return it->second;
  }
  return internal_addWriter(_persistentWriters, name,
                            new PersistentQueueWriter(memorySize, fileSize, path));
}

QueueWriter* PersistentQueue::getInMemoryWriter(const Str& name, uint64_t size) {
  {
    ScopedLock lock(_mutex);
    auto it = _inMemoryWriters.find(name);
    if (it != _inMemoryWriters.end()) return it->second;
  }
  return internal_addWriter(_inMemoryWriters, name, new InMemoryQueueWriter(size));
}

QueueWriter* PersistentQueue::setWriter(const Str& name, QueueWriterImpl* impl) {
  return internal_addWriter(_inMemoryWriters, name, impl);
}

bool PersistentQueue::remove(CowPipelineData& out) {
  ScopedLock lock(_mutex);
  return internal_remove(out);
}

bool PersistentQueue::internal_remove(CowPipelineData& out) {
  if (_shutdown || _writers.empty()) return false;
  // One full turn from where the last removal left off, so that every
  // writer is served in turn.
  for (size_t i = 0; i < _writers.size(); i++) {
    if (_next == _writers.end()) _next = _writers.begin();
    LockedWriter* w = *_next;
    ++_next;
    if (w->_impl->hasData() && w->remove(out)) return true;
  }
  return false;
}

bool PersistentQueue::remove(CowPipelineData& out, const ConditionWaitTimeout& timeout) {
  ScopedLock lock(_mutex);
  if (internal_remove(out)) return true;
  if (_shutdown) return false;
  _dataAvailable.wait(_mutex, timeout);
  return internal_remove(out);
}

bool PersistentQueue::isShutdown() {
  ScopedLock lock(_mutex);
  return _shutdown;
}

void PersistentQueue::shutdown() {
  {
    ScopedLock lock(_mutex);
    if (_shutdown) return;
    _shutdown = true;
    _dataAvailable.wake_all();
    for (LockedWriter* w : _writers) w->_roomAvailable.wake_all();
  }
  shutdownQueue(_inMemoryWriters);
  shutdownQueue(_persistentWriters);
}

void PersistentQueue::shutdownQueue(WriterMap& map) {
  std::vector<LockedWriter*> writers;
  {
    ScopedLock lock(_mutex);
    for (auto& kv : map) writers.push_back(kv.second);
  }
  for (LockedWriter* w : writers) {
    const Str name = metricsName(w);
    gLogger.info("Unregistering callback for: %s", name.c_str());
    MetricsRegistry::instance().unregisterCallback(name);
  }
  // The writers themselves live until the queue does: producers may still
  // hold them, and find the queue shut down.
  ScopedLock lock(_mutex);
  for (LockedWriter* w : writers) w->_impl->shutdown();
}
