#include "util/ArchiveFile.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/time.h>

#include <cerrno>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "util/FileStar.h"
#include "util/testing/GzipTestSupport.h"
#include "util/testing/LogCapture.h"
#include "util/testing/TestTempDir.h"

namespace {

// A provider of bytes held in memory, stating `statedSize` (the real size
// by default); it can fail its stat, fail its read, or throw.
class MemoryProvider : public ArchiveFileDataProviderWithStat {
 public:
  explicit MemoryProvider(std::string bytes, ArchiveFileEntry::Type type = ArchiveFileEntry::REGULAR)
      : statedSize(static_cast<int64_t>(bytes.size())), _bytes(std::move(bytes)), _type(type) {}

  int64_t statedSize;
  int statErrno = 0;
  int readErrno = 0;
  enum { NO_THROW, THROW_RUNTIME, THROW_INT } throws = NO_THROW;

  ssize_t read(void* buf, size_t len) override {
    if (throws == THROW_RUNTIME) throw std::runtime_error("provider broke");
    if (throws == THROW_INT) throw 42;
    if (readErrno != 0) {
      errno = readErrno;
      return -1;
    }
    const size_t n = std::min(len, _bytes.size() - _pos);
    memcpy(buf, _bytes.data() + _pos, n);
    _pos += n;
    return static_cast<ssize_t>(n);
  }
  bool stat(ArchiveFileEntry* out) override {
    if (statErrno != 0) {
      errno = statErrno;
      return false;
    }
    out->type = _type;
    out->size = statedSize;
    out->perm = _type == ArchiveFileEntry::DIRECTORY ? 0755 : 0640;
    out->mtime = Timeval(1600000000, 0);
    return true;
  }

 private:
  std::string _bytes;
  ArchiveFileEntry::Type _type;
  size_t _pos = 0;
};

struct Item {
  std::string name;
  std::string bytes;
  bool dir;
};

// Every entry of an archive with its data, read through ours.
std::vector<Item> readAll(const Pathname& path, ArchiveFileEntry::Type* firstFileType = nullptr) {
  std::vector<Item> out;
  ReadableArchiveFile a;
  EXPECT_TRUE(a.open(path)) << a.lastError();
  ArchiveFileEntry e;
  int rc;
  while ((rc = a.nextHeader(&e)) == 1) {
    std::string bytes;
    ReadableArchiveFile::FileReader reader(a);
    char buf[1000];
    for (ssize_t n; (n = reader.read(buf, sizeof buf)) > 0;) bytes.append(buf, static_cast<size_t>(n));
    if (e.type == ArchiveFileEntry::REGULAR) {
      EXPECT_EQ(e.size, static_cast<int64_t>(bytes.size())) << e.name;
      if (firstFileType != nullptr) *firstFileType = e.type;
    }
    out.push_back({std::string(e.name), bytes, e.type == ArchiveFileEntry::DIRECTORY});
  }
  EXPECT_EQ(0, rc) << a.lastError();
  EXPECT_TRUE(a.close());
  return out;
}

class ArchiveFileTest : public testing::Test {
 protected:
  std::string q(const Pathname& p) { return std::string(p.shellQuoted()); }
  // The files the tools archive, under src/.
  std::map<std::string, std::string> makeTree() {
    std::map<std::string, std::string> files = {
        {"src/a.log", "first file\n"},
        {"src/empty.txt", ""},
        {"src/sub/big.log", logText(300000, 31)},
        {"src/sub/with space.txt", "spaces in the name\n"},
    };
    for (const auto& f : files) writeTestFile(_dir / f.first, f.second);
    return files;
  }
  TestTempDir _dir;
};

const WritableArchive::Format kFormats[] = {WritableArchive::TAR, WritableArchive::TAR_GZ,
                                            WritableArchive::TAR_BZ2, WritableArchive::ZIP};
const char* const kExtensions[] = {".tar", ".tar.gz", ".tar.bz2", ".zip"};

// Writes a directory, an empty file, a file from a descriptor, a large one
// and a name with a blank, in each format.
Pathname writeSample(const Pathname& dir, size_t formatIndex, const std::string& big) {
  const Pathname path = dir / (std::string("ours") + kExtensions[formatIndex]);
  writeTestFile(dir / "from-disk.txt", "read through FdReader\n");
  WritableArchive w;
  EXPECT_TRUE(w.open(path, kFormats[formatIndex])) << w.lastError();
  MemoryProvider d("", ArchiveFileEntry::DIRECTORY), empty(""), large(big), spaced("x y\n");
  EXPECT_TRUE(w.addEntry("logs/", &d)) << w.lastError();
  EXPECT_TRUE(w.addEntry("logs/empty.log", &empty)) << w.lastError();
  ScopedFileDescriptor fd((dir / "from-disk.txt").openReadOnly());
  FdReader fromDisk(fd);
  EXPECT_TRUE(w.addEntry("logs/from-disk.txt", &fromDisk)) << w.lastError();
  EXPECT_TRUE(w.addEntry("logs/big.log", &large)) << w.lastError();
  EXPECT_TRUE(w.addEntry("logs/with space.txt", &spaced)) << w.lastError();
  EXPECT_TRUE(w.close()) << w.lastError();
  return path;
}

TEST_F(ArchiveFileTest, OursReadBackByOurs) {
  const std::string big = logText(500000, 32);
  for (size_t i = 0; i < 4; ++i) {
    SCOPED_TRACE(kExtensions[i]);
    const std::vector<Item> items = readAll(writeSample(_dir.path(), i, big));
    ASSERT_EQ(5u, items.size());
    EXPECT_EQ("logs/", items[0].name);
    EXPECT_TRUE(items[0].dir);
    EXPECT_EQ("logs/empty.log", items[1].name);
    EXPECT_EQ("", items[1].bytes);
    EXPECT_EQ("read through FdReader\n", items[2].bytes);
    EXPECT_TRUE(items[3].bytes == big);
    EXPECT_EQ("logs/with space.txt", items[4].name);
    EXPECT_EQ("x y\n", items[4].bytes);
  }
}

TEST_F(ArchiveFileTest, OursListedAndExtractedByTheTools) {
  if (!haveTool("bsdtar") || !haveTool("tar")) GTEST_SKIP() << "bsdtar or tar is not installed";
  const std::string big = logText(200000, 33);
  for (size_t i = 0; i < 4; ++i) {
    SCOPED_TRACE(kExtensions[i]);
    const Pathname path = writeSample(_dir.path(), i, big);
    std::vector<std::string> listers = {"bsdtar -tvf "};
    if (kFormats[i] != WritableArchive::ZIP) listers.push_back("tar -tvf ");
    for (const std::string& lister : listers) {
      std::string listing;
      ASSERT_EQ(0, runShell(lister + q(path) + " 2>&1", &listing)) << lister << listing;
      for (const char* name : {"logs/", "logs/empty.log", "logs/from-disk.txt", "logs/big.log",
                               "logs/with space.txt"}) {
        EXPECT_NE(std::string::npos, listing.find(name)) << lister << name << "\n" << listing;
      }
      EXPECT_NE(std::string::npos, listing.find(std::to_string(big.size()))) << listing;
    }
    std::string back;
    ASSERT_EQ(0, runShell("bsdtar -xOf " + q(path) + " logs/big.log", &back));
    EXPECT_TRUE(back == big);
  }
}

TEST_F(ArchiveFileTest, ToolsArchivesReadEntryByEntry) {
  if (!haveTool("tar") || !haveTool("python3")) GTEST_SKIP() << "tar or python3 is not installed";
  const std::map<std::string, std::string> files = makeTree();
  const std::string cd = "cd " + q(_dir.path()) + " && ";
  ASSERT_EQ(0, runShell(cd + "tar -cf t.tar src"));
  ASSERT_EQ(0, runShell(cd + "tar -czf t.tar.gz src"));
  ASSERT_EQ(0, runShell(cd + "python3 -c \"import zipfile, os\n"
                             "with zipfile.ZipFile('t.zip', 'w', zipfile.ZIP_DEFLATED) as z:\n"
                             "  for d, _, fs in sorted(os.walk('src')):\n"
                             "    for f in sorted(fs): z.write(os.path.join(d, f))\n\""));
  for (const char* leaf : {"t.tar", "t.tar.gz", "t.zip"}) {
    SCOPED_TRACE(leaf);
    std::map<std::string, std::string> got;
    for (const Item& it : readAll(_dir / leaf)) {
      if (!it.dir) got[it.name] = it.bytes;
    }
    EXPECT_EQ(files.size(), got.size());
    for (const auto& f : files) {
      ASSERT_TRUE(got.count(f.first)) << f.first;
      EXPECT_TRUE(got[f.first] == f.second) << f.first;
    }
  }
}

TEST_F(ArchiveFileTest, SkipAndWriteEntryTo) {
  const std::string big = logText(100000, 34);
  ReadableArchiveFile a;
  ASSERT_TRUE(a.open(writeSample(_dir.path(), 1, big)));
  ArchiveFileEntry e;
  std::string chosen;
  while (a.nextHeader(&e) == 1) {
    if (e.name != "logs/big.log") {
      EXPECT_TRUE(a.skipEntry());
      continue;
    }
    ScopedFileStar out(_dir / "out.log", "w");
    ASSERT_TRUE(a.writeEntryTo(out));
    out.close();
    chosen = readTestFile(_dir / "out.log");
  }
  EXPECT_TRUE(chosen == big);
  EXPECT_EQ(0640u, e.perm);  // the last entry's metadata as written
  EXPECT_EQ(1600000000, e.mtime.tv_sec);
}

TEST_F(ArchiveFileTest, FormatFromName) {
  const struct {
    const char* name;
    bool ok;
    WritableArchive::Format format;
  } kCases[] = {
      {"a.tar", true, WritableArchive::TAR},       {"a.TAR.GZ", true, WritableArchive::TAR_GZ},
      {"a.tgz", true, WritableArchive::TAR_GZ},    {"a.tar.bz2", true, WritableArchive::TAR_BZ2},
      {"a.tbz2", true, WritableArchive::TAR_BZ2},  {"dir/a.zip", true, WritableArchive::ZIP},
      {"a.gz", false, WritableArchive::TAR},       {"tar", false, WritableArchive::TAR},
      {"a.tar.xz", false, WritableArchive::TAR},
  };
  for (const auto& c : kCases) {
    WritableArchive::Format f = WritableArchive::TAR;
    EXPECT_EQ(c.ok, WritableArchive::formatFromName(c.name, &f)) << c.name;
    if (c.ok) {
      EXPECT_EQ(c.format, f) << c.name;
    }
  }
}

// Directories, a symbolic link, permissions and a file larger than one
// read, in the archives the system's tools write.
TEST_F(ArchiveFileTest, ToolsArchivesDescribeEveryKindOfEntry) {
  if (!haveTool("bsdtar") || !haveTool("tar")) GTEST_SKIP() << "bsdtar or tar is not installed";
  ASSERT_EQ(0, runShell("cd " + q(_dir.path()) +
                        " && mkdir -p t/sub && printf abc > t/sub/f"
                        " && printf '%s' \"$(seq 1 20000)\" > t/g && ln -s sub/f t/link"
                        " && chmod 600 t/sub/f && tar -cf gnu.tar t && tar -czf gnu.tgz t"
                        " && bsdtar -cf bsd.zip --format zip t && tar -cjf gnu.tbz2 t"));
  const std::string g = readTestFile(_dir / "t/g");
  for (const char* file : {"gnu.tar", "gnu.tgz", "bsd.zip", "gnu.tbz2"}) {
    SCOPED_TRACE(file);
    ReadableArchiveFile r;
    ASSERT_TRUE(r.open(_dir / file)) << r.lastError();
    ArchiveFileEntry e;
    int rc;
    int seen = 0;
    while ((rc = r.nextHeader(&e)) == 1) {
      std::string name(e.name);
      while (!name.empty() && name.back() == '/') name.pop_back();
      ++seen;
      if (name == "t" || name == "t/sub") {
        EXPECT_EQ(ArchiveFileEntry::DIRECTORY, e.type) << name;
        EXPECT_EQ(0, e.size);
      } else if (name == "t/link") {
        EXPECT_EQ(ArchiveFileEntry::SYMLINK, e.type);
        EXPECT_EQ("sub/f", std::string(e.linkTarget));
        EXPECT_EQ(0, e.size);
      } else if (name == "t/sub/f") {
        EXPECT_EQ(ArchiveFileEntry::REGULAR, e.type);
        EXPECT_EQ(mode_t{0600}, e.perm);
        ReadableArchiveFile::FileReader fr(r);
        char buf[2];
        std::string got;
        ssize_t n;
        while ((n = fr.read(buf, sizeof(buf))) > 0) got.append(buf, static_cast<size_t>(n));
        EXPECT_EQ(0, n);
        EXPECT_EQ("abc", got);
      } else if (name == "t/g") {
        EXPECT_EQ(int64_t(g.size()), e.size);
        if (std::string(file) == "gnu.tar") {
          EXPECT_TRUE(r.skipEntry());
        } else {
          ScopedFileStar out(_dir / "out", "w");
          EXPECT_TRUE(r.writeEntryTo(out));
          out.close();
          EXPECT_TRUE(readTestFile(_dir / "out") == g);
        }
      } else {
        ADD_FAILURE() << "unexpected entry " << name;
      }
    }
    EXPECT_EQ(0, rc);
    EXPECT_EQ(5, seen);
  }
}

// FdReader takes type, permissions and time from the descriptor; a name
// past the old tar limits survives.
TEST_F(ArchiveFileTest, FdReaderDescribesFilesAndDirectories) {
  const std::string longName = std::string(120, 'n') + "/" + std::string(90, 'm') + ".txt";
  writeTestFile(_dir / "f", "fd reader data");
  ASSERT_EQ(0, ::chmod((_dir / "f").c_str(), 0751));
  struct timeval tv[2] = {{1500000000, 0}, {1500000000, 0}};
  ASSERT_EQ(0, ::utimes((_dir / "f").c_str(), tv));
  ASSERT_EQ(0, ::mkdir((_dir / "d").c_str(), 0705));
  const Pathname path = _dir / "fd.tar";
  {
    WritableArchive w;
    ASSERT_TRUE(w.open(path, WritableArchive::TAR));
    ScopedFileDescriptor f((_dir / "f").openReadOnly());
    ScopedFileDescriptor d(FileDescriptor(::open((_dir / "d").c_str(), O_RDONLY | O_DIRECTORY)));
    FdReader rf(f), rd(d);
    ASSERT_TRUE(w.addEntry("dir", &rd)) << w.lastError();
    ASSERT_TRUE(w.addEntry(longName.c_str(), &rf)) << w.lastError();
    ASSERT_TRUE(w.close());
  }
  if (haveTool("tar")) {
    std::string back;
    EXPECT_EQ(0, runShell("tar -xOf " + q(path) + " '" + longName + "'", &back));
    EXPECT_EQ("fd reader data", back);
  }
  ReadableArchiveFile r;
  ASSERT_TRUE(r.open(path));
  ArchiveFileEntry e;
  ASSERT_EQ(1, r.nextHeader(&e));
  EXPECT_EQ(ArchiveFileEntry::DIRECTORY, e.type);
  EXPECT_EQ(mode_t{0705}, e.perm);
  ASSERT_EQ(1, r.nextHeader(&e));
  EXPECT_EQ(longName, std::string(e.name));
  EXPECT_EQ(ArchiveFileEntry::REGULAR, e.type);
  EXPECT_EQ(mode_t{0751}, e.perm);
  EXPECT_EQ(14, e.size);
  EXPECT_EQ(1500000000, e.mtime.tv_sec);
  // A stream opened for reading refuses the copy.
  ScopedFileStar ro(_dir / "f", "r");
  EXPECT_FALSE(r.writeEntryTo(ro));
  ro.close();
  EXPECT_EQ(0, r.nextHeader(&e));
}

// ---- Failures ----

TEST_F(ArchiveFileTest, NotOpen) {
  ScopedLogCapture log("ArchiveFile");
  ReadableArchiveFile r;
  ArchiveFileEntry e;
  EXPECT_EQ(-1, r.nextHeader(&e));
  EXPECT_EQ(EBADF, errno);
  EXPECT_EQ("not open", r.lastError());
  EXPECT_FALSE(r.skipEntry());
  FileStar none;
  EXPECT_FALSE(r.writeEntryTo(none));
  EXPECT_TRUE(r.close());  // nothing to close
  WritableArchive w;
  MemoryProvider p("x");
  EXPECT_FALSE(w.addEntry("x", &p));
  EXPECT_EQ("not open", w.lastError());
  EXPECT_NE(std::string::npos, log.text().find("ERROR In archive '': not open")) << log.text();
}

TEST_F(ArchiveFileTest, UnreadableArchives) {
  writeTestFile(_dir / "garbage.tar", std::string(5000, '\x07'));
  ScopedLogCapture log("ArchiveFile");
  ReadableArchiveFile a;
  EXPECT_FALSE(a.open(_dir / "missing.tar"));
  EXPECT_FALSE(a.isOpen());
  EXPECT_NE(std::string::npos, a.lastError().find("missing.tar")) << a.lastError();
  EXPECT_EQ(ENOENT, errno);
  EXPECT_NE(std::string::npos,
            log.text().find("ERROR In archive '" + std::string(_dir / "missing.tar") + "': "));

  // Bytes of no known format are refused at the open, where the format is
  // detected.
  EXPECT_FALSE(a.open(_dir / "garbage.tar"));
  EXPECT_NE(std::string::npos, a.lastError().find("Unrecognized archive format")) << a.lastError();
  ArchiveFileEntry e;
  EXPECT_EQ(-1, a.nextHeader(&e));
  EXPECT_EQ("not open", a.lastError());
}

// Cut one of our tar.gz archives: the cut shows as a failure of the open,
// of the data, of a skip, or of the next header, never as a clean end.
TEST_F(ArchiveFileTest, TruncatedArchive) {
  const std::string big = logText(400000, 35);
  const std::string whole = readTestFile(writeSample(_dir.path(), 1, big));
  bool sawSkipFailure = false;
  for (size_t cut : {whole.size() / 2, whole.size() - 40, size_t{100}}) {
    SCOPED_TRACE(cut);
    writeTestFile(_dir / "cut.tar.gz", whole.substr(0, cut));
    for (bool skip : {true, false}) {
      ScopedLogCapture log("ArchiveFile");
      ReadableArchiveFile a;
      ArchiveFileEntry e;
      bool failed = !a.open(_dir / "cut.tar.gz");  // too short to tell its format
      int rc = -1;
      while (!failed && (rc = a.nextHeader(&e)) == 1) {
        if (skip) {
          failed = !a.skipEntry();
          if (failed) {
            EXPECT_NE(std::string::npos, log.text().find("ERROR Error skiping archive entry: "));
            sawSkipFailure = true;
          }
        } else {
          ScopedFileStar out(_dir / "out.bin", "w");
          failed = !a.writeEntryTo(out);
        }
      }
      EXPECT_TRUE(failed || rc == -1) << "a cut archive ended cleanly";
    }
  }
  EXPECT_TRUE(sawSkipFailure);
}

TEST_F(ArchiveFileTest, ProviderFailures) {
  ScopedLogCapture log("ArchiveFile");
  WritableArchive w;
  ASSERT_TRUE(w.open(_dir / "p.tar", WritableArchive::TAR));
  MemoryProvider throwsRuntime("abc"), throwsInt("abc"), statFails("abc"), readFails("abc"),
      short_("abc"), long_("abcdef"), good("fine\n");
  throwsRuntime.throws = MemoryProvider::THROW_RUNTIME;
  throwsInt.throws = MemoryProvider::THROW_INT;
  statFails.statErrno = EACCES;
  readFails.readErrno = EIO;
  short_.statedSize = 10;
  long_.statedSize = 3;
  const struct {
    const char* name;
    MemoryProvider* p;
    std::string error;
  } kCases[] = {
      {"rt.txt", &throwsRuntime, "Exception: provider broke when adding entry: rt.txt"},
      {"int.txt", &throwsInt, "Unknown Exception when adding entry: int.txt"},
      {"stat.txt", &statFails, "cannot describe entry 'stat.txt': Permission denied"},
      {"read.txt", &readFails, "cannot read data for entry 'read.txt': Input/output error"},
      {"short.txt", &short_, "entry 'short.txt' has less data than its size of 10 bytes"},
      {"long.txt", &long_, "entry 'long.txt' has more data than its size of 3 bytes"},
  };
  for (const auto& c : kCases) {
    EXPECT_FALSE(w.addEntry(c.name, c.p)) << c.name;
    EXPECT_EQ(c.error, w.lastError());
    EXPECT_NE(std::string::npos, log.text().find(c.error)) << log.text();
  }
  EXPECT_NE(std::string::npos, log.text().find("ERROR Exception: provider broke when adding entry: rt.txt"));
  EXPECT_NE(std::string::npos, log.text().find("ERROR Unknown Exception when adding entry: int.txt"));
}

TEST_F(ArchiveFileTest, CloseFailureIsReported) {
  ScopedLogCapture log("ArchiveFile");
  WritableArchive w;
  ASSERT_TRUE(w.open("/dev/full", WritableArchive::TAR));
  MemoryProvider p("small");
  w.addEntry("a.txt", &p);  // may still sit in libarchive's block
  EXPECT_FALSE(w.close());
  EXPECT_EQ(ENOSPC, errno);
  EXPECT_NE(std::string::npos,
            log.text().find("ERROR error closing archive file: No space left on device"))
      << log.text();
}

}  // namespace
