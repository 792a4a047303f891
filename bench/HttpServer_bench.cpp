// Load on the management port over loopback: requests per second and the
// 99th percentile latency of a trivial handler with 1, 16 and 64 clients,
// each client one request per connection, as the server serves them.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <thread>
#include <vector>

#include "framework/HTTPServer.h"
#include "util/ConditionWaitTimeout.h"
#include "util/MainThread.h"

namespace {

class TrivialHandler : public MHttpRequestHandler {
 public:
  HTTPReply* handleRequest(const Str&, HTTPRequest*) override {
    return HTTPReply::createReply(200, Str("text/plain"), Str("ok"), StrVector());
  }
};

bool oneRequest(uint16_t port) {
  int s = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(port);
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bool ok = connect(s, reinterpret_cast<sockaddr*>(&a), sizeof(a)) == 0;
  static const char kReq[] = "GET /b HTTP/1.1\r\nHost: x\r\n\r\n";
  ok = ok && send(s, kReq, sizeof(kReq) - 1, MSG_NOSIGNAL) == sizeof(kReq) - 1;
  char buf[1024];
  size_t total = 0;
  ssize_t r;
  while (ok && (r = recv(s, buf, sizeof(buf), 0)) > 0) total += static_cast<size_t>(r);
  close(s);
  return ok && total > 0;
}

void BM_HttpServer_Requests(benchmark::State& state) {
  TrivialHandler handler;
  HTTPServerConfig config;
  HTTPServerConfig::HTTPPortEntry entry;
  entry.ip = "127.0.0.1";
  config._portList.push_back(entry);
  config._handlers[Str("/b")] = &handler;
  config._shutdownPollMs = 10;
  HTTPServer server;
  if (!server.init(config)) {
    state.SkipWithError("no port");
    return;
  }
  uint16_t port = server.boundPort(0);
  MainThread::setEventLoop(&server.loop());
  std::thread loop([&] { server.go(); });

  const int clients = static_cast<int>(state.range(0));
  constexpr int PER_CLIENT = 100;
  std::vector<double> latencies;
  size_t failures = 0;
  double seconds = 0;
  for (auto _ : state) {
    std::vector<std::vector<double>> per(clients);
    std::vector<size_t> failed(clients, 0);
    auto begin = std::chrono::steady_clock::now();
    std::vector<std::thread> threads;
    for (int c = 0; c < clients; c++) {
      threads.emplace_back([&, c] {
        for (int i = 0; i < PER_CLIENT; i++) {
          auto t0 = std::chrono::steady_clock::now();
          if (!oneRequest(port)) failed[c]++;
          per[c].push_back(
              std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0)
                  .count());
        }
      });
    }
    for (auto& t : threads) t.join();
    seconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    for (int c = 0; c < clients; c++) {
      latencies.insert(latencies.end(), per[c].begin(), per[c].end());
      failures += failed[c];
    }
  }
  server.handleSignal(15);
  loop.join();
  MainThread::setEventLoop(nullptr);
  while (HTTPServer::liveRequestThreads() > 0) {
    MainThread::waitForJoinRequest(ConditionWaitTimeout(0, 100000000));
    MainThread::runPendingJoins();
  }
  std::sort(latencies.begin(), latencies.end());
  state.counters["req_per_s"] = static_cast<double>(latencies.size()) / seconds;
  state.counters["p99_ms"] = latencies[latencies.size() * 99 / 100];
  state.counters["failures"] = static_cast<double>(failures);
}
BENCHMARK(BM_HttpServer_Requests)->Arg(1)->Arg(16)->Arg(64)->Iterations(3)->UseRealTime();

}  // namespace
