// DatetimeInitUtils::buildRegex and the seam through which it reports a bad
// expression against an event.
#include "libbundle/DatetimeInitUtils.h"

#include <atomic>
#include <memory>

#include "libbundle/PropertiesMap.h"
#include "util/Logger.h"
#include "util/Regex.h"

namespace {

Logger gLogger("DatetimeInitUtils");

std::atomic<DatetimeInitUtils::RegexIssueReporter> gReporter{nullptr};

constexpr const char* REGEX_ISSUE_TAG = "DATETIME_REGEX_ISSUE";

}  // namespace

namespace DatetimeInitUtils {

RegexIssueReporter setRegexIssueReporter(RegexIssueReporter reporter) {
  return gReporter.exchange(reporter, std::memory_order_acq_rel);
}

Regex* buildRegex(const char* key, const PropertiesMap* props, CowPipelineData* pd) {
  Str value;
  if (!props->fill(key, value)) return nullptr;
  // fill() answers false for an empty value, so there is always text here.
  auto regex = std::make_unique<Regex>();
  try {
    regex->_internal_init(value, true, 0);
  } catch (const RegexException& e) {
    const RegexIssueReporter reporter = gReporter.load(std::memory_order_acquire);
    if (pd != nullptr && reporter != nullptr) {
      Str text;
      Logger::format(text, "Invalid regex %s -- %s", value.c_str(), e.what());
      reporter(pd, REGEX_ISSUE_TAG, text);
    } else {
      gLogger.error("Invalid regex %s -- %s", value.c_str(), e.what());
    }
    return nullptr;
  }
  return regex.release();
}

}  // namespace DatetimeInitUtils
