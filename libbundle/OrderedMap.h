// OrderedMap: a map that iterates in insertion order, for the stanzas and
// settings of an ini file, whose order a rewrite must keep.
#pragma once

#include <cstddef>
#include <iterator>
#include <list>
#include <map>
#include <utility>

// The plain ordering of keys, by their operator<; bytewise for Str.
template <class T>
struct OrderedMapLess {
  bool operator()(const T& a, const T& b) const { return a < b; }
};

// Owns every key and value, each allocated by itself, so that pointers to
// them stay valid until their entry is erased. Lookup goes through a tree
// index ordered by `Compare` on the keys, which holds each key once;
// iteration walks a list in insertion order. An iterator returned by find or
// insert holds its one element and no place in the list: it reads that
// element, and advancing it gives end(). Iterators from begin() stay valid
// until their own entry is erased.
// Thread story: const methods concurrent, the rest owned by one thread.
template <class Key, class Value, class Compare = OrderedMapLess<Key>>
class OrderedMap {
 public:
  typedef std::pair<Key*, Value*> Entry;

 private:
  typedef std::list<Entry> List;
  struct IndexLess {
    bool operator()(const Key* a, const Key* b) const { return Compare()(*a, *b); }
  };
  typedef std::map<const Key*, Value*, IndexLess> Index;

 public:
  template <bool Const>
  class basic_iterator {
   public:
    typedef std::forward_iterator_tag iterator_category;
    typedef std::ptrdiff_t difference_type;
    typedef Entry value_type;
    typedef const Entry* pointer;
    typedef const Entry& reference;
    typedef std::conditional_t<Const, const Value, Value> ValueRef;

    basic_iterator() = default;
    // From an iterator to a const one.
    template <bool C = Const, class = std::enable_if_t<C>>
    basic_iterator(const basic_iterator<false>& o)
        : _it(o._it), _end(o._end), _direct(o._direct), _isDirect(o._isDirect) {}

    const Entry& operator*() const { return _isDirect ? _direct : *_it; }
    const Entry* operator->() const { return &**this; }
    const Key& key() const { return *(**this).first; }
    ValueRef& value() const { return *(**this).second; }

    basic_iterator& operator++() {
      if (_isDirect) {
        _isDirect = false;
        _it = _end;
      } else {
        ++_it;
      }
      return *this;
    }
    basic_iterator operator++(int) {
      basic_iterator old = *this;
      ++*this;
      return old;
    }
    bool operator==(const basic_iterator& o) const {
      if (_isDirect || o._isDirect) {
        return _isDirect == o._isDirect && _direct.first == o._direct.first;
      }
      return _it == o._it;
    }
    bool operator!=(const basic_iterator& o) const { return !(*this == o); }

   private:
    friend class OrderedMap;
    friend class basic_iterator<true>;
    typedef typename List::const_iterator ListIt;
    basic_iterator(ListIt it, ListIt end) : _it(it), _end(end) {}
    basic_iterator(const Entry& direct, ListIt end) : _it(end), _end(end), _direct(direct),
                                                      _isDirect(true) {}

    ListIt _it;
    ListIt _end;
    Entry _direct{nullptr, nullptr};
    bool _isDirect = false;
  };
  typedef basic_iterator<false> iterator;
  typedef basic_iterator<true> const_iterator;

  OrderedMap() = default;
  OrderedMap(const OrderedMap& other) { copyFrom(other); }
  OrderedMap& operator=(const OrderedMap& other) {
    if (this != &other) {
      clear();
      copyFrom(other);
    }
    return *this;
  }
  OrderedMap(OrderedMap&& other) noexcept {
    _index.swap(other._index);
    _list.swap(other._list);
  }
  ~OrderedMap() { clear(); }

  // Copies `key` and `value` in. The bool is false when an equal key was
  // already there: the first key and value stay and the copies are freed.
  // The iterator reads the element that is in the map either way.
  // The rvalue form moves `value` in when the key is new.
  std::pair<iterator, bool> insert(const Key& key, const Value& value) {
    return internal_insert(key, value);
  }
  std::pair<iterator, bool> insert(const Key& key, Value&& value) {
    return internal_insert(key, std::move(value));
  }

 private:
  template <class V>
  std::pair<iterator, bool> internal_insert(const Key& key, V&& value) {
    const auto found = _index.find(&key);
    if (found != _index.end()) {
      return {iterator(Entry(const_cast<Key*>(found->first), found->second), _list.end()), false};
    }
    Key* k = new Key(key);
    Value* v = new Value(std::forward<V>(value));
    _index.emplace(k, v);
    _list.emplace_back(k, v);
    return {iterator(Entry(k, v), _list.end()), true};
  }

 public:

  // The element whose key equals `key` under Compare, or end().
  iterator find(const Key& key) {
    const auto found = _index.find(&key);
    if (found == _index.end()) return end();
    return iterator(Entry(const_cast<Key*>(found->first), found->second), _list.end());
  }
  const_iterator find(const Key& key) const { return const_cast<OrderedMap*>(this)->find(key); }
  // The value for `key`, or null.
  Value* get(const Key& key) {
    const auto found = _index.find(&key);
    return found == _index.end() ? nullptr : found->second;
  }
  const Value* get(const Key& key) const { return const_cast<OrderedMap*>(this)->get(key); }

  // Removes the entry of `key` from the index and the list and frees its key
  // and value; false when there is none.
  bool erase(const Key& key) {
    const auto found = _index.find(&key);
    if (found == _index.end()) return false;
    Key* k = const_cast<Key*>(found->first);
    Value* v = found->second;
    _index.erase(found);
    _list.remove_if([k](const Entry& e) { return e.first == k; });
    delete k;
    delete v;
    return true;
  }

  void clear() {
    for (Entry& e : _list) {
      delete e.first;
      delete e.second;
    }
    _list.clear();
    _index.clear();
  }

  size_t size() const { return _list.size(); }
  bool empty() const { return _list.empty(); }
  iterator begin() { return iterator(_list.begin(), _list.end()); }
  iterator end() { return iterator(_list.end(), _list.end()); }
  const_iterator begin() const { return const_iterator(_list.begin(), _list.end()); }
  const_iterator end() const { return const_iterator(_list.end(), _list.end()); }

 private:
  void copyFrom(const OrderedMap& other) {
    for (const Entry& e : other._list) insert(*e.first, *e.second);
  }

  Index _index;
  List _list;
};
