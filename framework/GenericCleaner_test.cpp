#include "framework/GenericCleaner.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "libbundle/PropertiesMap.h"
#include "util/testing/LogCapture.h"

namespace {

// Tokens as "text@position", stopping after `limit`.
class Collect : public ICleanCallback {
 public:
  explicit Collect(size_t limit = SIZE_MAX) : _limit(limit) {}
  bool acceptToken(const char* bytes, size_t length, size_t position) override {
    got.push_back(std::string(bytes, length) + "@" + std::to_string(position));
    return got.size() < _limit;
  }
  std::vector<std::string> got;

 private:
  size_t _limit;
};

std::vector<std::string> tokens(const GenericCleaner& c, const std::string& text,
                                size_t limit = SIZE_MAX) {
  Collect cb(limit);
  c.clean(StrSegment(text.data(), text.size()), cb);
  return cb.got;
}

TEST(GenericCleaner, DefaultBreakersCutMajorThenMinor) {
  const struct {
    const char* text;
    std::vector<std::string> tokens;
  } kCases[] = {
      {"", {}},
      {" \t\r\n ", {}},
      {"error", {"error@0"}},  // a major token of one minor: given once
      {"  a  b ", {"a@2", "b@5"}},
      {"id=web01.example, ok",
       {"id=web01.example,@0", "id@0", "web01@3", "example@9", "ok@18"}},
      {"a_b-c", {"a_b-c@0", "a_b@0", "c@4"}},        // "_" joins words
      {"--", {"--@0"}},                               // no minor inside
      {"\xc3\xa9t\xc3\xa9!", {"\xc3\xa9t\xc3\xa9!@0", "\xc3\xa9t\xc3\xa9@0"}},  // UTF-8 stays whole
  };
  const GenericCleaner c;
  for (const auto& k : kCases) EXPECT_EQ(tokens(c, k.text), k.tokens) << k.text;
  EXPECT_EQ(tokens(c, std::string("a\0b c", 5)),
            (std::vector<std::string>{std::string("a\0b@0", 5), "a@0", "b@2", "c@4"}));
}

TEST(GenericCleaner, CallbackEndsTheCleaning) {
  const GenericCleaner c;
  EXPECT_EQ(tokens(c, "x.y z", 1), std::vector<std::string>{"x.y@0"});
  EXPECT_EQ(tokens(c, "x.y z", 2), (std::vector<std::string>{"x.y@0", "x@0"}));
}

TEST(GenericCleaner, BreakersFromSettings) {
  const struct {
    const char* major;
    const char* minor;
    const char* text;
    std::vector<std::string> tokens;
  } kCases[] = {
      {"", "", "a.b c", {"a.b@0", "a@0", "b@2", "c@4"}},  // both defaults
      {", ;", "", "a b,c", {"a b@0", "a@0", "b@2", "c@4"}},
      {"\\s \\t", ". -", "a.b-c_d e", {"a.b-c_d@0", "a@0", "b@2", "c_d@4", "e@8"}},
      {"%2C", "%5f", "a_b,c", {"a_b@0", "a@0", "b@2", "c@4"}},
      {"\\n", "\\\\", "a\\b c\nd", {"a\\b c@0", "a@0", "b c@2", "d@6"}},
  };
  for (const auto& k : kCases) {
    PropertiesMap stanza;
    stanza.put("MAJOR", k.major);
    stanza.put("MINOR", k.minor);
    EXPECT_EQ(tokens(GenericCleaner(stanza), k.text), k.tokens) << k.major << " / " << k.minor;
  }
}

TEST(GenericCleaner, MalformedBreakerEntriesAreSkippedWithAWarning) {
  ScopedLogCapture log("GenericCleaner");
  PropertiesMap stanza;
  stanza.put("MAJOR", "ab %zz \\q |");
  const GenericCleaner c(stanza);
  EXPECT_EQ(tokens(c, "x|y z"), (std::vector<std::string>{"x@0", "y z@2", "y@2", "z@4"}));
  for (const char* e : {"ab", "%zz", "\\q"}) {
    EXPECT_NE(log.text().find(std::string("Ignoring breaker '") + e +
                              "' in segmenters: not one byte"),
              std::string::npos)
        << e;
  }
}

TEST(GenericCleaner, SharedCleanerIsMadeOnce) {
  const GenericCleaner* a = GenericCleaner::getShared();
  ASSERT_NE(a, nullptr);
  EXPECT_EQ(a, GenericCleaner::getShared());
  EXPECT_EQ(tokens(*a, "k=v"), (std::vector<std::string>{"k=v@0", "k@0", "v@2"}));
}

}  // namespace
