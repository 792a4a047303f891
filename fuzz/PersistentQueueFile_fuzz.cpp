// Queue files, random and mutated, opened by a persistent writer that then
// reads everything back, takes a new event, and shuts down. The input is
// the whole file, or the record area behind a consistent header (so that
// mutations reach the records), or a real file with bytes flipped. Nothing
// may crash, hang, allocate what a damaged length claims, or read out of
// bounds; damage is a logged error and a queue that still works.
#include <stdlib.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "framework/PersistentQueueFormat.h"
#include "framework/PersistentQueueWriter.h"
#include "framework/PipelineData.h"
#include "fuzz/FuzzWorkDir.h"
#include "util/Assert.h"
#include "util/FileDescriptor.h"
#include "util/LogChannel.h"
#include "util/Logger.h"

namespace {

const Pathname& workDir() {
  static const Pathname dir = makeQuietFuzzDir("/tmp/kestro-pq-fuzz-XXXXXX", {"PersistentQueueWriter", "PipelineInputChannel"});
  return dir;
}

CowPipelineData event(const std::string& raw) {
  CowPipelineData e;
  e.writable()->internal_put("_raw", 4, djb2_hash("_raw"), Str(raw));
  return e;
}

// A consistent header in front of `area`, claiming `count` records.
std::string behindHeader(const std::string& area, uint64_t count) {
  PersistentQueueFileHeader h{};
  std::memcpy(h._ver, PQ_VERSION, sizeof PQ_VERSION);
  const uint64_t end = PQ_HEADER_SIZE + area.size();
  h.h1 = PersistentQueueHeaderBlock{PQ_HEADER_SIZE, end, end + 64, end, count};
  std::memcpy(h._which, PQ_WHICH_H1, PQ_WHICH_SIZE);
  return std::string(reinterpret_cast<const char*>(&h), sizeof h) + area;
}

// A file written by the writer itself, with input bytes XORed in at
// positions the input chooses.
std::string mutatedRealFile(const Pathname& path, const uint8_t* data, size_t size) {
  path.unlink();
  {
    PersistentQueueWriter w(0, 2048, path);
    for (int i = 0; i < 4; i++) {
      CowPipelineData e = event("record " + std::to_string(i) + std::string(i * 7, 'x'));
      w.insertAndClear(e);
    }
    CowPipelineData out;
    w.remove(out);
    w.shutdown();
  }
  ScopedFileDescriptor fd(path.openReadOnly());
  std::string bytes(4096, '\0');
  const ssize_t n = fd.read(bytes.data(), bytes.size());
  bytes.resize(n > 0 ? static_cast<size_t>(n) : 0);
  for (size_t i = 0; i + 1 < size && !bytes.empty(); i += 2) {
    bytes[data[i] % bytes.size()] ^= static_cast<char>(data[i + 1]);
  }
  return bytes;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  const Pathname path = workDir() / "queue";
  const uint8_t mode = data[0] % 3;
  const uint64_t memory = static_cast<uint64_t>(data[1] % 4) * 300;
  data += 2;
  size -= 2;
  const std::string input(reinterpret_cast<const char*>(data), size);
  if (mode == 0) {
    writeFuzzFile(path, input);
  } else if (mode == 1) {
    writeFuzzFile(path, behindHeader(input, size == 0 ? 0 : 1 + data[0] % 8));
  } else {
    writeFuzzFile(path, mutatedRealFile(path, data, size));
  }
  PersistentQueueWriter w(memory, 2048, path);
  CowPipelineData out;
  for (int i = 0; i < 1000 && w.hasData(); i++) w.remove(out);
  kassert(!w.hasData());
  CowPipelineData e = event("after");
  if (w.insertAndClear(e)) {
    kassert(w.remove(out));
    kassert(out->rawSize() == 5);
  }
  w.shutdown();
  return 0;
}
