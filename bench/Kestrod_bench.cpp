// Load on the real kestrod over loopback, through the daemon's whole path
// (REST dispatch, authentication, handler): requests per second and the 99th
// percentile latency for the endpoint list and for the timestamp probe with
// a session key, with 1 and 8 clients. The daemon runs from the build tree
// on a copy of the staged install, on a free port, and is stopped by SIGTERM
// at the end.
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <regex>
#include <string>

#include "bench/LoadClient.h"
#include "framework/PasswordHash.h"
#include "util/testing/RunProgram.h"

namespace {

class BenchDaemon {
 public:
  BenchDaemon() {
    char dir[] = "/tmp/kestrod-bench-XXXXXX";
    if (mkdtemp(dir) == nullptr) return;
    _home = dir;
    const std::string copy = "cp -r '" KESTRO_STAGED_HOME "/.' '" + _home + "'";
    if (std::system(copy.c_str()) != 0) return;
    const std::string users = "[bench]\npassword = " +
                              PasswordHash::hash(Str("bench-pw"), 1000) + "\nroles = user\n";
    FILE* f = fopen((_home + "/etc/system/local/users.conf").c_str(), "w");
    if (f == nullptr) {
      mkdir((_home + "/etc/system/local").c_str(), 0755);
      f = fopen((_home + "/etc/system/local/users.conf").c_str(), "w");
    }
    fputs(users.c_str(), f);
    fclose(f);
    const std::string home = _home;
    _running = startProgram(KESTROD_BIN, {"--nodaemon", "-p", "0"},
                            [home] { setenv("KESTRO_HOME", home.c_str(), 1); });
    std::string line;
    char c;
    while (read(_running.output, &c, 1) == 1 && c != '\n') line += c;
    const size_t colon = line.rfind(':');
    if (line.find("serving on http://127.0.0.1:") == std::string::npos) return;
    port = static_cast<uint16_t>(std::atoi(line.c_str() + colon + 1));
    std::string reply;
    const std::string body = "username=bench&password=bench-pw";
    loadOneRequest(port,
                   "POST /services/auth/login HTTP/1.1\r\nContent-Length: " +
                       std::to_string(body.size()) + "\r\n\r\n" + body,
                   &reply);
    std::smatch m;
    if (std::regex_search(reply, m, std::regex("<sessionKey>([0-9a-f]+)<"))) key = m[1];
  }
  ~BenchDaemon() {
    if (_running.pid > 0) {
      kill(_running.pid, SIGTERM);
      waitProgram(_running);
    }
    if (!_home.empty()) std::system(("rm -rf '" + _home + "'").c_str());
  }
  uint16_t port = 0;
  std::string key;

 private:
  std::string _home;
  RunningProgram _running;
};

BenchDaemon& benchDaemon() {
  static BenchDaemon d;
  return d;
}

void runAgainstDaemon(benchmark::State& state, const std::string& request) {
  BenchDaemon& d = benchDaemon();
  if (d.port == 0 || d.key.empty()) {
    state.SkipWithError("kestrod did not start or refused the login");
    return;
  }
  LoadResult r;
  for (auto _ : state) {
    r = runLoad(d.port, request, static_cast<int>(state.range(0)), 200);
  }
  state.counters["req_per_s"] = r.requestsPerSecond;
  state.counters["p99_ms"] = r.p99Ms;
  state.counters["failures"] = static_cast<double>(r.failures);
}

void BM_Kestrod_EndpointList(benchmark::State& state) {
  runAgainstDaemon(state, "GET /services HTTP/1.1\r\nHost: x\r\n\r\n");
}
BENCHMARK(BM_Kestrod_EndpointList)->Arg(1)->Arg(8)->Iterations(1)->UseRealTime();

void BM_Kestrod_TimestampProbe(benchmark::State& state) {
  const std::string body = "line=2008-09-29%2013%3A15%3A00%20PDT%20logType%3Dactivity";
  runAgainstDaemon(state, "POST /services/timestamp/probe HTTP/1.1\r\nHost: x\r\n"
                          "Authorization: Kestro " + benchDaemon().key + "\r\nContent-Length: " +
                              std::to_string(body.size()) + "\r\n\r\n" + body);
}
BENCHMARK(BM_Kestrod_TimestampProbe)->Arg(1)->Arg(8)->Iterations(1)->UseRealTime();

}  // namespace
