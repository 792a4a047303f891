#include "framework/InputStreamConduit.h"

#include <cstring>

#include "framework/HTTPServer.h"
#include "framework/InMemoryQueueWriter.h"
#include "framework/PersistentQueue.h"
#include "framework/PipelineData.h"
#include "framework/ProducerConsumerQueue.h"
#include "util/ConditionWaitTimeout.h"
#include "util/Logger.h"
#include "util/TcpPolledFd.h"

namespace {

Logger gLogger("HTTPServer");

constexpr uint32_t DONE_FLAGS = PDFLAG_HAS_DONE_NORMAL | PDFLAG_HAS_DONE_IN_MAP;

// Bounded by count, except that the done key is always admitted, so that
// the reader learns of the end even from a full queue.
class ConduitQueueWriter : public InMemoryQueueWriterByCount {
 public:
  using InMemoryQueueWriterByCount::InMemoryQueueWriterByCount;
  bool insertAndClear(CowPipelineData& event) override {
    if ((event->flags() & DONE_FLAGS) == 0) {
      return InMemoryQueueWriterByCount::insertAndClear(event);
    }
    internal_push(event);
    return true;
  }
};

ConditionWaitTimeout fromMs(int ms) {
  return ConditionWaitTimeout(ms / 1000, static_cast<int64_t>(ms % 1000) * 1000000);
}

}  // namespace

InputStreamConduit::InputStreamConduit(TcpPolledFd* fd, HTTPServer* server, int writeTimeoutMs)
    : _fd(fd), _server(server),
      _queueName("queue_" + std::to_string(fd != nullptr ? fd->descriptor().fd() : -1)),
      _hub(std::make_unique<PersistentQueue>(_queueName)),
      _writeTimeoutMs(writeTimeoutMs) {
  gLogger.info("Creating queue %s in InputStreamConduit", _queueName.c_str());
  QueueWriter* writer =
      _hub->setWriter(_queueName, new ConduitQueueWriter(STREAM_QUEUE_CAPACITY));
  _queue = std::make_unique<ProducerConsumerQueue>(_hub.get(), _hub->getReader(), writer);
}

InputStreamConduit::~InputStreamConduit() { _hub->shutdown(); }

bool InputStreamConduit::read(Str& out, size_t& count) {
  // Short slices, so that a shutdown is noticed while waiting.
  constexpr int SLICE_MS = 100;
  int waited = 0;
  const ConditionWaitTimeout slice = fromMs(SLICE_MS);
  CowPipelineData event;
  for (;;) {
    if (_queue->remove(event, slice)) {
      if ((event->flags() & DONE_FLAGS) != 0) {
        gLogger.info("Done key found - terminating");
        count = 0;
        return false;
      }
      const StrSegment raw = event->raw();
      out.assign(raw.data() == nullptr ? "" : raw.data(), raw.size());
      count = out.size();
      return true;
    }
    if (_server != nullptr && _server->isShuttingDown()) {
      gLogger.info("Shutdown in progress - terminating");
      count = 0;
      return false;
    }
    waited += SLICE_MS;
    if (waited >= _writeTimeoutMs) {
      gLogger.warn("Conduit timed out in read");
      gLogger.warn("Conduit timed out on read. count in queue=%u",
                   static_cast<unsigned>(_queue->getSize()));
      gLogger.warn("Aborted due to timeout - terminating");
      count = 0;
      return false;
    }
  }
}

bool InputStreamConduit::write(const char* data, size_t size) {
  if (_done) return false;
  CowPipelineData event;
  event.writable()->internal_put("_raw", 4, djb2_hash("_raw"), Str(data, size));
  if (!_queue->insertAndClear(event, fromMs(_writeTimeoutMs))) {
    gLogger.warn() << "InputStreamConduit write timed out after " << _writeTimeoutMs / 1000
                   << " seconds.";
    return false;
  }
  return true;
}

void InputStreamConduit::sendDoneKey() {
  if (_done) return;
  gLogger.info("Sending done key");
  _done = true;
  CowPipelineData event;
  event.writable()->internal_put("_done", 5, djb2_hash("_done"), Str("_done"));
  _queue->insertAndClear(event, ConditionWaitTimeout());
}
