#include "util/Base64.h"

#include <openssl/evp.h>

Str Base64::encode(const StrSegment& bytes) {
  Str out((bytes.size() + 2) / 3 * 4 + 1, '\0');
  int n = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                          reinterpret_cast<const unsigned char*>(bytes.data()),
                          static_cast<int>(bytes.size()));
  out.resize(static_cast<size_t>(n));
  return out;
}

bool Base64::decode(const StrSegment& text, Str& out) {
  const size_t len = text.size();
  if (len % 4 != 0) return false;
  if (len == 0) {
    out.clear();
    return true;
  }
  size_t pad = 0;
  if (text.data()[len - 1] == '=') ++pad;
  if (text.data()[len - 2] == '=') ++pad;
  // EVP_DecodeBlock passes "=" in the middle; padding is only for the end.
  for (size_t i = 0; i < len - pad; ++i) {
    if (text.data()[i] == '=') return false;
  }
  Str buffer(len / 4 * 3, '\0');
  int n = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(buffer.data()),
                          reinterpret_cast<const unsigned char*>(text.data()),
                          static_cast<int>(len));
  if (n < 0) return false;
  buffer.resize(static_cast<size_t>(n) - pad);
  out = buffer;
  return true;
}
