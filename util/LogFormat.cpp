#include "util/LogFormat.h"

#include <cstdarg>
#include <ctime>

#include "util/LogChannel.h"
#include "util/LogFormattedTime.h"
#include "util/Logger.h"
#include "util/ScopedErrnoSaver.h"
#include "util/Thread.h"

namespace {

// The origin of %r and %R: the first time any line needed it.
const Timeval& startTime() {
  static const Timeval start = Timeval::now();
  return start;
}

uint32_t readWidth(const Str& p, size_t* pos) {
  uint64_t value = 0;
  while (*pos < p.size() && p[*pos] >= '0' && p[*pos] <= '9') {
    value = value * 10 + static_cast<uint64_t>(p[*pos] - '0');
    if (value > 0xffffffff) value = 0xffffffff;
    ++*pos;
  }
  return static_cast<uint32_t>(value);
}

std::shared_ptr<const LogFormat>* makeShared(const char* pattern) {
  return new std::shared_ptr<const LogFormat>(std::make_shared<const LogFormat>(Str(pattern)));
}

}  // namespace

LogFormat::LogFormat(const Str& pattern) : _pattern(pattern) { parse(); }

LogFormat::~LogFormat() = default;

void LogFormat::parse() {
  const Str& p = _pattern;
  size_t literalStart = 0;
  size_t pos = 0;
  auto addLiteral = [this](const char* data, size_t len) {
    if (len == 0) return;
    Atom a;
    a.kind = LITERAL;
    a.data = data;
    a.dataLength = len;
    _atoms.push_back(a);
  };
  while (pos < p.size()) {
    if (p[pos] != '%') {
      ++pos;
      continue;
    }
    addLiteral(p.data() + literalStart, pos - literalStart);
    ++pos;
    Atom a;
    a.data = nullptr;
    a.dataLength = 0;
    if (pos < p.size() && p[pos] == '-') {
      a.pad = 0;
      ++pos;
    } else if (pos < p.size() && p[pos] == '0') {
      a.pad = '0';
      ++pos;
    }
    a.minWidth = readWidth(p, &pos);
    if (pos < p.size() && p[pos] == '.') {
      ++pos;
      a.maxWidth = readWidth(p, &pos);
    }
    if (pos >= p.size()) {
      literalStart = pos;
      break;
    }
    const char letter = p[pos++];
    Str arg;
    if (pos < p.size() && p[pos] == '{') {
      const size_t close = p.find('}', pos + 1);
      const size_t end = close == Str::npos ? p.size() : close;
      arg.assign(p, pos + 1, end - pos - 1);
      pos = close == Str::npos ? p.size() : close + 1;
    }
    literalStart = pos;
    switch (letter) {
      case 'm': a.kind = MESSAGE; break;
      case 'n': a.kind = LITERAL; a.data = "\n"; a.dataLength = 1; break;
      case '%': a.kind = LITERAL; a.data = "%"; a.dataLength = 1; break;
      case 'c': a.kind = CHANNEL; break;
      case 'p': a.kind = LEVEL; break;
      case 't': a.kind = THREAD; break;
      case 'r': a.kind = RELATIVE_TIME; break;
      case 'R': a.kind = RELATIVE_TIME_R; break;
      case 'u': a.kind = PROCESS_CLOCK; break;
      case 'd':
        a.kind = DATE;
        _times.push_back(std::make_unique<LogFormattedTime>(arg));
        a.data = _times.back().get();
        break;
      default: continue;  // an unknown letter adds nothing
    }
    _atoms.push_back(a);
  }
  addLiteral(p.data() + literalStart, p.size() - literalStart);
}

void LogFormat::apply(Str& out, const LogMsgMetadata& metadata, const Str& message) const {
  Str scratch;
  for (const Atom& a : _atoms) {
    StrSegment text;
    scratch.clear();
    switch (a.kind) {
      case MESSAGE: text = message; break;
      case LITERAL: text = StrSegment(static_cast<const char*>(a.data), a.dataLength); break;
      case CHANNEL:
        if (metadata.logger != nullptr) {
          text = StrSegment(metadata.logger->name(), metadata.logger->nameLength());
        }
        break;
      case LEVEL: text = StrSegment(logLevelText(metadata.level)); break;
      case THREAD: text = Thread::currentName(); break;
      case RELATIVE_TIME:
      case RELATIVE_TIME_R: {
        const int64_t ms = Timeval::msecDifference(metadata.time, startTime());
        scratch.format("%llu", static_cast<unsigned long long>(ms < 0 ? 0 : ms));
        text = scratch;
        break;
      }
      case PROCESS_CLOCK:
        scratch.format("%llu", static_cast<unsigned long long>(::clock()));
        text = scratch;
        break;
      case DATE:
        static_cast<const LogFormattedTime*>(a.data)->render(scratch, metadata.time);
        text = scratch;
        break;
      default:
        out.append("_atoms array invalid!");
        return;
    }
    if (text.size() > MAX_ATOM_TEXT) {
      const size_t length = text.size();
      scratch.format("{%u byte str!}", static_cast<unsigned>(length));
      text = scratch;
    }
    size_t len = text.size();
    if (len > a.maxWidth) len = a.maxWidth;
    if (len < a.minWidth && a.pad != 0) out.append(a.minWidth - len, a.pad);
    out.append(text.data(), len);
    if (len < a.minWidth && a.pad == 0) out.append(a.minWidth - len, ' ');
  }
}

const std::shared_ptr<const LogFormat>& LogFormat::defaultFormat() {
  static const auto* format = makeShared("%m%n");
  return *format;
}

const std::shared_ptr<const LogFormat>& LogFormat::basicLayout() {
  static const auto* format = makeShared("%R %p %c %m%n");
  return *format;
}

const std::shared_ptr<const LogFormat>& LogFormat::simpleLayout() {
  static const auto* format = makeShared("%-8p: %m%n");
  return *format;
}

void LogFormat::internal(const LogAppender* failing, LogLevel level, const char* fmt, ...) {
  ScopedErrnoSaver keep;
  static Logger* const logger = new Logger("Logger");
  LogChannel& root = LogChannel::root();
  if (level < root.level()) return;
  Str message;
  va_list args;
  va_start(args, fmt);
  Logger::vformat(message, keep.saved(), fmt, args);
  va_end(args);
  root.write(LogMsgMetadata(logger, level), message, failing);
}
