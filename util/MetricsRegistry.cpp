#include "util/MetricsRegistry.h"

const Str* metric::find(const char* key) const {
  for (const auto& kv : values) {
    if (kv.first == key) return &kv.second;
  }
  return nullptr;
}

MetricsRegistry& MetricsRegistry::instance() {
  static MetricsRegistry* registry = new MetricsRegistry;
  return *registry;
}

void MetricsRegistry::registerCallback(const Str& name, Callback cb) {
  ScopedLock lock(_mutex);
  _callbacks[name] = std::move(cb);
}

bool MetricsRegistry::unregisterCallback(const Str& name) {
  ScopedLock lock(_mutex);
  return _callbacks.erase(name) != 0;
}

bool MetricsRegistry::isRegistered(const Str& name) {
  ScopedLock lock(_mutex);
  return _callbacks.count(name) != 0;
}

std::vector<metric> MetricsRegistry::collect() {
  ScopedLock lock(_mutex);
  std::vector<metric> out;
  for (auto& entry : _callbacks) {
    metric m;
    m.name = entry.first;
    entry.second(&m);
    out.push_back(std::move(m));
  }
  return out;
}
