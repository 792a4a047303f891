// Decides the terms of a search from the tokens of one event's raw text:
// each token is looked up once in tries of the term patterns.
#pragma once

#include <cstddef>
#include <vector>

#include "framework/GenericCleaner.h"
#include "framework/ParseNode.h"
#include "framework/WildcardMatcherTrie.h"
#include "util/Str.h"
#include "util/StrSegment.h"

// Borrows the terms and the root, which must outlive it. One owner at a
// time: the evaluator that made it.
class SearchTermCallback : public ICleanCallback {
 public:
  // `terms`: the term leaves of the tree under `root`.
  SearchTermCallback(const std::vector<ParseNodeTERM*>& terms, const ParseNode* root);

  // Feeds `text` through `cleaner` (the default breakers when null) and
  // marks the terms hit. Stops as soon as the root is decided; otherwise
  // every plain term not hit is then decided as absent. Phrases are left
  // to checkPhrases. Meta-all terms are decided true.
  void tokenize(const GenericCleaner* cleaner, const StrSegment& text);
  bool hasPhrases() const { return !_phrases.empty(); }
  // Decides every undecided phrase against the raw text.
  void checkPhrases(const StrSegment& text);

  // One token: found terms are decided at once. False once the root is
  // decided.
  bool acceptToken(const char* bytes, size_t length, size_t position) override;

  // Tokens shorter than this cannot match any term and are not looked up.
  size_t min_prefix_len() const { return _min_prefix_len; }

 private:
  bool lookUp(const WildcardMatcherTrie<ParseNodeTERM*>& trie, const StrSegment& token);

  const ParseNode* _root;
  WildcardMatcherTrie<ParseNodeTERM*> _caseless;
  WildcardMatcherTrie<ParseNodeTERM*> _caseful;
  std::vector<ParseNodeTERM*> _plain;
  std::vector<ParseNodeTERM*> _phrases;
  std::vector<ParseNodeTERM*> _metaAll;
  size_t _min_prefix_len = 0;
  Str _lower;
  std::vector<ParseNodeTERM*> _found;
};
