// PropertiesMap: one stanza of settings as the rest of the system sees it, a
// sorted map from setting name to Property, with the merge of layers that
// all layered configuration rests on: a layer added later never overrides a
// key that an earlier layer set.
#pragma once

#include <cstddef>
#include <map>

#include "libbundle/ConfPathPermissions.h"
#include "libbundle/Property.h"
#include "util/LStrContainer.h"
#include "util/Pathname.h"
#include "util/Str.h"

// Setting names: bytewise, as unsigned bytes, a shorter prefix first; case
// counts. std::string's ordering is exactly that.
typedef Str PropertyName;

// One owner at a time, no lock; const methods safe to share. Maps handed
// out by the configuration cache are private copies, and the only state
// they share is the reference-counted permissions.
//
// An absent key and a key with an empty value read alike everywhere
// (get, fill, the typed accessors), but differ in one place: an empty value
// is present, and so masks the same key in layers added after it.
class IniStanza;

class PropertiesMap {
 public:
  typedef std::map<PropertyName, Property> Map;
  typedef Map::const_iterator const_iterator;

  PropertiesMap() = default;
  // A full copy; the permission objects are shared, not copied.
  PropertiesMap(const PropertiesMap&) = default;
  // The settings of one stanza, in file order, each key and value trimmed of
  // blanks and tabs; provenance stays at its defaults for the cache to set.
  explicit PropertiesMap(const IniStanza& stanza);
  PropertiesMap& operator=(const PropertiesMap&) = default;

  // ---- The entries ----
  const_iterator begin() const { return _map.begin(); }
  const_iterator end() const { return _map.end(); }
  size_t size() const { return _map.size(); }
  bool empty() const { return _map.empty(); }
  // The entry of `key` with its provenance, or null when absent. The
  // pointer stays valid until the entry is erased or the map dies.
  const Property* getProperty(const Str& key) const;
  Property* getProperty(const Str& key);

  // ---- Reading ----
  // The value; Str::EMPTY_STR when the key is absent or its value empty.
  const Str& get(const Str& key) const;
  // With a non-empty value: copies it to `out`, true. Else false, `out`
  // left alone.
  bool fill(const Str& key, Str& out) const;
  // toBool of "disabled" with the default false.
  bool isDisabled() const;
  // False for an empty value, `out` left alone. Otherwise substitutes
  // environment variables in the value (substituteEnvironmentVariables),
  // assigns the result to `out` only when it is non-empty, and gives true
  // in either case: "$UNSET" gives true and leaves `out` alone.
  bool expandEnvironmentVariables(const Str& key, Pathname& out) const;
  // The value folded to lower case into `out`; false for an empty value,
  // `out` left alone.
  bool tryToLStr(const Str& key, LStrContainer& out) const;
  // The stanza's own value and provenance, as against its settings'.
  const Property& getEmbeddedProperty() const { return _embedded; }
  Property& getEmbeddedProperty() { return _embedded; }
  const ConfPathPermissionsReference& getMergedPermissions() const { return _mergedPermissions; }
  // The stanza's name with its markers expanded; empty until set.
  const Str& getExpandedName() const { return _expandedName; }
  // Per key in order: "\tAttr:", the key, a tab, the value, a newline.
  Str toString() const;

  // ---- Typed reading ----
  // tryToX(key, out): false, `out` left alone and nothing logged, for an
  // empty value. Otherwise the Str converter of the type, in base 10; text
  // that does not convert logs at warn level, on the channel
  // "PropertiesMap",
  //   Cannot convert string "<value>" into <type word> for "<key>"
  // and gives false with `out` left alone. The type words are "bool",
  // "int", "unsigned", "size_t", "unsigned long long", "unsigned long" and
  // "long". toX(key, dflt): the same converter on get(key), silent, `dflt`
  // when it fails; toBool is Str::toBool(dflt, true), so text that is no
  // boolean reads as true.
  bool tryToBool(const Str& key, bool& out) const;
  bool toBool(const Str& key, bool dflt) const;
  bool tryToInt(const Str& key, int& out) const;
  int toInt(const Str& key, int dflt) const;
  bool tryToUnsigned(const Str& key, unsigned& out) const;
  unsigned toUnsigned(const Str& key, unsigned dflt) const;
  bool tryToSizet(const Str& key, size_t& out) const;
  size_t toSizet(const Str& key, size_t dflt) const;
  bool tryToUnsignedLongLong(const Str& key, unsigned long long& out) const;
  unsigned long long toUnsignedLongLong(const Str& key, unsigned long long dflt) const;
  bool tryToUnsignedLong(const Str& key, unsigned long& out) const;
  unsigned long toUnsignedLong(const Str& key, unsigned long dflt) const;
  bool tryToLong(const Str& key, long& out) const;
  long toLong(const Str& key, long dflt) const;
  // Time spans by TimeParser::timeSpanToMsec ("30s", "5m", "90"), in
  // milliseconds. Neither form logs: false (`msec` alone) or `dflt` for an
  // empty value and for text that is no span.
  bool tryToTimeSpan(const Str& key, unsigned long long& msec) const;
  unsigned long long toTimeSpan(const Str& key, unsigned long long dflt) const;

  // ---- Changing ----
  // Creates the entry with a new Property when absent, then sets the value;
  // the provenance of an existing entry stays.
  void put(const Str& key, const Str& value);
  void put(const Str& key, const LStrContainer& value) { put(key, value.str()); }
  // put of "disabled" with "1" or "0".
  void setDisabled(bool disabled);
  void setExpandedName(const Str& name) { _expandedName = name; }
  // Erases every entry whose value equals `value` exactly ("" erases the
  // empty ones).
  void removeValues(const Str& value);
  // Takes `permissions` only while the merged permissions are empty, so the
  // first non-empty set offered stays.
  void mergePermissions(const ConfPathPermissionsReference& permissions);
  void clear();

  // ---- Layers ----
  // Adds this map as the next layer of `target`; layers go from the highest
  // precedence to the lowest. With `withMetadata`, offers this map's merged
  // permissions to target.mergePermissions (the first layer's stay) and
  // sets target's expanded name to this one's (the last layer's wins). The
  // stanza recorded is the source stanza of this map's embedded property,
  // or `stanzaName` when that is empty. Each key that target lacks is
  // copied with that stanza as its source stanza; a key target has, with
  // an empty value too, keeps target's value and provenance untouched.
  // While target's embedded property is still SOURCE_UNSET it takes all of
  // this map's embedded property, with the recorded stanza.
  void addLayerTo(PropertiesMap& target, bool withMetadata,
                  const Str& stanzaName = Str::EMPTY_STR) const;

  // ---- Provenance ----
  // Whether the embedded property came from a named stanza other than
  // "default".
  bool isEmbeddedPropertyFromNonDefault() const;
  // The property that speaks for the stanza: the embedded property, unless
  // an entry has a strictly greater source type; among such entries the
  // greatest type wins, and the first in key order among equals. When the
  // embedded property is from a non-default stanza, entries that came from
  // "default" are not considered.
  const Property& getHighestPriorityProperty() const;
  // That property's type; `name` receives its getPropertySourceName().
  PropertySourceType getSource(Str& name) const;
  const Str& getSourceStanza() const { return getHighestPriorityProperty().sourceStanza(); }
  const Str& getSourceApplication() const {
    return getHighestPriorityProperty().sourceApplication();
  }
  const User& getSourceUser() const { return getHighestPriorityProperty().sourceUser(); }

  // ---- Comparing ----
  // Adds to `out` (replacing entries of the same key) what this map would
  // have to state over `other`: each key of both whose values differ (also
  // when this one's is empty), and each key of this map alone whose value
  // is non-empty. Keys of `other` alone are ignored. Values are compared
  // exactly; provenance plays no part. The entries are copied whole.
  // REQUIRES: `out` is neither this map nor `other`; checked
  // ("&out != this && &out != &other").
  void difference(const PropertiesMap& other, PropertiesMap& out) const;
  // Equal embedded values, then the same keys with the same values. Each
  // comparison made logs at debug level, the embedded one as
  // "(_embedded, <a>) == (_embedded, <b>)" ("!=" when they differ).
  // Provenance, permissions and the expanded name play no part.
  bool operator==(const PropertiesMap& other) const;
  bool operator!=(const PropertiesMap& other) const { return !(*this == other); }
  // True when this embedded value is less; otherwise, also when it is
  // greater, the lexicographical comparison of the (key, value) entries.
  // So it is no strict ordering of maps whose embedded values differ: two
  // such maps may each be less than the other. Kept so on purpose.
  bool operator<(const PropertiesMap& other) const;

 private:
  Map _map;
  ConfPathPermissionsReference _mergedPermissions;
  Property _embedded;
  Str _expandedName;
};
