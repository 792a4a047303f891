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

// `argv` as given, the program name included.
Parsed parseArgv(LoaderInfo& info, std::vector<const char*> argv) {
  FILE* out = tmpfile();
  FILE* err = tmpfile();
  const int status = info.parseCommandLine(static_cast<int>(argv.size()), argv.data(), out, err);
  return {status, drain(out), drain(err)};
}

Parsed parse(LoaderInfo& info, std::vector<const char*> words) {
  words.insert(words.begin(), "kestrod");
  return parseArgv(info, words);
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
      {{"-n"}, 8, "", std::string("-n option requires an argument\n") + kUsage},
      {{"-h"}, 8, "", std::string("-h option requires an argument\n") + kUsage},
      {{"--debug", "--help", "--bogus"}, 0, kUsage, ""},  // the first that ends wins
      {{"--nodaemonx"}, 8, "", std::string("Bad Option --nodaemonx\n") + kUsage},
      {{"--debug=1"}, 8, "", std::string("Bad Option --debug=1\n") + kUsage},
      {{"--waitonpid"}, 8, "", std::string("Bad Option --waitonpid\n") + kUsage},
      {{"--usage=1"}, 8, "", std::string("Bad Option --usage=1\n") + kUsage},
      {{"--helpme"}, 8, "", std::string("Bad Option --helpme\n") + kUsage},
      {{"-ifoo"}, 8, "", std::string("Bad Option -i\n") + kUsage},
      {{"start", "--bogus", "--", "--help"}, 8, "", std::string("Bad Option --bogus\n") + kUsage},
  };
  for (const auto& c : kCases) {
    std::string joined;
    for (const char* w : c.words) joined += std::string(w) + " ";
    SCOPED_TRACE(joined);
    LoaderInfo info;
    const Parsed p = parse(info, c.words);
    EXPECT_EQ(c.status, p.status);
    EXPECT_EQ(c.out, p.out);
    EXPECT_EQ(c.err, p.err);
  }
  // The usage names the program it is given.
  EXPECT_EQ("Usage: kd" + std::string(kUsage).substr(14), std::string(LoaderInfo::usageText("kd")));
}

struct OptRow {
  std::vector<const char*> args;
  int status;
  const char* component;
  const char* config;
  int port;
  const char* portStr;
  bool daemon;
  bool debug;
  const char* mode;
};

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

  // Each option alone, in each of its spellings, from argv[0] on.
  const OptRow rows[] = {
      {{"kestrod"}, -1, "kestrod", "etc", 8089, "8089", true, false, ""},
      {{"kestrod", "--nodaemon"}, -1, "kestrod", "etc", 8089, "8089", false, false, ""},
      {{"kestrod", "--debug"}, -1, "kestrod", "etc", 8089, "8089", true, true, ""},
      {{"kestrod", "--mode=upgrade"}, -1, "kestrod", "etc", 8089, "8089", true, false, "upgrade"},
      {{"kestrod", "--mode="}, -1, "kestrod", "etc", 8089, "8089", true, false, ""},
      {{"kestrod", "--mode=a=b"}, -1, "kestrod", "etc", 8089, "8089", true, false, "a=b"},
      {{"kestrod", "-p9000"}, -1, "kestrod", "etc", 9000, "9000", true, false, ""},
      {{"kestrod", "-p", "9000"}, -1, "kestrod", "etc", 9000, "9000", true, false, ""},
      {{"kestrod", "-p", "abc"}, -1, "kestrod", "etc", 0, "abc", true, false, ""},
      {{"kestrod", "-p", "12ab"}, -1, "kestrod", "etc", 12, "12ab", true, false, ""},
      {{"kestrod", "-p", "-5"}, -1, "kestrod", "etc", -5, "-5", true, false, ""},
      {{"kestrod", "-p", "1", "-p2"}, -1, "kestrod", "etc", 2, "2", true, false, ""},
      {{"kestrod", "-c", "/conf"}, -1, "kestrod", "/conf", 8089, "8089", true, false, ""},
      {{"kestrod", "-c/conf"}, -1, "kestrod", "/conf", 8089, "8089", true, false, ""},
      {{"kestrod", "-n", "splitter"}, -1, "splitter", "etc", 8089, "8089", true, false, ""},
      {{"kestrod", "-nsplitter"}, -1, "splitter", "etc", 8089, "8089", true, false, ""},
      {{"kestrod", "-h", "x"}, -1, "kestrod", "etc", 8089, "8089", true, false, ""},
      {{"kestrod", "-hx", "--debug"}, -1, "kestrod", "etc", 8089, "8089", true, true, ""},
      // The next word is the value, even when it looks like an option.
      {{"kestrod", "-n", "--bogus"}, -1, "--bogus", "etc", 8089, "8089", true, false, ""},
      {{"kestrod", "-h", "-i", "--debug"}, -1, "kestrod", "etc", 8089, "8089", true, true, ""},
      // Words without a dash are skipped; the program name is examined too.
      {{"kestrod", "start", "now", "--debug"}, -1, "kestrod", "etc", 8089, "8089", true, true,
       ""},
      {{"--nodaemon"}, -1, "kestrod", "etc", 8089, "8089", false, false, ""},
      // "--" ends the scan.
      {{"kestrod", "--debug", "--", "--bogus", "-i"}, -1, "kestrod", "etc", 8089, "8089", true,
       true, ""},
      {{"kestrod", "--", "--nodaemon"}, -1, "kestrod", "etc", 8089, "8089", true, false, ""},
      {{}, -1, "kestrod", "etc", 8089, "8089", true, false, ""},
  };
  for (const OptRow& r : rows) {
    std::string joined;
    for (const char* a : r.args) joined += std::string(a) + " ";
    SCOPED_TRACE(joined);
    LoaderInfo one;
    p = parseArgv(one, r.args);
    EXPECT_EQ(r.status, p.status);
    EXPECT_EQ("", p.out + p.err);
    EXPECT_EQ(r.component, one.getComponentName());
    EXPECT_EQ(r.config, one.getCommonConfigPath());
    EXPECT_EQ(r.port, one.getPort());
    EXPECT_EQ(r.portStr, one.getPortStr());
    EXPECT_EQ(r.daemon, one.getDaemon());
    EXPECT_EQ(r.debug, one.getUseDebugLog());
    EXPECT_EQ(r.mode, one.getStartupMode());
    EXPECT_FALSE(one.shouldWaitOnPid());
  }
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

TEST(LoaderInfo, UnsetOrEmptyVariablesLeaveTheFields) {
  LoaderInfo li;
  {
    ScopedEnv home("KESTRO_HOME", "/first/home");
    ScopedEnv db("KESTRO_DB", "/first/db");
    li.populateFromEnvironment();
  }
  {
    ScopedEnv home("KESTRO_HOME", nullptr);
    ScopedEnv db("KESTRO_DB", "");
    li.populateFromEnvironment();
    EXPECT_EQ(nullptr, getenv("KESTRO_HOME"));  // not written back
    EXPECT_STREQ("", getenv("KESTRO_DB"));
  }
  EXPECT_EQ(std::string(li.getKestroHome()), "/first/home");
  EXPECT_EQ(std::string(li.getKestroDb()), "/first/db");
  {
    ScopedEnv home("KESTRO_HOME", "/second");
    ScopedEnv db("KESTRO_DB", nullptr);
    li.populateFromEnvironment();
    EXPECT_EQ(nullptr, getenv("KESTRO_DB"));
  }
  EXPECT_EQ(std::string(li.getKestroHome()), "/second");
  EXPECT_EQ(std::string(li.getKestroDb()), "/first/db");
  EXPECT_EQ(std::string(li.getInstallConfigPath()), "/second/etc/myinstall");
}

TEST(LoaderInfoDeathTest, ProcessExitsWithTheOptionStatus) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  auto run = [](std::vector<const char*> args) {
    LoaderInfo li;
    li.populateFromCommandLine(static_cast<int>(args.size()), args.data());
    std::exit(42);  // the scan went on
  };
  EXPECT_EXIT(run({"kd", "--bogus"}), testing::ExitedWithCode(8), "Bad Option --bogus\nUsage: kd ");
  EXPECT_EXIT(run({"kd", "-i"}), testing::ExitedWithCode(8), "Bad Option -i\n");
  EXPECT_EXIT(run({"kd", "-p"}), testing::ExitedWithCode(8), "-p option requires an argument");
  EXPECT_EXIT(run({"kd", "--waitonpid=3"}), testing::ExitedWithCode(1),
              "--waitonpid option not implemented for UNIX");
  EXPECT_EXIT(run({"kd", "--help"}), testing::ExitedWithCode(0), "");
  EXPECT_EXIT(run({"kd", "--", "--bogus"}), testing::ExitedWithCode(42), "");
}

}  // namespace
