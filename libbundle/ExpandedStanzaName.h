// ExpandedStanzaName: a stanza name with its bundle-relative marker and its
// environment variables resolved, as in [monitor://./logs] read from the
// bundle /opt/k/etc/apps/search.
#pragma once

#include "util/Pathname.h"
#include "util/Str.h"

// A plain value, computed once in the constructor.
class ExpandedStanzaName {
 public:
  // The marker that stands for the root of the bundle a stanza lies in.
  static const char BUNDLE_ROOT_MARKER[];  // "://./"

  // The "." of the first "://./" in `name` becomes `root`, then environment
  // variables are substituted (substituteEnvironmentVariables):
  //   "monitor://./logs", root "/k/apps/a"  "monitor:///k/apps/a/logs"
  //   "monitor://$HOME/x", HOME=/h          "monitor:///h/x"
  //   "a://./b://./c", root "/r"            "a:///r/b://./c" (first only)
  //   "plain"                               "plain"
  ExpandedStanzaName(const Str& name, const Pathname& root);

  const Str& str() const { return _expanded; }
  // Whether the expansion differs from the name as written.
  bool isExpanded() const { return _isExpanded; }

 private:
  Str _expanded;
  bool _isExpanded;
};
