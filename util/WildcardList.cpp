#include "util/WildcardList.h"

WildcardList::WildcardList(bool keepPatterns) : _keepPatterns(keepPatterns) {}

WildcardList::~WildcardList() = default;

void WildcardList::processToken(const Str& pattern) {
  if (pattern.empty()) return;
  if (_keepPatterns && _patterns.count(pattern) != 0) return;

  WildcardMatcher matcher(pattern.c_str());
  const Str prefix = matcher.getPatternPrefix();
  TrieNode<WildcardMatcher>* node = &_root;
  for (const char c : prefix) {
    bool created = false;
    node = node->getOrAddChild(static_cast<unsigned char>(c), &created);
    if (created) ++_nodeCount;
  }
  node->entries().emplace_back(std::move(matcher), false);

  if (_hasExclusions()) _exclusions->erase(pattern);
  if (pattern == "*") _matchAll = true;
  ++_patternCount;
  if (_keepPatterns) _patterns.insert(pattern);
}

void WildcardList::erase(const Str& pattern) {
  if (pattern.empty()) return;
  if (_exclusions == nullptr) _exclusions = std::make_unique<WildcardList>(true);
  _exclusions->processToken(pattern);
}

void WildcardList::clear() {
  _root.clear();
  _nodeCount = 0;
  _exclusions.reset();
  _matchAll = false;
  _patternCount = 0;
  _patterns.clear();
}

bool WildcardList::isHit(const Str& text) const {
  if (_patternCount == 0) return false;
  if (_matchAll && !_hasExclusions()) return true;
  size_t start = 0;
  size_t end = 0;
  return isHit(text, start, end);
}

bool WildcardList::isHit(const Str& text, size_t& start, size_t& end) const {
  if (_exclusions != nullptr && _exclusions->isHit(text)) return false;
  if (_matchAll) {
    start = 0;
    end = text.size();
    return true;
  }
  return commonIsHit(text, start, end, _root);
}

bool WildcardList::commonIsHit(const Str& text, size_t& start, size_t& end,
                               const TrieNode<WildcardMatcher>& node) const {
  // Candidates are tried while walking, in the order the walk gathers them,
  // so that a lookup allocates nothing.
  const TrieNode<WildcardMatcher>* current = &node;
  size_t depth = 0;
  while (current != nullptr) {
    const bool textEnds = depth == text.size();
    for (const auto& [matcher, onlyAtEnd] : current->entries()) {
      if (onlyAtEnd && !textEnds) continue;
      if (matcher.isMatch(StrSegment(text), start, end)) return true;
    }
    if (textEnds) break;
    current = current->getChild(static_cast<unsigned char>(text[depth]));
    ++depth;
  }
  return false;
}
