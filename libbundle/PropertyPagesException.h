// PropertyPagesException and its two kinds: why a page of layered
// configuration could not be had for a context. Immutable; safe from any
// thread.
#pragma once

#include <stdexcept>

#include "util/Str.h"

// A page that cannot serve its caller: no user info provider to say who
// is acting, for one. what() is the whole message.
class PropertyPagesException : public std::runtime_error {
 public:
  explicit PropertyPagesException(const Str& message) : std::runtime_error(message) {}
};

// The context itself is unusable: its application is unknown or disabled
// ("Application is disabled: <name>"), or its user and application do not
// go together ("<page>: Invalid configuration context: Missing app
// context").
class PropertyPagesContextException : public PropertyPagesException {
 public:
  explicit PropertyPagesContextException(const Str& message) : PropertyPagesException(message) {}
};

// The current user may not act as the context's user: "User '<current>'
// could not act as: <wanted>".
class PropertyPagesImpersonationException : public PropertyPagesException {
 public:
  explicit PropertyPagesImpersonationException(const Str& message)
      : PropertyPagesException(message) {}
};
