// Test doubles for the dateprobe front: a back that answers from a script,
// and a stream that collects what the front prints. For tests only.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "tools/dateprobe/MDateprobeBack.h"

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
