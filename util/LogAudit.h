// The signing seam of audit records: Logger::auditInfo asks an MAuditSigner
// for the signature field; the key operations live with the identity code.
#pragma once

#include "util/Str.h"

// Signs audit record text. Implementations say their own thread story;
// Logger calls sign() from whichever thread audits.
class MAuditSigner {
 public:
  virtual ~MAuditSigner() = default;
  // Stores the signature of `text` in *signature and returns true, or
  // returns false when it cannot sign.
  virtual bool sign(const Str& text, Str* signature) const = 0;
};
