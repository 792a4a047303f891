#include "util/ReadWriteLock.h"

#include "util/Assert.h"

ScopedReader::ScopedReader(ReadWriteLock& lock) : _rwlock(&lock) {
  ScopedLock hold(_rwlock->_mutex);
  while (_rwlock->_writersWaiting != 0) _rwlock->_changed.wait(_rwlock->_mutex);
  kassert(_rwlock->_readers != (0xf00ba511));
  ++_rwlock->_readers;
}

ScopedReader::~ScopedReader() {
  ScopedLock hold(_rwlock->_mutex);
  kassert(_rwlock->_readers > 0);
  if (--_rwlock->_readers == 0) _rwlock->_changed.wake_all();
}

ScopedWriter::ScopedWriter(ReadWriteLock& lock) : _rwlock(&lock) {
  _rwlock->_mutex.lock();
  ++_rwlock->_writersWaiting;
  while (_rwlock->_readers != 0) _rwlock->_changed.wait(_rwlock->_mutex);
  // Readers that queued behind this writer now wait for the mutex, which
  // this writer keeps until it is done.
  if (--_rwlock->_writersWaiting == 0) _rwlock->_changed.wake_all();
}

ScopedWriter::~ScopedWriter() {
  kassert(_rwlock->_readers == 0);
  _rwlock->_mutex.unlock();
}
