#include "framework/PasswordHash.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

namespace {

// Python's hashlib.pbkdf2_hmac, run now, is the outside oracle.
std::string pythonPbkdf2(const std::string& password, const std::string& saltHex, unsigned n) {
  const std::string command = "python3 -c \"import hashlib,sys; print(hashlib.pbkdf2_hmac("
                              "'sha256', sys.argv[1].encode(), bytes.fromhex(sys.argv[2]), " +
                              std::to_string(n) + ").hex())\" '" + password + "' " + saltHex;
  std::string out;
  FILE* p = popen(command.c_str(), "r");
  if (p == nullptr) return out;
  char buf[256];
  while (fgets(buf, sizeof buf, p) != nullptr) out += buf;
  pclose(p);
  while (!out.empty() && out.back() == '\n') out.pop_back();
  return out;
}

TEST(PasswordHash, MatchesPythonsPbkdf2) {
  const struct {
    const char* password;
    const char* salt;
    unsigned iterations;
  } kCases[] = {
      {"changeme", "0123456789abcdef", 1000},
      {"", "salt", 1},                             // empty password
      {"p\xc3\xa4ss w0rd", "\x01\x02\x03", 4096},  // UTF-8 and a blank
  };
  for (const auto& c : kCases) {
    const Str stored = PasswordHash::hashWithSalt(c.password, c.salt, c.iterations);
    Str saltHex;
    for (unsigned char b : std::string(c.salt)) saltHex.appendFormat("%02x", b);
    const std::string oracle = pythonPbkdf2(c.password, saltHex, c.iterations);
    ASSERT_EQ(64u, oracle.size()) << c.password;
    EXPECT_EQ(Str(std::string(PasswordHash::SCHEME) + "$" + std::to_string(c.iterations) + "$" +
                  saltHex + "$" + oracle),
              stored);
    EXPECT_TRUE(PasswordHash::verify(c.password, stored)) << c.password;
  }
}

TEST(PasswordHash, FreshSaltsAndWrongPasswords) {
  const Str a = PasswordHash::hash("secret", 1000);
  const Str b = PasswordHash::hash("secret", 1000);
  EXPECT_NE(a, b);  // a salt per hash
  EXPECT_TRUE(PasswordHash::verify("secret", a));
  EXPECT_TRUE(PasswordHash::verify("secret", b));
  for (const char* wrong : {"Secret", "secret ", "secre", "", "secretsecret"}) {
    EXPECT_FALSE(PasswordHash::verify(wrong, a)) << wrong;
  }
}

TEST(PasswordHash, MalformedStoredFormsVerifyNothing) {
  const Str good = PasswordHash::hashWithSalt("pw", "salt", 10);
  ASSERT_TRUE(PasswordHash::isWellFormed(good));
  const std::string hash = good.substr(good.rfind('$') + 1);
  const std::string kBad[] = {
      "",
      "pw",
      "pbkdf2_sha1$10$73616c74$" + hash,
      "pbkdf2_sha256$0$73616c74$" + hash,          // no iterations
      "pbkdf2_sha256$010$73616c74$" + hash,        // leading zero
      "pbkdf2_sha256$99999999$73616c74$" + hash,   // past the cap
      "pbkdf2_sha256$10$$" + hash,                 // no salt
      "pbkdf2_sha256$10$73616c7$" + hash,          // odd hex
      "pbkdf2_sha256$10$73616C74$" + hash,         // upper-case hex
      "pbkdf2_sha256$10$73616c74$" + hash.substr(2),  // short hash
      "pbkdf2_sha256$10$73616c74$" + hash + "$",
      "pbkdf2_sha256$-1$73616c74$" + hash,
  };
  for (const std::string& bad : kBad) {
    EXPECT_FALSE(PasswordHash::isWellFormed(bad)) << bad;
    EXPECT_FALSE(PasswordHash::verify("pw", bad)) << bad;
  }
  EXPECT_THROW(PasswordHash::hashWithSalt("pw", "salt", 0), std::runtime_error);
  EXPECT_THROW(PasswordHash::hashWithSalt("pw", "", 10), std::runtime_error);
}

}  // namespace
