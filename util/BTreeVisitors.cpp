#include "util/BTreeVisitors.h"

#include "util/Logger.h"

namespace bt {

namespace {

Logger gLogger("BTree");

}  // namespace

bool PrintVisitor::visit(const BTree& tree) {
  _out.format("BTree order=%u\n", tree.order());
  return true;
}

bool PrintVisitor::visit(const BTree::Node& node, unsigned depth) {
  _out.format("%*sNode @%lld keys=%zu children=%zu (%s)\n", static_cast<int>(2 * depth), "",
              static_cast<long long>(node.offset()), node.keys().size(), node.children().size(),
              node.isLeaf() ? "Leaf" : "Internal");
  return true;
}

bool PrintVisitor::visit(const BTree::Record& record, unsigned depth) {
  _out.format("%*srecord %s\n", static_cast<int>(2 * depth + 2), "", record.toString().c_str());
  return true;
}

bool PrintVisitor::visit(const BTree::Key& key, unsigned depth) {
  _out.format("%*skey %s\n", static_cast<int>(2 * depth + 2), "", key.toString().c_str());
  return true;
}

bool ValidateVisitor::visit(const BTree::Node& node, unsigned depth) {
  if (!node.validate(_indexSize, _recordSize, _entryBytes)) return false;
  const auto& keys = node.keys();
  for (size_t i = 1; i < keys.size(); ++i) {
    if (!(*keys[i - 1] < *keys[i])) {
      gLogger.error("%zuth key is not above the one before it, node @%lld", i,
                    static_cast<long long>(node.offset()));
      return false;
    }
  }
  if (depth > 0) {
    if (_levels.size() < depth) {
      gLogger.error("node @%lld has no parent in the walk", static_cast<long long>(node.offset()));
      return false;
    }
    Level& parent = _levels[depth - 1];
    const size_t k = parent.nextChild++;
    const BTree::Key* low = k > 0 && k - 1 < parent.keys.size() ? parent.keys[k - 1].get() : nullptr;
    const BTree::Key* high = k < parent.keys.size() ? parent.keys[k].get() : nullptr;
    for (size_t i = 0; i < keys.size(); ++i) {
      if ((low != nullptr && *keys[i] < *low) || (high != nullptr && !(*keys[i] < *high))) {
        gLogger.error("%zuth key is outside its parent's range, node @%lld: %s", i,
                      static_cast<long long>(node.offset()), keys[i]->toString().c_str());
        return false;
      }
    }
  }
  if (node.isLeaf()) {
    if (_leafDepth < 0) {
      _leafDepth = depth;
    } else if (_leafDepth != static_cast<int64_t>(depth)) {
      gLogger.error("leaf @%lld at depth %u, another at depth %lld",
                    static_cast<long long>(node.offset()), depth,
                    static_cast<long long>(_leafDepth));
      return false;
    }
  }
  _levels.resize(depth + 1);
  Level& mine = _levels[depth];
  mine.keys.clear();
  for (const auto& key : keys) mine.keys.push_back(key->clone());
  mine.nextChild = 0;
  return true;
}

bool ValidateVisitor::visit(const BTree::Record& record, unsigned /*depth*/) {
  if (record.validate()) return true;
  gLogger.error("record fails validation: %s", record.toString().c_str());
  return false;
}

bool ValidateVisitor::visit(const BTree::Key& key, unsigned /*depth*/) {
  if (key.validate()) return true;
  gLogger.error("key fails validation: %s", key.toString().c_str());
  return false;
}

}  // namespace bt
