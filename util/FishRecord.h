// The key and the value of the file tracking database: CRC_t, a file's
// identity, and FishRecord, how far the file was read and what confirms that
// its content is unchanged there. Both are fixed-size B-tree entries.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "util/BTree.h"
#include "util/Str.h"

// A 64-bit identity, written as 8 little-endian bytes. Zero is the blank key
// of the tree: no file has it. A plain value; one owner at a time.
class CRC_t : public bt::BTree::Key {
 public:
  static constexpr size_t SERIAL_BYTES = 8;

  constexpr CRC_t() : _crc(0) {}
  constexpr explicit CRC_t(uint64_t crc) : _crc(crc) {}

  bool writeLE(const FileDescriptor& fd) const override;
  bool readLE(const FileDescriptor& fd) override;
  size_t serialBytes() const override { return SERIAL_BYTES; }
  bool outputLE(size_t offset, void* buffer, size_t capacity) const override;
  bool inputLE(size_t offset, const void* buffer, size_t capacity) override;
  // Numbers compared. REQUIRES: `other` is a CRC_t.
  bool operator<(const Key& other) const override;
  bool operator==(const Key& other) const override;
  bool operator<(const CRC_t& other) const { return _crc < other._crc; }
  bool operator==(const CRC_t& other) const { return _crc == other._crc; }
  std::unique_ptr<Key> clone() const override { return std::make_unique<CRC_t>(_crc); }
  // "0x%llx": CRC_t(0xBEEF) gives "0xbeef", the blank key "0x0".
  Str toString() const override;
  bool isBlank() const { return _crc == 0; }

  uint64_t _crc;
};

// A tracked file's position, 48 bytes on disk, each field a little-endian
// 64-bit number at the offset shown:
//    0 _writeTime    seconds, when this record was written
//    8 _modTime      seconds, the file's modification time
//   16 _seekCrc      over the bytes just before the seek pointer
//   24 _filenameCrc  over the file's name
//   32 _seekPtr      signed, the offset to resume reading at
//   40 _fileLen      signed, the file's length; zero when unknown
// _filename is memory only. A plain value; one owner at a time.
class FishRecord : public bt::BTree::Record {
 public:
  static constexpr size_t SERIAL_BYTES = 48;

  FishRecord() = default;
  FishRecord(int64_t writeTime, int64_t modTime, CRC_t seekCrc, CRC_t filenameCrc,
             int64_t seekPtr, int64_t fileLen, const Str& filename = Str());

  // One write of the 48 bytes; false when it fails.
  bool writeLE(const FileDescriptor& fd) const override;
  // One read of the 48 bytes. A short or failed read returns false, after
  // the tree's "unable to reader" log line, and leaves the record alone.
  bool readLE(const FileDescriptor& fd) override;
  size_t serialBytes() const override { return SERIAL_BYTES; }
  // The 48 bytes at buffer[0, SERIAL_BYTES). REQUIRES: capacity >=
  // SERIAL_BYTES. The file paths above go through these two.
  void outputLE(void* buffer) const;
  void inputLE(const void* buffer);

  // The six stored fields; _filename is not compared.
  // REQUIRES: `other` is a FishRecord.
  bool operator==(const Record& other) const override;
  bool operator==(const FishRecord& other) const;
  // "sptr=1024".
  Str toString() const override;
  // "scrc=0x1f sptr=1024 fcrc=0xab flen=0 mdtm=1700000000 wrtm=1700000100",
  // and " fn=/var/log/x" at the end when the name is known.
  Str toStringVerbose() const;

  // Reads a position kept by an older store, as text:
  //   [<time> ]seekptr::<hex> seekcrc::<hex>[ modtime::<decimal>][ <name>]
  // Blanks and tabs separate the fields. <time> is decimal seconds and
  // becomes _writeTime, Timeval::now() when absent. A missing or malformed
  // seek pointer (no hex digits, more than 64 bits, above INT64_MAX) is
  // refused with a warning "failed to parse seekptr from legacy str '%s'",
  // the seek CRC likewise with "failed to parse seekcrc ..."; both return
  // false and leave `out` alone. "modtime::" with no digits, or absent,
  // gives zero; a time above INT64_MAX saturates there, and its digits are
  // never part of the name. The name is everything after the first
  // "source::" in what remains, or else all of what remains; _filenameCrc is
  // the MD5 identity of the name (as FileTracker::computeCRC), zero for no
  // name. _fileLen is zero. Examples:
  //   "1700000000 seekptr::400 seekcrc::ab modtime::99 source::/var/log/x"
  //     -> wrtm=1700000000 sptr=1024 scrc=0xab mdtm=99 fn=/var/log/x
  //   "seekptr::0 seekcrc::0 /tmp/a b" -> wrtm=now, fn="/tmp/a b"
  //   "seekcrc::ab seekptr::400" -> refused: seekptr comes first
  //   "seekptr::1 seekcrc::2 modtime::99999999999999999999 /x"
  //     -> mdtm=INT64_MAX fn=/x
  static bool fromLegacyString(const Str& text, FishRecord& out);

  int64_t _writeTime = 0;
  int64_t _modTime = 0;
  CRC_t _seekCrc;
  CRC_t _filenameCrc;
  int64_t _seekPtr = 0;
  int64_t _fileLen = 0;
  Str _filename;
};
