#include "libbundle/TemplateString.h"

bool TemplateString::realize(const Str& text, const Variables& variables, Str& out) {
  Str result;
  result.reserve(text.size() + 32);
  bool allKnown = true;
  size_t at = 0;
  while (at < text.size()) {
    const size_t dollar = text.find("${", at);
    if (dollar == Str::npos) break;
    const size_t close = text.find('}', dollar + 2);
    if (close == Str::npos) break;
    result.append(text, at, dollar - at);
    const Str name = text.substr(dollar + 2, close - dollar - 2);
    auto it = variables.find(name);
    if (it != variables.end()) {
      result.append(it->second);
    } else {
      allKnown = false;
      result.append(text, dollar, close + 1 - dollar);
    }
    at = close + 1;
  }
  result.append(text, at, Str::npos);
  out = std::move(result);
  return allKnown;
}
