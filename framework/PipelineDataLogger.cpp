#include "framework/PipelineDataLogger.h"

#include "framework/PipelineData.h"
#include "libbundle/DatetimeInitUtils.h"

namespace {

PipelineDataLogger gDatetimeLogger("DatetimeInitUtils");

void reportRegexIssue(CowPipelineData* pd, const char* tag, const Str& message) {
  gDatetimeLogger.errorp(pd, tag, "%s", message.c_str());
}

}  // namespace

void PipelineDataLogger::vlogp(LogLevel level, CowPipelineData* pd, const char* tag,
                               const char* fmt, va_list args) {
  if (!_logger.isEnabled(level)) return;
  Str text(tag);
  text.append(": ");
  text.appendVformat(fmt, args);
  if (pd != nullptr) {
    const PipelineInputChannel* chan = pd->getInputChannel();
    text.append(" (input=\"");
    text.append(chan->conf());
    text.append("\")");
  }
  _logger.log(level, "%s", text.c_str());
}

#define PIPELINE_DATA_LOGGER_LEVEL(name, level)                                          \
  void PipelineDataLogger::name(CowPipelineData* pd, const char* tag, const char* fmt, \
                                ...) {                                                   \
    va_list args;                                                                        \
    va_start(args, fmt);                                                                 \
    vlogp(level, pd, tag, fmt, args);                                                    \
    va_end(args);                                                                        \
  }
PIPELINE_DATA_LOGGER_LEVEL(debugp, LOGLEVEL_DEBUG)
PIPELINE_DATA_LOGGER_LEVEL(infop, LOGLEVEL_INFO)
PIPELINE_DATA_LOGGER_LEVEL(warnp, LOGLEVEL_WARN)
PIPELINE_DATA_LOGGER_LEVEL(errorp, LOGLEVEL_ERROR)
#undef PIPELINE_DATA_LOGGER_LEVEL

void PipelineDataLogger::installDatetimeRegexReporter() {
  DatetimeInitUtils::setRegexIssueReporter(&reportRegexIssue);
}
