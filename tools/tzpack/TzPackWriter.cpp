#include "tools/tzpack/TzPackWriter.h"

#include <cstdint>
#include <stdexcept>

#include "util/TimezonePackFormat.h"

namespace {

uint32_t checked32(size_t v) {
  if (v > UINT32_MAX) throw std::length_error("packed zone file past 4 GiB");
  return static_cast<uint32_t>(v);
}

void pad(std::string& out, size_t alignment) {
  out.append((alignment - out.size() % alignment) % alignment, '\0');
}

}  // namespace

bool TzPackWriter::add(const std::string& name, const std::string& tzif) {
  if (name.empty() || tzif.empty()) return false;
  std::string key = name;
  for (char& c : key) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    if (c == '\\') c = '/';
  }
  return _zones.emplace(key, tzif).second;
}

std::string TzPackWriter::build() const {
  const uint32_t count = checked32(_zones.size());
  std::string out(TZPACK_HEADER_SIZE + TZPACK_RECORD_SIZE * count, '\0');
  out.replace(0, TZPACK_MAGIC_SIZE, TZPACK_MAGIC, TZPACK_MAGIC_SIZE);
  tzpackWrite32(&out[TZPACK_COUNT_OFFSET], count);

  // std::map orders its keys as strcmp does (bytes as unsigned char).
  uint32_t n = 1;
  for (const auto& [name, data] : _zones) {
    tzpackWrite32(&out[tzpackRecordOffset(n++) + TZPACK_RECORD_NAME_OFFSET], checked32(out.size()));
    out.append(name);
    out.push_back('\0');
  }
  std::map<std::string, uint32_t> paragraphs;  // data -> where it was put
  n = 1;
  for (const auto& [name, data] : _zones) {
    auto [it, fresh] = paragraphs.emplace(data, 0);
    if (fresh) {
      pad(out, TZPACK_PARAGRAPH_SIZE);
      it->second = checked32(out.size() / TZPACK_PARAGRAPH_SIZE);
      out.append(data);
    }
    const size_t record = tzpackRecordOffset(n++);
    tzpackWrite32(&out[record + TZPACK_RECORD_DATA_PARAGRAPH], it->second);
    tzpackWrite32(&out[record + TZPACK_RECORD_DATA_LENGTH], checked32(data.size()));
    tzpackWrite32(&out[record + TZPACK_RECORD_RESERVED], 0);
  }
  checked32(out.size());
  return out;
}
