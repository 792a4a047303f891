// Pathname: a Str that knows it is a path. Element arithmetic and
// normalisation (Pathname.cpp), file tests and the open operations with
// their fixed flags and modes (PathnameOps.cpp), whole trees and permissions
// (PathnameTree.cpp), times and retried renames (PathnameTime.cpp), and
// shell quoting of command lines (ShellQuote.cpp).
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstdio>

#include "util/Str.h"
#include "util/StrSegment.h"

class DirectoryDescriptor;
class FileDescriptor;
class FileStar;
class PathnameOpResult;
class PathnameVector;
class ConditionWaitTimeout;
class Timeval;

// The platform's stat result for a path. A plain value.
class PathnameStat {
 public:
  struct stat st;

  bool isReg() const { return S_ISREG(st.st_mode); }
  bool isDir() const { return S_ISDIR(st.st_mode); }
  bool isSymlink() const { return S_ISLNK(st.st_mode); }
  bool isFifo() const { return S_ISFIFO(st.st_mode); }
  // The modification time, to the microsecond.
  void getMtime(Timeval* out) const;
  // Overwrites the modification time held here (not on disk).
  void setMtime(const Timeval& t);
};

// The separator is "/"; a path is absolute when it starts with one. An empty
// Pathname acts as the root in element arithmetic: "" / "a" is "/a".
// Thread story: as Str, const methods concurrent, the rest owned by one
// thread at a time; the system operations touch only the path they name.
class Pathname : public Str {
 public:
  // Permission of a created file: 0644, 0600, 0440.
  enum CreateMode { CREATE_NORMAL = 0, CREATE_PRIVATE = 1, CREATE_READONLY = 2 };
  // Permission of a created directory: 0700, 0770, 0777, 0755.
  enum MkdirMode { MKDIR_PRIVATE = 0, MKDIR_GROUP = 1, MKDIR_ALL = 2, MKDIR_PUBLIC = 3 };

  static constexpr char SEP = '/';
  static const Pathname EMPTY_PATHNAME;
  static const Pathname parent;  // ".."
  static const Pathname cur;     // "."

  Pathname() = default;
  Pathname(const char* s) : Str(s) {}
  Pathname(const char* s, size_type n) : Str(s, n) {}
  Pathname(const Str& s) : Str(s) {}
  Pathname(Str&& s) noexcept : Str(std::move(s)) {}
  Pathname(const std::string& s) : Str(s) {}
  Pathname(const StrSegment& s) : Str(s) {}

  // The permission bits of a mode; any value outside the enum ends the
  // process ("cm == Pathname::CREATE_NORMAL", "mode == MKDIR_PRIVATE").
  static mode_t createModeBits(CreateMode cm);
  static mode_t mkdirModeBits(MkdirMode mode);

  // ---- Element arithmetic (Pathname.cpp); no system calls ----
  bool isAbsolute() const { return !empty() && front() == SEP; }
  bool isUNC() const { return false; }

  // Appends one element: nothing for an empty `rhs`; else a separator unless
  // this already ends in one (an empty path gets one too), then `rhs` without
  // its leading separators. "a/" / "/b" is "a/b"; "" / "a" is "/a".
  Pathname& operator/=(const StrSegment& rhs);
  Pathname& operator/=(const char* rhs) { return *this /= StrSegment(rhs); }
  Pathname& operator/=(const Str& rhs) { return *this /= StrSegment(rhs); }
  Pathname& operator/=(const std::string& rhs) { return *this /= StrSegment(rhs); }
  Pathname operator/(const StrSegment& rhs) const { return Pathname(*this) /= rhs; }
  Pathname operator/(const char* rhs) const { return Pathname(*this) /= rhs; }
  Pathname operator/(const Str& rhs) const { return Pathname(*this) /= rhs; }
  Pathname operator/(const std::string& rhs) const { return Pathname(*this) /= rhs; }
  // Plain concatenation, no separator.
  Pathname operator+(const StrSegment& rhs) const;
  Pathname operator+(const char* rhs) const { return *this + StrSegment(rhs); }
  Pathname operator+(const Str& rhs) const { return *this + StrSegment(rhs); }
  Pathname operator+(const Pathname& rhs) const { return *this + StrSegment(rhs); }
  Pathname& operator+=(const StrSegment& rhs) {
    append(rhs.data(), rhs.size());
    return *this;
  }

  // Drops the last element and the separators around it, keeping the root:
  // "/a/b/" gives "/a", "/a" gives "/", "a" gives "", "/" stays "/".
  void stripElement();
  // stripElement() on a copy.
  Pathname toParent() const;
  // The last element, trailing separators ignored: "/a/b///" gives "b";
  // "/", "///" and "" give "/".
  Pathname toLeaf() const;
  // The text after the last "." of the last element: "a/b.tar.gz" gives
  // "gz", ".bashrc" gives "bashrc"; "x." and "dir.d/file" give "".
  Pathname ext() const;
  // The last element less its final extension; a leading dot starts no
  // extension: "/a/b.tar.gz" gives "b.tar", "x." gives "x", ".hidden" stays.
  Pathname basenameWithoutExt() const;
  // As Str::substr, as a Pathname; throws std::out_of_range past the end.
  Pathname substr(size_type pos = 0, size_type count = npos) const;

  // Adds one separator unless there is one at the end; "" gives "/".
  void addTrailingSep();
  // Removes trailing separators but never the first byte: "/" stays.
  void removeTrailingSeps();
  void replaceBackSlashesWithSep();
  // Collapses every run of separators to one: "//a///b" gives "/a/b".
  void removeDoubleSeps();
  static Pathname removeDoubleSeps(const Pathname& p);
  // Disarms ".." elements of a path that must stay inside a directory,
  // resolving nothing: "a/../b" gives "a/b", "../x" gives "x", "a/.." gives
  // "a", "/.." gives "/", ".." gives "". "a..b/..c" is left alone.
  void removeDotDotSlash();
  // Resolves "." and ".." textually. The result is always rooted, for a
  // relative input too, and ".." at the root stays there: "a/./b/../c" gives
  // "/a/c", "/../x" gives "/x". A path without elements gives the empty
  // root ("" and "/" both give ""), one that climbs back gives "/" ("a/..").
  void normalize();
  // Appends the non-empty elements to `out`.
  void splitOnSepInto(PathnameVector& out) const;
  // This becomes `parent` / `entry`.
  void buildFromParentAndLeaf(const Pathname& parent, const StrSegment& entry);

  // ---- System (PathnameOps.cpp). Failures: false or -1, errno set ----
  // The working directory into `out`; false (out untouched) on failure.
  static bool cwd(Pathname& out);
  // The resolved absolute path into `out`; false when it does not exist.
  bool realpath(Pathname& out) const;
  bool realpathInPlace();
  bool stat(PathnameStat* out) const;
  bool lstat(PathnameStat* out) const;  // does not follow a final link
  bool exists() const;
  // access() by the real ids; a superuser may pass checks the bits refuse.
  bool r_ok() const;
  bool w_ok() const;
  bool rw_ok() const;
  bool isSymlink() const;
  bool isFifo() const;
  // 0 when stat fails, 1 regular file, 2 directory, 3 anything else.
  int getFileType() const;
  // The size in bytes (st_size) into *sizep.
  bool getSize(long* sizep) const;
  // Allocated blocks times 512, by lstat.
  bool getSizeOnDisk(long* sizep) const;
  // Allocated bytes of everything under the path, itself included, by lstat:
  // links are counted, never followed. An explicit work list, no recursion.
  // Entries that vanish or cannot be read are skipped; false only when the
  // path itself cannot be lstat'ed.
  bool getRecursiveSizeOnDisk(long* sizep) const;
  bool getMtime(Timeval* out) const;
  // Sets access and modification time to *t.
  bool setMtime(const Timeval* t) const;
  // Sets both times to now; false (nothing created) when absent.
  bool touchExisting() const;
  // True only for an existing file of size 0.
  bool isZeroLengthFile() const;
  // Blocks available times fragment size; false when statvfs fails or
  // reports no blocks at all.
  bool filesystemBytesFree(unsigned long long* out) const;
  bool chmod(mode_t mode) const;
  // The link's target into `out` (whole, however long).
  bool readlink(Pathname& out) const;
  // Creates this path as a symbolic link to `target`.
  bool symlinkTo(const Pathname& target) const;
  bool renameTo(const Pathname& target) const;
  // Retries a rename that fails for lack of descriptors or memory (ENFILE,
  // EMFILE, ENOMEM) up to `attempts` times in all, with wait.sleep() between;
  // any other errno ends at once. The result is named "Rename".
  // REQUIRES: attempts >= 1.
  PathnameOpResult renameToRetry(const Pathname& target, unsigned attempts,
                                 const ConditionWaitTimeout& wait) const;
  bool truncate(long size) const;
  // unlink, or rmdir for a directory.
  bool remove() const;
  bool unlink() const;
  bool rmdir() const;
  bool mkdir(MkdirMode mode) const;
  // Creates missing parents with the same mode. True for a root or an
  // existing directory, also when another process creates it meanwhile; an
  // existing non-directory fails with EEXIST.
  bool mkdir_p(MkdirMode mode) const;
  // An unowned directory stream, null-held on failure; close it.
  DirectoryDescriptor opendir() const;
  // An unowned stream, null-held on failure; close it.
  FileStar fopen(const char* mode) const;

  // Each returns an unowned descriptor, -1 on failure with errno set.
  FileDescriptor openReadOnly() const;
  // Non-blocking, so a FIFO with no writer does not hang the open; reads on
  // the result may then give EAGAIN.
  FileDescriptor openReadOnlySafer() const;
  FileDescriptor openReadOnlySequential() const;  // with the kernel hint
  FileDescriptor openReadOnlyRandom() const;      // with the kernel hint
  FileDescriptor openReadWriteExisting() const;
  FileDescriptor openWriteOnlyExisting() const;
  FileDescriptor openReadWriteOrCreate(CreateMode cm) const;
  FileDescriptor openCreateOrAppend(CreateMode cm) const;
  FileDescriptor openCreateOrReplace(CreateMode cm) const;
  // Exclusive: fails with EEXIST when anything is there.
  FileDescriptor openCreateOnly(CreateMode cm) const;
  // Truncates or creates, then gives the file the permission bits of the
  // file behind `modeFrom` (exactly, umask aside).
  FileDescriptor openCreateOrReplace(FileDescriptor modeFrom) const;

  // ---- Whole trees and permissions (PathnameTree.cpp) ----
  // Copies this file's bytes to `target`, replacing it; the new file takes
  // this one's permission bits. Copying a file onto itself (same device and
  // inode) succeeds and changes nothing.
  bool copyTo(const Pathname& target) const;
  // This directory (or file) to `target`, which must not exist yet.
  bool copyToRecursive(const Pathname& target) const;
  // Each entry of this directory into the existing directory `target`;
  // goes on after a failure and returns false at the end.
  bool copyContentsToRecursive(const Pathname& target) const;
  // Removes the path and, for a directory, everything under it. Links are
  // removed, never followed.
  bool removeRecursive() const;
  // Removes everything under this directory that is not a directory, keeping
  // the tree of directories; goes on after a failure, false at the end.
  bool removeContentsRecursiveNotDirs() const;
  // As above but only files whose ext() equals *ext; a null ext removes
  // every file, as removeContentsRecursiveNotDirs does.
  bool removeContentsRecursiveWithExt(const Pathname* ext) const;
  // Deliberately: true when stat succeeds and any write bit (0222) is set,
  // the opposite of what the name suggests; removal code relies on it.
  bool isReadOnly() const;
  // When w_ok() and stat succeed, clears the three write bits; returns
  // !w_ok() afterwards.
  bool makeReadOnly() const;
  // When !w_ok() and stat succeeds, sets the owner's write bit; returns
  // w_ok() afterwards.
  bool makeWriteable() const;

  // ---- Shell text (ShellQuote.cpp) ----
  // The path as one shell word: "" gives `""`; plain text stays; text with
  // ", $ or \ but no ' goes in single quotes; otherwise text with white
  // space goes in double quotes with \ before ", $ and \, and text without
  // gets \ before each of " $ \ # & * ; = ? [ ] | and '.
  // "a b" gives "\"a b\"", "a$b" gives "'a$b'", "a;b" gives "a\\;b".
  Pathname shellQuoted() const;
  // Reads one word of `in`: leading blanks, tabs and line feeds skipped,
  // single quotes literal, double quotes with \ escapes, \ escapes outside
  // quotes, white space ending the word. `firstArg` is cleared and receives
  // the word; `rest` views the text after it (inside `in`'s bytes). False on
  // an unterminated quote, a dangling \ or an empty word.
  static bool splitArgShellQuoted(const StrSegment& in, Pathname& firstArg, StrSegment& rest);
  // Appends each word of this text to `out`, stopping silently at the first
  // word that fails: an unterminated quote keeps the words ahead of it.
  void splitShellQuotedInto(PathnameVector& out) const;
  // As above, keeping only words that name an existing path.
  void splitShellQuotedIntoExists(PathnameVector& out) const;
};

// Concatenation with the path on the right.
Pathname operator+(const char* lhs, const Pathname& rhs);
Pathname operator+(const Str& lhs, const Pathname& rhs);
Pathname operator+(const StrSegment& lhs, const Pathname& rhs);
