// thrownText: runs code that should throw and returns what it threw, so that
// tables of misuses can compare the messages. Test code only.
#pragma once

#include <string>

// The what() of the `E` that `fn` throws; "<nothing thrown>" when it
// returns normally. Exceptions of other types pass on to the test.
template <class E, class F>
std::string thrownText(F&& fn) {
  try {
    fn();
  } catch (const E& e) {
    return e.what();
  }
  return "<nothing thrown>";
}
