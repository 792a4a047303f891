#include "framework/SearchTermCallback.h"

#include <algorithm>

SearchTermCallback::SearchTermCallback(const std::vector<ParseNodeTERM*>& terms,
                                       const ParseNode* root)
    : _root(root) {
  for (ParseNodeTERM* t : terms) {
    if (t->isMetaAll()) {
      _metaAll.push_back(t);
      continue;
    }
    if (t->isPhrase()) {
      _phrases.push_back(t);
      for (const auto& w : t->subTerms()) _caseless.insert(w->pattern(), w.get());
      continue;
    }
    _plain.push_back(t);
    (t->isCS() ? _caseful : _caseless).insert(t->pattern(), t);
  }
  const size_t a = _caseless.empty() ? SIZE_MAX : _caseless.minPrefixLength();
  const size_t b = _caseful.empty() ? SIZE_MAX : _caseful.minPrefixLength();
  _min_prefix_len = std::min(a, b) == SIZE_MAX ? 0 : std::min(a, b);
}

bool SearchTermCallback::lookUp(const WildcardMatcherTrie<ParseNodeTERM*>& trie,
                                const StrSegment& token) {
  _found.clear();
  if (trie.find(token, _found) == 0) return false;
  bool decidedAny = false;
  for (ParseNodeTERM* t : _found) {
    if (t->hasValue()) continue;
    t->setValue(!t->isNegated());
    decidedAny = true;
  }
  return decidedAny;
}

bool SearchTermCallback::acceptToken(const char* bytes, size_t length, size_t) {
  if (length < _min_prefix_len) return true;
  bool changed = false;
  if (!_caseful.empty()) changed = lookUp(_caseful, StrSegment(bytes, length));
  if (!_caseless.empty()) {
    _lower.assign(bytes, length);
    _lower.toLowercase();
    changed = lookUp(_caseless, _lower) || changed;
  }
  // Only a newly decided term can decide the root.
  bool v;
  return !(changed && _root->getValue(v));
}

void SearchTermCallback::tokenize(const GenericCleaner* cleaner, const StrSegment& text) {
  static const GenericCleaner kDefault;
  for (ParseNodeTERM* t : _metaAll) t->setValue(!t->isNegated());
  if (!_plain.empty() || !_phrases.empty()) {
    (cleaner != nullptr ? cleaner : &kDefault)->clean(text, *this);
  }
  bool v;
  if (_root->getValue(v)) return;
  for (ParseNodeTERM* t : _plain) {
    if (!t->hasValue()) t->unhit();
  }
  // A phrase none of whose words came by is absent without a look at it.
  for (ParseNodeTERM* p : _phrases) {
    for (const auto& w : p->subTerms()) {
      if (!w->hasValue()) {
        p->unhit();
        break;
      }
    }
  }
}

void SearchTermCallback::checkPhrases(const StrSegment& text) {
  Str lower;
  for (ParseNodeTERM* p : _phrases) {
    if (p->hasValue()) continue;
    if (p->isCS()) {
      p->hit(text.data(), text.size());
    } else {
      if (lower.empty()) lower = squashed_str(text);
      p->hit(lower.data(), lower.size());
    }
    if (!p->hasValue()) p->unhit();
  }
}
