// An independent reader of the disk B-tree's two files for tests: it knows
// only the byte layout spelled out in util/BTreeFormat.h and the standard
// library, never the tree's own code, so what the tree writes is checked
// against what the layout header promises. Keys are 8-byte numbers and
// records 16 bytes, as in util/testing/BTreeTestTypes.h. Test code only.
#pragma once

#include <cstdint>
#include <cstring>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "util/BTreeFormat.h"
#include "util/testing/TestTempDir.h"

struct LayoutTree {
  bool ok = false;
  std::string error;   // why ok is false
  uint64_t order = 0;
  size_t nodeCount = 0;  // nodes reached from the root
  unsigned height = 0;   // levels, 0 without a root
  std::map<uint64_t, std::pair<uint64_t, uint64_t>> entries;
};

namespace layout_reader_detail {

inline uint64_t le64(const std::string& bytes, size_t at) {
  uint64_t v = 0;
  for (int i = 7; i >= 0; --i) v = (v << 8) | static_cast<unsigned char>(bytes[at + i]);
  return v;
}

inline bool walk(const std::string& index, const std::string& records, uint64_t order,
                 uint64_t off, unsigned depth, LayoutTree& out) {
  const size_t keyBytes = 8;
  const size_t nodeSize = bt::nodeBytes(order, keyBytes);
  if (depth > 64 || off + nodeSize > index.size()) {
    out.error = "node out of file at " + std::to_string(off);
    return false;
  }
  ++out.nodeCount;
  out.height = std::max(out.height, depth + 1);
  std::vector<uint64_t> keys;
  for (size_t i = 0; i < order; ++i) {
    const uint64_t k = le64(index, off + bt::nodeKeyPos(i, keyBytes));
    if (k != 0) keys.push_back(k);
  }
  std::vector<int64_t> children;
  for (size_t i = 0; i <= order; ++i) {
    const int64_t c = static_cast<int64_t>(le64(index, off + bt::nodeChildPos(order, keyBytes, i)));
    if (c != bt::INVALID_OFFSET) children.push_back(c);
  }
  if (children.size() == keys.size()) {
    for (size_t i = 0; i < keys.size(); ++i) {
      const uint64_t r = static_cast<uint64_t>(children[i]);
      if (r + 24 > records.size()) {
        out.error = "record out of file";
        return false;
      }
      if (le64(records, r + 16) != keys[i]) {
        out.error = "key copy differs at " + std::to_string(r);
        return false;
      }
      out.entries[keys[i]] = {le64(records, r), le64(records, r + 8)};
    }
    return true;
  }
  if (children.size() != keys.size() + 1) {
    out.error = "child count";
    return false;
  }
  for (int64_t c : children) {
    if (!walk(index, records, order, static_cast<uint64_t>(c), depth + 1, out)) return false;
  }
  return true;
}

}  // namespace layout_reader_detail

// Reads the pair in `dir`. ok is false, with a reason, for anything that
// departs from the layout.
inline LayoutTree readLayoutTree(const Pathname& dir) {
  using namespace layout_reader_detail;
  LayoutTree out;
  const std::string index = readTestFile(dir / bt::INDEX_FILE);
  const std::string records = readTestFile(dir / bt::RECORD_FILE);
  if (index.size() < 24 || std::memcmp(index.data(), "MAGIC_IND_01\n\n\n", 16) != 0) {
    out.error = "index magic";
    return out;
  }
  if (records.size() < 16 || std::memcmp(records.data(), "MAGIC_REC_01\n\n\n", 16) != 0) {
    out.error = "record magic";
    return out;
  }
  out.order = le64(index, 16);
  if (index.size() > 24 && !walk(index, records, out.order, 24, 0, out)) return out;
  out.ok = true;
  return out;
}
