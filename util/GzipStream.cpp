// The one file that speaks to zlib: raw deflate and inflate, crc32, and the
// gzip framing around them.
#include "util/GzipStream.h"

#include <zlib.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>

#include "util/Assert.h"
#include "util/Timeval.h"

static_assert(WritableGzipStream::NO_FLUSH == Z_NO_FLUSH);
static_assert(WritableGzipStream::SYNC_FLUSH == Z_SYNC_FLUSH);
static_assert(WritableGzipStream::FULL_FLUSH == Z_FULL_FLUSH);

namespace {

const uint8_t GZIP_MAGIC1 = 31;
const uint8_t GZIP_MAGIC2 = 139;
const uint8_t GZIP_METHOD_DEFLATE = 8;
const uint8_t GZIP_OS_UNIX = 3;
const size_t GZIP_HEADER_SIZE = 10;
const size_t GZIP_FOOTER_SIZE = 8;
// The most that one zlib call is given, well inside its 32-bit counts.
const size_t MAX_ZLIB_PIECE = 1UL << 30;

// Header flag bits.
const uint8_t FLAG_HCRC = 0x02;
const uint8_t FLAG_EXTRA = 0x04;
const uint8_t FLAG_NAME = 0x08;
const uint8_t FLAG_COMMENT = 0x10;
const uint8_t FLAG_RESERVED = 0xE0;

// Header states; 0 is HEADER_COMPLETE.
enum {
  ST_MAGIC1 = 1,
  ST_MAGIC2 = 2,
  ST_METHOD = 3,
  ST_FLAGS = 4,
  ST_SKIP = 5,
  ST_EXTRA_LEN_LO = 6,
  ST_EXTRA_LEN_HI = 7,
  ST_NAME = 8,
  ST_COMMENT = 9,
  ST_HCRC = 10,
};

void putLittleEndian32(unsigned char* p, uint32_t v) {
  for (int i = 0; i < 4; ++i) p[i] = static_cast<unsigned char>(v >> (8 * i));
}

}  // namespace

gzip_buffer::gzip_buffer(unsigned long bufsiz) : ptr(nullptr), siz(bufsiz) {
  kassert(bufsiz > 0);
  ptr = static_cast<unsigned char*>(std::malloc(bufsiz));
  if (ptr == nullptr) throw std::bad_alloc();
}

gzip_buffer::~gzip_buffer() { std::free(ptr); }

ZlibStream::ZlibStream() : _zs(new z_stream_s) { setup_common(); }

ZlibStream::~ZlibStream() = default;

void ZlibStream::setup_common() {
  std::memset(_zs.get(), 0, sizeof(z_stream_s));
  _zs->zalloc = Z_NULL;
  _zs->zfree = Z_NULL;
  _zs->opaque = Z_NULL;
}

void ZlibStream::addOutputByte(uint8_t b) {
  kassert(_zs->avail_out > 0);
  *_zs->next_out++ = b;
  --_zs->avail_out;
}

uint8_t ZlibStream::stealInputByte() {
  kassert(_zs->avail_in > 0);
  --_zs->avail_in;
  return *_zs->next_in++;
}

void ZlibStream::setInput(const void* data, size_t len) {
  _zs->next_in = static_cast<Bytef*>(const_cast<void*>(data));
  _zs->avail_in = static_cast<uInt>(len);
}

size_t ZlibStream::inputLeft() const { return _zs->avail_in; }

void ZlibStream::setOutput(void* data, size_t len) {
  _zs->next_out = static_cast<Bytef*>(data);
  _zs->avail_out = static_cast<uInt>(len);
}

size_t ZlibStream::outputLeft() const { return _zs->avail_out; }

CompressingZlibStream::~CompressingZlibStream() {
  if (_initialized) deflateEnd(_zs.get());
}

void CompressingZlibStream::setup(int level, bool raw, unsigned int windowBits,
                                  unsigned int memLevel, int strategy) {
  kassert(!_initialized);
  setup_common();
  const int bits = raw ? -static_cast<int>(windowBits) : static_cast<int>(windowBits);
  const int rc = deflateInit2_(_zs.get(), level, Z_DEFLATED, bits, static_cast<int>(memLevel),
                               strategy, ZLIB_VERSION, static_cast<int>(sizeof(z_stream)));
  if (rc == Z_MEM_ERROR) throw std::bad_alloc();
  kassert(rc == Z_OK);
  _initialized = true;
}

int CompressingZlibStream::deflate(int flush) { return ::deflate(_zs.get(), flush); }

void CompressingZlibStream::reset() { deflateReset(_zs.get()); }

DecompressingZlibStream::~DecompressingZlibStream() {
  if (_initialized) inflateEnd(_zs.get());
}

void DecompressingZlibStream::setup(bool raw, unsigned int windowBits) {
  kassert(!_initialized);
  kassert(windowBits >= 8);
  kassert(windowBits <= 15);
  setup_common();
  const int bits = raw ? -static_cast<int>(windowBits) : static_cast<int>(windowBits);
  const int rc = inflateInit2(_zs.get(), bits);
  if (rc == Z_MEM_ERROR) throw std::bad_alloc();
  kassert(rc == Z_OK);
  _initialized = true;
}

int DecompressingZlibStream::inflate() { return ::inflate(_zs.get(), Z_NO_FLUSH); }

void DecompressingZlibStream::reset() { inflateReset(_zs.get()); }

// ---- Writing ----

WritableGzipStream::WritableGzipStream(const Timeval& time, int level, unsigned long bufferSize,
                                       unsigned int windowBits, unsigned int memLevel,
                                       int strategy)
    : internal_RWGzipStream(bufferSize) {
  _zs.setup(level, true, windowBits, memLevel, strategy);
  internal_startMember(time);
}

WritableGzipStream::WritableGzipStream(int level, unsigned long bufferSize,
                                       unsigned int windowBits, unsigned int memLevel,
                                       int strategy)
    : WritableGzipStream(Timeval::now(), level, bufferSize, windowBits, memLevel, strategy) {}

WritableGzipStream::~WritableGzipStream() = default;

void WritableGzipStream::internal_startMember(const Timeval& time) {
  kassert(_buf.siz >= 10);
  _zs.setOutput(_buf.ptr, _buf.siz);
  const int64_t secs = time.tv_sec < 0 ? 0 : time.tv_sec > 0x7FFFFFFF ? 0x7FFFFFFF : time.tv_sec;
  unsigned char header[GZIP_HEADER_SIZE] = {GZIP_MAGIC1, GZIP_MAGIC2, GZIP_METHOD_DEFLATE, 0, 0,
                                            0, 0, 0, 0, GZIP_OS_UNIX};
  putLittleEndian32(header + 4, static_cast<uint32_t>(secs));
  for (unsigned char b : header) _zs.addOutputByte(b);
  _crc = static_cast<uint32_t>(crc32(0L, Z_NULL, 0));
  _count = 0;
}

void WritableGzipStream::startNewFile(const Timeval& time) {
  _zs.reset();
  internal_startMember(time);
}

bool WritableGzipStream::flushBuf() {
  const size_t used = _zs.consumedOutputSpaceFrom(_buf.siz);
  size_t done = 0;
  while (done < used) {
    const ssize_t rv = write_stream(_buf.ptr + done, used - done);
    if (rv < 1) return false;
    done += static_cast<size_t>(rv);
  }
  _zs.setOutput(_buf.ptr, _buf.siz);
  return true;
}

// Runs deflate until the input is taken (and, for a flush, until deflate
// leaves output space over, so that it has said all it has).
bool WritableGzipStream::internal_runDeflate(int flush) {
  for (;;) {
    if (_zs.outputLeft() == 0 && !flushBuf()) return false;
    const int rc = _zs.deflate(flush);
    if (rc == Z_MEM_ERROR) throw std::bad_alloc();
    if (rc == Z_STREAM_END) return true;
    if (rc != Z_OK && rc != Z_BUF_ERROR) {
      errno = ENOEXEC;
      return false;
    }
    if (_zs.inputLeft() == 0 && _zs.outputLeft() != 0 && flush != Z_FINISH) return true;
  }
}

ssize_t WritableGzipStream::write(const void* data, unsigned long len, int flush) {
  // zlib counts in 32 bits: larger input goes in pieces, the flush with the
  // last one.
  const unsigned char* p = static_cast<const unsigned char*>(data);
  unsigned long left = len;
  do {
    const size_t piece = left < MAX_ZLIB_PIECE ? left : MAX_ZLIB_PIECE;
    _crc = static_cast<uint32_t>(crc32(_crc, p, static_cast<uInt>(piece)));
    _count += static_cast<uint32_t>(piece);
    _zs.setInput(p, piece);
    if (!internal_runDeflate(piece == left ? flush : Z_NO_FLUSH)) return -1;
    p += piece;
    left -= piece;
  } while (left > 0);
  return static_cast<ssize_t>(len);
}

bool WritableGzipStream::finish() {
  _zs.setInput(nullptr, 0);
  if (!internal_runDeflate(Z_FINISH)) return false;
  if (_zs.outputLeft() < GZIP_FOOTER_SIZE && !flushBuf()) return false;
  unsigned char footer[GZIP_FOOTER_SIZE];
  putLittleEndian32(footer, _crc);
  putLittleEndian32(footer + 4, _count);
  for (unsigned char b : footer) _zs.addOutputByte(b);
  return flushBuf();
}

// ---- Reading ----

DecompressingGzipStream::DecompressingGzipStream(unsigned long bufferSize)
    : internal_RWGzipStream(bufferSize) {
  _zs.setup(true, 15);
}

DecompressingGzipStream::~DecompressingGzipStream() = default;

void DecompressingGzipStream::reset() {
  _zs.reset();
  _zs.setInput(nullptr, 0);
  _header_state = ST_MAGIC1;
  _skip_count = 0;
  _flags = 0;
  _after_skip = HEADER_COMPLETE;
  _notGzip = false;
  _damaged = false;
}

int DecompressingGzipStream::internal_followerByFlags() const {
  if (_flags & FLAG_EXTRA) return ST_EXTRA_LEN_LO;
  if (_flags & FLAG_NAME) return ST_NAME;
  if (_flags & FLAG_COMMENT) return ST_COMMENT;
  if (_flags & FLAG_HCRC) return ST_HCRC;
  return HEADER_COMPLETE;
}

bool DecompressingGzipStream::feedGzipHeaderStateMachine(uint8_t c) {
  switch (_header_state) {
    case ST_MAGIC1:
      if (c != GZIP_MAGIC1) return false;
      _header_state = ST_MAGIC2;
      return true;
    case ST_MAGIC2:
      if (c != GZIP_MAGIC2) return false;
      _header_state = ST_METHOD;
      return true;
    case ST_METHOD:
      if (c != GZIP_METHOD_DEFLATE) return false;
      _header_state = ST_FLAGS;
      return true;
    case ST_FLAGS:
      if (c & FLAG_RESERVED) return false;
      _flags = c;
      _skip_count = 6;  // time, extra flags, OS
      _after_skip = internal_followerByFlags();
      _header_state = ST_SKIP;
      return true;
    case ST_SKIP:
      if (--_skip_count == 0) _header_state = _after_skip;
      return true;
    case ST_EXTRA_LEN_LO:
      _skip_count = c;
      _header_state = ST_EXTRA_LEN_HI;
      return true;
    case ST_EXTRA_LEN_HI:
      _skip_count |= static_cast<uint32_t>(c) << 8;
      _flags &= static_cast<uint8_t>(~FLAG_EXTRA);
      if (_skip_count != 0) {
        _after_skip = internal_followerByFlags();
        _header_state = ST_SKIP;
      } else {
        _header_state = internal_followerByFlags();
      }
      return true;
    case ST_NAME:
    case ST_COMMENT:
      if (c == 0) {
        _flags &= static_cast<uint8_t>(~(_header_state == ST_NAME ? FLAG_NAME : FLAG_COMMENT));
        _header_state = internal_followerByFlags();
      }
      return true;
    case ST_HCRC:
      _flags &= static_cast<uint8_t>(~FLAG_HCRC);
      _skip_count = 1;
      _after_skip = HEADER_COMPLETE;
      _header_state = ST_SKIP;
      return true;
  }
  kassert(_header_state != HEADER_COMPLETE);
  return false;
}

void DecompressingGzipStream::prepareForFooterAndNextHeader() {
  _zs.reset();
  _skip_count = GZIP_FOOTER_SIZE;
  _after_skip = ST_MAGIC1;
  _header_state = ST_SKIP;
}

ReadableGzipStream::ReadableGzipStream(unsigned long bufferSize)
    : DecompressingGzipStream(bufferSize) {}

ssize_t ReadableGzipStream::read(void* buf, unsigned long n, unsigned long long timeoutMsec) {
  if (_notGzip || _damaged) {
    errno = ENOEXEC;
    return -1;
  }
  const Timeval start = Timeval::now();
  if (n > MAX_ZLIB_PIECE) n = MAX_ZLIB_PIECE;
  _zs.setOutput(buf, n);
  ssize_t streamResult = 1;
  int savedErrno = 0;
  while (_zs.outputLeft() > 0) {
    // A limit past the signed range is one that never runs out.
    if (timeoutMsec != 0 && timeoutMsec <= static_cast<unsigned long long>(INT64_MAX) &&
        _zs.consumedOutputSpaceFrom(n) == 0 &&
        Timeval::msecDifference(Timeval::now(), start) > static_cast<int64_t>(timeoutMsec)) {
      return -2;
    }
    if (_zs.inputLeft() == 0) {
      streamResult = read_stream(_buf.ptr, _buf.siz);
      if (streamResult < 1) {
        savedErrno = errno;
        break;
      }
      _zs.setInput(_buf.ptr, static_cast<size_t>(streamResult));
    }
    while (headerState() != HEADER_COMPLETE && _zs.inputLeft() > 0) {
      if (!feedGzipHeaderStateMachine(_zs.stealInputByte())) {
        _notGzip = true;
        break;
      }
    }
    if (_notGzip) break;
    if (headerState() != HEADER_COMPLETE) continue;
    const int rc = _zs.inflate();
    if (rc == Z_STREAM_END) {
      prepareForFooterAndNextHeader();
    } else if (rc == Z_MEM_ERROR) {
      throw std::bad_alloc();
    } else if (rc == Z_DATA_ERROR || rc == Z_NEED_DICT) {
      // The bytes made before the damage are good: they go out now, and
      // the next call reports the damage (_damaged answers it).
      _damaged = true;
      const size_t good = _zs.consumedOutputSpaceFrom(n);
      if (good > 0) return static_cast<ssize_t>(good);
      errno = ENOEXEC;
      return -1;
    }
  }
  const size_t produced = _zs.consumedOutputSpaceFrom(n);
  if (produced > 0) return static_cast<ssize_t>(produced);
  if (_notGzip) {
    errno = ENOEXEC;
    return -1;
  }
  if (streamResult < 0) {
    errno = savedErrno;
    return streamResult;
  }
  if (headerState() == ST_MAGIC1) return 0;
  errno = ENOEXEC;
  return -1;
}
