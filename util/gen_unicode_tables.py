#!/usr/bin/env python3
"""Writes util/UnicodeTables.cpp from the Unicode character database.

    python3 util/gen_unicode_tables.py [UCD-DIRECTORY] > util/UnicodeTables.cpp

The directory defaults to /usr/share/unicode (the unicode-data package). Output
depends on the data files alone, so a rerun on the same data is byte-identical.

Every key is a character's UTF-8 bytes packed big-end first into 32 bits
(U+00E9 is 0xC3A9), the form in which the C++ side meets characters in text.

Character table. Every code point of the Basic Multilingual Plane from U+0080
on is itemised. The supplementary planes (four-byte UTF-8) share one row that
carries the flags every graphic character there has in common, which is
"printable" alone: itemising them would more than double the table for
characters that log text seldom holds, and none of them folds. A row covers
its key up to the next key, so consecutive characters with identical flags
and XOR delta merge, and a run of alternating pairs (upper case at an even
packed value, its lower case one above) is one row of case kind 3. The last
row, 0xFFFFFFFF, has no flags. The flags, from UnicodeData.txt unless named:
  alphabetic   Alphabetic (DerivedCoreProperties.txt)
  case kind    1 when the character has a simple lower-case mapping (title
               case included), 2 when it has only an upper-case mapping;
               the low 24 bits are packed(character) ^ packed(mapping)
  digit        general category Nd
  space        White_Space (PropList.txt)
  control      general category Cc
  printable    Unicode's graphic characters: categories L, M, N, P, S, Zs
  punctuation  categories P and S, as the C library counts $ + < = > ^ ` | ~

Combining marks. Canonical composition (NFC) never yields a character with
Full_Composition_Exclusion (DerivedNormalizationProps.txt), so the tables
hold exactly the characters that it does yield: each decomposes fully into a
starter and one or more marks. The marks are every mark that occurs there,
one mask bit each in packed order. A composite enters the replacement table
under the mask of its marks with its starter as base, and also under each
shorter mask with the partly composed character of its decomposition chain
as base, so that U+00FC followed by U+0304 resolves as well as "u" followed
by both marks; the shorter masks add no combination of their own.

A mask forgets the order of its marks. The only base whose marks compose to
two characters depending on their order is "u"/"U" with diaeresis and macron:
U+01D5/U+01D6 (0xC795/0xC796) take the diaeresis first, U+1E7A/U+1E7B the
macron. The table keeps the lower value and UNICODE_MARK_ORDER_VARIANTS tells
the resolver which first mark calls for the other.

The sizes of all tables are fixed in util/UnicodeTables.h; the generator
refuses to write tables of other sizes, so that new data is a deliberate
change of header and tables together.
"""

import collections
import os
import re
import sys

UCD = sys.argv[1] if len(sys.argv) > 1 else '/usr/share/unicode'

ALPHA, UPPER, LOWER, PAIRS = 1 << 31, 1 << 29, 2 << 29, 3 << 29
DIGIT, SPACE, CNTRL, PRINT, PUNCT = 1 << 28, 1 << 27, 1 << 26, 1 << 25, 1 << 24
CASE_MASK, DELTA_MASK = 3 << 29, (1 << 24) - 1
EXPECTED = {'characters': 1600, 'marks': 63, 'combinations': 116}


def ucd_path(name):
    return os.path.join(UCD, name)


def read_unicode_data():
    """Code point -> UnicodeData.txt fields, with First/Last ranges expanded."""
    chars, first = {}, None
    with open(ucd_path('UnicodeData.txt'), encoding='utf-8') as f:
        for line in f:
            fields = line.rstrip('\n').split(';')
            cp = int(fields[0], 16)
            if fields[1].endswith(', First>'):
                first = cp
            elif fields[1].endswith(', Last>'):
                for c in range(first, cp + 1):
                    chars[c] = fields
            else:
                chars[cp] = fields
    return chars


def read_property(name, prop):
    """The set of code points that `name` lists with property `prop`."""
    found = set()
    with open(ucd_path(name), encoding='utf-8') as f:
        for line in f:
            body = line.split('#', 1)[0].split(';')
            if len(body) < 2 or body[1].strip() != prop:
                continue
            lo, _, hi = body[0].strip().partition('..')
            found.update(range(int(lo, 16), int(hi or lo, 16) + 1))
    return found


def read_version():
    with open(ucd_path('DerivedCoreProperties.txt'), encoding='utf-8') as f:
        return re.search(r'DerivedCoreProperties-([\d.]+)\.txt', f.readline()).group(1)


def packed(cp):
    value = 0
    for b in chr(cp).encode('utf-8'):
        value = (value << 8) | b
    return value


CHARS = read_unicode_data()
ALPHABETIC = read_property('DerivedCoreProperties.txt', 'Alphabetic')
WHITE_SPACE = read_property('PropList.txt', 'White_Space')
NO_COMPOSE = read_property('DerivedNormalizationProps.txt', 'Full_Composition_Exclusion')


def category(cp):
    return CHARS[cp][2] if cp in CHARS else 'Cn'


def mapping(cp, field):
    value = CHARS[cp][field] if cp in CHARS else ''
    return int(value, 16) if value else None


def class_flags(cp):
    """The flags of one code point, without case kind and delta."""
    gc = category(cp)
    flags = 0
    if cp in ALPHABETIC:
        flags |= ALPHA
    if gc == 'Nd':
        flags |= DIGIT
    if cp in WHITE_SPACE:
        flags |= SPACE
    if gc == 'Cc':
        flags |= CNTRL
    if gc[0] in 'LMNPS' or gc == 'Zs':
        flags |= PRINT
    if gc[0] in 'PS':
        flags |= PUNCT
    return flags


def full_flags(cp):
    """Flags with case kind and XOR delta, as a row for `cp` alone would hold."""
    lower, upper = mapping(cp, 13), mapping(cp, 12)
    flags = class_flags(cp)
    if lower is not None or upper is not None:
        delta = packed(cp) ^ packed(lower if lower is not None else upper)
        assert delta <= DELTA_MASK, 'case delta too wide: U+%04X' % cp
        flags |= (UPPER if lower is not None else LOWER) | delta
    return flags


def is_pair(cp):
    """Whether cp is the upper half of an alternating pair, cp + 1 the lower."""
    return (packed(cp) % 2 == 0 and mapping(cp, 13) == cp + 1 and mapping(cp, 12) is None
            and mapping(cp + 1, 12) == cp and mapping(cp + 1, 13) is None
            and class_flags(cp) == class_flags(cp + 1))


def character_rows():
    cps = [cp for cp in range(0x80, 0x10000) if not 0xD800 <= cp <= 0xDFFF]
    rows, i = [], 0
    while i < len(cps):
        cp = cps[i]
        if is_pair(cp):
            j = i + 2
            while j + 1 < len(cps) and is_pair(cps[j]) and class_flags(cps[j]) == class_flags(cp):
                j += 2
            rows.append((cp, class_flags(cp) | PAIRS))
        else:
            flags, j = full_flags(cp), i + 1
            while j < len(cps) and not is_pair(cps[j]) and full_flags(cps[j]) == flags:
                j += 1
            rows.append((cp, flags))
        i = j
    graphic = [cp for cp in CHARS if cp > 0xFFFF and class_flags(cp) & PRINT]
    shared = class_flags(graphic[0])
    for cp in graphic:
        shared &= class_flags(cp)
    if shared != rows[-1][1]:
        rows.append((0x10000, shared))
    return [(packed(cp), flags, 'U+%04X' % cp) for cp, flags in rows] + [
        (0xFFFFFFFF, 0, 'end')]


def decomposition(cp):
    """The canonical one-step decomposition of cp, or None."""
    value = CHARS[cp][5] if cp in CHARS else ''
    if not value or value.startswith('<'):
        return None
    return [int(x, 16) for x in value.split()]


def composites():
    """(composite, chain): chain lists (base, marks after it) from the
    composite's own one-step decomposition down to its starter."""
    found = []
    for cp in sorted(CHARS):
        if cp in NO_COMPOSE or decomposition(cp) is None:
            continue
        chain, base, marks = [], cp, []
        while decomposition(base) is not None:
            parts = decomposition(base)
            assert len(parts) == 2 and decomposition(parts[1]) is None, hex(cp)
            base, marks = parts[0], [parts[1]] + marks
            assert all(category(m)[0] == 'M' for m in marks), hex(cp)
            chain.append((base, marks))
        found.append((cp, chain))
    return found


def mark_tables():
    comps = composites()
    marks = sorted({m for _, chain in comps for m in chain[-1][1]}, key=packed)
    bit = {m: 1 << i for i, m in enumerate(marks)}
    entries = collections.defaultdict(dict)  # mask -> base -> [(composite, marks)]
    for cp, chain in comps:
        for base, after in chain:
            mask = 0
            for m in after:
                mask |= bit[m]
            entries[mask].setdefault(base, []).append((cp, after))
    variants = []
    for mask, by_base in entries.items():
        for base, found in by_base.items():
            if len(found) == 1:
                by_base[base] = found[0][0]
                continue
            assert len(found) == 2 and found[0][1][0] != found[1][1][0], hex(base)
            kept, other = sorted(found, key=lambda f: packed(f[0]))
            by_base[base] = kept[0]
            variants.append((packed(base), packed(kept[0]), packed(other[1][0]),
                             packed(other[0])))
    return marks, bit, entries, sorted(variants)


def main():
    out = sys.stdout
    rows = character_rows()
    marks, bit, entries, variants = mark_tables()
    counts = {'characters': len(rows), 'marks': len(marks), 'combinations': len(entries)}
    assert counts == EXPECTED, counts
    out.write('// Generated by util/gen_unicode_tables.py from the Unicode %s character '
              'database. Do not edit.\n' % read_version())
    out.write('// Layout and rules: util/UnicodeTables.h and the generator.\n')
    out.write('#include "util/UnicodeTables.h"\n\n#include <iterator>\n\n')

    out.write('const UnicodeCharacterRow UNICODE_CHARACTER_TABLE[] = {\n')
    for key, flags, note in rows:
        out.write('    {0x%X, 0x%08X},  // %s\n' % (key, flags, note))
    out.write('};\nstatic_assert(std::size(UNICODE_CHARACTER_TABLE) == UNICODE_CHARACTER_ROWS);\n\n')

    out.write('const UnicodeCombiningMark UNICODE_COMBINING_MARKS[] = {\n')
    for m in marks:
        out.write('    {0x%X, 0x%016XULL},  // U+%04X %s\n' % (packed(m), bit[m], m, CHARS[m][1]))
    out.write('};\nstatic_assert(std::size(UNICODE_COMBINING_MARKS) == UNICODE_COMBINING_MARK_ROWS);\n\n')

    out.write('const UnicodeBaseReplacement UNICODE_BASE_REPLACEMENTS[] = {\n')
    combos, start = [], 0
    for mask in sorted(entries):
        pairs = sorted((packed(b), packed(c), b, c) for b, c in entries[mask].items())
        for pb, pc, b, c in pairs:
            out.write('    {0x%X, 0x%X},  // U+%04X -> U+%04X\n' % (pb, pc, b, c))
        combos.append((mask, start, len(pairs)))
        start += len(pairs)
    out.write('};\n\n')

    out.write('const UnicodeMarkCombination UNICODE_MARK_COMBINATIONS[] = {\n')
    for mask, first, count in combos:
        out.write('    {0x%016XULL, %d, %d},\n' % (mask, first, count))
    out.write('};\nstatic_assert(std::size(UNICODE_MARK_COMBINATIONS) == '
              'UNICODE_MARK_COMBINATION_ROWS);\n')
    out.write('static_assert(std::size(UNICODE_BASE_REPLACEMENTS) == %d);\n\n' % start)

    out.write('const UnicodeMarkOrderVariant UNICODE_MARK_ORDER_VARIANTS[] = {\n')
    for base, kept, first, other in variants:
        out.write('    {0x%X, 0x%X, 0x%X, 0x%X},\n' % (base, kept, first, other))
    out.write('};\nstatic_assert(std::size(UNICODE_MARK_ORDER_VARIANTS) == '
              'UNICODE_MARK_ORDER_VARIANT_ROWS);\n')


if __name__ == '__main__':
    main()
