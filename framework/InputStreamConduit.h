// The path of a streaming request's body from the event thread to its
// handler: the loop writes the bytes it reads, the handler's thread reads
// them, and a done key ends the stream.
#pragma once

#include <cstddef>
#include <cstdint>
#include <condition_variable>
#include <deque>
#include <mutex>

#include "util/Str.h"

class HTTPServer;
class TcpPolledFd;

// The queue a conduit runs over. This is the seam where the server's
// durable queues take over; until then BoundedStreamQueue below serves.
// Implementations are safe for one writer and one reader at once.
class MStreamQueue {
 public:
  virtual ~MStreamQueue() = default;
  // Adds one buffer (an empty one with `doneKey` marks the end), waiting
  // at most `timeoutMs` for room; false when the time ran out.
  virtual bool push(Str buffer, bool doneKey, int timeoutMs) = 0;
  // The next buffer into `out` and whether it is the done key; false when
  // nothing came within `timeoutMs`.
  virtual bool pop(Str& out, bool& doneKey, int timeoutMs) = 0;
  virtual unsigned count() const = 0;
};

// An in-memory queue of at most `capacity` buffers.
class BoundedStreamQueue : public MStreamQueue {
 public:
  explicit BoundedStreamQueue(size_t capacity) : _capacity(capacity) {}
  bool push(Str buffer, bool doneKey, int timeoutMs) override;
  bool pop(Str& out, bool& doneKey, int timeoutMs) override;
  unsigned count() const override;

 private:
  struct Item {
    Str data;
    bool done;
  };
  size_t _capacity;
  mutable std::mutex _mutex;
  std::condition_variable _changed;
  std::deque<Item> _items;  // GUARDED_BY(_mutex)
};

// Buffers a conduit's queue holds before write() waits.
constexpr size_t STREAM_QUEUE_CAPACITY = 64;

class InputStreamConduit {
 public:
  // A conduit for `fd`'s stream with a queue named "queue_<descriptor>"
  // ("Creating queue %s in InputStreamConduit"). Reads and writes wait at
  // most `writeTimeoutMs`.
  InputStreamConduit(TcpPolledFd* fd, HTTPServer* server, int writeTimeoutMs);

  // The next bytes into `out` and their count. False at the end: the done
  // key, the server's shutdown, or nothing within the timeout, each logged.
  bool read(Str& out, size_t& count);
  // Queues `size` bytes; false, logged, when the queue stayed full for the
  // write timeout or the conduit is done. Event thread.
  bool write(const char* data, size_t size);
  // Ends the stream for the reader; later writes fail.
  void sendDoneKey();
  bool isDone() const { return _done; }
  int getWriteTimeoutMs() const { return _writeTimeoutMs; }
  const Str& queueName() const { return _queueName; }

 private:
  TcpPolledFd* _fd;
  HTTPServer* _server;
  BoundedStreamQueue _queue;
  Str _queueName;
  bool _done = false;
  int _writeTimeoutMs;
};
