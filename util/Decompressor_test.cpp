#include "util/Decompressor.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <random>
#include <string>

#include "util/testing/GzipTestSupport.h"
#include "util/testing/LogCapture.h"
#include "util/testing/TestTempDir.h"

namespace {

class DecompressorTest : public testing::Test {
 protected:
  void SetUp() override {
    if (!haveTool("gzip")) GTEST_SKIP() << "gzip is not installed";
  }
  // `plain` compressed by our writer into a file of the test directory.
  Pathname gzFile(const std::string& plain, const char* leaf = "in.gz") {
    const Pathname p = _dir / leaf;
    writeTestFile(p, ourGzip(plain));
    return p;
  }
  TestTempDir _dir;
};

// Megabytes in both directions: far more than a pipe holds, so a feeder on
// the caller's thread would deadlock here.
TEST_F(DecompressorTest, DecompressesWholeFilesThroughGzip) {
  for (size_t size : {0u, 1u, 100000u, 6000000u}) {
    const std::string plain = logText(size, static_cast<unsigned>(size) + 2);
    const Pathname in = gzFile(plain);
    Str out, error;
    EXPECT_TRUE(Decompressor::decompress(in, "gzip -dc", out, 1UL << 30, error)) << error;
    EXPECT_TRUE(error.empty()) << error;
    EXPECT_TRUE(out == plain) << size;
  }
}

TEST_F(DecompressorTest, StopsAtTheLimit) {
  const std::string plain = logText(3000000, 21);
  const Pathname in = gzFile(plain);
  for (unsigned long limit : {0UL, 1UL, 65536UL, 1000000UL}) {
    Str out, error;
    EXPECT_TRUE(Decompressor::decompress(in, "gzip -dc", out, limit, error)) << error;
    EXPECT_EQ(limit, out.size());
    EXPECT_TRUE(out == plain.substr(0, limit)) << limit;
  }
}

TEST_F(DecompressorTest, ReadInPiecesAndClose) {
  const std::string plain = logText(200000, 22);
  Decompressor d(gzFile(plain), "gzip -dc");
  ASSERT_TRUE(d.valid());
  std::string got;
  char buf[1000];
  for (ssize_t n; (n = d.read(buf, sizeof buf)) > 0;) got.append(buf, static_cast<size_t>(n));
  EXPECT_TRUE(got == plain);
  EXPECT_TRUE(d.close());
  EXPECT_EQ(-1, d.read(buf, sizeof buf));
  EXPECT_EQ(EBADF, errno);
}

// A close before the end, or a destruction with both pipes full, stops the
// command instead of waiting for it; neither counts as a failure.
TEST_F(DecompressorTest, EarlyCloseAndDestructionDoNotHang) {
  std::mt19937 rng(44);
  std::string noise(4u << 20, '\0');
  for (char& c : noise) c = static_cast<char>(rng());
  const Pathname gz = gzFile(noise);
  {
    Decompressor d(gz, "gzip -dc");
    ASSERT_TRUE(d.valid());
    EXPECT_TRUE(d.close()) << d.error();
    char buf[16];
    errno = 0;
    EXPECT_EQ(-1, d.read(buf, sizeof(buf)));
    EXPECT_EQ(EBADF, errno);
  }
  {
    Decompressor d(gz, "gzip -dc");
    ASSERT_TRUE(d.valid());
    char buf[100];
    EXPECT_EQ(100, d.read(buf, sizeof(buf)));
  }
  {
    Decompressor d(gz, "cat");
    ASSERT_TRUE(d.valid());
  }
}

TEST_F(DecompressorTest, QuotedCommandWords) {
  writeTestFile(_dir / "plain.txt", "as it is\n");
  Str out, error;
  // No shell runs it: the quotes only group words, and ';' is an argument.
  EXPECT_TRUE(Decompressor::decompress(_dir / "plain.txt", "sh -c 'cat; echo \"$0\"' ';'", out, 1000,
                                       error))
      << error;
  EXPECT_EQ("as it is\n;\n", out);
}

TEST_F(DecompressorTest, FailuresSayWhatWentWrong) {
  const Pathname good = gzFile("text\n");
  writeTestFile(_dir / "notgz.txt", "not compressed\n");
  const Pathname missing = _dir / "missing.gz";
  const std::string m = missing, g = good, n = _dir / "notgz.txt";
  const struct {
    Pathname path;
    const char* command;
    std::string error;
    const char* logged;
  } kCases[] = {
      {missing, "gzip -dc",
       "Error spawning command 'gzip -dc' to decompress '" + m + "': Error opening file: " + m +
           ": No such file or directory",
       "Error opening file: "},
      {good, "no-such-decompressor-here -d",
       "Error spawning command 'no-such-decompressor-here -d' to decompress '" + g +
           "': Failed to start external process",
       "Failed to start external process"},
      {good, "", "Error spawning command '' to decompress '" + g + "': Failed to start external process",
       "Failed to start external process"},
      {_dir / "notgz.txt", "gzip -dcq",
       "Error decompressing '" + n + "' with command 'gzip -dcq': exited with status 1",
       "Error decompressing"},
      {good, "sh -c 'cat >/dev/null; kill -9 $$'",
       "Error decompressing '" + g + "' with command 'sh -c 'cat >/dev/null; kill -9 $$'': killed by "
       "signal 9 (Killed)",
       "Error decompressing"},
      // A directory opens, and reading it fails in the feeding thread.
      {_dir.path(), "cat",
       "Error reading compressed data from file '" + std::string(_dir.path()) + "': Is a directory",
       "Error reading compressed data from file"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.command);
    ScopedLogCapture log("Decompressor");
    Str out("stale"), error;
    EXPECT_FALSE(Decompressor::decompress(c.path, c.command, out, 1000, error));
    EXPECT_EQ(c.error, error);
    EXPECT_NE(std::string::npos, log.text().find(std::string("ERROR ") + c.logged)) << log.text();
  }
}

// A command that exits without reading its input: the feeding thread gets
// EPIPE (not SIGPIPE, which would end the test) and says so.
TEST_F(DecompressorTest, CommandThatIgnoresItsInput) {
  const Pathname big = _dir / "big.bin";
  writeTestFile(big, std::string(1 << 20, 'b'));
  Str out, error;
  EXPECT_FALSE(Decompressor::decompress(big, "true", out, 1000, error));
  EXPECT_EQ("Error sending compressed data to 'true': Broken pipe", error);
  EXPECT_TRUE(out.empty());
}

// In a child process: room for the file's descriptor and one more, so that
// the pair of a pipe cannot be had. A first Decompressor, on a missing
// file, runs the same construction while descriptors are plentiful: the
// sanitizers need some of their own the first time they check it.
void startWithoutSpareDescriptors(const Pathname& file) {
  { Decompressor warmUp(file + ".absent", "gzip -dc"); }
  const int next = ::open("/dev/null", O_RDONLY);
  ::close(next);
  rlimit lim;
  lim.rlim_cur = lim.rlim_max = static_cast<rlim_t>(next + 2);
  ::setrlimit(RLIMIT_NOFILE, &lim);
  Decompressor d(file, "gzip -dc");
  _exit(!d.valid() && d.error() == "Failed to setup pipes" ? 0 : 1);
}

TEST_F(DecompressorTest, NoDescriptorsForPipes) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const Pathname good = gzFile("text\n");
  EXPECT_EXIT(startWithoutSpareDescriptors(good), testing::ExitedWithCode(0), "");
}

}  // namespace
