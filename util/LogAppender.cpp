#include "util/LogAppender.h"

#include <cctype>
#include <cerrno>

#include "util/LogFormat.h"
#include "util/Logger.h"

namespace {

// Guards the map of named appenders.
Mutex& appendersMutex() {
  static Mutex* const mutex = new Mutex;
  return *mutex;
}

std::map<Str, LogAppender*>& appenders() {
  static auto* map = new std::map<Str, LogAppender*>;
  return *map;
}

// Replaces each "${KEY}" whose key is in `variables`; the inserted paths are
// not scanned again.
Str expandVariables(const Str& value, const std::map<Str, Pathname>& variables) {
  Str out;
  size_t i = 0;
  while (i < value.size()) {
    if (value.compare(i, 2, "${") == 0) {
      const size_t close = value.find('}', i + 2);
      if (close != Str::npos) {
        auto it = variables.find(Str(value, i + 2, close - i - 2));
        if (it != variables.end()) {
          out.append(it->second);
          i = close + 1;
          continue;
        }
      }
    }
    out.push_back(value[i]);
    ++i;
  }
  return out;
}

// Digits with no leading zero ("0" alone allowed), then only white space,
// at most `max`.
bool parseCount(const Str& text, uint64_t max, uint64_t* out) {
  size_t digits = 0;
  uint64_t value = 0;
  while (digits < text.size() && std::isdigit(static_cast<unsigned char>(text[digits]))) {
    const uint64_t d = static_cast<uint64_t>(text[digits] - '0');
    if (value > (max - d) / 10) return false;
    value = value * 10 + d;
    ++digits;
  }
  if (digits == 0 || (text[0] == '0' && digits > 1)) return false;
  for (size_t i = digits; i < text.size(); ++i) {
    if (!std::isspace(static_cast<unsigned char>(text[i]))) return false;
  }
  *out = value;
  return true;
}

// Forgets a descriptor; the process's standard ones are not ours to close.
void closeOutput(FileDescriptor& fd) {
  if (fd.fd() > 2) {
    fd.close();
  } else {
    fd = FileDescriptor();
  }
}

}  // namespace

const char* const LogAppender::ROOT_APPENDER_NAME = "rootAppender";

LogAppender::LogAppender(FileDescriptor fd)
    : _fd(fd),
      _maxFileSize(0),
      _size(0),
      _maxBackupIndex(0),
      _disabled(false),
      _inode(0),
      _lastCheck(0) {}

LogAppender& LogAppender::root() {
  static LogAppender* appender = [] {
    auto* made = new LogAppender(FileDescriptor(2));
    made->_format = LogFormat::defaultFormat();
    return made;
  }();
  return *appender;
}

LogAppender* LogAppender::find(const Str& name, bool create) {
  if (name == ROOT_APPENDER_NAME) return &root();
  ScopedNologLock hold(appendersMutex());
  auto it = appenders().find(name);
  if (it != appenders().end()) return it->second;
  if (!create) return nullptr;
  LogAppender* made = new LogAppender(FileDescriptor());
  appenders().emplace(name, made);
  return made;
}

void LogAppender::finalSetupAll() {
  std::map<Str, LogAppender*> all;
  {
    ScopedNologLock hold(appendersMutex());
    all = appenders();
  }
  for (auto& entry : all) entry.second->finalSetup(entry.first, true);
}

bool LogAppender::setAttribute(const Str& name, const Str& value,
                               const std::map<Str, Pathname>& variables) {
  const Str expanded = expandVariables(value, variables);
  if (name == "fileName") {
    ScopedNologLock hold(_mutex);
    closeOutput(_fd);
    _fileName = expanded;
    return true;
  }
  if (name == "maxFileSize") {
    return parseCount(expanded, UINT64_MAX, &_maxFileSize);
  }
  if (name == "maxBackupIndex") {
    uint64_t index;
    if (!parseCount(expanded, UINT32_MAX, &index)) return false;
    _maxBackupIndex = static_cast<uint32_t>(index);
    return true;
  }
  if (name == "layout") {
    if (expanded == "BasicLayout") {
      _format = LogFormat::basicLayout();
    } else if (expanded == "SimpleLayout") {
      _format = LogFormat::simpleLayout();
    } else if (expanded != "PatternLayout") {
      return false;
    }
    return true;
  }
  if (name == "layout.ConversionPattern") {
    _format = std::make_shared<const LogFormat>(expanded);
    return true;
  }
  return false;
}

void LogAppender::finalSetup(const Str& name, bool real) {
  if (_format == nullptr) _format = LogFormat::defaultFormat();
  std::vector<Report> reports;
  {
    ScopedNologLock hold(_mutex);
    if (_fileName.empty()) {
      if (!real) {
        _disabled = true;
        return;
      }
      if (!_fd.valid()) {
        reports.push_back({LOGLEVEL_WARN, Str().format(
            "Appender \"%s\" has no filename, assuming stderr", name.c_str())});
        _fd = FileDescriptor(2);
      }
      if (_maxBackupIndex != 0) {
        reports.push_back({LOGLEVEL_WARN, Str().format(
            "Appender \"%s\" has maxBackupIndex set without specifying a filename, ignoring",
            name.c_str())});
        _maxBackupIndex = 0;
      }
      if (_maxFileSize != 0) {
        reports.push_back({LOGLEVEL_WARN, Str().format(
            "Appender \"%s\" has maxFileSize set without specifying a filename, ignoring",
            name.c_str())});
        _maxFileSize = 0;
      }
    } else {
      if (_maxBackupIndex != 0 && _maxFileSize == 0) {
        reports.push_back({LOGLEVEL_WARN, Str().format(
            "Appender \"%s\" has maxBackupIndex set without specifying maxFileSize, ignoring",
            name.c_str())});
        _maxBackupIndex = 0;
      }
      FileDescriptor probe = _fileName.openCreateOrAppend(Pathname::CREATE_NORMAL);
      if (probe.valid()) {
        probe.close();
      } else {
        Str text;
        reports.push_back({LOGLEVEL_ERROR,
                           Logger::format(text, errno, "Error opening \"%s\": %m",
                                          _fileName.c_str())});
      }
    }
  }
  internal_report(reports);
}

void LogAppender::write(const LogMsgMetadata& metadata, const Str& message) {
  if (isDisabled()) return;
  const LogFormat* format = _format != nullptr ? _format.get() : LogFormat::defaultFormat().get();
  Str line;
  format->apply(line, metadata, message);

  std::vector<Report> reports;
  {
    ScopedNologLock hold(_mutex);
    const int64_t now = metadata.time.tv_sec;
    if (_fd.valid() && !_fileName.empty() && (now > _lastCheck + 5 || now < _lastCheck)) {
      PathnameStat st;
      if (!_fileName.stat(&st) || st.st.st_ino != _inode) {
        _fd.close();
      } else {
        _lastCheck = now;
      }
    }
    if (!_fd.valid()) {
      // An open that fails here was reported by finalSetup or rotation; the
      // line is lost and the next one tries again.
      if (_fileName.empty() || !openAndInitFile(&reports)) return;
      _lastCheck = now;
    }
    const ssize_t written = _fd.write(line.data(), line.size());
    if (written != static_cast<ssize_t>(line.size())) {
      if (!_fileName.empty()) {
        if (written >= 0) errno = ENOSPC;
        Str text;
        reports.push_back({LOGLEVEL_CRIT, Logger::format(text, errno, "Error writing to \"%s\": %m",
                                                         _fileName.c_str())});
        _fd.close();
      }
    } else {
      _size += static_cast<uint64_t>(written);
      if (_maxFileSize != 0 && _size > _maxFileSize) internal_rotateLocked(metadata.time, &reports);
    }
  }
  internal_report(reports);
}

void LogAppender::rotateFile(const Timeval& now) {
  std::vector<Report> reports;
  {
    ScopedNologLock hold(_mutex);
    internal_rotateLocked(now, &reports);
  }
  internal_report(reports);
}

void LogAppender::internal_rotateLocked(const Timeval& now, std::vector<Report>* reports) {
  _fd.close();
  uint64_t n = 0;
  while (n <= _maxBackupIndex && filenameWithSuffix(static_cast<unsigned>(n)).exists()) ++n;
  if (n > _maxBackupIndex) {
    n = _maxBackupIndex;
    const Pathname victim = filenameWithSuffix(static_cast<unsigned>(n));
    if (!victim.unlink() && errno != ENOENT) {
      Str text;
      reports->push_back({LOGLEVEL_WARN, Logger::format(text, errno, "Error unlinking \"%s\": %m",
                                                        victim.c_str())});
    }
  }
  for (uint64_t i = n; i-- > 0;) {
    const Pathname from = filenameWithSuffix(static_cast<unsigned>(i));
    const Pathname to = filenameWithSuffix(static_cast<unsigned>(i + 1));
    if (!from.renameTo(to)) {
      Str text;
      reports->push_back({LOGLEVEL_WARN,
                          Logger::format(text, errno, "Error renaming \"%s\" to \"%s\": %m",
                                         from.c_str(), to.c_str())});
    }
  }
  const size_t reportsBefore = reports->size();
  // A failed fstat has made its own report.
  if (!openAndInitFile(reports) && reports->size() == reportsBefore) {
    Str text;
    reports->push_back({LOGLEVEL_ERROR, Logger::format(text, errno, "Error opening \"%s\": %m",
                                                       _fileName.c_str())});
  }
  _lastCheck = now.tv_sec;
}

bool LogAppender::openFile() {
  _fd = _fileName.openCreateOrAppend(Pathname::CREATE_NORMAL);
  return _fd.valid();
}

bool LogAppender::openAndInitFile(std::vector<Report>* reports) {
  if (!openFile()) return false;
  FileDescriptorStat st;
  if (!_fd.stat(&st)) {
    Str text;
    reports->push_back({LOGLEVEL_CRIT, Logger::format(text, errno,
                                                      "Error calling fstat on \"%s\": %m",
                                                      _fileName.c_str())});
    _fd.close_saveErrno();
    return false;
  }
  _size = static_cast<uint64_t>(st.st.st_size);
  _inode = st.st.st_ino;
  return true;
}

Pathname LogAppender::filenameWithSuffix(unsigned n) const {
  if (n == 0) return _fileName;
  Pathname out(_fileName);
  out.appendFormat(".%u", n);
  return out;
}

void LogAppender::internal_report(const std::vector<Report>& reports) const {
  for (const Report& r : reports) LogFormat::internal(this, r.level, "%s", r.text.c_str());
}
