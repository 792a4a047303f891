// The writer side that keeps events in memory up to a size and then
// overflows to a file (layout in PersistentQueueFormat.h), so that what a
// queue holds survives a restart.
#pragma once

#include <cstdint>
#include <memory>

#include "framework/PersistentQueueFormat.h"
#include "framework/PipelineData.h"
#include "framework/Queue.h"
#include "util/FileDescriptor.h"
#include "util/OutputStream.h"
#include "util/Pathname.h"

class PipelineInputChannelSetHolder;

// Order is first in, first out in all cases: memory fills first; once the
// file holds records every new event goes to the file until it is empty
// again. Every insertion to and removal from the file ends with a header
// commit (updateHeader), so a process killed at any point leaves a file
// that the next one reads: every event whose insert returned is there, in
// order, once.
//
// A file that cannot be used (wrong version, unreadable, corrupt header)
// turns the writer into a memory-only one, logged, and is left untouched.
// Events written by an earlier run come back in a channel set of their own
// (they may name channels this process never saw); the first event of this
// run is back on the global set.
// Thread story: externally locked (QueueWriterImpl).
class PersistentQueueWriter : public QueueWriterImpl {
 public:
  // Keeps up to `maxMemory` bytes in memory (raw length plus 200 per event)
  // and `maxFileSize` bytes of records in the file at `path`, creating it
  // and its directories as needed, or restoring what an earlier run left.
  // A `maxFileSize` of 0 creates no file and keeps events in memory only;
  // records an earlier run left at `path` are still handed back first (new
  // events queue behind them in the file, in its old size, to keep the
  // order), and once they are out the writer is memory only. isFileUsable()
  // is false throughout. Never throws for file trouble: it logs and
  // degrades.
  PersistentQueueWriter(uint64_t maxMemory, uint64_t maxFileSize, const Pathname& path);
  ~PersistentQueueWriter() override;

  // False when the event fits neither memory nor file; errors of the file
  // are logged ("Insert to file=... failed. ...") and refuse the event.
  bool insertAndClear(CowPipelineData& event) override;
  bool hasData() override { return !_deque.empty() || _header.count != 0; }
  bool isFull() override;
  bool isHalfEmpty() override;
  uint64_t getSize() override { return getNumberOfElements(); }
  // A record of the file that does not parse is logged and dropped, and
  // false returned; so is any other file error, after which the file is
  // emptied rather than read wrong.
  bool remove(CowPipelineData& out) override;
  // "current size" (events), "largest size", "smallest size" (bytes),
  // "max size" (memory bytes), "current size kb", "max size kb" (memory and
  // file), "blocked" while full.
  void addMetrics(metric* m) override;
  // Writes what memory holds to an empty file, so a restart finds it, and
  // closes the file.
  void shutdown() override;
  const char* metricsPrefix() const override { return "persistentQueue"; }

  // Restores a small queue into memory: reads the file's records, and when
  // all fit in memory commits the file empty; when they do not, drops what
  // it read, reads the header again and leaves the file in charge. Throws
  // PersistentQueueException or InvalidPersistentQueueVersion for file
  // trouble. REQUIRES: the memory side is empty.
  void initInMemoryQueue();

  uint64_t getSizeInKB() const;
  uint64_t getNumberOfElements() const;
  // The current header values and file state, for checks.
  const PersistentQueueHeaderBlock& header() const { return _header; }
  bool isFileUsable() const { return _maxFileSize != 0; }
  uint64_t usedMemory() const { return _usedMemory; }
  uint64_t restoredCount() const { return _restoredCount; }
  const Pathname& path() const { return _path; }

 private:
  void initPersistentQueue();
  void openPersistentFile();
  void closeFile();
  void readHeader();
  void writeHeader();
  void updateHeader();
  void initFileHeader(bool force);
  void disableFileUse();
  void validateHeader() const;
  bool insertAndClearToFile(CowPipelineData& event, bool enforceLimit);
  void writeCowPipelineData(const unsigned char* data, uint64_t length);
  void readCowPipelineData(CowPipelineData& out);
  // Circular access to the data area: moves `length` bytes at *offset and
  // advances *offset, wrapping at the file size.
  void write(uint64_t* offset, const void* bytes, uint64_t length);
  uint64_t read(uint64_t* offset, void* bytes, uint64_t length);
  void seekTo(uint64_t offset, const Str& message);
  [[noreturn]] void throwPersistentQueueException(const Str& message) const;
  void spillMemoryToFile();
  void doShutdown();

  NativeByteOrderOutputStream _out;
  uint64_t _maxMemory;
  uint64_t _usedMemory = 0;
  PipelineDataDeque _deque;
  uint64_t _largestSize = 0;
  uint64_t _smallestSize = 0;
  PersistentQueueHeaderBlock _header{};
  PersistentQueueFileHeader _header_in_file{};
  uint64_t _maxFileSize;
  Pathname _path;
  ScopedFileDescriptor _fd;
  uint64_t _restoredCount = 0;
  PipelineInputChannelSetHolder* _chansetHolder = nullptr;  // owned; for restored events
};
