// Logger's audit records: "Audit:[<fields>, signature=<signature>]" at INFO.
#include <cstdarg>

#include "util/LogAudit.h"
#include "util/Logger.h"
#include "util/ScopedErrnoSaver.h"

Str Logger::auditInfoInternal(const MAuditSigner* signer, const Str& text) {
  Str signature;
  if (signer == nullptr || !signer->sign(text, &signature)) {
    signature = "encryption error - not valid";
  }
  Str record("Audit:[");
  record.append(text);
  record.append(", signature=");
  record.append(signature);
  record.push_back(']');
  return record;
}

void Logger::auditInfo(const MAuditSigner* signer, const Str& text) {
  if (!isEnabled(LOGLEVEL_INFO)) return;
  ScopedErrnoSaver keep;
  cpp_do_log(this, LOGLEVEL_INFO, auditInfoInternal(signer, text));
}

void Logger::auditInfo(const char* fmt, ...) {
  if (!isEnabled(LOGLEVEL_INFO)) return;
  ScopedErrnoSaver keep;
  Str text;
  va_list args;
  va_start(args, fmt);
  vformat(text, keep.saved(), fmt, args);
  va_end(args);
  cpp_do_log(this, LOGLEVEL_INFO, auditInfoInternal(nullptr, text));
}

void Logger::auditInfo(const std::exception& e) { auditInfo(nullptr, Str(e.what())); }
