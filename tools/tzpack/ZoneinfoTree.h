// Reading a compiled zoneinfo tree (the platform's tzdata) and staging a
// copy of it into the install tree without rewriting what is already there.
#pragma once

#include <filesystem>
#include <map>
#include <string>

// Zone name ("America/New_York") to the file's TZif bytes.
typedef std::map<std::string, std::string> ZoneinfoFiles;

// Every file under `source` whose bytes start with "TZif", by its path
// relative to `source`, links followed to files but not to directories.
// Left out: the "right" tree (leap seconds, which the system ignores), the
// "posix" tree (links to the same zones) and "localtime" (the machine's own
// zone, not part of the data). False with *error set when `source` cannot be
// read.
bool collectZoneinfo(const std::filesystem::path& source, ZoneinfoFiles* zones,
                     std::string* error);

// Makes `dest` hold exactly `zones` as regular files: files whose bytes
// already match are left alone (so their times stay), others are written
// through a temporary file and a rename, and files that are not zones any
// more are removed. Adds the number of files written to *written. False with
// *error set on the first failure.
bool stageZoneinfo(const ZoneinfoFiles& zones, const std::filesystem::path& dest,
                   size_t* written, std::string* error);

// Writes `bytes` to `path` unless it holds them already; *changed says
// which. Creates the parent directories.
bool writeFileIfChanged(const std::filesystem::path& path, const std::string& bytes,
                        bool* changed, std::string* error);
