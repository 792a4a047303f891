// The one place where the logging configuration's bytes become text. The
// file is read through the Unicode streams, so it may be UTF-8, UTF-16 or
// UTF-32, with or without a byte order mark.
#pragma once

#include "util/Pathname.h"
#include "util/Str.h"

// Reads the whole file at `path` into *text as UTF-8: its lines, each ended
// by "\n" (a "\r" ahead of a line end is dropped), without a mark. False,
// with errno set and *text cleared, when the file cannot be opened or read.
// Safe from any thread.
bool readLogConfigFile(const Pathname& path, Str* text);
