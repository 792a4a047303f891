#include "util/FishRecord.h"

#include <gtest/gtest.h>

#include <string>

#include "util/BTree.h"
#include "util/FileDescriptor.h"
#include "util/testing/FixedClock.h"
#include "util/testing/LogCapture.h"
#include "util/testing/TestTempDir.h"

namespace {

std::string hexBytes(const unsigned char* p, size_t n) {
  static const char kHex[] = "0123456789abcdef";
  std::string out;
  for (size_t i = 0; i < n; ++i) {
    if (i > 0 && i % 8 == 0) out += ' ';
    out += kHex[p[i] >> 4];
    out += kHex[p[i] & 15];
  }
  return out;
}

const FishRecord kSample(0x0102030405060708, 0x1112131415161718, CRC_t(0x2122232425262728),
                         CRC_t(0x3132333435363738), 0x4142434445464748, 0x5152535455565758,
                         "/var/log/x");

TEST(FishRecord, SerialFormIsSixLittleEndianNumbersInFieldOrder) {
  unsigned char buf[FishRecord::SERIAL_BYTES];
  kSample.outputLE(buf);
  // Each 8-byte group is one field, lowest byte first: wrtm mdtm scrc fcrc sptr flen.
  EXPECT_EQ("0807060504030201 1817161514131211 2827262524232221 3837363534333231 "
            "4847464544434241 5857565554535251",
            hexBytes(buf, sizeof buf));
  const FishRecord negative(-1, 0, CRC_t(), CRC_t(1), -2, 0);
  negative.outputLE(buf);
  EXPECT_EQ("ffffffffffffffff 0000000000000000 0000000000000000 0100000000000000 "
            "feffffffffffffff 0000000000000000",
            hexBytes(buf, sizeof buf));
  FishRecord back;
  back.inputLE(buf);
  EXPECT_EQ(negative, back);
  EXPECT_EQ(-2, back._seekPtr);
}

TEST(FishRecord, FileRoundTripAndShortRead) {
  TestTempDir dir;
  const Pathname path = dir / "rec";
  {
    ScopedFileDescriptor fd(path.openCreateOrReplace(Pathname::CREATE_NORMAL));
    ASSERT_TRUE(fd.valid());
    ASSERT_TRUE(kSample.writeLE(fd));
    ASSERT_TRUE(CRC_t(0xabcdef).writeLE(fd));
  }
  EXPECT_EQ(FishRecord::SERIAL_BYTES + CRC_t::SERIAL_BYTES, readTestFile(path).size());
  {
    ScopedFileDescriptor fd(path.openReadOnly());
    FishRecord back;
    CRC_t key;
    ASSERT_TRUE(back.readLE(fd));
    ASSERT_TRUE(key.readLE(fd));
    EXPECT_EQ(kSample, back);
    EXPECT_TRUE(back._filename.empty());  // the name is not stored
    EXPECT_EQ(CRC_t(0xabcdef), key);
  }
  // 47 bytes: the read fails and the record is untouched.
  writeTestFile(path, readTestFile(path).substr(0, FishRecord::SERIAL_BYTES - 1));
  ScopedFileDescriptor fd(path.openReadOnly());
  FishRecord untouched = kSample;
  EXPECT_FALSE(untouched.readLE(fd));
  EXPECT_EQ(kSample, untouched);
}

TEST(FishRecord, EqualityIgnoresTheNameOnly) {
  FishRecord other = kSample;
  other._filename = "elsewhere";
  EXPECT_EQ(kSample, other);
  int64_t FishRecord::*const fields[] = {&FishRecord::_writeTime, &FishRecord::_modTime,
                                         &FishRecord::_seekPtr, &FishRecord::_fileLen};
  for (auto field : fields) {
    FishRecord changed = kSample;
    changed.*field += 1;
    EXPECT_FALSE(changed == kSample);
  }
  for (CRC_t FishRecord::*field : {&FishRecord::_seekCrc, &FishRecord::_filenameCrc}) {
    FishRecord changed = kSample;
    (changed.*field)._crc ^= 1;
    EXPECT_FALSE(changed == kSample);
  }
}

TEST(FishRecord, TextForms) {
  EXPECT_EQ("0xbeef", CRC_t(0xBEEF).toString());
  EXPECT_EQ("0x0", CRC_t().toString());
  EXPECT_TRUE(CRC_t().isBlank());
  EXPECT_TRUE(CRC_t(1) < CRC_t(2));
  EXPECT_FALSE(CRC_t(UINT64_MAX) < CRC_t(2));  // compared as unsigned
  EXPECT_EQ("sptr=1024", FishRecord(1, 2, CRC_t(3), CRC_t(4), 1024, 0).toString());
  FishRecord r(1700000100, 1700000000, CRC_t(0x1f), CRC_t(0xab), 1024, 0);
  EXPECT_EQ("scrc=0x1f sptr=1024 fcrc=0xab flen=0 mdtm=1700000000 wrtm=1700000100",
            r.toStringVerbose());
  r._filename = "/var/log/x";
  EXPECT_EQ("scrc=0x1f sptr=1024 fcrc=0xab flen=0 mdtm=1700000000 wrtm=1700000100 fn=/var/log/x",
            r.toStringVerbose());
}

TEST(FishRecordLegacy, ParsesEachAcceptedShape) {
  ScopedFixedClock clock(Timeval(1234, 0));
  // fcrc values are the first 16 hex digits of the name's MD5, from
  // Python's hashlib.
  const struct {
    const char* text;
    int64_t wrtm, sptr;
    uint64_t scrc;
    int64_t mdtm;
    const char* name;
    uint64_t fcrc;
  } kCases[] = {
      {"1700000000 seekptr::400 seekcrc::ab modtime::99 source::/var/log/x", 1700000000, 0x400,
       0xab, 99, "/var/log/x", 0x2999a2196a2db4a2},
      {"seekptr::0 seekcrc::0 /tmp/a b", 1234, 0, 0, 0, "/tmp/a b", 0x4734d444d5620549},
      {"seekptr::7fffffffffffffff seekcrc::FFFFFFFFFFFFFFFF", 1234, INT64_MAX, UINT64_MAX, 0, "",
       0},  // no name: fcrc zero
      {"\t 5\tseekptr::A\tseekcrc::b\tmodtime::\tx", 5, 10, 11, 0, "x", 0x9dd4e461268c8034},
      {"seekptr::1 seekcrc::2 junk source::x", 1234, 1, 2, 0, "x", 0x9dd4e461268c8034},
      {"seekptr::1 seekcrc::2modtime::3", 1234, 1, 2, 3, "", 0},
      {"seekptr::1 seekcrc::2 modtime::3x", 1234, 1, 2, 3, "x", 0x9dd4e461268c8034},
  };
  for (const auto& c : kCases) {
    FishRecord r;
    ASSERT_TRUE(FishRecord::fromLegacyString(c.text, r)) << c.text;
    EXPECT_EQ(FishRecord(c.wrtm, c.mdtm, CRC_t(c.scrc), CRC_t(c.fcrc), c.sptr, 0), r) << c.text;
    EXPECT_EQ(c.name, r._filename) << c.text;
  }
}

TEST(FishRecordLegacy, RefusesWithTheFieldsMessageAndLeavesTheRecord) {
  const struct {
    const char* text;
    const char* field;
  } kCases[] = {
      {"", "seekptr"},
      {"seekptr::", "seekptr"},
      {"seekptr::xyz seekcrc::1", "seekptr"},
      {"seekcrc::1 seekptr::1", "seekptr"},                      // order matters
      {"abc seekptr::1 seekcrc::1", "seekptr"},                  // a time must be decimal
      {"seekptr::8000000000000000 seekcrc::1", "seekptr"},       // negative offset
      {"seekptr::10000000000000000 seekcrc::1", "seekptr"},      // past 64 bits
      {"SEEKPTR::1 seekcrc::1", "seekptr"},
      {"seekptr::1", "seekcrc"},
      {"seekptr::1 seekcrc::", "seekcrc"},
      {"seekptr::1 seekcrc::g", "seekcrc"},
      {"seekptr::1 seekcrc::1ffffffffffffffff", "seekcrc"},
      {"seekptr::1 modtime::5 seekcrc::1", "seekcrc"},
  };
  for (const auto& c : kCases) {
    ScopedLogCapture log("FileTracker");
    FishRecord r = kSample;
    EXPECT_FALSE(FishRecord::fromLegacyString(c.text, r)) << c.text;
    EXPECT_EQ(kSample, r) << c.text;
    EXPECT_EQ("WARN failed to parse " + std::string(c.field) + " from legacy str '" + c.text +
                  "'\n",
              log.text());
  }
}

}  // namespace
