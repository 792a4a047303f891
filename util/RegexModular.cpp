// Modular patterns: the expansion of `[[name]]` and `[[name:alias]]`
// references through a RegexNameResolver, with cycle detection and the
// chained messages that show where an expansion failed.
#include <set>

#include "util/Regex.h"
#include "util/RegexMatch.h"
#include "util/RegexNameResolver.h"

namespace {

// Group 1 the text ahead of the reference, group 2 the name, group 3 the
// alias. A backslash ahead of the brackets makes them literal.
const Regex& referencePattern() {
  static const Regex regex("(.*?)(?<!\\\\)\\[\\[([^:\\]]+)(?::([^:\\]]+))?]]", true);
  return regex;
}

// The opening of a named group, "(?<name>" or "(?P<name>"; group 1 the name.
const Regex& namedGroupPattern() {
  static const Regex regex("\\(\\?P?<([^>]*)>", true);
  return regex;
}

bool isQuantifier(char c) { return c == '{' || c == '?' || c == '+' || c == '*'; }

Str expand(const Str& name, const Str& alias, const RegexNameResolver& resolver,
           std::set<Str>& inProgress, int depth) {
  if (inProgress.count(name) != 0) {
    throw RegexException("Regex - Circular dependency for modular regex: " + name);
  }
  // Names are finite but a resolver's need not be: bound the recursion.
  if (depth >= Regex::MODULAR_MAX_DEPTH) {
    throw RegexException("Regex - Modular regex nested too deeply: " + name);
  }
  inProgress.insert(name);
  const Str text = resolver.resolve(name);
  if (text.empty()) throw RegexException("Regex - Cannot find regex reference: " + name);

  Str result;
  StrSegment rest(text);
  RegexMatch m;
  while (true) {
    const char* const before = rest.data();
    if (!referencePattern().match(rest, &m, true, false)) break;
    // Group 1 cannot cross a line end, so the text ahead of the reference
    // is taken from where the previous one ended, not from group 1 alone.
    const StrSegment& ahead = m.getGroup(1);
    result.append(before, static_cast<size_t>(ahead.data() + ahead.size() - before));
    const Str refName(m.getGroup(2));
    const StrSegment& aliasGroup = m.getGroup(3);
    const Str refAlias = aliasGroup.data() != nullptr ? Str(aliasGroup) : Str();

    Str expansion;
    try {
      expansion = expand(refName, refAlias, resolver, inProgress, depth + 1);
    } catch (const RegexException& e) {
      throw RegexException(Str(e.what()) + ", in regex: '" + name + "'");
    }

    // A quantifier after the reference must apply to the whole expansion;
    // an alias names the expansion unless it brings named groups of its own,
    // which the alias has already prefixed.
    Str open;
    if (!rest.empty() && isQuantifier(rest[0])) open = "(?:";
    if (!refAlias.empty() && !namedGroupPattern().matches(expansion)) {
      open = "(?<" + refAlias + ">";
    }
    result.append(open);
    result.append(expansion);
    if (!open.empty()) result.push_back(')');
    if (result.size() > Regex::MODULAR_MAX_LENGTH) {
      throw RegexException("Regex - Modular regex expansion too large: " + name);
    }
  }
  result.append(rest);
  inProgress.erase(name);

  if (!alias.empty()) {
    Str renamed;
    namedGroupPattern().replaceAll(result, "(?<" + alias + "\\1>", renamed, true);
    result.swap(renamed);
  }
  if (result.empty()) result = text;
  return result;
}

}  // namespace

bool Regex::isModularPattern(const Str& pattern) { return referencePattern().matches(pattern); }

Str Regex::resolveModularPattern(const Str& name, const RegexNameResolver& resolver) {
  std::set<Str> inProgress;
  return expand(name, Str(), resolver, inProgress, 0);
}
