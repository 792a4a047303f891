// The legacy text form of a file position, as an older store hands it over:
// any bytes either parse into a record or are refused with the record left
// alone. A parsed record keeps its promises: a non-negative seek pointer and
// modification time, no length, a name taken from the text, and a name CRC
// that is zero for no name and otherwise the MD5 identity of the name. Its
// 48-byte form reads back equal.
#include <cstdint>
#include <cstring>

#include "util/Assert.h"
#include "util/FishRecord.h"
#include "util/LogChannel.h"
#include "util/Logger.h"
#include "util/XMLAndStringUtil.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool quiet = [] {
    Logger::initialize();
    LogChannel::root().setLevel(LOGLEVEL_EMERG);
    LogChannel::find(Str("FileTracker"))->setLevel(LOGLEVEL_EMERG);
    return true;
  }();
  (void)quiet;
  const Str text(reinterpret_cast<const char*>(data), size);
  const FishRecord sentinel(1, 2, CRC_t(3), CRC_t(4), 5, 6, "sentinel");
  FishRecord r = sentinel;
  if (!FishRecord::fromLegacyString(text, r)) {
    kassert(r == sentinel && r._filename == "sentinel");
    return 0;
  }
  kassert(r._seekPtr >= 0);
  kassert(r._modTime >= 0);
  kassert(r._fileLen == 0);
  if (r._filename.empty()) {
    kassert(r._filenameCrc.isBlank());
  } else {
    kassert(r._filenameCrc._crc ==
            XMLAndStringUtil::halfMd5(r._filename.data(), r._filename.size()));
    kassert(text.find(r._filename) != Str::npos);
  }
  unsigned char buf[FishRecord::SERIAL_BYTES];
  r.outputLE(buf);
  FishRecord back;
  back.inputLE(buf);
  kassert(back == r);
  return 0;
}
