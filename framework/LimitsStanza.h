// One stanza of the "limits" configuration, for the settings that bound
// searches and their results.
#pragma once

#include "libbundle/PropertiesMap.h"

// Fills `out` with stanza `name` of the "limits" page of the default root
// and returns true; false when the stanza, or any configuration at all
// (tools, tests), is missing, so the caller's built-in defaults apply.
bool getLimitsStanza(const char* name, PropertiesMap& out);
