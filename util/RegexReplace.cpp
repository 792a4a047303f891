// Replacement of matches, with back-references in the replacement text, and
// the escaping of text for use inside a pattern.
#include <algorithm>
#include <string>
#include <vector>

#include "util/Regex.h"
#include "util/RegexMatch.h"

namespace {

// Splits a replacement text at each "\N": group 1 is the literal text ahead
// of the reference (where "\" before a non-digit is kept as written), group 2
// the number.
const Regex& backrefSplitter() {
  static const Regex regex("((?:[^\\\\]|(?:\\\\[\\D]))+|^)(?:\\\\(\\d+))", true);
  return regex;
}

// Two backslashes, which a literal piece reduces to one.
const Regex& doubleBackslash() {
  static const Regex regex("\\\\\\\\", true);
  return regex;
}

// The replacement text as alternating literals and group numbers: literal 0,
// reference 0, literal 1, reference 1, and so on.
struct ReplacementPlan {
  std::vector<Str> literals;
  std::vector<long> references;
};

ReplacementPlan planReplacement(const Str& replacement, bool expandBackrefs) {
  ReplacementPlan plan;
  if (!expandBackrefs) {
    plan.literals.push_back(replacement);
    return plan;
  }
  StrSegment rest(replacement);
  RegexMatch m;
  while (backrefSplitter().match(rest, &m, true, false)) {
    Str piece;
    doubleBackslash().replaceAll(m.getGroup(1), "\\", piece, false);
    plan.literals.push_back(piece);
    // An overflowing number reads as -1 and adds no reference, so the
    // references after it pair with the literals one place earlier.
    const long number = Str(m.getGroup(2)).toLong(-1, 10);
    if (number >= 0) plan.references.push_back(number);
  }
  if (!rest.empty()) plan.literals.emplace_back(rest);
  if (plan.literals.empty() && plan.references.empty()) plan.literals.emplace_back();
  return plan;
}

void appendReplacement(const ReplacementPlan& plan, const RegexMatch& m, int32_t captureCount,
                       Str& output) {
  const size_t steps = std::max(plan.literals.size(), plan.references.size());
  for (size_t i = 0; i < steps; ++i) {
    if (i < plan.literals.size()) output.append(plan.literals[i]);
    if (i >= plan.references.size()) continue;
    const long number = plan.references[i];
    if (number > captureCount) {
      output.push_back('\\');
      output.append(std::to_string(number));
    } else {
      const StrSegment& group = m.getGroup(static_cast<size_t>(number));
      if (group.data() != nullptr) output.append(group);
    }
  }
}

bool isPlainByte(unsigned char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
         c >= 0x80;
}

}  // namespace

size_t Regex::replaceAll(const StrSegment& input, const Str& replacement, Str& output,
                         bool expandBackrefs) const {
  return replace(input, replacement, output, std::set<unsigned long>(), expandBackrefs);
}

size_t Regex::replace(const StrSegment& input, const Str& replacement, Str& output,
                      const std::set<unsigned long>& occurrences, bool expandBackrefs) const {
  const ReplacementPlan plan = planReplacement(replacement, expandBackrefs);
  output.clear();
  StrSegment rest(input);
  RegexMatch m;
  size_t replaced = 0;
  unsigned long ordinal = 0;
  while (!rest.empty()) {
    const char* const before = rest.data();
    if (!match(rest, &m, true, false)) break;
    const StrSegment& whole = m.getMatch();
    output.append(before, static_cast<size_t>(whole.data() - before));
    if (!occurrences.empty() && occurrences.count(++ordinal) == 0) {
      output.append(whole);
    } else {
      appendReplacement(plan, m, _captureCount, output);
      ++replaced;
      if (!occurrences.empty() && replaced >= occurrences.size()) break;
    }
    // An empty match would be found again at the same place: step over one
    // byte so that the loop always moves.
    if (whole.empty() && !rest.empty()) {
      output.push_back(rest[0]);
      rest.assign(rest.data() + 1, rest.size() - 1);
    }
  }
  output.append(rest);
  return replaced;
}

void Regex::escapeMetaChars(const Str& in, Str& out) {
  out.reserve(out.size() + 2 * in.size());
  for (size_t i = 0; i < in.size(); ++i) {
    const char c = in[i];
    if (c == '\0') {
      // "\0" takes up to two more octal digits, so ahead of one the NUL is
      // spelt out in full.
      const bool octalNext = i + 1 < in.size() && in[i + 1] >= '0' && in[i + 1] <= '7';
      out.append(octalNext ? "\\000" : "\\0");
    } else {
      if (!isPlainByte(static_cast<unsigned char>(c))) out.push_back('\\');
      out.push_back(c);
    }
  }
}
