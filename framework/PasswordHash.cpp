#include "framework/PasswordHash.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <cstdlib>
#include <stdexcept>

#include "util/StrVector.h"

namespace {

constexpr uint32_t MAX_ITERATIONS = 10000000;

Str toHex(const unsigned char* data, size_t len) {
  static const char kDigits[] = "0123456789abcdef";
  Str out;
  out.reserve(len * 2);
  for (size_t i = 0; i < len; ++i) {
    out += kDigits[data[i] >> 4];
    out += kDigits[data[i] & 0xf];
  }
  return out;
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

// Lower-case hex only, so that one password has one stored form.
bool fromHex(const Str& hex, Str& out) {
  if (hex.size() % 2 != 0) return false;
  out.clear();
  for (size_t i = 0; i < hex.size(); i += 2) {
    int hi = hexValue(hex[i]);
    int lo = hexValue(hex[i + 1]);
    if (hi < 0 || lo < 0) return false;
    out += static_cast<char>(hi << 4 | lo);
  }
  return true;
}

struct Parsed {
  uint32_t iterations = 0;
  Str salt;
  Str hash;
};

bool parse(const Str& stored, Parsed& out) {
  StrVector fields;
  size_t start = 0;
  for (;;) {
    size_t end = stored.find('$', start);
    fields.push_back(Str(stored.substr(start, end == Str::npos ? Str::npos : end - start)));
    if (end == Str::npos) break;
    start = end + 1;
  }
  if (fields.size() != 4 || fields[0] != PasswordHash::SCHEME) return false;
  const Str& count = fields[1];
  if (count.empty() || count.size() > 8 || count[0] == '0') return false;
  for (char c : count) {
    if (c < '0' || c > '9') return false;
  }
  out.iterations = static_cast<uint32_t>(strtoul(count.c_str(), nullptr, 10));
  if (out.iterations > MAX_ITERATIONS) return false;
  return fromHex(fields[2], out.salt) && !out.salt.empty() && fromHex(fields[3], out.hash) &&
         out.hash.size() == PasswordHash::HASH_BYTES;
}

Str derive(const Str& password, const Str& salt, uint32_t iterations) {
  unsigned char key[PasswordHash::HASH_BYTES];
  if (PKCS5_PBKDF2_HMAC(password.data(), static_cast<int>(password.size()),
                        reinterpret_cast<const unsigned char*>(salt.data()),
                        static_cast<int>(salt.size()), static_cast<int>(iterations), EVP_sha256(),
                        sizeof(key), key) != 1) {
    throw std::runtime_error("PBKDF2 failed");
  }
  Str out(reinterpret_cast<const char*>(key), sizeof(key));
  OPENSSL_cleanse(key, sizeof(key));
  return out;
}

}  // namespace

Str PasswordHash::hash(const Str& password, uint32_t iterations) {
  unsigned char salt[SALT_BYTES];
  if (RAND_bytes(salt, sizeof(salt)) != 1) throw std::runtime_error("no random bytes for a salt");
  return hashWithSalt(password, Str(reinterpret_cast<const char*>(salt), sizeof(salt)),
                      iterations);
}

Str PasswordHash::hashWithSalt(const Str& password, const Str& salt, uint32_t iterations) {
  if (iterations == 0 || iterations > MAX_ITERATIONS || salt.empty()) {
    throw std::runtime_error("bad PBKDF2 parameters");
  }
  const Str key = derive(password, salt, iterations);
  Str out(SCHEME);
  out.appendFormat("$%u$", iterations);
  out += toHex(reinterpret_cast<const unsigned char*>(salt.data()), salt.size());
  out += '$';
  out += toHex(reinterpret_cast<const unsigned char*>(key.data()), key.size());
  return out;
}

bool PasswordHash::verify(const Str& password, const Str& stored) {
  Parsed p;
  if (!parse(stored, p)) return false;
  const Str key = derive(password, p.salt, p.iterations);
  return CRYPTO_memcmp(key.data(), p.hash.data(), HASH_BYTES) == 0;
}

bool PasswordHash::isWellFormed(const Str& stored) {
  Parsed p;
  return parse(stored, p);
}
