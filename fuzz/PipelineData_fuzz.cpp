// Reads arbitrary bytes as a serialised event. Whatever is accepted must
// serialise again into a form that is itself accepted and stable.
#include <cstdint>
#include <cstdlib>

#include "framework/PipelineData.h"
#include "util/InputStream.h"
#include "util/OutputStream.h"

namespace {

Str write(const PipelineData& pd) {
  NativeByteOrderOutputStream out(256, 2);
  pd.serialize(out);
  return Str(std::string(reinterpret_cast<const char*>(out.data()), out.size()));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  for (int order = 0; order < 2; order++) {
    CowPipelineData pd;
    bool ok;
    if (order == 0) {
      NativeByteOrderInputStream in(data, size);
      ok = pd.writable()->ressurrect(in, false);
    } else {
      SwappedByteOrderInputStream in(data, size);
      ok = pd.writable()->ressurrect(in, false);
    }
    if (!ok) continue;
    (void)pd->toString();
    const Str once = write(*pd);
    CowPipelineData back;
    NativeByteOrderInputStream in(once.data(), once.size());
    if (!back.writable()->ressurrect(in, false)) std::abort();
    CowPipelineData copy(back);
    copy.make_writable();
    if (write(*copy) != write(*back)) std::abort();
  }
  return 0;
}
