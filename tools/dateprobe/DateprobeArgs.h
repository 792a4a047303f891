// The command line of dateprobe: which mode a list of arguments asks for,
// and the usage text for a list that asks for none.
#pragma once

#include <cstdio>

#include "util/Str.h"

enum class DateprobeMode { USAGE, FILE_LINES, SELF_TEST, ONE_STRING };

// What the arguments ask for. A plain value; one owner at a time.
struct DateprobeArgs {
  DateprobeMode mode = DateprobeMode::USAGE;
  // ONE_STRING: the line to parse. FILE_LINES: the file name.
  Str text;
  // The source context; "*" unless given.
  Str context = "*";
  // SELF_TEST: whether <n> was read, and its strtol value (0 for text that
  // is no number, LONG_MIN/LONG_MAX when out of range).
  bool hasStartRow = false;
  long startRow = 0;
};

// Classifies argv; argc counts the program name. The first argument decides:
//   file <filename> [<context>]  FILE_LINES, only with argc 3 or 4
//   test [...]                   SELF_TEST with any argc; <n> is argv[2],
//                                read in base 10 only when argc is 3
//   <string> [<context>]         ONE_STRING for any other argc of 2 or 3
//   anything else                USAGE
// So "file" alone parses the word "file", "file a b c" is USAGE, and
// "test 5 x" is a full test run. Touches no file.
// REQUIRES: argv[0..argc-1] are C strings.
DateprobeArgs classifyDateprobeArgs(int argc, const char* const* argv);

// Writes the usage text, six lines that do not mention test mode.
void printDateprobeUsage(FILE* out);
