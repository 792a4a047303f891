// The system's iconv command as an outside oracle for the Unicode streams:
// what it makes of the same bytes. Test code only; it works through the C
// library and a shell so that it shares nothing with the code under test.
#pragma once

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

// Runs `command` with the bytes of `input` in a file named by "%s" in it,
// and returns what it printed; a failure to run fails the test.
inline std::string runOnBytes(const std::string& input, const char* commandFormat) {
  const char* base = std::getenv("TMPDIR");
  std::string path = std::string(base != nullptr && *base != '\0' ? base : "/tmp") +
                     "/kestro-iconv-XXXXXX";
  const int fd = mkstemp(path.data());
  if (fd < 0) {
    ADD_FAILURE() << "mkstemp";
    return std::string();
  }
  if (write(fd, input.data(), input.size()) != static_cast<ssize_t>(input.size())) {
    ADD_FAILURE() << "write " << path;
  }
  close(fd);
  char command[1024];
  snprintf(command, sizeof command, commandFormat, path.c_str());
  std::string out;
  FILE* p = popen(command, "r");
  if (p == nullptr) {
    ADD_FAILURE() << "popen " << command;
  } else {
    char buf[65536];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
    pclose(p);
  }
  unlink(path.c_str());
  return out;
}

// The UTF-8 that iconv makes of `bytes` read as `encoding` ("UTF-16LE"...),
// with undecodable units skipped (-c). It goes through UTF-32 so that a
// UTF-8 input is decoded too rather than copied. Every U+FEFF is removed,
// since the readers drop it wherever it stands.
inline std::string iconvToUtf8(const std::string& bytes, const char* encoding) {
  const std::string format = std::string("iconv -c -f ") + encoding +
                             " -t UTF-32LE '%s' 2>/dev/null | iconv -f UTF-32LE -t UTF-8";
  std::string out = runOnBytes(bytes, format.c_str());
  for (size_t at; (at = out.find("\xEF\xBB\xBF")) != std::string::npos;) out.erase(at, 3);
  return out;
}

// The bytes iconv writes for the UTF-8 `text` in `encoding`, no mark.
inline std::string iconvFromUtf8(const std::string& text, const char* encoding) {
  const std::string format = std::string("iconv -f UTF-8 -t ") + encoding + " '%s'";
  return runOnBytes(text, format.c_str());
}
