// PropertyPages: the façade through which every subsystem reads and writes
// layered configuration, one page per configuration type ("props",
// "transforms", "inputs"...) and context; and its two kinds,
// LegacyPropertyPages and UserPropertyPages.
#pragma once

#include <functional>
#include <memory>
#include <set>

#include "libbundle/ContextProperties.h"
#include "libbundle/IConfCache.h"
#include "libbundle/PropertiesMap.h"
#include "libbundle/PropertyPagesContext.h"
#include "libbundle/PropertyPagesException.h"
#include "libbundle/StanzaCollection.h"
#include "libbundle/User.h"
#include "util/Str.h"
#include "util/StrSegment.h"

class ConfPath;
class IConfPathMapper;
class ConfPathMetadata;

// Pages live for the process and are shared by all threads: every read and
// write may be called from any thread. Reads hold the cache's mutex for
// their length and return private copies; writes are serialised by one
// process-wide write mutex (and, with pooling, by ScopedConfMutex between
// processes). Lock order: instances mutex or write mutex, ScopedConfMutex,
// cache mutex, pattern lock.
class PropertyPages {
 public:
  // The selection of the listing calls, bits that may be or-ed. Without
  // GET_BY_FILTER a stanza is taken when its name starts with the text
  // (case counts); with it, when the name contains the text in any case.
  // propsObjByFilterAndMode sets GET_BY_FILTER itself.
  enum GetModes : unsigned {
    GET_BY_PREFIX = 0,
    GET_BY_FILTER = 1,
    // Stanzas under their expanded names (StanzaCollection::expandStanzaNames).
    GET_EXPANDED_NAMES = 2,
  };

  virtual ~PropertyPages();
  PropertyPages(const PropertyPages&) = delete;
  PropertyPages& operator=(const PropertyPages&) = delete;

  // ---- Getting a page ----
  // The page of configuration type `name` for `context`, made on first use
  // and never freed. Throws PropertyPagesException (no user info provider,
  // impersonation refused: see getUserToActAs) and
  // PropertyPagesContextException ("Application is disabled: <app>" for an
  // unknown or disabled application, except in page "app"; "<page>:
  // Invalid configuration context: Missing app context" for a user
  // without an application).
  static PropertyPages* instance(const Str& name);
  static PropertyPages* instance(const Str& name, const PropertyPagesContext& context);
  // "props", "transforms" and "inputs".
  static PropertyPages* propsInstance();
  static PropertyPages* propsInstance(const PropertyPagesContext& context);
  static PropertyPages* regexInstance();
  static PropertyPages* regexInstance(const PropertyPagesContext& context);
  static PropertyPages* inputInstance();
  // The user a page for `context` acts as, into `out`: nobody
  // (User::EMPTY_USER) without a user in the context; else the context's
  // user, or the current user where the context names "nobody" and the
  // current user may not act for others. Throws PropertyPagesException
  // "Cannot get user to act as: No user info provider registered <context>"
  // and PropertyPagesImpersonationException "User '<current>' could not
  // act as: <user>".
  static void getUserToActAs(const PropertyPagesContext& context, User& out);
  // Throws what getUserToActAs throws; returns when the context is usable.
  static void canContextBeUsed(const PropertyPagesContext& context);

  // ---- Reading ----
  // See fillLayersImpl (libbundle/FillLayers.h): the layers that apply to
  // `context` ("syslog", "source::/var/log/x.log|host::web01|syslog"),
  // merged into *out, "default" last.
  void fillLayers(PropertiesMap* out, const StrSegment& context, bool patternMatch);
  // The stanza named exactly `name` with its metadata, added to `out` as a
  // layer; false without one.
  bool getStanza(const Str& name, PropertiesMap& out);
  bool propsExist(const char* name);
  // False when the stanza doesn't exist; otherwise reads it into `out` and
  // gives true unless it is disabled.
  bool getEnabledProps(const Str& name, PropertiesMap& out);
  // Adds the names of all stanzas.
  void keys(std::set<Str>& out);

  // ---- Listings ----
  // The stanzas of this page selected by `text` and `modes` (GetModes),
  // each with its metadata, into `out` (cleared first); "" selects all.
  void propsObjByFilterAndMode(const Str& text, unsigned modes, StanzaCollection& out);
  void propsObjByPrefixAndMode(const Str& text, unsigned modes, StanzaCollection& out);
  // Every stanza of this type per (user, application) context the acting
  // user may read, appended to `out`. Empty `users` or `applications`
  // take all. Contexts that cannot be used are left out ("Skipping
  // entities from context: %s: %s").
  void propsWithContext(const std::set<Str>& users, const std::set<Str>& applications,
                        ContextPropertiesVector& out);
  void propsWithContextByMode(const std::set<Str>& users, const std::set<Str>& applications,
                              ContextPropertiesVector& out, unsigned modes);

  // ---- Writing ----
  // Each writes into the local layer of the context (the context's
  // application, else "system"), writes only what differs from what the
  // layers already give, and refreshes the cache. With `overwriteAll` the
  // stanza is first removed from the writing layer, so it ends up exactly
  // `props` over the lower layers. They throw ConfPathException and its
  // kinds (no writer, permission denied, a file that cannot be written);
  // the put forms catch them, log, and return false.
  void saveStanza(const Str& name, const PropertiesMap& props, bool overwriteAll);
  void saveStanzaToApp(const Str& application, const Str& name, const PropertiesMap& props,
                       bool overwriteAll);
  // In the context's application or "system": "Failed to save stanza [%s]
  // %s to default: %s".
  bool putDefault(const char* name, const PropertiesMap* props);
  // "Failed to save stanza [%s] %s: %s".
  bool putLocal(const char* name, const PropertiesMap* props, bool overwriteAll);
  // "Failed to save stanza [%s] %s to app %s: %s".
  bool putLocalNS(const Str& application, const char* name, const PropertiesMap* props,
                  bool overwriteAll);
  // In the application "learned".
  bool putLearned(const char* name, const PropertiesMap* props);
  void putAttribute(const Str& stanza, const Str& key, const Str& value);
  // Removes the setting or stanza from the writing layer; what lower
  // layers give stays visible.
  void deleteAttribute(const Str& stanza, const Str& key);
  void deleteStanza(const Str& stanza);
  // Copies the setting's (stanza's) effective value to the application
  // `toApplication` and removes it from the context's layer.
  void moveAttribute(const Str& stanza, const Str& key, const Str& toApplication);
  void moveStanza(const Str& stanza, const Str& toApplication);
  // Sets "disabled" to "1".
  void disableStanza(const char* name);
  // Metadata: share a stanza (or one setting) with its application or the
  // whole system and set who may read and write it. A missing entity
  // throws ConfPathException "No entity '<stanza>' exists and is eligible
  // for an access control" (reason "No eligible entity").
  void shareAndChmod(const Str& stanza, bool global, const ConfPathPermissions& permissions);
  void shareAndChmodAttr(const Str& stanza, const Str& key, bool global,
                         const ConfPathPermissions& permissions);
  void unshare(const Str& stanza);
  void chmodAttr(const Str& stanza, const Str& key, const ConfPathPermissions& permissions);
  void chmodStanza(const Str& stanza, const ConfPathPermissions& permissions);
  void shareWithApplication(const Str& stanza);
  void shareWithSystem(const Str& stanza);
  // Whether the acting user may remove the stanza (`attribute` "") or the
  // setting: ConfPath::verifyCanRemove under the write mutex; false with
  // the reason logged at debug level when it throws.
  bool canDelete(const Str& stanza, const Str& attribute);

  // ---- Recomputing ----
  // Marks the cache of every page of `setup` dirty.
  static void recomputeAll(const BundlesSetup& setup);
  // Reloads every mapper of `setup`, sets up new ones, then recomputeAll.
  static void recomputeAllFromDisk(const BundlesSetup& setup);
  // The listener for ConfChangeWatcher::setListener: a bundle of `setup`
  // changed on disk, so every page of that root is marked dirty.
  static void confChanged(const BundlesSetup& setup, IConfPathMapper* mapper);
  // Marks dirty the pages acting as `user` (caseless).
  static void updateRoleMappings(const User& user);
  // Marks dirty every page of this name and root.
  void updateCache();
  // Reloads this type on every mapper, sets up new mappers, updateCache().
  void updateConfigs();

  // ---- The page itself ----
  const Str& name() const { return _name; }
  const PropertyPagesContext& context() const { return _context; }
  const User& actingUser() const { return _actingUser; }
  // Whether the acting user's roles changed since last seen, so that the
  // caches acting as him must be rebuilt.
  virtual bool roleChangeOccured() = 0;
  // "PropertyPages(<name>, <context>)", for messages.
  Str toDebugString() const;
  // The cache; for the listings and tests.
  IConfCache& cache() { return *_cache; }

 protected:
  PropertyPages(const Str& name, const PropertyPagesContext& context, const User& actingUser);
  // REQUIRES: called once ("_cache == nullptr").
  void setCache(std::unique_ptr<IConfCache> cache);

 private:
  // The shared frame of every write: see PropertyPagesWrite.cpp.
  void deferredWrite(const Str& application, const Str& stanza, const PropertiesMap& desired,
                     bool overwriteAll, bool toMeta);
  // The path of `stanza` (and `setting`) in `application` for this page,
  // acting as the acting user.
  ConfPath makeConfPath(const Str& application, const Str& stanza,
                        const Str& setting = Str::EMPTY_STR) const;
  // Changes the metadata of the stanza (or of its setting `key`) in the
  // writing layer, starting from what the store holds; throws
  // ConfPathException "No entity '...' exists and is eligible for an
  // access control" when the page has no such stanza or setting.
  void writeMetadata(const Str& stanza, const Str& key,
                     const std::function<void(ConfPathMetadata&)>& change);
  // The application writes go to: the context's, else "system".
  const Str& writeApplication() const;

  const Str _name;
  const PropertyPagesContext _context;
  const User _actingUser;
  std::unique_ptr<IConfCache> _cache;
};

// A page with neither user nor application: a LegacyConfCache.
class LegacyPropertyPages : public PropertyPages {
 public:
  LegacyPropertyPages(const Str& name, const PropertyPagesContext& context,
                      const User& actingUser);
  bool roleChangeOccured() override { return false; }
};

// A page with a user or an application: a UserConfCache.
class UserPropertyPages : public PropertyPages {
 public:
  UserPropertyPages(const Str& name, const PropertyPagesContext& context, const User& actingUser);
  // False for no user, for "nobody" and without a user info provider;
  // otherwise UserChangeDetector::hasChanged with the provider's roles.
  bool roleChangeOccured() override;
};
