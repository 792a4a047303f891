// ConfPathTrie: a tree of configuration paths (user, application, type,
// stanza, setting) with a value and metadata at any node: what a search of
// the mappers returns, what the caches are built from, and what a write
// hands to the mappers.
#pragma once

#include <functional>
#include <map>
#include <memory>

#include "libbundle/ConfPath.h"
#include "libbundle/ConfPathMetadata.h"
#include "util/Str.h"
#include "util/Timeval.h"

class IConfPathTriePruner;

// One owner at a time, no lock; const methods safe to share.
class ConfPathTrie {
 public:
  class Node {
   public:
    // Children by segment, bytewise ascending: the walk order.
    typedef std::map<Str, std::unique_ptr<Node>> Children;

    const Str& name() const { return _name; }
    const Node* parent() const { return _parent; }
    const Children& children() const { return _children; }
    // The child of that segment, or null.
    const Node* child(const Str& segment) const;
    Node* child(const Str& segment);
    // The child, created empty when missing.
    Node& getOrAddChild(const Str& segment);

    // A value: a setting's, or the stanza's embedded one. With it, whether
    // the layer that held it lets it be removed (a local layer) and when
    // its file last changed.
    bool hasValue() const { return _hasValue; }
    const Str& value() const { return _value; }
    bool isValueRemovable() const { return _valueRemovable; }
    const Timeval& valueModTime() const { return _valueModTime; }
    void setValue(const Str& value, bool removable = false, const Timeval& modTime = Timeval());
    void clearValue();

    bool hasMetadata() const { return _metadata != nullptr; }
    // REQUIRES: hasMetadata().
    const ConfPathMetadata& metadata() const;
    void setMetadata(const ConfPathMetadata& metadata);
    void clearMetadata();

    // Neither value nor metadata nor children.
    bool isEmpty() const { return !_hasValue && _metadata == nullptr && _children.empty(); }

   private:
    friend class ConfPathTrie;
    Str _name;
    Node* _parent = nullptr;
    Children _children;
    bool _hasValue = false;
    bool _valueRemovable = false;
    Str _value;
    Timeval _valueModTime;
    std::unique_ptr<ConfPathMetadata> _metadata;
  };

  // Visits one node; the path is that of the node. Returning false skips
  // the node's children.
  typedef std::function<bool(const ConfPathBase& path, const Node& node)> Visitor;

  ConfPathTrie() = default;
  ConfPathTrie(const ConfPathTrie& other);
  ConfPathTrie& operator=(const ConfPathTrie& other);
  ConfPathTrie(ConfPathTrie&&) = default;
  ConfPathTrie& operator=(ConfPathTrie&&) = default;

  const Node& root() const { return _root; }
  Node& root() { return _root; }
  // The node of `path`, or null.
  const Node* find(const ConfPathBase& path) const;
  Node* find(const ConfPathBase& path);
  // The node of `path`, created with its ancestors when missing.
  Node& insert(const ConfPathBase& path);
  // Shorthands of insert(path).setValue / setMetadata.
  void setValue(const ConfPathBase& path, const Str& value, bool removable = false,
                const Timeval& modTime = Timeval());
  void setMetadata(const ConfPathBase& path, const ConfPathMetadata& metadata);
  // Removes the node of `path` with everything below it; false when absent.
  // The root itself cannot be removed: for level 0 the trie is cleared.
  bool remove(const ConfPathBase& path);
  void clear();
  bool empty() const { return _root.isEmpty(); }
  // Nodes other than the root.
  size_t size() const;

  // Merges `other` in: every node of `other` is made here; a node keeps the
  // value it has and takes other's only if it has none, and the same for
  // metadata.
  void merge(const ConfPathTrie& other);
  // The same for `from`, a node of any trie, taken as the node of `at`
  // here: from's subtree lands under `at`.
  void mergeAt(const ConfPathBase& at, const Node& from);

  // Drops every node deeper than `level`: cut(5) keeps settings, cut(4)
  // keeps stanzas with their embedded values and drops their settings.
  void cut(size_t level);

  // Pre-order walk, children in bytewise order, from the root's children
  // (the root itself is not visited).
  void walk(const Visitor& visitor) const;

  // Asks `pruner` about every node in walk order; a node it refuses goes
  // with its subtree. Then pruner.finish() runs, for pruners that decide on
  // the whole trie (the dangling pruners).
  void prune(IConfPathTriePruner& pruner);

  // Lines "<path> = <value>" and "<path> @meta" in walk order; for tests.
  Str toString() const;

 private:
  static void pruneNode(Node& node, ConfPathBase& path, IConfPathTriePruner& pruner);
  static void cutNode(Node& node, size_t depth, size_t level);

  Node _root;
};
