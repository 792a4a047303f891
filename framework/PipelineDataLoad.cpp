// Filling a record from an input's settings: the seam between the event
// record and the configuration store.
#include "framework/PipelineData.h"

#include <strings.h>

#include <cstring>

#include "framework/ServerConfig.h"
#include "libbundle/PropertiesMap.h"

namespace {

const char* const REPORTING_HOST_PREFIX = "reportinghost::";

// Setting names are ASCII words; a caseless compare that decodes nothing
// cannot trip over stray bytes in a hostile name.
bool nameIs(const Str& name, const char* word) {
  return name.size() == std::strlen(word) && strncasecmp(name.data(), word, name.size()) == 0;
}

const Str* ifSet(const optional_Str& value) { return value.isSet() ? &value.get() : nullptr; }

}  // namespace

void PipelineData::load(const PropertiesMap* props) {
  assertIsUnshared();
  optional_Str source, host, sourcetype;
  if (props != nullptr) {
    for (const auto& [name, property] : *props) {
      const Str& value = property.value();
      if (value.empty() || nameIs(name, "_raw")) continue;
      if (nameIs(name, "source")) {
        source.set(_sourcePrefix, value);
      } else if (nameIs(name, "sourcetype")) {
        sourcetype.set(_sourceTypePrefix, value);
      } else if (nameIs(name, "host")) {
        host.set(_hostPrefix, value);
      } else if (nameIs(name, "reportinghost")) {
        Str text(REPORTING_HOST_PREFIX);
        text.append(value);
        put(_reportingHostKey, text);
      } else if (nameIs(name, "index")) {
        put(_indexKey, value);
      } else {
        internal_put(name.data(), name.size(), djb2_hash(name.data(), name.size()), value);
      }
    }
  }
  if (!host.isSet()) host.set(_hostPrefix, ServerConfig::getServerName());
  set_channel(ifSet(source), ifSet(host), ifSet(sourcetype));
}

void PipelineData::load(const PropertiesMap* props, const Str& path) {
  if (props != nullptr && props->isDisabled()) return;
  size_t begin = path.find(':');
  if (begin == Str::npos) return;
  while (begin < path.size() && path[begin] == ':') begin++;
  while (begin < path.size() && path[begin] == '/') begin++;
  size_t end = path.size();
  while (end > begin && path[end - 1] == '/') end--;
  Str stored("/");
  if (end - begin != 1) stored.append(path.data() + begin, end - begin);
  put(_pathKey, stored);
  load(props);
}
