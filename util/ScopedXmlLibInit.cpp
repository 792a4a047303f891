#include "util/ScopedXmlLibInit.h"

#include <cstdarg>

#include <libxml/parser.h>
#include <libxml/xmlerror.h>
#include <libxml/xmlversion.h>
#include <libxslt/xslt.h>
#include <libxslt/xsltutils.h>

#include "util/Assert.h"
#include "util/Logger.h"
#include "util/Thread.h"
#include "util/XmlLibImpl.h"

std::atomic<int> xml_setup_state{NOT_YET};

namespace {

Logger gLogger("XmlParser");

// The oldest library version whose interfaces this layer relies on.
constexpr int REQUIRED_LIBXML_VERSION = 20706;
constexpr int PARSER_DOMAIN = 1;

// Where ScopedXmlErrorCapture sends the lines of this thread, if anywhere.
thread_local Str* tCaptureSink = nullptr;
// The generic handler is fed pieces of lines; a line is logged once whole.
thread_local Str tPendingGeneric;

void structuredError(void* /*userData*/, xmlErrorPtr err) {
  if (err == nullptr || err->code == 0) return;
  const char* elementName = nullptr;
  const xmlNode* node = static_cast<const xmlNode*>(err->node);
  if (node != nullptr && node->type == XML_ELEMENT_NODE) {
    elementName = reinterpret_cast<const char*>(node->name);
  }
  const Str line = formatXmlErrorLine(err->file, err->line, err->domain, elementName, err->message);
  LogLevel level = LOGLEVEL_INFO;
  if (err->message == nullptr) level = err->level == XML_ERR_FATAL ? LOGLEVEL_FATAL : LOGLEVEL_ERROR;
  gLogger.log(level, "%s", line.c_str());
}

// Every request for another file or URL is refused, so no document can make
// the process read anything but itself.
xmlParserInputPtr refuseExternalEntity(const char* /*url*/, const char* /*id*/,
                                       xmlParserCtxtPtr /*ctxt*/) {
  return nullptr;
}

void installThreadHandlers() {
  xmlSetStructuredErrorFunc(nullptr, structuredError);
  xmlSetGenericErrorFunc(nullptr, xmlLibGenericError);
}

// Runs on every new Thread before its main(): libxml2 keeps its error
// handlers per thread.
void threadSetup() {
  int expected = NOT_YET;
  if (xml_setup_state.compare_exchange_strong(expected, THREAD_BEFORE_SETUP)) return;
  if (xml_setup_state == DID_SETUP) installThreadHandlers();
}

const bool gThreadHookRegistered = (Thread::setXmlThreadSetup(&threadSetup), true);

}  // namespace

void xmlLibGenericError(void* /*ctx*/, const char* msg, ...) {
  va_list args;
  va_start(args, msg);
  tPendingGeneric.appendVformat(msg, args);
  va_end(args);
  for (Str::size_type nl; (nl = tPendingGeneric.find('\n')) != Str::npos;) {
    const Str line = tPendingGeneric.substr(0, nl);
    tPendingGeneric.erase(0, nl + 1);
    if (line.empty()) continue;
    gLogger.info("%s", line.c_str());
    if (tCaptureSink != nullptr) {
      if (!tCaptureSink->empty()) tCaptureSink->push_back('\n');
      tCaptureSink->append(line);
    }
  }
}

ScopedXmlErrorCapture::ScopedXmlErrorCapture(Str* sink) : _previous(tCaptureSink) {
  tCaptureSink = sink;
}

ScopedXmlErrorCapture::~ScopedXmlErrorCapture() { tCaptureSink = _previous; }

const char* xmlErrorDomainName(int domain) {
  switch (domain) {
    case 1:
    case 13:
      return "parser";
    case 3:
      return "namespace";
    case 4:
    case 23:
      return "validity";
    case 5:
      return "HTML parser";
    case 6:
      return "memory";
    case 7:
      return "output";
    case 8:
      return "I/O";
    case 11:
      return "XInclude";
    case 12:
      return "XPath";
    case 14:
      return "regexp";
    case 16:
      return "Schemas parser";
    case 17:
      return "Schemas validity";
    case 18:
      return "Relax-NG parser";
    case 19:
      return "Relax-NG validity";
    case 20:
      return "Catalog";
    case 21:
      return "C14N";
    case 22:
      return "XSLT";
    case 26:
      return "module";
    case 27:
      return "encoding";
    default:
      return "";
  }
}

Str formatXmlErrorLine(const char* file, int line, int domain, const char* elementName,
                       const char* message) {
  Str out;
  if (file != nullptr && line != 0) {
    out.appendFormat("%s:%d: ", file, line);
  } else if (file != nullptr) {
    out.appendFormat("%s: ", file);
  } else if (line != 0 && domain == PARSER_DOMAIN) {
    out.appendFormat("Entity: line %d: ", line);
  }
  const char* name = xmlErrorDomainName(domain);
  if (*name != '\0') out.appendFormat("%s: ", name);
  if (elementName != nullptr) out.appendFormat("node \"%s\": ", elementName);
  if (message == nullptr) {
    out.append("out of memory");
  } else {
    out.append(message);
    while (!out.empty() && out.back() == '\n') out.pop_back();
  }
  return out;
}

ScopedXmlLibInit::ScopedXmlLibInit() {
  kassert(xml_setup_state == NOT_YET);
  (void)gThreadHookRegistered;
  installThreadHandlers();
  xmlThrDefSetStructuredErrorFunc(nullptr, structuredError);
  xmlThrDefSetGenericErrorFunc(nullptr, xmlLibGenericError);
  xmlSetExternalEntityLoader(refuseExternalEntity);
  xmlCheckVersion(REQUIRED_LIBXML_VERSION);
  xsltSetGenericErrorFunc(nullptr, xmlLibGenericError);
  xsltInit();
  xml_setup_state = DID_SETUP;
}

ScopedXmlLibInit::~ScopedXmlLibInit() {
  kassert(xml_setup_state == DID_SETUP);
  xsltCleanupGlobals();
  xmlCleanupParser();
  xml_setup_state = DID_CLEANUP;
}
