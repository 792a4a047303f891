#include "util/GzipStream.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <time.h>
#include <unistd.h>
#include <zlib.h>

#include <cerrno>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "util/FileDescriptor.h"
#include "util/GzipFileDescriptor.h"
#include "util/Pathname.h"
#include "util/testing/FixedClock.h"
#include "util/testing/GzipTestSupport.h"
#include "util/testing/TestTempDir.h"

namespace {

// A hand-made header around the deflate body and footer of `member` (a
// header of 10 bytes with no flags), with the optional parts the flags ask
// for, in the order the format puts them.
std::string withOptionalHeader(const std::string& member, unsigned flags, const std::string& extra,
                               const std::string& name, const std::string& comment) {
  std::string h("\x1f\x8b\x08", 3);
  h += static_cast<char>(flags);
  h += std::string("\x00\x00\x00\x00\x00\x03", 6);
  if (flags & 0x04) {
    h += static_cast<char>(extra.size() & 0xFF);
    h += static_cast<char>(extra.size() >> 8);
    h += extra;
  }
  if (flags & 0x08) h += name + std::string(1, '\0');
  if (flags & 0x10) h += comment + std::string(1, '\0');
  if (flags & 0x02) h += "\xAB\xCD";  // never checked
  return h + member.substr(10);
}

TEST(GzipStream, RoundTripsAcrossSizesLevelsAndChunks) {
  const struct {
    size_t size;
    int level;
    size_t writeStep;
    size_t readChunk;
    unsigned long bufferSize;
  } kCases[] = {
      {0, 6, 1, 1, 10},            // an empty member
      {1, 6, 1, 1, 10},
      {1000, 0, 7, 3, 10},         // stored blocks
      {100000, 1, 4096, 1, 16},    // one compressed byte per read_stream
      {100000, 9, 100000, 1 << 20, 65536},
      {300000, 6, 33333, 977, 100},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(testing::Message() << c.size << " level " << c.level << " step " << c.writeStep);
    const std::string plain = logText(c.size, static_cast<unsigned>(c.size));
    StringGzipWriter w(Timeval(5, 0), c.level, c.bufferSize);
    for (size_t pos = 0; pos < plain.size(); pos += c.writeStep) {
      const size_t n = std::min(c.writeStep, plain.size() - pos);
      ASSERT_EQ(static_cast<ssize_t>(n), w.write(plain.data() + pos, n));
    }
    ASSERT_TRUE(w.finish());
    StringGzipReader r(w.out, c.readChunk, c.bufferSize);
    const GzipDrain d = drainGzip(r, 1 + c.readChunk * 3);
    EXPECT_EQ(0, d.last);
    EXPECT_TRUE(plain == d.bytes);
  }
}

TEST(GzipStream, HeaderIsFixedTenBytes) {
  const struct {
    int64_t seconds;
    std::string stamp;
  } kCases[] = {
      {0, std::string("\x00\x00\x00\x00", 4)},
      {0x12345678, "\x78\x56\x34\x12"},
      {0x7FFFFFFF, "\xff\xff\xff\x7f"},
      {0x80000000LL, "\xff\xff\xff\x7f"},  // limited, not wrapped
      {INT64_MAX, "\xff\xff\xff\x7f"},
  };
  for (const auto& c : kCases) {
    StringGzipWriter w(Timeval(c.seconds, 0));
    ASSERT_TRUE(w.finish());
    ASSERT_GE(w.out.size(), 18u);
    EXPECT_EQ(std::string("\x1f\x8b\x08\x00", 4) + c.stamp + std::string("\x00\x03", 2),
              w.out.substr(0, 10))
        << c.seconds;
    // An empty input: CRC 0 and length 0 at the end.
    EXPECT_EQ(std::string(8, '\0'), w.out.substr(w.out.size() - 8));
  }
}

TEST(GzipStream, FooterCarriesCrcAndLength) {
  StringGzipWriter w(Timeval(1, 0));
  const std::string text = "123456789";  // the CRC-32 check value is 0xCBF43926
  ASSERT_EQ(9, w.write(text.data(), text.size()));
  ASSERT_TRUE(w.finish());
  EXPECT_EQ(std::string("\x26\x39\xf4\xcb\x09\x00\x00\x00", 8), w.out.substr(w.out.size() - 8));
}

TEST(GzipStream, ShortWritesContinueAndFailuresReport) {
  const std::string plain = logText(50000, 3);
  StringGzipWriter trickle(Timeval(1, 0), 6, 64);
  trickle.maxChunk = 5;
  ASSERT_EQ(50000, trickle.write(plain.data(), plain.size()));
  ASSERT_TRUE(trickle.finish());
  StringGzipReader r(trickle.out);
  EXPECT_TRUE(plain == drainGzip(r).bytes);

  StringGzipWriter failing(Timeval(1, 0), 0, 64);
  failing.failAfter = 100;
  failing.failErrno = ENOSPC;
  errno = 0;
  EXPECT_EQ(-1, failing.write(plain.data(), plain.size()));
  EXPECT_EQ(ENOSPC, errno);

  StringGzipWriter atFinish(Timeval(1, 0));
  atFinish.failAfter = 0;
  ASSERT_EQ(5, atFinish.write("hello", 5));  // still in the buffer
  errno = 0;
  EXPECT_FALSE(atFinish.finish());
  EXPECT_EQ(EIO, errno);
}

TEST(GzipStream, WriteAfterFinishIsRefused) {
  StringGzipWriter w(Timeval(1, 0));
  ASSERT_TRUE(w.finish());
  errno = 0;
  EXPECT_EQ(-1, w.write("late", 4));  // deflate's stream is finished
  EXPECT_EQ(ENOEXEC, errno);
  w.startNewFile(Timeval(1, 0));
  EXPECT_EQ(4, w.write("late", 4));
}

TEST(GzipStream, SyncFlushMakesEverythingSoFarReadable) {
  StringGzipWriter w(Timeval(1, 0));
  ASSERT_EQ(11, w.write("first part\n", 11, WritableGzipStream::SYNC_FLUSH));
  EXPECT_TRUE(w.out.empty());  // the flushed deflate data waits in the buffer
  ASSERT_TRUE(w.flushBuf());
  const std::string flushed = w.out;
  StringGzipReader r(flushed);
  std::string buf(100, '\0');
  EXPECT_EQ(11, r.read(buf.data(), buf.size()));
  EXPECT_EQ("first part\n", buf.substr(0, 11));
  // The member is unfinished: the end of input is a truncation.
  EXPECT_EQ(-1, r.read(buf.data(), buf.size()));
  EXPECT_EQ(ENOEXEC, errno);
}

TEST(GzipStream, ConcatenatedMembersReadAsOne) {
  StringGzipWriter w(Timeval(1, 0));
  ASSERT_EQ(6, w.write("alpha\n", 6));
  ASSERT_TRUE(w.finish());
  w.startNewFile(Timeval(2, 0));
  ASSERT_EQ(5, w.write("beta\n", 5));
  ASSERT_TRUE(w.finish());
  const std::string third = ourGzip("gamma\n");
  for (size_t chunk : {1u, 3u, 1000u}) {
    StringGzipReader r(w.out + third, chunk);
    const GzipDrain d = drainGzip(r, 4);
    EXPECT_EQ("alpha\nbeta\ngamma\n", d.bytes) << chunk;
    EXPECT_EQ(0, d.last);
  }
  // Damage in a footer goes unnoticed: it is skipped, not compared.
  std::string damaged = w.out + third;
  damaged[w.out.size() - 1] ^= 0x55;
  damaged[w.out.size() - 6] ^= 0x55;
  StringGzipReader r(damaged);
  EXPECT_EQ("alpha\nbeta\ngamma\n", drainGzip(r).bytes);
}

// Every combination of the optional header parts, each in its place.
TEST(GzipStream, OptionalHeaderPartsAreSkipped) {
  const std::string plain = "payload line\n";
  const std::string member = ourGzip(plain);
  const std::string longExtra(300, '\x01');  // a length above 255 uses the high byte
  for (unsigned flags = 0; flags < 32; flags += 2) {
    for (const std::string& extra : {std::string(), std::string("AP\x02\x00hi", 6), longExtra}) {
      const std::string data = withOptionalHeader(member, flags, extra, "name.log", "a comment");
      for (size_t chunk : {1u, 4096u}) {
        StringGzipReader r(data, chunk);
        const GzipDrain d = drainGzip(r);
        EXPECT_EQ(plain, d.bytes) << "flags " << flags << " extra " << extra.size();
        EXPECT_EQ(0, d.last);
      }
    }
  }
}

TEST(GzipStream, RefusesWhatIsNotGzip) {
  const std::string member = ourGzip("x");
  std::string badMethod = member;
  badMethod[2] = 7;
  const struct {
    const char* why;
    std::string data;
    const char* before;  // what comes out ahead of the refusal
  } kCases[] = {
      {"plain text", "hello world\n", ""},
      {"first magic byte", std::string("\x1e\x8b", 2) + member.substr(2), ""},
      {"second magic byte", std::string("\x1f\x8c", 2) + member.substr(2), ""},
      {"method other than deflate", badMethod, ""},
      {"reserved flag 0x20", withOptionalHeader(member, 0x20, "", "", ""), ""},
      {"reserved flag 0x40", withOptionalHeader(member, 0x40, "", "", ""), ""},
      {"reserved flag 0x80", withOptionalHeader(member, 0x80, "", "", ""), ""},
      {"text after a member", member + "trailing", "x"},
      {"zeros after a member", member + std::string(8, '\0'), "x"},
      {"half a magic after a member", member + "\x1f", "x"},
      {"a second member with a bad method", member + "\x1f\x8b\x07", "x"},
  };
  for (const auto& c : kCases) {
    StringGzipReader r(c.data);
    const GzipDrain d = drainGzip(r);
    EXPECT_EQ(c.before, d.bytes) << c.why;
    EXPECT_EQ(-1, d.last) << c.why;
    EXPECT_EQ(ENOEXEC, d.err) << c.why;
    // And it stays refused.
    char b[4];
    EXPECT_EQ(-1, r.read(b, sizeof b)) << c.why;
  }
}

// Cut a two-member file after every byte: the cuts at 0 and right after the
// first footer are clean ends, every other cut is a truncation, and nothing
// is ever produced that was not in the input.
TEST(GzipStream, TruncationAtEveryByte) {
  const std::string first = "first member, with some text to compress: aaaaaaaaaaaaaaaa\n";
  const std::string second = logText(2000, 9);
  const std::string one = ourGzip(first), two = ourGzip(second);
  const std::string whole = one + two;
  for (size_t cut = 0; cut <= whole.size(); ++cut) {
    StringGzipReader r(whole.substr(0, cut), 1 + cut % 5);
    const GzipDrain d = drainGzip(r, 64);
    const bool clean = cut == 0 || cut == one.size() || cut == whole.size();
    ASSERT_EQ(clean ? 0 : -1, d.last) << "cut " << cut;
    if (!clean) {
      ASSERT_EQ(ENOEXEC, d.err) << "cut " << cut;
    }
    ASSERT_EQ(0u, (first + second).find(d.bytes)) << "cut " << cut;
    if (cut >= one.size()) {
      ASSERT_GE(d.bytes.size(), first.size()) << "cut " << cut;
    }
  }
}

// A flipped byte inside the deflate data gives an error or different text,
// never a crash or a hang. Without the CRC check many flips in literal data
// pass as other text; structural damage is caught.
TEST(GzipStream, FlippedBodyBytesNeverCrash) {
  const std::string plain = logText(20000, 4);
  const std::string member = ourGzip(plain);
  size_t caught = 0, bodyBytes = 0;
  for (size_t pos = 10; pos + 8 < member.size(); ++pos) {
    for (unsigned char mask : {0x01, 0x80, 0xFF}) {
      std::string damaged = member;
      damaged[pos] = static_cast<char>(damaged[pos] ^ mask);
      StringGzipReader r(damaged, 512);
      const GzipDrain d = drainGzip(r, 4096);
      ++bodyBytes;
      if (d.last == -1) {
        ASSERT_EQ(ENOEXEC, d.err);
        ++caught;
      } else {
        ASSERT_EQ(0, d.last);
      }
    }
  }
  EXPECT_GT(caught, bodyBytes / 5);
}

TEST(GzipStream, ReadStreamFailureIsPassedOn) {
  const std::string member = ourGzip(logText(1000, 5));
  StringGzipReader r(member.substr(0, 200));
  r.failErrno = EIO;
  const GzipDrain d = drainGzip(r, 100000);
  EXPECT_EQ(-1, d.last);
  EXPECT_EQ(EIO, d.err);
  EXPECT_FALSE(d.bytes.empty());  // what came before the failure was delivered
}

// read_stream that moves the fixed clock on by 100 ms a call and trickles
// header bytes that produce nothing.
class SlowHeaderReader : public ReadableGzipStream {
 public:
  SlowHeaderReader(ScopedFixedClock& clock, std::string data)
      : ReadableGzipStream(64), _clock(clock), _data(std::move(data)) {}
  Timeval now{1000, 0};

 protected:
  ssize_t read_stream(void* buf, size_t) override {
    now.addMsec(100);
    _clock.set(now);
    if (_pos == _data.size()) return 0;
    *static_cast<char*>(buf) = _data[_pos++];
    return 1;
  }

 private:
  ScopedFixedClock& _clock;
  std::string _data;
  size_t _pos = 0;
};

TEST(GzipStream, TimedReadGivesUpWhenNothingCame) {
  ScopedFixedClock clock(Timeval(1000, 0));
  const std::string member = withOptionalHeader(ourGzip("late\n"), 0x08, "", std::string(50, 'n'), "");
  SlowHeaderReader r(clock, member);
  char buf[16];
  EXPECT_EQ(-2, r.read(buf, sizeof buf, 250));
  // Without a limit the same stream delivers, however long it takes.
  const GzipDrain d = drainGzip(r, 16);
  EXPECT_EQ("late\n", d.bytes);
  EXPECT_EQ(0, d.last);
}

// A limit too large for signed arithmetic never runs out.
TEST(GzipStream, TimedReadWithAHugeLimitWaits) {
  for (unsigned long long limit : {~0ULL, (1ULL << 63) + 5, 1ULL << 63}) {
    ScopedFixedClock clock(Timeval(1000, 0));
    SlowHeaderReader r(clock, withOptionalHeader(ourGzip("late\n"), 0x08, "", std::string(50, 'n'), ""));
    char buf[16];
    EXPECT_EQ(5, r.read(buf, sizeof buf, limit)) << limit;
  }
}

// Damage in the compressed data after good bytes: the good bytes come out
// first, the damage on the next call.
TEST(GzipStream, GoodBytesBeforeDamageAreDelivered) {
  const std::string text = "line one\nline two\nline three\n";
  std::string member("\x1f\x8b\x08\x00\x00\x00\x00\x00\x00\xff", 10);
  member += '\x00';  // a stored block, not the last
  member += static_cast<char>(text.size());
  member += '\x00';
  member += static_cast<char>(~text.size());
  member += '\xff';
  member += text;
  member += '\x07';  // a last block of the reserved type
  StringGzipReader r(member);
  char buf[4096];
  ASSERT_EQ(static_cast<ssize_t>(text.size()), r.read(buf, sizeof buf));
  EXPECT_EQ(text, std::string(buf, text.size()));
  errno = 0;
  EXPECT_EQ(-1, r.read(buf, sizeof buf));
  EXPECT_EQ(ENOEXEC, errno);
}

TEST(GzipStream, ResetStartsOver) {
  StringGzipReader r("not gzip at all");
  char buf[8];
  EXPECT_EQ(-1, r.read(buf, sizeof buf));
  r.reset();  // forgets the refusal; the input is used up, so a clean end
  EXPECT_EQ(0, r.read(buf, sizeof buf));
}

TEST(GzipStream, ContractAssertions) {
  EXPECT_DEATH(gzip_buffer(0), "bufsiz > 0");
  EXPECT_DEATH(StringGzipWriter(Timeval(1, 0), 6, 9), "_buf.siz >= 10");
  EXPECT_DEATH(
      {
        DecompressingZlibStream z;
        z.setup(true, 7);
      },
      "windowBits >= 8");
}

// A name and comment far longer than the buffer, the comment full of magic
// bytes, in two members read a few bytes at a time.
TEST(GzipStream, LongNameAndCommentAcrossBuffers) {
  const std::string name(70000, 'N'), comment(5000, '\x8b');
  StringGzipReader r(withOptionalHeader(ourGzip("after long parts"), 0x1A, "", name, comment) +
                         withOptionalHeader(ourGzip("!"), 0x1A, "", name, comment),
                     999, 16);
  const GzipDrain d = drainGzip(r, 7);
  EXPECT_EQ(0, d.last);
  EXPECT_EQ("after long parts!", d.bytes);
}

// zlib counts in 32 bits; a request of 4 GiB and more must still produce.
TEST(GzipStream, HugeRequestIsNotCutTo32Bits) {
  const std::string plain = logText(50, 1);
  for (unsigned long long n : {1ull << 32, (1ull << 32) + 10, (1ull << 33) + 1}) {
    StringGzipReader r(ourGzip(plain));
    std::vector<char> buf(100);  // only the 50 bytes of the payload are written
    EXPECT_EQ(50, r.read(buf.data(), static_cast<unsigned long>(n))) << n;
    EXPECT_EQ(plain, std::string(buf.data(), 50));
  }
}

// Each timed call that produces nothing still takes input, so repeated
// timed calls reach the data and the clean end.
TEST(GzipStream, TimedReadsAlwaysMakeProgress) {
  ScopedFixedClock clock(Timeval(1000, 0));
  SlowHeaderReader r(clock, withOptionalHeader(ourGzip("late\n"), 0x08, "", std::string(50, 'n'), ""));
  std::string got;
  char buf[1000];
  int timeouts = 0;
  ssize_t n = 0;
  for (int i = 0; i < 1000; ++i) {
    n = r.read(buf, sizeof(buf), 150);
    if (n == -2) {
      ++timeouts;
      continue;
    }
    if (n <= 0) break;
    got.append(buf, static_cast<size_t>(n));
  }
  EXPECT_EQ(0, n);
  EXPECT_GT(timeouts, 0);
  EXPECT_EQ("late\n", got);
}

TEST(GzipStream, ZlibRefusalsAreEnoexec) {
  StringGzipWriter w(Timeval(1, 0), 6, 64);
  errno = 0;
  EXPECT_EQ(-1, w.write("abc", 3, 99));  // a flush value zlib does not know
  EXPECT_EQ(ENOEXEC, errno);
}

// Inflates a whole gzip file with zlib, which checks every CRC and length.
bool zlibGunzip(const std::string& in, std::string* out) {
  z_stream zs{};
  if (inflateInit2(&zs, 15 + 16) != Z_OK) return false;
  zs.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(in.data()));
  zs.avail_in = static_cast<uInt>(in.size());
  out->clear();
  char buf[16384];
  int rc;
  do {
    zs.next_out = reinterpret_cast<Bytef*>(buf);
    zs.avail_out = sizeof(buf);
    rc = inflate(&zs, Z_NO_FLUSH);
    out->append(buf, sizeof(buf) - zs.avail_out);
  } while (rc == Z_OK);
  inflateEnd(&zs);
  return rc == Z_STREAM_END && zs.avail_in == 0;
}

// A sink that takes every deflate parameter and at most `chunk` bytes a call.
class TunedGzipWriter : public WritableGzipStream {
 public:
  TunedGzipWriter(int level, unsigned long bufSize, unsigned windowBits, unsigned memLevel,
                  int strategy)
      : WritableGzipStream(Timeval(1000, 0), level, bufSize, windowBits, memLevel, strategy) {}
  std::string out;
  size_t chunk = SIZE_MAX;

 protected:
  ssize_t write_stream(const void* data, size_t len) override {
    const size_t n = std::min(len, chunk);
    out.append(static_cast<const char*>(data), n);
    return static_cast<ssize_t>(n);
  }
};

TEST(GzipStream, ZlibReadsOurOutputForEveryParameter) {
  std::mt19937 rng(9);
  std::string noise(50000, '\0');
  for (char& ch : noise) ch = static_cast<char>(rng());
  const std::string kPayloads[] = {"", "x", logText(70000, 2), noise};
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
      TunedGzipWriter w(c.level, c.buf, c.wbits, c.mem, c.strategy);
      w.chunk = c.chunk;
      // Written in uneven pieces so that several deflate calls meet.
      for (size_t at = 0, piece = 1; at < p.size(); piece = piece * 3 + 1) {
        const size_t n = std::min(piece, p.size() - at);
        ASSERT_EQ(static_cast<ssize_t>(n), w.write(p.data() + at, n));
        at += n;
      }
      ASSERT_TRUE(w.finish());
      std::string back;
      ASSERT_TRUE(zlibGunzip(w.out, &back));
      EXPECT_TRUE(back == p);
    }
  }
}

TEST(GzipFileDescriptor, NonBlockingPipePassesEagainOn) {
  int fds[2];
  ASSERT_EQ(0, ::pipe2(fds, O_NONBLOCK | O_CLOEXEC));
  ScopedFileDescriptor readEnd{FileDescriptor(fds[0])}, writeEnd{FileDescriptor(fds[1])};
  ReadableGzipFileDescriptor r(readEnd, 256);
  char buf[256];
  errno = 0;
  EXPECT_EQ(-1, r.read(buf, sizeof(buf)));
  EXPECT_EQ(EAGAIN, errno);
  const std::string m = ourGzip("through a pipe");
  ASSERT_EQ(static_cast<ssize_t>(m.size()), writeEnd.write(m.data(), m.size()));
  ASSERT_EQ(14, r.read(buf, sizeof(buf)));
  EXPECT_EQ("through a pipe", std::string(buf, 14));
  errno = 0;
  EXPECT_EQ(-1, r.read(buf, sizeof(buf)));
  EXPECT_EQ(EAGAIN, errno);
  writeEnd.close();
  EXPECT_EQ(0, r.read(buf, sizeof(buf)));
}

TEST(GzipFileDescriptor, SetFdStartsOver) {
  TestTempDir dir;
  writeTestFile(dir / "a.gz", ourGzip(logText(50000, 3)));
  writeTestFile(dir / "b.gz", ourGzip("second file"));
  ScopedFileDescriptor a((dir / "a.gz").openReadOnly()), b((dir / "b.gz").openReadOnly());
  ReadableGzipFileDescriptor r(a, 64);
  char buf[100];
  ASSERT_EQ(100, r.read(buf, sizeof(buf)));
  r.setFd(b);
  const GzipDrain d = drainGzip(r);
  EXPECT_EQ(0, d.last);
  EXPECT_EQ("second file", d.bytes);
}

// ---- Interoperability with the gzip tool ----

class GzipTool : public testing::Test {
 protected:
  void SetUp() override {
    if (!haveTool("gzip")) GTEST_SKIP() << "gzip is not installed";
  }
  std::string q(const Pathname& p) { return std::string(p.shellQuoted()); }
  TestTempDir _dir;
};

TEST_F(GzipTool, OurOutputPassesGzipTest) {
  for (size_t size : {0u, 1u, 65536u, 400000u}) {
    const std::string plain = logText(size, static_cast<unsigned>(size) + 1);
    const Pathname gz = _dir / "ours.gz";
    {
      ScopedFileDescriptor fd(gz.openCreateOrReplace(Pathname::CREATE_NORMAL));
      WritableGzipFileDescriptor w(fd, 6, 1000);
      for (size_t pos = 0; pos < plain.size(); pos += 12345) {
        const size_t n = std::min<size_t>(12345, plain.size() - pos);
        ASSERT_EQ(static_cast<ssize_t>(n), w.write(plain.data() + pos, n));
      }
      ASSERT_TRUE(w.finish());
    }
    EXPECT_EQ(0, runShell("gzip -t " + q(gz) + " 2>&1")) << size;
    std::string back;
    EXPECT_EQ(0, runShell("gzip -dc " + q(gz), &back));
    EXPECT_TRUE(back == plain) << size;
  }
}

TEST_F(GzipTool, GzipsOutputReadsBack) {
  const std::string plain = logText(250000, 8);
  const Pathname src = _dir / "plain.log";
  writeTestFile(src, plain);
  // With the name in the header (-N), without it (-n), fastest and best,
  // and two members joined by cat.
  for (const char* flags : {"-N -6", "-n -1", "-N -9"}) {
    ASSERT_EQ(0, runShell(std::string("gzip -c ") + flags + " " + q(src) + " > " + q(_dir / "t.gz")));
    ScopedFileDescriptor fd((_dir / "t.gz").openReadOnly());
    ReadableGzipFileDescriptor r(fd, 4096);
    const GzipDrain d = drainGzip(r);
    EXPECT_EQ(0, d.last) << flags;
    EXPECT_TRUE(d.bytes == plain) << flags;
  }
  ASSERT_EQ(0, runShell("gzip -c " + q(src) + " > " + q(_dir / "a.gz") + " && gzip -c " + q(src) +
                        " > " + q(_dir / "b.gz") + " && cat " + q(_dir / "a.gz") + " " +
                        q(_dir / "b.gz") + " > " + q(_dir / "ab.gz")));
  ScopedFileDescriptor fd((_dir / "ab.gz").openReadOnly());
  ReadableGzipFileDescriptor r(fd);
  EXPECT_TRUE(drainGzip(r).bytes == plain + plain);
}

// Python's gzip module writes the name; the script adds extra field, comment
// and header CRC by hand, and gzip -t vouches for the file before we read it.
TEST_F(GzipTool, PythonHeaderWithEveryOptionalPart) {
  if (!haveTool("python3")) GTEST_SKIP() << "python3 is not installed";
  const Pathname out = _dir / "py.gz";
  const Pathname named = _dir / "named.gz";
  const std::string script =
      "import gzip, struct, sys, zlib\n"
      "data = b''.join(b'line %d of the python file\\n' % i for i in range(5000))\n"
      "with gzip.GzipFile(sys.argv[2], 'wb', mtime=1234567890) as f: f.write(data)\n"
      "c = zlib.compressobj(9, zlib.DEFLATED, -15)\n"
      "body = c.compress(data) + c.flush()\n"
      "extra = b'KS' + struct.pack('<H', 4) + b'\\x01\\x02\\x03\\x04'\n"
      "h = b'\\x1f\\x8b\\x08' + bytes([0x02 | 0x04 | 0x08 | 0x10]) + struct.pack('<I', 1234567890)"
      " + b'\\x00\\x03'\n"
      "h += struct.pack('<H', len(extra)) + extra + b'access.log\\x00' + b'rotated daily\\x00'\n"
      "h += struct.pack('<H', zlib.crc32(h) & 0xffff)\n"
      "open(sys.argv[1], 'wb').write(h + body + struct.pack('<II', zlib.crc32(data), len(data)))\n"
      "sys.stdout.write(data.decode())\n";
  writeTestFile(_dir / "make.py", script);
  std::string expected;
  ASSERT_EQ(0, runShell("python3 " + q(_dir / "make.py") + " " + q(out) + " " + q(named), &expected));
  ASSERT_EQ(0, runShell("gzip -t " + q(out) + " 2>&1"));
  ASSERT_EQ(0, runShell("gzip -t " + q(named) + " 2>&1"));
  for (const Pathname& p : {out, named}) {
    ScopedFileDescriptor fd(p.openReadOnly());
    ReadableGzipFileDescriptor r(fd, 7);  // a tiny buffer splits the header
    const GzipDrain d = drainGzip(r);
    EXPECT_EQ(0, d.last) << p;
    EXPECT_TRUE(d.bytes == expected) << p;
  }
}

TEST_F(GzipTool, NewMembersRestartCrcAndCount) {
  if (!haveTool("python3")) GTEST_SKIP() << "python3 is not installed";
  const Pathname path = _dir / "m.gz";
  const std::string parts[] = {logText(5000, 4), "", logText(3000, 5)};
  {
    ScopedFileDescriptor fd(path.openCreateOrReplace(Pathname::CREATE_NORMAL));
    WritableGzipFileDescriptor w(fd, Timeval(0x11223344, 0), 6, 64);
    for (size_t i = 0; i < 3; ++i) {
      if (i > 0) w.startNewFile(Timeval(0x11223344 + static_cast<int64_t>(i), 0));
      ASSERT_EQ(static_cast<ssize_t>(parts[i].size()), w.write(parts[i].data(), parts[i].size()));
      ASSERT_TRUE(w.finish());
    }
  }
  std::string back;
  EXPECT_EQ(0, runShell("gzip -dc " + q(path), &back));
  EXPECT_TRUE(back == parts[0] + parts[1] + parts[2]);
  // Each member's footer covers its own bytes only, and its stamp is its own.
  std::string listing;
  EXPECT_EQ(0, runShell("python3 -c \"import sys,zlib\n"
                        "d=open(sys.argv[1],'rb').read()\n"
                        "while d:\n"
                        " o=zlib.decompressobj(31); x=o.decompress(d)\n"
                        " print(len(x), d[4:8].hex())\n"
                        " d=o.unused_data\" " + q(path),
                        &listing));
  EXPECT_EQ("5000 44332211\n0 45332211\n3000 46332211\n", listing);
}

TEST_F(GzipTool, AnUntimedStreamIsStampedNow) {
  const Pathname path = _dir / "n.gz";
  // time() reads a coarse clock that can trail the writer's by a tick
  // across a second boundary; read the same clock as the writer.
  const auto realtimeSeconds = [] {
    timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    return int64_t(ts.tv_sec);
  };
  const int64_t before = realtimeSeconds();
  {
    ScopedFileDescriptor fd(path.openCreateOrReplace(Pathname::CREATE_NORMAL));
    WritableGzipFileDescriptor w(fd);
    ASSERT_EQ(2, w.write("hi", 2));
    ASSERT_TRUE(w.finish());
  }
  const int64_t after = realtimeSeconds();
  const std::string f = readTestFile(path);
  ASSERT_GE(f.size(), 10u);
  uint32_t stamp = 0;
  for (int i = 0; i < 4; ++i) stamp |= uint32_t(uint8_t(f[4 + i])) << (8 * i);
  EXPECT_LE(before, int64_t(stamp));
  EXPECT_GE(after, int64_t(stamp));
  std::string back;
  EXPECT_EQ(0, runShell("gzip -dc " + q(path), &back));
  EXPECT_EQ("hi", back);
}

}  // namespace
