// The path of a streaming request's body from the event thread to its
// handler: the loop writes the bytes it reads, the handler's thread reads
// them, and a done key ends the stream.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "util/Str.h"

class HTTPServer;
class PersistentQueue;
class ProducerConsumerQueue;
class TcpPolledFd;

// Buffers a conduit's queue holds before write() waits.
constexpr size_t STREAM_QUEUE_CAPACITY = 64;

// The bytes travel as events of a private in-memory queue bounded by count;
// the done key is an event carrying "_done", and it always finds room.
// Thread story: one writer (the event thread) and one reader at once.
class InputStreamConduit {
 public:
  // A conduit for `fd`'s stream with a queue named "queue_<descriptor>"
  // ("Creating queue %s in InputStreamConduit"). Reads and writes wait at
  // most `writeTimeoutMs`.
  InputStreamConduit(TcpPolledFd* fd, HTTPServer* server, int writeTimeoutMs);
  ~InputStreamConduit();
  InputStreamConduit(const InputStreamConduit&) = delete;
  InputStreamConduit& operator=(const InputStreamConduit&) = delete;

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
  Str _queueName;
  std::unique_ptr<PersistentQueue> _hub;
  std::unique_ptr<ProducerConsumerQueue> _queue;
  bool _done = false;
  int _writeTimeoutMs;
};
