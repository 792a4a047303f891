// The MD5 side of XMLAndStringUtil, the one place that includes OpenSSL's
// digest header.
#include <openssl/evp.h>

#include <cerrno>
#include <memory>
#include <new>

#include "util/FileDescriptor.h"
#include "util/XMLAndStringUtil.h"

namespace {

constexpr size_t MD5_LEN = 16;
constexpr size_t READ_CHUNK = 64 * 1024;

struct CtxFree {
  void operator()(EVP_MD_CTX* c) const { EVP_MD_CTX_free(c); }
};
using ScopedMdCtx = std::unique_ptr<EVP_MD_CTX, CtxFree>;

ScopedMdCtx newMd5() {
  ScopedMdCtx ctx(EVP_MD_CTX_new());
  if (ctx == nullptr || EVP_DigestInit_ex(ctx.get(), EVP_md5(), nullptr) != 1) {
    throw std::bad_alloc();
  }
  return ctx;
}

void digestOf(const void* bytes, size_t length, unsigned char (&digest)[MD5_LEN]) {
  ScopedMdCtx ctx = newMd5();
  EVP_DigestUpdate(ctx.get(), bytes, length);
  EVP_DigestFinal_ex(ctx.get(), digest, nullptr);
}

Str hexOf(const unsigned char (&digest)[MD5_LEN]) {
  static const char kHex[] = "0123456789abcdef";
  Str out;
  out.reserve(2 * MD5_LEN);
  for (unsigned char b : digest) {
    out.push_back(kHex[b >> 4]);
    out.push_back(kHex[b & 15]);
  }
  return out;
}

}  // namespace

Str XMLAndStringUtil::md5(Str const& in) {
  unsigned char digest[MD5_LEN];
  digestOf(in.data(), in.size(), digest);
  return hexOf(digest);
}

uint64_t XMLAndStringUtil::halfMd5OfStr(Str const& in) {
  return halfMd5(in.data(), in.size());
}

uint64_t XMLAndStringUtil::halfMd5(const void* bytes, size_t length) {
  unsigned char digest[MD5_LEN];
  digestOf(bytes, length, digest);
  uint64_t v = 0;
  for (size_t i = 0; i < MD5_LEN / 2; ++i) v = (v << 8) | digest[i];
  return v;
}

bool XMLAndStringUtil::md5HashHex(FileDescriptor const& fd, Str& out) {
  ScopedMdCtx ctx = newMd5();
  std::unique_ptr<char[]> buf(new char[READ_CHUNK]);
  for (;;) {
    const ssize_t n = fd.read(buf.get(), READ_CHUNK);
    if (n < 0) return false;
    if (n == 0) break;
    EVP_DigestUpdate(ctx.get(), buf.get(), static_cast<size_t>(n));
  }
  unsigned char digest[MD5_LEN];
  EVP_DigestFinal_ex(ctx.get(), digest, nullptr);
  out = hexOf(digest);
  return true;
}
