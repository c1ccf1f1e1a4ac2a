#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "platform/login_item.h"

namespace norvik {

// The login item as the XDG autostart rule has it. The package installs the login entry for every
// user in /etc/xdg/autostart; a file of the same name in the user's ~/.config/autostart takes its
// place, so switching off writes an entry there with "Hidden=true", and switching on removes that
// entry again. Without a system entry (a build that was not installed) switching on writes a full
// entry of the user's own, which starts `userExec`.
//
// Threading: any thread; no state is kept between calls.
class XdgAutostartLoginItem final : public LoginItem {
 public:
  static constexpr std::string_view kEntryName = "com.norvik.Norvik.desktop";

  struct Options {
    std::filesystem::path userDirectory;                   // $XDG_CONFIG_HOME/autostart
    std::vector<std::filesystem::path> systemDirectories;  // each of $XDG_CONFIG_DIRS, + /autostart
    std::string userExec;  // the Exec line of a user's own entry; empty: none can be written
  };

  explicit XdgAutostartLoginItem(Options options) : options_(std::move(options)) {}
  // The directories of this user's environment ($XDG_CONFIG_HOME, else ~/.config; $XDG_CONFIG_DIRS,
  // else /etc/xdg).
  [[nodiscard]] static XdgAutostartLoginItem forThisUser(std::string userExec);

  [[nodiscard]] bool isEnabled() const override;
  [[nodiscard]] std::expected<void, Error> setEnabled(bool enabled) override;

 private:
  [[nodiscard]] std::filesystem::path userEntry() const { return options_.userDirectory / kEntryName; }
  [[nodiscard]] bool systemEntryStarts() const;

  Options options_;
};

// Whether an autostart entry's text lets it start: not "Hidden=true", not
// "X-GNOME-Autostart-enabled=false" (keys of the [Desktop Entry] group, read line by line).
[[nodiscard]] bool autostartEntryStarts(std::string_view text);

}  // namespace norvik
