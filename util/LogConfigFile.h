// The one place where the logging configuration's bytes become text. It reads
// UTF-8, with or without a byte order mark; the Unicode streams take over
// here to read the other encodings as well.
#pragma once

#include "util/Pathname.h"
#include "util/Str.h"

// Reads the whole file at `path` into *text as UTF-8, without a leading
// byte order mark (EF BB BF). False, with errno set and *text cleared, when
// the file cannot be opened or read. Safe from any thread.
bool readLogConfigFile(const Pathname& path, Str* text);
