// Private to the XML layer: the capture of library error text into a value
// for the length of one operation, shared by the parser and the stylesheet
// code.
#pragma once

#include "util/Str.h"

// While one lives on a thread, every complete line the libraries report on
// that thread through the generic handler (stylesheet compilation and
// transformation report that way) is appended to `*sink`, one line feed
// between lines, besides being logged. Nests: the innermost wins. One owner:
// the thread that made it.
class ScopedXmlErrorCapture {
 public:
  explicit ScopedXmlErrorCapture(Str* sink);
  ~ScopedXmlErrorCapture();
  ScopedXmlErrorCapture(const ScopedXmlErrorCapture&) = delete;
  ScopedXmlErrorCapture& operator=(const ScopedXmlErrorCapture&) = delete;

 private:
  Str* _previous;
};

// The generic error handler of the libraries, printf-style and called with
// pieces of lines; exposed so that a stylesheet transformation can route its
// own errors through it.
void xmlLibGenericError(void* ctx, const char* msg, ...) __attribute__((format(printf, 2, 3)));
