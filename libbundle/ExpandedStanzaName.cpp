#include "libbundle/ExpandedStanzaName.h"

#include "util/EnvironmentSubstitution.h"

const char ExpandedStanzaName::BUNDLE_ROOT_MARKER[] = "://./";

ExpandedStanzaName::ExpandedStanzaName(const Str& name, const Pathname& root) {
  Str marked(name);
  const size_t at = marked.find(BUNDLE_ROOT_MARKER);
  // The "." sits three bytes into the marker, after "://".
  if (at != Str::npos) marked.replace(at + 3, 1, root);
  substituteEnvironmentVariables(marked, _expanded);
  _isExpanded = _expanded != name;
}
