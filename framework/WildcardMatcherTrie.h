// Many wildcard patterns looked up at once: a trie keyed by each pattern's
// literal prefix (the bytes before its first "*"), so a value is tried only
// against the patterns whose prefix it starts with.
#pragma once

#include <cstddef>
#include <map>
#include <memory>
#include <utility>
#include <vector>

#include "util/Str.h"
#include "util/StrSegment.h"
#include "util/WildcardMatcher.h"

// One node per prefix byte; entries sit at the node their prefix ends on.
template <typename T>
struct TrieNode {
  std::map<unsigned char, std::unique_ptr<TrieNode<T>>> children;
  std::vector<std::pair<WildcardMatcher*, T>> entries;

  ~TrieNode() {
    for (auto& e : entries) delete e.first;
  }
};

// Const methods are safe from any thread at once; insert needs the trie to
// itself. Values are copied in and handed back by copy (pointers suit).
//
// Matching is WildcardMatcher's: whole values, "*" any run of bytes, case
// as given. "ab*" and "ab" both sit under the node "a"-"b"; "*x" sits at the
// root and is tried against every value.
template <typename T>
class WildcardMatcherTrie {
 public:
  // Adds `pattern` with `value`; a pattern may be added more than once.
  void insert(const Str& pattern, const T& value) {
    size_t star = pattern.find('*');
    size_t prefixLen = star == Str::npos ? pattern.size() : star;
    TrieNode<T>* node = &_root;
    for (size_t i = 0; i < prefixLen; ++i) {
      auto& child = node->children[static_cast<unsigned char>(pattern[i])];
      if (!child) child = std::make_unique<TrieNode<T>>();
      node = child.get();
    }
    node->entries.emplace_back(new WildcardMatcher(pattern.c_str()), value);
    ++_size;
  }

  // Appends to `out` the value of every pattern matching `text`, shorter
  // prefixes first and, within one prefix, in insertion order. Returns the
  // number appended.
  size_t find(const StrSegment& text, std::vector<T>& out) const {
    size_t found = 0;
    const TrieNode<T>* node = &_root;
    for (size_t depth = 0;; ++depth) {
      for (const auto& e : node->entries) {
        size_t s, t;
        if (e.first->isMatch(text, s, t)) {
          out.push_back(e.second);
          ++found;
        }
      }
      if (depth == text.size()) break;
      auto it = node->children.find(static_cast<unsigned char>(text.data()[depth]));
      if (it == node->children.end()) break;
      node = it->second.get();
    }
    return found;
  }

  size_t size() const { return _size; }
  bool empty() const { return _size == 0; }

 private:
  TrieNode<T> _root;
  size_t _size = 0;
};
