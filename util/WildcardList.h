// WildcardList: a set of `*` patterns filed in a byte trie by their literal
// prefix, with an optional list of exclusions, answering "does any pattern
// match this text?" while looking only at the patterns that could.
#pragma once

#include <cstddef>
#include <memory>
#include <set>

#include "util/ITokenHandler.h"
#include "util/Str.h"
#include "util/TrieNode.h"
#include "util/WildcardMatcher.h"

// A list only grows, until clear. Lookups (isHit, commonIsHit) are safe from
// any number of threads while no thread adds, erases or clears.
//
// Erasing does not take a pattern out: it adds it to the exclusions, which
// veto any text they match. A list holding "*" with "foo" erased hits "bar"
// and not "foo"; adding "foo" again takes it off the exclusions.
class WildcardList : public ITokenHandler {
 public:
  // With `keepPatterns` the list remembers its pattern texts, ignores a
  // pattern it already has, and can list them (getPatterns).
  explicit WildcardList(bool keepPatterns = false);
  ~WildcardList() override;
  WildcardList(const WildcardList&) = delete;
  WildcardList& operator=(const WildcardList&) = delete;

  using ITokenHandler::processToken;
  // Adds `pattern`; an empty pattern (or, when keeping texts, one already
  // there) changes nothing. Takes the pattern off the exclusions.
  void processToken(const Str& pattern) override;
  // Adds `pattern` to the exclusions; an empty pattern does nothing.
  void erase(const Str& pattern);
  // Back to a new list: no patterns, no exclusions, counts at zero.
  void clear();

  // Whether some pattern matches `text` and no exclusion does. False for a
  // list with no patterns.
  bool isHit(const Str& text) const;
  // As above; on a hit `start` and `end` are those of the matcher that
  // decided (see WildcardMatcher::isMatch), 0 and the length for "*".
  bool isHit(const Str& text, size_t& start, size_t& end) const;
  // The trie walk behind isHit, from `node`: tries the matchers filed at each
  // node along `text`, shortest prefix first and in the order they were
  // added, and stops at the first that matches. Exclusions are not consulted.
  bool commonIsHit(const Str& text, size_t& start, size_t& end,
                   const TrieNode<WildcardMatcher>& node) const;

  // The number of patterns added (duplicates count when texts are not kept).
  size_t size() const { return _patternCount; }
  bool empty() const { return _patternCount == 0; }
  // The number of trie nodes below the root.
  size_t getNodeCount() const { return _nodeCount; }
  // The pattern texts; empty unless the list keeps them.
  const std::set<Str>& getPatterns() const { return _patterns; }
  // The exclusions, or null when nothing was ever erased.
  const WildcardList* getExclusions() const { return _exclusions.get(); }
  const TrieNode<WildcardMatcher>& getRoot() const { return _root; }

 private:
  // Whether the exclusions exist and hold a pattern.
  bool _hasExclusions() const { return _exclusions != nullptr && !_exclusions->empty(); }

  TrieNode<WildcardMatcher> _root;
  size_t _nodeCount = 0;
  std::unique_ptr<WildcardList> _exclusions;
  // The pattern "*" is present: everything matches.
  bool _matchAll = false;
  bool _keepPatterns;
  size_t _patternCount = 0;
  std::set<Str> _patterns;
};
