// Compiling a format text into atoms: setFtime, reset and copies.
#include "util/TimeFormat.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <utility>
#include <vector>

#include "util/Assert.h"

namespace {

typedef TimeFormat::atom atom;

// The literals of the combined directives and of %n and %t. They are
// addressed in place and never enter a format's own pool.
constexpr char FIXED_PUNCT[] = ", :/-\t\n";

// The default shape of a directive that makes one atom.
struct DirectiveShape {
  TimeFormat::atom_type_t what;
  uint8_t padding;
  uint8_t width;
};

// The shape of a one-atom directive; false for any other character.
bool shapeOf(char c, DirectiveShape* s) {
  using TF = TimeFormat;
  switch (c) {
    case 'Y': case 'o': *s = {TF::YEAR_NUM, TF::PAD_ZERO, 4}; return true;
    case 'C': *s = {TF::CENTURY_NUM, TF::PAD_ZERO, 2}; return true;
    case 'y': *s = {TF::SHORTYEAR_NUM, TF::PAD_ZERO, 2}; return true;
    case 'G': *s = {TF::ISOYEAR_NUM, TF::PAD_ZERO, 4}; return true;
    case 'g': *s = {TF::ISOSHORTYEAR_NUM, TF::PAD_ZERO, 2}; return true;
    case 'm': *s = {TF::MONTH_NUM, TF::PAD_ZERO, 2}; return true;
    case 'U': *s = {TF::SUNDAYWEEK_NUM, TF::PAD_ZERO, 2}; return true;
    case 'W': *s = {TF::MONDAYWEEK_NUM, TF::PAD_ZERO, 2}; return true;
    case 'V': *s = {TF::ISOWEEK_NUM, TF::PAD_ZERO, 2}; return true;
    case 'd': *s = {TF::MDAY_NUM, TF::PAD_ZERO, 2}; return true;
    case 'e': *s = {TF::MDAY_NUM, TF::PAD_SPACE, 2}; return true;
    case 'j': *s = {TF::YDAY_NUM, TF::PAD_ZERO, 3}; return true;
    case 'w': *s = {TF::WDAY_NUM, TF::PAD_ZERO, 1}; return true;
    case 'u': *s = {TF::WDAY1_NUM, TF::PAD_ZERO, 1}; return true;
    case 'H': *s = {TF::HOUR_NUM, TF::PAD_ZERO, 2}; return true;
    case 'k': *s = {TF::HOUR_NUM, TF::PAD_SPACE, 2}; return true;
    case 'I': *s = {TF::HOUR12_NUM, TF::PAD_ZERO, 2}; return true;
    case 'l': *s = {TF::HOUR12_NUM, TF::PAD_SPACE, 2}; return true;
    case 'M': *s = {TF::MINUTE_NUM, TF::PAD_ZERO, 2}; return true;
    case 'S': *s = {TF::SECOND_NUM, TF::PAD_ZERO, 2}; return true;
    case 'N': *s = {TF::SUBSEC_NUM, TF::PAD_ZERO, 9}; return true;
    case 'Q': *s = {TF::SUBSEC_NUM, TF::PAD_ZERO, 3}; return true;
    case 'f': case 'q': *s = {TF::SUBSEC_NUM, TF::PAD_ZERO, 6}; return true;
    case 's': *s = {TF::EPOCH_NUM, TF::PAD_SPACE, 0}; return true;
    case 'z': *s = {TF::TZ_OFFSET, TF::PAD_ZERO, 5}; return true;
    case 'a': *s = {TF::WDAY_ABBREV, TF::PAD_SPACE, 3}; return true;
    case 'A': *s = {TF::WDAY_FULL, TF::PAD_SPACE, 0}; return true;
    case 'b': case 'h': *s = {TF::MONTH_ABBREV, TF::PAD_SPACE, 3}; return true;
    case 'B': *s = {TF::MONTH_FULL, TF::PAD_SPACE, 0}; return true;
    case 'p': case 'P': *s = {TF::AMPM, TF::PAD_SPACE, 2}; return true;
    case 'Z': *s = {TF::TZ_NAME, TF::PAD_SPACE, 0}; return true;
    default: return false;
  }
}

// The atoms of a combined directive, written as a small format whose
// literals all lie in FIXED_PUNCT; null for any other directive.
const char* expansionOf(char c, bool hash) {
  switch (c) {
    case 'c': return hash ? "%A, %B %-d, %Y, %-H:%M:%S" : "%a %b %e %H:%M:%S %Y";
    case '+': return "%a %b %e %H:%M:%S %Z %Y";
    case 'x': return hash ? "%A, %B %-d, %Y" : "%m/%d/%y";
    case 'D': return "%m/%d/%y";
    case 'F': return "%Y-%m-%d";
    case 'T': case 'X': return "%H:%M:%S";
    case 'R': return "%H:%M";
    case 'r': return "%I:%M:%S %p";
    case 'v': return "%e-%b-%Y";
    default: return nullptr;
  }
}

bool modifierAllowed(const atom& a) {
  using TF = TimeFormat;
  switch (a.x.conv.mod) {
    case TF::FMODIFY_NONE:
      return true;
    case TF::FMODIFY_E:
      return a.what == TF::YEAR_NUM || a.what == TF::CENTURY_NUM || a.what == TF::SHORTYEAR_NUM ||
             a.what == TF::TZ_MINUTESOFFSET;
    default:
      switch (a.what) {
        case TF::SHORTYEAR_NUM: case TF::MONTH_NUM: case TF::SUNDAYWEEK_NUM:
        case TF::MONDAYWEEK_NUM: case TF::ISOWEEK_NUM: case TF::MDAY_NUM: case TF::WDAY_NUM:
        case TF::WDAY1_NUM: case TF::HOUR_NUM: case TF::HOUR12_NUM: case TF::MINUTE_NUM:
        case TF::SECOND_NUM: case TF::MONTH_FULL:
          return true;
        default:
          return false;
      }
  }
}

// The state of one compilation: the atoms so far, the pool, and the "%l"
// atoms whose meaning is settled at the end.
class Compiler {
 public:
  std::vector<atom> atoms;
  std::vector<std::pair<size_t, size_t>> poolRefs;  // atom index, pool offset
  std::vector<std::pair<size_t, bool>> ells;        // atom index, plain "%l"
  Str pool;

  bool compile(const char* format);
  void settleEll();
  uint64_t expectedWidth() const;
  size_t poolOffsetOf(size_t atomIndex) const {
    for (const auto& ref : poolRefs) {
      if (ref.first == atomIndex) return ref.second;
    }
    return 0;
  }

 private:
  bool directive(const char** pp, uint8_t forcedAct);
  void addFixedLiteral(const char* text, size_t len) {
    atom a{};
    a.what = TimeFormat::LITERAL;
    a.x.literal = text;
    a.width = len;
    atoms.push_back(a);
  }
};

bool Compiler::compile(const char* p) {
  size_t runStart = Str::npos;
  while (*p != '\0') {
    if (p[0] == '%' && p[1] == '%') {
      if (runStart == Str::npos) runStart = pool.size();
      pool.push_back('%');
      p += 2;
      continue;
    }
    if (*p != '%') {
      if (runStart == Str::npos) runStart = pool.size();
      pool.push_back(*p++);
      continue;
    }
    if (runStart != Str::npos) {
      poolRefs.emplace_back(atoms.size(), runStart);
      addFixedLiteral(nullptr, pool.size() - runStart);
      runStart = Str::npos;
    }
    ++p;
    if (!directive(&p, TimeFormat::CASE_NONE)) return false;
  }
  if (runStart != Str::npos) {
    poolRefs.emplace_back(atoms.size(), runStart);
    addFixedLiteral(nullptr, pool.size() - runStart);
  }
  for (const atom& a : atoms) {
    if (a.what != TimeFormat::LITERAL && a.what != TimeFormat::WHITESPACE && !modifierAllowed(a)) {
      return false;
    }
  }
  return true;
}

// Reads the directive after a "%" at *pp and moves *pp past it. A forcedAct
// other than CASE_NONE is the case flag of an enclosing combined directive.
bool Compiler::directive(const char** pp, uint8_t forcedAct) {
  using TF = TimeFormat;
  const char* p = *pp;
  uint8_t padding = TF::PAD_UNSET, act = TF::CASE_NONE, mod = TF::FMODIFY_NONE;
  uint64_t width = 0;
  bool haveWidth = false;
  bool haveAct = false;
  int colons = 0;
  for (;; ++p) {
    const char c = *p;
    if (c == '-' || c == '_' || (c == '0' && !haveWidth)) {
      if (padding != TF::PAD_UNSET || haveWidth || mod != TF::FMODIFY_NONE || colons) return false;
      padding = c == '-' ? TF::PAD_NONE : c == '_' ? TF::PAD_SPACE : TF::PAD_ZERO;
    } else if (c == '^' || c == '#') {
      if (haveAct || haveWidth || mod != TF::FMODIFY_NONE || colons) return false;
      haveAct = true;
      act = c == '^' ? TF::CASE_UPPER : TF::CASE_REVERSE;
    } else if (c >= '0' && c <= '9') {
      if (mod != TF::FMODIFY_NONE || colons || width > 100000) return false;
      haveWidth = true;
      width = width * 10 + static_cast<uint64_t>(c - '0');
    } else if (c == 'E' || c == 'O') {
      if (mod != TF::FMODIFY_NONE || colons) return false;
      mod = c == 'E' ? TF::FMODIFY_E : TF::FMODIFY_O;
    } else if (c == ':') {
      if (mod != TF::FMODIFY_NONE || ++colons > 3) return false;
    } else {
      break;
    }
  }
  const char c = *p;
  if (c == '\0') return false;
  if (colons && c != 'z') return false;
  *pp = p + 1;
  if (forcedAct != TF::CASE_NONE) act = forcedAct;

  if (c == 'n' || c == 't') {
    if (mod != TF::FMODIFY_NONE) return false;
    atom a{};
    a.what = TF::WHITESPACE;
    a.x.literal = FIXED_PUNCT + (c == 'n' ? 6 : 5);
    a.width = 1;
    atoms.push_back(a);
    return true;
  }
  if (const char* expansion = expansionOf(c, act == TF::CASE_REVERSE)) {
    if (haveWidth || padding != TF::PAD_UNSET || mod == TF::FMODIFY_O) return false;
    if (mod == TF::FMODIFY_E && c != 'c' && c != 'x' && c != 'X') return false;
    const uint8_t inner = act == TF::CASE_UPPER ? act : static_cast<uint8_t>(TF::CASE_NONE);
    for (const char* q = expansion; *q != '\0';) {
      if (*q == '%') {
        ++q;
        if (!directive(&q, inner)) return false;
      } else if (q[0] == ',' && q[1] == ' ') {
        addFixedLiteral(FIXED_PUNCT, 2);
        q += 2;
      } else {
        addFixedLiteral(std::strchr(FIXED_PUNCT + 1, *q), 1);
        ++q;
      }
    }
    return true;
  }

  DirectiveShape shape;
  if (!shapeOf(c, &shape)) return false;
  atom a{};
  a.what = shape.what;
  a.width = haveWidth ? width : shape.width;
  a.x.conv.mod = mod;
  a.x.conv.act = act;
  a.x.conv.padding = padding != TF::PAD_UNSET ? padding : shape.padding;
  if (c == 'z') {
    static const TF::atom_type_t COLON_CODES[4] = {TF::TZ_OFFSET, TF::TZ_COLONOFFSET,
                                                   TF::TZ_COLONSECOFFSET, TF::TZ_AS_NEEDEDOFFSET};
    static const uint8_t COLON_WIDTHS[4] = {5, 6, 9, 0};
    a.what = COLON_CODES[colons];
    if (!haveWidth) a.width = COLON_WIDTHS[colons];
    if (mod == TF::FMODIFY_E && colons == 0) {
      a.what = TF::TZ_MINUTESOFFSET;
      if (!haveWidth) a.width = 4;
      if (padding == TF::PAD_UNSET) a.x.conv.padding = TF::PAD_NONE;
    }
  }
  if (a.what >= TF::WDAY_ABBREV && a.what <= TF::TZ_NAME) {
    if (padding == TF::PAD_ZERO) return false;
    if (c == 'a' && a.width == 1) return false;
    if ((c == 'b' || c == 'h') && (a.width == 1 || a.width == 2)) return false;
  }
  if (c == 'p') a.x.conv.act = act == TF::CASE_REVERSE ? TF::CASE_NONE : TF::CASE_UPPER;
  if (act == TF::CASE_REVERSE && padding == TF::PAD_UNSET && std::strchr("dHIMSUWmyj", c)) {
    a.x.conv.padding = TF::PAD_NONE;
  }
  if (a.what == TF::SUBSEC_NUM && padding != TF::PAD_UNSET && padding != TF::PAD_ZERO) return false;
  if (c == 'l') {
    ells.emplace_back(atoms.size(), !haveWidth && mod == TF::FMODIFY_NONE && padding == TF::PAD_UNSET);
  }
  atoms.push_back(a);
  return true;
}

// "%l" is milliseconds right behind "%s", or behind "%S" unless the format
// has a minute but no hour; a lone "." or "," literal may sit between. Every
// other "%l" stays the 12-hour hour. All are judged on the format as
// written, so one "%l" counts as an hour for another whatever it becomes.
void Compiler::settleEll() {
  using TF = TimeFormat;
  std::vector<size_t> toSubsec;
  for (const auto& [index, plain] : ells) {
    if (!plain || index == 0) continue;
    size_t before = index - 1;
    const atom& prev = atoms[before];
    if (prev.what == TF::LITERAL && prev.width == 1 && before > 0) {
      const char ch = prev.x.literal != nullptr ? prev.x.literal[0] : pool[poolOffsetOf(before)];
      if (ch == '.' || ch == ',') --before;
    }
    bool subsec = atoms[before].what == TF::EPOCH_NUM;
    if (atoms[before].what == TF::SECOND_NUM) {
      bool minute = false, hour = false;
      for (size_t i = 0; i < atoms.size(); ++i) {
        if (atoms[i].what == TF::MINUTE_NUM) minute = true;
        if (i != index && (atoms[i].what == TF::HOUR_NUM || atoms[i].what == TF::HOUR12_NUM)) {
          hour = true;
        }
      }
      subsec = !(minute && !hour);
    }
    if (subsec) toSubsec.push_back(index);
  }
  for (size_t index : toSubsec) {
    atoms[index].what = TF::SUBSEC_NUM;
    atoms[index].width = 3;
    atoms[index].x.conv.padding = TF::PAD_ZERO;
  }
}

// The sum of the widths, with fixed guesses for the atoms whose width
// varies or is only a hint.
uint64_t Compiler::expectedWidth() const {
  using TF = TimeFormat;
  uint64_t total = 0;
  for (const atom& a : atoms) {
    uint64_t ewidth = a.width;
    if (ewidth == 0) {
      switch (a.what) {
        case TF::EPOCH_NUM: ewidth = 10; break;
        case TF::TZ_NAME: ewidth = 3; break;
        case TF::TZ_AS_NEEDEDOFFSET: case TF::WDAY_FULL: case TF::MONTH_FULL: ewidth = 9; break;
        default: break;
      }
    }
    kassert(ewidth != 0);
    total += ewidth;
  }
  return total;
}

}  // namespace

TimeFormat::TimeFormat(const char* format) { setFtime(format); }

TimeFormat::TimeFormat(const TimeFormat& other) { internal_copyFrom(other); }

TimeFormat& TimeFormat::operator=(const TimeFormat& other) {
  if (this != &other) {
    reset();
    internal_copyFrom(other);
  }
  return *this;
}

TimeFormat::~TimeFormat() = default;

bool TimeFormat::setFtime(const char* format) {
  kassert(_atoms == __null);
  Compiler c;
  if (!c.compile(format)) return false;
  c.settleEll();
  const uint64_t ewidth = c.expectedWidth();
  _punct = std::move(c.pool);
  const size_t n = c.atoms.size();
  _atoms.reset(new atom[n]);
  std::copy(c.atoms.begin(), c.atoms.end(), _atoms.get());
  _atomsEnd = _atoms.get() + n;
  // The pool has its final place now, so literals can point into it.
  for (const auto& [index, offset] : c.poolRefs) _atoms[index].x.literal = _punct.data() + offset;
  _expectedWidth = ewidth;
  return true;
}

void TimeFormat::reset() {
  _atoms.reset();
  _atomsEnd = nullptr;
  _punct.clear();
  _expectedWidth = 0;
}

void TimeFormat::internal_copyFrom(const TimeFormat& other) {
  if (other._atoms == nullptr) return;
  const size_t n = static_cast<size_t>(other._atomsEnd - other._atoms.get());
  _punct = other._punct;
  _atoms.reset(new atom[n]);
  std::copy(other._atoms.get(), other._atomsEnd, _atoms.get());
  _atomsEnd = _atoms.get() + n;
  const uintptr_t oldPool = reinterpret_cast<uintptr_t>(other._punct.data());
  for (atom* a = _atoms.get(); a != _atomsEnd; ++a) {
    if (a->what != LITERAL) continue;
    const uintptr_t lit = reinterpret_cast<uintptr_t>(a->x.literal);
    if (lit >= oldPool && lit < oldPool + other._punct.size()) {
      a->x.literal = _punct.data() + (lit - oldPool);
    }
  }
  _expectedWidth = other._expectedWidth;
}
