// The process-wide set-up of the XML libraries: error hooks that go to the
// Logger, an external entity loader that refuses everything, and the state
// that makes the set-up happen once, before any second thread.
#pragma once

#include <atomic>

#include "util/Str.h"

// NOT_YET until ScopedXmlLibInit runs; THREAD_BEFORE_SETUP when a Thread
// started first (a later set-up then fails its assertion); DID_SETUP while
// the libraries may be used; DID_CLEANUP after the end.
enum XmlSetupState { NOT_YET = 0, DID_SETUP = 1, THREAD_BEFORE_SETUP = 2, DID_CLEANUP = 3 };

// Written by the main thread at start-up and at the end, and by a Thread
// that starts before the set-up; atomic so that such a thread is seen.
extern std::atomic<int> xml_setup_state;

// Brackets the life of the XML libraries in one process; constructed once at
// the top of main, before any Thread. Not copyable; one per process ever.
class ScopedXmlLibInit {
 public:
  // Installs the structured and generic error handlers (for this thread and
  // as the default of later ones) and the refusing entity loader, checks the
  // library's version, starts the stylesheet engine and moves to DID_SETUP.
  // REQUIRES: xml_setup_state == NOT_YET (checked).
  ScopedXmlLibInit();
  // Releases the libraries' globals and moves to DID_CLEANUP.
  // REQUIRES: xml_setup_state == DID_SETUP (checked).
  ~ScopedXmlLibInit();
  ScopedXmlLibInit(const ScopedXmlLibInit&) = delete;
  ScopedXmlLibInit& operator=(const ScopedXmlLibInit&) = delete;
};

// The name a libxml2 error domain number is logged under: 1 and 13 are
// "parser", 8 "I/O", 22 "XSLT"...; "" for a number with no name (0, 2, 9,
// 10, 15, 24, 25 and anything past 27).
const char* xmlErrorDomainName(int domain);

// The line the structured handler logs for one error, from its parts:
// "<file>:<line>: ", "<file>: " or, for a parser-domain error with a line
// but no file, "Entity: line <line>: "; then "<domain>: " when the domain
// has a name, 'node "<name>": ' when `elementName` is not null, then
// `message` without its trailing line feeds. A null message reads "out of
// memory".
Str formatXmlErrorLine(const char* file, int line, int domain, const char* elementName,
                       const char* message);
