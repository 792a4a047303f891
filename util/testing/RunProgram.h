// Runs a built program as a child process and collects what it prints, for
// end-to-end tests of the command-line tools.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

struct ProgramOutcome {
  int status = -1;  // the exit status; -1 when it did not exit normally
  std::string output;  // standard output
};

// Runs `bin` with `words` as its arguments, standard output into a pipe.
// `inChild` runs in the child before the exec, to set its environment or
// redirect its standard error; it may _exit to report a failure of its own.
inline ProgramOutcome runProgram(const std::string& bin, const std::vector<std::string>& words,
                                 const std::function<void()>& inChild = {}) {
  std::vector<char*> argv = {const_cast<char*>(bin.c_str())};
  for (const std::string& w : words) argv.push_back(const_cast<char*>(w.c_str()));
  argv.push_back(nullptr);
  ProgramOutcome outcome;
  int fds[2];
  if (pipe(fds) != 0) return outcome;
  const pid_t pid = fork();
  if (pid == 0) {
    if (inChild) inChild();
    dup2(fds[1], STDOUT_FILENO);
    close(fds[0]);
    close(fds[1]);
    execv(bin.c_str(), argv.data());
    _exit(127);
  }
  close(fds[1]);
  char buffer[4096];
  ssize_t n;
  while ((n = read(fds[0], buffer, sizeof buffer)) > 0) outcome.output.append(buffer, n);
  close(fds[0]);
  int wstatus = 0;
  waitpid(pid, &wstatus, 0);
  outcome.status = WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : -1;
  return outcome;
}
