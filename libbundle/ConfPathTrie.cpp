#include "libbundle/ConfPathTrie.h"

#include <cassert>

#include "libbundle/ConfPathPruners.h"

namespace {

void copyInto(ConfPathTrie::Node& to, const ConfPathTrie::Node& from, bool keepExisting) {
  if (from.hasValue() && (!keepExisting || !to.hasValue())) {
    to.setValue(from.value(), from.isValueRemovable(), from.valueModTime());
  }
  if (from.hasMetadata() && (!keepExisting || !to.hasMetadata())) to.setMetadata(from.metadata());
  for (const auto& [name, child] : from.children()) {
    copyInto(to.getOrAddChild(name), *child, keepExisting);
  }
}

size_t countBelow(const ConfPathTrie::Node& node) {
  size_t n = 0;
  for (const auto& [name, child] : node.children()) n += 1 + countBelow(*child);
  return n;
}

void walkFrom(const ConfPathTrie::Node& node, ConfPathBase& path,
              const ConfPathTrie::Visitor& visitor) {
  for (const auto& [name, child] : node.children()) {
    path.push(name);
    if (visitor(path, *child)) walkFrom(*child, path, visitor);
    path.pop();
  }
}

}  // namespace

const ConfPathTrie::Node* ConfPathTrie::Node::child(const Str& segment) const {
  auto it = _children.find(segment);
  return it == _children.end() ? nullptr : it->second.get();
}

ConfPathTrie::Node* ConfPathTrie::Node::child(const Str& segment) {
  auto it = _children.find(segment);
  return it == _children.end() ? nullptr : it->second.get();
}

ConfPathTrie::Node& ConfPathTrie::Node::getOrAddChild(const Str& segment) {
  std::unique_ptr<Node>& slot = _children[segment];
  if (slot == nullptr) {
    slot = std::make_unique<Node>();
    slot->_name = segment;
    slot->_parent = this;
  }
  return *slot;
}

void ConfPathTrie::Node::setValue(const Str& value, bool removable, const Timeval& modTime) {
  _hasValue = true;
  _value = value;
  _valueRemovable = removable;
  _valueModTime = modTime;
}

void ConfPathTrie::Node::clearValue() {
  _hasValue = false;
  _value.clear();
  _valueRemovable = false;
  _valueModTime = Timeval();
}

const ConfPathMetadata& ConfPathTrie::Node::metadata() const {
  assert(_metadata != nullptr);
  return *_metadata;
}

void ConfPathTrie::Node::setMetadata(const ConfPathMetadata& metadata) {
  _metadata = std::make_unique<ConfPathMetadata>(metadata);
}

void ConfPathTrie::Node::clearMetadata() { _metadata.reset(); }

ConfPathTrie::ConfPathTrie(const ConfPathTrie& other) { copyInto(_root, other._root, false); }

ConfPathTrie& ConfPathTrie::operator=(const ConfPathTrie& other) {
  if (this != &other) {
    clear();
    copyInto(_root, other._root, false);
  }
  return *this;
}

const ConfPathTrie::Node* ConfPathTrie::find(const ConfPathBase& path) const {
  const Node* node = &_root;
  for (const Str& s : path.segments()) {
    node = node->child(s);
    if (node == nullptr) return nullptr;
  }
  return node;
}

ConfPathTrie::Node* ConfPathTrie::find(const ConfPathBase& path) {
  return const_cast<Node*>(static_cast<const ConfPathTrie*>(this)->find(path));
}

ConfPathTrie::Node& ConfPathTrie::insert(const ConfPathBase& path) {
  Node* node = &_root;
  for (const Str& s : path.segments()) node = &node->getOrAddChild(s);
  return *node;
}

void ConfPathTrie::setValue(const ConfPathBase& path, const Str& value, bool removable,
                            const Timeval& modTime) {
  insert(path).setValue(value, removable, modTime);
}

void ConfPathTrie::setMetadata(const ConfPathBase& path, const ConfPathMetadata& metadata) {
  insert(path).setMetadata(metadata);
}

bool ConfPathTrie::remove(const ConfPathBase& path) {
  if (path.level() == 0) {
    const bool had = !empty();
    clear();
    return had;
  }
  Node* parent = find(path.parent());
  if (parent == nullptr) return false;
  return parent->_children.erase(path.segments().back()) != 0;
}

void ConfPathTrie::clear() {
  _root._children.clear();
  _root.clearValue();
  _root.clearMetadata();
}

size_t ConfPathTrie::size() const { return countBelow(_root); }

void ConfPathTrie::merge(const ConfPathTrie& other) { copyInto(_root, other._root, true); }

void ConfPathTrie::mergeAt(const ConfPathBase& at, const Node& from) {
  copyInto(insert(at), from, true);
}

void ConfPathTrie::cutNode(Node& node, size_t depth, size_t level) {
  if (depth >= level) {
    node._children.clear();
    return;
  }
  for (auto& [name, child] : node._children) cutNode(*child, depth + 1, level);
}

void ConfPathTrie::pruneNode(Node& node, ConfPathBase& path, IConfPathTriePruner& pruner) {
  for (auto it = node._children.begin(); it != node._children.end();) {
    path.push(it->first);
    const bool keep = pruner.keep(path, *it->second);
    if (keep) pruneNode(*it->second, path, pruner);
    path.pop();
    it = keep ? std::next(it) : node._children.erase(it);
  }
}

void ConfPathTrie::cut(size_t level) { cutNode(_root, 0, level); }

void ConfPathTrie::walk(const Visitor& visitor) const {
  ConfPathBase path;
  walkFrom(_root, path, visitor);
}

void ConfPathTrie::prune(IConfPathTriePruner& pruner) {
  ConfPathBase path;
  pruneNode(_root, path, pruner);
  pruner.finish(*this);
}

Str ConfPathTrie::toString() const {
  Str out;
  walk([&out](const ConfPathBase& path, const Node& node) {
    if (node.hasValue()) out.append(path.toString()).append(" = ").append(node.value()).push_back('\n');
    if (node.hasMetadata()) out.append(path.toString()).append(" @meta\n");
    return true;
  });
  return out;
}
