#include "libbundle/ConfPathMetadata.h"

#include "libbundle/IniFile.h"

namespace {

// Reads "[ a, b ]" at `at` into `roles`; returns the position after "]",
// or npos.
size_t parseRoleList(const Str& text, size_t at, ConfPathPermissions::RoleSet& roles) {
  at = text.find_first_not_of(" \t", at);
  if (at == Str::npos || text[at] != '[') return Str::npos;
  const size_t close = text.find(']', at);
  if (close == Str::npos) return Str::npos;
  const Str inner = text.substr(at + 1, close - at - 1);
  size_t from = 0;
  while (from <= inner.size()) {
    size_t comma = inner.find(',', from);
    if (comma == Str::npos) comma = inner.size();
    const Str role = inner.substr(from, comma - from).trim();
    if (!role.empty()) roles.insert(role);
    from = comma + 1;
  }
  return close + 1;
}

}  // namespace

ConfPathMetadata::ConfPathMetadata(const IniStanza& stanza) {
  for (auto it = stanza.settings().begin(); it != stanza.settings().end(); ++it) {
    const Str key = it.key().trim();
    const Str value = it.value().value().trim();
    if (key == "export") {
      _export = parseExport(value);
    } else if (key == "owner") {
      _owner = User(value);
    } else if (key == "app") {
      _application = value;
    } else if (key == "access") {
      ConfPathPermissions p;
      if (parsePermissions(value, p) && !p.empty()) _permissions = ConfPathPermissionsReference(p);
    } else if (key == "modtime") {
      const size_t dot = value.find('.');
      long long sec = 0;
      if (Str(value.substr(0, dot)).tryToLongLong(sec)) {
        long long usec = 0;
        if (dot != Str::npos) Str(value.substr(dot + 1)).tryToLongLong(usec);
        _modTime = Timeval(sec, usec);
      }
    }
  }
}

bool ConfPathMetadata::isStub() const {
  return _export == EXPORT_NONE && _owner.empty() && _application.empty() && _permissions.empty();
}

void ConfPathMetadata::toSettings(std::vector<std::pair<Str, Str>>& out) const {
  out.clear();
  if (_export != EXPORT_NONE) out.emplace_back("export", exportName(_export));
  if (!_owner.empty()) out.emplace_back("owner", _owner.name());
  if (!_application.empty()) out.emplace_back("app", _application);
  if (!_permissions.empty()) out.emplace_back("access", _permissions.get().toString());
  if (_modTime.tv_sec != 0) {
    out.emplace_back("modtime", Str().format("%lld.%06lld", static_cast<long long>(_modTime.tv_sec),
                                             static_cast<long long>(_modTime.tv_usec)));
  }
}

const char* ConfPathMetadata::exportName(Export e) {
  switch (e) {
    case EXPORT_APP: return "app";
    case EXPORT_GLOBAL: return "global";
    default: return "";
  }
}

ConfPathMetadata::Export ConfPathMetadata::parseExport(const Str& text) {
  if (text == "app") return EXPORT_APP;
  if (text == "global") return EXPORT_GLOBAL;
  return EXPORT_NONE;
}

bool ConfPathMetadata::parsePermissions(const Str& text, ConfPathPermissions& out) {
  ConfPathPermissions result;
  size_t at = 0;
  bool any = false;
  while (true) {
    at = text.find_first_not_of(" \t", at);
    if (at == Str::npos) break;
    ConfPathPermissions::Action action;
    if (text.compare(at, 4, "read") == 0) {
      action = ConfPathPermissions::ALLOW_GET;
      at += 4;
    } else if (text.compare(at, 5, "write") == 0) {
      action = ConfPathPermissions::ALLOW_SET;
      at += 5;
    } else {
      return false;
    }
    at = text.find_first_not_of(" \t", at);
    if (at == Str::npos || text[at] != ':') return false;
    ConfPathPermissions::RoleSet roles;
    at = parseRoleList(text, at + 1, roles);
    if (at == Str::npos) return false;
    for (const Str& r : roles) result.allow(action, r);
    any = true;
    at = text.find_first_not_of(" \t", at);
    if (at == Str::npos) break;
    if (text[at] != ',') return false;
    ++at;
  }
  if (!any) return false;
  out = result;
  return true;
}

Str ConfPathMetadata::encodeStanzaName(const std::vector<Str>& segments) {
  Str out;
  for (size_t i = 0; i < segments.size(); ++i) {
    if (i > 0) out.push_back('/');
    for (char c : segments[i]) {
      if (c == '%') out.append("%25");
      else if (c == '/') out.append("%2F");
      else out.push_back(c);
    }
  }
  return out;
}

bool ConfPathMetadata::decodeStanzaName(const Str& name, std::vector<Str>& out) {
  std::vector<Str> result;
  if (name.empty()) {
    out.clear();
    return true;
  }
  Str current;
  for (size_t i = 0; i < name.size(); ++i) {
    const char c = name[i];
    if (c == '/') {
      result.push_back(current);
      current.clear();
    } else if (c == '%') {
      if (i + 2 >= name.size() + 0 && i + 2 > name.size() - 1) return false;
      const Str code = name.substr(i + 1, 2);
      if (code == "25") current.push_back('%');
      else if (code == "2F" || code == "2f") current.push_back('/');
      else return false;
      i += 2;
    } else {
      current.push_back(c);
    }
  }
  result.push_back(current);
  out = std::move(result);
  return true;
}
