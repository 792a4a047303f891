#include "framework/InputStreamConduit.h"

#include <chrono>

#include "framework/HTTPServer.h"
#include "util/Logger.h"
#include "util/TcpPolledFd.h"

namespace {

Logger gLogger("HTTPServer");

}  // namespace

bool BoundedStreamQueue::push(Str buffer, bool doneKey, int timeoutMs) {
  std::unique_lock<std::mutex> lock(_mutex);
  // The done key always finds room, so that the reader learns of the end.
  if (!doneKey && !_changed.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                                     [this] { return _items.size() < _capacity; })) {
    return false;
  }
  _items.push_back(Item{std::move(buffer), doneKey});
  _changed.notify_all();
  return true;
}

bool BoundedStreamQueue::pop(Str& out, bool& doneKey, int timeoutMs) {
  std::unique_lock<std::mutex> lock(_mutex);
  if (!_changed.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                         [this] { return !_items.empty(); })) {
    return false;
  }
  out = std::move(_items.front().data);
  doneKey = _items.front().done;
  _items.pop_front();
  _changed.notify_all();
  return true;
}

unsigned BoundedStreamQueue::count() const {
  std::lock_guard<std::mutex> lock(_mutex);
  return static_cast<unsigned>(_items.size());
}

InputStreamConduit::InputStreamConduit(TcpPolledFd* fd, HTTPServer* server, int writeTimeoutMs)
    : _fd(fd), _server(server), _queue(STREAM_QUEUE_CAPACITY),
      _queueName("queue_" + std::to_string(fd != nullptr ? fd->descriptor().fd() : -1)),
      _writeTimeoutMs(writeTimeoutMs) {
  gLogger.info("Creating queue %s in InputStreamConduit", _queueName.c_str());
}

bool InputStreamConduit::read(Str& out, size_t& count) {
  // Short slices, so that a shutdown is noticed while waiting.
  constexpr int SLICE_MS = 100;
  int waited = 0;
  for (;;) {
    bool doneKey = false;
    if (_queue.pop(out, doneKey, SLICE_MS)) {
      if (doneKey) {
        gLogger.info("Done key found - terminating");
        count = 0;
        return false;
      }
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
      gLogger.warn("Conduit timed out on read. count in queue=%u", _queue.count());
      gLogger.warn("Aborted due to timeout - terminating");
      count = 0;
      return false;
    }
  }
}

bool InputStreamConduit::write(const char* data, size_t size) {
  if (_done) return false;
  if (!_queue.push(Str(data, size), false, _writeTimeoutMs)) {
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
  _queue.push(Str(), true, 0);
}
