#include "loaderinfo/LoaderInfo.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "util/testing/TestTempDir.h"

namespace {

// What one parse printed and returned.
struct Parsed {
  int status;
  std::string out;
  std::string err;
};

std::string drain(FILE* f) {
  std::string text;
  rewind(f);
  char buffer[512];
  size_t n;
  while ((n = fread(buffer, 1, sizeof buffer, f)) > 0) text.append(buffer, n);
  fclose(f);
  return text;
}

Parsed parse(LoaderInfo& info, std::vector<const char*> words) {
  words.insert(words.begin(), "kestrod");
  FILE* out = tmpfile();
  FILE* err = tmpfile();
  const int status = info.parseCommandLine(static_cast<int>(words.size()), words.data(), out, err);
  return {status, drain(out), drain(err)};
}

const char kUsage[] =
    "Usage: kestrod [OPTION...]\n"
    "  --nodaemon      causes the system not to daemonize\n"
    "  -c STRING       override the config path\n"
    "  -h              no longer supported\n"
    "  -i              no longer supported\n"
    "  -n STRING       the component name to start with\n"
    "  -p INT          the management port Kestrod will listen on\n"
    "  --debug         start with debug log config\n"
    "\n"
    "Help options:\n"
    "  -?, --help      Show this help message\n"
    "  --usage         Display brief usage message\n";

TEST(LoaderInfo, DefaultsOfAFreshRecord) {
  const LoaderInfo info;
  EXPECT_EQ("", info.getKestroHome());
  EXPECT_EQ("", info.getKestroDb());
  EXPECT_EQ("kestrod", info.getComponentName());
  EXPECT_EQ("etc", info.getCommonConfigPath());
  EXPECT_EQ("myinstall", info.getInstallName());
  EXPECT_EQ(8089, info.getPort());
  EXPECT_EQ("8089", info.getPortStr());
  EXPECT_EQ(static_cast<int>(getpid()), info.getPid());
  EXPECT_FALSE(info.getUseDebugLog());
  EXPECT_TRUE(info.getDaemon());
  EXPECT_EQ("", info.getStartupMode());
  EXPECT_FALSE(info.shouldWaitOnPid());
  EXPECT_EQ(-1, info.getPidToWaitOn());
  EXPECT_EQ(&LoaderInfo::getInstance(), &LoaderInfo::getInstance());
}

TEST(LoaderInfo, OptionsThatEndTheProcessPrintExactlyAndGiveTheirStatus) {
  const struct { std::vector<const char*> words; int status; std::string out, err; } kCases[] = {
      {{"--help"}, 0, kUsage, ""},
      {{"--usage"}, 0, kUsage, ""},
      {{"-?"}, 0, kUsage, ""},
      {{"--waitonpid=12"}, 1, "", "--waitonpid option not implemented for UNIX\n"},
      {{"--bogus"}, 8, "", std::string("Bad Option --bogus\n") + kUsage},
      {{"--help=1"}, 8, "", std::string("Bad Option --help=1\n") + kUsage},
      {{"--mode"}, 8, "", std::string("Bad Option --mode\n") + kUsage},
      {{"-i"}, 8, "", std::string("Bad Option -i\n") + kUsage},
      {{"-x7"}, 8, "", std::string("Bad Option -x\n") + kUsage},
      {{"-"}, 8, "", std::string("Bad Option -\n") + kUsage},
      {{"-p"}, 8, "", std::string("-p option requires an argument\n") + kUsage},
      {{"--nodaemon", "-c"}, 8, "", std::string("-c option requires an argument\n") + kUsage},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.words[0]);
    LoaderInfo info;
    const Parsed p = parse(info, c.words);
    EXPECT_EQ(c.status, p.status);
    EXPECT_EQ(c.out, p.out);
    EXPECT_EQ(c.err, p.err);
  }
}

TEST(LoaderInfo, OptionsThatSetFields) {
  LoaderInfo info;
  Parsed p = parse(info, {"--nodaemon", "--debug", "--mode=restart", "-c/opt/etc", "-n", "splitter",
                          "-h", "ignored", "plainword", "-p9000"});
  EXPECT_EQ(-1, p.status);
  EXPECT_EQ("", p.out + p.err);
  EXPECT_FALSE(info.getDaemon());
  EXPECT_TRUE(info.getUseDebugLog());
  EXPECT_EQ("restart", info.getStartupMode());
  EXPECT_EQ("/opt/etc", info.getCommonConfigPath());
  EXPECT_EQ("splitter", info.getComponentName());
  EXPECT_EQ(9000, info.getPort());

  // The value may be the next word; a port that is no number reads as 0
  // and keeps its text.
  const struct { std::vector<const char*> words; int port; const char* text; } kPorts[] = {
      {{"-p", "9001"}, 9001, "9001"},
      {{"-p", "abc"}, 0, "abc"},
      {{"-p12x"}, 12, "12x"},
  };
  for (const auto& c : kPorts) {
    LoaderInfo fresh;
    EXPECT_EQ(-1, parse(fresh, c.words).status);
    EXPECT_EQ(c.port, fresh.getPort());
    EXPECT_EQ(c.text, fresh.getPortStr());
  }

  // "--" ends the scan: what follows is never looked at.
  LoaderInfo stopped;
  p = parse(stopped, {"--nodaemon", "--", "--bogus", "-i"});
  EXPECT_EQ(-1, p.status);
  EXPECT_FALSE(stopped.getDaemon());
}

// Sets or unsets one variable for the life of the object.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, const char* value) : _name(name) {
    const char* old = getenv(name);
    _had = old != nullptr;
    if (_had) _old = old;
    if (value != nullptr) setenv(name, value, 1); else unsetenv(name);
  }
  ~ScopedEnv() {
    if (_had) setenv(_name.c_str(), _old.c_str(), 1); else unsetenv(_name.c_str());
  }

 private:
  std::string _name, _old;
  bool _had = false;
};

TEST(LoaderInfo, EnvironmentPathsAreCleanedAndWrittenBack) {
  const struct { const char* home; const char* want; } kCases[] = {
      {"/opt/x//y/", "/opt/x/y"},
      {"/", "/"},
      {"//", "/"},
      {"rel//dir/", "rel/dir"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.home);
    ScopedEnv home("KESTRO_HOME", c.home);
    ScopedEnv db("KESTRO_DB", "/var//db///");
    LoaderInfo info;
    info.populateFromEnvironment();
    EXPECT_EQ(c.want, info.getKestroHome());
    EXPECT_STREQ(c.want, getenv("KESTRO_HOME"));
    EXPECT_EQ("/var/db", info.getKestroDb());
    EXPECT_STREQ("/var/db", getenv("KESTRO_DB"));
  }
  // Unset or empty leaves what the record had.
  for (const char* value : {static_cast<const char*>(nullptr), ""}) {
    ScopedEnv home("KESTRO_HOME", "/first");
    LoaderInfo info;
    info.populateFromEnvironment();
    ScopedEnv again("KESTRO_HOME", value);
    info.populateFromEnvironment();
    EXPECT_EQ("/first", info.getKestroHome());
  }
}

TEST(LoaderInfo, ValidateReportsTheFirstFailedCheck) {
  TestTempDir dir;
  const Pathname home = dir.path() / "home";
  const Pathname db = dir.path() / "db";
  const Pathname common = dir.path() / "conf";
  writeTestFile(dir.path() / "file", "x");
  // The install config path lies under home, so a common config path that
  // is a file can still have an install path below home that is a folder.
  for (const Pathname& p :
       {home, db, common, home / common / "myinstall", home / (dir.path() / "file") / "myinstall"}) {
    ASSERT_EQ(0, system(("mkdir -p '" + std::string(p) + "'").c_str()));
  }
  const std::string file = dir.path() / "file";
  struct Row {
    const char* home;
    const char* db;
    const char* common;
    const char* name;
    const char* message;
  };
  const std::string h = home, d = db, c = common, missing = dir.path() / "missing";
  const Row kRows[] = {
      {"", d.c_str(), c.c_str(), "n", "The environment variable KESTRO_HOME must not be empty."},
      {h.c_str(), "", c.c_str(), "n", "The environment variable KESTRO_DB must not be empty."},
      {h.c_str(), d.c_str(), "", "n", "The common config path must be defined in the config file."},
      {"rel", d.c_str(), c.c_str(), "n",
       "The environment variable KESTRO_HOME must not be a relative path."},
      {h.c_str(), "rel", c.c_str(), "n",
       "The environment variable KESTRO_DB must not be a relative path."},
      {h.c_str(), d.c_str(), "etc", "n", "The common config path must not be a relative path."},
      {missing.c_str(), d.c_str(), c.c_str(), "n",
       "The environment variable KESTRO_HOME must point to an existing path."},
      {h.c_str(), missing.c_str(), c.c_str(), "n",
       "The environment variable KESTRO_DB must point to an existing path."},
      {h.c_str(), d.c_str(), missing.c_str(), "n",
       "The common config path must point at an existing path."},
      // A home that is a file has no install path under it, so the
      // existence test of that path speaks first.
      {file.c_str(), d.c_str(), c.c_str(), "n",
       "The common config path must point at an existing path."},
      {h.c_str(), file.c_str(), c.c_str(), "n",
       "The environment variable KESTRO_DB must point to a directory."},
      {h.c_str(), d.c_str(), file.c_str(), "n", "The common config path must point to a directory."},
      {h.c_str(), d.c_str(), c.c_str(), "", "The component name must not be empty."},
      {h.c_str(), d.c_str(), c.c_str(), "n", nullptr},
  };
  for (const Row& r : kRows) {
    SCOPED_TRACE(testing::Message() << r.home << " | " << r.db << " | " << r.common);
    ScopedEnv envHome("KESTRO_HOME", r.home);
    ScopedEnv envDb("KESTRO_DB", r.db);
    LoaderInfo info;
    info.populateFromEnvironment();
    std::vector<const char*> words = {"-c", r.common, "-n", r.name};
    if (*r.common == '\0') words = {"-n", r.name, "-c", ""};
    ASSERT_EQ(-1, parse(info, words).status);
    const char* got = info.validate();
    if (r.message == nullptr) {
      EXPECT_EQ(nullptr, got) << got;
    } else {
      ASSERT_NE(nullptr, got);
      EXPECT_STREQ(r.message, got);
    }
  }
}

}  // namespace
