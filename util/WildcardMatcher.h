// WildcardMatcher: patterns whose only metacharacter is `*` (any run of
// bytes, the empty run included), matched by searching for their literals
// with precomputed skip tables. WildcardMatcherVec matches a path of them.
#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include "util/HorspoolStr.h"
#include "util/Str.h"
#include "util/StrSegment.h"
#include "util/StrVector.h"

// Immutable after init: the isMatch forms are safe from any thread. init and
// assignment need the object to themselves.
//
// There is no "?" and no escape: "a?b" matches only "a?b". A run of stars
// is one star. The empty pattern matches only "", and "*" everything.
// Literals are found leftmost first and may not overlap: "a*a" does not
// match "a", "ab*ba" does not match "aba".
class WildcardMatcher {
 public:
  // The empty pattern.
  WildcardMatcher() { init(""); }
  // `pattern` NUL-terminated; null is the empty pattern.
  explicit WildcardMatcher(const char* pattern) { init(pattern); }
  WildcardMatcher(const WildcardMatcher& other);
  WildcardMatcher& operator=(const WildcardMatcher& other);

  // Replaces the pattern. Copies the text; allocates the literal table.
  void init(const char* pattern);

  // Whether `text` matches. On a match, `start` and `end` bound the part of
  // the text the literals cover, which is what a caller may highlight: "*b*"
  // against "abc" gives 1 and 2; a pattern with a hard start begins at 0
  // ("a*" against "abc" gives 0 and 3); a pattern with no literal after its
  // hard start ends at the text's end; a single literal with a hard end
  // reports the tail ("*c" against "cbc" gives 2 and 3); a single word or
  // "*" gives 0 and the length. Each literal after the hard start moves
  // `end` behind the place it was found first, so "a*b" against "abxb"
  // gives 0 and 2. On a mismatch `start` and `end` are meaningless.
  bool isMatch(const StrSegment& text, size_t& start, size_t& end) const;
  bool isMatch(const char* text, size_t& start, size_t& end) const;
  // Whether `text` matches, with what each star covered in `captures`
  // (cleared first), in order: "a*c*" against "abcd" gives "b" and "d".
  // Searches leftmost; the hard end literal is searched again and again,
  // each time adding the text skipped, until an occurrence ends the text:
  // "*b" against "abab" gives "a" and "a". Overlapping repeats of the last
  // literal are not found that way, so "*aa" against "aaa" is false here
  // although the other forms take it.
  bool isMatch(const char* text, StrVector& captures) const;

  // 4 for a single word (no star), 3 for any other pattern with a literal,
  // -1 for a pattern of stars alone. 0, 1 and 2 stand for a hard end only,
  // a hard start only and both, with no literal.
  int getMatcherType() const;
  // The literal of a single-word pattern (the first literal otherwise);
  // "" when there is none.
  const char* getWord() const;
  bool getHardStart() const { return _hardStart; }
  bool getHardEnd() const { return _hardEnd; }
  // The literal before the first star, or "" when the pattern begins with one.
  Str getPatternPrefix() const;
  // The literal after the last star, or "" when the pattern ends with one.
  Str getPatternSuffix() const;
  // The pattern as given.
  const Str& getPattern() const { return _pattern; }
  // The number of literals.
  size_t getLiteralCount() const { return _literalStarts.size(); }
  // A one-line picture of the internal state, for debugging only:
  // pattern="a*b" literals=["a","b"] hardStart=1 hardEnd=1 singleWord=0
  Str debugOpaqueMatcher() const;

 private:
  // Points _literalStarts and _searchers at the literals of this object.
  void _rebuildPointers();

  Str _pattern;
  // The literals, each NUL-terminated, one after the other.
  std::vector<char> _literals;
  bool _hardEnd = false;
  bool _hardStart = false;
  std::vector<const char*> _literalStarts;
  std::vector<HorspoolStr> _searchers;
  bool _singleWord = false;
};

// One matcher per element of a path ("var", "log", "*.gz"); a path matches
// when it has as many elements and each matches its own, with no star
// reaching across elements. Immutable after construction, safe from any
// thread.
class WildcardMatcherVec {
 public:
  explicit WildcardMatcherVec(const StrVector& patterns);

  bool isMatch(const StrVector& path) const;
  size_t size() const { return _matchers.size(); }

 private:
  std::vector<std::unique_ptr<WildcardMatcher>> _matchers;
};
