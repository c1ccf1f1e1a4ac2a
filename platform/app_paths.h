#pragma once

#include <filesystem>
#include <optional>
#include <string_view>

namespace norvik {

// The application group shared with the tunnel and the widget, and the application's own suite.
inline constexpr std::string_view kAppGroupIdentifier = "QX7RT2LM9A.com.norvik.macos";
inline constexpr std::string_view kApplicationIdentifier = "com.norvik.macos";

// Where every piece of local state lives. All of it is under one home directory, so that
// `--home DIR` moves everything at once.
struct AppPaths {
  std::filesystem::path home;

  // Resolves the home: the given directory, else $XDG_DATA_HOME/norvik, else ~/.local/share/norvik.
  static AppPaths resolve(const std::optional<std::filesystem::path>& home);

  [[nodiscard]] std::filesystem::path standardDefaults() const;
  [[nodiscard]] std::filesystem::path groupContainer() const;
  [[nodiscard]] std::filesystem::path groupDefaults() const;
  [[nodiscard]] std::filesystem::path secureStore() const;
  [[nodiscard]] std::filesystem::path logs() const;
  [[nodiscard]] std::filesystem::path runtime() const;
};

}  // namespace norvik
