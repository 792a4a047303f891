// Caseless comparison of UTF-8 byte ranges, the one behind every
// compareIgnoreCase. Pure function over caller-owned bytes; any thread.
#pragma once

#include <cstddef>

// Compares the `alen` bytes at `a` with the `blen` bytes at `b` without regard
// to case and returns -1, 0 or 1. It walks both texts one unit at a time: an
// ASCII byte on the left is compared at once with the right byte, both with
// A-Z folded ("a" vs "B" is -1, "k" vs U+212A KELVIN SIGN is -1, since the
// right side is not decoded then); otherwise each side's character is packed
// from its lead byte (a sequence cut off by the end is its lead byte alone)
// and, when the two differ, first the left and then the right is lowered by
// the Unicode tables before they are ordered as unsigned packed values
// ("Ä" equals "ä"). A text that is a caseless prefix of the other is less.
// REQUIRES: valid UTF-8 wherever the texts differ; a stray byte from 0x80 up
// that differs from its counterpart ends the process ("utf8bytes >= 0xC280").
int mem_compare_caseless(const char* a, size_t alen, const char* b, size_t blen);
