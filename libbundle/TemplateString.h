// TemplateString: the variables of the bootstrap file's patterns and
// write templates, such as "${apps-base}/*/local" or
// "data:${user}:${app}:${type}".
#pragma once

#include <map>

#include "util/Str.h"

// Stateless.
class TemplateString {
 public:
  typedef std::map<Str, Str> Variables;

  // Replaces `out` with `text`, each "${name}" replaced by the value of
  // `name` in `variables`. Returns false when a name is not in the map (the
  // reference then stays as written in `out`, so the result matches
  // nothing real) and true otherwise. A "$" that starts no "${...}", and an
  // unclosed "${", are copied as they stand. Values are not rescanned:
  //   "${a}/x", {a: "/r"}       "/r/x", true
  //   "${a}${a}", {a: "1"}      "11", true
  //   "$a/${b", {}              "$a/${b", true
  //   "${zz}", {}               "${zz}", false
  static bool realize(const Str& text, const Variables& variables, Str& out);
};
