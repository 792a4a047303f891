#include "libbundle/PropertiesMap.h"

#include <algorithm>

#include "libbundle/IniFile.h"
#include "util/Assert.h"
#include "util/EnvironmentSubstitution.h"
#include "util/Logger.h"
#include "util/TimeParser.h"

namespace {

Logger gLogger("PropertiesMap");

// The shape of every tryToX: silence for an empty value, one warning for
// text that the converter refuses, and `out` written only on success.
template <class T, class Convert>
bool tryConverted(const Str& key, const Str& value, T& out, const char* typeWord, Convert convert) {
  if (value.empty()) return false;
  T converted;
  if (!convert(value, converted)) {
    gLogger.warn("Cannot convert string \"%s\" into %s for \"%s\"", value.c_str(), typeWord,
                 key.c_str());
    return false;
  }
  out = converted;
  return true;
}

}  // namespace

const Property* PropertiesMap::getProperty(const Str& key) const {
  const auto it = _map.find(key);
  return it != _map.end() ? &it->second : nullptr;
}

Property* PropertiesMap::getProperty(const Str& key) {
  const auto it = _map.find(key);
  return it != _map.end() ? &it->second : nullptr;
}

const Str& PropertiesMap::get(const Str& key) const {
  const Property* p = getProperty(key);
  return p != nullptr && !p->value().empty() ? p->value() : Str::EMPTY_STR;
}

bool PropertiesMap::fill(const Str& key, Str& out) const {
  const Str& value = get(key);
  if (value.empty()) return false;
  out = value;
  return true;
}

bool PropertiesMap::isDisabled() const { return toBool(Property::DISABLED_KEY, false); }

bool PropertiesMap::expandEnvironmentVariables(const Str& key, Pathname& out) const {
  const Str& value = get(key);
  if (value.empty()) return false;
  Str expanded;
  substituteEnvironmentVariables(value, expanded);
  if (!expanded.empty()) out = expanded;
  return true;
}

bool PropertiesMap::tryToLStr(const Str& key, LStrContainer& out) const {
  const Str& value = get(key);
  if (value.empty()) return false;
  out = value;
  return true;
}

Str PropertiesMap::toString() const {
  Str out;
  for (const auto& [key, property] : _map) {
    out += "\tAttr:";
    out += key;
    out += '\t';
    out += property.value();
    out += '\n';
  }
  return out;
}

bool PropertiesMap::tryToBool(const Str& key, bool& out) const {
  return tryConverted(key, get(key), out, "bool",
                      [](const Str& v, bool& o) { return v.tryToBool(o); });
}
bool PropertiesMap::toBool(const Str& key, bool dflt) const { return get(key).toBool(dflt, true); }

// The numeric pairs differ only in type, word and converter.
#define KESTRO_TYPED_ACCESSORS(Type, word, tryName, toName)                      \
  bool PropertiesMap::tryName(const Str& key, Type& out) const {                 \
    return tryConverted(key, get(key), out, word,                                \
                        [](const Str& v, Type& o) { return v.tryName(o, 10); }); \
  }                                                                              \
  Type PropertiesMap::toName(const Str& key, Type dflt) const { return get(key).toName(dflt, 10); }
KESTRO_TYPED_ACCESSORS(int, "int", tryToInt, toInt)
KESTRO_TYPED_ACCESSORS(unsigned, "unsigned", tryToUnsigned, toUnsigned)
KESTRO_TYPED_ACCESSORS(size_t, "size_t", tryToSizet, toSizet)
KESTRO_TYPED_ACCESSORS(unsigned long long, "unsigned long long", tryToUnsignedLongLong,
                       toUnsignedLongLong)
KESTRO_TYPED_ACCESSORS(unsigned long, "unsigned long", tryToUnsignedLong, toUnsignedLong)
KESTRO_TYPED_ACCESSORS(long, "long", tryToLong, toLong)
#undef KESTRO_TYPED_ACCESSORS

bool PropertiesMap::tryToTimeSpan(const Str& key, unsigned long long& msec) const {
  const Str& value = get(key);
  return !value.empty() && TimeParser::timeSpanToMsec(value, msec);
}

unsigned long long PropertiesMap::toTimeSpan(const Str& key, unsigned long long dflt) const {
  unsigned long long msec;
  return tryToTimeSpan(key, msec) ? msec : dflt;
}

void PropertiesMap::put(const Str& key, const Str& value) { _map[key].setValue(value); }

void PropertiesMap::setDisabled(bool disabled) {
  put(Property::DISABLED_KEY, disabled ? "1" : "0");
}

void PropertiesMap::removeValues(const Str& value) {
  std::erase_if(_map, [&value](const auto& entry) { return entry.second.value() == value; });
}

void PropertiesMap::mergePermissions(const ConfPathPermissionsReference& permissions) {
  if (_mergedPermissions.empty()) _mergedPermissions = permissions;
}

void PropertiesMap::clear() {
  _map.clear();
  _mergedPermissions = ConfPathPermissionsReference();
  _embedded.init();
  _expandedName.clear();
}

void PropertiesMap::addLayerTo(PropertiesMap& target, bool withMetadata,
                               const Str& stanzaName) const {
  if (withMetadata) {
    target.mergePermissions(_mergedPermissions);
    target._expandedName = _expandedName;
  }
  // A copy, since target may be this map and its embedded property changes
  // below.
  const Str stanza = _embedded.sourceStanza().empty() ? stanzaName : _embedded.sourceStanza();
  if (target._map.empty() && &target != this) {
    // The first layer of a merge: copying the tree whole is much cheaper
    // than inserting its entries one by one.
    target._map = _map;
    for (auto& entry : target._map) entry.second.setSourceStanza(stanza);
  } else {
    for (const auto& [key, property] : _map) {
      const auto [it, inserted] = target._map.try_emplace(key, property);
      if (inserted) it->second.setSourceStanza(stanza);
    }
  }
  if (target._embedded.sourceType() == SOURCE_UNSET) {
    target._embedded = _embedded;
    target._embedded.setSourceStanza(stanza);
  }
}

bool PropertiesMap::isEmbeddedPropertyFromNonDefault() const {
  return !_embedded.sourceStanza().empty() && !_embedded.isPropertySourceStanzaDefault();
}

const Property& PropertiesMap::getHighestPriorityProperty() const {
  const bool skipDefault = isEmbeddedPropertyFromNonDefault();
  const Property* best = &_embedded;
  for (const auto& entry : _map) {
    const Property& p = entry.second;
    if (skipDefault && p.isPropertySourceStanzaDefault()) continue;
    if (p.sourceType() > best->sourceType()) best = &p;
  }
  return *best;
}

PropertySourceType PropertiesMap::getSource(Str& name) const {
  const Property& p = getHighestPriorityProperty();
  name = p.getPropertySourceName();
  return p.sourceType();
}

void PropertiesMap::difference(const PropertiesMap& other, PropertiesMap& out) const {
  kassert(&out != this && &out != &other);
  auto mine = _map.begin();
  auto theirs = other._map.begin();
  while (mine != _map.end()) {
    if (theirs == other._map.end() || mine->first < theirs->first) {
      if (!mine->second.value().empty()) out._map.insert_or_assign(mine->first, mine->second);
      ++mine;
    } else if (theirs->first < mine->first) {
      ++theirs;
    } else {
      if (mine->second.value() != theirs->second.value())
        out._map.insert_or_assign(mine->first, mine->second);
      ++mine;
      ++theirs;
    }
  }
}

bool PropertiesMap::operator==(const PropertiesMap& other) const {
  const Str& a = _embedded.value();
  const Str& b = other._embedded.value();
  const bool embeddedEqual = a == b;
  gLogger.debug("(_embedded, %s) %s (_embedded, %s)", a.c_str(),
                embeddedEqual ? "==" : "!=", b.c_str());
  if (!embeddedEqual || _map.size() != other._map.size()) return false;
  for (auto mine = _map.begin(), theirs = other._map.begin(); mine != _map.end();
       ++mine, ++theirs) {
    const bool equal =
        mine->first == theirs->first && mine->second.value() == theirs->second.value();
    gLogger.debug("(%s, %s) %s (%s, %s)", mine->first.c_str(), mine->second.value().c_str(),
                  equal ? "==" : "!=", theirs->first.c_str(), theirs->second.value().c_str());
    if (!equal) return false;
  }
  return true;
}

bool PropertiesMap::operator<(const PropertiesMap& other) const {
  if (_embedded.value() < other._embedded.value()) return true;
  return std::lexicographical_compare(_map.begin(), _map.end(), other._map.begin(),
                                      other._map.end(),
                                      [](const Map::value_type& x, const Map::value_type& y) {
                                        if (x.first != y.first) return x.first < y.first;
                                        return x.second.value() < y.second.value();
                                      });
}

PropertiesMap::PropertiesMap(const IniStanza& stanza) {
  for (auto it = stanza.settings().begin(); it != stanza.settings().end(); ++it) {
    put(Str(StrSegment(it.key()).trim()), Str(StrSegment(it.value().value()).trim()));
  }
}
