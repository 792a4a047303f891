// Feeds arbitrary bytes to the encoding detection and the Unicode line
// reader. Properties: the reader's lines are valid UTF-8 without U+FEFF or a
// line feed; reading in one block and byte by byte agree; re-encoding the
// text in the detected encoding and reading it again gives it back.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "libzero/FileEncoding.h"
#include "libzero/UTF8Converter.h"
#include "libzero/UnicodeLineDecoder.h"
#include "util/Utf8.h"

namespace {

void check(bool ok, const char* what) {
  if (!ok) {
    fprintf(stderr, "property broken: %s\n", what);
    abort();
  }
}

// Bytes from memory, in blocks or one at a time.
class MemoryDecoder : public UnicodeLineDecoder {
 public:
  MemoryDecoder(const std::string& bytes, bool blocks, FileEncoding encoding = 0)
      : UnicodeLineDecoder(encoding), _bytes(bytes), _blocks(blocks) {}
  int read_byte() override {
    return _at < _bytes.size() ? static_cast<unsigned char>(_bytes[_at++]) : -1;
  }
  size_t read_bytes(unsigned char* buf, size_t n) override {
    if (!_blocks) return UnicodeLineDecoder::read_bytes(buf, n < 3 ? n : 3);
    n = std::min(n, _bytes.size() - _at);
    memcpy(buf, _bytes.data() + _at, n);
    _at += n;
    return n;
  }

 private:
  const std::string& _bytes;
  bool _blocks;
  size_t _at = 0;
};

std::vector<std::string> readLines(UnicodeLineDecoder& in) {
  std::vector<std::string> lines;
  const char* data;
  size_t len;
  while (in.nextLine(&data, &len)) lines.emplace_back(data, len);
  return lines;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  const FileEncoding detected =
      detectFileEncoding(data, size < FILE_ENCODING_READ_AHEAD ? size : FILE_ENCODING_READ_AHEAD);
  check((size == 0) == (detected == FILE_ENCODING_EMPTY), "empty exactly for no bytes");

  MemoryDecoder whole(bytes, true);
  const std::vector<std::string> lines = readLines(whole);
  check(whole.getFileEncoding() == detected, "the reader settles on the detection");
  MemoryDecoder trickle(bytes, false);
  check(readLines(trickle) == lines, "block and byte reads agree");

  const UTF8Converter* engine = UTF8Converter::find_engine(detected);
  check(engine != nullptr || size == 0, "a detected encoding has an engine");
  std::string text;
  for (const std::string& l : lines) {
    check(mem_is_valid_utf8(l.data(), l.size()), "lines are UTF-8");
    check(l.find("\xEF\xBB\xBF") == std::string::npos, "U+FEFF is dropped");
    check(l.find('\n') == std::string::npos, "a line holds no line feed");
    text += l + "\n";
  }
  if (engine == nullptr) return 0;

  // Back into the same encoding, then read as that encoding.
  std::string encoded;
  for (size_t i = 0; i < text.size();) {
    uint32_t cp = 0;
    const int n = UTF8Converter::decodeUtf8(reinterpret_cast<const unsigned char*>(&text[i]),
                                            text.size() - i, &cp);
    check(n > 0, "reader output decodes");
    engine->fromCodepoint(cp, encoded);
    i += static_cast<size_t>(n);
  }
  MemoryDecoder back(encoded, true, engine->encoding());
  std::vector<std::string> again = readLines(back);
  // A line that was cut at a lone "\r" before the line feed loses it again.
  std::vector<std::string> want;
  for (std::string l : lines) {
    if (!l.empty() && l.back() == '\r') l.pop_back();
    want.push_back(l);
  }
  check(again == want, "re-encoded text reads back");
  return 0;
}
