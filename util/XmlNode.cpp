#include "util/XmlNode.h"

#include <cstring>
#include <new>

#include "util/Assert.h"
#include "util/Pathname.h"

namespace {

const xmlChar* X(const char* s) { return reinterpret_cast<const xmlChar*>(s); }

// The blanks and line ends an XML writer may put around a value.
const CharacterClass& xmlBlanks() {
  static const CharacterClass kBlanks(" \t\r\n");
  return kBlanks;
}

template <class T>
T* checked(T* p) {
  if (p == nullptr) throw std::bad_alloc();
  return p;
}

// A node of another document, or of none, is copied into `doc`.
xmlNode* copyInto(const XmlNode& other, xmlDoc* doc) {
  return checked(xmlDocCopyNode(other.get(), doc, 1));
}

}  // namespace

const char* XmlNodeLike::name() const {
  assertValid();
  return reinterpret_cast<const char*>(_p.node->name);
}

void XmlNodeLike::assertValid() const { kassert(_p.node != __null); }

_xmlNode* XmlNodeLike::internal_find(char const* name, _xmlNode* first, xmlElementType type) {
  for (xmlNode* n = first; n != nullptr; n = n->next) {
    if (n->type != type) continue;
    if (name == nullptr || xmlStrEqual(n->name, X(name))) return n;
  }
  return nullptr;
}

bool XmlNodeLike::internal_text(Str& out) const {
  if (_p.node == nullptr) return false;
  xmlChar* text = xmlNodeGetContent(_p.node);
  if (text == nullptr) {
    out.clear();
    return true;
  }
  out.assign(reinterpret_cast<const char*>(text));
  xmlFree(text);
  return true;
}

bool XmlTypedReads::internal_trimmed(Str& out) const {
  if (!internal_text(out)) return false;
  out.trimInPlace(xmlBlanks());
  return true;
}

bool XmlTypedReads::tryToLong(long& out) const {
  Str text;
  long value = 0;
  if (!internal_trimmed(text) || !text.tryToLong(value)) return false;
  out = value;
  return true;
}

bool XmlTypedReads::tryToDouble(double& out) const {
  Str text;
  double value = 0;
  if (!internal_trimmed(text) || !text.tryToDouble(value)) return false;
  out = value;
  return true;
}

bool XmlTypedReads::tryToPathname(Pathname& out) const {
  Str text;
  if (!internal_trimmed(text) || text.empty()) return false;
  out = Pathname(std::move(text));
  return true;
}

bool XmlTypedReads::toBool(bool whenEmpty, bool whenInvalid) const {
  Str text;
  if (!internal_trimmed(text)) return whenEmpty;
  return text.toBool(whenEmpty, whenInvalid);
}

Str XmlTypedReads::toStr(char const* dflt) const {
  Str text;
  return internal_text(text) ? text : Str(dflt);
}

Str XmlTypedReads::toStr(Str const& dflt) const {
  Str text;
  return internal_text(text) ? text : dflt;
}

XmlAttribute XmlAttribute::next() const {
  assertValid();
  return XmlAttribute(_p.attr->next);
}

XmlAttribute XmlAttributes::find(char const* name) const {
  assertValid();
  for (xmlAttr* a = _p.node->properties; a != nullptr; a = a->next) {
    if (xmlStrEqual(a->name, X(name))) return XmlAttribute(a);
  }
  return XmlAttribute();
}

XmlAttribute XmlAttributes::begin() const {
  assertValid();
  return XmlAttribute(_p.node->properties);
}

XmlAttribute XmlNode::attribute(char const* name) const { return attributes().find(name); }

XmlAttributes XmlNode::attributes() const {
  assertValid();
  return XmlAttributes(_p.node);
}

XmlNode XmlNode::find(char const* name) const {
  assertValid();
  return XmlNode(internal_find(name, _p.node->children, XML_ELEMENT_NODE));
}

XmlNode XmlNode::begin() const { return first_of_type(XML_ELEMENT_NODE); }

XmlNode XmlNode::first_of_type(xmlElementType type) const {
  assertValid();
  return XmlNode(internal_find(nullptr, _p.node->children, type));
}

void XmlNode::increment_element_iterator() {
  assertValid();
  _p.node = internal_find(nullptr, _p.node->next, XML_ELEMENT_NODE);
}

void XmlNode::setAttribute(char const* name, char const* value) {
  assertValid();
  checked(xmlSetProp(_p.node, X(name), X(value)));
}

void XmlNode::setAttributes(XmlAttributes const& attrs) {
  for (XmlAttribute a = attrs.begin(); a.valid(); a = a.next()) {
    setAttribute(a.name(), a.toStr("").c_str());
  }
}

void XmlNode::setContent(Str const& text) {
  assertValid();
  xmlNodeSetContent(_p.node, nullptr);
  if (text.empty()) return;
  xmlNode* t = checked(xmlNewDocTextLen(_p.node->doc, X(text.data()), static_cast<int>(text.size())));
  xmlAddChild(_p.node, t);
}

void XmlNode::setCdataContent(Str const& text) {
  assertValid();
  xmlNodeSetContent(_p.node, nullptr);
  xmlNode* c = checked(xmlNewCDataBlock(_p.node->doc, X(text.data()), static_cast<int>(text.size())));
  xmlAddChild(_p.node, c);
}

void XmlNode::replace(XmlNode const& other) {
  assertValid();
  other.assertValid();
  xmlNode* copy = copyInto(other, _p.node->doc);
  xmlNode* old = xmlReplaceNode(_p.node, copy);
  xmlFreeNode(old);
  _p.node = copy;
}

XmlNode XmlNode::addChild(XmlNode const& other) {
  assertValid();
  other.assertValid();
  return XmlNode(xmlAddChild(_p.node, copyInto(other, _p.node->doc)));
}

XmlNode XmlNode::addChild(char const* name) {
  assertValid();
  return XmlNode(checked(xmlNewChild(_p.node, nullptr, X(name), nullptr)));
}

XmlNode XmlNode::addChild(char const* name, char const* text) {
  XmlNode child = addChild(name);
  child.setContent(Str(text));
  return child;
}

XmlNode XmlNode::addCdataChild(char const* name, char const* data, unsigned long len) {
  XmlNode child = addChild(name);
  child.setCdataContent(Str(data, len));
  return child;
}
