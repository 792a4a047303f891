// Checks of the byte movers from a caller's side: gzip framing against zlib and the gzip tool, the decompressor and archives
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
#include <ctime>
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
#include "util/Pathname.h"
#include "util/Str.h"
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

// Gzip source in memory: hands out at most `chunk` bytes a call.
class MemGzipReader : public ReadableGzipStream {
 public:
  explicit MemGzipReader(std::string in, size_t chunk = 1 << 20, unsigned long bufSize = 4096)
      : ReadableGzipStream(bufSize), _in(std::move(in)), _chunk(chunk) {}
  int sleepMsPerCall = 0;

 protected:
  ssize_t read_stream(void* buf, size_t len) override {
    if (sleepMsPerCall) std::this_thread::sleep_for(std::chrono::milliseconds(sleepMsPerCall));
    size_t n = std::min({len, _chunk, _in.size() - _pos});
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

// Gzip sink in memory: takes at most `chunk` bytes a call.
class MemGzipWriter : public WritableGzipStream {
 public:
  MemGzipWriter(const Timeval& t, int level, unsigned long bufSize, unsigned windowBits = 15,
                unsigned memLevel = 8, int strategy = 0)
      : WritableGzipStream(t, level, bufSize, windowBits, memLevel, strategy) {}
  std::string out;
  size_t chunk = SIZE_MAX;

 protected:
  ssize_t write_stream(const void* data, size_t len) override {
    size_t n = std::min({len, chunk});
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

// ---------- Writing gzip ----------

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

// ---------- Reading gzip ----------

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
  // time() reads a coarse clock that can trail the writer's by a tick
  // across a second boundary; read the same clock as the writer.
  const auto realtimeSeconds = [] {
    timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    return int64_t(ts.tv_sec);
  };
  const int64_t before = realtimeSeconds();
  {
    WritableGzipFileDescriptor w{FileDescriptor(fd)};
    ASSERT_EQ(2, w.write("hi", 2));
    ASSERT_TRUE(w.finish());
  }
  const int64_t after = realtimeSeconds();
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

// Cut inside the last footer: every line comes out, and the end is still a
// truncation.
TEST(StreamsReviewGZLineReader, CutInTheLastFooterKeepsEveryLine) {
  TempDir dir;
  const std::string data = gzipMember("one\r\ntwo\nthr") + gzipMember("ee\nfour\r\nfive");
  writeFile(dir.file("cut.gz"), data.substr(0, data.size() - 3));
  GZLineReader lr{Pathname(dir.file("cut.gz").c_str())};
  std::vector<std::string> lines;
  Str line;
  errno = 0;
  while (lr.readline(line)) lines.push_back(line);
  EXPECT_EQ(ENOEXEC, errno);
  EXPECT_EQ((std::vector<std::string>{"one", "two", "three", "four", "five"}), lines);
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
