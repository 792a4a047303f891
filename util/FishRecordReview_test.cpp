// The tracking key and record at their edges: unsigned order, the key's
// serial form at an offset and past the buffer, short reads, signed text
// forms, legacy text shapes, and the half MD5 against the openssl command.
#include "util/FishRecord.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "util/FileDescriptor.h"
#include "util/XMLAndStringUtil.h"
#include "util/testing/FixedClock.h"
#include "util/testing/TestTempDir.h"

namespace {

// The first 16 hex digits of the MD5 that the openssl command prints for
// `bytes`, as a number; an independent view of the file identity.
uint64_t opensslHalfMd5(const std::string& bytes) {
  TestTempDir dir;
  const Pathname file = dir / "in.bin";
  writeTestFile(file, bytes);
  const std::string cmd = "openssl dgst -md5 -r '" + std::string(file) + "'";
  FILE* p = ::popen(cmd.c_str(), "r");
  if (p == nullptr) {
    ADD_FAILURE() << "cannot run openssl";
    return 0;
  }
  char line[256] = {};
  const bool got = std::fgets(line, sizeof line, p) != nullptr;
  ::pclose(p);
  if (!got || std::strlen(line) < 32) {
    ADD_FAILURE() << "no digest from openssl";
    return 0;
  }
  return std::stoull(std::string(line, 16), nullptr, 16);
}

std::string le64(uint64_t v) {
  std::string out(8, '\0');
  for (int i = 0; i < 8; ++i) out[i] = static_cast<char>((v >> (8 * i)) & 0xff);
  return out;
}

}  // namespace

TEST(CrcReview, ComparesAsUnsignedNumbersThroughTheKeyInterface) {
  // A signed comparison would put the high half below the low half.
  const uint64_t kOrdered[] = {0, 1, 0xff, 0x7fffffffffffffffull, 0x8000000000000000ull,
                               UINT64_MAX};
  for (size_t i = 0; i < std::size(kOrdered); ++i) {
    for (size_t j = 0; j < std::size(kOrdered); ++j) {
      const CRC_t a(kOrdered[i]), b(kOrdered[j]);
      const bt::BTree::Key& ka = a;
      const bt::BTree::Key& kb = b;
      EXPECT_EQ(i < j, ka < kb) << i << " " << j;
      EXPECT_EQ(i == j, ka == kb) << i << " " << j;
    }
  }
  EXPECT_EQ("0x8000000000000000", std::string(CRC_t(0x8000000000000000ull).toString()));
  EXPECT_EQ("0xffffffffffffffff", std::string(CRC_t(UINT64_MAX).toString()));
}

TEST(CrcReview, SerialFormIsEightLittleEndianBytesAtTheOffset) {
  const uint64_t v = 0x0102030405060708ull;
  unsigned char buf[20];
  std::memset(buf, 0xee, sizeof buf);
  ASSERT_TRUE(CRC_t(v).outputLE(5, buf, sizeof buf));
  EXPECT_EQ(0xee, buf[4]);
  EXPECT_EQ(le64(v), std::string(reinterpret_cast<char*>(buf) + 5, 8));
  EXPECT_EQ(0xee, buf[13]);
  CRC_t back;
  ASSERT_TRUE(back.inputLE(5, buf, sizeof buf));
  EXPECT_EQ(v, back._crc);
  // The last place that fits.
  ASSERT_TRUE(CRC_t(v).outputLE(12, buf, sizeof buf));
  EXPECT_EQ(le64(v), std::string(reinterpret_cast<char*>(buf) + 12, 8));
}

TEST(CrcReview, SerialFormPastCapacityTouchesNothing) {
  for (size_t offset : {size_t{13}, size_t{20}, size_t{100}}) {
    unsigned char buf[20];
    std::memset(buf, 0xee, sizeof buf);
    EXPECT_FALSE(CRC_t(0x0102030405060708ull).outputLE(offset, buf, sizeof buf)) << offset;
    for (unsigned char b : buf) EXPECT_EQ(0xee, b) << offset;
    CRC_t in(5);
    EXPECT_FALSE(in.inputLE(offset, buf, sizeof buf)) << offset;
    EXPECT_EQ(5u, in._crc) << offset;
  }
}

TEST(FishRecordReview, ShortReadsAtEveryBoundaryLeaveTheRecord) {
  TestTempDir dir;
  const Pathname file = dir / "r";
  std::string bytes;
  for (int i = 0; i < 48; ++i) bytes.push_back(static_cast<char>(i + 1));
  for (size_t len : {size_t{0}, size_t{1}, size_t{8}, size_t{40}}) {
    writeTestFile(file, bytes.substr(0, len));
    const int fd = ::open(std::string(file).c_str(), O_RDONLY);
    ASSERT_GE(fd, 0);
    FishRecord got(7, 7, CRC_t(7), CRC_t(7), 7, 7);
    const FishRecord before = got;
    EXPECT_FALSE(got.readLE(FileDescriptor(fd))) << len;
    ::close(fd);
    EXPECT_TRUE(got == before) << len;
  }
}

TEST(FishRecordReview, TextForms) {
  const struct { FishRecord rec; const char* brief; const char* verbose; } kCases[] = {
      {FishRecord(0, 0, CRC_t(), CRC_t(), 0, 0), "sptr=0",
       "scrc=0x0 sptr=0 fcrc=0x0 flen=0 mdtm=0 wrtm=0"},
      // Signed fields print signed.
      {FishRecord(-5, -6, CRC_t(UINT64_MAX), CRC_t(1), -1, -7), "sptr=-1",
       "scrc=0xffffffffffffffff sptr=-1 fcrc=0x1 flen=-7 mdtm=-6 wrtm=-5"},
  };
  for (const auto& c : kCases) {
    EXPECT_EQ(c.brief, std::string(c.rec.toString()));
    EXPECT_EQ(c.verbose, std::string(c.rec.toStringVerbose()));
  }
}

TEST(FishRecordReview, HalfMd5AgreesWithOpenssl) {
  std::string big(1 << 20, '\0');
  for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<char>(i * 131 + (i >> 9));
  const std::vector<std::string> kInputs = {
      "", "a", "abc", "/var/log/messages", std::string("a\0b", 3), std::string(64, 'x'),
      std::string(55, 'y'), std::string(56, 'y'), "\xff\xfe\x80", big};
  for (const std::string& in : kInputs) {
    const uint64_t want = opensslHalfMd5(in);
    EXPECT_EQ(want, XMLAndStringUtil::halfMd5(in.data(), in.size())) << in.size();
    EXPECT_EQ(want, XMLAndStringUtil::halfMd5OfStr(Str(in))) << in.size();
  }
  EXPECT_EQ(opensslHalfMd5(""), XMLAndStringUtil::halfMd5(nullptr, 0));
}

TEST(FishRecordReview, LegacyTextEdgeShapes) {
  ScopedFixedClock clock(Timeval(1600000000, 250000));
  const struct {
    const char* text;
    int64_t wrtm, mdtm;
    uint64_t scrc;
    int64_t sptr;
    const char* name;
  } kCases[] = {
      // An explicit time of zero is kept, not taken for "no time".
      {"0 seekptr::1 seekcrc::2", 0, 0, 2, 1, ""},
      // Only the seconds of the clock.
      {"seekptr::1 seekcrc::2 /a", 1600000000, 0, 2, 1, "/a"},
      // A name given only as the prefix is no name.
      {"seekptr::1 seekcrc::2 source::", 1600000000, 0, 2, 1, ""},
      // The name keeps a later "source::" of its own.
      {"seekptr::1 seekcrc::2 source::/a/source::b", 1600000000, 0, 2, 1, "/a/source::b"},
      {"seekptr::1 seekcrc::2 modtime::1700000000 source::/n", 1600000000, 1700000000, 2, 1,
       "/n"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.text);
    FishRecord out;
    ASSERT_TRUE(FishRecord::fromLegacyString(c.text, out));
    EXPECT_EQ(c.wrtm, out._writeTime);
    EXPECT_EQ(c.mdtm, out._modTime);
    EXPECT_EQ(c.scrc, out._seekCrc._crc);
    EXPECT_EQ(c.sptr, out._seekPtr);
    EXPECT_EQ(0, out._fileLen);
    EXPECT_EQ(c.name, std::string(out._filename));
    const uint64_t fcrc = *c.name != '\0' ? opensslHalfMd5(c.name) : 0;
    EXPECT_EQ(fcrc, out._filenameCrc._crc);
  }
}

TEST(FishRecordReview, LegacyModTimeTooLargeSaturatesAndStaysOutOfTheName) {
  const struct { const char* text; int64_t mdtm; const char* name; } kCases[] = {
      {"seekptr::1 seekcrc::2 modtime::99999999999999999999 /x", INT64_MAX, "/x"},
      {"seekptr::1 seekcrc::2 modtime::99999999999999999999 source::/x", INT64_MAX, "/x"},
      // Past the signed range but within 64 bits: saturates, never wraps.
      {"seekptr::1 seekcrc::2 modtime::18446744073709551615 /x", INT64_MAX, "/x"},
      {"seekptr::1 seekcrc::2 modtime::9223372036854775808 /x", INT64_MAX, "/x"},
      {"seekptr::1 seekcrc::2 modtime::9223372036854775807 /x", INT64_MAX, "/x"},
      {"seekptr::1 seekcrc::2 modtime::9223372036854775806 /x", INT64_MAX - 1, "/x"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.text);
    FishRecord out;
    ASSERT_TRUE(FishRecord::fromLegacyString(c.text, out));
    EXPECT_EQ(c.mdtm, out._modTime);
    EXPECT_EQ(c.name, std::string(out._filename));
    EXPECT_EQ(opensslHalfMd5(c.name), out._filenameCrc._crc);
  }
}
