#include "libzero/WritableUnicodeStream.h"

#include <cstdio>

#include "libzero/UTF8Converter.h"

WritableUnicodeStream::WritableUnicodeStream(FileEncoding encoding)
    : _encoding(fileEncodingKind(encoding) < FILE_ENCODING_UTF8
                    ? (encoding & ~FILE_ENCODING_KIND_MASK) | FILE_ENCODING_UTF8
                    : encoding),
      _engine(UTF8Converter::find_engine(_encoding)),
      _markPending(fileEncodingHasBom(_encoding)) {}

WritableUnicodeStream::~WritableUnicodeStream() = default;

bool WritableUnicodeStream::write_bytes(const unsigned char* data, size_t n) {
  for (size_t i = 0; i < n; ++i) {
    if (!write_byte(data[i])) return false;
  }
  return true;
}

bool WritableUnicodeStream::internal_writePendingMark() {
  if (!_markPending || _engine == nullptr) return _engine != nullptr;
  _markPending = false;
  const unsigned char* mark = nullptr;
  const size_t n = fileEncodingMark(_encoding, &mark);
  return write_bytes(mark, n);
}

bool WritableUnicodeStream::put(std::string_view text) {
  if (!internal_writePendingMark()) return false;
  if (_engine->encoding() == FILE_ENCODING_UTF8) {
    return write_bytes(reinterpret_cast<const unsigned char*>(text.data()), text.size());
  }
  std::string_view in = text;
  if (!_carry.empty()) {
    _carry.append(text);
    in = _carry;
  }
  _encoded.clear();
  const auto* p = reinterpret_cast<const unsigned char*>(in.data());
  size_t i = 0;
  while (i < in.size()) {
    uint32_t codepoint = 0;
    const int n = UTF8Converter::decodeUtf8(p + i, in.size() - i, &codepoint);
    if (n == 0) break;
    if (n < 0) {
      ++i;
      continue;
    }
    _engine->fromCodepoint(codepoint, _encoded);
    i += static_cast<size_t>(n);
  }
  std::string rest(in.substr(i));
  _carry.swap(rest);
  return write_bytes(reinterpret_cast<const unsigned char*>(_encoded.data()), _encoded.size());
}

bool WritableUnicodeStream::vformat(const char* fmt, va_list args) {
  char small[256];
  va_list copy;
  va_copy(copy, args);
  const int n = vsnprintf(small, sizeof small, fmt, copy);
  va_end(copy);
  if (n < 0) return false;
  if (static_cast<size_t>(n) < sizeof small) return put(small, static_cast<size_t>(n));
  std::string big(static_cast<size_t>(n) + 1, '\0');
  vsnprintf(big.data(), big.size(), fmt, args);
  big.resize(static_cast<size_t>(n));
  return put(big);
}

bool WritableUnicodeStream::format(const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  const bool ok = vformat(fmt, args);
  va_end(args);
  return ok;
}

bool WritableUnicodeStream::format_signed(long long v) { return format("%lld", v); }

bool WritableUnicodeStream::format_unsigned(unsigned long long v) { return format("%llu", v); }

bool WritableUnicodeStream::format_double(double v) { return format("%lf", v); }
