// Regex: the one way to compile and run a Perl-compatible pattern over a
// StrSegment: whole-string and partial matching, named groups, replacement
// with back-references, and modular patterns that refer to others by name.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <stdexcept>

#include "util/Str.h"
#include "util/StrSegment.h"

class RegexMatch;
class RegexNameResolver;

// A pattern that would not compile or expand, or a group index out of
// range. what() is the whole message. Immutable; safe from any thread.
class RegexException : public std::runtime_error {
 public:
  explicit RegexException(const Str& message) : std::runtime_error(message) {}
};

// Immutable once built: any number of threads may match with one Regex at
// once, since the match state lives on the caller's stack, in a per-thread
// buffer and in the caller's RegexMatch. _internal_init, cleanup and
// assignment need the object to themselves.
class Regex {
 public:
  // Compile options, with the numeric values of the classic PCRE option bits
  // so that a stored option word keeps its meaning (1 is caseless). The
  // match-time bits of that word (0x80, 0x100, 0x400, 0x8000, 0x8000000,
  // 0x10000000) make compilation throw, and so do a newline field of 6 or 7
  // and both \R conventions at once.
  enum CompileOption : int {
    CASELESS = 0x00000001,
    MULTILINE = 0x00000002,
    DOTALL = 0x00000004,
    EXTENDED = 0x00000008,
    ANCHORED = 0x00000010,
    DOLLAR_ENDONLY = 0x00000020,
    EXTRA = 0x00000040,  // always in force: an unknown escape is an error
    UNGREEDY = 0x00000200,
    UTF8 = 0x00000800,  // always on; accepted for completeness
    NO_AUTO_CAPTURE = 0x00001000,
    NO_UTF8_CHECK = 0x00002000,
    AUTO_CALLOUT = 0x00004000,
    NEVER_UTF = 0x00010000,  // contradicts the UTF-8 mode: compilation throws
    NO_AUTO_POSSESS = 0x00020000,
    FIRSTLINE = 0x00040000,
    DUPNAMES = 0x00080000,
    // The newline convention, a three-bit field: CR, LF, CRLF (both),
    // ANY (every Unicode line end) and ANYCRLF; absent, LF.
    NEWLINE_CR = 0x00100000,
    NEWLINE_LF = 0x00200000,
    NEWLINE_CRLF = 0x00300000,
    NEWLINE_ANY = 0x00400000,
    NEWLINE_ANYCRLF = 0x00500000,
    // What \R matches: CR, LF or CRLF only, or every Unicode line end.
    BSR_ANYCRLF = 0x00800000,
    BSR_UNICODE = 0x01000000,
    JAVASCRIPT_COMPAT = 0x02000000,
    NO_START_OPTIMIZE = 0x04000000,
    UCP = 0x20000000,
  };

  // 0 searches anywhere in the subject; 1 demands that the match covers the
  // whole subject; 2 also takes a partial match (the subject ends while the
  // pattern could still match) as a hit.
  enum MatchMode { MATCH_SEARCH = 0, MATCH_WHOLE = 1, MATCH_PARTIAL = 2 };

  // Work limits for one match, so that a pathological pattern or subject
  // ends as a non-match instead of holding a thread. A pattern may lower
  // them with (*LIMIT_MATCH=n) or (*LIMIT_DEPTH=n) but never raise them.
  static constexpr uint32_t MATCH_LIMIT = 1000000;
  static constexpr uint32_t DEPTH_LIMIT = 100000;

  // An empty Regex: matches nothing.
  Regex();
  // Compiles as _internal_init does; throws RegexException likewise.
  explicit Regex(const Str& pattern, bool study = true, int options = 0);
  // Copies recompile the source text with the same study flag and options.
  Regex(const Regex& other);
  Regex& operator=(const Regex& other);
  Regex(Regex&& other) noexcept;
  Regex& operator=(Regex&& other) noexcept;
  virtual ~Regex();

  // Compiles `pattern` in UTF-8 mode with `options` (CompileOption bits),
  // together with its whole-string form "(?:pattern)\z". With `study` both
  // are also compiled to machine code, which only makes them faster. An
  // empty pattern compiles nothing and leaves a Regex that matches nothing.
  // Throws RegexException "Regex: <reason>" when the pattern does not
  // compile, leaving this Regex empty. A whole-string form that does not
  // compile (a pattern ending inside \Q, say) is not an error: whole-string
  // matching then falls back to the base pattern and a length check.
  void _internal_init(const Str& pattern, bool study, int options);
  // Releases both compiled forms and returns to the empty state.
  void cleanup();

  // Search (or, with `wholeString`, whole-subject match); see matchBase.
  bool match(StrSegment& subject, RegexMatch* out = nullptr, bool advance = false,
             bool wholeString = false) const;
  // The common path of every match. `out`, when given, is reset first and
  // filled on a hit; its segments point into the subject's bytes.
  // Returns false for an empty Regex, for a subject that is not valid UTF-8,
  // when a work limit is hit, and, with `advance` in modes 0 and 2, for an
  // empty subject (so that "x*" ends a loop of successive matches). In
  // mode 2 a partial match is a hit: "abc" partially matches "ab"; its
  // groups are all unset then. With `advance`, on a hit the subject's start
  // moves to the end of the match. Allocates only the group vector of `out`.
  // Subjects of 2 GiB or more never match (offsets are 32-bit).
  bool matchBase(StrSegment& subject, RegexMatch* out, bool advance, MatchMode mode) const;
  // matchBase in mode 2, without advance.
  bool matchesPartial(const Str& subject, RegexMatch* out) const;
  // Search or whole match of a subject that does not move.
  bool matches(const StrSegment& subject, RegexMatch* out = nullptr) const;
  bool matchesWhole(const StrSegment& subject, RegexMatch* out = nullptr) const;

  // Replaces every match in `input` by `replacement` into `output` (cleared
  // first); returns the number of replacements. See replace.
  size_t replaceAll(const StrSegment& input, const Str& replacement, Str& output,
                    bool expandBackrefs) const;
  // Replaces the matches whose 1-based ordinal is in `occurrences` (all of
  // them when it is empty) and returns how many were replaced. With
  // `expandBackrefs`, "\N" in `replacement` is group N (0 is the whole
  // match), "\\" is one backslash ahead of a reference, and "\N" with N above
  // the capture count stays as written. Empty matches are visited but the
  // one at the very end of the input is not: "x*" over "ab" with "-" gives
  // "-a-b". Stops once every listed occurrence is replaced.
  // REQUIRES: `output` does not share bytes with `input`.
  size_t replace(const StrSegment& input, const Str& replacement, Str& output,
                 const std::set<unsigned long>& occurrences, bool expandBackrefs) const;

  // Appends `in` to `out` with a backslash ahead of every byte that could
  // mean something in a pattern: ASCII letters, digits, "_" and bytes from
  // 0x80 stay as they are, NUL becomes "\0" ("\000" ahead of an octal
  // digit, which "\0" would swallow). "a.b" gives "a\.b". The result, as a
  // pattern, matches exactly `in` when `in` is valid UTF-8.
  static void escapeMetaChars(const Str& in, Str& out);
  // Whether `pattern` holds a `[[name]]` or `[[name:alias]]` reference not
  // preceded by a backslash.
  static bool isModularPattern(const Str& pattern);
  // Expands the pattern stored under `name` (a name, not a pattern text):
  // each reference is replaced by its own expansion, wrapped in "(?:...)"
  // when a quantifier follows it and in "(?<alias>...)" when it has an alias
  // and no named group of its own; an alias also prefixes the names of the
  // groups inside, so group "x" under alias "a" is "ax". Throws
  // RegexException for a missing name ("Regex - Cannot find regex reference:
  // b"), a cycle ("Regex - Circular dependency for modular regex: a") and
  // nesting past MODULAR_MAX_DEPTH or MODULAR_MAX_LENGTH bytes; each
  // enclosing level appends ", in regex: '<its name>'" to the message.
  static Str resolveModularPattern(const Str& name, const RegexNameResolver& resolver);
  static constexpr int MODULAR_MAX_DEPTH = 64;
  static constexpr size_t MODULAR_MAX_LENGTH = 1 << 20;

  // The source text, as given.
  const Str& getPattern() const { return _pattern; }
  // Whether a pattern is compiled; an empty Regex matches nothing.
  bool isCompiled() const { return _program != nullptr; }
  // The number of capturing groups.
  int32_t getCaptureCount() const { return _captureCount; }
  // Whether the pattern is anchored, by option or by its form ("^a", "\Aa").
  bool isAnchored() const { return _anchored; }
  // Group names and their numbers.
  const std::map<Str, int32_t>& getNameMap() const { return _nameToNumber; }
  // Whether a whole-string form compiled beside the pattern.
  bool hasWholeStringForm() const { return _wholeProgram != nullptr; }

 protected:
  // For a subclass whose subjects come from outside: from the next
  // _internal_init on, both compiled forms tolerate invalid UTF-8, so a
  // stray byte matches no pattern item while the text around it matches as
  // usual, instead of failing the whole subject. Copies keep the choice.
  void tolerateInvalidUtf8() { _tolerant = true; }
  // A search of the base form that allocates nothing once the thread's
  // match buffer has grown: on a hit fills offsets[0, 2 * pairs) with the
  // start and end of the match and of each group (-1 for a group that took
  // no part) and returns true. `pairs` must be getCaptureCount() + 1.
  // False for an empty Regex, no match, or a subject of 2 GiB or more.
  bool matchOffsets(const char* data, size_t len, int* offsets, uint32_t pairs) const;

 private:
  friend class StrSegment;
  struct Program;

  // The offset of the first match in [data, data + len) with the options of
  // StrSegment::mem_regexmatch, or npos.
  size_t _rawMatch(const char* data, size_t len, bool anchored, bool wholeString) const;

  // The compiled pattern; null when empty.
  std::unique_ptr<Program> _program;
  int32_t _captureCount = 0;
  std::map<Str, int32_t> _nameToNumber;
  bool _anchored = false;
  Str _pattern;
  // "(?:pattern)\z", anchored; null when it failed to compile.
  std::unique_ptr<Program> _wholeProgram;
  bool _study = false;
  int _options = 0;
  bool _tolerant = false;
};
