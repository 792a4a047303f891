// Gzip streams over strings, and the shell as an outside oracle, for the
// gzip, line reader and archive tests. Test code only.
#pragma once

#include <gtest/gtest.h>

#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>

#include "util/GzipStream.h"
#include "util/Timeval.h"

// Collects compressed output in a string. write_stream takes at most
// `maxChunk` bytes a call, and fails with `failErrno` once `failAfter`
// bytes have gone out (never, by default).
class StringGzipWriter : public WritableGzipStream {
 public:
  explicit StringGzipWriter(const Timeval& time, int level = 6, unsigned long bufferSize = 4096)
      : WritableGzipStream(time, level, bufferSize) {}

  std::string out;
  size_t maxChunk = static_cast<size_t>(-1);
  size_t failAfter = static_cast<size_t>(-1);
  int failErrno = EIO;

 protected:
  ssize_t write_stream(const void* data, size_t len) override {
    if (out.size() >= failAfter) {
      errno = failErrno;
      return -1;
    }
    const size_t n = std::min({len, maxChunk, failAfter - out.size()});
    out.append(static_cast<const char*>(data), n);
    return static_cast<ssize_t>(n);
  }
};

// Hands out `in` in pieces of at most `chunk` bytes, then 0; or, with
// `failErrno` set, -1 with that errno once the input is used up.
class StringGzipReader : public ReadableGzipStream {
 public:
  explicit StringGzipReader(std::string in, size_t chunk = 1 << 20, unsigned long bufferSize = 4096)
      : ReadableGzipStream(bufferSize), _in(std::move(in)), _chunk(chunk) {}

  int failErrno = 0;
  size_t calls = 0;

 protected:
  ssize_t read_stream(void* buf, size_t len) override {
    ++calls;
    if (_pos == _in.size()) {
      if (failErrno == 0) return 0;
      errno = failErrno;
      return -1;
    }
    const size_t n = std::min({len, _chunk, _in.size() - _pos});
    memcpy(buf, _in.data() + _pos, n);
    _pos += n;
    return static_cast<ssize_t>(n);
  }

 private:
  std::string _in;
  size_t _chunk;
  size_t _pos = 0;
};

// What a whole read gives: the bytes, and the last result with its errno.
struct GzipDrain {
  std::string bytes;
  ssize_t last = 0;
  int err = 0;
};

// Reads in `step`-byte calls until a result below 1.
inline GzipDrain drainGzip(ReadableGzipStream& r, size_t step = 7000) {
  GzipDrain d;
  std::string buf(step, '\0');
  for (int guard = 0; guard < 10000000; ++guard) {
    errno = 0;
    d.last = r.read(buf.data(), buf.size());
    d.err = errno;
    if (d.last < 1) return d;
    d.bytes.append(buf.data(), static_cast<size_t>(d.last));
  }
  ADD_FAILURE() << "reader never ended";
  return d;
}

// One member of our own, compressed in one write.
inline std::string ourGzip(const std::string& plain, int level = 6) {
  StringGzipWriter w(Timeval(1700000000, 0), level);
  EXPECT_EQ(static_cast<ssize_t>(plain.size()), w.write(plain.data(), plain.size()));
  EXPECT_TRUE(w.finish());
  return w.out;
}

// Log-like text: lines of words, numbers and punctuation, some long.
inline std::string logText(size_t bytes, unsigned seed) {
  std::mt19937 rng(seed);
  std::string s;
  while (s.size() < bytes) {
    s += "2024-03-0" + std::to_string(1 + rng() % 9) + " 12:" + std::to_string(10 + rng() % 50) +
         " host" + std::to_string(rng() % 8) + " sshd[" + std::to_string(rng() % 65536) + "]: ";
    const size_t words = 1 + rng() % 20;
    for (size_t i = 0; i < words; ++i) s.append(std::string_view("abcdefghijklmnop").substr(rng() % 16)) += ' ';
    s += '\n';
  }
  s.resize(bytes);
  return s;
}

// Runs `command` through the shell; its standard output goes to *out when
// given. Returns the exit status, or -1 when it did not exit normally.
inline int runShell(const std::string& command, std::string* out = nullptr) {
  FILE* p = popen(command.c_str(), "r");
  if (p == nullptr) return -1;
  std::string text;
  char buf[65536];
  for (size_t n; (n = fread(buf, 1, sizeof buf, p)) > 0;) text.append(buf, n);
  const int status = pclose(p);
  if (out != nullptr) *out = text;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Whether `tool` is on the PATH.
inline bool haveTool(const std::string& tool) {
  return runShell("command -v " + tool + " >/dev/null 2>&1") == 0;
}
