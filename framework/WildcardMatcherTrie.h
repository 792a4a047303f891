// Many wildcard patterns looked up at once: a trie keyed by each pattern's
// literal prefix (the bytes before its first "*"), so a value is tried only
// against the patterns whose prefix it starts with.
#pragma once

#include <cstddef>
#include <memory>
#include <utility>
#include <vector>

#include "util/Str.h"
#include "util/StrSegment.h"
#include "util/TrieNode.h"
#include "util/WildcardMatcher.h"

// Const methods are safe from any thread at once; insert needs the trie to
// itself. Values are copied in and handed back by copy (pointers suit).
//
// Matching is WildcardMatcher's: whole values, "*" any run of bytes, case
// as given. "ab*" and "ab" both sit under the node "a"-"b"; "*x" sits at the
// root and is tried against every value. A pattern without "*" is decided
// by the walk alone: it counts only where the value ends at its node.
template <typename T>
class WildcardMatcherTrie {
 public:
  using Entry = std::pair<WildcardMatcher*, T>;

  // Adds `pattern` with `value`; a pattern may be added more than once.
  void insert(const Str& pattern, const T& value) {
    const size_t star = pattern.find('*');
    const size_t prefixLen = star == Str::npos ? pattern.size() : star;
    TrieNode<Entry>* node = &_root;
    for (size_t i = 0; i < prefixLen; ++i) {
      bool created;
      node = node->getOrAddChild(static_cast<unsigned char>(pattern[i]), &created);
    }
    _matchers.push_back(std::make_unique<WildcardMatcher>(pattern.c_str()));
    node->entries().emplace_back(Entry(_matchers.back().get(), value), star == Str::npos);
    if (prefixLen < _minPrefixLen || _matchers.size() == 1) _minPrefixLen = prefixLen;
  }

  // Appends to `out` the value of every pattern matching `text`, shorter
  // prefixes first and, within one prefix, in insertion order. Returns the
  // number appended.
  size_t find(const StrSegment& text, std::vector<T>& out) const {
    size_t found = 0;
    const TrieNode<Entry>* node = &_root;
    for (size_t depth = 0;; ++depth) {
      const bool atEnd = depth == text.size();
      for (const auto& [entry, wholeOnly] : node->entries()) {
        size_t s, e;
        if (wholeOnly ? atEnd : entry.first->isMatch(text, s, e)) {
          out.push_back(entry.second);
          ++found;
        }
      }
      if (atEnd) break;
      node = node->getChild(static_cast<unsigned char>(text.data()[depth]));
      if (node == nullptr) break;
    }
    return found;
  }

  size_t size() const { return _matchers.size(); }
  bool empty() const { return _matchers.empty(); }
  // The shortest literal prefix of any pattern: a text shorter than it
  // matches nothing. 0 when empty.
  size_t minPrefixLength() const { return _minPrefixLen; }

 private:
  TrieNode<Entry> _root;
  std::vector<std::unique_ptr<WildcardMatcher>> _matchers;
  size_t _minPrefixLen = 0;
};
