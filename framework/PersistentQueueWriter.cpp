#include "framework/PersistentQueueWriter.h"

#include <cerrno>
#include <cstring>

#include "framework/InMemoryQueueWriter.h"
#include "framework/PersistentQueue.h"
#include "framework/PipelineInputChannel.h"
#include "util/Assert.h"
#include "util/InputStream.h"
#include "util/Logger.h"
#include "util/MetricsRegistry.h"

namespace {

Logger gLogger("PersistentQueueWriter");

uint64_t eventCost(const CowPipelineData& event) {
  return event->rawSize() + PersistentQueue::COWPD_META_OVERHEAD;
}

Str offsetText(const char* before, uint64_t offset, const char* after) {
  return Str().format("%s%llu%s", before, static_cast<unsigned long long>(offset), after);
}

// A record read back: whether it was taken out of the file, so that a
// record that does not parse is dropped instead of read again forever.
class RecordConsumedError : public PersistentQueueException {
 public:
  using PersistentQueueException::PersistentQueueException;
};

}  // namespace

PersistentQueueWriter::PersistentQueueWriter(uint64_t maxMemory, uint64_t maxFileSize,
                                             const Pathname& path)
    : _out(100000, 10), _maxMemory(maxMemory), _maxFileSize(maxFileSize), _path(path) {
  // A zero maximum wants no file, yet what an earlier run left is still
  // read out before the writer goes to memory only.
  if (_maxFileSize != 0 || _path.exists()) {
    try {
      initPersistentQueue();
    } catch (const InvalidPersistentQueueVersion& e) {
      disableFileUse();
      gLogger.error("Version=%s of persistent file=%s not recognizable. Will skip restoring "
                    "queue from file.",
                    e.what(), _path.c_str());
    } catch (const PersistentQueueException& e) {
      _header = PersistentQueueHeaderBlock{};
      disableFileUse();
      gLogger.error("Failed to restore file=%s failed. %s", _path.c_str(), e.what());
    } catch (const std::exception& e) {
      _header = PersistentQueueHeaderBlock{};
      disableFileUse();
      gLogger.error("Failed to restore file=%s failed.  due to unknown exception",
                    _path.c_str());
    }
  }
  _restoredCount = _header.count;
}

PersistentQueueWriter::~PersistentQueueWriter() {
  clearPipelineDataDeque(_deque);
  delete _chansetHolder;
}

void PersistentQueueWriter::initPersistentQueue() {
  if (_path.exists()) {
    openPersistentFile();
    readHeader();
    validateHeader();
    // An empty file takes the configured size; one holding data keeps its
    // size until it is emptied. An empty file of the configured size is left
    // as it is: resetting the header image here would point the next
    // commit at the block that is valid on disk.
    if (_header.count == 0) {
      if (_maxFileSize == 0) {
        disableFileUse();
      } else if (_header.fileSize != _maxFileSize + PQ_HEADER_SIZE) {
        initFileHeader(false);
      }
    }
  } else {
    _header.fileSize = _maxFileSize + PQ_HEADER_SIZE;
    initFileHeader(false);
    openPersistentFile();
    writeHeader();
  }
}

void PersistentQueueWriter::openPersistentFile() {
  const Pathname dir = _path.toParent();
  if (!dir.mkdir_p(Pathname::MKDIR_PRIVATE)) {
    throwPersistentQueueException(Str().format(
        "Could not create directory=%s required for persistent queue.", dir.c_str()));
  }
  _fd = _path.openReadWriteOrCreate(Pathname::CREATE_PRIVATE);
  if (!_fd.valid()) {
    throwPersistentQueueException(Str().format(
        "Could not create or open file=%s required for persistent queue.", _path.c_str()));
  }
  gLogger.debug("Opened file %s for storing persistent queue", _path.c_str());
}

void PersistentQueueWriter::closeFile() { _fd.close(); }

void PersistentQueueWriter::seekTo(uint64_t offset, const Str& message) {
  if (!_fd.seek_set(static_cast<long>(offset))) throwPersistentQueueException(message);
}

void PersistentQueueWriter::throwPersistentQueueException(const Str& message) const {
  const int saved = errno;
  throw PersistentQueueException(
      Str().format("%s error=%s", message.c_str(), std::strerror(saved)));
}

void PersistentQueueWriter::readHeader() {
  seekTo(0, "Could not seek to offset 0 when trying to read header.");
  if (_fd.read(&_header_in_file, PQ_HEADER_SIZE) != static_cast<ssize_t>(PQ_HEADER_SIZE)) {
    throwPersistentQueueException("Could not read Header for data saved in persistent queue");
  }
  if (std::memcmp(_header_in_file._ver, PQ_VERSION, sizeof PQ_VERSION) != 0) {
    throw InvalidPersistentQueueVersion(
        Str(_header_in_file._ver, strnlen(_header_in_file._ver, sizeof _header_in_file._ver)));
  }
  if (std::memcmp(_header_in_file._which, PQ_WHICH_H2, PQ_WHICH_SIZE) == 0) {
    _header = _header_in_file.h2;
    return;
  }
  if (std::memcmp(_header_in_file._which, PQ_WHICH_H1, PQ_WHICH_SIZE) != 0) {
    gLogger.debug("Possible corruption detected in reading from persistent queue.");
    std::memcpy(_header_in_file._which, PQ_WHICH_H1, PQ_WHICH_SIZE);
  }
  _header = _header_in_file.h1;
}

// The valid block must describe a circular area that the records fill
// exactly, and the file must really hold the bytes it claims, so that no
// read can run past what was written or allocate what a damaged length
// claims.
void PersistentQueueWriter::validateHeader() const {
  const PersistentQueueHeaderBlock& h = _header;
  long physical = 0;
  const bool ok = [&] {
    if (!_fd.getSize(&physical) || static_cast<uint64_t>(physical) < h.dataSize) return false;
    if (h.fileSize < PQ_HEADER_SIZE || h.dataSize < PQ_HEADER_SIZE) return false;
    if (h.dataSize > h.fileSize) return false;
    if (h.readOffset < PQ_HEADER_SIZE || h.readOffset > h.fileSize) return false;
    if (h.writeOffset < PQ_HEADER_SIZE || h.writeOffset > h.fileSize) return false;
    const uint64_t stored = h.dataSize - PQ_HEADER_SIZE;
    if ((h.count == 0) != (stored == 0)) return false;
    if (h.count > stored / PQ_RECORD_LENGTH_SIZE) return false;
    const uint64_t area = h.fileSize - PQ_HEADER_SIZE;
    if (area == 0) return h.readOffset == h.writeOffset;
    if (stored >= area) return false;
    const uint64_t r = (h.readOffset - PQ_HEADER_SIZE) % area;
    return (r + stored) % area == (h.writeOffset - PQ_HEADER_SIZE) % area;
  }();
  if (!ok) {
    throw PersistentQueueException(Str().format(
        "Inconsistent header in persistent queue: readOffset=%llu writeOffset=%llu "
        "fileSize=%llu dataSize=%llu count=%llu",
        static_cast<unsigned long long>(h.readOffset),
        static_cast<unsigned long long>(h.writeOffset),
        static_cast<unsigned long long>(h.fileSize),
        static_cast<unsigned long long>(h.dataSize), static_cast<unsigned long long>(h.count)));
  }
}

void PersistentQueueWriter::writeHeader() {
  std::memset(&_header_in_file, 0, sizeof _header_in_file);
  std::memcpy(_header_in_file._ver, PQ_VERSION, sizeof PQ_VERSION);
  _header_in_file.h1 = _header;
  std::memcpy(_header_in_file._which, PQ_WHICH_H1, PQ_WHICH_SIZE);
  seekTo(0, "Could not write header.");
  if (_fd.write(&_header_in_file, PQ_HEADER_SIZE) != static_cast<ssize_t>(PQ_HEADER_SIZE)) {
    throwPersistentQueueException("Could not write header.");
  }
}

void PersistentQueueWriter::updateHeader() {
  if (std::memcmp(_header_in_file._which, PQ_WHICH_H1, PQ_WHICH_SIZE) == 0) {
    _header_in_file.h2 = _header;
    seekTo(PQ_H2_OFFSET, "Failed to seek to header h2 when updating metadata.");
    if (_fd.write(&_header_in_file.h2, PQ_BLOCK_SIZE) != static_cast<ssize_t>(PQ_BLOCK_SIZE)) {
      throwPersistentQueueException("Could not write header h2 trying to update metadata.");
    }
    // Block h2 ends where `which` starts: no seek.
    if (_fd.write(PQ_WHICH_H2, PQ_WHICH_SIZE) != static_cast<ssize_t>(PQ_WHICH_SIZE)) {
      throwPersistentQueueException("Could not write header trying to update metadata.");
    }
    std::memcpy(_header_in_file._which, PQ_WHICH_H2, PQ_WHICH_SIZE);
  } else {
    _header_in_file.h1 = _header;
    seekTo(PQ_H1_OFFSET, "Failed to seek to header h1 when updating metadata.");
    if (_fd.write(&_header_in_file.h1, PQ_BLOCK_SIZE) != static_cast<ssize_t>(PQ_BLOCK_SIZE)) {
      throwPersistentQueueException("Could not write header h1 trying to update metadata.");
    }
    seekTo(PQ_WHICH_OFFSET, "Failed to seek to end of header when trying to update metadata.");
    if (_fd.write(PQ_WHICH_H1, PQ_WHICH_SIZE) != static_cast<ssize_t>(PQ_WHICH_SIZE)) {
      throwPersistentQueueException("Could not write header trying to update metadata.");
    }
    std::memcpy(_header_in_file._which, PQ_WHICH_H1, PQ_WHICH_SIZE);
  }
}

void PersistentQueueWriter::initFileHeader(bool force) {
  const uint64_t oldSize = _header.fileSize;
  _header = PersistentQueueHeaderBlock{PQ_HEADER_SIZE, PQ_HEADER_SIZE,
                                       _maxFileSize + PQ_HEADER_SIZE, PQ_HEADER_SIZE, 0};
  std::memcpy(_header_in_file._ver, PQ_VERSION, sizeof PQ_VERSION);
  _header_in_file.h1 = _header_in_file.h2 = _header;
  std::memcpy(_header_in_file._which, PQ_WHICH_H2, PQ_WHICH_SIZE);
  const bool changed = oldSize != _header.fileSize;
  if (changed) {
    gLogger.info() << "File size changed from " << oldSize << " to " << _header.fileSize
                   << ", sizeof(_header_in_file)=" << PQ_HEADER_SIZE;
  }
  if ((changed || force) && _fd.valid()) {
    // The empty image goes in first, both blocks alike: a process killed
    // during the truncation then leaves an empty queue, not a header that
    // points past the end of the file.
    seekTo(0, "Could not write header.");
    if (_fd.write(&_header_in_file, PQ_HEADER_SIZE) != static_cast<ssize_t>(PQ_HEADER_SIZE)) {
      throwPersistentQueueException("Could not write header.");
    }
    closeFile();
    if (!_path.truncate(static_cast<long>(PQ_HEADER_SIZE))) {
      throwPersistentQueueException(Str().format(
          "Could not truncate file=%s required for persistent queue.", _path.c_str()));
    }
    openPersistentFile();
  }
}

void PersistentQueueWriter::disableFileUse() {
  _maxFileSize = 0;
  _header = PersistentQueueHeaderBlock{};
  closeFile();
}

void PersistentQueueWriter::write(uint64_t* offset, const void* bytes, uint64_t length) {
  const unsigned char* p = static_cast<const unsigned char*>(bytes);
  const uint64_t room = _header.fileSize - *offset;
  auto writeAll = [&](const unsigned char* from, uint64_t n) {
    if (_fd.write(from, n) != static_cast<ssize_t>(n)) {
      throwPersistentQueueException(offsetText("Write failed for ", n, " bytes."));
    }
  };
  if (room < length) {
    seekTo(*offset, offsetText("Could not seek to offset ", *offset,
                               " when writing to persistent queue."));
    if (room != 0) writeAll(p, room);
    seekTo(PQ_HEADER_SIZE, offsetText("Could not seek to offset ", PQ_HEADER_SIZE,
                                      " when writing to persistent queue."));
    writeAll(p + room, length - room);
    *offset = PQ_HEADER_SIZE + (length - room);
  } else {
    seekTo(*offset, offsetText("Failed to seek to ", *offset, " write data."));
    writeAll(p, length);
    *offset += length;
  }
}

uint64_t PersistentQueueWriter::read(uint64_t* offset, void* bytes, uint64_t length) {
  unsigned char* p = static_cast<unsigned char*>(bytes);
  const uint64_t room = _header.fileSize - *offset;
  auto readAll = [&](unsigned char* to, uint64_t n) -> uint64_t {
    const ssize_t got = _fd.read(to, n);
    return got < 0 ? 0 : static_cast<uint64_t>(got);
  };
  if (room < length) {
    seekTo(*offset, offsetText("Could not seek to offset ", *offset,
                               " when reading from persistent queue."));
    uint64_t got = room != 0 ? readAll(p, room) : 0;
    if (got != room) return got;
    seekTo(PQ_HEADER_SIZE, offsetText("Could not seek to offset ", PQ_HEADER_SIZE,
                                      " when reading from persistent queue."));
    got += readAll(p + room, length - room);
    *offset = PQ_HEADER_SIZE + (length - room);
    return got;
  }
  seekTo(*offset, offsetText("Failed to seek to ", *offset, " read data."));
  const uint64_t got = readAll(p, length);
  *offset += length;
  return got;
}

bool PersistentQueueWriter::insertAndClear(CowPipelineData& event) {
  const uint64_t cost = eventCost(event);
  if (_header.count == 0 && _usedMemory + cost < _maxMemory) {
    _usedMemory += cost;
    event.pushToBackAndClear(_deque);
    if (_usedMemory > _largestSize) _largestSize = _usedMemory;
    return true;
  }
  if (_header.fileSize == 0) return false;
  try {
    if (_header.count == 0) spillMemoryToFile();
    const bool inserted = insertAndClearToFile(event, true);
    if (_header.dataSize > _largestSize) _largestSize = _header.dataSize;
    return inserted;
  } catch (const PersistentQueueException& e) {
    gLogger.error("Insert to file=%s failed. %s", _path.c_str(), e.what());
  } catch (const std::exception& e) {
    gLogger.error("Insert to file=%s failed due to unknow exception", _path.c_str());
  }
  return false;
}

void PersistentQueueWriter::spillMemoryToFile() {
  bool enforceLimit = true;
  CowPipelineData event;
  while (!_deque.empty()) {
    event.clear();
    event.frontRef(_deque);
    if (!insertAndClearToFile(event, enforceLimit)) {
      gLogger.warn() << "Persistent file size=" << _maxFileSize << " is too small. "
                     << "Cannot fit contents of queue in memory to persistent file. "
                     << "Please specify a larger persistent file. Will write to file "
                     << "beyond specified limit.";
      enforceLimit = false;
      continue;
    }
    CowPipelineData written;
    written.fetchFromFront(_deque);
  }
  _usedMemory = 0;
}

bool PersistentQueueWriter::insertAndClearToFile(CowPipelineData& event, bool enforceLimit) {
  // The length field is reserved in front of the event's bytes so that a
  // record goes out in one write.
  static const unsigned char kNoLength[PQ_RECORD_LENGTH_SIZE] = {};
  _out.rewind();
  _out.write(PQ_RECORD_LENGTH_SIZE, kNoLength);
  event->serialize(_out);
  const uint64_t length = _out.size() - PQ_RECORD_LENGTH_SIZE;
  std::memcpy(const_cast<unsigned char*>(_out.data()), &length, PQ_RECORD_LENGTH_SIZE);

  const PersistentQueueHeaderBlock before = _header;
  // With nothing stored the area may start over, so that a file grown past
  // its limit below never holds wrapped records.
  if (_header.count == 0) _header.readOffset = _header.writeOffset = PQ_HEADER_SIZE;
  const uint64_t needed = _header.dataSize + length + 2 * PQ_RECORD_LENGTH_SIZE;
  if (needed >= _header.fileSize) {
    if (enforceLimit) {
      _header = before;
      return false;
    }
    _header.fileSize = needed;
  }
  try {
    writeCowPipelineData(_out.data(), length + PQ_RECORD_LENGTH_SIZE);
    updateHeader();
  } catch (const std::exception&) {
    _header = before;
    throw;
  }
  event.clear();
  return true;
}

void PersistentQueueWriter::writeCowPipelineData(const unsigned char* data, uint64_t length) {
  uint64_t offset = _header.writeOffset;
  write(&offset, data, length);
  _header.count++;
  _header.writeOffset = offset;
  _header.dataSize += length;
}

void PersistentQueueWriter::readCowPipelineData(CowPipelineData& out) {
  uint64_t offset = _header.readOffset;
  uint64_t length = 0;
  if (read(&offset, &length, PQ_RECORD_LENGTH_SIZE) != PQ_RECORD_LENGTH_SIZE) {
    throwPersistentQueueException("Failed to read size of CowPipelineData.");
  }
  // A length the stored bytes cannot hold is damage; believing it would
  // allocate what the file claims.
  if (length > _header.dataSize - PQ_HEADER_SIZE - PQ_RECORD_LENGTH_SIZE) {
    throw PersistentQueueException("Could not read complete data for CowPipelineData.");
  }
  std::unique_ptr<unsigned char[]> bytes(new unsigned char[length]);
  if (read(&offset, bytes.get(), length) != length) {
    throwPersistentQueueException("Could not read complete data for CowPipelineData.");
  }
  // The record is taken out whether or not it parses.
  _header.count--;
  _header.readOffset = offset;
  _header.dataSize -= length + PQ_RECORD_LENGTH_SIZE;
  const bool restored = _restoredCount != 0;
  if (restored) _restoredCount--;

  CowPipelineData fresh;
  PipelineData* pd = fresh.writable();
  if (restored) {
    if (_chansetHolder == nullptr) _chansetHolder = new PipelineInputChannelSetHolder;
    kassert(pd->chanset() == &global_channel_set);
    pd->attachChannelSet(*_chansetHolder);
  }
  NativeByteOrderInputStream in(bytes.get(), length);
  const bool parsed = pd->ressurrect(in, true);
  if (parsed && restored && pd->channel().hasConf()) pd->finalizeChannelSet();
  if (restored && _restoredCount == 0) {
    delete _chansetHolder;
    _chansetHolder = nullptr;
  }
  if (!parsed) {
    throw RecordConsumedError(
        offsetText("Could not read CowPipelineData from the persistent store. size=", length, ""));
  }
  out = fresh;
}

bool PersistentQueueWriter::remove(CowPipelineData& out) {
  if (out.fetchFromFront(_deque)) {
    const uint64_t cost = eventCost(out);
    _usedMemory = cost > _usedMemory ? 0 : _usedMemory - cost;
    if (_usedMemory < _smallestSize) _smallestSize = _usedMemory;
    return true;
  }
  if (_header.count == 0) return false;
  Str failure;
  bool consumed = false;
  try {
    readCowPipelineData(out);
    consumed = true;
  } catch (const RecordConsumedError& e) {
    failure = e.what();
    consumed = true;
  } catch (const std::exception& e) {
    failure = e.what();
  }
  try {
    if (!consumed) {
      // The file cannot be read where its header points: empty it rather
      // than fail on the same record forever.
      gLogger.error("Failed to remove event from=%s failed. %s", _path.c_str(), failure.c_str());
      failure.clear();
      initFileHeader(true);
    } else {
      if (_header.dataSize < _smallestSize) _smallestSize = _header.dataSize;
      if (_header.count == 0) initFileHeader(true);
    }
    updateHeader();
    // A file kept only to hand back an earlier run's records is done with
    // once they are out.
    if (_header.count == 0 && _maxFileSize == 0) disableFileUse();
  } catch (const PersistentQueueException& e) {
    gLogger.error("Failed to remove event from=%s failed. %s", _path.c_str(), e.what());
    return false;
  } catch (const std::exception& e) {
    gLogger.error("Failed to remove event from=%s failed due to unknow exception",
                  _path.c_str());
    return false;
  }
  if (!failure.empty()) {
    gLogger.error("Failed to remove event from=%s failed. %s", _path.c_str(), failure.c_str());
    return false;
  }
  return consumed;
}

bool PersistentQueueWriter::isFull() {
  return _usedMemory > _maxMemory && _header.dataSize > _header.fileSize;
}

bool PersistentQueueWriter::isHalfEmpty() {
  if (_header.count != 0) return true;
  return _usedMemory < _maxMemory && _maxMemory - _usedMemory > _maxMemory / 2;
}

uint64_t PersistentQueueWriter::getSizeInKB() const {
  if (!_deque.empty()) return (_deque.size() * PersistentQueue::COWPD_META_OVERHEAD) >> 10;
  return _header.dataSize >> 10;
}

uint64_t PersistentQueueWriter::getNumberOfElements() const {
  return !_deque.empty() ? _deque.size() : _header.count;
}

void PersistentQueueWriter::addMetrics(metric* m) {
  const uint64_t current = _deque.empty() ? _header.dataSize : _usedMemory;
  m->add("current size", getNumberOfElements());
  m->add("largest size", _largestSize);
  m->add("smallest size", _smallestSize);
  m->add("max size", _maxMemory);
  m->add("current size kb", getSizeInKB());
  m->add("max size kb", (_maxMemory + _maxFileSize) >> 10);
  if (isFull()) m->add("blocked", Str("true"));
  _largestSize = _smallestSize = current;
}

void PersistentQueueWriter::shutdown() { doShutdown(); }

void PersistentQueueWriter::doShutdown() {
  if (!_fd.valid()) return;  // memory only: nothing can be kept
  try {
    if (_header.count == 0) {
      CowPipelineData event;
      while (event.fetchFromFront(_deque)) {
        if (!insertAndClearToFile(event, false)) break;
      }
      _usedMemory = 0;
    }
  } catch (const std::exception& e) {
    gLogger.error("Failed to persist to file=%s", _path.c_str());
  }
  closeFile();
}

void PersistentQueueWriter::initInMemoryQueue() {
  kassert(_deque.empty());
  if (!_fd.valid()) openPersistentFile();
  readHeader();
  validateHeader();
  seekTo(_header.readOffset, offsetText("Could not seek to offset ", _header.readOffset,
                                        " when initializing persistent queue."));
  PipelineDataDeque loaded;
  uint64_t used = 0;
  bool allFit = true;
  while (_header.count != 0) {
    CowPipelineData event;
    readCowPipelineData(event);
    used += eventCost(event);
    if (used > _maxMemory) {
      allFit = false;
      break;
    }
    event.pushToBackAndClear(loaded);
  }
  if (allFit) {
    _deque.swap(loaded);
    _usedMemory = used;
    updateHeader();
    return;
  }
  clearPipelineDataDeque(loaded);
  readHeader();
  _restoredCount = _header.count;
}
