// Reads arbitrary bytes as a record of strings and numbers, in both byte
// orders, with the operations the input picks, and checks what holds for
// every input: the position only moves as the length rules say, a refusal
// leaves the target alone, a view lies inside the buffer, and what was read
// writes back through OutputStream to the same bytes. A broken property
// aborts.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "util/InputStream.h"
#include "util/OutputStream.h"
#include "util/Str.h"
#include "util/StrSegment.h"

namespace {

void check(bool ok, const char* what) {
  if (!ok) {
    fprintf(stderr, "property broken: %s\n", what);
    abort();
  }
}

uint32_t countAt(const unsigned char* p, bool swapped) {
  uint32_t v;
  memcpy(&v, p, 4);
  return swapped ? __builtin_bswap32(v) : v;
}

void run(const std::vector<unsigned char>& buf, const std::string& ops, bool swapped) {
  NativeByteOrderInputStream native(buf.data(), buf.size());
  SwappedByteOrderInputStream other(buf.data(), buf.size());
  InputStream& in = swapped ? static_cast<InputStream&>(other) : native;
  NativeByteOrderOutputStream nout(16, 2);
  SwappedByteOrderOutputStream sout(16, 2);
  OutputStream& out = swapped ? static_cast<OutputStream&>(sout) : nout;
  size_t consumed = 0;  // bytes that the writer has reproduced

  for (char op : ops) {
    const size_t before = in.position();
    check(before + in.remaining() == buf.size(), "position and remaining disagree");
    const size_t left = in.remaining();
    const uint32_t n = left >= 4 ? countAt(buf.data() + before, swapped) : 0;
    switch (op % 3) {
      case 0: {
        unsigned v = 0xDEADBEEF;
        const bool ok = in.tryRead32(v);
        check(ok == (left >= 4), "tryRead32 result");
        check(in.position() == before + (ok ? 4 : 0), "tryRead32 position");
        if (ok) {
          check(v == n, "tryRead32 value");
          out.write_32(v);
        } else {
          check(v == 0xDEADBEEF, "failed tryRead32 wrote its target");
        }
        break;
      }
      case 1:
      case 2: {
        Str s("sentinel");
        StrSegment seg("sentinel");
        const bool ok = op % 3 == 1 ? in.tryReadStr(s) : in.tryReadSeg(seg);
        const bool fits = left >= 4 && n <= left - 4;
        const bool expected = fits && static_cast<uint32_t>(n - 1) < InputStream::MAX_STRING_LENGTH;
        check(ok == expected, "string result disagrees with the length rules");
        if (!fits) {
          check(in.position() == before, "a string past the end moved the position");
        } else if (!ok) {
          check(in.position() == before + 4, "a refused count did not skip 4 bytes");
        } else {
          check(in.position() == before + 4 + n, "a string did not move past its count");
        }
        if (!ok) {
          check(s == "sentinel" && seg == StrSegment("sentinel"), "refusal wrote its target");
          if (fits) {
            consumed = in.position();  // the skipped count cannot be written back
            out.rewind();
          }
          break;
        }
        StrSegment got = op % 3 == 1 ? StrSegment(s.data(), s.size()) : seg;
        if (op % 3 == 2) {
          check(seg.data() == reinterpret_cast<const char*>(buf.data()) + before + 4,
                "a view does not point into the buffer");
        }
        check(got.size() == n - 1, "string length");
        out.write(got);
        break;
      }
    }
    // Written back: the same bytes, except that the closing byte is a NUL.
    if (out.size() > 0) {
      check(consumed + out.size() == in.position(), "writer and reader out of step");
      std::vector<unsigned char> expect(buf.begin() + consumed, buf.begin() + in.position());
      std::vector<unsigned char> got(out.data(), out.data() + out.size());
      for (size_t i = 0; i < got.size(); ++i) {
        if (got[i] != expect[i]) check(got[i] == 0, "rewritten bytes differ beyond the NUL");
      }
    } else {
      consumed = in.position();
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  const size_t nops = data[0] % 32;
  const size_t opsLen = std::min(nops, size - 1);
  const std::string ops(reinterpret_cast<const char*>(data) + 1, opsLen);
  // A fresh heap copy so that ASan sees any read past the end.
  const std::vector<unsigned char> buf(data + 1 + opsLen, data + size);
  run(buf, ops, false);
  run(buf, ops, true);
  return 0;
}
