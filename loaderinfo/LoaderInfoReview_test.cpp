// The install record and the shared start-up, from the outside: what the
// two environment variables leave when unset or empty, the daemon's options
// with their messages and exit statuses (also through the exiting entry),
// and initCommon in child processes (it exits without a home and starts
// logging once per process).
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "loaderinfo/LoaderInfo.h"
#include "loaderinfo/SetupHelper.h"
#include "util/testing/TestTempDir.h"

namespace {

const char kUsageBody[] =
    "[OPTION...]\n"
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

std::string usageFor(const char* program) {
  return std::string("Usage: ") + program + " " + kUsageBody;
}

// Sets (or, with nullopt, unsets) one environment variable for the scope
// and puts the old state back after.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, std::optional<std::string> value) : _name(name) {
    if (const char* old = std::getenv(name)) _old = old;
    if (value) {
      ::setenv(name, value->c_str(), 1);
    } else {
      ::unsetenv(name);
    }
  }
  ~ScopedEnv() {
    if (_old) {
      ::setenv(_name, _old->c_str(), 1);
    } else {
      ::unsetenv(_name);
    }
  }
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;

 private:
  const char* _name;
  std::optional<std::string> _old;
};

std::string envOr(const char* name, const char* fallback) {
  const char* v = std::getenv(name);
  return v != nullptr ? v : fallback;
}

struct Parsed {
  int status;
  std::string out;
  std::string err;
  LoaderInfo info;
};

std::string drain(FILE* f) {
  std::string s;
  std::rewind(f);
  int c;
  while ((c = std::fgetc(f)) != EOF) s.push_back(static_cast<char>(c));
  std::fclose(f);
  return s;
}

Parsed parse(std::vector<const char*> args) {
  Parsed p{0, "", "", LoaderInfo()};
  FILE* out = std::tmpfile();
  FILE* err = std::tmpfile();
  p.status = p.info.parseCommandLine(static_cast<int>(args.size()), args.data(), out, err);
  p.out = drain(out);
  p.err = drain(err);
  return p;
}

TEST(LoaderInfoReview, UnsetOrEmptyVariablesLeaveTheFields) {
  LoaderInfo li;
  {
    ScopedEnv home("KESTRO_HOME", "/first/home");
    ScopedEnv db("KESTRO_DB", "/first/db");
    li.populateFromEnvironment();
  }
  {
    ScopedEnv home("KESTRO_HOME", std::nullopt);
    ScopedEnv db("KESTRO_DB", "");
    li.populateFromEnvironment();
    EXPECT_EQ(envOr("KESTRO_HOME", "<unset>"), "<unset>");  // not written back
    EXPECT_EQ(envOr("KESTRO_DB", "<unset>"), "");
  }
  EXPECT_EQ(std::string(li.getKestroHome()), "/first/home");
  EXPECT_EQ(std::string(li.getKestroDb()), "/first/db");
  {
    ScopedEnv home("KESTRO_HOME", "/second");
    ScopedEnv db("KESTRO_DB", std::nullopt);
    li.populateFromEnvironment();
    EXPECT_EQ(envOr("KESTRO_DB", "<unset>"), "<unset>");
  }
  EXPECT_EQ(std::string(li.getKestroHome()), "/second");
  EXPECT_EQ(std::string(li.getKestroDb()), "/first/db");
  EXPECT_EQ(std::string(li.getInstallConfigPath()), "/second/etc/myinstall");
}

// ---- Command line ----

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

TEST(LoaderInfoReview, OptionsThatSucceed) {
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
    Parsed p = parse(r.args);
    EXPECT_EQ(p.status, r.status);
    EXPECT_EQ(p.out, "");
    EXPECT_EQ(p.err, "");
    EXPECT_EQ(std::string(p.info.getComponentName()), r.component);
    EXPECT_EQ(std::string(p.info.getCommonConfigPath()), r.config);
    EXPECT_EQ(p.info.getPort(), r.port);
    EXPECT_EQ(std::string(p.info.getPortStr()), r.portStr);
    EXPECT_EQ(p.info.getDaemon(), r.daemon);
    EXPECT_EQ(p.info.getUseDebugLog(), r.debug);
    EXPECT_EQ(std::string(p.info.getStartupMode()), r.mode);
    EXPECT_FALSE(p.info.shouldWaitOnPid());
  }
}

struct FailRow {
  std::vector<const char*> args;
  int status;
  std::string out;
  std::string err;
};

TEST(LoaderInfoReview, OptionsThatStop) {
  const std::string u = usageFor("kd");
  const FailRow rows[] = {
      {{"kd", "--help"}, 0, u, ""},
      {{"kd", "-?"}, 0, u, ""},
      {{"kd", "--usage"}, 0, u, ""},
      {{"kd", "--debug", "--help", "--bogus"}, 0, u, ""},
      {{"kd", "--waitonpid=12"}, 1, "", "--waitonpid option not implemented for UNIX\n"},
      {{"kd", "--bogus"}, 8, "", "Bad Option --bogus\n" + u},
      {{"kd", "--nodaemonx"}, 8, "", "Bad Option --nodaemonx\n" + u},
      {{"kd", "--debug=1"}, 8, "", "Bad Option --debug=1\n" + u},
      {{"kd", "--mode"}, 8, "", "Bad Option --mode\n" + u},
      {{"kd", "--waitonpid"}, 8, "", "Bad Option --waitonpid\n" + u},
      {{"kd", "--usage=1"}, 8, "", "Bad Option --usage=1\n" + u},
      {{"kd", "--helpme"}, 8, "", "Bad Option --helpme\n" + u},
      {{"kd", "-i"}, 8, "", "Bad Option -i\n" + u},
      {{"kd", "-x"}, 8, "", "Bad Option -x\n" + u},
      {{"kd", "-ifoo"}, 8, "", "Bad Option -i\n" + u},
      {{"kd", "-c"}, 8, "", "-c option requires an argument\n" + u},
      {{"kd", "-n"}, 8, "", "-n option requires an argument\n" + u},
      {{"kd", "-p"}, 8, "", "-p option requires an argument\n" + u},
      {{"kd", "-h"}, 8, "", "-h option requires an argument\n" + u},
      {{"kd", "start", "--bogus", "--", "--help"}, 8, "", "Bad Option --bogus\n" + u},
  };
  for (const FailRow& r : rows) {
    std::string joined;
    for (const char* a : r.args) joined += std::string(a) + " ";
    SCOPED_TRACE(joined);
    Parsed p = parse(r.args);
    EXPECT_EQ(p.status, r.status);
    EXPECT_EQ(p.out, r.out);
    EXPECT_EQ(p.err, r.err);
  }
  EXPECT_EQ(std::string(LoaderInfo::usageText("kd")), u);
}

TEST(LoaderInfoReviewDeathTest, ProcessExitsWithTheOptionStatus) {
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

// ---- initCommon ----

TEST(SetupHelperReviewDeathTest, StopsWithoutAHome) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  for (std::optional<std::string> value : {std::optional<std::string>(""),
                                           std::optional<std::string>()}) {
    ScopedEnv h("KESTRO_HOME", value);
    EXPECT_EXIT(SetupHelper::initCommon(false, nullptr), testing::ExitedWithCode(255),
                "^KESTRO_HOME must be set\\.  Stopping\\.\n$");
    EXPECT_EXIT(SetupHelper::initCommon(std::map<Str, Pathname>{{Str("KESTRO_HOME"), "/x"}}, true,
                                        "other.cfg"),
                testing::ExitedWithCode(255), "^KESTRO_HOME must be set\\.  Stopping\\.\n$");
  }
}

TEST(SetupHelperReviewDeathTest, SaysWhichLoggingFileAndFillsTheRecord) {
  // Forked children see this test's temporary home.
  GTEST_FLAG_SET(death_test_style, "fast");
  TestTempDir tmp;
  const std::string home(tmp.path());
  writeTestFile(tmp / "etc/log-cmdline.cfg", "rootCategory = WARN\n");
  writeTestFile(tmp / "etc/other.cfg", "rootCategory = WARN\n");
  ScopedEnv h("KESTRO_HOME", home + "//");
  auto start = [&](bool quiet, const char* name) {
    SetupHelper::initCommon(quiet, name);
    const LoaderInfo& li = LoaderInfo::getInstance();
    std::exit(std::string(li.getKestroHome()) == home ? 0 : 3);
  };
  EXPECT_EXIT(start(false, nullptr), testing::ExitedWithCode(0),
              "Using logging configuration at " + home + "/etc/log-cmdline\\.cfg\\.\n");
  EXPECT_EXIT(start(false, "other.cfg"), testing::ExitedWithCode(0),
              "Using logging configuration at " + home + "/etc/other\\.cfg\\.\n");
  {
    // The root as home: no doubled separator in the file's path.
    ScopedEnv root("KESTRO_HOME", "/");
    EXPECT_EXIT(
        {
          SetupHelper::initCommon(false, nullptr);
          std::exit(std::string(LoaderInfo::getInstance().getKestroHome()) == "/" ? 0 : 3);
        },
        testing::ExitedWithCode(0), "^Using logging configuration at /etc/log-cmdline\\.cfg\\.\n");
  }
  EXPECT_EXIT(
      {
        // Standard error into a file of its own, to read back what was said.
        const Pathname said = tmp / "stderr.txt";
        FILE* f = std::fopen(said.c_str(), "w+");
        if (f == nullptr || ::dup2(::fileno(f), 2) < 0) std::exit(5);
        SetupHelper::initCommon(true, nullptr);
        std::fflush(stderr);
        const std::string text = readTestFile(said);
        std::exit(text.find("Using logging configuration") == std::string::npos ? 0 : 4);
      },
      testing::ExitedWithCode(0), "");
}

}  // namespace
