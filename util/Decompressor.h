// Decompressor: runs an external command (a decompression program) with a
// file on its standard input, and hands out what the command writes. A
// thread of its own feeds the file in, so that the caller reading the
// output and the command reading its input can never block each other.
#pragma once

#include <sys/types.h>

#include <atomic>

#include "util/FileDescriptor.h"
#include "util/Pathname.h"
#include "util/Str.h"
#include "util/Thread.h"

// The command line is split into words as a shell would quote them
// ("gzip -dc", "xz -d", "'my tool' --stdout"), but no shell runs it. The
// command inherits standard error. One owner at a time; the feeding thread
// touches only the file, the command's input and its own error text.
//
// Messages, logged on the channel "Decompressor" and kept for error():
// "Error opening file: %s: %m", "Failed to setup pipes", "Failed to start
// external process" (at construction; valid() is then false), "Error
// reading compressed data from file '%s': %m" and "Error sending
// compressed data to '%s': %m" (by the feeding thread).
class Decompressor : public Thread {
 public:
  // Opens `path`, starts `command` and lets the feeding thread run. Check
  // valid(): on failure nothing runs and error() says why.
  Decompressor(const Pathname& path, const Str& command);
  // close(), when not done yet.
  ~Decompressor() override;

  // Up to `n` bytes of the command's output: the count, 0 at its end, -1
  // with errno (and "Error reading decompressed data from '%s': %m" logged
  // and kept for error()). -1 with EBADF once closed or when not valid.
  ssize_t read(void* buf, unsigned long n);
  // Stops reading, waits for the feeding thread and the command, and
  // returns whether all went well: the file was fed whole and the command
  // exited with status 0. After a close that came before the end of the
  // output the command is told to stop (SIGTERM), and its death by that
  // signal or by SIGPIPE is no failure. On failure error() says why, as
  // "Error decompressing '%s' with command '%s': %s" for a bad exit.
  bool close();
  // Whether the command runs (or ran).
  bool valid() const { return _pid > 0; }
  const Str& error() const { return _error; }

  // Decompresses `path` with `command` into `out` (replaced), stopping at
  // `limit` bytes. False with `error` set when the command cannot start
  // ("Error spawning command '%s' to decompress '%s': %s"), when reading its
  // output fails, or as close() says; `out` then holds what came before.
  static bool decompress(const Pathname& path, const Str& command, Str& out, unsigned long limit,
                         Str& error);

 protected:
  // The feeding thread: copies the file into the command's input, then
  // closes that input so the command sees its end.
  void main() override;

 private:
  // Pipes and the child process; false with _error set.
  bool forkCommand();
  // Turns a waitpid status into a result and, when bad, _error.
  bool handleProcessStatus(int status, bool stoppedEarly);
  void internal_fail(const char* fmt, ...) __attribute__((format(printf, 2, 3)));

  Pathname _path;
  Str _command;
  ScopedFileDescriptor _file;
  ScopedFileDescriptor _toCommand;    // written by the feeding thread only
  ScopedFileDescriptor _fromCommand;  // read by the owner
  pid_t _pid = -1;
  bool _started = false;
  bool _closed = false;
  bool _sawEnd = false;
  std::atomic<bool> _stopping{false};
  Str _error;
  Str _feedError;  // the feeding thread's; read after the join
};
