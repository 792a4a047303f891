// LogAppender: one output of the logging system, a file with size-based
// rotation or an open descriptor, with its line format. Also the root
// appender and the process-wide map of named appenders.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <vector>

#include "util/FileDescriptor.h"
#include "util/LogLevel.h"
#include "util/Mutex.h"
#include "util/Pathname.h"
#include "util/Str.h"

class LogFormat;

// Appenders live to the end of the process. write() is safe from any thread
// and writes each line with one write call, so lines never interleave; the
// configuration methods (setAttribute, finalSetup) belong to start-up,
// before other threads log through the appender.
class LogAppender {
 public:
  // The name that stands for the root appender in configuration.
  static const char* const ROOT_APPENDER_NAME;  // "rootAppender"

  // The root appender: standard error (descriptor 2) with the default
  // format "%m%n" until configured. Made on first use, never destroyed.
  static LogAppender& root();
  // The appender of that name (the root one for "rootAppender"); when absent,
  // a new one without file or format if `create`, else null. Safe from any
  // thread.
  static LogAppender* find(const Str& name, bool create);
  // finalSetup(name, true) for every named appender but the root.
  static void finalSetupAll();

  // One configuration attribute, with each "${KEY}" of the value replaced by
  // variables[KEY] (unknown keys stay as written):
  //   fileName                  closes the output, stores the name
  //   maxFileSize               digits, no leading zero ("0" alone allowed),
  //   maxBackupIndex              then only white space: "1000000", "0"
  //   layout                    "BasicLayout" ("%R %p %c %m%n"),
  //                             "SimpleLayout" ("%-8p: %m%n"), or
  //                             "PatternLayout" (keeps the format)
  //   layout.ConversionPattern  a format of this pattern
  // Returns false, changing nothing, for any other name or a bad value
  // ("010", "1x", "-1", a number past the field).
  bool setAttribute(const Str& name, const Str& value,
                    const std::map<Str, Pathname>& variables);
  // Settles the configuration after the file was read; `real` is false for
  // the root appender's pass. No format gets "%m%n". Without a file name
  // the root appender is disabled; another appender with no descriptor goes
  // to standard error with the warning "Appender \"%s\" has no filename,
  // assuming stderr", and drops maxBackupIndex and maxFileSize with a
  // warning each. maxBackupIndex without maxFileSize is dropped with a
  // warning. A named file is opened and closed once, so a bad path shows
  // at once ("Error opening \"%s\": %m").
  void finalSetup(const Str& name, bool real);

  // Formats the message (outside the lock) and appends it as one write.
  // Every 5 seconds at most (by the message's time; or when the time went
  // back) a named file's path is checked: when it is gone or is another
  // file (rotated or deleted by someone else), the file is reopened. Past
  // maxFileSize the file rotates. Failures are reported through the root
  // channel, never through this appender: "Error writing to \"%s\": %m"
  // (CRIT, and the file is closed; the next line reopens it), "Error
  // calling fstat on \"%s\": %m" (CRIT). Nothing for a disabled appender.
  void write(const LogMsgMetadata& metadata, const Str& message);

  // Closes the file and shifts the backups up by one: with maxBackupIndex
  // 3, file.2 becomes file.3, file.1 file.2, file file.1, and the oldest
  // (file.3) is unlinked when all slots are taken; maxBackupIndex 0 unlinks
  // the file itself. Then a new file is created. Failures are warnings
  // ("Error unlinking \"%s\": %m", "Error renaming \"%s\" to \"%s\": %m") or
  // an error ("Error opening \"%s\": %m"). `now` counts as the last
  // identity check. Takes the appender's lock.
  void rotateFile(const Timeval& now);

  // The file name with ".n" appended; n 0 is the name itself.
  Pathname filenameWithSuffix(unsigned n) const;

  // Configuration as it stands.
  const Pathname& fileName() const { return _fileName; }
  uint64_t maxFileSize() const { return _maxFileSize; }
  uint32_t maxBackupIndex() const { return _maxBackupIndex; }
  bool isDisabled() const { return _disabled.load(std::memory_order_relaxed); }
  // Null until a layout or finalSetup gave one.
  const LogFormat* format() const { return _format.get(); }

 private:
  // One report about this appender, sent after its lock is released.
  struct Report {
    LogLevel level;
    Str text;
  };

  explicit LogAppender(FileDescriptor fd);

  bool openFile();
  // Opens the named file for appending and takes its size and inode.
  bool openAndInitFile(std::vector<Report>* reports);
  void internal_rotateLocked(const Timeval& now, std::vector<Report>* reports);
  void internal_report(const std::vector<Report>& reports) const;

  FileDescriptor _fd;                      // guarded by _mutex; -1 when closed
  Pathname _fileName;                      // set at configuration
  uint64_t _maxFileSize;                   // 0: no rotation
  uint64_t _size;                          // guarded by _mutex
  uint32_t _maxBackupIndex;
  std::shared_ptr<const LogFormat> _format;  // set at configuration
  full_Mutex _mutex;
  std::atomic<bool> _disabled;
  ino_t _inode;                            // guarded by _mutex
  int64_t _lastCheck;                      // guarded by _mutex; seconds
};
