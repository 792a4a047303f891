// The real kestrod against a copy of the staged install tree, on a free
// loopback port, driven with curl: its security as a client sees it, its
// timestamp probe against the real dateprobe, and its shutdown on SIGTERM.

#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "framework/PasswordHash.h"
#include "util/testing/RunProgram.h"
#include "util/testing/TestTempDir.h"

namespace {

std::string env(const char* name) {
  const char* v = std::getenv(name);
  return v != nullptr ? v : "";
}

// Users of the test install. The passwords are distinctive so that a grep
// of the logs for them cannot hit anything else.
const char* const ADMIN_PW = "adm1n-Pw-7f3a9";
const char* const CAROL_PW = "car0l-Pw-52c1e";
const char* const BOB_PW = "b0b-Pw-e81d0";
const char* const WRONG_PW = "wr0ng-Pw-0a4f6";

// A copy of the staged install with three users: admin (role admin), carol
// (role user, which may run the probe) and bob (no role), and the extra
// server.conf settings given.
class TestInstall {
 public:
  explicit TestInstall(const std::string& serverConf) {
    const std::string cmd =
        "cp -r '" + env("KESTRO_STAGED_HOME") + "/.' '" + std::string(_dir.path()) + "'";
    EXPECT_EQ(0, std::system(cmd.c_str()));
    // Few iterations: the hashes are checked on every Basic request.
    const std::string users =
        "[admin]\npassword = " + PasswordHash::hash(Str(ADMIN_PW), 1000) + "\nroles = admin\n\n" +
        "[carol]\npassword = " + PasswordHash::hash(Str(CAROL_PW), 1000) + "\nroles = user\n\n" +
        "[bob]\npassword = " + PasswordHash::hash(Str(BOB_PW), 1000) + "\nroles =\n";
    writeTestFile(_dir / "etc/system/local/users.conf", users);
    writeTestFile(_dir / "etc/system/local/server.conf", serverConf);
  }
  std::string home() const { return std::string(_dir.path()); }
  std::string log() const { return readTestFile(_dir / "var/log/kestro/kestrod.log"); }
  std::string accessLog() const {
    return readTestFile(_dir / "var/log/kestro/kestrod_access.log");
  }

 private:
  TestTempDir _dir;
};

// The daemon in the foreground on a free port of 127.0.0.1.
class Daemon {
 public:
  explicit Daemon(const std::string& home) {
    _running = startProgram(env("KESTROD_BIN"), {"--nodaemon", "-p", "0"},
                            [home] { setenv("KESTRO_HOME", home.c_str(), 1); });
    // The first line names the port: "kestrod: serving on http://...".
    std::string line;
    pollfd p{_running.output, POLLIN, 0};
    char c;
    while (poll(&p, 1, 60000) > 0 && read(_running.output, &c, 1) == 1 && c != '\n') line += c;
    const size_t at = line.find("http");
    if (at != std::string::npos) url = line.substr(at);
  }
  ~Daemon() {
    if (_running.pid > 0) stop();
  }
  // SIGTERM, then waits for the exit (however long the shutdown takes).
  ProgramOutcome stop() {
    kill(_running.pid, SIGTERM);
    return waitProgram(_running);
  }

  std::string url;  // empty when the daemon did not come up

 private:
  RunningProgram _running;
};

struct Reply {
  int status = 0;
  std::string body;
};

// curl with `args` (shell words) against `base` and `path`.
Reply curl(const std::string& base, const std::string& args, const std::string& path) {
  const std::string cmd =
      "curl -s -w '\\n%{http_code}' " + args + " '" + base + path + "'";
  std::string out;
  FILE* p = popen(cmd.c_str(), "r");
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
  pclose(p);
  Reply r;
  const size_t nl = out.rfind('\n');
  if (nl == std::string::npos) return r;
  r.status = std::atoi(out.c_str() + nl + 1);
  r.body = out.substr(0, nl);
  return r;
}

std::string sessionKey(const Reply& login) {
  std::smatch m;
  return std::regex_search(login.body, m, std::regex("<sessionKey>([0-9a-f]+)</sessionKey>"))
             ? m[1].str()
             : "";
}

std::string login(const Daemon& d, const std::string& user, const std::string& pw) {
  return sessionKey(
      curl(d.url, "-d username=" + user + " -d password=" + pw, "/services/auth/login"));
}

std::string token(const std::string& key) { return "-H 'Authorization: Kestro " + key + "'"; }

TEST(KestrodSecurity, CredentialsAndCapabilitiesAreEnforced) {
  // Trusted logins only from 127.0.0.2, which is not where curl comes from
  // unless told.
  TestInstall install("[general]\ntrustedIP = 127.0.0.2\n");
  Daemon d(install.home());
  ASSERT_FALSE(d.url.empty());
  const std::string adminKey = login(d, "admin", ADMIN_PW);
  const std::string carolKey = login(d, "carol", CAROL_PW);
  const std::string bobKey = login(d, "bob", BOB_PW);
  ASSERT_EQ(32u, adminKey.size());
  ASSERT_EQ(32u, carolKey.size());
  ASSERT_EQ(32u, bobKey.size());
  EXPECT_NE(adminKey, carolKey);

  std::vector<Reply> replies;
  // Every endpoint the list names refuses a request without credentials.
  const Reply list = curl(d.url, "", "/services");
  ASSERT_EQ(200, list.status) << list.body;
  std::vector<std::string> paths;
  const std::regex match("<field name=\"match\">\\^([^<]*)</field>");
  for (std::sregex_iterator it(list.body.begin(), list.body.end(), match), end; it != end; ++it) {
    paths.push_back((*it)[1].str());
  }
  ASSERT_EQ(2u, paths.size()) << list.body;
  for (const std::string& path : paths) {
    for (const char* method : {"", "-X POST"}) {
      const Reply r = curl(d.url, method, "/services" + path);
      EXPECT_EQ(401, r.status) << path << " " << method << ": " << r.body;
    }
  }

  const struct {
    const char* what;
    std::string args;
    std::string path;
    int status;
    const char* bodyHas;
  } kCases[] = {
      {"wrong password", "-u admin:" + std::string(WRONG_PW), "/services/server/info", 401, ""},
      {"unknown user", "-u nosuch:" + std::string(ADMIN_PW), "/services/server/info", 401, ""},
      {"forged token", token("0123456789abcdef0123456789abcdef"), "/services/server/info", 401,
       "Invalid session token"},
      {"unknown scheme", "-H 'Authorization: Bearer " + adminKey + "'", "/services/server/info",
       401, ""},
      {"token in the URL when allowGetAuth is off", "",
       "/services/server/info?session_key=" + adminKey, 401, ""},
      {"good password", "-u admin:" + std::string(ADMIN_PW), "/services/server/info", 200,
       "<field name=\"user\">admin</field>"},
      {"a token speaks for its own user", token(carolKey), "/services/server/info", 200,
       "<field name=\"user\">carol</field>"},
      {"another user's namespace", token(carolKey), "/servicesNS/admin/-/server/info", 403,
       "User 'carol' could not act as: admin"},
      {"admin may act for others", token(adminKey), "/servicesNS/carol/-/server/info", 200,
       "<field name=\"user\">admin</field>"},
      {"no capability", token(bobKey) + " --data-urlencode line=x", "/services/timestamp/probe",
       403, "Permission denied: capability 'run_timestamp_probe'"},
      {"capability through a role", token(carolKey) + " --data-urlencode line=x",
       "/services/timestamp/probe", 200, "Unable to parse 'x'"},
      {"missing argument", token(carolKey), "/services/timestamp/probe", 400,
       "Missing argument: line"},
      {"login with a wrong password",
       "-d username=admin -d password=" + std::string(WRONG_PW), "/services/auth/login", 401,
       "Login failed"},
      {"trusted login from another address", "-d username=admin",
       "/services/auth/trustedlogin", 401,
       "SSO failed - Given IP '127.0.0.1' does not match trusted IP '127.0.0.2'"},
      {"trusted login from the trusted address", "--interface 127.0.0.2 -d username=carol",
       "/services/auth/trustedlogin", 200, "<sessionKey>"},
  };
  for (const auto& c : kCases) {
    const Reply r = curl(d.url, c.args, c.path);
    EXPECT_EQ(c.status, r.status) << c.what << ": " << r.body;
    EXPECT_NE(std::string::npos, r.body.find(c.bodyHas)) << c.what << ": " << r.body;
    replies.push_back(r);
  }
  // A session ended by nothing still works; an ended daemon forgets all.
  EXPECT_EQ(200, curl(d.url, token(adminKey), "/services/server/info").status);

  const ProgramOutcome end = d.stop();
  EXPECT_EQ(0, end.status) << end.output;
  const std::string logs = install.log() + install.accessLog();
  EXPECT_NE(std::string::npos, logs.find("Failed login for user 'admin'"));
  for (const char* pw : {ADMIN_PW, CAROL_PW, BOB_PW, WRONG_PW}) {
    EXPECT_EQ(std::string::npos, logs.find(pw)) << pw;
    for (const Reply& r : replies) EXPECT_EQ(std::string::npos, r.body.find(pw)) << pw;
  }
}

TEST(KestrodSecurity, AnIdleSessionExpires) {
  TestInstall install("[general]\nsessionTimeout = 1\n");
  Daemon d(install.home());
  ASSERT_FALSE(d.url.empty());
  const std::string key = login(d, "carol", CAROL_PW);
  ASSERT_EQ(200, curl(d.url, token(key), "/services/server/info").status);
  std::this_thread::sleep_for(std::chrono::milliseconds(2100));  // the idle time itself
  const Reply r = curl(d.url, token(key), "/services/server/info");
  EXPECT_EQ(401, r.status) << r.body;
  EXPECT_NE(std::string::npos, r.body.find("Invalid session token")) << r.body;
  // Expired is gone: it does not come back after a fresh login.
  EXPECT_EQ(200, curl(d.url, token(login(d, "carol", CAROL_PW)), "/services/server/info").status);
  EXPECT_EQ(401, curl(d.url, token(key), "/services/server/info").status);
}

// The corpus lines (the last column), every `step`-th row.
std::vector<std::string> corpusLines(size_t step) {
  std::ifstream in(env("KESTRO_TESTDATA") + "/timestamp_corpus.tsv");
  std::vector<std::string> lines;
  size_t row = 0;
  for (std::string text; std::getline(in, text);) {
    if (text.empty() || text[0] == '#') continue;
    if (row++ % step != 0) continue;
    size_t at = 0;
    for (int tabs = 0; tabs < 5 && at != std::string::npos; tabs++) {
      at = text.find('\t', at);
      if (at != std::string::npos) at++;
    }
    if (at != std::string::npos) lines.push_back(text.substr(at));
  }
  return lines;
}

TEST(KestrodProbe, AnswersExactlyWhatDateprobePrints) {
  TestInstall install("");
  Daemon d(install.home());
  ASSERT_FALSE(d.url.empty());
  const std::string auth = "-u carol:" + std::string(CAROL_PW);
  // KESTROD_CORPUS_STEP=1 runs every row; the default samples.
  const std::string stepText = env("KESTROD_CORPUS_STEP");
  const size_t step = stepText.empty() ? 20 : std::strtoul(stepText.c_str(), nullptr, 10);
  std::vector<std::pair<std::string, std::string>> cases;
  for (const std::string& line : corpusLines(step)) cases.emplace_back(line, "");
  ASSERT_GT(cases.size(), 10u);
  // Contexts select other stanzas; an empty one is "*".
  cases.emplace_back("Nov 23 21:04:05 host sshd[1]: x", "syslog");
  cases.emplace_back("05/09/04 03:00:03 Connection 214657", "source::/var/log/app.log");
  cases.emplace_back("2008-09-29 13:15:00 PDT logType=activity", "host::web01");
  cases.emplace_back("2008-09-29 13:15:00.123456789 x", "*");
  for (const auto& [line, context] : cases) {
    std::vector<std::string> words = {line};
    if (!context.empty()) words.push_back(context);
    const ProgramOutcome expected = runProgram(env("DATEPROBE_BIN"), words, [&] {
      setenv("KESTRO_HOME", install.home().c_str(), 1);
      freopen("/dev/null", "w", stderr);
    });
    ASSERT_EQ(0, expected.status);
    ASSERT_NE(std::string::npos, expected.output.find(line)) << expected.output;
    // The line goes through a file so that no quoting of the shell touches it.
    const std::string file = install.home() + "/line.txt";
    writeTestFile(Pathname(file), line);
    const Reply got = curl(d.url, auth + " --data-urlencode 'line@" + file + "'" +
                                   (context.empty() ? "" : " --data-urlencode 'context=" +
                                                               context + "'"),
                           "/services/timestamp/probe");
    EXPECT_EQ(200, got.status) << line;
    EXPECT_EQ(expected.output, got.body) << line << " | " << context;
  }
}

TEST(KestrodLifecycle, SigtermEndsTheDaemonAfterItsRequests) {
  TestInstall install("");
  {
    // A SIGTERM right after the daemon said where it serves is not lost.
    Daemon early(install.home());
    ASSERT_FALSE(early.url.empty());
    const ProgramOutcome end = early.stop();
    EXPECT_EQ(0, end.status);
    EXPECT_EQ("kestrod: stopped\n", end.output);
  }
  Daemon d(install.home());
  ASSERT_FALSE(d.url.empty());
  EXPECT_EQ(200, curl(d.url, "", "/services").status);
  const ProgramOutcome end = d.stop();  // waits, however long it takes
  EXPECT_EQ(0, end.status);
  EXPECT_EQ("kestrod: stopped\n", end.output);
  const std::string log = install.log();
  EXPECT_NE(std::string::npos, log.find("HTTPServer::handleSignal 15")) << log;
  EXPECT_NE(std::string::npos, log.find("HTTPServer shutting down. Terminating eloop.")) << log;
  EXPECT_NE(std::string::npos, install.accessLog().find("\"GET /services HTTP/1.1\" 200"));
}

TEST(KestrodLifecycle, ServesOnlyTlsWhenACertificateIsConfigured) {
  TestInstall install(
      "[httpServer]\nserverCert = etc/auth/cert.pem\nprivateKey = etc/auth/key.pem\n");
  const std::string auth = install.home() + "/etc/auth";
  ASSERT_EQ(0, std::system(("mkdir -p " + auth + " && openssl req -x509 -newkey rsa:2048 -nodes "
                            "-days 1 -subj /CN=localhost -keyout " + auth + "/key.pem -out " +
                            auth + "/cert.pem 2>/dev/null").c_str()));
  Daemon d(install.home());
  ASSERT_EQ(0u, d.url.find("https://127.0.0.1:")) << d.url;
  const Reply r = curl(d.url, "-k -u carol:" + std::string(CAROL_PW), "/services/server/info");
  EXPECT_EQ(200, r.status) << r.body;
  std::string plain = d.url;
  plain.replace(0, 5, "http");
  EXPECT_NE(200, curl(plain, "", "/services").status);
}

TEST(KestrodLifecycle, AnUnreadableCertificateLeavesThePortPlainAndSaysSo) {
  TestInstall install("[httpServer]\nserverCert = etc/auth/none.pem\nprivateKey = etc/auth/none.pem\n");
  Daemon d(install.home());
  ASSERT_EQ(0u, d.url.find("http://127.0.0.1:")) << d.url;
  EXPECT_EQ(200, curl(d.url, "", "/services").status);
  d.stop();
  EXPECT_NE(std::string::npos, install.log().find("SSL will not be enabled")) << install.log();
}

TEST(KestrodOptions, UsageAndBadOptionsEndBeforeAnythingStarts) {
  const struct {
    std::vector<std::string> words;
    int status;
  } kCases[] = {{{"--help"}, 0}, {{"-i"}, 8}, {{"--bogus"}, 8}, {{"-p"}, 8}};
  for (const auto& c : kCases) {
    const ProgramOutcome o = runProgram(env("KESTROD_BIN"), c.words, [] {
      freopen("/dev/null", "w", stderr);
    });
    EXPECT_EQ(c.status, o.status) << c.words[0];
  }
}

}  // namespace
