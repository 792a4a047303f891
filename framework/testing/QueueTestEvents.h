// Events for queue tests: a raw text and, optionally, a channel, and the
// raw text back out of an event. Test code only.
#pragma once

#include <string>

#include "framework/PipelineData.h"
#include "util/Str.h"

// An unshared event with `raw`; with `source` it also gets a channel of
// that source and a fixed host and sourcetype.
inline CowPipelineData makeQueueEvent(const std::string& raw, const char* source = nullptr) {
  CowPipelineData event;
  PipelineData* pd = event.writable();
  pd->internal_put("_raw", 4, djb2_hash("_raw"), Str(raw));
  if (source != nullptr) {
    const Str src(source), host("host::queue-test"), type("sourcetype::queue_test");
    pd->set_channel(&src, &host, &type);
  }
  return event;
}

inline std::string rawOf(const CowPipelineData& event) {
  const StrSegment raw = event->raw();
  return std::string(raw.data() == nullptr ? "" : raw.data(), raw.size());
}
