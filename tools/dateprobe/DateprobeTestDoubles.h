// Test doubles for the dateprobe front: a back that answers from a script,
// a stream that collects what the front prints, and the texts the front
// prints, written out by hand. For tests only.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "framework/MDateprobeBack.h"

// Answers each line from `results`, recording every call. A line with no
// entry yields nothing. One owner at a time.
class FakeDateprobeBack : public MDateprobeBack {
 public:
  std::map<std::string, DateprobeParse> results;
  Str patternName;
  // When not empty, setUp throws std::runtime_error with this text.
  std::string setUpFailure;

  int initCalls = 0;
  std::vector<std::string> setUpContexts;
  std::vector<std::string> sources;
  std::vector<std::string> parsedLines;
  std::vector<Timeval> parsedNows;

  void initProcess() override { ++initCalls; }
  void setUp(const Str& context) override {
    setUpContexts.push_back(context);
    if (!setUpFailure.empty()) throw std::runtime_error(setUpFailure);
  }
  void setSource(const Str& text) override { sources.push_back(text); }
  bool parse(const Str& line, const Timeval& now, Timeval* out) override {
    DateprobeParse detail;
    if (!parseDetailed(line, now, &detail)) return false;
    *out = detail.time;
    return true;
  }
  bool parseDetailed(const Str& line, const Timeval& now, DateprobeParse* out) override {
    parsedLines.push_back(line);
    parsedNows.push_back(now);
    auto it = results.find(line);
    if (it == results.end()) return false;
    *out = it->second;
    return true;
  }
  Str lastPatternName() const override { return patternName; }

  // Makes `line` yield `time`.
  void answer(const std::string& line, Timeval time) {
    DateprobeParse p;
    p.time = time;
    results[line] = p;
  }
};

// A FILE* over memory; text() gives everything written so far. One owner at
// a time.
class CapturedOutput {
 public:
  CapturedOutput() : _file(open_memstream(&_buffer, &_size)) {}
  ~CapturedOutput() {
    fclose(_file);
    free(_buffer);
  }
  CapturedOutput(const CapturedOutput&) = delete;
  CapturedOutput& operator=(const CapturedOutput&) = delete;

  FILE* file() { return _file; }
  std::string text() {
    fflush(_file);
    return std::string(_buffer, _size);
  }

 private:
  char* _buffer = nullptr;
  size_t _size = 0;
  FILE* _file;
};

// What dateprobe prints when its arguments ask for no mode.
inline constexpr char kDateprobeUsage[] =
    "Usage: \n"
    "\tdateprobe \"<string>\" [\"<sourcetype>|source::<filename>|host::<hostname>\"]\n"
    "\tdateprobe file <filename> [\"<sourcetype>|host::<hostname>\"]\n"
    "For example:\n"
    "\tdateprobe \"10/11/2009 12:11:13\" \"syslog\"\n"
    "\tdateprobe file \"foo.log\" \"syslog\"\n";

// The line a self-test run prints for each row that passed.
inline constexpr char kSelfTestPassed[] =
    "********************************************************\n";

// The block a self-test run prints for failed row `index`: its line, the
// name of the pattern that matched, the expected fields as "m/d/y h:m:s" and
// the asctime text of the time found.
inline std::string selfTestFailure(size_t index, const std::string& line,
                                   const std::string& patterns, const std::string& expected,
                                   const std::string& result) {
  return "--------------------BEGIN-------------------\n"
         "**   FAILED: test " + std::to_string(index) + "\n"
         "**     LINE: " + line + "\n"
         "** PATTERNS: " + patterns + "\n"
         "** EXPECTED: " + expected + "\n"
         "**   RESULT: " + result + "\n";
}
