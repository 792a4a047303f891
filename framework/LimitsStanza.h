// Stanzas of the configuration pages that bound and shape searches:
// "limits", "segmenters", "fields".
#pragma once

#include "libbundle/PropertiesMap.h"

class PropertyPagesContext;
class Str;

// Fills `out` with stanza `name` of the "limits" page of the default root
// and returns true; false when the stanza, or any configuration at all
// (tools, tests), is missing, so the caller's built-in defaults apply.
bool getLimitsStanza(const char* name, PropertiesMap& out);

// The same for stanza `stanza` of page `conf`, in `context` (the default
// root, no user or application, when null).
bool getConfStanza(const char* conf, const Str& stanza, const PropertyPagesContext* context,
                   PropertiesMap& out);
