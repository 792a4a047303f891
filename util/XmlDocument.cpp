#include "util/XmlDocument.h"

#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

#include <libxml/parser.h>
#include <libxml/parserInternals.h>
#include <libxml/tree.h>

#include "util/Assert.h"
#include "util/FileDescriptor.h"
#include "util/FileStar.h"
#include "util/Logger.h"
#include "util/Pathname.h"
#include "util/ScopedXmlLibInit.h"
#include "util/XMLAndStringUtil.h"
#include "util/XsltStylesheet.h"

namespace {

const xmlChar* X(const char* s) { return reinterpret_cast<const xmlChar*>(s); }

xmlDoc* newDoc() {
  xmlDoc* d = xmlNewDoc(X("1.0"));
  if (d == nullptr) throw std::bad_alloc();
  return d;
}

struct MemoryRange {
  const char* p;
  const char* end;
};

int readMemory(void* context, char* buffer, int len) {
  MemoryRange* r = static_cast<MemoryRange*>(context);
  const long left = r->end - r->p;
  const int n = left < len ? static_cast<int>(left) : len;
  std::memcpy(buffer, r->p, static_cast<size_t>(n));
  r->p += n;
  return n;
}

int readFileStar(void* context, char* buffer, int len) {
  const ssize_t n = static_cast<FileStar*>(context)->read(buffer, static_cast<size_t>(len));
  return static_cast<int>(n);
}

int readDescriptor(void* context, char* buffer, int len) {
  const ssize_t n = static_cast<const FileDescriptor*>(context)->read(buffer, static_cast<size_t>(len));
  return static_cast<int>(n);
}

// The whole of a parse's last error text, without its line feed; a context
// that failed without saying why still gives the caller words.
Str lastErrorText(const xmlParserCtxt* ctxt) {
  Str text(ctxt->lastError.message != nullptr ? ctxt->lastError.message
                                              : "Document is not well formed");
  while (!text.empty() && text.back() == '\n') text.pop_back();
  return text;
}

}  // namespace

XmlDocument::XmlDocument() : _doc(newDoc()), _errorLine(0) {}

XmlDocument::XmlDocument(Pathname const& path, bool replaceEntities, bool loadDtdAttributes)
    : _doc(nullptr), _errorLine(0) {
  kassert(xml_setup_state == DID_SETUP);
  ScopedFileDescriptor fd(path.openReadOnly());
  if (!fd.valid()) {
    Str text;
    setError(Logger::format(text, "Could not open \"%s\": %m", path.c_str()), 0);
    return;
  }
  init(readDescriptor, &fd, path.c_str(), replaceEntities, loadDtdAttributes);
}

XmlDocument::XmlDocument(FileStar& f, char const* name, bool replaceEntities,
                         bool loadDtdAttributes)
    : _doc(nullptr), _errorLine(0) {
  init(readFileStar, &f, name, replaceEntities, loadDtdAttributes);
}

XmlDocument::XmlDocument(FileDescriptor const& fd, char const* name, bool replaceEntities,
                         bool loadDtdAttributes)
    : _doc(nullptr), _errorLine(0) {
  init(readDescriptor, const_cast<FileDescriptor*>(&fd), name, replaceEntities,
       loadDtdAttributes);
}

XmlDocument::XmlDocument(char const* begin, char const* end, char const* name,
                         bool replaceEntities, bool loadDtdAttributes)
    : _doc(nullptr), _errorLine(0) {
  MemoryRange range{begin, end};
  init(readMemory, &range, name, replaceEntities, loadDtdAttributes);
}

XmlDocument::XmlDocument(StrSegment text, char const* name, bool replaceEntities,
                         bool loadDtdAttributes)
    : XmlDocument(text.data(), text.data() + text.size(), name, replaceEntities,
                  loadDtdAttributes) {}

XmlDocument::XmlDocument(XsltStylesheet const& sheet, Pathname const& path)
    : _doc(nullptr), _errorLine(0) {
  XmlDocument input(path, true, true);
  if (input.empty()) {
    *this = std::move(input);
    return;
  }
  sheet.apply(input, *this);
}

XmlDocument::XmlDocument(XsltStylesheet const& sheet, FileStar& f, char const* name)
    : _doc(nullptr), _errorLine(0) {
  XmlDocument input(f, name, true, true);
  if (input.empty()) {
    *this = std::move(input);
    return;
  }
  sheet.apply(input, *this);
}

XmlDocument::~XmlDocument() { xmlFreeDoc(_doc); }

XmlDocument::XmlDocument(XmlDocument const& other) : _doc(nullptr), _errorLine(0) {
  *this = other;
}

XmlDocument& XmlDocument::operator=(XmlDocument const& other) {
  if (&other == this) return *this;
  xmlDoc* copy = nullptr;
  if (other._doc != nullptr) {
    copy = xmlCopyDoc(other._doc, 1);
    if (copy == nullptr) throw std::bad_alloc();
  }
  adopt(copy);
  _error = other._error;
  _errorLine = other._errorLine;
  return *this;
}

XmlDocument::XmlDocument(XmlDocument&& other) noexcept
    : _doc(std::exchange(other._doc, nullptr)),
      _error(std::move(other._error)),
      _errorLine(other._errorLine) {}

XmlDocument& XmlDocument::operator=(XmlDocument&& other) noexcept {
  if (&other == this) return *this;
  xmlFreeDoc(_doc);
  _doc = std::exchange(other._doc, nullptr);
  _error = std::move(other._error);
  _errorLine = other._errorLine;
  return *this;
}

XmlDocument& XmlDocument::operator=(XmlNode const& node) {
  node.assertValid();
  xmlDoc* fresh = newDoc();
  xmlNode* copy = xmlDocCopyNode(node.get(), fresh, 1);
  if (copy == nullptr) {
    xmlFreeDoc(fresh);
    throw std::bad_alloc();
  }
  xmlDocSetRootElement(fresh, copy);
  adopt(fresh);
  return *this;
}

void XmlDocument::internal_assertNotEmpty() const { kassert(!empty()); }

XmlNode XmlDocument::get_root() const {
  internal_assertNotEmpty();
  return XmlNode(xmlDocGetRootElement(_doc));
}

XmlNode XmlDocument::addChild(XmlNode const& node) {
  XmlNode root = get_root();
  if (root.valid()) return root.addChild(node);
  node.assertValid();
  xmlNode* copy = xmlDocCopyNode(node.get(), _doc, 1);
  if (copy == nullptr) throw std::bad_alloc();
  xmlDocSetRootElement(_doc, copy);
  return XmlNode(copy);
}

XmlNode XmlDocument::addChild(char const* name) {
  XmlNode root = get_root();
  if (root.valid()) return root.addChild(name);
  xmlNode* element = xmlNewDocNode(_doc, nullptr, X(name), nullptr);
  if (element == nullptr) throw std::bad_alloc();
  xmlDocSetRootElement(_doc, element);
  return XmlNode(element);
}

void XmlDocument::addTopComment(Str const& text) {
  internal_assertNotEmpty();
  Str safe(text);
  while (safe.replaceAll("--", "- -") > 0) {
  }
  // A comment may not end in "-" either: "--->" would close it badly.
  if (!safe.empty() && safe.back() == '-') safe.push_back(' ');
  xmlNode* comment = xmlNewDocComment(_doc, X(safe.c_str()));
  if (comment == nullptr) throw std::bad_alloc();
  xmlNode* first = _doc->children;
  if (first != nullptr) {
    xmlAddPrevSibling(first, comment);
  } else {
    xmlAddChild(reinterpret_cast<xmlNode*>(_doc), comment);
  }
}

void XmlDocument::addStylesheetRef(Str const& href) {
  internal_assertNotEmpty();
  Str content("type=\"text/xsl\" href=\"");
  XMLAndStringUtil::xmlEscapeString(content, href);
  content.push_back('"');
  xmlNode* pi = xmlNewDocPI(_doc, X("xml-stylesheet"), X(content.c_str()));
  if (pi == nullptr) throw std::bad_alloc();
  xmlNode* root = xmlDocGetRootElement(_doc);
  if (root != nullptr) {
    xmlAddPrevSibling(root, pi);
  } else {
    xmlAddChild(reinterpret_cast<xmlNode*>(_doc), pi);
  }
}

_xmlDoc* XmlDocument::release() { return std::exchange(_doc, nullptr); }

void XmlDocument::adopt(_xmlDoc* doc) {
  if (doc != _doc) xmlFreeDoc(_doc);
  _doc = doc;
  _error.clear();
  _errorLine = 0;
}

void XmlDocument::setError(Str const& text, int line) {
  adopt(nullptr);
  _error = text;
  _errorLine = line;
}

void XmlDocument::init(int (*reader)(void* context, char* buffer, int len), void* context,
                       char const* name, bool replaceEntities, bool loadDtdAttributes) {
  kassert(xml_setup_state == DID_SETUP);
  setError(Str(), 0);

  xmlParserInputBuffer* buf =
      xmlParserInputBufferCreateIO(reader, nullptr, context, XML_CHAR_ENCODING_NONE);
  if (buf == nullptr) throw std::bad_alloc();
  xmlParserCtxt* ctxt = xmlNewParserCtxt();
  if (ctxt == nullptr) {
    xmlFreeParserInputBuffer(buf);
    throw std::bad_alloc();
  }
  xmlCtxtUseOptions(ctxt, XML_PARSE_NONET);
  ctxt->replaceEntities = replaceEntities ? 1 : 0;
  if (loadDtdAttributes) ctxt->loadsubset = XML_DETECT_IDS | XML_COMPLETE_ATTRS;

  xmlParserInput* input = xmlNewIOInputStream(ctxt, buf, XML_CHAR_ENCODING_NONE);
  if (input == nullptr) {
    xmlFreeParserInputBuffer(buf);
    xmlFreeParserCtxt(ctxt);
    throw std::bad_alloc();
  }
  if (name != nullptr) {
    input->filename = reinterpret_cast<const char*>(xmlStrdup(X(name)));
    if (input->filename == nullptr) {
      xmlFreeInputStream(input);
      xmlFreeParserCtxt(ctxt);
      throw std::bad_alloc();
    }
  }
  if (inputPush(ctxt, input) < 0) {
    xmlFreeParserCtxt(ctxt);
    throw std::bad_alloc();
  }

  xmlParseDocument(ctxt);

  if (ctxt->wellFormed && ctxt->myDoc != nullptr) {
    adopt(ctxt->myDoc);
  } else {
    _error = lastErrorText(ctxt);
    _errorLine = ctxt->lastError.line;
    xmlFreeDoc(ctxt->myDoc);
  }
  ctxt->myDoc = nullptr;
  xmlFreeParserCtxt(ctxt);
}
