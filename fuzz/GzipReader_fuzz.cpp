// Feeds arbitrary bytes to ReadableGzipStream in pieces whose sizes the
// input chooses, and checks what holds for every input: each read ends in
// output, a clean end or ENOEXEC (never a hang, never a timeout); whatever
// zlib's own gzip decoder accepts as one complete member reads the same
// here; and the input itself, compressed by WritableGzipStream, reads back.
// A broken property aborts.
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "util/GzipStream.h"
#include "util/Timeval.h"

namespace {

void check(bool ok, const char* what) {
  if (!ok) {
    fprintf(stderr, "property broken: %s\n", what);
    abort();
  }
}

class Reader : public ReadableGzipStream {
 public:
  Reader(const std::string& in, size_t chunk, unsigned long bufferSize)
      : ReadableGzipStream(bufferSize), _in(in), _chunk(chunk) {}

 protected:
  ssize_t read_stream(void* buf, size_t len) override {
    const size_t n = std::min({len, _chunk, _in.size() - _pos});
    memcpy(buf, _in.data() + _pos, n);
    _pos += n;
    return static_cast<ssize_t>(n);
  }

 private:
  const std::string& _in;
  size_t _chunk;
  size_t _pos = 0;
};

class Writer : public WritableGzipStream {
 public:
  explicit Writer(int level) : WritableGzipStream(Timeval(1, 0), level, 64) {}
  std::string out;

 protected:
  ssize_t write_stream(const void* data, size_t len) override {
    out.append(static_cast<const char*>(data), len);
    return static_cast<ssize_t>(len);
  }
};

// Reads everything; returns the last result and fills `out`.
ssize_t drain(ReadableGzipStream& r, size_t step, std::string& out, int& err) {
  std::string buf(step, '\0');
  for (size_t calls = 0;; ++calls) {
    check(calls < 100000000, "reader never ends");
    errno = 0;
    const ssize_t rv = r.read(buf.data(), buf.size());
    err = errno;
    check(rv >= -1 && rv <= static_cast<ssize_t>(step), "read result out of range");
    if (rv < 1) return rv;
    out.append(buf.data(), static_cast<size_t>(rv));
  }
}

// zlib's gzip decoder (CRC and length checked) on one member that must take
// the whole input: true with the text when it does.
bool zlibSingleMember(const std::string& in, std::string& out) {
  z_stream zs;
  memset(&zs, 0, sizeof zs);
  if (inflateInit2(&zs, 15 + 16) != Z_OK) return false;
  zs.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(in.data()));
  zs.avail_in = static_cast<uInt>(in.size());
  char buf[16384];
  int rc;
  do {
    zs.next_out = reinterpret_cast<Bytef*>(buf);
    zs.avail_out = sizeof buf;
    rc = inflate(&zs, Z_NO_FLUSH);
    out.append(buf, sizeof buf - zs.avail_out);
    if (out.size() > (64u << 20)) rc = Z_MEM_ERROR;
  } while (rc == Z_OK);
  const bool ok = rc == Z_STREAM_END && zs.avail_in == 0;
  inflateEnd(&zs);
  return ok;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  const size_t chunk = 1 + data[0] % 64;
  const size_t step = 1 + data[1] * 37 % 5000;
  const std::string input(reinterpret_cast<const char*>(data) + 2, size - 2);

  Reader r(input, chunk, 1 + data[0] % 200);
  std::string ours;
  int err = 0;
  const ssize_t last = drain(r, step, ours, err);
  if (last == -1) check(err == ENOEXEC, "a failure other than ENOEXEC");
  if (input.empty()) check(last == 0 && ours.empty(), "empty input is not a clean end");

  std::string theirs;
  if (zlibSingleMember(input, theirs)) {
    check(last == 0, "zlib accepts a member that we refuse");
    check(ours == theirs, "zlib and we decode the same member differently");
  }

  Writer w(data[1] % 10);
  check(w.write(input.data(), input.size()) == static_cast<ssize_t>(input.size()), "write failed");
  check(w.finish(), "finish failed");
  std::string zback;
  check(zlibSingleMember(w.out, zback) && zback == input, "zlib does not read our output back");
  Reader again(w.out, chunk, 4096);
  std::string back;
  check(drain(again, step, back, err) == 0 && back == input, "our output does not read back");
  return 0;
}
