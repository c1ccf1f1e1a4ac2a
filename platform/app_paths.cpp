#include "platform/app_paths.h"

#include <cstdlib>
#include <pwd.h>
#include <string>
#include <unistd.h>

namespace norvik {
namespace {

std::filesystem::path userHome() {
  if (const char* home = std::getenv("HOME"); home && *home) return home;
  if (const passwd* pw = ::getpwuid(::getuid()); pw && pw->pw_dir) return pw->pw_dir;
  return "/tmp";
}

}  // namespace

AppPaths AppPaths::resolve(const std::optional<std::filesystem::path>& home) {
  if (home) return AppPaths{std::filesystem::absolute(*home)};
  if (const char* xdg = std::getenv("XDG_DATA_HOME"); xdg && *xdg == '/') {
    return AppPaths{std::filesystem::path(xdg) / "norvik"};
  }
  return AppPaths{userHome() / ".local" / "share" / "norvik"};
}

std::filesystem::path AppPaths::standardDefaults() const {
  return home / "defaults" / (std::string(kApplicationIdentifier) + ".sqlite3");
}
std::filesystem::path AppPaths::groupContainer() const { return home / "group" / std::string(kAppGroupIdentifier); }
std::filesystem::path AppPaths::groupDefaults() const {
  return groupContainer() / "Library" / "Preferences" / (std::string(kAppGroupIdentifier) + ".sqlite3");
}
std::filesystem::path AppPaths::secureStore() const { return home / "keychain"; }
std::filesystem::path AppPaths::logs() const { return home / "logs"; }
std::filesystem::path AppPaths::runtime() const { return home / "run"; }

}  // namespace norvik
