#include "util/XmlContents.h"

#include <cstring>
#include <new>

#include <libxml/tree.h>
#include <libxml/xmlsave.h>

#include "util/Assert.h"
#include "util/XmlDocument.h"
#include "util/XmlNode.h"

namespace {

constexpr size_t MIN_DECLARATION_LEN = 7;

xmlBuffer* newBuffer() {
  xmlBuffer* b = xmlBufferCreate();
  if (b == nullptr) throw std::bad_alloc();
  return b;
}

}  // namespace

XmlContents::XmlContents(const XmlDocument& doc) : _buffer(nullptr), _data(nullptr), _len(0) {
  doc.internal_assertNotEmpty();
  _buffer = newBuffer();
  xmlSaveCtxt* save = xmlSaveToBuffer(_buffer, "UTF-8", 0);
  if (save == nullptr) {
    xmlBufferFree(_buffer);
    throw std::bad_alloc();
  }
  xmlSaveDoc(save, doc.get());
  xmlSaveClose(save);
  _data = reinterpret_cast<const char*>(xmlBufferContent(_buffer));
  _len = xmlBufferLength(_buffer);
}

XmlContents::XmlContents(const XmlNode& node) : _buffer(nullptr), _data(nullptr), _len(0) {
  node.assertValid();
  _buffer = newBuffer();
  xmlNodeDump(_buffer, node.get()->doc, node.get(), 0, 0);
  _data = reinterpret_cast<const char*>(xmlBufferContent(_buffer));
  _len = xmlBufferLength(_buffer);
}

XmlContents::XmlContents(const XmlAttribute& attr) : _buffer(nullptr), _data(nullptr), _len(0) {
  attr.assertValid();
  _buffer = newBuffer();
  xmlNode* asNode = reinterpret_cast<xmlNode*>(attr.get());
  xmlNodeDump(_buffer, asNode->doc, asNode, 0, 0);
  _data = reinterpret_cast<const char*>(xmlBufferContent(_buffer));
  _len = xmlBufferLength(_buffer);
  // The writer puts the blank that separates attributes ahead of this one.
  if (_len > 0 && _data[0] == ' ') internal_skipTo(_data + 1);
}

XmlContents::~XmlContents() { xmlBufferFree(_buffer); }

void XmlContents::internal_skipTo(const char* p) {
  kassert(_len >= (size_type) (p - _data));
  _len -= static_cast<size_type>(p - _data);
  _data = p;
}

void XmlContents::trimDeclarationInPlace() {
  if (_len < MIN_DECLARATION_LEN || std::memcmp(_data, "<?xml", 5) != 0) return;
  const char* end = _data + _len;
  const char* close = static_cast<const char*>(memmem(_data, _len, "?>", 2));
  if (close == nullptr) return;
  const char* p = close + 2;
  while (p < end && (*p == ' ' || *p == '\t')) ++p;
  if (p < end && *p == '\n') {
    ++p;
  } else if (end - p >= 2 && p[0] == '\r' && p[1] == '\n') {
    p += 2;
  }
  internal_skipTo(p);
}
