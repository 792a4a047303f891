// TrieNode: one node of a byte trie that files entries under the literal
// prefix of their wildcard pattern, so that a lookup visits only the entries
// whose prefix agrees with the text.
#pragma once

#include <cstddef>
#include <map>
#include <memory>
#include <utility>
#include <vector>

// Owns its children. No locking: built by one thread, then read by any.
template <class T>
class TrieNode {
 public:
  TrieNode() = default;
  TrieNode(const TrieNode&) = delete;
  TrieNode& operator=(const TrieNode&) = delete;
  ~TrieNode() { clear(); }

  // The child for byte `c`, or null.
  const TrieNode* getChild(unsigned char c) const {
    auto it = _children.find(c);
    return it == _children.end() ? nullptr : it->second.get();
  }
  // The child for byte `c`, created when missing; *created says which.
  TrieNode* getOrAddChild(unsigned char c, bool* created) {
    std::unique_ptr<TrieNode>& slot = _children[c];
    *created = slot == nullptr;
    if (*created) {
      slot = std::make_unique<TrieNode>();
      ++_childCount;
    }
    return slot.get();
  }
  // The entries filed at this node, in the order they were added. The flag
  // says the entry counts only where the text ends at this node.
  std::vector<std::pair<T, bool>>& entries() { return _entries; }
  const std::vector<std::pair<T, bool>>& entries() const { return _entries; }
  size_t getChildCount() const { return _childCount; }
  // Drops all children and entries. Works with an explicit stack, since a
  // trie is as deep as its longest prefix, which the patterns choose.
  void clear() {
    std::vector<std::unique_ptr<TrieNode>> pending;
    for (auto& child : _children) pending.push_back(std::move(child.second));
    _children.clear();
    while (!pending.empty()) {
      std::unique_ptr<TrieNode> node = std::move(pending.back());
      pending.pop_back();
      for (auto& child : node->_children) pending.push_back(std::move(child.second));
      node->_children.clear();
    }
    _entries.clear();
    _childCount = 0;
  }

 private:
  std::map<unsigned char, std::unique_ptr<TrieNode>> _children;
  std::vector<std::pair<T, bool>> _entries;
  size_t _childCount = 0;
};
