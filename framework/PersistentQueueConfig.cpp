#include "framework/PersistentQueueConfig.h"

#include <exception>

#include "framework/PersistentQueue.h"
#include "framework/QueueManager.h"
#include "libbundle/PropertiesMap.h"
#include "libbundle/PropertyPages.h"
#include "loaderinfo/LoaderInfo.h"
#include "util/Logger.h"
#include "util/UnitUtil.h"

namespace {

Logger gLogger("PersistentQueueConfig");

constexpr uint64_t DEFAULT_QUEUE_BYTES = 0x7D000;  // 1000 units of 512 bytes

const Str* nonEmpty(const PropertiesMap& props, const char* key) {
  const Property* p = props.getProperty(key);
  return p == nullptr || p->value().empty() ? nullptr : &p->value();
}

// Input names become file names: no separators or drive colons.
Str fileSafe(const Str& name) {
  Str out = name;
  for (char& c : out) {
    if (c == '.' || c == ':' || c == '/' || c == '\\') c = '_';
  }
  return out;
}

uint64_t sizeOrDefault(const PropertiesMap& props, const char* key) {
  const Str* value = nonEmpty(props, key);
  uint64_t size = DEFAULT_QUEUE_BYTES;
  if (value != nullptr && !parseQueueSizeValue(*value, &size)) size = DEFAULT_QUEUE_BYTES;
  return size;
}

}  // namespace

bool fillQueueStanza(const Str& conf, const Str& stanza, PropertiesMap* out) {
  try {
    PropertyPages* pages = PropertyPages::instance(conf);
    return pages != nullptr && pages->getStanza(stanza, *out);
  } catch (const std::exception&) {
    return false;
  }
}

Pathname persistentQueueDirectory() {
  return LoaderInfo::getInstance().getKestroHome() / "var" / "run" / "kestro";
}

uint64_t PersistentQueueConfig::parseSize(const Str& value) {
  uint64_t size = 0;
  if (parseQueueSizeValue(value, &size)) return size;
  gLogger.warn() << "Could not parse persistent queue configuration. size=" << value
                 << ". Please specify in form d+(K|M|G|T)B";
  return 0;
}

void PersistentQueueConfig::getWriterQueueSizeFromName(const Str& conf, const Str& name,
                                                       uint64_t* sizeOut,
                                                       uint64_t* fileSizeOut) {
  PropertiesMap stanza;
  fillQueueStanza(conf, Str::operator_plus("persistentQueue:", name), &stanza);
  *sizeOut = sizeOrDefault(stanza, "queueSize");
  if (nonEmpty(stanza, "persistentQueueSize") == nullptr) {
    gLogger.warn() << "persistentQueueSize" << " not defined for queue=" << name << " in "
                   << conf << ". Will not use persistent queue";
    *fileSizeOut = 0;
    return;
  }
  *fileSizeOut = sizeOrDefault(stanza, "persistentQueueSize");
}

PersistentQueueConfig::PersistentQueueConfig(PersistentQueue* queue, Str serverConfName,
                                             Str queueName, Str inputName,
                                             const PropertiesMap& inputProps)
    : _queue(queue), _queueName(queueName), _inputName(inputName) {
  PropertiesMap queueStanza;
  fillQueueStanza(serverConfName, Str::operator_plus("queue=", queueName), &queueStanza);
  _sizeInMemory = sizeOrDefault(queueStanza, "maxSize");
  if (const Str* v = nonEmpty(inputProps, "queueSize")) _sizeInMemory = parseSize(*v);

  const Str* named = nonEmpty(inputProps, "persistentQueue");
  const Str* fileSize = nonEmpty(inputProps, "persistentQueueSize");
  if (named != nullptr) {
    _writerName = *named;
    getWriterQueueSizeFromName(serverConfName, *named, &_sizeInMemory, &_fileSize);
  } else if (fileSize != nullptr) {
    _writerName = Str::operator_plus("pq_", fileSafe(inputName));
    _fileSize = parseSize(*fileSize);
  }
  _persistent = _fileSize != 0;
  if (!_persistent) {
    gLogger.debug() << "Creating memory based queue writer of size=" << _sizeInMemory;
    return;
  }
  _path = persistentQueueDirectory() / queueName / _writerName;
  gLogger.debug() << "Creating persistent queue writer for " << inputName
                  << " with writerQueueName=" << _writerName << " with sizeInMem="
                  << _sizeInMemory << ", persistentFileSize=" << _fileSize;
}

QueueWriter* PersistentQueueConfig::getWriter() {
  if (!_persistent) return _queue->getInMemoryWriter(_inputName, _sizeInMemory);
  const Str key = Str().format("%s_%s", _queueName.c_str(), _writerName.c_str());
  return _queue->getPersistentQueueWriter(key, _sizeInMemory, _fileSize, _path);
}
