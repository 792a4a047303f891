#include "util/LoggerStream.h"

#include "util/HashedStr.h"
#include "util/Logger.h"
#include "util/ScopedErrnoSaver.h"

LoggerStream::LoggerStream(LoggerStream&& other) noexcept
    : _logger(other._logger), _level(other._level), _text(std::move(other._text)) {
  other._logger = nullptr;
}

LoggerStream::~LoggerStream() {
  if (_logger == nullptr) return;
  ScopedErrnoSaver keep;
  cpp_do_log(_logger, _level, _text);
}

LoggerStream& LoggerStream::operator<<(const char* s) {
  if (_logger != nullptr) _text.append(s != nullptr ? s : "(null)");
  return *this;
}

LoggerStream& LoggerStream::operator<<(const std::string& s) {
  if (_logger != nullptr) _text.append(s);
  return *this;
}

LoggerStream& LoggerStream::operator<<(const Str& s) {
  if (_logger != nullptr) _text.append(s);
  return *this;
}

LoggerStream& LoggerStream::operator<<(const StrSegment& s) {
  if (_logger != nullptr) _text.append(s.data(), s.size());
  return *this;
}

LoggerStream& LoggerStream::operator<<(const HashedStrReference& s) {
  if (_logger != nullptr) _text.append(s.data(), s.size());
  return *this;
}

LoggerStream& LoggerStream::operator<<(char c) {
  if (_logger != nullptr) _text.push_back(c);
  return *this;
}

LoggerStream& LoggerStream::operator<<(int v) {
  if (_logger != nullptr) _text.append_longlong(v);
  return *this;
}

LoggerStream& LoggerStream::operator<<(long v) {
  if (_logger != nullptr) _text.append_longlong(v);
  return *this;
}

LoggerStream& LoggerStream::operator<<(long long v) {
  if (_logger != nullptr) _text.append_longlong(v);
  return *this;
}

LoggerStream& LoggerStream::operator<<(unsigned v) {
  if (_logger != nullptr) _text.append_unsignedlonglong(v);
  return *this;
}

LoggerStream& LoggerStream::operator<<(unsigned long v) {
  if (_logger != nullptr) _text.append_unsignedlonglong(v);
  return *this;
}

LoggerStream& LoggerStream::operator<<(unsigned long long v) {
  if (_logger != nullptr) _text.append_unsignedlonglong(v);
  return *this;
}

LoggerStream& LoggerStream::operator<<(double v) {
  if (_logger != nullptr) _text.appendFormat("%g", v);
  return *this;
}
