// The cost of a logging call: a disabled level, a line to a file, and a
// repeat held back by deduplication; and the lock that logging takes, beside
// the standard library's.
#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <string>

#include "util/LogAppender.h"
#include "util/LogChannel.h"
#include "util/Logger.h"
#include "util/Mutex.h"

namespace {

void initializeOnce() {
  if (!Logger::isInitialized()) Logger::initialize();
}

// A fresh directory for one benchmark's files, removed with them at the end.
class BenchDir {
 public:
  BenchDir() {
    char templ[] = "/tmp/kestro-bench-XXXXXX";
    _path = ::mkdtemp(templ) != nullptr ? templ : "/tmp";
  }
  ~BenchDir() {
    const std::string command = "rm -rf '" + _path + "'";
    if (std::system(command.c_str()) != 0) std::perror("rm");
  }
  std::string file(const char* leaf) const { return _path + "/" + leaf; }

 private:
  std::string _path;
};

void BM_Logger_DisabledLevel(benchmark::State& state) {
  initializeOnce();
  static Logger logger("BenchDisabled");
  LogChannel::find("BenchDisabled")->setLevel(LOGLEVEL_WARN);
  int i = 0;
  for (auto _ : state) {
    logger.debug("value %d of %s", i++, "something");
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Logger_DisabledLevel);

void BM_Logger_DisabledStream(benchmark::State& state) {
  initializeOnce();
  static Logger logger("BenchDisabledStream");
  LogChannel::find("BenchDisabledStream")->setLevel(LOGLEVEL_WARN);
  int i = 0;
  for (auto _ : state) {
    logger.debug() << "value " << i++ << " of " << 2.5;
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Logger_DisabledStream);

void BM_Logger_EnabledToFile(benchmark::State& state) {
  initializeOnce();
  BenchDir dir;
  static Logger logger("BenchFile");
  LogAppender* appender = LogAppender::find("benchFile", true);
  const std::map<Str, Pathname> none;
  appender->setAttribute("fileName", dir.file("bench.log"), none);
  appender->setAttribute("layout.ConversionPattern", "%d %-5p %c - %m%n", none);
  appender->setAttribute("maxFileSize", "67108864", none);
  appender->setAttribute("maxBackupIndex", "1", none);
  appender->finalSetup("benchFile", true);
  LogChannel* channel = LogChannel::find("BenchFile");
  channel->setLevel(LOGLEVEL_INFO);
  channel->setAppenders({appender});
  int i = 0;
  for (auto _ : state) {
    logger.info("value %d of %s", i++, "something");
  }
  appender->setAttribute("fileName", "", none);  // closes the file
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Logger_EnabledToFile);

// Baseline: the same line formatted by snprintf and appended with write.
void BM_Logger_EnabledToFile_SnprintfWrite(benchmark::State& state) {
  BenchDir dir;
  const int fd = ::open(dir.file("plain.log").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
  int i = 0;
  for (auto _ : state) {
    char line[128];
    const int n = std::snprintf(line, sizeof line,
                                "2024-03-05 14:07:09,042 INFO  BenchFile - value %d of %s\n", i++,
                                "something");
    benchmark::DoNotOptimize(::write(fd, line, static_cast<size_t>(n)));
  }
  ::close(fd);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Logger_EnabledToFile_SnprintfWrite);

void BM_Logger_DedupRepeat(benchmark::State& state) {
  initializeOnce();
  BenchDir dir;
  // A count of 1 over a day: after the first, every call is held back.
  static Logger logger("BenchDedup", true, 86400, 1);
  LogAppender* sink = LogAppender::find("benchDedupSink", true);
  const std::map<Str, Pathname> none;
  sink->setAttribute("fileName", dir.file("dedup.log"), none);
  LogChannel::find("BenchDedup")->setLevel(LOGLEVEL_INFO);
  LogChannel::find("BenchDedup")->setAppenders({sink});
  int i = 0;
  for (auto _ : state) {
    logger.info("value %d of %s", i++, "something");
  }
  logger.flushDedup();
  sink->setAttribute("fileName", "", none);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Logger_DedupRepeat);

Mutex gMutex;
std::mutex gStdMutex;
long gCounter = 0;

void BM_Mutex_Contended(benchmark::State& state) {
  for (auto _ : state) {
    gMutex.lock();
    benchmark::DoNotOptimize(++gCounter);
    gMutex.unlock();
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Mutex_Contended)->Threads(1)->Threads(2);

void BM_Mutex_Contended_StdMutex(benchmark::State& state) {
  for (auto _ : state) {
    gStdMutex.lock();
    benchmark::DoNotOptimize(++gCounter);
    gStdMutex.unlock();
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Mutex_Contended_StdMutex)->Threads(1)->Threads(2);

}  // namespace
