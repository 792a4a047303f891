#include "util/XsltStylesheet.h"

#include <libxml/tree.h>
#include <libxslt/security.h>
#include <libxslt/transform.h>
#include <libxslt/xsltInternals.h>

#include "util/Assert.h"
#include "util/Pathname.h"
#include "util/ScopedXmlLibInit.h"
#include "util/XmlDocument.h"
#include "util/XmlLibImpl.h"

namespace {

// What a transform may not do, whatever its stylesheet says.
const xsltSecurityOption FORBIDDEN[] = {
    XSLT_SECPREF_READ_FILE,    XSLT_SECPREF_WRITE_FILE,    XSLT_SECPREF_CREATE_DIRECTORY,
    XSLT_SECPREF_READ_NETWORK, XSLT_SECPREF_WRITE_NETWORK,
};

// Owns a transform context with its security preferences.
class ScopedTransform {
 public:
  ScopedTransform(xsltStylesheet* sheet, xmlDoc* doc)
      : _prefs(xsltNewSecurityPrefs()), _ctxt(xsltNewTransformContext(sheet, doc)) {
    if (_prefs == nullptr || _ctxt == nullptr) {
      release();
      throw std::bad_alloc();
    }
    for (xsltSecurityOption option : FORBIDDEN) {
      xsltSetSecurityPrefs(_prefs, option, xsltSecurityForbid);
    }
    xsltSetCtxtSecurityPrefs(_prefs, _ctxt);
  }
  ~ScopedTransform() { release(); }
  ScopedTransform(const ScopedTransform&) = delete;
  ScopedTransform& operator=(const ScopedTransform&) = delete;

  xsltTransformContext* get() const { return _ctxt; }

 private:
  void release() {
    if (_ctxt != nullptr) xsltFreeTransformContext(_ctxt);
    if (_prefs != nullptr) xsltFreeSecurityPrefs(_prefs);
    _ctxt = nullptr;
    _prefs = nullptr;
  }

  xsltSecurityPrefs* _prefs;
  xsltTransformContext* _ctxt;
};

Str orDefault(const Str& captured, const char* dflt) {
  return captured.empty() ? Str(dflt) : captured;
}

}  // namespace

XsltStylesheet::XsltStylesheet(Pathname const& path) : _sheet(nullptr) {
  XmlDocument doc(path, true, true);
  if (doc.empty()) {
    _error = doc.error();
    return;
  }
  internal_compile(doc);
}

XsltStylesheet::XsltStylesheet(XmlDocument const& doc) : _sheet(nullptr) {
  kassert(xml_setup_state == DID_SETUP);
  if (doc.empty()) {
    _error = orDefault(doc.error(), "Stylesheet document is empty");
    return;
  }
  XmlDocument copy(doc);
  internal_compile(copy);
}

XsltStylesheet::~XsltStylesheet() {
  if (_sheet != nullptr) xsltFreeStylesheet(_sheet);
}

void XsltStylesheet::internal_compile(XmlDocument& doc) {
  Str captured;
  ScopedXmlErrorCapture capture(&captured);
  xmlDoc* raw = doc.release();
  _sheet = xsltParseStylesheetDoc(raw);
  if (_sheet == nullptr) {
    // On failure the library leaves the document with its caller.
    xmlFreeDoc(raw);
    _error = orDefault(captured, "Stylesheet could not be compiled");
  }
}

bool XsltStylesheet::apply(XmlDocument const& in, XmlDocument& out) const {
  if (_sheet == nullptr) {
    out.setError(orDefault(_error, "Stylesheet is not valid"), 0);
    return false;
  }
  if (in.empty()) {
    out.setError(orDefault(in.error(), "Input document is empty"), 0);
    return false;
  }
  Str captured;
  ScopedXmlErrorCapture capture(&captured);
  ScopedTransform transform(_sheet, in.get());
  xmlDoc* result = xsltApplyStylesheetUser(_sheet, in.get(), nullptr, nullptr, nullptr,
                                           transform.get());
  if (result == nullptr || transform.get()->state != XSLT_STATE_OK) {
    xmlFreeDoc(result);
    out.setError(orDefault(captured, "Transform failed"), 0);
    return false;
  }
  out.adopt(result);
  return true;
}
