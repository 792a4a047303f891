#include "util/FishRecord.h"

#include <cstring>

#include "util/BTreeFormat.h"
#include "util/Logger.h"
#include "util/Timeval.h"
#include "util/XMLAndStringUtil.h"

namespace {

Logger gLogger("FileTracker");

// Field offsets inside the 48-byte serial form.
constexpr size_t WRITE_TIME_AT = 0;
constexpr size_t MOD_TIME_AT = 8;
constexpr size_t SEEK_CRC_AT = 16;
constexpr size_t FILENAME_CRC_AT = 24;
constexpr size_t SEEK_PTR_AT = 32;
constexpr size_t FILE_LEN_AT = 40;

// ---- The legacy text form: cursor parsers, null on failure ----

const char* skipBlanks(const char* p, const char* end) {
  while (p < end && (*p == ' ' || *p == '\t')) ++p;
  return p;
}

const char* skipLiteral(const char* p, const char* end, const char* literal) {
  const size_t n = std::strlen(literal);
  if (p == nullptr || static_cast<size_t>(end - p) < n || std::memcmp(p, literal, n) != 0) {
    return nullptr;
  }
  return p + n;
}

int digitValue(char c, unsigned base) {
  int v = -1;
  if (c >= '0' && c <= '9') v = c - '0';
  if (c >= 'a' && c <= 'f') v = c - 'a' + 10;
  if (c >= 'A' && c <= 'F') v = c - 'A' + 10;
  return v >= 0 && static_cast<unsigned>(v) < base ? v : -1;
}

// One or more digits of `base` into *out; null for none or an overflow of
// 64 bits. Nothing is read past `end`.
const char* parseNumber(const char* p, const char* end, unsigned base, uint64_t* out) {
  if (p == nullptr) return nullptr;
  const char* start = p;
  uint64_t v = 0;
  for (int d; p < end && (d = digitValue(*p, base)) >= 0; ++p) {
    if (v > (UINT64_MAX - static_cast<uint64_t>(d)) / base) return nullptr;
    v = v * base + static_cast<uint64_t>(d);
  }
  if (p == start) return nullptr;
  *out = v;
  return p;
}

// The run of decimal digits at `p` as seconds, INT64_MAX when it is larger:
// the digits are consumed whatever their size, so that none of them is taken
// for the text that follows. No digits give zero. Returns the cursor after
// them.
const char* parseSaturatedTime(const char* p, const char* end, uint64_t* out) {
  const uint64_t limit = static_cast<uint64_t>(INT64_MAX);
  uint64_t v = 0;
  for (; p < end && *p >= '0' && *p <= '9'; ++p) {
    const uint64_t d = static_cast<uint64_t>(*p - '0');
    v = v > (limit - d) / 10 ? limit : v * 10 + d;
  }
  *out = v;
  return p;
}

}  // namespace

// ---- CRC_t ----

bool CRC_t::writeLE(const FileDescriptor& fd) const { return bt::writeLE64(fd, _crc); }

bool CRC_t::readLE(const FileDescriptor& fd) { return bt::readLE64(fd, &_crc); }

bool CRC_t::outputLE(size_t offset, void* buffer, size_t capacity) const {
  return bt::outputLE64(_crc, offset, buffer, capacity);
}

bool CRC_t::inputLE(size_t offset, const void* buffer, size_t capacity) {
  return bt::inputLE64(&_crc, offset, buffer, capacity);
}

bool CRC_t::operator<(const Key& other) const {
  return _crc < static_cast<const CRC_t&>(other)._crc;
}

bool CRC_t::operator==(const Key& other) const {
  return _crc == static_cast<const CRC_t&>(other)._crc;
}

Str CRC_t::toString() const {
  return Str().format("0x%llx", static_cast<unsigned long long>(_crc));
}

// ---- FishRecord ----

FishRecord::FishRecord(int64_t writeTime, int64_t modTime, CRC_t seekCrc, CRC_t filenameCrc,
                       int64_t seekPtr, int64_t fileLen, const Str& filename)
    : _writeTime(writeTime),
      _modTime(modTime),
      _seekCrc(seekCrc),
      _filenameCrc(filenameCrc),
      _seekPtr(seekPtr),
      _fileLen(fileLen),
      _filename(filename) {}

void FishRecord::outputLE(void* buffer) const {
  bt::outputLE64(static_cast<uint64_t>(_writeTime), WRITE_TIME_AT, buffer, SERIAL_BYTES);
  bt::outputLE64(static_cast<uint64_t>(_modTime), MOD_TIME_AT, buffer, SERIAL_BYTES);
  _seekCrc.outputLE(SEEK_CRC_AT, buffer, SERIAL_BYTES);
  _filenameCrc.outputLE(FILENAME_CRC_AT, buffer, SERIAL_BYTES);
  bt::outputLE64(static_cast<uint64_t>(_seekPtr), SEEK_PTR_AT, buffer, SERIAL_BYTES);
  bt::outputLE64(static_cast<uint64_t>(_fileLen), FILE_LEN_AT, buffer, SERIAL_BYTES);
}

void FishRecord::inputLE(const void* buffer) {
  uint64_t v[6];
  const size_t at[6] = {WRITE_TIME_AT, MOD_TIME_AT,  SEEK_CRC_AT,
                        FILENAME_CRC_AT, SEEK_PTR_AT, FILE_LEN_AT};
  for (size_t i = 0; i < 6; ++i) bt::inputLE64(&v[i], at[i], buffer, SERIAL_BYTES);
  _writeTime = static_cast<int64_t>(v[0]);
  _modTime = static_cast<int64_t>(v[1]);
  _seekCrc = CRC_t(v[2]);
  _filenameCrc = CRC_t(v[3]);
  _seekPtr = static_cast<int64_t>(v[4]);
  _fileLen = static_cast<int64_t>(v[5]);
}

bool FishRecord::writeLE(const FileDescriptor& fd) const {
  unsigned char buf[SERIAL_BYTES];
  outputLE(buf);
  return bt::writeFully(fd, buf, sizeof buf);
}

bool FishRecord::readLE(const FileDescriptor& fd) {
  unsigned char buf[SERIAL_BYTES];
  if (!bt::readFully(fd, buf, sizeof buf)) return false;
  inputLE(buf);
  return true;
}

bool FishRecord::operator==(const Record& other) const {
  return *this == static_cast<const FishRecord&>(other);
}

bool FishRecord::operator==(const FishRecord& other) const {
  return _writeTime == other._writeTime && _modTime == other._modTime &&
         _seekCrc == other._seekCrc && _filenameCrc == other._filenameCrc &&
         _seekPtr == other._seekPtr && _fileLen == other._fileLen;
}

Str FishRecord::toString() const {
  return Str().format("sptr=%lld", static_cast<long long>(_seekPtr));
}

Str FishRecord::toStringVerbose() const {
  Str name;
  if (!_filename.empty()) name.append(" fn=").append(_filename);
  return Str().format("scrc=%s sptr=%lld fcrc=%s flen=%lld mdtm=%ld wrtm=%ld%s",
                      _seekCrc.toString().c_str(), static_cast<long long>(_seekPtr),
                      _filenameCrc.toString().c_str(), static_cast<long long>(_fileLen),
                      static_cast<long>(_modTime), static_cast<long>(_writeTime), name.c_str());
}

bool FishRecord::fromLegacyString(const Str& text, FishRecord& out) {
  const char* const end = text.data() + text.size();
  const char* p = skipBlanks(text.data(), end);

  uint64_t writeTime = 0;
  bool haveTime = false;
  if (const char* afterTime = parseNumber(p, end, 10, &writeTime)) {
    haveTime = true;
    p = skipBlanks(afterTime, end);
  }

  uint64_t seekPtr = 0;
  p = parseNumber(skipLiteral(p, end, "seekptr::"), end, 16, &seekPtr);
  if (p == nullptr || seekPtr > static_cast<uint64_t>(INT64_MAX)) {
    gLogger.warn("failed to parse seekptr from legacy str '%s'", text.c_str());
    return false;
  }
  uint64_t seekCrc = 0;
  p = parseNumber(skipLiteral(skipBlanks(p, end), end, "seekcrc::"), end, 16, &seekCrc);
  if (p == nullptr) {
    gLogger.warn("failed to parse seekcrc from legacy str '%s'", text.c_str());
    return false;
  }
  p = skipBlanks(p, end);
  uint64_t modTime = 0;
  if (const char* afterTag = skipLiteral(p, end, "modtime::")) {
    p = skipBlanks(parseSaturatedTime(afterTag, end, &modTime), end);
  }

  const StrSegment rest(p, static_cast<size_t>(end - p));
  const size_t source = rest.find("source::");
  if (source != StrSegment::npos) p += source + std::strlen("source::");
  const StrSegment name(p, static_cast<size_t>(end - p));

  out = FishRecord(haveTime ? static_cast<int64_t>(writeTime) : Timeval::now().tv_sec,
                   static_cast<int64_t>(modTime), CRC_t(seekCrc),
                   CRC_t(name.empty() ? 0 : XMLAndStringUtil::halfMd5(name.data(), name.size())),
                   static_cast<int64_t>(seekPtr), 0, Str(name));
  return true;
}
