// Feeds arbitrary bytes to the ini file parser as a whole file, in whatever
// encoding the bytes suggest (the first byte may put a byte-order mark in
// front), writes the result back and parses that again. Properties: nothing
// crashes, every text that comes out of the parser is valid UTF-8, the
// file's encoding is one the writer can use again, and a file with an
// unambiguous mark reads back in its encoding with as many stanzas.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "libbundle/IniFile.h"
#include "util/FileStar.h"
#include "util/Logger.h"
#include "util/Utf8.h"

namespace {

void check(bool ok, const char* what) {
  if (!ok) {
    fprintf(stderr, "property broken: %s\n", what);
    abort();
  }
}

void checkText(const Str& s, const char* what) { check(mem_is_valid_utf8(s.data(), s.size()), what); }

// Three shapes that a rewrite cannot keep, by the rules of the format: a
// value whose trimmed text ends in a backslash is written as a continuation
// and takes the next line with it; a lone CR (one not ending a line) is
// written as it stands and may end a line on the way back; and a line that
// is no setting is kept with its backslashes removed, so "\[x]" comes back
// as a header and "a\=b" as a setting.
bool rewriteMayReshape(const IniFile& ini) {
  auto hasFragileLine = [](const StrVector& lines) {
    for (const Str& l : lines) {
      if (l.find('\r') != Str::npos) return true;
      const size_t first = l.find_first_not_of(" \t\r\n");
      if (first != Str::npos && l[first] != '#' && l[first] != ';') return true;
    }
    return false;
  };
  if (hasFragileLine(ini.fileHeaderLines()) || hasFragileLine(ini.fileTrailerLines())) return true;
  for (auto st = ini.stanzas().begin(); st != ini.stanzas().end(); ++st) {
    if (st.key().find('\r') != Str::npos || hasFragileLine(st.value().comments())) return true;
    const auto& settings = st.value().settings();
    for (auto s = settings.begin(); s != settings.end(); ++s) {
      const Str value = s.value().value().trim();
      if (value.endswith('\\') || value.find('\r') != Str::npos) return true;
      if (s.key().find('\r') != Str::npos || hasFragileLine(s.value().comments())) return true;
    }
  }
  return false;
}

void checkContent(const IniFile& ini) {
  for (const Str& l : ini.fileHeaderLines()) checkText(l, "header line is UTF-8");
  for (const Str& l : ini.fileTrailerLines()) checkText(l, "trailer line is UTF-8");
  for (auto st = ini.stanzas().begin(); st != ini.stanzas().end(); ++st) {
    checkText(st.key(), "stanza name is UTF-8");
    for (const Str& l : st.value().comments()) checkText(l, "stanza comment is UTF-8");
    const auto& settings = st.value().settings();
    for (auto s = settings.begin(); s != settings.end(); ++s) {
      checkText(s.key(), "key is UTF-8");
      checkText(s.value().value(), "value is UTF-8");
      for (const Str& l : s.value().comments()) checkText(l, "setting comment is UTF-8");
    }
  }
}

IniFile parseBytes(const std::string& bytes, const Pathname& name) {
  FILE* f = fmemopen(const_cast<char*>(bytes.data()), bytes.size(), "r");
  FileStar handle(f);
  IniFile ini(handle, name);
  if (f != nullptr) fclose(f);
  return ini;
}

const char* const MARKS[] = {"", "\xEF\xBB\xBF", "\xFF\xFE", "\xFE\xFF"};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool quiet = [] {
    Logger::setQuiet(true);
    Logger::initialize();
    Logger::setChannelLevel("IniFile", "FATAL");
    return true;
  }();
  (void)quiet;
  if (size == 0) return 0;
  // The first byte picks a mark to put ahead and whether the file is a .spec.
  const unsigned choice = data[0];
  std::string bytes;
  if ((choice & 7) < 4) {
    bytes = MARKS[choice & 3];
  } else if ((choice & 7) == 4) {
    bytes.assign("\xFF\xFE\0\0", 4);
  } else if ((choice & 7) == 5) {
    bytes.assign("\0\0\xFE\xFF", 4);
  }
  bytes.append(reinterpret_cast<const char*>(data + 1), size - 1);
  const Pathname name((choice & 8) != 0 ? "fuzz.conf.spec" : "fuzz.conf");

  IniFile ini = parseBytes(bytes, name);
  check(ini.isOpened(), "a memory stream opens");
  checkContent(ini);
  const FileEncoding kind = fileEncodingKind(ini.getFileEncoding());
  check(kind >= FILE_ENCODING_EMPTY && kind <= FILE_ENCODING_UTF32BE, "encoding is known");
  if (kind == FILE_ENCODING_EMPTY) check(bytes.empty(), "only no bytes are empty");

  static const Pathname out(("/tmp/kestro-ini-fuzz." + std::to_string(getpid())).c_str());
  check(ini.flushToPath(out), "the rewrite succeeds");
  FILE* f = fopen(out.c_str(), "rb");
  std::string written;
  char buf[4096];
  for (size_t n; (n = fread(buf, 1, sizeof buf, f)) > 0;) written.append(buf, n);
  fclose(f);
  IniFile again = parseBytes(written, name);
  checkContent(again);
  // Only an unambiguous mark makes the encoding read back for sure: without
  // one the zero-byte count may tip the other way once the text is
  // normalised, and FF FE followed by a NUL character reads as UTF-32 LE.
  const bool stable = fileEncodingHasBom(ini.getFileEncoding()) &&
                      (kind == FILE_ENCODING_UTF8 || kind == FILE_ENCODING_UTF16BE ||
                       kind == FILE_ENCODING_UTF32BE);
  if (stable && !rewriteMayReshape(ini)) {
    check(again.getFileEncoding() == ini.getFileEncoding(), "a marked encoding reads back");
    check(again.stanzas().size() == ini.stanzas().size(), "stanzas survive a rewrite");
  }
  unlink(out.c_str());
  return 0;
}
