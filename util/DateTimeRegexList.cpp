#include "util/DateTimeRegexList.h"

#include "util/Assert.h"

bool DateTimeRegexList::valid(DP_parseState*, DateParser*) const { return true; }

void DateTimeRegexList::append(const DateTimeRegex* regex) {
  kassert(regex != nullptr);
  _regexes.push_back(regex);
}
