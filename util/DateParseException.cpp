#include "util/DateParseException.h"

#include "util/Logger.h"

DateParseException::DateParseException(Logger* logger, const char* text)
    : std::runtime_error(text != nullptr ? text : ""), _text(text != nullptr ? text : "") {
  if (logger != nullptr) logger->error("%s", _text.c_str());
}
