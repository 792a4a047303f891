// How an input's queue writer is chosen and sized: from the queue's stanza
// of the "server" configuration and the input's own settings.
#pragma once

#include <cstdint>

#include "util/Pathname.h"
#include "util/Str.h"

class PersistentQueue;
class PropertiesMap;
class QueueWriter;

// Settings read, in order of precedence:
//   input "queueSize"            memory size (else the queue stanza's
//                                "maxSize", in 512-byte units, default 1000)
//   input "persistentQueue"      names stanza "persistentQueue:<name>" of
//                                "server" with "queueSize" and
//                                "persistentQueueSize"
//   input "persistentQueueSize"  a file for this input alone, written as
//                                "pq_<input>" with ".:/\" made "_"
// The file is $KESTRO_HOME/var/run/kestro/<queue>/<writer name>.
// One owner at a time; the queue it fills is safe from any thread.
class PersistentQueueConfig {
 public:
  PersistentQueueConfig(PersistentQueue* queue, Str serverConfName, Str queueName,
                        Str inputName, const PropertiesMap& inputProps);

  // The writer these settings call for, made in the queue on first use.
  QueueWriter* getWriter();

  // All digits: 512-byte units ("1000" is 512000); otherwise
  // UnitUtil::parseSizeInBytes. Anything else warns "Could not parse
  // persistent queue configuration. size=<value>. Please specify in form
  // d+(K|M|G|T)B" and gives 0.
  static uint64_t parseSize(const Str& value);
  // Reads "queueSize" and "persistentQueueSize" of stanza
  // "persistentQueue:<name>" of `conf`; either, unparsable, is 512000; a
  // missing "queueSize" is 512000 and a missing "persistentQueueSize" warns
  // and is 0 (no file).
  static void getWriterQueueSizeFromName(const Str& conf, const Str& name, uint64_t* sizeOut,
                                         uint64_t* fileSizeOut);

  uint64_t sizeInMemory() const { return _sizeInMemory; }
  uint64_t persistentFileSize() const { return _fileSize; }
  bool isPersistent() const { return _persistent; }
  const Str& writerName() const { return _writerName; }
  const Pathname& path() const { return _path; }

 private:
  PersistentQueue* _queue;
  Str _queueName;
  Str _inputName;
  Str _writerName;
  Pathname _path;
  uint64_t _sizeInMemory = 0;
  uint64_t _fileSize = 0;
  bool _persistent = false;
};

// The directory of queue files under the install root: "var/run/kestro".
Pathname persistentQueueDirectory();

// Merges stanza `stanza` of configuration `conf` into *out; false when
// there is no such configuration or stanza (tools and tests run without).
bool fillQueueStanza(const Str& conf, const Str& stanza, PropertiesMap* out);
