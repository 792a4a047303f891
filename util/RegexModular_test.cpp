#include <gtest/gtest.h>

#include <map>
#include <string>

#include "util/Regex.h"
#include "util/RegexMatch.h"
#include "util/RegexNameResolver.h"
#include "util/testing/ThrownText.h"

namespace {

// What resolving `name` throws.
std::string resolveFailure(const char* name, const RegexNameResolver& resolver) {
  return thrownText<RegexException>([&] { Regex::resolveModularPattern(name, resolver); });
}

class MapResolver : public RegexNameResolver {
 public:
  explicit MapResolver(std::map<Str, Str> patterns) : _patterns(std::move(patterns)) {}
  Str resolve(const Str& name) const override {
    auto it = _patterns.find(name);
    return it == _patterns.end() ? Str() : it->second;
  }

 private:
  std::map<Str, Str> _patterns;
};

const MapResolver& library() {
  static const MapResolver resolver({
      {"num", "\\d+"}, {"pair", "[[num]]-[[num]]"}, {"plus", "x[[num]]+y"},
      {"brace", "[[num]]{2}"}, {"aliased", "[[num:n]]"}, {"aliasedStar", "[[num:n]]*"},
      {"word", "(?<w>\\w+)"}, {"pword", "(?P<w>\\w+)"}, {"renamed", "[[word:p]]"},
      {"renamedP", "[[pword:p]]"}, {"twice", "[[renamed:q]]"}, {"escaped", "\\[[num]]"},
      {"lines", "a\n[[num]]\nb"}, {"date", "[[num:year]]/[[num:month]]"}, {"plain", "abc"},
      {"self", "[[self]]"}, {"p", "[[q]]"}, {"q", "x[[p]]"}, {"outer", "<[[middle]]>"},
      {"middle", "[[nope]]"},
  });
  return resolver;
}

TEST(RegexModular, RecognisesReferences) {
  const struct { const char* pattern; bool modular; } kCases[] = {
      {"\\[[a]]", false},  // escaped
      {"[[a]]", true}, {"x[[a:b]]y", true}, {"(\\d+)[[a]]+", true}, {"[[a", false},
      {"[[]]", false}, {"[[a:b:c]]", false}, {"[a]", false}, {"", false},
  };
  for (const auto& c : kCases) {
    EXPECT_EQ(c.modular, Regex::isModularPattern(c.pattern)) << c.pattern;
  }
}

TEST(RegexModular, ExpandsReferences) {
  const struct { const char* name; const char* expansion; } kCases[] = {
      {"plus", "x(?:\\d+)+y"},  // a quantifier wraps the expansion
      {"aliasedStar", "(?<n>\\d+)*"},  // the alias group serves the quantifier too
      {"renamed", "(?<pw>\\w+)"},      // named groups inside get the alias as prefix
      {"plain", "abc"}, {"num", "\\d+"}, {"pair", "\\d+-\\d+"}, {"brace", "(?:\\d+){2}"},
      {"aliased", "(?<n>\\d+)"}, {"renamedP", "(?<pw>\\w+)"}, {"twice", "(?<qpw>\\w+)"},
      {"escaped", "\\[[num]]"}, {"lines", "a\n\\d+\nb"},
      {"date", "(?<year>\\d+)/(?<month>\\d+)"},
  };
  for (const auto& c : kCases) {
    EXPECT_EQ(c.expansion, Regex::resolveModularPattern(c.name, library())) << c.name;
  }
}

TEST(RegexModular, ExpansionCompilesWithTheAliasedGroups) {
  const Regex r(Regex::resolveModularPattern("date", library()));
  RegexMatch m;
  ASSERT_TRUE(r.matches("on 2009/10", &m));
  std::map<Str, Str> groups;
  m.getAllGroups(groups);
  EXPECT_EQ((std::map<Str, Str>{{"month", "10"}, {"year", "2009"}}), groups);
}

TEST(RegexModular, FailuresCarryTheChainOfNames) {
  const struct { const char* name; const char* message; } kCases[] = {
      {"self", "Regex - Circular dependency for modular regex: self, in regex: 'self'"},
      {"p", "Regex - Circular dependency for modular regex: p, in regex: 'q', in regex: 'p'"},
      {"q", "Regex - Circular dependency for modular regex: q, in regex: 'p', in regex: 'q'"},
      {"missing", "Regex - Cannot find regex reference: missing"},
      {"middle", "Regex - Cannot find regex reference: nope, in regex: 'middle'"},
      {"outer",
       "Regex - Cannot find regex reference: nope, in regex: 'middle', in regex: 'outer'"},
  };
  for (const auto& c : kCases) {
    EXPECT_EQ(c.message, resolveFailure(c.name, library())) << c.name;
  }
}

// Each name refers to itself with one more "x", once or twice, until the
// name reaches `leafLength`, which holds `leafBytes` bytes of text.
class GrowingResolver : public RegexNameResolver {
 public:
  GrowingResolver(bool doubling, size_t leafLength, size_t leafBytes)
      : _doubling(doubling), _leafLength(leafLength), _leafBytes(leafBytes) {}
  Str resolve(const Str& name) const override {
    if (name.size() >= _leafLength) return Str(_leafBytes, 'z');
    const Str next = "[[" + name + "x]]";
    return _doubling ? Str(next + next) : next;
  }

 private:
  bool _doubling;
  size_t _leafLength;
  size_t _leafBytes;
};

TEST(RegexModular, BoundsDepthAndSize) {
  std::string expected = "Regex - Modular regex nested too deeply: n" +
                         std::string(Regex::MODULAR_MAX_DEPTH, 'x');
  for (int level = Regex::MODULAR_MAX_DEPTH - 1; level >= 0; --level) {
    expected += ", in regex: 'n" + std::string(static_cast<size_t>(level), 'x') + "'";
  }
  EXPECT_EQ(expected, resolveFailure("n", GrowingResolver(false, 1000, 1)));
  // Just inside the depth limit is fine.
  const Str deep = Regex::resolveModularPattern(
      "n", GrowingResolver(false, Regex::MODULAR_MAX_DEPTH, 3));
  EXPECT_EQ("zzz", deep);

  // 16 leaves of just over 64 KiB under "nx" pass the size limit there.
  EXPECT_EQ("Regex - Modular regex expansion too large: nx, in regex: 'n'",
            resolveFailure("n", GrowingResolver(true, 6, 65537)));

  // Names are never expanded twice at once, so a diamond is no cycle.
  const MapResolver diamond({{"top", "[[l]][[r]]"}, {"l", "[[leaf]]"}, {"r", "[[leaf]]"},
                             {"leaf", "z"}});
  EXPECT_EQ("zz", Regex::resolveModularPattern("top", diamond));
}

}  // namespace
