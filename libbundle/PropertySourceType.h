// PropertySourceType: which layer of configuration a value came from, as a
// number that orders layers by how specific they are.
#pragma once

#include <cstdint>

// A higher value is a more specific layer and wins wherever layers compete
// by type. The values are stored and compared as they are, so they must not
// be renumbered.
enum PropertySourceType : int32_t {
  SOURCE_UNSET = 0,             // no layer has set this
  SOURCE_SYSTEM_DEFAULT = 1,    // the application-default layer
  SOURCE_GLOBAL_OTHER_APP = 2,  // exported to all, from an application other than the context's
  SOURCE_GLOBAL_SAME_APP = 3,   // exported to all, from the context's own application
  SOURCE_APP = 4,               // visible in its own application only
  SOURCE_USER = 5,              // private to a user
};
