// Faithful rewrites: a corpus of realistic files and generated ones are read
// and written back, and what changes must be only what a rewrite normalises;
// a second round must change nothing. Then two processes rewrite one file at
// once while a third reads it.
#include "libbundle/IniFile.h"

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "util/testing/LogCapture.h"
#include "util/testing/TestTempDir.h"
#include "util/testing/TestText.h"

namespace {

// The content with keys and values trimmed, as a rewrite must keep it. A
// stanza after the first with no comment lines is shown with the one empty
// line that a rewrite puts above it.
std::string canonical(const IniFile& ini) {
  std::string out;
  for (const Str& l : ini.fileHeaderLines()) out += "H:" + l + "\n";
  bool first = true;
  for (auto st = ini.stanzas().begin(); st != ini.stanzas().end(); ++st) {
    if (!first && st.value().comments().empty()) out += "C:\n";
    first = false;
    for (const Str& l : st.value().comments()) out += "C:" + l + "\n";
    out += "[" + st.key() + "]\n";
    const auto& settings = st.value().settings();
    for (auto s = settings.begin(); s != settings.end(); ++s) {
      for (const Str& l : s.value().comments()) out += "C:" + l + "\n";
      out += "k=" + s.key().trim() + "|" + s.value().value().trim() + "\n";
    }
  }
  for (const Str& l : ini.fileTrailerLines()) out += "T:" + l + "\n";
  return out;
}

struct RoundTrip {
  std::string first;   // bytes of the first rewrite
  std::string second;  // bytes of a rewrite of the first
  std::string before;  // canonical content of the input
  std::string after;   // canonical content of the first rewrite
  FileEncoding encodingBefore;
  FileEncoding encodingAfter;
};

RoundTrip roundTrip(const TestTempDir& dir, const Pathname& input) {
  RoundTrip r;
  IniFile ini(input);
  r.before = canonical(ini);
  r.encodingBefore = ini.getFileEncoding();
  EXPECT_TRUE(ini.flushToPath(dir / "first"));
  r.first = readTestFile(dir / "first");
  IniFile again(dir / "first");
  r.after = canonical(again);
  r.encodingAfter = again.getFileEncoding();
  EXPECT_TRUE(again.flushToPath(dir / "second"));
  r.second = readTestFile(dir / "second");
  return r;
}

TEST(IniFileRewrite, CorpusRewritesAsExpectedAndThenStaysPut) {
  TestTempDir dir;
  ScopedLogCapture log("IniFile");
  size_t seen = 0;
  for (const auto& entry : std::filesystem::directory_iterator(KESTRO_INI_TESTDATA)) {
    const std::string name = entry.path().filename().string();
    if (name.size() < 5 || name.substr(name.size() - 5) != ".conf") continue;
    ++seen;
    SCOPED_TRACE(name);
    const RoundTrip r = roundTrip(dir, Pathname(entry.path().string()));
    const std::string expected = readTestFile(Pathname(entry.path().string() + ".expected"));
    EXPECT_EQ(printable(expected), printable(r.first));
    EXPECT_EQ(printable(r.first), printable(r.second));
    EXPECT_EQ(r.before, r.after);
    EXPECT_EQ(fileEncodingKind(r.encodingBefore) < FILE_ENCODING_UTF8 ? FILE_ENCODING_UTF8
                                                                      : r.encodingBefore,
              r.encodingAfter);
  }
  EXPECT_EQ(8u, seen);
}

// ---- Generated files ----

std::string pick(std::mt19937& rng, const std::vector<std::string>& from) {
  return from[rng() % from.size()];
}

// Text that reads back as itself: no backslash at its end, no CR, no NUL.
std::string valueText(std::mt19937& rng) {
  static const std::vector<std::string> kPieces = {
      "a", "value", "x=y", "[b]", "c:\\dir", " ", "\t", "%d/%b/%Y", "\xC3\xA9", "\xE6\x97\xA5",
      "\xF0\x9F\x98\x80", "#not a comment", ";", "$1::$2", "(?<s>\\d+)", "]"};
  std::string v;
  for (unsigned n = rng() % 5; n > 0; --n) v += pick(rng, kPieces);
  while (!v.empty() && v.back() == '\\') v.pop_back();
  return v;
}

// A key as it is written in a file, escapes included; never starts a comment
// or a header.
std::string keyText(std::mt19937& rng) {
  static const std::vector<std::string> kKeys = {
      "host", "index", "TIME_FORMAT", "a\\=b", "c:\\dir", "x\\[y", "back\\\\slash", "k",
      "caf\xC3\xA9", "two words", "ke\\\ny"};
  static const std::vector<std::string> kPad = {"", "", " ", "\t", "  "};
  return pick(rng, kPad) + pick(rng, kKeys) + pick(rng, kPad);
}

std::string generatedFile(std::mt19937& rng, const std::string& eol) {
  static const std::vector<std::string> kComments = {
      "# a comment", "; another", "   # indented", "#", "# ends in a backslash \\",
      "# caf\xC3\xA9", "", "", "  ", "\t"};
  static const std::vector<std::string> kStanzas = {
      "[default]", "[s]", "[t]", "[file:///var/log/*.log]", "[a]b]", "[x]trailing", "[open",
      "[\xE6\x9D\xB1\xE4\xBA\xAC]", "[ spaced ]"};
  std::vector<std::string> lines;
  auto comments = [&] {
    for (unsigned n = rng() % 3; n > 0; --n) lines.push_back(pick(rng, kComments));
  };
  auto setting = [&] {
    std::string line = keyText(rng) + pick(rng, {"=", " = ", "\t=", "=  "}) + valueText(rng);
    if (rng() % 6 == 0) line += "\\" + eol + valueText(rng) + "x";  // continued
    lines.push_back(line);
  };
  comments();
  for (unsigned n = rng() % 2; n > 0; --n) setting();
  for (unsigned s = rng() % 5; s > 0; --s) {
    comments();
    lines.push_back(pick(rng, kStanzas));
    for (unsigned n = rng() % 5; n > 0; --n) {
      if (rng() % 4 == 0) comments();
      if (rng() % 12 == 0) lines.push_back("no pair on this line");
      setting();
    }
  }
  comments();
  std::string text;
  for (const std::string& l : lines) text += l + eol;
  if (rng() % 4 == 0 && !text.empty()) text.resize(text.size() - eol.size());
  return text;
}

// The test's own encoder, so the input does not come from the code under
// test: UTF-8 to UTF-16 or UTF-32 in either byte order.
std::string encodeAs(const std::string& utf8, int unitBytes, bool bigEndian) {
  std::u32string cps;
  for (size_t i = 0; i < utf8.size();) {
    const unsigned char c = utf8[i];
    const int n = c < 0x80 ? 1 : c < 0xE0 ? 2 : c < 0xF0 ? 3 : 4;
    char32_t cp = n == 1 ? c : c & (0x7F >> n);
    for (int k = 1; k < n; ++k) cp = cp << 6 | (utf8[i + k] & 0x3F);
    cps.push_back(cp);
    i += n;
  }
  std::string out;
  auto put = [&](uint32_t unit) {
    for (int k = 0; k < unitBytes; ++k) {
      const int shift = bigEndian ? 8 * (unitBytes - 1 - k) : 8 * k;
      out.push_back(static_cast<char>(unit >> shift & 0xFF));
    }
  };
  for (char32_t cp : cps) {
    if (unitBytes == 2 && cp >= 0x10000) {
      put(0xD800 + ((cp - 0x10000) >> 10));
      put(0xDC00 + ((cp - 0x10000) & 0x3FF));
    } else {
      put(cp);
    }
  }
  return out;
}

TEST(IniFileRewrite, GeneratedFilesRewriteStably) {
  std::mt19937 rng(20240611);
  TestTempDir dir;
  ScopedLogCapture log("IniFile");
  const Pathname input = dir / "in.conf";
  for (int round = 0; round < 400; ++round) {
    const std::string eol = rng() % 3 == 0 ? "\r\n" : "\n";
    const std::string text = generatedFile(rng, eol);
    std::string bytes;
    FileEncoding want = FILE_ENCODING_UTF8;
    switch (rng() % 6) {
      case 0: bytes = text; break;
      case 1: bytes = "\xEF\xBB\xBF" + text; want |= FILE_ENCODING_HAS_BOM; break;
      case 2: bytes = "\xFF\xFE" + encodeAs(text, 2, false); want = FILE_ENCODING_UTF16LE | FILE_ENCODING_HAS_BOM; break;
      case 3: bytes = "\xFE\xFF" + encodeAs(text, 2, true); want = FILE_ENCODING_UTF16BE | FILE_ENCODING_HAS_BOM; break;
      case 4: bytes = std::string("\xFF\xFE\0\0", 4) + encodeAs(text, 4, false); want = FILE_ENCODING_UTF32LE | FILE_ENCODING_HAS_BOM; break;
      default: bytes = std::string("\0\0\xFE\xFF", 4) + encodeAs(text, 4, true); want = FILE_ENCODING_UTF32BE | FILE_ENCODING_HAS_BOM; break;
    }
    // Nothing after a UTF-32 LE mark reads as UTF-16 LE.
    if (fileEncodingKind(want) == FILE_ENCODING_UTF32LE && text.empty()) continue;
    if (text.empty() && fileEncodingKind(want) == FILE_ENCODING_UTF8 && !fileEncodingHasBom(want)) {
      want = FILE_ENCODING_EMPTY;
    }
    writeTestFile(input, bytes);
    SCOPED_TRACE(printable(text));
    const RoundTrip r = roundTrip(dir, input);
    EXPECT_EQ(want, r.encodingBefore);
    EXPECT_EQ(printable(r.first), printable(r.second));
    EXPECT_EQ(r.before, r.after);
    if (HasFailure()) break;
  }
}

// ---- Two writers and a reader ----

constexpr int FLUSHES = 150;

// Rewrites `path` with its own version again and again, then exits; the exit
// status says whether every flush succeeded.
pid_t startWriter(const Pathname& path, const std::string& tag) {
  const pid_t pid = fork();
  if (pid != 0) return pid;
  IniFile ini;
  ini.setPath(path);
  ini.fileHeaderLines().push_back("# written by " + tag);
  for (int i = 0; i < 50; ++i) ini.set(tag, "key" + std::to_string(i), std::string(100, 'v'));
  bool ok = true;
  for (int i = 0; i < FLUSHES; ++i) ok = ini.flush() && ok;
  _exit(ok ? 0 : 1);
}

std::string versionOf(const std::string& tag) {
  std::string text = "# written by " + tag + "\n[" + tag + "]\n";
  for (int i = 0; i < 50; ++i) text += "key" + std::to_string(i) + " = " + std::string(100, 'v') + "\n";
  return text;
}

TEST(IniFileRewrite, ConcurrentFlushesLeaveOneCompleteVersion) {
  TestTempDir dir;
  ScopedLogCapture log("IniFile");
  const Pathname path = dir / "shared.conf";
  const std::string a = versionOf("alpha");
  const std::string b = versionOf("beta");
  writeTestFile(path, a);
  const pid_t writers[] = {startWriter(path, "alpha"), startWriter(path, "beta")};
  ASSERT_GT(writers[0], 0);
  ASSERT_GT(writers[1], 0);
  int running = 2;
  bool done[2] = {false, false};
  int statuses[2] = {0, 0};
  size_t reads = 0;
  while (running > 0) {
    const std::string now = readTestFile(path);
    ++reads;
    EXPECT_TRUE(now == a || now == b) << now.size() << " bytes: " << now.substr(0, 80);
    for (int w = 0; w < 2; ++w) {
      int status = 0;
      if (!done[w] && waitpid(writers[w], &status, WNOHANG) == writers[w]) {
        done[w] = true;
        statuses[w] = status;
        --running;
      }
    }
  }
  EXPECT_TRUE(WIFEXITED(statuses[0]) && WEXITSTATUS(statuses[0]) == 0);
  EXPECT_TRUE(WIFEXITED(statuses[1]) && WEXITSTATUS(statuses[1]) == 0);
  const std::string last = readTestFile(path);
  EXPECT_TRUE(last == a || last == b);
  for (const auto& entry : std::filesystem::directory_iterator(std::string(dir.path()))) {
    EXPECT_EQ("shared.conf", entry.path().filename().string());
  }
  EXPECT_GT(reads, 0u);
}

}  // namespace
