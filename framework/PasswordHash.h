// Stored passwords: salted PBKDF2-HMAC-SHA256 hashes in one line of text,
// and their check in constant time. Pure functions over caller-owned text;
// safe from any thread.
//
// The stored form is four fields joined by "$":
//   pbkdf2_sha256$<iterations>$<salt, lower-case hex>$<hash, lower-case hex>
// e.g. "pbkdf2_sha256$100000$8f1c...$2b7e..." with a 16-byte salt and a
// 32-byte hash. Any other text verifies nothing.
#pragma once

#include <cstdint>

#include "util/Str.h"

class PasswordHash {
 public:
  static constexpr const char* SCHEME = "pbkdf2_sha256";
  static constexpr uint32_t DEFAULT_ITERATIONS = 100000;
  static constexpr size_t SALT_BYTES = 16;
  static constexpr size_t HASH_BYTES = 32;

  // The stored form of `password` with a fresh random salt (RAND_bytes).
  // Throws std::runtime_error when no random bytes can be had or
  // `iterations` is 0.
  static Str hash(const Str& password, uint32_t iterations = DEFAULT_ITERATIONS);
  // The stored form with the given salt (raw bytes); for tests and tools.
  static Str hashWithSalt(const Str& password, const Str& salt, uint32_t iterations);
  // Whether `password` gives `stored`. The hashes are compared with
  // CRYPTO_memcmp, so the time taken does not depend on where they differ.
  // False for a malformed `stored` (wrong scheme, field count, hex, sizes,
  // or an iteration count of 0 or above 10000000).
  static bool verify(const Str& password, const Str& stored);
  // Whether `stored` is in the form above.
  static bool isWellFormed(const Str& stored);
};
