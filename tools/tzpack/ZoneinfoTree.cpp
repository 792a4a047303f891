#include "tools/tzpack/ZoneinfoTree.h"

#include <unistd.h>

#include <fstream>
#include <iterator>
#include <set>
#include <system_error>

namespace fs = std::filesystem;

namespace {

const std::set<std::string> SKIPPED_TOP_LEVEL = {"right", "posix", "localtime"};

bool readWhole(const fs::path& path, std::string* out) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  out->assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  return !in.bad();
}

bool fail(std::string* error, const std::string& what, const fs::path& path,
          const std::error_code& ec) {
  *error = what + " " + path.string() + ": " + ec.message();
  return false;
}

}  // namespace

bool collectZoneinfo(const fs::path& source, ZoneinfoFiles* zones, std::string* error) {
  std::error_code ec;
  fs::recursive_directory_iterator it(source, ec);
  if (ec) return fail(error, "cannot read", source, ec);
  for (; it != fs::recursive_directory_iterator(); it.increment(ec)) {
    if (ec) return fail(error, "cannot read", source, ec);
    const fs::path rel = it->path().lexically_relative(source);
    if (it.depth() == 0 && SKIPPED_TOP_LEVEL.count(rel.string()) != 0) {
      if (it->is_directory(ec)) it.disable_recursion_pending();
      continue;
    }
    // is_regular_file follows links, so aliases stored as links count.
    if (!it->is_regular_file(ec)) continue;
    std::string bytes;
    if (!readWhole(it->path(), &bytes)) {
      return fail(error, "cannot read", it->path(), std::make_error_code(std::errc::io_error));
    }
    if (bytes.compare(0, 4, "TZif") == 0) zones->emplace(rel.generic_string(), std::move(bytes));
  }
  return true;
}

bool writeFileIfChanged(const fs::path& path, const std::string& bytes, bool* changed,
                        std::string* error) {
  std::string old;
  *changed = false;
  if (fs::is_regular_file(path) && readWhole(path, &old) && old == bytes) return true;
  std::error_code ec;
  fs::create_directories(path.parent_path(), ec);
  if (ec) return fail(error, "cannot create", path.parent_path(), ec);
  const fs::path temp = path.string() + ".tmp" + std::to_string(::getpid());
  {
    std::ofstream out(temp, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    out.close();
    if (!out) return fail(error, "cannot write", temp, std::make_error_code(std::errc::io_error));
  }
  fs::rename(temp, path, ec);
  if (ec) return fail(error, "cannot rename to", path, ec);
  *changed = true;
  return true;
}

bool stageZoneinfo(const ZoneinfoFiles& zones, const fs::path& dest, size_t* written,
                   std::string* error) {
  for (const auto& [name, bytes] : zones) {
    bool changed = false;
    if (!writeFileIfChanged(dest / name, bytes, &changed, error)) return false;
    if (changed) ++*written;
  }
  std::error_code ec;
  std::set<fs::path> stale;
  for (fs::recursive_directory_iterator it(dest, ec), end; !ec && it != end; it.increment(ec)) {
    if (it->is_directory(ec)) continue;
    if (zones.count(it->path().lexically_relative(dest).generic_string()) == 0) {
      stale.insert(it->path());
    }
  }
  if (ec) return fail(error, "cannot read", dest, ec);
  for (const fs::path& path : stale) {
    if (!fs::remove(path, ec) && ec) return fail(error, "cannot remove", path, ec);
  }
  return true;
}
