// HashedStrMap<V>: a map keyed by hashed keys, ordered by hash, with a pool
// that owns the copies of the keys whose own blocks might die first.
#pragma once

#include <cstdint>
#include <cstring>
#include <map>
#include <utility>

#include "util/Assert.h"
#include "util/HashedStr.h"

// An ordered multi-map from the 64-bit hash to (key, value). Keys of equal
// hash stand side by side and are told apart by their text, so iteration is
// in hash order, never in text order; each text appears at most once.
//
// Permanent keys (HashedStr, or any key whose back_link is null) are stored
// as they are; a pooled key is copied into this map's own pool first, since
// the caller's pool may be freed before the map. The map's pooled keys live
// until clear, _copy_from, assignment or the map's end.
//
// Iterators are those of std::multimap: `it->second.first` is the key,
// `it->second.second` the value.
// Thread story: one owner at a time; const methods may run concurrently.
template <class V>
class HashedStrMap {
 public:
  typedef std::multimap<uint64_t, std::pair<HashedStrReference, V>> tree_type;
  typedef typename tree_type::iterator iterator;
  typedef typename tree_type::const_iterator const_iterator;

  HashedStrMap() = default;
  // A full copy: permanent keys shared, pooled keys copied (see _copy_from).
  HashedStrMap(const HashedStrMap& other) { _copy_from(other); }
  HashedStrMap& operator=(const HashedStrMap& other) {
    _copy_from(other);
    return *this;
  }
  // Takes the tree and the pool; `other` is left empty.
  HashedStrMap(HashedStrMap&& other) noexcept { swap(other); }
  HashedStrMap& operator=(HashedStrMap&& other) noexcept {
    swap(other);
    other.clear();
    return *this;
  }

  iterator begin() { return _tree.begin(); }
  iterator end() { return _tree.end(); }
  const_iterator begin() const { return _tree.begin(); }
  const_iterator end() const { return _tree.end(); }
  size_t size() const { return _tree.size(); }
  bool empty() const { return _tree.empty(); }

  bool contains(const HashedStrReference& key) const { return _internal_find(key) != end(); }

  // The entry for `key`, or end(). Within equal hashes a candidate matches
  // by pointer identity, else by length and bytes.
  iterator _internal_find(const HashedStrReference& key) {
    iterator it = _scanFor(_tree, key);
    return it != _tree.end() && it->first == key.hash() ? it : _tree.end();
  }
  const_iterator _internal_find(const HashedStrReference& key) const {
    const_iterator it = _scanFor(_tree, key);
    return it != _tree.end() && it->first == key.hash() ? it : _tree.end();
  }
  // The same by raw bytes. REQUIRES: hash == djb2_hash(bytes, length).
  iterator _internal_find(const char* bytes, size_t length, uint64_t hash) {
    iterator it = _scanFor(_tree, bytes, length, hash);
    return it != _tree.end() && it->first == hash ? it : _tree.end();
  }

  // The value for `key`, inserting a default V on a miss. The permanent key
  // is stored without a copy.
  V& operator[](const HashedStr& key) {
    iterator it = _scanFor(_tree, key);
    if (it != _tree.end() && it->first == key.hash()) return it->second.second;
    return _insert(it, key);
  }
  // As above; on a miss a pooled key (back_link non-null) is first copied
  // into this map's pool, a permanent one is stored as it is.
  V& operator[](const HashedStrReference& key) {
    iterator it = _scanFor(_tree, key);
    if (it != _tree.end() && it->first == key.hash()) return it->second.second;
    if (key.isPermanent()) return _insert(it, key);
    return _insert(it, _pool.create(key.data(), key.length(), key.hash()));
  }
  // As operator[] by raw bytes; a miss always creates the key in the pool.
  // REQUIRES: hash == djb2_hash(bytes, length).
  V& index(const char* bytes, size_t length, uint64_t hash) {
    iterator it = _scanFor(_tree, bytes, length, hash);
    if (it != _tree.end() && it->first == hash) return it->second.second;
    return _insert(it, _pool.create(bytes, length, hash));
  }

  // The value stored under `key`. REQUIRES: the key is present
  // ("it != end()").
  const V& at(const HashedStrReference& key) const {
    const_iterator it = _internal_find(key);
    kassert(it != end());
    return it->second.second;
  }

  // Removes one entry; a key this map pooled is freed with it, so handles
  // to it dangle afterwards. Other iterators stay valid.
  // REQUIRES: "it != end()".
  void erase(iterator it) {
    kassert(it != end());
    HashedStrReference key = it->second.first;
    _tree.erase(it);
    if (!key.isPermanent()) key._really_unlink_and_free();
  }

  // Erases every entry and frees the pool.
  void clear() {
    _tree.clear();
    _pool.freeAll();
  }

  // Makes this map a copy of `other`. A source with an empty pool holds only
  // permanent keys and is copied as a plain tree. Otherwise a fresh tree and
  // pool are built, sharing permanent keys and copying pooled ones, and only
  // then swapped in, so that an exception (from allocation or from V's
  // copy) leaves this map as it was.
  void _copy_from(const HashedStrMap& other) {
    if (&other == this) return;
    tree_type tree;
    HashedStrMap_KeyPool pool;
    if (other._pool.empty()) {
      tree = other._tree;
    } else {
      for (const auto& [hash, entry] : other._tree) {
        const HashedStrReference& key = entry.first;
        tree.emplace_hint(tree.end(), hash,
                          std::pair<HashedStrReference, V>(
                              key.isPermanent() ? key : pool.create(key.data(), key.length(), hash),
                              entry.second));
      }
    }
    _tree.swap(tree);
    _pool.swap(pool);
  }

  void swap(HashedStrMap& other) noexcept {
    _tree.swap(other._tree);
    _pool.swap(other._pool);
  }

 private:
  // The match for `key` among the entries of its hash, or else the position
  // just past them, where a new entry keeps insertion order among equals.
  template <class Tree>
  static auto _scanFor(Tree& tree, const HashedStrReference& key) {
    auto it = tree.lower_bound(key.hash());
    for (; it != tree.end() && it->first == key.hash(); ++it) {
      const HashedStrReference& k = it->second.first;
      if (k.data() == key.data() ||
          (k.length() == key.length() && std::memcmp(k.data(), key.data(), k.length()) == 0)) {
        break;
      }
    }
    return it;
  }
  template <class Tree>
  static auto _scanFor(Tree& tree, const char* bytes, size_t length, uint64_t hash) {
    auto it = tree.lower_bound(hash);
    for (; it != tree.end() && it->first == hash; ++it) {
      const HashedStrReference& k = it->second.first;
      if (k.length() == length && std::memcmp(k.data(), bytes, length) == 0) break;
    }
    return it;
  }

  V& _insert(iterator hint, const HashedStrReference& key) {
    return _tree.emplace_hint(hint, key.hash(), std::pair<HashedStrReference, V>(key, V()))
        ->second.second;
  }

  tree_type _tree;
  HashedStrMap_KeyPool _pool;
};
