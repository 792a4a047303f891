// The serialised text of a document, node or attribute, held in the XML
// library's own buffer for as long as it is needed.
#pragma once

#include <cstddef>

#include "util/StrSegment.h"

struct _xmlBuffer;
class XmlAttribute;
class XmlDocument;
class XmlNode;

// Owns one library buffer; the text is a window into it that can only
// shrink from the front. One owner at a time; not copyable.
//   document  <?xml version="1.0"?>\n<a x="1">t&amp;u</a>\n
//   node      <a x="1">t&amp;u</a>
//   attribute x="1"
class XmlContents {
 public:
  typedef size_t size_type;

  // REQUIRES: the document is not empty ("!empty()"), the node or attribute
  // is valid ("_p.node != __null"). Throws std::bad_alloc when the buffer
  // cannot be made.
  explicit XmlContents(const XmlDocument& doc);
  explicit XmlContents(const XmlNode& node);
  explicit XmlContents(const XmlAttribute& attr);
  ~XmlContents();
  XmlContents(const XmlContents&) = delete;
  XmlContents& operator=(const XmlContents&) = delete;

  const char* data() const { return _data; }
  size_type size() const { return _len; }
  StrSegment segment() const { return StrSegment(_data, _len); }

  // Drops a leading XML declaration: with at least 7 bytes starting
  // "<?xml", everything up to "?>", then blanks and tabs up to and including
  // one "\r\n" or "\n". "<?xml version=\"1.0\"?>  \r\n<a/>" becomes "<a/>";
  // six bytes or fewer, or no "?>", stay as they are. Moves the start; copies
  // nothing.
  void trimDeclarationInPlace();

 private:
  // Starts the text at `p`. REQUIRES: p lies within the text
  // ("_len >= (size_type) (p - _data)").
  void internal_skipTo(const char* p);

  _xmlBuffer* _buffer;
  const char* _data;
  size_type _len;
};
