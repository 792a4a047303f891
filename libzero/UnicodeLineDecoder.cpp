#include "libzero/UnicodeLineDecoder.h"

#include "libzero/UTF8Converter.h"

namespace {

// Reads after the first go in blocks of this size.
constexpr size_t BLOCK_SIZE = 64 * 1024;

}  // namespace

UnicodeLineDecoder::UnicodeLineDecoder(FileEncoding encoding) : _encoding(encoding) {}

UnicodeLineDecoder::~UnicodeLineDecoder() = default;

size_t UnicodeLineDecoder::read_bytes(unsigned char* buf, size_t n) {
  size_t got = 0;
  while (got < n) {
    const int c = read_byte();
    if (c < 0) break;
    buf[got++] = static_cast<unsigned char>(c);
  }
  return got;
}

void UnicodeLineDecoder::settleEncoding() {
  _settled = true;
  unsigned char head[FILE_ENCODING_READ_AHEAD];
  size_t got = 0;
  while (got < sizeof head) {
    const size_t n = read_bytes(head + got, sizeof head - got);
    if (n == 0) break;
    got += n;
  }
  _raw.assign(reinterpret_cast<const char*>(head), got);
  _engine = UTF8Converter::find_engine(_encoding);
  if (_engine == nullptr) {
    _encoding = detectFileEncoding(head, got);
    _engine = UTF8Converter::find_engine(_encoding);
  }
  if (got < sizeof head) _atEnd = true;
}

bool UnicodeLineDecoder::decodeMore() {
  if (!_settled) {
    settleEncoding();
  } else if (!_atEnd) {
    if (_block.empty()) _block.resize(BLOCK_SIZE);
    const size_t n = read_bytes(_block.data(), _block.size());
    _raw.append(reinterpret_cast<const char*>(_block.data()), n);
    if (n == 0) _atEnd = true;
  } else {
    return false;
  }
  if (_engine == nullptr) {  // an empty input
    _raw.clear();
    return !_atEnd;
  }
  const size_t used = _engine->toUtf8(reinterpret_cast<const unsigned char*>(_raw.data()),
                                      _raw.size(), _atEnd, _decoded);
  _raw.erase(0, used);
  return true;
}

bool UnicodeLineDecoder::nextLine(const char** data, size_t* len) {
  for (;;) {
    const size_t nl = _decoded.find('\n', _searched);
    if (nl != std::string::npos) {
      *data = _decoded.data() + _pos;
      *len = nl - _pos;
      if (*len > 0 && _decoded[nl - 1] == '\r') --*len;
      _pos = _searched = nl + 1;
      return true;
    }
    if (_pos > 0) {
      _decoded.erase(0, _pos);
      _pos = 0;
    }
    _searched = _decoded.size();
    if (!decodeMore()) {
      if (_decoded.empty()) return false;
      *data = _decoded.data();
      *len = _decoded.size();
      if (_decoded.back() == '\r') --*len;
      _pos = _searched = _decoded.size();
      return true;
    }
  }
}
