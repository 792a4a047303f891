#include "util/EnvironmentSubstitution.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

// Sets the test's variables for the life of the object, and removes them.
class ScopedTestEnvironment {
 public:
  ScopedTestEnvironment() {
    setenv("KT_HOME", "/opt/k", 1);
    setenv("KT_A", "alpha", 1);
    setenv("KT_EMPTY", "", 1);
    setenv("KT_DOLLAR", "$KT_A", 1);  // a value is never rescanned
    setenv("_KT9", "under", 1);
    unsetenv("KT_UNSET");
  }
  ~ScopedTestEnvironment() {
    for (const char* name : {"KT_HOME", "KT_A", "KT_EMPTY", "KT_DOLLAR", "_KT9"}) unsetenv(name);
  }
};

}  // namespace

TEST(EnvironmentSubstitution, ReplacesReferencesAndCountsThem) {
  ScopedTestEnvironment env;
  const struct {
    const char* in;
    const char* out;
    size_t replaced;
  } kCases[] = {
      {"", "", 0},
      {"plain/path", "plain/path", 0},
      {"$KT_HOME/etc/datetime.xml", "/opt/k/etc/datetime.xml", 1},
      {"${KT_HOME}/etc", "/opt/k/etc", 1},
      {"${KT_A}x", "alphax", 1},
      {"$KT_Ax", "", 1},                 // the name runs on: KT_Ax is unset
      {"$KT_A.x", "alpha.x", 1},
      {"$KT_A$KT_A", "alphaalpha", 2},
      {"a$KT_UNSET/b", "a/b", 1},
      {"${KT_UNSET}", "", 1},
      {"$KT_EMPTY", "", 1},
      {"$KT_DOLLAR", "$KT_A", 1},        // inserted as it stands
      {"$_KT9", "under", 1},
      {"x$_KT9_y", "x", 1},
      // A "$" that starts no reference stays.
      {"$5.00", "$5.00", 0},
      {"a$", "a$", 0},
      {"$", "$", 0},
      {"$$KT_A", "$alpha", 1},
      {"$-x", "$-x", 0},
      {"${}", "${}", 0},
      {"${a b}", "${a b}", 0},
      {"${KT_HOME", "${KT_HOME", 0},     // unclosed
      {"${9A}", "${9A}", 0},
      {"${KT_A}}", "alpha}", 1},
      {"{KT_A}", "{KT_A}", 0},
      {"\\$KT_A", "\\alpha", 1},         // there is no escape
  };
  for (const auto& c : kCases) {
    Str out = "stale";
    EXPECT_EQ(c.replaced, substituteEnvironmentVariables(c.in, out)) << c.in;
    EXPECT_EQ(c.out, out) << c.in;
  }
  Str out;
  substituteEnvironmentVariables(StrSegment("a\0$KT_A", 7), out);  // NUL bytes pass through
  EXPECT_EQ(Str("a\0alpha", 7), out);
  Str self = "$KT_HOME/x/${KT_A}";
  EXPECT_EQ(2u, substituteEnvironmentVariables(self, self));
  EXPECT_EQ("/opt/k/x/alpha", self);
  Str tail = "ab$KT_A";
  substituteEnvironmentVariables(StrSegment(tail.data() + 2, 5), tail);
  EXPECT_EQ("alpha", tail);
}

TEST(EnvironmentSubstitution, AgreesWithTheShellOnTheSyntaxBothShare) {
  ScopedTestEnvironment env;
  // Every pair and triple of these pieces is text that the POSIX shell reads
  // with the same meaning inside double quotes.
  const char* const kPieces[] = {"$KT_A", "${KT_A}", "$KT_UNSET", "${KT_HOME}", "/x",
                                 "_y",    ".",       "-",         "$KT_DOLLAR", "a$/"};
  std::vector<std::string> texts;
  for (const char* a : kPieces)
    for (const char* b : kPieces) {
      texts.push_back(std::string(a) + b);
      for (const char* c : {"$KT_HOME", "z"}) texts.push_back(std::string(a) + b + c);
    }
  std::string script = "printf '%s\\n'";
  for (const std::string& t : texts) script += " \"" + t + "\"";
  FILE* sh = popen(script.c_str(), "r");
  ASSERT_NE(nullptr, sh);
  std::vector<std::string> expected;
  char line[512];
  while (fgets(line, sizeof line, sh) != nullptr) {
    std::string s(line);
    if (!s.empty() && s.back() == '\n') s.pop_back();
    expected.push_back(s);
  }
  ASSERT_EQ(0, pclose(sh));
  ASSERT_EQ(texts.size(), expected.size());
  for (size_t i = 0; i < texts.size(); ++i) {
    Str out;
    substituteEnvironmentVariables(texts[i], out);
    EXPECT_EQ(expected[i], out) << texts[i];
  }
}
