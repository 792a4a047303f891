// Borrowed views of the nodes and attributes of an XmlDocument: navigation,
// typed reads of their text, and the edits that build a document.
#pragma once

#include <libxml/tree.h>

#include "util/Str.h"

class Pathname;
class XmlAttribute;
class XmlAttributes;

// A pointer into a document that does not own what it points at; null when
// a lookup found nothing. Valid for as long as its document is, and used by
// the document's thread only.
class XmlNodeLike {
 public:
  // Whether this points at something; a null view answers every typed read
  // with failure or the default.
  bool valid() const { return _p.node != nullptr; }
  // The element or attribute name. REQUIRES: valid() ("_p.node != __null").
  const char* name() const;
  // Ends the process unless valid(): the check of every operation that
  // needs a node ("_p.node != __null").
  void assertValid() const;

  // The first node of `type` called `name` (of any name when `name` is
  // null) among `first` and its following siblings, or null.
  static _xmlNode* internal_find(char const* name, _xmlNode* first, xmlElementType type);

 protected:
  XmlNodeLike() { _p.node = nullptr; }
  explicit XmlNodeLike(_xmlNode* node) { _p.node = node; }
  explicit XmlNodeLike(_xmlAttr* attr) { _p.attr = attr; }
  // The text inside the node (the whole subtree's text for an element, the
  // value for an attribute); false for a null view.
  bool internal_text(Str& out) const;

  union {
    _xmlNode* node;
    _xmlAttr* attr;
  } _p;
};

// The family of typed reads shared by nodes and attributes. The text is
// taken whole for tryToStr; the number, path and bool reads ignore blanks,
// tabs and line ends around it ("<port> 8089\n</port>" is 8089). A failed
// read leaves `out` alone.
class XmlTypedReads : public XmlNodeLike {
 public:
  bool tryToStr(Str& out) const { return internal_text(out); }
  bool tryToLong(long& out) const;
  bool tryToDouble(double& out) const;
  // An empty text is no path.
  bool tryToPathname(Pathname& out) const;
  // As Str::toBool: `whenEmpty` for an empty text or a null view,
  // `whenInvalid` for a text that is no bool.
  bool toBool(bool whenEmpty, bool whenInvalid) const;
  Str toStr(char const* dflt) const;
  Str toStr(Str const& dflt) const;

 protected:
  using XmlNodeLike::XmlNodeLike;
  // The trimmed text; false for a null view.
  bool internal_trimmed(Str& out) const;
};

// One attribute of an element.
class XmlAttribute : public XmlTypedReads {
 public:
  XmlAttribute() = default;
  explicit XmlAttribute(_xmlAttr* attr) : XmlTypedReads(attr) {}
  _xmlAttr* get() const { return _p.attr; }
  // The next attribute of the same element, or null.
  XmlAttribute next() const;
};

// All attributes of one element, in document order.
class XmlAttributes : public XmlNodeLike {
 public:
  explicit XmlAttributes(_xmlNode* element) : XmlNodeLike(element) {}
  // The attribute called `name`, or null. REQUIRES: a valid element.
  XmlAttribute find(char const* name) const;
  // The first attribute, or null; step with XmlAttribute::next.
  XmlAttribute begin() const;
};

// One node, usually an element. Navigation returns null views rather than
// failing; edits copy what they are given into this node's document.
class XmlNode : public XmlTypedReads {
 public:
  XmlNode() = default;
  explicit XmlNode(_xmlNode* node) : XmlTypedReads(node) {}
  _xmlNode* get() const { return _p.node; }
  bool operator==(const XmlNode& other) const { return _p.node == other._p.node; }

  // ---- Navigation. REQUIRES: valid() for all. ----
  XmlAttribute attribute(char const* name) const;
  XmlAttributes attributes() const;
  // The first child element called `name`, or null.
  XmlNode find(char const* name) const;
  XmlNode operator[](Str const& name) const { return find(name.c_str()); }
  // The first child element, or null; step with increment_element_iterator:
  //   for (XmlNode c = n.begin(); c.valid(); c.increment_element_iterator())
  XmlNode begin() const;
  // The first child of `type`, or null.
  XmlNode first_of_type(xmlElementType type) const;
  // Moves to the next sibling element; null after the last.
  void increment_element_iterator();

  // ---- Edits. REQUIRES: valid() for all. ----
  // Sets (or replaces) one attribute; the value is stored as given and
  // escaped when written out.
  void setAttribute(char const* name, char const* value);
  // Sets every attribute that `attrs` holds, keeping others.
  void setAttributes(XmlAttributes const& attrs);
  // Replaces the children with one text node (or none for ""); no entity
  // or markup in `text` is interpreted.
  void setContent(Str const& text);
  // Replaces the children with one CDATA section. A "]]>" inside is split
  // across sections when written, so the text reads back whole.
  void setCdataContent(Str const& text);
  // Puts a deep copy of `other` in this node's place and frees this node;
  // this view then points at the copy.
  void replace(XmlNode const& other);
  // Appends a deep copy of `other` (which may belong to another document)
  // as the last child and returns the copy.
  XmlNode addChild(XmlNode const& other);
  // Appends a new element, empty or holding `text` as setContent would.
  XmlNode addChild(char const* name);
  XmlNode addChild(char const* name, char const* text);
  // Appends a new element holding the `len` bytes at `data` as CDATA. XML
  // cannot carry a NUL byte: the written text stops at the first.
  XmlNode addCdataChild(char const* name, char const* data, unsigned long len);
};
