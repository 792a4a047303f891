// Checks of the byte movers from a caller's side: serialisation buffers,
// gzip framing against zlib and the gzip tool, the decompressor and archives
// against the system's tar tools.
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <zlib.h>

#include "util/ArchiveFile.h"
#include "util/Decompressor.h"
#include "util/FileDescriptor.h"
#include "util/FileStar.h"
#include "util/GZLineReader.h"
#include "util/GzipFileDescriptor.h"
#include "util/GzipStream.h"
#include "util/HashedStr.h"
#include "util/InputStream.h"
#include "util/OutputStream.h"
#include "util/Pathname.h"
#include "util/Str.h"
#include "util/StrSegment.h"
#include "util/Timeval.h"

namespace {

// ---------- helpers ----------

std::string le32(uint32_t v) {
  std::string s(4, '\0');
  for (int i = 0; i < 4; ++i) s[i] = static_cast<char>((v >> (8 * i)) & 0xFF);
  return s;
}

std::string rawDeflate(const std::string& in, int level = 6) {
  z_stream zs{};
  EXPECT_EQ(Z_OK, deflateInit2(&zs, level, Z_DEFLATED, -15, 8, Z_DEFAULT_STRATEGY));
  std::string out(deflateBound(&zs, in.size()) + 16, '\0');
  zs.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(in.data()));
  zs.avail_in = static_cast<uInt>(in.size());
  zs.next_out = reinterpret_cast<Bytef*>(&out[0]);
  zs.avail_out = static_cast<uInt>(out.size());
  EXPECT_EQ(Z_STREAM_END, deflate(&zs, Z_FINISH));
  out.resize(zs.total_out);
  deflateEnd(&zs);
  return out;
}

// Inflates raw deflate data; false when zlib refuses it or it does not end.
bool rawInflate(const std::string& in, std::string* out) {
  z_stream zs{};
  if (inflateInit2(&zs, -15) != Z_OK) return false;
  zs.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(in.data()));
  zs.avail_in = static_cast<uInt>(in.size());
  out->clear();
  char buf[16384];
  int rc;
  do {
    zs.next_out = reinterpret_cast<Bytef*>(buf);
    zs.avail_out = sizeof(buf);
    rc = inflate(&zs, Z_SYNC_FLUSH);
    out->append(buf, sizeof(buf) - zs.avail_out);
  } while (rc == Z_OK && (zs.avail_in > 0 || zs.avail_out == 0));
  inflateEnd(&zs);
  return rc == Z_STREAM_END || rc == Z_OK || rc == Z_BUF_ERROR;
}

uint32_t crcOf(const std::string& s) {
  return static_cast<uint32_t>(
      crc32(0, reinterpret_cast<const Bytef*>(s.data()), static_cast<uInt>(s.size())));
}

struct HeaderParts {
  uint8_t flags = 0;
  std::string extra;
  std::string name;
  std::string comment;
};

std::string gzipHeader(const HeaderParts& h) {
  std::string s = "\x1f\x8b\x08";
  s += static_cast<char>(h.flags);
  s += std::string("\x01\x02\x03\x04\x00\xff", 6);
  if (h.flags & 0x04) {
    s += static_cast<char>(h.extra.size() & 0xFF);
    s += static_cast<char>((h.extra.size() >> 8) & 0xFF);
    s += h.extra;
  }
  if (h.flags & 0x08) s += h.name + std::string(1, '\0');
  if (h.flags & 0x10) s += h.comment + std::string(1, '\0');
  if (h.flags & 0x02) s += std::string("\x8b\x1f", 2);  // unchecked header CRC
  return s;
}

std::string gzipMember(const std::string& payload, const HeaderParts& h = HeaderParts()) {
  return gzipHeader(h) + rawDeflate(payload) + le32(crcOf(payload)) +
         le32(static_cast<uint32_t>(payload.size()));
}

std::string randomBytes(size_t n, unsigned seed) {
  std::mt19937 rng(seed);
  std::string s(n, '\0');
  for (auto& c : s) c = static_cast<char>(rng());
  return s;
}

std::string textBytes(size_t n) {
  std::string s;
  for (size_t i = 0; s.size() < n; ++i) s += "line " + std::to_string(i) + " of the test text\n";
  s.resize(n);
  return s;
}

// Gzip source in memory: hands out at most `chunk` bytes a call, and fails
// with `failErrno` once `failAt` bytes have gone.
class MemGzipReader : public ReadableGzipStream {
 public:
  explicit MemGzipReader(std::string in, size_t chunk = 1 << 20, unsigned long bufSize = 4096)
      : ReadableGzipStream(bufSize), _in(std::move(in)), _chunk(chunk) {}
  size_t failAt = SIZE_MAX;
  int failErrno = EIO;
  int sleepMsPerCall = 0;

 protected:
  ssize_t read_stream(void* buf, size_t len) override {
    if (sleepMsPerCall) std::this_thread::sleep_for(std::chrono::milliseconds(sleepMsPerCall));
    if (_pos >= failAt) {
      errno = failErrno;
      return -1;
    }
    size_t n = std::min({len, _chunk, _in.size() - _pos, failAt - _pos});
    memcpy(buf, _in.data() + _pos, n);
    _pos += n;
    return static_cast<ssize_t>(n);
  }

 private:
  std::string _in;
  size_t _chunk;
  size_t _pos = 0;
};

struct ReadOutcome {
  std::string data;
  ssize_t last;  // the result that ended the reading
  int err;
};

ReadOutcome readAll(ReadableGzipStream& r, size_t step = 4096) {
  ReadOutcome o;
  std::vector<char> buf(step);
  for (int guard = 0; guard < 10000000; ++guard) {
    errno = 0;
    ssize_t n = r.read(buf.data(), step);
    if (n <= 0) {
      o.last = n;
      o.err = errno;
      return o;
    }
    o.data.append(buf.data(), static_cast<size_t>(n));
  }
  o.last = 99;
  o.err = 0;
  return o;
}

// Gzip sink in memory: takes at most `chunk` bytes a call; fails after
// `failAfter` bytes.
class MemGzipWriter : public WritableGzipStream {
 public:
  MemGzipWriter(const Timeval& t, int level, unsigned long bufSize, unsigned windowBits = 15,
                unsigned memLevel = 8, int strategy = 0)
      : WritableGzipStream(t, level, bufSize, windowBits, memLevel, strategy) {}
  std::string out;
  size_t chunk = SIZE_MAX;
  size_t failAfter = SIZE_MAX;
  ssize_t failResult = -1;

 protected:
  ssize_t write_stream(const void* data, size_t len) override {
    if (out.size() >= failAfter) {
      errno = EIO;
      return failResult;
    }
    size_t n = std::min({len, chunk, failAfter - out.size()});
    out.append(static_cast<const char*>(data), n);
    return static_cast<ssize_t>(n);
  }
};

class TempDir {
 public:
  TempDir() {
    char tmpl[] = "/tmp/streams_review_XXXXXX";
    _path = mkdtemp(tmpl);
  }
  ~TempDir() { (void)!system(("rm -rf '" + _path + "'").c_str()); }
  std::string file(const std::string& name) const { return _path + "/" + name; }
  const std::string& path() const { return _path; }

 private:
  std::string _path;
};

void writeFile(const std::string& path, const std::string& data) {
  FILE* f = fopen(path.c_str(), "wb");
  ASSERT_NE(nullptr, f) << path;
  ASSERT_EQ(data.size(), fwrite(data.data(), 1, data.size(), f));
  fclose(f);
}

std::string readFile(const std::string& path) {
  std::string s;
  FILE* f = fopen(path.c_str(), "rb");
  if (!f) return "<missing>";
  char buf[8192];
  size_t n;
  while ((n = fread(buf, 1, sizeof(buf), f)) > 0) s.append(buf, n);
  fclose(f);
  return s;
}

std::string runCapture(const std::string& cmd) {
  std::string s;
  FILE* p = popen(cmd.c_str(), "r");
  if (!p) return "<popen failed>";
  char buf[8192];
  size_t n;
  while ((n = fread(buf, 1, sizeof(buf), p)) > 0) s.append(buf, n);
  int st = pclose(p);
  if (st != 0) s += "<exit " + std::to_string(st) + ">";
  return s;
}

// ---------- OutputStream ----------

TEST(StreamsReviewOutput, CallerBufferOwnershipFollowsMultiplier) {
  // The sanitizer's double-free and leak checks are the assertions here:
  // where the stream does not own the buffer, the test frees it.
  for (unsigned mult : {0u, 1u}) {
    auto* buf = static_cast<unsigned char*>(malloc(64));
    {
      NativeByteOrderOutputStream os(64, buf, mult);
      EXPECT_FALSE(os.ownsBuffer()) << mult;
      os.write_32(7);
      EXPECT_EQ(buf, os.data());
    }
    free(buf);
  }
  for (unsigned mult : {4u, 100u}) {
    auto* buf = static_cast<unsigned char*>(malloc(64));
    NativeByteOrderOutputStream os(64, buf, mult);
    EXPECT_TRUE(os.ownsBuffer()) << mult;
  }
}

TEST(StreamsReviewOutput, EveryKindOfWriteGrows) {
  HashedStrReference key = HashedStrReference::_allocMem("hashed key");
  NativeByteOrderOutputStream os(2, 2);
  os.write_32(0x01020304u);  // 4 bytes into 2: one growth
  EXPECT_EQ(4u, os.capacity());
  os.write(Str("abc"));      // 8 more: 6, 8, 10, 12
  EXPECT_EQ(12u, os.capacity());
  os.write(key);             // 15 more: up to 28
  EXPECT_EQ(28u, os.capacity());
  key._freeMem();
  EXPECT_EQ(27u, os.size());
  NativeByteOrderInputStream in(os.data(), os.size());
  unsigned v = 0;
  Str a, b;
  ASSERT_TRUE(in.tryRead32(v));
  ASSERT_TRUE(in.tryReadStr(a));
  ASSERT_TRUE(in.tryReadStr(b));
  EXPECT_EQ(0x01020304u, v);
  EXPECT_EQ("abc", std::string(a));
  EXPECT_EQ("hashed key", std::string(b));
}

TEST(StreamsReviewOutput, ExactFitNeedsNoGrowth) {
  // With multiplier 1 any growth would end the process, so these writes
  // show that filling the buffer to the last byte is not a growth.
  NativeByteOrderOutputStream a(4, 1);
  a.write_32(9);
  a.write(0, reinterpret_cast<const unsigned char*>(""));
  EXPECT_EQ(4u, a.size());
  SwappedByteOrderOutputStream b(8, 1);
  b.write(Str("abc"));
  EXPECT_EQ(8u, b.size());
  auto* buf = static_cast<unsigned char*>(malloc(5));
  {
    NativeByteOrderOutputStream c(5, buf, 1);
    c.write(Str(""));
    EXPECT_EQ(5u, c.size());
    EXPECT_EQ(0u, c.growthCount());
  }
  free(buf);
}

// ---------- InputStream ----------

// A count that runs past the end is checked before the length limit, and
// the rules hold alike in both byte orders.
TEST(StreamsReviewInput, BadCountsGiveFalse) {
  const struct {
    std::string bytes;
    bool ok;
    size_t posAfter;
    std::string text;
  } kCases[] = {
      {le32(0), false, 4, ""},                                       // n - 1 wraps
      {le32(1), false, 0, ""},                                       // n past the end
      {le32(1) + "Q", true, 5, ""},                                  // NUL not checked
      {le32(0xFFFFFFFFu) + "abc", false, 0, ""},  // past the end, and past the limit
      {le32(0x4000001u) + "abc", false, 0, ""},
      {le32(0x80000000u) + "abc", false, 0, ""},
      {le32(3) + std::string("a\0\0", 3) + "tail", true, 7, std::string("a\0", 2)},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(testing::PrintToString(c.bytes));
    NativeByteOrderInputStream a(c.bytes.data(), c.bytes.size());
    Str out("untouched");
    EXPECT_EQ(c.ok, a.tryReadStr(out));
    EXPECT_EQ(c.posAfter, a.position());
    EXPECT_EQ(c.ok ? c.text : std::string("untouched"), std::string(out));

    NativeByteOrderInputStream b(c.bytes.data(), c.bytes.size());
    const char* mark = "mark";
    StrSegment seg(mark, 4);
    EXPECT_EQ(c.ok, b.tryReadSeg(seg));
    EXPECT_EQ(c.posAfter, b.position());
    if (c.ok) {
      EXPECT_EQ(c.text, std::string(seg.data(), seg.size()));
      EXPECT_EQ(c.bytes.data() + 4, seg.data());  // a view into the buffer
    } else {
      EXPECT_EQ(mark, seg.data());
      EXPECT_EQ(4u, seg.size());
    }

    // The same bytes with the count reversed read alike in the other order.
    std::string swapped = c.bytes;
    if (swapped.size() >= 4) std::reverse(swapped.begin(), swapped.begin() + 4);
    SwappedByteOrderInputStream d(swapped.data(), swapped.size());
    Str out2;
    EXPECT_EQ(c.ok, d.tryReadStr(out2));
    EXPECT_EQ(c.posAfter, d.position());
  }
}

// ---------- Writing gzip ----------

// The extra-flags byte stays 0 whatever the level, and every member's stamp
// is limited alike.
TEST(StreamsReviewGzipWrite, HeaderIsTheSameAtEveryLevel) {
  const struct {
    int64_t sec;
    uint32_t stamped;
  } kCases[] = {
      {0, 0},
      {1, 1},
      {0x12345678, 0x12345678},
      {0x7FFFFFFF, 0x7FFFFFFF},
      {0x80000000LL, 0x7FFFFFFF},  // limited, not wrapped
      {0x1FFFFFFFFLL, 0x7FFFFFFF},
      {INT64_MAX, 0x7FFFFFFF},
  };
  for (const auto& c : kCases) {
    for (int level : {-1, 0, 1, 9}) {
    MemGzipWriter w(Timeval(c.sec, 999), level, 64);
    ASSERT_TRUE(w.finish());
    ASSERT_GE(w.out.size(), 18u);
    std::string expect = std::string("\x1f\x8b\x08\x00", 4) + le32(c.stamped) +
                         std::string("\x00\x03", 2);
    EXPECT_EQ(expect, w.out.substr(0, 10)) << c.sec << " level " << level;
    }
  }
  // A later member's stamp follows the same rule.
  MemGzipWriter w(Timeval(1, 0), 6, 64);
  ASSERT_TRUE(w.finish());
  const size_t first = w.out.size();
  w.startNewFile(Timeval(0x100000000LL, 0));
  ASSERT_TRUE(w.finish());
  EXPECT_EQ(le32(0x7FFFFFFF), w.out.substr(first + 4, 4));
}

TEST(StreamsReviewGzipWrite, OutputInflatesWithRightFooterForEveryParameter) {
  const std::string kPayloads[] = {"", "x", textBytes(70000), randomBytes(50000, 9)};
  const struct {
    int level;
    unsigned long buf;
    unsigned wbits, mem;
    int strategy;
    size_t chunk;  // write_stream takes at most this much a call
  } kCases[] = {
      {6, 65536, 15, 8, 0, SIZE_MAX}, {0, 10, 15, 8, 0, SIZE_MAX}, {1, 11, 9, 1, 0, 3},
      {9, 17, 15, 9, 1, 1},           {-1, 18, 12, 8, 2, 7},        {6, 19, 15, 8, 3, SIZE_MAX},
      {6, 25, 15, 8, 4, 5},           {9, 4096, 10, 4, 0, 1000},
  };
  for (const auto& c : kCases) {
    for (const auto& p : kPayloads) {
      SCOPED_TRACE(testing::Message() << "level " << c.level << " buf " << c.buf << " payload "
                                      << p.size());
      MemGzipWriter w(Timeval(1000, 0), c.level, c.buf, c.wbits, c.mem, c.strategy);
      w.chunk = c.chunk;
      // Written in uneven pieces so that several deflate calls meet.
      size_t at = 0, piece = 1;
      while (at < p.size()) {
        size_t n = std::min(piece, p.size() - at);
        ASSERT_EQ(static_cast<ssize_t>(n), w.write(p.data() + at, n));
        at += n;
        piece = piece * 3 + 1;
      }
      ASSERT_TRUE(w.finish());
      ASSERT_GE(w.out.size(), 18u);
      std::string body = w.out.substr(10, w.out.size() - 18);
      std::string back;
      ASSERT_TRUE(rawInflate(body, &back));
      EXPECT_TRUE(back == p);
      EXPECT_EQ(le32(crcOf(p)), w.out.substr(w.out.size() - 8, 4));
      EXPECT_EQ(le32(static_cast<uint32_t>(p.size())), w.out.substr(w.out.size() - 4));
    }
  }
}

TEST(StreamsReviewGzipWrite, NewMembersRestartCrcAndCountAndGunzip) {
  TempDir dir;
  std::string path = dir.file("m.gz");
  int fd = open(path.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0644);
  ASSERT_GE(fd, 0);
  const std::string parts[] = {textBytes(5000), "", randomBytes(3000, 4)};
  std::vector<size_t> starts;
  {
    WritableGzipFileDescriptor w(FileDescriptor(fd), Timeval(0x11223344, 0), 6, 64);
    for (size_t i = 0; i < 3; ++i) {
      if (i > 0) w.startNewFile(Timeval(0x11223344 + static_cast<int64_t>(i), 0));
      ASSERT_EQ(static_cast<ssize_t>(parts[i].size()), w.write(parts[i].data(), parts[i].size()));
      ASSERT_TRUE(w.finish());
    }
  }
  close(fd);
  EXPECT_TRUE(runCapture("gzip -dc '" + path + "'") == parts[0] + parts[1] + parts[2]);
  // Each member's footer covers its own bytes only.
  std::string listing = runCapture("python3 -c \"import sys,zlib\n"
                                   "d=open(sys.argv[1],'rb').read()\n"
                                   "while d:\n"
                                   " o=zlib.decompressobj(31); x=o.decompress(d)\n"
                                   " print(len(x), d[4:8].hex())\n"
                                   " d=o.unused_data\" '" + path + "'");
  EXPECT_EQ("5000 44332211\n0 45332211\n3000 46332211\n", listing);
}

TEST(StreamsReviewGzipWrite, DestinationFailureIsReported) {
  for (ssize_t failResult : {ssize_t{0}, ssize_t{-1}}) {
    // Far more than zlib keeps back, so the write itself meets the failing
    // destination.
    MemGzipWriter w(Timeval(1, 0), 0, 32);
    w.failAfter = 40;
    w.failResult = failResult;
    std::string p = randomBytes(200000, 3);
    errno = 0;
    EXPECT_EQ(-1, w.write(p.data(), p.size())) << failResult;
    EXPECT_EQ(EIO, errno);
    EXPECT_EQ(40u, w.out.size());
    errno = 0;
    EXPECT_FALSE(w.flushBuf());
    EXPECT_EQ(EIO, errno);
  }
  // The footer's own flush fails.
  MemGzipWriter w(Timeval(1, 0), 6, 4096);
  w.failAfter = 5;
  ASSERT_EQ(3, w.write("abc", 3));
  errno = 0;
  EXPECT_FALSE(w.finish());
  EXPECT_EQ(EIO, errno);
}

TEST(StreamsReviewGzipWrite, SyncFlushThroughTinyBuffers) {
  const std::string p = randomBytes(700, 17);
  for (unsigned long buf : {10ul, 11ul, 12ul, 13ul, 16ul, 23ul, 64ul}) {
    for (int flush : {WritableGzipStream::SYNC_FLUSH, WritableGzipStream::FULL_FLUSH}) {
      MemGzipWriter w(Timeval(1, 0), 6, buf);
      ASSERT_EQ(700, w.write(p.data(), p.size(), flush));
      ASSERT_TRUE(w.flushBuf());
      std::string back;
      ASSERT_TRUE(rawInflate(w.out.substr(10), &back));
      EXPECT_TRUE(back == p) << buf << " flush " << flush << " got " << back.size();
    }
  }
}

// ---------- Reading gzip ----------

TEST(StreamsReviewGzipRead, EveryFlagCombinationOfTheHeader) {
  const std::string payload = textBytes(900);
  HeaderParts h;
  // The extra field holds a NUL and the bytes of a header, so a reader that
  // takes the parts in the wrong order goes astray.
  h.extra = std::string("x\0\x1f\x8b\x08\0", 6);
  h.name = "name.log";
  h.comment = "a comment";
  for (int flags = 0; flags < 32; ++flags) {
    h.flags = static_cast<uint8_t>(flags);
    std::string data = gzipMember(payload, h) + gzipMember("tail", h);
    for (size_t chunk : {size_t{1}, size_t{3}, size_t{100000}}) {
      MemGzipReader r(data, chunk);
      ReadOutcome o = readAll(r, 333);
      EXPECT_EQ(0, o.last) << "flags " << flags << " chunk " << chunk;
      EXPECT_TRUE(o.data == payload + "tail") << "flags " << flags << " chunk " << chunk;
    }
  }
}

TEST(StreamsReviewGzipRead, ExtraFieldLengths) {
  for (size_t len : {0u, 1u, 255u, 256u, 257u, 511u, 4096u, 65535u}) {
    for (uint8_t flags : {uint8_t{0x04}, uint8_t{0x04 | 0x08 | 0x02}}) {
      HeaderParts h;
      h.flags = flags;
      h.extra = std::string(len, '\x1f');
      h.name = "n";
      MemGzipReader r(gzipMember("body", h), 7, 16);
      ReadOutcome o = readAll(r);
      EXPECT_EQ(0, o.last) << len;
      EXPECT_EQ("body", o.data) << len << " flags " << int(flags);
    }
  }
}

TEST(StreamsReviewGzipRead, LongNameAndCommentAcrossBuffers) {
  HeaderParts h;
  h.flags = 0x08 | 0x10 | 0x02;
  h.name = std::string(70000, 'N');
  h.comment = std::string(5000, '\x8b');
  MemGzipReader r(gzipMember("after long parts", h) + gzipMember("!", h), 999, 16);
  ReadOutcome o = readAll(r, 7);
  EXPECT_EQ(0, o.last);
  EXPECT_EQ("after long parts!", o.data);
}

TEST(StreamsReviewGzipRead, HugeRequestIsNotCutTo32Bits) {
  // zlib counts in 32 bits; a request of 4 GiB and more must still produce.
  const std::string p = textBytes(50);
  for (unsigned long long n : {1ull << 32, (1ull << 32) + 10, (1ull << 33) + 1}) {
    MemGzipReader r(gzipMember(p));
    std::vector<char> buf(100);
    // Only the 50 bytes of the payload are ever written.
    EXPECT_EQ(50, r.read(buf.data(), static_cast<unsigned long>(n))) << n;
    EXPECT_EQ(p, std::string(buf.data(), 50));
  }
}

TEST(StreamsReviewGzipRead, RefusedHeaders) {
  const std::string good = gzipMember("abc");
  std::vector<std::pair<std::string, std::string>> kCases;
  auto with = [&](size_t at, char c) {
    std::string s = good;
    s[at] = c;
    return s;
  };
  kCases.push_back({"first magic", with(0, '\x1e')});
  kCases.push_back({"second magic", with(1, '\x8c')});
  kCases.push_back({"method 0", with(2, '\x00')});
  kCases.push_back({"method 9", with(2, '\x09')});
  kCases.push_back({"flag 0x20", with(3, '\x20')});
  kCases.push_back({"flag 0x40", with(3, '\x40')});
  kCases.push_back({"flag 0x80", with(3, '\x80')});
  kCases.push_back({"flags 0xFF", with(3, '\xff')});
  kCases.push_back({"text", "plain text, not gzip\n"});
  kCases.push_back({"zlib framing", "\x78\x9c" + rawDeflate("abc")});
  for (const auto& c : kCases) {
    MemGzipReader r(c.second, 1);
    ReadOutcome o = readAll(r);
    EXPECT_EQ(-1, o.last) << c.first;
    EXPECT_EQ(ENOEXEC, o.err) << c.first;
    EXPECT_EQ("", o.data) << c.first;
  }
}

TEST(StreamsReviewGzipRead, TruncationAtEveryOffset) {
  const std::string p1 = textBytes(3000), p2 = randomBytes(500, 7);
  const std::string m1 = gzipMember(p1, HeaderParts{0x1E, "ex", "nm", "cm"});
  const std::string data = m1 + gzipMember(p2);
  for (size_t cut = 0; cut <= data.size(); ++cut) {
    MemGzipReader r(data.substr(0, cut), 5);
    ReadOutcome o = readAll(r, 1000);
    SCOPED_TRACE(cut);
    if (cut == 0 || cut == m1.size() || cut == data.size()) {
      EXPECT_EQ(0, o.last);
      EXPECT_TRUE(o.data == (cut == 0 ? "" : cut == m1.size() ? p1 : p1 + p2));
    } else {
      EXPECT_EQ(-1, o.last);
      EXPECT_EQ(ENOEXEC, o.err);
      EXPECT_TRUE((p1 + p2).compare(0, o.data.size(), o.data) == 0);
    }
  }
}

TEST(StreamsReviewGzipRead, GarbageAfterAMemberComesAfterTheData) {
  const struct {
    const char* name;
    std::string tail;
  } kCases[] = {
      {"zeros", std::string(8, '\0')},
      {"text", "junk"},
      {"half magic", "\x1f"},
      {"magic then bad method", "\x1f\x8b\x07"},
  };
  for (const auto& c : kCases) {
    MemGzipReader r(gzipMember("data") + c.tail);
    char buf[64];
    ssize_t n = r.read(buf, sizeof(buf));
    ASSERT_EQ(4, n) << c.name;
    EXPECT_EQ("data", std::string(buf, 4));
    errno = 0;
    EXPECT_EQ(-1, r.read(buf, sizeof(buf))) << c.name;
    EXPECT_EQ(ENOEXEC, errno) << c.name;
  }
}

TEST(StreamsReviewGzipRead, SourceFailurePassedOnAfterData) {
  const std::string p = textBytes(20000);
  const std::string data = gzipMember(p);
  for (size_t failAt : {size_t{0}, size_t{5}, size_t{200}, data.size() - 3}) {
    MemGzipReader r(data, 64);
    r.failAt = failAt;
    r.failErrno = EIO;
    ReadOutcome o = readAll(r, 100000);
    EXPECT_EQ(-1, o.last) << failAt;
    EXPECT_EQ(EIO, o.err) << failAt;
    EXPECT_TRUE(p.compare(0, o.data.size(), o.data) == 0);
  }
}

TEST(StreamsReviewGzipRead, OneByteAtATimeOut) {
  const std::string p = randomBytes(3000, 11) + textBytes(3000);
  MemGzipReader r(gzipMember(p) + gzipMember(p), 13, 1);
  ReadOutcome o = readAll(r, 1);
  EXPECT_EQ(0, o.last);
  EXPECT_TRUE(o.data == p + p);
}

TEST(StreamsReviewGzipRead, TimedReadsAlwaysMakeProgress) {
  // Each timed call that produces nothing still takes input, so repeated
  // timed calls reach the data and the clean end.
  const std::string p = textBytes(200);
  HeaderParts h{0x08, "", "nm", ""};
  MemGzipReader r(gzipMember(p, h), 4);
  r.sleepMsPerCall = 3;
  std::string got;
  char buf[1000];
  int timeouts = 0;
  ssize_t n;
  for (int i = 0; i < 1000; ++i) {
    n = r.read(buf, sizeof(buf), 1);
    if (n == -2) {
      ++timeouts;
      continue;
    }
    if (n <= 0) break;
    got.append(buf, static_cast<size_t>(n));
  }
  EXPECT_EQ(0, n);
  EXPECT_GT(timeouts, 0);
  EXPECT_EQ(p, got);
}

TEST(StreamsReviewGzipRead, NonBlockingPipePassesEagainOn) {
  int fds[2];
  ASSERT_EQ(0, pipe2(fds, O_NONBLOCK));
  ReadableGzipFileDescriptor r(FileDescriptor(fds[0]), 256);
  char buf[256];
  errno = 0;
  EXPECT_EQ(-1, r.read(buf, sizeof(buf)));
  EXPECT_EQ(EAGAIN, errno);
  std::string m = gzipMember("through a pipe");
  ASSERT_EQ(static_cast<ssize_t>(m.size()), write(fds[1], m.data(), m.size()));
  ssize_t n = r.read(buf, sizeof(buf));
  ASSERT_EQ(14, n);
  EXPECT_EQ("through a pipe", std::string(buf, 14));
  errno = 0;
  EXPECT_EQ(-1, r.read(buf, sizeof(buf)));
  EXPECT_EQ(EAGAIN, errno);
  close(fds[1]);
  EXPECT_EQ(0, r.read(buf, sizeof(buf)));
  close(fds[0]);
}

TEST(StreamsReviewGzipRead, SetFdStartsOver) {
  TempDir dir;
  writeFile(dir.file("a.gz"), gzipMember(textBytes(50000)));
  writeFile(dir.file("b.gz"), gzipMember("second file"));
  int a = open(dir.file("a.gz").c_str(), O_RDONLY);
  int b = open(dir.file("b.gz").c_str(), O_RDONLY);
  ReadableGzipFileDescriptor r{FileDescriptor(a), 64};
  char buf[100];
  ASSERT_EQ(100, r.read(buf, sizeof(buf)));
  r.setFd(FileDescriptor(b));
  ReadOutcome o = readAll(r);
  EXPECT_EQ(0, o.last);
  EXPECT_EQ("second file", o.data);
  close(a);
  close(b);
}

TEST(StreamsReviewGzipWrite, UntimedStreamIsStampedNow) {
  TempDir dir;
  int fd = open(dir.file("n.gz").c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0644);
  ASSERT_GE(fd, 0);
  const int64_t before = time(nullptr);
  {
    WritableGzipFileDescriptor w{FileDescriptor(fd)};
    ASSERT_EQ(2, w.write("hi", 2));
    ASSERT_TRUE(w.finish());
  }
  const int64_t after = time(nullptr);
  close(fd);
  std::string f = readFile(dir.file("n.gz"));
  ASSERT_GE(f.size(), 10u);
  uint32_t stamp = 0;
  for (int i = 0; i < 4; ++i) stamp |= uint32_t(uint8_t(f[4 + i])) << (8 * i);
  EXPECT_LE(before, int64_t(stamp));
  EXPECT_GE(after, int64_t(stamp));
  EXPECT_EQ("hi", runCapture("gzip -dc '" + dir.file("n.gz") + "'"));
}

TEST(StreamsReviewGzipWrite, ZlibRefusalsAreEnoexec) {
  MemGzipWriter w(Timeval(1, 0), 6, 64);
  errno = 0;
  EXPECT_EQ(-1, w.write("abc", 3, 99));  // a flush value zlib does not know
  EXPECT_EQ(ENOEXEC, errno);
}

// ---------- GZLineReader ----------

TEST(StreamsReviewGZLineReader, LinesAcrossMembersAndTruncation) {
  TempDir dir;
  const std::string text1 = "one\r\ntwo\nthr", text2 = "ee\nfour\r\nfive";
  const std::string data = gzipMember(text1) + gzipMember(text2);
  writeFile(dir.file("whole.gz"), data);
  writeFile(dir.file("cut.gz"), data.substr(0, data.size() - 3));
  {
    GZLineReader lr{Pathname(dir.file("whole.gz").c_str())};
    ASSERT_TRUE(lr.valid());
    std::vector<std::string> lines;
    Str line;
    while (lr.readline(line)) lines.push_back(line);
    EXPECT_EQ((std::vector<std::string>{"one", "two", "three", "four", "five"}), lines);
    ASSERT_TRUE(lr.rewind());
    ASSERT_TRUE(lr.readline(line));
    EXPECT_EQ("one", std::string(line));
  }
  {
    // Cut inside the last footer: every line comes out, and the end is
    // still a truncation.
    GZLineReader lr{Pathname(dir.file("cut.gz").c_str())};
    std::vector<std::string> lines;
    Str line;
    errno = 0;
    while (lr.readline(line)) lines.push_back(line);
    EXPECT_EQ(ENOEXEC, errno);
    EXPECT_EQ((std::vector<std::string>{"one", "two", "three", "four", "five"}), lines);
  }
}

// ---------- Decompressor ----------

TEST(StreamsReviewDecompressor, EarlyCloseAndDestructionDoNotHang) {
  TempDir dir;
  writeFile(dir.file("big"), randomBytes(4u << 20, 44));
  ASSERT_EQ("", runCapture("gzip -1 -k '" + dir.file("big") + "'"));
  const Pathname gz(dir.file("big.gz").c_str());
  {
    // Nothing read: the command is stopped, and that is no failure.
    Decompressor d(gz, Str("gzip -dc"));
    ASSERT_TRUE(d.valid());
    EXPECT_TRUE(d.close()) << d.error();
    char buf[16];
    errno = 0;
    EXPECT_EQ(-1, d.read(buf, sizeof(buf)));
    EXPECT_EQ(EBADF, errno);
  }
  {
    // Part read, then dropped without a close, while both pipes are full.
    Decompressor d(gz, Str("gzip -dc"));
    ASSERT_TRUE(d.valid());
    char buf[100];
    EXPECT_EQ(100, d.read(buf, sizeof(buf)));
  }
  {
    Decompressor d(gz, Str("cat"));
    ASSERT_TRUE(d.valid());
  }
}

TEST(StreamsReviewDecompressor, CommandWordsAreQuoted) {
  TempDir dir;
  writeFile(dir.file("in"), "payload");
  std::string tool = dir.file("my tool");
  writeFile(tool, "#!/bin/sh\nprintf '%s|' \"$@\"\ncat\n");
  chmod(tool.c_str(), 0755);
  Str out, err;
  Str cmd(std::string("'") + tool + "' --stdout \"two words\" a\\ b");
  ASSERT_TRUE(Decompressor::decompress(Pathname(dir.file("in").c_str()), cmd, out, 1000, err))
      << err;
  EXPECT_EQ("--stdout|two words|a b|payload", std::string(out));
}

// ---------- Archives ----------

TEST(StreamsReviewArchive, ReadsWhatTheToolsWrite) {
  TempDir dir;
  ASSERT_EQ("", runCapture("cd '" + dir.path() + "' && mkdir -p t/sub && printf abc > t/sub/f"
                           " && printf '%s' \"$(seq 1 20000)\" > t/g && ln -s sub/f t/link"
                           " && chmod 600 t/sub/f && tar -cf gnu.tar t && tar -czf gnu.tgz t"
                           " && bsdtar -cf bsd.zip --format zip t && tar -cjf gnu.tbz2 t"));
  const std::string g = readFile(dir.file("t/g"));
  for (const char* file : {"gnu.tar", "gnu.tgz", "bsd.zip", "gnu.tbz2"}) {
    SCOPED_TRACE(file);
    ReadableArchiveFile r;
    ASSERT_TRUE(r.open(Pathname(dir.file(file).c_str()))) << r.lastError();
    ArchiveFileEntry e;
    int rc;
    int seen = 0;
    while ((rc = r.nextHeader(&e)) == 1) {
      std::string name(e.name);
      while (!name.empty() && name.back() == '/') name.pop_back();
      if (name == "t" || name == "t/sub") {
        EXPECT_EQ(ArchiveFileEntry::DIRECTORY, e.type) << name;
        EXPECT_EQ(0, e.size);
        ++seen;
      } else if (name == "t/link") {
        EXPECT_EQ(ArchiveFileEntry::SYMLINK, e.type);
        EXPECT_EQ("sub/f", std::string(e.linkTarget));
        EXPECT_EQ(0, e.size);
        ++seen;
      } else if (name == "t/sub/f") {
        EXPECT_EQ(ArchiveFileEntry::REGULAR, e.type);
        EXPECT_EQ(mode_t{0600}, e.perm);
        ReadableArchiveFile::FileReader fr(r);
        char buf[2];
        std::string got;
        ssize_t n;
        while ((n = fr.read(buf, sizeof(buf))) > 0) got.append(buf, static_cast<size_t>(n));
        EXPECT_EQ(0, n);
        EXPECT_EQ("abc", got);
        ++seen;
      } else if (name == "t/g") {
        EXPECT_EQ(int64_t(g.size()), e.size);
        if (std::string(file) == "gnu.tar") {
          EXPECT_TRUE(r.skipEntry());
        } else {
          FILE* f = fopen(dir.file("out").c_str(), "wb");
          FileStar fs(f);
          EXPECT_TRUE(r.writeEntryTo(fs));
          fs.close();
          EXPECT_TRUE(readFile(dir.file("out")) == g);
        }
        ++seen;
      } else {
        ADD_FAILURE() << "unexpected entry " << name;
      }
    }
    EXPECT_EQ(0, rc);
    EXPECT_EQ(5, seen);
  }
}

TEST(StreamsReviewArchive, FdReaderDescribesFilesAndDirectories) {
  TempDir dir;
  const std::string longName = std::string(120, 'n') + "/" + std::string(90, 'm') + ".txt";
  writeFile(dir.file("f"), "fd reader data");
  chmod(dir.file("f").c_str(), 0751);
  struct timeval tv[2] = {{1500000000, 0}, {1500000000, 0}};
  utimes(dir.file("f").c_str(), tv);
  mkdir(dir.file("d").c_str(), 0705);
  const std::string path = dir.file("fd.tar");
  {
    WritableArchive w;
    ASSERT_TRUE(w.open(Pathname(path.c_str()), WritableArchive::TAR));
    int f = open(dir.file("f").c_str(), O_RDONLY);
    int d = open(dir.file("d").c_str(), O_RDONLY | O_DIRECTORY);
    FdReader rf{FileDescriptor(f)}, rd{FileDescriptor(d)};
    ASSERT_TRUE(w.addEntry(Pathname("dir"), &rd)) << w.lastError();
    ASSERT_TRUE(w.addEntry(Pathname(longName.c_str()), &rf)) << w.lastError();
    close(f);
    close(d);
    ASSERT_TRUE(w.close());
  }
  EXPECT_EQ("fd reader data", runCapture("tar -xOf '" + path + "' '" + longName + "'"));
  ReadableArchiveFile r;
  ASSERT_TRUE(r.open(Pathname(path.c_str())));
  ArchiveFileEntry e;
  ASSERT_EQ(1, r.nextHeader(&e));
  EXPECT_EQ(ArchiveFileEntry::DIRECTORY, e.type);
  EXPECT_EQ(mode_t{0705}, e.perm);
  ASSERT_EQ(1, r.nextHeader(&e));
  EXPECT_EQ(longName, std::string(e.name));
  EXPECT_EQ(ArchiveFileEntry::REGULAR, e.type);
  EXPECT_EQ(mode_t{0751}, e.perm);
  EXPECT_EQ(14, e.size);
  EXPECT_EQ(1500000000, e.mtime.tv_sec);
  // A stream opened for reading refuses the copy.
  FileStar ro(fopen(dir.file("f").c_str(), "rb"));
  EXPECT_FALSE(r.writeEntryTo(ro));
  ro.close();
  EXPECT_EQ(0, r.nextHeader(&e));
}

}  // namespace
