// Runs a built program as a child process and collects what it prints, for
// end-to-end tests of the command-line tools and the daemon.
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

// A child that is still running: its process id and the read end of the
// pipe on its standard output. Closed and reaped by waitProgram.
struct RunningProgram {
  pid_t pid = -1;
  int output = -1;
};

// Starts `bin` with `words` as its arguments, standard output into a pipe,
// and returns at once. `inChild` runs in the child before the exec, to set
// its environment or redirect its standard error; it may _exit to report a
// failure of its own.
inline RunningProgram startProgram(const std::string& bin, const std::vector<std::string>& words,
                                   const std::function<void()>& inChild = {}) {
  std::vector<char*> argv = {const_cast<char*>(bin.c_str())};
  for (const std::string& w : words) argv.push_back(const_cast<char*>(w.c_str()));
  argv.push_back(nullptr);
  RunningProgram running;
  int fds[2];
  if (pipe(fds) != 0) return running;
  running.pid = fork();
  if (running.pid == 0) {
    if (inChild) inChild();
    dup2(fds[1], STDOUT_FILENO);
    close(fds[0]);
    close(fds[1]);
    execv(bin.c_str(), argv.data());
    _exit(127);
  }
  close(fds[1]);
  running.output = fds[0];
  return running;
}

// Reads the rest of the child's standard output, then waits for its end.
inline ProgramOutcome waitProgram(RunningProgram& running) {
  ProgramOutcome outcome;
  if (running.pid < 0) return outcome;
  char buffer[4096];
  ssize_t n;
  while ((n = read(running.output, buffer, sizeof buffer)) > 0) outcome.output.append(buffer, n);
  close(running.output);
  int wstatus = 0;
  waitpid(running.pid, &wstatus, 0);
  running.pid = -1;
  outcome.status = WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : -1;
  return outcome;
}

// Runs `bin` as startProgram does and waits for its end.
inline ProgramOutcome runProgram(const std::string& bin, const std::vector<std::string>& words,
                                 const std::function<void()>& inChild = {}) {
  RunningProgram running = startProgram(bin, words, inChild);
  return waitProgram(running);
}
