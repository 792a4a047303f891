#include "util/DateParserRegexConf.h"

#include <cstring>
#include <exception>
#include <vector>

#include "util/DateParseException.h"
#include "util/Logger.h"
#include "util/Pathname.h"
#include "util/XmlNode.h"

namespace {

Logger gLogger("LoadDateParserRegexes");

[[noreturn]] void fail(Logger* errLogger, const Str& text) {
  throw DateParseException(errLogger, text.c_str());
}

// Each use copies a whole expression, so a chain of defines that use their
// predecessor twice doubles at every step; no real pattern comes near this.
constexpr size_t MAX_PATTERN_BYTES = 1 << 20;

void appendBounded(Str& text, const Str& part, const Str& name, Logger* errLogger) {
  if (text.size() + part.size() > MAX_PATTERN_BYTES) {
    Str message;
    Logger::format(message, "regex of define \"%s\" grows past %zu bytes", name.c_str(),
                   MAX_PATTERN_BYTES);
    fail(errLogger, message);
  }
  text += part;
}

bool isNamed(const XmlNode& node, const char* name) { return std::strcmp(node.name(), name) == 0; }

// The `name` attribute of `node`; false when it has none.
bool nameOf(const XmlNode& node, Str& out) {
  XmlAttribute attr = node.attribute("name");
  return attr.valid() && attr.tryToStr(out);
}

// `extract` cut at commas and blanks, empty pieces dropped: "hour, minute"
// and ",hour,,minute " both give {"hour", "minute"}.
std::vector<Str> splitExtractions(const Str& text) {
  std::vector<Str> names;
  Str piece;
  for (char c : text) {
    if (c == ',' || c == ' ' || c == '\t' || c == '\n' || c == '\r') {
      if (!piece.empty()) names.push_back(piece);
      piece.clear();
    } else {
      piece.push_back(c);
    }
  }
  if (!piece.empty()) names.push_back(piece);
  return names;
}

}  // namespace

DateParserRegexConf::DateParserRegexConf() = default;
DateParserRegexConf::~DateParserRegexConf() = default;

bool DateParserRegexConf::dropRef() const {
  return refCount.fetch_sub(1, std::memory_order_acq_rel) == 1;
}

const Str* DateParserRegexConf::getPatternName(const DateTimeRegex* regex) const {
  for (const auto& [name, stored] : regexes) {
    if (stored.get() == regex) return &name;
  }
  return nullptr;
}

const DateTimeRegex* DateParserRegexConf::find(const Str& name) const {
  auto it = regexes.find(name);
  return it == regexes.end() ? nullptr : it->second.get();
}

void DateParserRegexConf::readPatterns(const XmlNode& root, const Pathname& path,
                                       Logger* errLogger) {
  try {
    for (XmlNode node = root.begin(); node.valid(); node.increment_element_iterator()) {
      if (!isNamed(node, "define")) continue;
      Str name;
      if (!nameOf(node, name)) {
        fail(errLogger, "couldn't find 'name' attribute for 'define' type of node in regex file");
      }
      Str text;
      for (XmlNode child = node.begin(); child.valid(); child.increment_element_iterator()) {
        if (isNamed(child, "text")) {
          Str part;
          child.tryToStr(part);
          appendBounded(text, part, name, errLogger);
        } else if (isNamed(child, "use")) {
          Str used;
          if (!nameOf(child, used)) {
            fail(errLogger, "couldn't find 'name' attribute for 'use' type of node in regex file");
          }
          const DateTimeRegex* earlier = find(used);
          if (earlier == nullptr) {
            Str text;
            Logger::format(text, "couldn't find 'use' reference named: %s", used.c_str());
            fail(errLogger, text);
          }
          appendBounded(text, earlier->getPattern(), name, errLogger);
        } else {
          fail(errLogger, "invalid node name.  Must be 'use' or 'text'");
        }
      }
      Str extract;
      node.attribute("extract").tryToStr(extract);
      const std::vector<Str> names = splitExtractions(extract);
      if (names.empty()) {
        gLogger.debug("put %s", name.c_str());
      } else if (gLogger.isDebugEnabled()) {
        gLogger.debug("put %s regex=%s", name.c_str(), text.c_str());
        for (const Str& n : names) gLogger.debug("    * %s", n.c_str());
      }
      // A redefinition replaces the entry; defines that used the old text
      // compiled it into their own patterns already.
      std::unique_ptr<DateTimeRegex> regex;
      try {
        regex = std::make_unique<DateTimeRegex>(text, names);
      } catch (const RegexException& e) {
        // The compiler's reason alone does not say which define it is, and
        // the failure's own text is fixed: the name goes in a line of its own.
        if (errLogger != nullptr) {
          errLogger->error("Pattern of define \"%s\" does not compile: %s", name.c_str(),
                           e.what());
        }
        throw;
      }
      regexes[name] = std::move(regex);
    }
  } catch (const std::exception& e) {
    Str text;
    Logger::format(text, "Error parsing regex XML file: %s - %s", path.c_str(), e.what());
    fail(errLogger, text);
  }

  const struct {
    const char* element;
    DateTimeRegexList* list;
  } kLists[] = {{"timePatterns", &timeList}, {"datePatterns", &dateList}};
  for (const auto& l : kLists) {
    XmlNode listNode = root.find(l.element);
    if (!listNode.valid()) {
      Str text;
      Logger::format(text, "Couldn't find '%s' in config data for AggregatorProcessor.", l.element);
      fail(errLogger, text);
    }
    for (XmlNode use = listNode.begin(); use.valid(); use.increment_element_iterator()) {
      if (!isNamed(use, "use")) continue;
      Str name;
      if (!nameOf(use, name)) {
        fail(errLogger,
             "couldn't find 'name' attribute for 'use' node in timePatterns or datePatterns");
      }
      const DateTimeRegex* regex = find(name);
      if (regex == nullptr) {
        Str text;
        Logger::format(text, "Can't find regular expression specified in '%s' in file %s",
                       name.c_str(), path.c_str());
        fail(errLogger, text);
      }
      l.list->append(regex);
    }
  }
}
