// The real kestrod from the outside: its command line and exit statuses,
// its management port's answers to malformed and hostile requests, the
// probe's argument handling, descriptor and thread hygiene under many
// requests, and SIGINT with a reply still being written.

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "framework/PasswordHash.h"
#include "util/testing/RunProgram.h"
#include "util/testing/TestTempDir.h"

namespace {

// The daemon and the staged install sit beside this test in the build tree.
std::string buildDir() {
  char self[PATH_MAX];
  const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
  if (n <= 0) return "";
  self[n] = '\0';
  return std::filesystem::path(self).parent_path().string();
}
std::string kestrodBin() { return buildDir() + "/kestrod"; }
std::string stagedHome() {
  const char* v = std::getenv("KESTRO_STAGED_HOME");
  if (v != nullptr && *v != '\0') return v;
  return (std::filesystem::path(buildDir()) / "../../home").lexically_normal().string();
}

std::string slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

const char* const CAROL_PW = "car0l-Rv-93b1";
const char* const ADMIN_PW = "adm1n-Rv-4c7e";
const char* const BOB_PW = "b0b-Rv-11ad";

std::string base64(const std::string& in) {
  static const char* const kAlphabet =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  size_t i = 0;
  for (; i + 2 < in.size(); i += 3) {
    const unsigned v = (unsigned char)in[i] << 16 | (unsigned char)in[i + 1] << 8 |
                       (unsigned char)in[i + 2];
    for (int s = 18; s >= 0; s -= 6) out += kAlphabet[(v >> s) & 63];
  }
  if (i + 1 == in.size()) {
    const unsigned v = (unsigned char)in[i] << 16;
    out += kAlphabet[(v >> 18) & 63];
    out += kAlphabet[(v >> 12) & 63];
    out += "==";
  } else if (i + 2 == in.size()) {
    const unsigned v = (unsigned char)in[i] << 16 | (unsigned char)in[i + 1] << 8;
    out += kAlphabet[(v >> 18) & 63];
    out += kAlphabet[(v >> 12) & 63];
    out += kAlphabet[(v >> 6) & 63];
    out += '=';
  }
  return out;
}
std::string basic(const std::string& user, const char* pw) {
  return "Authorization: Basic " + base64(user + ":" + pw) + "\r\n";
}

// A copy of the staged install with admin (role admin), carol (role user)
// and bob (no role). Trusted logins come only from an address no test uses.
class Install {
 public:
  // `trustedIP` false leaves the shipped setting alone.
  explicit Install(bool trustedIP = true) {
    EXPECT_EQ(0, std::system(("cp -r '" + stagedHome() + "/.' '" + home() + "'").c_str()));
    writeTestFile(_dir / "etc/system/local/users.conf",
                  "[admin]\npassword = " + PasswordHash::hash(Str(ADMIN_PW), 1000) +
                      "\nroles = admin\n\n[carol]\npassword = " +
                      PasswordHash::hash(Str(CAROL_PW), 1000) +
                      "\nroles = user\n\n[bob]\npassword = " +
                      PasswordHash::hash(Str(BOB_PW), 1000) + "\nroles =\n");
    if (trustedIP)
      writeTestFile(_dir / "etc/system/local/server.conf", "[general]\ntrustedIP = 127.0.0.9\n");
  }
  std::string home() const { return std::string(_dir.path()); }
  std::string log() const { return slurp(home() + "/var/log/kestro/kestrod.log"); }

 private:
  TestTempDir _dir;
};

class Daemon {
 public:
  explicit Daemon(const std::string& home) {
    _running = startProgram(kestrodBin(), {"--nodaemon", "-p", "0"}, [home] {
      setenv("KESTRO_HOME", home.c_str(), 1);
      freopen("/dev/null", "w", stderr);
    });
    std::string line;
    pollfd p{_running.output, POLLIN, 0};
    char c;
    while (poll(&p, 1, 60000) > 0 && read(_running.output, &c, 1) == 1 && c != '\n') line += c;
    const size_t colon = line.rfind(':');
    if (line.find("http://127.0.0.1:") != std::string::npos && colon != std::string::npos)
      port = std::atoi(line.c_str() + colon + 1);
  }
  ~Daemon() {
    if (_running.pid > 0) stop(SIGTERM);
  }
  pid_t pid() const { return _running.pid; }
  ProgramOutcome stop(int sig) {
    kill(_running.pid, sig);
    return waitProgram(_running);
  }
  int port = 0;

 private:
  RunningProgram _running;
};

int connectTo(int port) {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(port);
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

bool sendAll(int fd, const std::string& data) {
  size_t done = 0;
  while (done < data.size()) {
    const ssize_t n = send(fd, data.data() + done, data.size() - done, MSG_NOSIGNAL);
    if (n <= 0) return false;
    done += n;
  }
  return true;
}

// Reads until the server closes; the server closes after every reply.
std::string readAll(int fd) {
  std::string out;
  char buf[65536];
  pollfd p{fd, POLLIN, 0};
  while (poll(&p, 1, 60000) > 0) {
    const ssize_t n = read(fd, buf, sizeof buf);
    if (n <= 0) break;
    out.append(buf, n);
  }
  return out;
}

struct Answer {
  int status = 0;
  std::string head;
  std::string body;
};

Answer roundTrip(int port, const std::string& request) {
  Answer a;
  const int fd = connectTo(port);
  if (fd < 0) return a;
  sendAll(fd, request);
  const std::string all = readAll(fd);
  close(fd);
  if (all.compare(0, 9, "HTTP/1.1 ") == 0) a.status = std::atoi(all.c_str() + 9);
  const size_t end = all.find("\r\n\r\n");
  if (end != std::string::npos) {
    a.head = all.substr(0, end);
    a.body = all.substr(end + 4);
  }
  return a;
}

std::string get(const std::string& target, const std::string& headers = "") {
  return "GET " + target + " HTTP/1.1\r\nHost: 127.0.0.1\r\n" + headers + "\r\n";
}

std::string postForm(const std::string& target, const std::string& body,
                     const std::string& headers) {
  return "POST " + target + " HTTP/1.1\r\nHost: 127.0.0.1\r\n" + headers +
         "Content-Type: application/x-www-form-urlencoded\r\nContent-Length: " +
         std::to_string(body.size()) + "\r\n\r\n" + body;
}

size_t countEntries(const std::string& dir) {
  size_t n = 0;
  std::error_code ec;
  for (auto it = std::filesystem::directory_iterator(dir, ec);
       !ec && it != std::filesystem::directory_iterator(); it.increment(ec))
    ++n;
  return n;
}

const char* const kUsageBody =
    " [OPTION...]\n  --nodaemon      causes the system not to daemonize\n  -c STRING       "
    "override the config path\n  -h              no longer supported\n  -i              no "
    "longer supported\n  -n STRING       the component name to start with\n  -p INT          "
    "the management port Kestrod will listen on\n  --debug         start with debug log "
    "config\n\nHelp options:\n  -?, --help      Show this help message\n  --usage         "
    "Display brief usage message\n";

TEST(KestrodReviewOptions, StatusesAndMessagesOfTheCommandLine) {
  TestTempDir scratch;
  const std::string errPath = std::string(scratch.path()) + "/err";
  const std::string usage = "Usage: " + kestrodBin() + kUsageBody;
  const struct {
    std::vector<std::string> words;
    int status;
    std::string out;  // exact standard output
    std::string err;  // exact standard error
  } kCases[] = {
      {{"-?"}, 0, usage, ""},
      {{"--usage"}, 0, usage, ""},
      {{"-h", "x", "--help"}, 0, usage, ""},
      {{"--nodaemon", "--debug", "--mode=x", "--help"}, 0, usage, ""},
      {{"--waitonpid=12"}, 1, "", "--waitonpid option not implemented for UNIX\n"},
      {{"-c"}, 8, "", "-c option requires an argument\n" + usage},
      {{"-n"}, 8, "", "-n option requires an argument\n" + usage},
      {{"-h"}, 8, "", "-h option requires an argument\n" + usage},
      {{"--nodaemonx"}, 8, "", "Bad Option --nodaemonx\n" + usage},
      {{"--help=1"}, 8, "", "Bad Option --help=1\n" + usage},
      {{"--mode"}, 8, "", "Bad Option --mode\n" + usage},
      {{"-x"}, 8, "", "Bad Option -x\n" + usage},
      {{"-p9000", "--bogus"}, 8, "", "Bad Option --bogus\n" + usage},
      {{"word", "-i"}, 8, "", "Bad Option -i\n" + usage},
  };
  for (const auto& c : kCases) {
    const ProgramOutcome o = runProgram(kestrodBin(), c.words, [errPath] {
      freopen(errPath.c_str(), "w", stderr);
    });
    EXPECT_EQ(c.status, o.status) << c.words[0];
    EXPECT_EQ(c.out, o.output) << c.words[0];
    EXPECT_EQ(c.err, slurp(errPath)) << c.words[0];
  }
}

TEST(KestrodReviewOptions, AnEmptyHomeStopsWithStatus255) {
  TestTempDir scratch;
  const std::string errPath = std::string(scratch.path()) + "/err";
  const ProgramOutcome o = runProgram(kestrodBin(), {"--nodaemon", "-p", "0"}, [errPath] {
    setenv("KESTRO_HOME", "", 1);
    freopen(errPath.c_str(), "w", stderr);
  });
  EXPECT_EQ(255, o.status);
  EXPECT_EQ("", o.output);
  EXPECT_EQ("KESTRO_HOME must be set.  Stopping.\n", slurp(errPath));
}

TEST(KestrodReviewPort, MalformedRequestsGetTheirStatuses) {
  Install install;
  Daemon d(install.home());
  ASSERT_NE(0, d.port);
  const struct {
    std::string request;
    int status;
    std::string body;  // expected prefix of the body
  } kCases[] = {
      {"HEAD /services HTTP/1.1\r\n\r\n", 501, "501 Not Implemented"},
      {"OPTIONS /services HTTP/1.1\r\n\r\n", 501, "501 Not Implemented"},
      {"TRACE /services HTTP/1.1\r\n\r\n", 501, "501 Not Implemented"},
      {"CONNECT /services HTTP/1.1\r\n\r\n", 501, "501 Not Implemented"},
      {"BREW /services HTTP/1.1\r\n\r\n", 400, "400 Bad Request"},
      {"GET\r\n\r\n", 400, "400 Bad Request"},
      {"GET /" + std::string(1048577, 'a') + " HTTP/1.1\r\n\r\n", 414,
       "exceeded max_method_size"},
      {"GET /services HTTP/1.1\r\nX-Fill: " + std::string(1048600, 'b') + "\r\n\r\n", 413,
       "exceeded max_header_size"},
      {"POST /services HTTP/1.1\r\nContent-Length: 99999999999\r\n\r\n", 413,
       "content exceeded max_content_length"},
      {"POST /services HTTP/1.1\r\nContent-Length: -5\r\n\r\n", 200, "<?xml"},
      {"GET /services HTTP/1.1\nHost: x\n\n", 200, "<?xml"},
      {"GET /no/such/base HTTP/1.1\r\n\r\n", 404, "<html><body>404 - not found</body></html>"},
  };
  for (const auto& c : kCases) {
    const Answer a = roundTrip(d.port, c.request);
    EXPECT_EQ(c.status, a.status) << c.request.substr(0, 40);
    EXPECT_EQ(0u, a.body.find(c.body)) << c.request.substr(0, 40) << " -> " << a.body;
    EXPECT_NE(std::string::npos, a.head.find("Connection: close")) << c.request.substr(0, 40);
  }
  // A gzip reply drops its length; "q=0" refuses gzip.
  const Answer zipped = roundTrip(d.port, get("/services", "Accept-Encoding: x, GZIP\r\n"));
  EXPECT_NE(std::string::npos, zipped.head.find("Content-Encoding: gzip"));
  EXPECT_EQ(std::string::npos, zipped.head.find("Content-Length"));
  const Answer refused = roundTrip(d.port, get("/services", "Accept-Encoding: gzip ; Q=0\r\n"));
  EXPECT_EQ(std::string::npos, refused.head.find("Content-Encoding"));
  EXPECT_NE(std::string::npos, refused.head.find("Content-Length"));
  d.stop(SIGTERM);
}

TEST(KestrodReviewSecurity, NoCredentialsNoNamespaceOfOthers) {
  Install install;
  Daemon d(install.home());
  ASSERT_NE(0, d.port);
  const std::string carol = basic("carol", CAROL_PW);
  const std::string admin = basic("admin", ADMIN_PW);
  const std::string bob = basic("bob", BOB_PW);
  const std::string line = "line=2008-09-29%2013:15:00";
  const struct {
    std::string request;
    int status;
    std::string body;  // expected within the body
  } kCases[] = {
      // Nothing that needs a user answers without one, in any form.
      {get("/services/server/info"), 401, "Unauthorized"},
      {get("/services/timestamp/probe?" + line), 401, "Unauthorized"},
      {get("/servicesNS/admin/system/server/info"), 401, "Unauthorized"},
      {get("/servicesNS/admin/system/timestamp/probe?" + line), 401, "Unauthorized"},
      {postForm("/services/timestamp/probe", line, ""), 401, "Unauthorized"},
      {get("/services/timestamp/probe?" + line, "Authorization: Kestro 0123456789abcdef\r\n"),
       401, "Invalid session token"},
      {get("/services/timestamp/probe?" + line, "Authorization: Basic !!!\r\n"), 401,
       "Unauthorized"},
      {get("/services/timestamp/probe?" + line, basic("carol", BOB_PW)), 401, "Unauthorized"},
      {get("/services/server/info?session_key=0123456789abcdef"), 401, "Unauthorized"},
      // A trusted login from an address that is not the trusted one.
      {postForm("/services/auth/trustedlogin", "username=admin", ""), 401, "SSO failed"},
      // A user without the capability.
      {get("/services/timestamp/probe?" + line, bob), 403, "run_timestamp_probe"},
      // Another user's namespace.
      {get("/servicesNS/admin/system/timestamp/probe?" + line, carol), 403,
       "User 'carol' could not act as: admin"},
      {get("/servicesNS/admin/system/server/info", carol), 403,
       "User 'carol' could not act as: admin"},
      {get("/servicesNS/carol/system/timestamp/probe?" + line, carol), 200, "UTC Time:\t1222694100"},
      {get("/servicesNS/carol/system/server/info", admin), 200, "server-info"},
      // The probe's arguments.
      {get("/services/timestamp/probe", carol), 400, "Missing argument: line"},
      {get("/services/timestamp/probe?line=%FF%FE2008", carol), 400, "Missing argument: line"},
      {get("/services/timestamp/probe?" + line + "&context=%C3%28", carol), 200,
       "UTC Time:\t1222694100"},
      {get("/services/timestamp/probe?" + line + "&context=no-such-type", carol), 200,
       "UTC Time:\t1222694100"},
      {get("/services/timestamp/probe?line=x&context=source::../../../../etc/passwd", carol), 200,
       "Unable to parse 'x'"},
      {postForm("/services/timestamp/probe", line + "&context=", carol), 200,
       "UTC Time:\t1222694100"},
  };
  for (const auto& c : kCases) {
    const Answer a = roundTrip(d.port, c.request);
    EXPECT_EQ(c.status, a.status) << c.request.substr(0, 80) << " -> " << a.body;
    EXPECT_NE(std::string::npos, a.body.find(c.body)) << c.request.substr(0, 80) << " -> "
                                                       << a.body;
  }
  // A line of 8 MB comes back whole.
  const std::string huge(8000000, 'q');
  const Answer big = roundTrip(d.port, postForm("/services/timestamp/probe", "line=" + huge, carol));
  EXPECT_EQ(200, big.status);
  EXPECT_EQ("Unable to parse '" + huge + "'\n", big.body);
  d.stop(SIGTERM);
  const std::string log = install.log();
  for (const char* pw : {CAROL_PW, ADMIN_PW, BOB_PW}) EXPECT_EQ(std::string::npos, log.find(pw));
}

TEST(KestrodReviewHygiene, ManyRequestsLeaveNoDescriptorOrThread) {
  Install install;
  Daemon d(install.home());
  ASSERT_NE(0, d.port);
  const std::string proc = "/proc/" + std::to_string(d.pid());
  // Warm up what is made once (logs, session tables).
  ASSERT_EQ(200, roundTrip(d.port, get("/services")).status);
  ASSERT_EQ(200, roundTrip(d.port, get("/services/timestamp/probe?line=x",
                                      basic("carol", CAROL_PW))).status);
  const size_t fdsBefore = countEntries(proc + "/fd");
  const size_t threadsBefore = countEntries(proc + "/task");
  for (int i = 0; i < 150; ++i) {
    const int fd = connectTo(d.port);
    ASSERT_GE(fd, 0);
    switch (i % 5) {
      case 0: sendAll(fd, "GET /serv"); break;  // gone mid request line
      case 1: sendAll(fd, "POST /services HTTP/1.1\r\nContent-Length: 100\r\n\r\nabc"); break;
      case 2: sendAll(fd, get("/services")); break;  // gone before the reply
      case 3: sendAll(fd, get("/services/server/info", basic("carol", CAROL_PW)));
              readAll(fd); break;
      default: break;  // connects and leaves at once
    }
    close(fd);
  }
  // Every connection the loop above opened has been served or dropped when
  // a fresh request is answered and the request threads are gone.
  size_t fdsAfter = 0, threadsAfter = 0;
  for (int tries = 0; tries < 200; ++tries) {
    ASSERT_EQ(200, roundTrip(d.port, get("/services")).status);
    fdsAfter = countEntries(proc + "/fd");
    threadsAfter = countEntries(proc + "/task");
    if (fdsAfter <= fdsBefore && threadsAfter <= threadsBefore) break;
  }
  EXPECT_EQ(fdsBefore, fdsAfter);
  EXPECT_EQ(threadsBefore, threadsAfter);
  d.stop(SIGTERM);
}

TEST(KestrodReviewLifecycle, SigintLetsAReplyInFlightFinish) {
  Install install;
  Daemon d(install.home());
  ASSERT_NE(0, d.port);
  const std::string huge(6000000, 'z');
  const int fd = connectTo(d.port);
  ASSERT_GE(fd, 0);
  ASSERT_TRUE(sendAll(fd, postForm("/services/timestamp/probe", "line=" + huge,
                                   basic("carol", CAROL_PW))));
  // The reply has begun: the request's thread is writing it.
  char first[16];
  pollfd p{fd, POLLIN, 0};
  ASSERT_GT(poll(&p, 1, 60000), 0);
  const ssize_t n = read(fd, first, sizeof first);
  ASSERT_GT(n, 0);
  kill(d.pid(), SIGINT);
  // The shutdown waits for it, so the rest arrives whole.
  const std::string rest = readAll(fd);
  close(fd);
  const std::string all = std::string(first, n) + rest;
  EXPECT_EQ(0u, all.find("HTTP/1.1 200 OK"));
  EXPECT_NE(std::string::npos, all.find("\r\n\r\nUnable to parse '" + huge + "'\n"));
  const ProgramOutcome end = d.stop(0);  // signal 0: only waits
  EXPECT_EQ(0, end.status);
  EXPECT_EQ("kestrod: stopped\n", end.output);
  const std::string log = install.log();
  EXPECT_NE(std::string::npos, log.find("HTTPServer::handleSignal 2")) << log;
  EXPECT_NE(std::string::npos, log.find("Disabling all acceptors due to shutdown")) << log;
  EXPECT_NE(std::string::npos, log.find("HTTPServer shutting down. Terminating eloop.")) << log;
}

// The process whose environment names `home`, the daemon that left the
// terminal; -1 when there is none.
pid_t findDaemon(const std::string& home) {
  const std::string want = "KESTRO_HOME=" + home;
  std::error_code ec;
  for (auto it = std::filesystem::directory_iterator("/proc", ec);
       !ec && it != std::filesystem::directory_iterator(); it.increment(ec)) {
    const std::string name = it->path().filename().string();
    if (name.find_first_not_of("0123456789") != std::string::npos) continue;
    if (std::atoi(name.c_str()) == getpid()) continue;
    const std::string environ = slurp(it->path().string() + "/environ");
    size_t at = 0;
    while (at < environ.size()) {
      const size_t end = environ.find('\0', at);
      if (environ.compare(at, end - at, want) == 0) return std::atoi(name.c_str());
      if (end == std::string::npos) break;
      at = end + 1;
    }
  }
  return -1;
}

TEST(KestrodReviewSecurity, TheShippedInstallTrustsNoAddress) {
  Install install(false);
  Daemon d(install.home());
  ASSERT_NE(0, d.port);
  const Answer a = roundTrip(d.port, postForm("/services/auth/trustedlogin", "username=admin", ""));
  EXPECT_EQ(401, a.status) << a.body;
  EXPECT_EQ(std::string::npos, a.body.find("sessionKey")) << a.body;
  EXPECT_NE(std::string::npos, a.body.find("SSO failed")) << a.body;
  d.stop(SIGTERM);
}

TEST(KestrodReviewOptions, PortsOutOfRangeAreRefused) {
  Install install;
  TestTempDir scratch;
  const std::string errPath = std::string(scratch.path()) + "/err";
  const std::string home = install.home();
  for (const char* port : {"99999", "65536", "-1", "-70000"}) {
    RunningProgram running =
        startProgram(kestrodBin(), {"--nodaemon", "-p", port}, [home, errPath] {
          setenv("KESTRO_HOME", home.c_str(), 1);
          freopen(errPath.c_str(), "w", stderr);
        });
    // A daemon that took the port anyway prints where it serves: stop it.
    std::string first;
    pollfd p{running.output, POLLIN, 0};
    char c;
    while (poll(&p, 1, 60000) > 0 && read(running.output, &c, 1) == 1 && c != '\n') first += c;
    if (first.find("serving") != std::string::npos) kill(running.pid, SIGTERM);
    const ProgramOutcome o = waitProgram(running);
    EXPECT_EQ("", first) << port;
    EXPECT_EQ(8, o.status) << port;
    EXPECT_NE(std::string::npos, slurp(errPath).find("out of range")) << port;
  }
}

TEST(KestrodReviewDaemonMode, FailuresBeforeServingReachTheShell) {
  TestTempDir scratch;
  const std::string errPath = std::string(scratch.path()) + "/err";
  {
    const ProgramOutcome o = runProgram(kestrodBin(), {"-p", "0"}, [errPath] {
      setenv("KESTRO_HOME", "", 1);
      freopen(errPath.c_str(), "w", stderr);
    });
    EXPECT_EQ(255, o.status);
    EXPECT_EQ("KESTRO_HOME must be set.  Stopping.\n", slurp(errPath));
  }
  // A port that is taken.
  Install install;
  const int taken = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(0, bind(taken, reinterpret_cast<sockaddr*>(&a), sizeof a));
  ASSERT_EQ(0, listen(taken, 1));
  socklen_t len = sizeof a;
  getsockname(taken, reinterpret_cast<sockaddr*>(&a), &len);
  const std::string home = install.home();
  const ProgramOutcome o =
      runProgram(kestrodBin(), {"-p", std::to_string(ntohs(a.sin_port))}, [home, errPath] {
        setenv("KESTRO_HOME", home.c_str(), 1);
        freopen(errPath.c_str(), "w", stderr);
      });
  close(taken);
  EXPECT_EQ(1, o.status);
  EXPECT_NE(std::string::npos, slurp(errPath).find("kestrod: ")) << slurp(errPath);
  EXPECT_EQ(-1, findDaemon(home));
}

TEST(KestrodReviewDaemonMode, LeavesTheTerminalOnceServing) {
  Install install;
  const std::string home = install.home();
  TestTempDir scratch;
  const std::string errPath = std::string(scratch.path()) + "/err";
  const ProgramOutcome o = runProgram(kestrodBin(), {"-p", "0"}, [home, errPath] {
    setenv("KESTRO_HOME", home.c_str(), 1);
    freopen(errPath.c_str(), "w", stderr);
  });
  EXPECT_EQ(0, o.status);
  EXPECT_EQ(0u, o.output.find("kestrod: serving on http://127.0.0.1:")) << o.output;
  const pid_t daemon = findDaemon(home);
  ASSERT_GT(daemon, 0);
  const int port = std::atoi(o.output.c_str() + o.output.rfind(':') + 1);
  EXPECT_EQ(200, roundTrip(port, get("/services")).status);
  kill(daemon, SIGTERM);
  // Not our child: wait for it to be gone, a bounded number of looks.
  for (int i = 0; i < 600 && kill(daemon, 0) == 0; ++i) {
    const std::string stat = slurp("/proc/" + std::to_string(daemon) + "/stat");
    if (stat.find(") Z") != std::string::npos) break;
    pollfd none{-1, 0, 0};
    poll(&none, 0, 100);
  }
  EXPECT_NE(std::string::npos, install.log().find("kestrod stopped"));
}

}  // namespace
