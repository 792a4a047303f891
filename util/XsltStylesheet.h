// XsltStylesheet: a compiled stylesheet and its application to documents,
// with every failure returned as text rather than printed.
#pragma once

#include "util/Str.h"

class Pathname;
class XmlDocument;
struct _xsltStylesheet;

// Owns the compiled stylesheet. Compiled once, it is only read by apply, but
// the library keeps per-transform state in the calling thread: one owner at
// a time.
//
// A stylesheet reads nothing but the file it was given and the document it
// is applied to: xsl:import, xsl:include and document() of another file
// fail, and writing files, making directories and network access are
// forbidden during a transform.
class XsltStylesheet {
 public:
  // Parses and compiles the file. On failure valid() is false and error()
  // holds the parser's or the compiler's words.
  // REQUIRES: ScopedXmlLibInit is in effect ("xml_setup_state == DID_SETUP").
  explicit XsltStylesheet(Pathname const& path);
  // Compiles an already parsed document, which is copied.
  explicit XsltStylesheet(XmlDocument const& doc);
  ~XsltStylesheet();
  XsltStylesheet(const XsltStylesheet&) = delete;
  XsltStylesheet& operator=(const XsltStylesheet&) = delete;

  bool valid() const { return _sheet != nullptr; }
  const Str& error() const { return _error; }

  // Transforms `in` into `out` (its previous contents freed). False, with
  // `out` empty and its error() set, when this stylesheet is not valid, when
  // `in` is empty, or when the transform reports an error (xsl:message with
  // terminate="yes" among them).
  bool apply(XmlDocument const& in, XmlDocument& out) const;

 private:
  void internal_compile(XmlDocument& doc);

  _xsltStylesheet* _sheet;
  Str _error;
};
