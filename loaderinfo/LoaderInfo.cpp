#include "loaderinfo/LoaderInfo.h"

#include <unistd.h>

#include <cstdlib>
#include <cstring>

namespace {

const char kUsageBody[] =
    "[OPTION...]\n"
    "  --nodaemon      causes the system not to daemonize\n"
    "  -c STRING       override the config path\n"
    "  -h              no longer supported\n"
    "  -i              no longer supported\n"
    "  -n STRING       the component name to start with\n"
    "  -p INT          the management port Kestrod will listen on\n"
    "  --debug         start with debug log config\n"
    "\n"
    "Help options:\n"
    "  -?, --help      Show this help message\n"
    "  --usage         Display brief usage message\n";

constexpr int kContinue = -1;
constexpr int kBadOption = 8;

// Reads one variable into `field`, cleaned, and writes a cleaned value back
// so that children inherit the same text.
void readPathVariable(const char* name, Pathname& field) {
  const char* value = std::getenv(name);
  if (value == nullptr || *value == '\0') return;
  Pathname p(value);
  p.removeDoubleSeps();
  p.removeTrailingSeps();
  if (p != value) setenv(name, p.c_str(), 1);
  field = p;
}

bool bothEmpty(const Pathname& a, const Pathname& b) { return a.empty() || b.empty(); }

}  // namespace

LoaderInfo::LoaderInfo()
    : _componentName("kestrod"),
      _commonConfigPath("etc"),
      _installName("myinstall"),
      _port(8089),
      _portStr("8089"),
      _pid(static_cast<int>(getpid())) {
  (void)_reserved;
  (void)_interpreterMissing;
}

LoaderInfo& LoaderInfo::getInstance() {
  static LoaderInfo* const instance = new LoaderInfo;
  return *instance;
}

void LoaderInfo::populateFromEnvironment() {
  readPathVariable("KESTRO_HOME", _home);
  readPathVariable("KESTRO_DB", _db);
  _interpreterMissing = !(_home / "bin/python").exists();
}

Pathname LoaderInfo::getInstallConfigPath() const {
  return _home / _commonConfigPath / _installName;
}

Str LoaderInfo::usageText(const char* program) {
  Str text;
  text.format("Usage: %s %s", program, kUsageBody);
  return text;
}

int LoaderInfo::parseCommandLine(int argc, const char* const* argv, FILE* out, FILE* err) {
  const char* program = argc > 0 ? argv[0] : "kestrod";
  auto badOption = [&](const Str& message) {
    fputs(message.c_str(), err);
    fputs(usageText(program).c_str(), err);
    return kBadOption;
  };
  for (int i = 0; i < argc; ++i) {
    const char* word = argv[i];
    if (word[0] != '-') continue;
    if (std::strcmp(word, "--") == 0) break;
    if (word[1] == '-') {
      if (std::strcmp(word, "--nodaemon") == 0) {
        _daemon = false;
      } else if (std::strcmp(word, "--debug") == 0) {
        _useDebugLog = true;
      } else if (std::strncmp(word, "--mode=", 7) == 0) {
        _startupMode = word + 7;
      } else if (std::strcmp(word, "--help") == 0 || std::strcmp(word, "--usage") == 0) {
        fputs(usageText(program).c_str(), out);
        return 0;
      } else if (std::strncmp(word, "--waitonpid=", 12) == 0) {
        fputs("--waitonpid option not implemented for UNIX\n", err);
        return 1;
      } else {
        return badOption(Str().format("Bad Option %s\n", word));
      }
      continue;
    }
    const char option = word[1];
    if (option == '?') {
      fputs(usageText(program).c_str(), out);
      return 0;
    }
    if (std::strchr("chnp", option) == nullptr || option == '\0') {
      // A lone "-" has no letter to name: the message still ends its line.
      Str message("Bad Option -");
      if (option != '\0') message += option;
      message += '\n';
      return badOption(message);
    }
    const char* value = word + 2;
    if (*value == '\0') {
      if (i + 1 >= argc) return badOption(Str().format("-%c option requires an argument\n", option));
      value = argv[++i];
    }
    switch (option) {
      case 'c': _commonConfigPath = value; break;
      case 'n': _componentName = value; break;
      case 'p':
        _port = static_cast<int>(std::strtol(value, nullptr, 10));
        _portStr = value;
        break;
      default: break;  // -h: accepted and ignored
    }
  }
  return kContinue;
}

void LoaderInfo::populateFromCommandLine(int argc, const char* const* argv) {
  const int status = parseCommandLine(argc, argv, stdout, stderr);
  if (status != kContinue) {
    fflush(stdout);
    std::exit(status);
  }
}

const char* LoaderInfo::validate() const {
  const Pathname install = getInstallConfigPath();
  const Pathname& common = _commonConfigPath;
  if (_home.empty()) return "The environment variable KESTRO_HOME must not be empty.";
  if (_db.empty()) return "The environment variable KESTRO_DB must not be empty.";
  if (bothEmpty(common, install)) return "The common config path must be defined in the config file.";
  if (!_home.isAbsolute()) return "The environment variable KESTRO_HOME must not be a relative path.";
  if (!_db.isAbsolute()) return "The environment variable KESTRO_DB must not be a relative path.";
  if (!common.isAbsolute() || !install.isAbsolute()) {
    return "The common config path must not be a relative path.";
  }
  if (!_home.exists()) return "The environment variable KESTRO_HOME must point to an existing path.";
  if (!_db.exists()) return "The environment variable KESTRO_DB must point to an existing path.";
  if (!common.exists() || !install.exists()) {
    return "The common config path must point at an existing path.";
  }
  if (_home.getFileType() != 2) return "The environment variable KESTRO_HOME must point to a directory.";
  if (_db.getFileType() != 2) return "The environment variable KESTRO_DB must point to a directory.";
  if (common.getFileType() != 2 || install.getFileType() != 2) {
    return "The common config path must point to a directory.";
  }
  if (_componentName.empty()) return "The component name must not be empty.";
  if (_installName.empty()) return "The install name must not be empty.";
  return nullptr;
}
