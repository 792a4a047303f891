// Gzip streams written around zlib's raw deflate and inflate: the gzip
// framing (header, CRC-32, length) is done here, so the same code serves
// files, sockets and reads with a time limit. Subclasses say where the
// bytes go to or come from; GzipFileDescriptor.h has the descriptor forms.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>

class Timeval;
struct z_stream_s;

// One heap buffer of fixed size, freed with the object. One owner.
struct gzip_buffer {
  // REQUIRES: bufsiz > 0. Throws std::bad_alloc.
  explicit gzip_buffer(unsigned long bufsiz);
  ~gzip_buffer();
  gzip_buffer(const gzip_buffer&) = delete;
  gzip_buffer& operator=(const gzip_buffer&) = delete;

  unsigned char* ptr;
  unsigned long siz;
};

// A zlib stream with its input and output windows. One owner at a time.
class ZlibStream {
 public:
  ZlibStream();
  virtual ~ZlibStream();
  ZlibStream(const ZlibStream&) = delete;
  ZlibStream& operator=(const ZlibStream&) = delete;

  // Clears the stream and selects zlib's own allocator.
  void setup_common();
  // Puts one byte at the output position. REQUIRES: outputLeft() > 0.
  void addOutputByte(uint8_t b);
  // Takes one byte from the input position. REQUIRES: inputLeft() > 0.
  uint8_t stealInputByte();
  // How much of an output window of `space` bytes is used.
  size_t consumedOutputSpaceFrom(size_t space) const { return space - outputLeft(); }

  void setInput(const void* data, size_t len);
  size_t inputLeft() const;
  void setOutput(void* data, size_t len);
  size_t outputLeft() const;

 protected:
  std::unique_ptr<z_stream_s> _zs;
  bool _initialized = false;
};

// deflate. One owner at a time.
class CompressingZlibStream : public ZlibStream {
 public:
  ~CompressingZlibStream() override;
  // deflateInit2 with method 8 (deflate); `raw` leaves out zlib's own
  // framing. Throws std::bad_alloc when zlib is out of memory.
  // REQUIRES: parameters zlib accepts (level -1 to 9, windowBits 8 to 15,
  // memLevel 1 to 9), "rc == Z_OK".
  void setup(int level, bool raw, unsigned int windowBits, unsigned int memLevel, int strategy);
  // zlib's deflate and its result code.
  int deflate(int flush);
  void reset();
};

// inflate. One owner at a time.
class DecompressingZlibStream : public ZlibStream {
 public:
  ~DecompressingZlibStream() override;
  // inflateInit2. REQUIRES: "windowBits >= 8" and at most 15. Throws
  // std::bad_alloc when zlib is out of memory.
  void setup(bool raw, unsigned int windowBits);
  // zlib's inflate and its result code.
  int inflate();
  void reset();
};

// The part both directions share: a buffer (output for writing, input for
// reading) and the zlib stream. One owner at a time.
template <class ZS>
class internal_RWGzipStream {
 protected:
  explicit internal_RWGzipStream(unsigned long bufsiz) : _buf(bufsiz) {}

  gzip_buffer _buf;
  ZS _zs;
};

// Writes one or more gzip members to write_stream. The header is fixed at
// 10 bytes: 1F 8B 08, no flags, the time's seconds (at most 0x7FFFFFFF)
// little-endian, 0, and the OS byte 3. One owner at a time.
class WritableGzipStream : protected internal_RWGzipStream<CompressingZlibStream> {
 public:
  // The flush values write() takes (zlib's own numbers).
  static constexpr int NO_FLUSH = 0;
  static constexpr int SYNC_FLUSH = 2;
  static constexpr int FULL_FLUSH = 3;

  // Starts a member stamped with `time`. `bufferSize` is the output buffer;
  // the rest goes to CompressingZlibStream::setup. REQUIRES: bufferSize >= 10.
  WritableGzipStream(const Timeval& time, int level, unsigned long bufferSize,
                     unsigned int windowBits = 15, unsigned int memLevel = 8, int strategy = 0);
  // As above, stamped with the current time.
  WritableGzipStream(int level, unsigned long bufferSize, unsigned int windowBits = 15,
                     unsigned int memLevel = 8, int strategy = 0);
  virtual ~WritableGzipStream();

  // Compresses `len` bytes with zlib's `flush`, handing full buffers to
  // write_stream. Returns `len`, or -1: errno ENOEXEC for a zlib failure,
  // write_stream's errno when it fails. Throws std::bad_alloc when zlib is
  // out of memory.
  ssize_t write(const void* data, unsigned long len, int flush = NO_FLUSH);
  // Ends the member: the rest of the deflate stream, the CRC-32 and the
  // length (both little-endian), and a flush. False as write() fails.
  bool finish();
  // Begins a new member after finish(): forgets unflushed output, writes
  // the header and restarts the CRC and count. REQUIRES: "_buf.siz >= 10".
  void startNewFile(const Timeval& time);
  // Hands the buffered output to write_stream, continuing after short
  // writes; false (errno from write_stream) when it returns below 1.
  bool flushBuf();

 protected:
  // Writes up to `len` bytes at the destination: the count, or below 1 on
  // failure with errno set.
  virtual ssize_t write_stream(const void* data, size_t len) = 0;

 private:
  bool internal_runDeflate(int flush);
  void internal_startMember(const Timeval& time);

  uint32_t _crc = 0;
  uint32_t _count = 0;
};

// The reading side's gzip framing: a header is fed byte by byte through a
// state machine, and the footer is skipped unchecked. One owner at a time.
//
// Header states: 1, 2, 3 want 31, 139, 8; 4 takes the flags (any of 0xE0
// refused) and skips 6 bytes; 5 skips `_skip_count` bytes and goes on to
// `_after_skip`; 6 and 7 read the extra field's length; 8 and 9 skip the
// name and the comment up to their NUL; 10 skips the 2-byte header CRC;
// 0 is HEADER_COMPLETE. The optional parts come in the order extra, name,
// comment, CRC.
class DecompressingGzipStream : protected internal_RWGzipStream<DecompressingZlibStream> {
 public:
  static constexpr int HEADER_COMPLETE = 0;

  explicit DecompressingGzipStream(unsigned long bufferSize);
  virtual ~DecompressingGzipStream();

  // Back to the start of a first member, forgetting buffered input.
  void reset();

 protected:
  // One header byte; false when the data is not gzip.
  bool feedGzipHeaderStateMachine(uint8_t c);
  // After a member's end: skip the 8 footer bytes, then expect a header.
  void prepareForFooterAndNextHeader();
  int headerState() const { return _header_state; }

  // Set when the data proved not to be gzip, or damaged; reset() clears.
  bool _notGzip = false;
  bool _damaged = false;

 private:
  int internal_followerByFlags() const;

  int _header_state = 1;
  uint32_t _skip_count = 0;
  uint8_t _flags = 0;
  int _after_skip = 0;  // the state that follows a skip
};

// Reads gzip data from read_stream. Members follow one another as one
// stream; footers (CRC and length) are skipped by design, so damage there
// goes unnoticed. One owner at a time.
class ReadableGzipStream : public DecompressingGzipStream {
 public:
  // `bufferSize` is the input buffer. REQUIRES: bufferSize > 0.
  explicit ReadableGzipStream(unsigned long bufferSize);

  // Up to `n` (at most 1 GiB) decompressed bytes into `buf`. Returns the
  // count when any bytes came; else 0 for a clean end (end of input between
  // members), -1 with errno ENOEXEC for data that is not gzip, is damaged
  // or ends inside a member, -1 with read_stream's errno when that failed,
  // and -2 when `timeoutMsec` (0: none) passed with nothing produced. Bytes
  // produced before a failure of read_stream or a refused header come first,
  // and the failure with the next call. Throws std::bad_alloc when zlib is
  // out of memory.
  ssize_t read(void* buf, unsigned long n, unsigned long long timeoutMsec = 0);

 protected:
  // Up to `len` compressed bytes: the count, 0 at the end, -1 with errno.
  virtual ssize_t read_stream(void* buf, size_t len) = 0;
};
