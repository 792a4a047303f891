// A small HTTP load client for the management port over loopback: each
// request on a connection of its own, as the server serves them. Bounded in
// count (clients x requests each) and in time (every read gives up after
// 10 s). Benchmark code only.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

struct LoadResult {
  double requestsPerSecond = 0;
  double p99Ms = 0;
  size_t requests = 0;
  size_t failures = 0;  // no connection, or an answer other than 200
};

// Sends `request` to 127.0.0.1:`port` and reads to the server's close; the
// reply into *reply when given. True for a "HTTP/1.1 200" answer.
inline bool loadOneRequest(uint16_t port, const std::string& request,
                           std::string* reply = nullptr) {
  const int s = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  timeval limit{10, 0};
  setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(port);
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bool ok = connect(s, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
  ok = ok && send(s, request.data(), request.size(), MSG_NOSIGNAL) ==
                 static_cast<ssize_t>(request.size());
  std::string got;
  char buf[4096];
  ssize_t r;
  while (ok && (r = recv(s, buf, sizeof buf, 0)) > 0) got.append(buf, static_cast<size_t>(r));
  close(s);
  if (reply != nullptr) *reply = got;
  return ok && got.compare(0, 12, "HTTP/1.1 200") == 0;
}

// `clients` threads, each sending `request` `perClient` times in a row.
inline LoadResult runLoad(uint16_t port, const std::string& request, int clients,
                          int perClient) {
  std::vector<std::vector<double>> per(static_cast<size_t>(clients));
  std::vector<size_t> failed(static_cast<size_t>(clients), 0);
  const auto begin = std::chrono::steady_clock::now();
  std::vector<std::thread> threads;
  for (int c = 0; c < clients; c++) {
    threads.emplace_back([&, c] {
      for (int i = 0; i < perClient; i++) {
        const auto t0 = std::chrono::steady_clock::now();
        if (!loadOneRequest(port, request)) failed[c]++;
        per[c].push_back(std::chrono::duration<double, std::milli>(
                             std::chrono::steady_clock::now() - t0)
                             .count());
      }
    });
  }
  for (auto& t : threads) t.join();
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
  std::vector<double> latencies;
  LoadResult result;
  for (int c = 0; c < clients; c++) {
    latencies.insert(latencies.end(), per[c].begin(), per[c].end());
    result.failures += failed[c];
  }
  std::sort(latencies.begin(), latencies.end());
  result.requests = latencies.size();
  result.requestsPerSecond = static_cast<double>(latencies.size()) / seconds;
  result.p99Ms = latencies.empty() ? 0 : latencies[latencies.size() * 99 / 100];
  return result;
}
