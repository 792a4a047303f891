// Feeds arbitrary bytes to the meta-key text parser and checks what holds for
// every input: parsing never fails, printing what was parsed and parsing it
// again gives the same text (printing is a fixed point), copies print alike,
// and subsecond codes decode back to text that encodes to the same code.
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "framework/PipelineDataMetaKey.h"

namespace {

void check(bool ok, const char* what) {
  if (!ok) {
    fprintf(stderr, "property broken: %s\n", what);
    abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const char* text = reinterpret_cast<const char*>(data);
  PipelineDataMetaKey meta;
  meta.parse(text, text + size);
  Str once;
  meta.appendTo(&once, StrSegment(), nullptr);

  PipelineDataMetaKey again;
  again.parse(once.data(), once.data() + once.size());
  check(again.atoms().size() == meta.atoms().size(), "atom count survives a round trip");
  Str twice;
  again.appendTo(&twice, StrSegment(), nullptr);
  check(twice == once, "printing is a fixed point of parse-then-print");

  PipelineDataMetaKey copy(meta);
  Str copied;
  copy.appendTo(&copied, StrSegment(), nullptr);
  check(copied == once, "a copy prints as its original");

  for (const PipelineDataMetaKeyAtom& atom : meta.atoms()) {
    if (atom.valueType() != PDMKD_ENCODED_SUBSECONDS) continue;
    Str decoded;
    PipelineDataMetaKey::decodeSubseconds(atom.valueAsUnsigned(), &decoded);
    uint64_t code = 0;
    check(PipelineDataMetaKey::encodeSubseconds(decoded.data(), decoded.data() + decoded.size(),
                                                &code) &&
              code == atom.valueAsUnsigned(),
          "subsecond codes decode to text that encodes back");
  }
  return 0;
}
