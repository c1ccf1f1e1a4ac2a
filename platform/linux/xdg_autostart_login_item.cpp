#include "platform/linux/xdg_autostart_login_item.h"

#include <cerrno>
#include <cstdlib>

#include <fmt/format.h>

#include "platform/files.h"
#include "platform/text.h"

namespace norvik {
namespace {

constexpr std::size_t kMaxEntry = 64 * 1024;

std::filesystem::path environmentPath(const char* name, const std::filesystem::path& fallback) {
  const char* value = std::getenv(name);
  return value && *value == '/' ? std::filesystem::path(value) : fallback;
}

// What a user's entry says when the user switched the login item off.
std::string hiddenEntry() {
  return "[Desktop Entry]\n"
         "Type=Application\n"
         "Name=Norvik\n"
         "Comment=Norvik does not start at login: switched off in Norvik\n"
         "Hidden=true\n";
}

std::string ownEntry(const std::string& exec) {
  return fmt::format(
      "[Desktop Entry]\n"
      "Type=Application\n"
      "Name=Norvik\n"
      "Comment=Starts Norvik when you log in\n"
      "Icon=com.norvik.Norvik\n"
      "Exec={}\n"
      "Terminal=false\n"
      "NoDisplay=true\n",
      exec);
}

}  // namespace

bool autostartEntryStarts(std::string_view text) {
  bool inEntry = false;
  while (!text.empty()) {
    const auto end = text.find('\n');
    const std::string_view line = trimWhitespace(text.substr(0, end));
    text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
    if (line.starts_with('[')) {
      inEntry = line == "[Desktop Entry]";
      continue;
    }
    const auto equals = line.find('=');
    if (!inEntry || equals == std::string_view::npos) continue;
    const std::string_view key = trimWhitespace(line.substr(0, equals));
    const std::string_view value = trimWhitespace(line.substr(equals + 1));
    if (key == "Hidden" && value == "true") return false;
    if (key == "X-GNOME-Autostart-enabled" && value == "false") return false;
  }
  return true;
}

XdgAutostartLoginItem XdgAutostartLoginItem::forThisUser(std::string userExec) {
  Options options;
  const char* home = std::getenv("HOME");
  const std::filesystem::path configHome =
      environmentPath("XDG_CONFIG_HOME", std::filesystem::path(home ? home : "/") / ".config");
  options.userDirectory = configHome / "autostart";
  const char* dirs = std::getenv("XDG_CONFIG_DIRS");
  std::string_view rest = dirs && *dirs ? dirs : "/etc/xdg";
  while (!rest.empty()) {
    const auto colon = rest.find(':');
    const std::string_view dir = rest.substr(0, colon);
    if (dir.starts_with('/')) options.systemDirectories.push_back(std::filesystem::path(dir) / "autostart");
    rest = colon == std::string_view::npos ? std::string_view() : rest.substr(colon + 1);
  }
  options.userExec = std::move(userExec);
  return XdgAutostartLoginItem(std::move(options));
}

bool XdgAutostartLoginItem::systemEntryStarts() const {
  // The first directory that has the entry is the one that counts, as for the desktop itself.
  for (const auto& dir : options_.systemDirectories) {
    auto text = readFile(dir / kEntryName, kMaxEntry);
    if (text) return autostartEntryStarts(*text);
  }
  return false;
}

bool XdgAutostartLoginItem::isEnabled() const {
  if (auto text = readFile(userEntry(), kMaxEntry)) return autostartEntryStarts(*text);
  return systemEntryStarts();
}

std::expected<void, Error> XdgAutostartLoginItem::setEnabled(bool enabled) {
  if (enabled == isEnabled()) return {};
  if (auto made = makeDirectories(options_.userDirectory, 0755); !made) return std::unexpected(made.error());
  if (!enabled) return writeFileAtomically(userEntry(), hiddenEntry());
  if (systemEntryStarts()) {
    std::error_code ec;
    std::filesystem::remove(userEntry(), ec);
    if (ec) return std::unexpected(posixError(ec.value(), "remove", userEntry()));
    return {};
  }
  if (options_.userExec.empty()) {
    return std::unexpected(posixError(ENOENT, "no login entry is installed to start", userEntry()));
  }
  return writeFileAtomically(userEntry(), ownEntry(options_.userExec));
}

}  // namespace norvik
