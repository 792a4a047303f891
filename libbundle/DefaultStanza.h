// The name of the stanza whose settings every context falls back on, as the
// provenance code compares it. It must spell the same as IniFile's
// DEFAULT_STANZA; once both live in one library, that constant replaces
// this one.
#pragma once

inline constexpr const char* kDefaultStanzaName = "default";
