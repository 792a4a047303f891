// Parses arbitrary bytes as a document under each combination of the two
// parse flags, and checks what holds for any input: a failure is an empty
// document with error text and a line that is not negative; a success
// without a DTD serialises to text that parses again, whose own
// serialisation is stable;
// every node, attribute and typed read can be walked without harm. The
// stylesheet compiler gets the parsed document too, when asked. A broken
// property aborts.
//
// Input layout: byte 0 flags (bit 0 replaceEntities, bit 1
// loadDtdAttributes, bit 2 also compile as a stylesheet), then the document.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <libxml/tree.h>

#include "util/Logger.h"
#include "util/Pathname.h"
#include "util/ScopedXmlLibInit.h"
#include "util/XmlContents.h"
#include "util/XmlDocument.h"
#include "util/XmlNode.h"
#include "util/XsltStylesheet.h"

namespace {

void check(bool ok, const char* what) {
  if (!ok) {
    fprintf(stderr, "property broken: %s\n", what);
    abort();
  }
}

// Bounded: the tree's depth is the input's to choose.
void walk(const XmlNode& node, int depth) {
  Str text;
  check(node.tryToStr(text), "a valid node has text");
  long l;
  double d;
  Pathname p;
  (void)node.tryToLong(l);
  (void)node.tryToDouble(d);
  (void)node.tryToPathname(p);
  (void)node.toBool(false, true);
  for (XmlAttribute a = node.attributes().begin(); a.valid(); a = a.next()) {
    Str v;
    check(a.tryToStr(v), "a valid attribute has text");
    check(node.attribute(a.name()).valid(), "an attribute is found by its name");
    (void)Str().append(a);
  }
  if (depth > 64) return;
  for (XmlNode c = node.begin(); c.valid(); c.increment_element_iterator()) {
    check(node.find(c.name()).valid(), "a child is found by its name");
    walk(c, depth + 1);
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  static ScopedXmlLibInit* init = new ScopedXmlLibInit;
  (void)init;
  Logger::initialize();
  Logger::setChannelLevel("XmlParser", Str("FATAL"));
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  const unsigned flags = data[0];
  const char* begin = reinterpret_cast<const char*>(data + 1);
  const char* end = begin + (size - 1);
  const bool replace = flags & 1;
  const bool load = flags & 2;

  XmlDocument doc(begin, end, "fuzz.xml", replace, load);
  if (doc.empty()) {
    check(!doc.error().empty(), "a failure has words");
    check(doc.errorLine() >= 0, "a failure's line is not negative");
    return 0;
  }
  check(doc.error().empty(), "a success has no error");

  const XmlNode root = doc.get_root();
  if (root.valid()) walk(root, 0);

  XmlContents contents(doc);
  const Str once(contents.segment());
  contents.trimDeclarationInPlace();
  check(contents.size() <= once.size(), "trimming never grows");

  // A DTD is written without its parameter entity references, so an entity
  // that only they declared is undefined when read back: the round trip is
  // checked for documents without one, and merely exercised for the rest.
  const bool hasDtd = doc.get()->intSubset != nullptr || doc.get()->extSubset != nullptr;
  XmlDocument again(StrSegment(once), "again.xml", replace, load);
  if (!hasDtd) {
    if (again.empty()) {
      fprintf(stderr, "reparse failed: %s (line %d)\n", again.error().c_str(),
              again.errorLine());
    }
    check(!again.empty(), "a serialised document parses again");
    const Str twice = Str().append(again);
    XmlDocument third(StrSegment(twice), "third.xml", replace, load);
    check(!third.empty() && Str().append(third) == twice, "serialisation is stable");
  }

  XmlDocument copy(doc);
  check(Str().append(copy) == once, "a copy serialises alike");

  if (flags & 4) {
    // Compiled only: what a transform runs is the stylesheet's to choose.
    XsltStylesheet sheet(doc);
    check(sheet.valid() || !sheet.error().empty(), "a stylesheet failure has words");
  }
  return 0;
}
