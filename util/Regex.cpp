// Compiling and running patterns: the one file that speaks to PCRE2 for
// Regex. Replacement and modular expansion sit in RegexReplace.cpp and
// RegexModular.cpp and use only the public interface.
#include "util/Regex.h"

#include <climits>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>

#include "util/Assert.h"
#include "util/Logger.h"
#include "util/RegexMatch.h"

namespace {

Logger gLogger("Regex");

// The classic option bits and what they are in PCRE2. Two map to nothing:
// EXTRA (0x40), since PCRE2 always refuses an unknown escape, which is what
// it asked for; and NO_UTF8_CHECK (0x2000), since an unchecked pattern that
// is not UTF-8 is undefined behaviour in the compiler, and the check costs
// one pass over the pattern text. The newline and \R conventions are not option bits in PCRE2 and go
// through the compile context (see CompileSettings).
const struct {
  int classic;
  uint32_t pcre2;
} kOptionMap[] = {
    {Regex::CASELESS, PCRE2_CASELESS},
    {Regex::MULTILINE, PCRE2_MULTILINE},
    {Regex::DOTALL, PCRE2_DOTALL},
    {Regex::EXTENDED, PCRE2_EXTENDED},
    {Regex::ANCHORED, PCRE2_ANCHORED},
    {Regex::DOLLAR_ENDONLY, PCRE2_DOLLAR_ENDONLY},
    {Regex::EXTRA, 0},
    {Regex::UNGREEDY, PCRE2_UNGREEDY},
    {Regex::UTF8, PCRE2_UTF},
    {Regex::NO_AUTO_CAPTURE, PCRE2_NO_AUTO_CAPTURE},
    {Regex::NO_UTF8_CHECK, 0},
    {Regex::AUTO_CALLOUT, PCRE2_AUTO_CALLOUT},
    {Regex::NEVER_UTF, PCRE2_NEVER_UTF},
    {Regex::NO_AUTO_POSSESS, PCRE2_NO_AUTO_POSSESS},
    {Regex::FIRSTLINE, PCRE2_FIRSTLINE},
    {Regex::DUPNAMES, PCRE2_DUPNAMES},
    {Regex::JAVASCRIPT_COMPAT, PCRE2_ALT_BSUX | PCRE2_ALLOW_EMPTY_CLASS | PCRE2_MATCH_UNSET_BACKREF},
    {Regex::NO_START_OPTIMIZE, PCRE2_NO_START_OPTIMIZE},
    {Regex::UCP, PCRE2_UCP},
};

// The classic newline field (three bits from 0x100000) by value: 0 keeps
// the build's default, 6 and 7 name no convention.
constexpr int kNewlineMask = 0x700000;
constexpr uint32_t kNewlineByField[8] = {
    0, PCRE2_NEWLINE_CR, PCRE2_NEWLINE_LF, PCRE2_NEWLINE_CRLF, PCRE2_NEWLINE_ANY,
    PCRE2_NEWLINE_ANYCRLF, 0, 0,
};

// A classic option word in PCRE2 terms: option bits, plus the newline and
// \R conventions (0 for the default) that need a compile context.
struct CompileSettings {
  uint32_t options = 0;
  uint32_t newline = 0;
  uint32_t bsr = 0;
};

// Null when `options` can be translated, else the reason it cannot.
const char* translateOptions(int options, CompileSettings* out) {
  int known = kNewlineMask | Regex::BSR_ANYCRLF | Regex::BSR_UNICODE;
  for (const auto& o : kOptionMap) {
    known |= o.classic;
    if (options & o.classic) out->options |= o.pcre2;
  }
  if ((options & ~known) != 0) return "Regex: unrecognised compile-time option bit(s)";
  const int field = (options & kNewlineMask) >> 20;
  if (field >= 6) return "Regex: inconsistent newline options";
  out->newline = kNewlineByField[field];
  if ((options & Regex::BSR_ANYCRLF) && (options & Regex::BSR_UNICODE)) {
    return "Regex: inconsistent \\R options";
  }
  if (options & Regex::BSR_ANYCRLF) out->bsr = PCRE2_BSR_ANYCRLF;
  if (options & Regex::BSR_UNICODE) out->bsr = PCRE2_BSR_UNICODE;
  return nullptr;
}

// The compile context of the forms that mem_regexmatch runs: any Unicode
// line end is a newline, and \R is any Unicode line end. Shared read-only.
pcre2_compile_context* rawCompileContext() {
  static pcre2_compile_context* const context = [] {
    pcre2_compile_context* c = pcre2_compile_context_create(nullptr);
    pcre2_set_newline(c, PCRE2_NEWLINE_ANY);
    pcre2_set_bsr(c, PCRE2_BSR_UNICODE);
    return c;
  }();
  return context;
}

// The stack of machine-code matches on this thread, reserved on first use.
// The default of 32 KiB ends a match such as "^(a|b)*$" over a few thousand
// bytes; the interpreter's depth limit allows far more.
class ThreadJitStack {
 public:
  ~ThreadJitStack() { pcre2_jit_stack_free(_stack); }

  pcre2_jit_stack* get() {
    if (_stack == nullptr) _stack = pcre2_jit_stack_create(32 * 1024, JIT_STACK_MAX, nullptr);
    return _stack;
  }

 private:
  static constexpr size_t JIT_STACK_MAX = 4 * 1024 * 1024;
  pcre2_jit_stack* _stack = nullptr;
};

thread_local ThreadJitStack tJitStack;

// A null stack makes PCRE2 fall back to its own small one.
pcre2_jit_stack* threadJitStack(void*) { return tJitStack.get(); }

// The work limits of every match. pcre2_match only reads the context, so
// one serves all threads; the stack callback picks each thread's own.
pcre2_match_context* limitedMatchContext() {
  static pcre2_match_context* const context = [] {
    pcre2_match_context* c = pcre2_match_context_create(nullptr);
    pcre2_set_match_limit(c, Regex::MATCH_LIMIT);
    pcre2_set_depth_limit(c, Regex::DEPTH_LIMIT);
    pcre2_jit_stack_assign(c, threadJitStack, nullptr);
    return c;
  }();
  return context;
}

// Per-thread match data, grown to the largest group count seen, so that a
// match allocates nothing once a thread has warmed up. PCRE2 keeps its
// backtracking frames in the block too, and reuses them.
class ThreadMatchData {
 public:
  ~ThreadMatchData() { pcre2_match_data_free(_data); }

  pcre2_match_data* get(uint32_t pairs) {
    if (_data == nullptr || _pairs < pairs) {
      pcre2_match_data_free(_data);
      _pairs = pairs < 16 ? 16 : pairs;
      _data = pcre2_match_data_create(_pairs, nullptr);
    }
    return _data;
  }

 private:
  pcre2_match_data* _data = nullptr;
  uint32_t _pairs = 0;
};

thread_local ThreadMatchData tMatchData;

// Runs one match; the ovector of a hit goes to *ovector, and *partial says
// whether it was a partial one.
// Every failure, a work limit or invalid UTF-8 among them, is a non-match.
bool runMatch(const pcre2_code* code, uint32_t pairs, const char* data, size_t len,
              uint32_t options, const PCRE2_SIZE** ovector, bool* partial) {
  pcre2_match_data* md = tMatchData.get(pairs);
  if (md == nullptr) return false;
  const int rc = pcre2_match(code, reinterpret_cast<PCRE2_SPTR>(data), len, 0, options, md,
                             limitedMatchContext());
  if (rc < 0 && rc != PCRE2_ERROR_PARTIAL) return false;
  const PCRE2_SIZE* ov = pcre2_get_ovector_pointer(md);
  // \K can leave the start behind the end; such a match has no span.
  if (ov[0] > ov[1]) return false;
  *ovector = ov;
  *partial = rc == PCRE2_ERROR_PARTIAL;
  return true;
}

Str compileErrorText(int errorCode) {
  PCRE2_UCHAR buffer[256];
  if (pcre2_get_error_message(errorCode, buffer, sizeof buffer) < 0) {
    Str text;
    return text.format("error %d", errorCode);
  }
  return Str(reinterpret_cast<const char*>(buffer));
}

}  // namespace

// One compiled form. The form for mem_regexmatch differs only in its
// newline convention and in tolerating invalid UTF-8, so it is compiled on
// first use, once, whichever thread gets there first.
struct Regex::Program {
  pcre2_code* code = nullptr;
  Str source;
  uint32_t options = 0;
  bool study = false;
  // Machine code for complete matches exists, so the direct entry may be used.
  bool jit = false;
  std::once_flag rawOnce;
  pcre2_code* raw = nullptr;

  ~Program() {
    pcre2_code_free(code);
    pcre2_code_free(raw);
  }

  // Null with *errorCode set when the text does not compile.
  static std::unique_ptr<Program> build(const Str& source, const CompileSettings& settings,
                                        bool study, int* errorCode) {
    PCRE2_SIZE errorOffset = 0;
    pcre2_compile_context* context = nullptr;
    if (settings.newline != 0 || settings.bsr != 0) {
      context = pcre2_compile_context_create(nullptr);
      if (settings.newline != 0) pcre2_set_newline(context, settings.newline);
      if (settings.bsr != 0) pcre2_set_bsr(context, settings.bsr);
    }
    pcre2_code* code = pcre2_compile(reinterpret_cast<PCRE2_SPTR>(source.data()), source.size(),
                                     settings.options, errorCode, &errorOffset, context);
    pcre2_compile_context_free(context);
    if (code == nullptr) return nullptr;
    // A failed JIT compile only costs speed; the interpreter takes over.
    const bool jit =
        study && pcre2_jit_compile(code, PCRE2_JIT_COMPLETE | PCRE2_JIT_PARTIAL_SOFT) == 0;
    std::unique_ptr<Program> p(new Program);
    p->jit = jit;
    p->code = code;
    p->source = source;
    p->options = settings.options;
    p->study = study;
    return p;
  }

  // The mem_regexmatch form, or null when it does not compile (a comment in
  // extended mode can end at a different byte under the wider newline set).
  const pcre2_code* getRaw() {
    std::call_once(rawOnce, [this] {
      int errorCode = 0;
      PCRE2_SIZE errorOffset = 0;
      raw = pcre2_compile(reinterpret_cast<PCRE2_SPTR>(source.data()), source.size(),
                          options | PCRE2_MATCH_INVALID_UTF, &errorCode, &errorOffset,
                          rawCompileContext());
      if (raw != nullptr && study) pcre2_jit_compile(raw, PCRE2_JIT_COMPLETE);
    });
    return raw;
  }
};

Regex::Regex() = default;

Regex::Regex(const Str& pattern, bool study, int options) { _internal_init(pattern, study, options); }

Regex::Regex(const Regex& other) : _tolerant(other._tolerant) {
  if (other._program) {
    _internal_init(other._pattern, other._study, other._options);
  } else {
    _pattern = other._pattern;
    _study = other._study;
    _options = other._options;
  }
}

Regex& Regex::operator=(const Regex& other) {
  if (this != &other) {
    Regex copy(other);
    *this = std::move(copy);
  }
  return *this;
}

Regex::Regex(Regex&& other) noexcept = default;
Regex& Regex::operator=(Regex&& other) noexcept = default;
Regex::~Regex() = default;

void Regex::cleanup() {
  _program.reset();
  _wholeProgram.reset();
  _captureCount = 0;
  _nameToNumber.clear();
  _anchored = false;
  _pattern.clear();
}

void Regex::_internal_init(const Str& pattern, bool study, int options) {
  cleanup();
  _pattern = pattern;
  _study = study;
  _options = options;
  if (pattern.empty()) return;

  CompileSettings settings;
  if (const char* refusal = translateOptions(options, &settings)) throw RegexException(refusal);
  settings.options |= PCRE2_UTF;
  if (_tolerant) settings.options |= PCRE2_MATCH_INVALID_UTF;
  int errorCode = 0;
  std::unique_ptr<Program> program = Program::build(pattern, settings, study, &errorCode);
  if (!program) throw RegexException("Regex: " + compileErrorText(errorCode));

  uint32_t captureCount = 0;
  pcre2_pattern_info(program->code, PCRE2_INFO_CAPTURECOUNT, &captureCount);
  _captureCount = static_cast<int32_t>(captureCount);
  uint32_t allOptions = 0;
  const int rc = pcre2_pattern_info(program->code, PCRE2_INFO_ALLOPTIONS, &allOptions);
  if (rc < 0) {
    gLogger.error("Failed to lookup PCRE options with return=%d (regex=%s).", rc,
                  pattern.c_str());
  } else {
    _anchored = (allOptions & PCRE2_ANCHORED) != 0;
  }

  uint32_t entrySize = 0;
  uint32_t nameCount = 0;
  PCRE2_SPTR table = nullptr;
  pcre2_pattern_info(program->code, PCRE2_INFO_NAMEENTRYSIZE, &entrySize);
  pcre2_pattern_info(program->code, PCRE2_INFO_NAMECOUNT, &nameCount);
  if (nameCount > 0 && pcre2_pattern_info(program->code, PCRE2_INFO_NAMETABLE, &table) == 0) {
    for (uint32_t i = 0; i < nameCount; ++i) {
      const unsigned char* entry = table + static_cast<size_t>(i) * entrySize;
      const int32_t number = (entry[0] << 8) | entry[1];
      _nameToNumber[Str(reinterpret_cast<const char*>(entry + 2))] = number;
    }
  }
  _program = std::move(program);

  const Str whole = "(?:" + pattern + ")\\z";
  settings.options |= PCRE2_ANCHORED;
  _wholeProgram = Program::build(whole, settings, study, &errorCode);
}

bool Regex::match(StrSegment& subject, RegexMatch* out, bool advance, bool wholeString) const {
  return matchBase(subject, out, advance, wholeString ? MATCH_WHOLE : MATCH_SEARCH);
}

bool Regex::matchesPartial(const Str& subject, RegexMatch* out) const {
  StrSegment s(subject);
  return matchBase(s, out, false, MATCH_PARTIAL);
}

bool Regex::matches(const StrSegment& subject, RegexMatch* out) const {
  StrSegment s(subject);
  return matchBase(s, out, false, MATCH_SEARCH);
}

bool Regex::matchesWhole(const StrSegment& subject, RegexMatch* out) const {
  StrSegment s(subject);
  return matchBase(s, out, false, MATCH_WHOLE);
}

bool Regex::matchOffsets(const char* data, size_t len, int* offsets, uint32_t pairs) const {
  if (_program == nullptr || len > static_cast<size_t>(INT_MAX)) return false;
  if (data == nullptr) data = "";
  const PCRE2_SIZE* ov = nullptr;
  if (_program->jit) {
    // The direct entry skips the checks that pcre2_match repeats on every
    // call; it matters when dozens of patterns meet each line.
    pcre2_match_data* md = tMatchData.get(pairs);
    if (md == nullptr) return false;
    const int rc = pcre2_jit_match(_program->code, reinterpret_cast<PCRE2_SPTR>(data), len, 0,
                                   0, md, limitedMatchContext());
    if (rc < 0) return false;
    ov = pcre2_get_ovector_pointer(md);
    if (ov[0] > ov[1]) return false;
  } else {
    bool partial = false;
    if (!runMatch(_program->code, pairs, data, len, 0, &ov, &partial)) return false;
  }
  for (uint32_t i = 0; i < 2 * pairs; ++i) {
    offsets[i] = ov[i] == PCRE2_UNSET ? -1 : static_cast<int>(ov[i]);
  }
  return true;
}

bool Regex::matchBase(StrSegment& subject, RegexMatch* out, bool advance, MatchMode mode) const {
  const Program* program =
      (mode == MATCH_WHOLE && _wholeProgram) ? _wholeProgram.get() : _program.get();
  if (out != nullptr) out->reset();
  if (program == nullptr) return false;
  if (advance && mode != MATCH_WHOLE && subject.empty()) return false;

  const char* data = subject.data() != nullptr ? subject.data() : "";
  const size_t len = subject.data() != nullptr ? subject.size() : 0;
  if (len > static_cast<size_t>(INT_MAX)) return false;

  const uint32_t pairs = static_cast<uint32_t>(_captureCount) + 1;
  const PCRE2_SIZE* ov = nullptr;
  const uint32_t options = mode == MATCH_PARTIAL ? PCRE2_PARTIAL_SOFT : 0;
  bool partial = false;
  if (!runMatch(program->code, pairs, data, len, options, &ov, &partial)) return false;
  const size_t start = ov[0];
  const size_t end = ov[1];
  if (mode == MATCH_WHOLE && (start != 0 || end != len)) return false;

  if (out != nullptr) {
    int stackOffsets[1024];
    std::vector<int> heapOffsets;
    int* offsets = stackOffsets;
    if (2 * static_cast<size_t>(pairs) > sizeof stackOffsets / sizeof stackOffsets[0]) {
      heapOffsets.resize(2 * static_cast<size_t>(pairs));
      offsets = heapOffsets.data();
    }
    offsets[0] = static_cast<int>(start);
    offsets[1] = static_cast<int>(end);
    // A partial match sets only the first pair; the others may be stale.
    for (uint32_t i = 2; i < 2 * pairs; ++i) {
      offsets[i] = (partial || ov[i] == PCRE2_UNSET) ? -1 : static_cast<int>(ov[i]);
    }
    out->init(this, data, offsets);
  }
  if (advance) subject.assign(data + end, len - end);
  return true;
}

size_t Regex::_rawMatch(const char* data, size_t len, bool anchored, bool wholeString) const {
  Program* program =
      (wholeString && _wholeProgram) ? _wholeProgram.get() : _program.get();
  if (program == nullptr || len > static_cast<size_t>(INT_MAX)) return StrSegment::npos;
  const pcre2_code* code = program->getRaw();
  uint32_t options = PCRE2_NO_UTF_CHECK;
  if (code == nullptr) {
    // Without the tolerant form, the checked base form stands in: invalid
    // UTF-8 then fails instead of matching around the bad bytes.
    code = program->code;
    options = 0;
  }
  if (anchored) options |= PCRE2_ANCHORED;
  const PCRE2_SIZE* ov = nullptr;
  bool partial = false;
  if (!runMatch(code, static_cast<uint32_t>(_captureCount) + 1, data, len, options, &ov,
                &partial)) {
    return StrSegment::npos;
  }
  // With invalid UTF-8 tolerated, PCRE2 may anchor a match at the start of
  // a later valid stretch instead of the start of the data.
  if ((anchored || wholeString) && ov[0] != 0) return StrSegment::npos;
  if (wholeString && ov[1] != len) return StrSegment::npos;
  return ov[0];
}

StrSegment::size_type StrSegment::mem_regexmatch(const Regex& regex, const char* data,
                                                 size_type datalen, bool anchored,
                                                 bool wholeString) {
  if (data == nullptr) {
    kassert(datalen == 0);
    data = "";
  }
  return regex._rawMatch(data, datalen, anchored, wholeString);
}

StrSegment::size_type StrSegment::mem_regexmatch(const Regex& regex, const char* data,
                                                 size_type datalen, size_type start,
                                                 bool anchored, bool wholeString) {
  if (data == nullptr) {
    kassert(datalen == 0);
    data = "";
  }
  if (start > datalen) return npos;
  return regex._rawMatch(data + start, datalen - start, anchored, wholeString);
}
