// Whole trees under a Pathname: copying, removal, sizes and the permission
// helpers that removal uses. Every walk keeps an explicit work list, so the
// depth of a tree never becomes the depth of the stack, and no walk follows
// a symbolic link.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>
#include <vector>

#include "util/Assert.h"
#include "util/Directory.h"
#include "util/FileDescriptor.h"
#include "util/Pathname.h"

bool Pathname::isReadOnly() const {
  PathnameStat s;
  return stat(&s) && (s.st.st_mode & 0222) != 0;
}

bool Pathname::makeReadOnly() const {
  PathnameStat s;
  if (w_ok() && stat(&s)) chmod(s.st.st_mode & 07777 & ~0222);
  return !w_ok();
}

bool Pathname::makeWriteable() const {
  PathnameStat s;
  if (!w_ok() && stat(&s)) chmod((s.st.st_mode & 07777) | S_IWUSR);
  return w_ok();
}

bool Pathname::copyTo(const Pathname& target) const {
  FileDescriptor in = openReadOnly();
  if (!in.valid()) return false;
  FileDescriptorStat from;
  PathnameStat to;
  if (in.stat(&from) && target.stat(&to) && from.st.st_dev == to.st.st_dev &&
      from.st.st_ino == to.st.st_ino) {
    in.close();
    return true;
  }
  const bool ok = in.copyTo(target);
  in.close_saveErrno();
  return ok;
}

namespace {

typedef std::vector<std::pair<Pathname, Pathname>> CopyList;

// Copies one entry; a directory is created and queued for its contents.
bool copyOne(const Pathname& from, const Pathname& to, CopyList& pending) {
  PathnameStat s;
  if (!from.lstat(&s)) return false;
  if (s.isDir()) {
    if (!to.mkdir(Pathname::MKDIR_PRIVATE)) return false;
    // The owner keeps full rights so that the contents can be written.
    if (!to.chmod((s.st.st_mode & 07777) | S_IRWXU)) return false;
    pending.emplace_back(from, to);
    return true;
  }
  if (s.isSymlink()) {
    Pathname linkTarget;
    return from.readlink(linkTarget) && to.symlinkTo(linkTarget);
  }
  if (s.isReg()) return from.copyTo(to);
  errno = ENOTSUP;  // devices, FIFOs and sockets are not copied
  return false;
}

bool copyPending(CopyList& pending) {
  bool ok = true;
  while (!pending.empty()) {
    const std::pair<Pathname, Pathname> dirs = std::move(pending.back());
    pending.pop_back();
    DirectoryIterator it(dirs.first);
    Pathname leaf;
    while (it.getNext(leaf)) {
      if (!copyOne(dirs.first / leaf, dirs.second / leaf, pending)) ok = false;
    }
    if (errno != 0) ok = false;
  }
  return ok;
}

// When isReadOnly() holds, makeWriteable(); see isReadOnly for why this
// reads backwards.
void preparePermission(const Pathname& p) {
  if (p.isReadOnly()) p.makeWriteable();
}

// Removes the non-directories under `top` whose ext() matches, or all of
// them when `ext` is null; with `dirsToo`, directories follow their
// contents and `top` itself goes last.
bool removeUnder(const Pathname& top, const Pathname* ext, bool dirsToo) {
  struct Pending {
    Pathname dir;
    bool listed;
  };
  std::vector<Pending> stack{{top, false}};
  bool ok = true;
  while (!stack.empty()) {
    if (stack.back().listed) {
      if (dirsToo && !stack.back().dir.rmdir()) ok = false;
      stack.pop_back();
      continue;
    }
    stack.back().listed = true;
    const Pathname dir = stack.back().dir;
    DirectoryIterator it(dir);
    Pathname leaf;
    while (it.getNext(leaf)) {
      const Pathname child = dir / leaf;
      PathnameStat s;
      if (!child.lstat(&s)) {
        ok = false;
        continue;
      }
      if (s.isDir()) {
        preparePermission(child);
        stack.push_back({child, false});
        continue;
      }
      if (ext != nullptr && child.ext() != *ext) continue;
      if (!s.isSymlink()) preparePermission(child);
      if (!child.unlink()) ok = false;
    }
    if (errno != 0) ok = false;
  }
  return ok;
}

}  // namespace

bool Pathname::copyToRecursive(const Pathname& target) const {
  CopyList pending;
  if (!copyOne(*this, target, pending)) return false;
  return copyPending(pending);
}

bool Pathname::copyContentsToRecursive(const Pathname& target) const {
  CopyList pending{{*this, target}};
  return copyPending(pending);
}

bool Pathname::removeRecursive() const {
  PathnameStat s;
  if (!lstat(&s)) return false;
  if (!s.isSymlink()) preparePermission(*this);
  if (!s.isDir()) return unlink();
  return removeUnder(*this, nullptr, true);
}

bool Pathname::removeContentsRecursiveNotDirs() const {
  return removeUnder(*this, nullptr, false);
}

bool Pathname::removeContentsRecursiveWithExt(const Pathname* ext) const {
  return removeUnder(*this, ext, false);
}

bool Pathname::getRecursiveSizeOnDisk(long* sizep) const {
  PathnameStat s;
  if (!lstat(&s)) return false;
  long total = static_cast<long>(s.st.st_blocks) * 512;
  std::vector<Pathname> dirs;
  if (s.isDir()) dirs.push_back(*this);
  while (!dirs.empty()) {
    const Pathname dir = std::move(dirs.back());
    dirs.pop_back();
    DirectoryIterator it(dir);
    Pathname leaf;
    while (it.getNext(leaf)) {
      const Pathname child = dir / leaf;
      PathnameStat cs;
      if (!child.lstat(&cs)) continue;  // vanished meanwhile
      total += static_cast<long>(cs.st.st_blocks) * 512;
      if (cs.isDir()) dirs.push_back(child);
    }
  }
  *sizep = total;
  kassert(*sizep >= 0);
  return true;
}
