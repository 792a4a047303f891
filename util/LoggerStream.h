// LoggerStream: the << form of a logging call. It gathers text and logs it
// as one message when it goes out of scope:
//   gLogger.warn() << "queue " << name << " is " << pct << "% full";
#pragma once

#include <ostream>
#include <sstream>
#include <string>

#include "util/LogLevel.h"
#include "util/Str.h"
#include "util/StrSegment.h"

class HashedStrReference;
class Logger;
class XmlAttribute;
class XmlDocument;
class XmlNode;

// A temporary owned by one thread. Made by Logger::debug() and kin with a
// null logger when the level is disabled: every insertion then returns at
// once without converting anything, and nothing is logged.
class LoggerStream {
 public:
  // `logger` null makes an inert stream.
  LoggerStream(Logger* logger, LogLevel level) : _logger(logger), _level(level) {}
  // Takes over the gathered text; `other` becomes inert.
  LoggerStream(LoggerStream&& other) noexcept;
  // Logs the gathered text (possibly empty) unless inert; errno is kept.
  ~LoggerStream();
  LoggerStream(const LoggerStream&) = delete;
  LoggerStream& operator=(const LoggerStream&) = delete;
  LoggerStream& operator=(LoggerStream&&) = delete;

  // Whether insertions are gathered.
  bool isEnabled() const { return _logger != nullptr; }

  // A null C string inserts "(null)". Numbers: integers in decimal, doubles
  // as "%g" would.
  LoggerStream& operator<<(const char* s);
  LoggerStream& operator<<(const std::string& s);
  LoggerStream& operator<<(const Str& s);
  LoggerStream& operator<<(const StrSegment& s);
  LoggerStream& operator<<(const HashedStrReference& s);
  LoggerStream& operator<<(char c);
  LoggerStream& operator<<(int v);
  LoggerStream& operator<<(long v);
  LoggerStream& operator<<(long long v);
  LoggerStream& operator<<(unsigned v);
  LoggerStream& operator<<(unsigned long v);
  LoggerStream& operator<<(unsigned long long v);
  LoggerStream& operator<<(double v);
  // The serialised form, as Str::append gives it; nothing is serialised
  // when inert.
  LoggerStream& operator<<(const XmlNode& node);
  LoggerStream& operator<<(const XmlAttribute& attr);
  LoggerStream& operator<<(const XmlDocument& doc);
  // Anything a std::ostream can print, through a string stream, and only
  // when enabled.
  template <typename T>
    requires requires(std::ostream& os, const T& v) { os << v; }
  LoggerStream& operator<<(const T& v) {
    if (_logger == nullptr) return *this;
    std::ostringstream os;
    os << v;
    _text.append(os.str());
    return *this;
  }

 private:
  Logger* _logger;
  LogLevel _level;
  Str _text;
};
