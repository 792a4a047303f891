// XmlDocument: one parsed or built XML document. Parsing never throws for
// bad input: a failed parse leaves the document empty with the library's
// error text and line kept for the caller.
#pragma once

#include "util/Str.h"
#include "util/XmlNode.h"

class FileDescriptor;
class FileStar;
class Pathname;
class XsltStylesheet;
struct _xmlDoc;

// Owns its library document and frees it. One owner at a time; the nodes
// it hands out are views valid while it lives and is not reassigned.
//
// Every parse refuses external entities and DTDs (their contents simply
// never arrive) and never touches the network. `replaceEntities` swaps
// internal entity references for their text; `loadDtdAttributes` fills in
// attribute defaults and IDs declared in the internal DTD subset.
// REQUIRES for every parsing constructor: ScopedXmlLibInit is in effect
// ("xml_setup_state == DID_SETUP").
class XmlDocument {
 public:
  // A document with no root, to build in.
  XmlDocument();
  // Parses the file; an unreadable file is a failure whose text names it
  // with the system's reason. Errors carry the path as their file name.
  XmlDocument(Pathname const& path, bool replaceEntities, bool loadDtdAttributes);
  // Parses the rest of the stream or descriptor; `name`, if not null, names
  // the input in error texts.
  XmlDocument(FileStar& f, char const* name, bool replaceEntities, bool loadDtdAttributes);
  XmlDocument(FileDescriptor const& fd, char const* name, bool replaceEntities,
              bool loadDtdAttributes);
  // Parses [begin, end).
  XmlDocument(char const* begin, char const* end, char const* name, bool replaceEntities,
              bool loadDtdAttributes);
  XmlDocument(StrSegment text, char const* name, bool replaceEntities, bool loadDtdAttributes);
  // Parses the input and transforms it with `sheet`; a failure of either
  // step leaves this empty with that step's error text.
  XmlDocument(XsltStylesheet const& sheet, Pathname const& path);
  XmlDocument(XsltStylesheet const& sheet, FileStar& f, char const* name);
  ~XmlDocument();

  // Deep copies; an empty source gives an empty copy with its error.
  XmlDocument(XmlDocument const& other);
  XmlDocument& operator=(XmlDocument const& other);
  XmlDocument(XmlDocument&& other) noexcept;
  XmlDocument& operator=(XmlDocument&& other) noexcept;
  // Becomes a fresh document whose root is a deep copy of `node`.
  // REQUIRES: node.valid().
  XmlDocument& operator=(XmlNode const& node);

  // No document: a failed parse, a moved-from object or a failed transform.
  bool empty() const { return _doc == nullptr; }
  // Why the last parse or transform failed ("" if it did not), without a
  // trailing line feed, and the line it points at (0 when unknown).
  const Str& error() const { return _error; }
  int errorLine() const { return _errorLine; }

  // ---- Building. REQUIRES: !empty() ("!empty()") for all. ----
  // The root element, or a null view before one is added.
  XmlNode get_root() const;
  // Adds a deep copy of `node`: as the root when there is none, else as the
  // root's last child. Returns the copy.
  XmlNode addChild(XmlNode const& node);
  // The same with a new element called `name`.
  XmlNode addChild(char const* name);
  // A comment ahead of everything else in the document. "--" in `text`
  // would end a comment early, so it is written "- -".
  void addTopComment(Str const& text);
  // An <?xml-stylesheet type="text/xsl" href="..."?> instruction ahead of
  // the root, `href` escaped as an attribute value.
  void addStylesheetRef(Str const& href);

  // The library document, still owned by this; null when empty.
  _xmlDoc* get() const { return _doc; }

 private:
  friend class XmlContents;
  friend class XsltStylesheet;

  // Gives up the library document to the caller, leaving this empty.
  _xmlDoc* release();
  // Takes ownership of `doc` (null to become empty), freeing the one held,
  // and forgets any error.
  void adopt(_xmlDoc* doc);
  // Records a failure: frees the document and keeps `text` and `line`.
  void setError(Str const& text, int line);
  // Ends the process when empty ("!empty()").
  void internal_assertNotEmpty() const;
  void init(int (*reader)(void* context, char* buffer, int len), void* context, char const* name,
            bool replaceEntities, bool loadDtdAttributes);

  _xmlDoc* _doc;
  Str _error;
  int _errorLine;
};
