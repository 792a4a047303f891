// Load on the management port over loopback: requests per second and the
// 99th percentile latency of a trivial handler with 1, 16 and 64 clients,
// each client one request per connection, as the server serves them.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <string>
#include <thread>
#include <vector>

#include "bench/LoadClient.h"
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

  static const std::string kRequest = "GET /b HTTP/1.1\r\nHost: x\r\n\r\n";
  LoadResult total;
  double seconds = 0;
  std::vector<double> p99;
  for (auto _ : state) {
    LoadResult r = runLoad(port, kRequest, static_cast<int>(state.range(0)), 100);
    seconds += static_cast<double>(r.requests) / r.requestsPerSecond;
    total.requests += r.requests;
    total.failures += r.failures;
    p99.push_back(r.p99Ms);
  }
  server.handleSignal(15);
  loop.join();
  MainThread::setEventLoop(nullptr);
  while (HTTPServer::liveRequestThreads() > 0) {
    MainThread::waitForJoinRequest(ConditionWaitTimeout(0, 100000000));
    MainThread::runPendingJoins();
  }
  state.counters["req_per_s"] = static_cast<double>(total.requests) / seconds;
  state.counters["p99_ms"] = *std::max_element(p99.begin(), p99.end());
  state.counters["failures"] = static_cast<double>(total.failures);
}
BENCHMARK(BM_HttpServer_Requests)->Arg(1)->Arg(16)->Arg(64)->Iterations(3)->UseRealTime();

}  // namespace
