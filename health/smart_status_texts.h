#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace norvik {

// Every text the health feature shows, by the key the backend may override it under.
enum class SmartStatusTextKey {
  statusChecking,
  statusRepairing,
  statusRechecking,
  statusProtected,
  statusConnected,
  statusProblemOurSide,
  statusProblemWhitelist,
  statusProblemNoInternet,
  statusProblemSubExpired,
  statusRefreshing,
  statusRefreshOk,
  dlgOurSideTitle,
  dlgOurSideMessage,
  dlgOurSidePrimary,
  dlgOurSideSecondary,
  dlgWhitelistTitle,
  dlgWhitelistMessage,
  dlgWhitelistPrimary,
  dlgWhitelistSecondary,
  dlgNoInternetTitle,
  dlgNoInternetMessage,
  dlgNoInternetPrimary,
  dlgNoInternetSecondary,
  dlgSubExpiredTitle,
  dlgSubExpiredMessage,
  dlgSubExpiredPrimary,
  dlgSubExpiredSecondary,
};

inline constexpr std::size_t kSmartStatusTextKeyCount = 27;

// The key's name in the "texts" object ("status_checking", …).
[[nodiscard]] std::string_view jsonKey(SmartStatusTextKey key);
// The wording shown when the backend sends none.
[[nodiscard]] std::string_view builtInWording(SmartStatusTextKey key);

// The backend's "texts" object: each text optional, as received.
struct SmartStatusTexts {
  std::array<std::optional<std::string>, kSmartStatusTextKeyCount> values{};

  [[nodiscard]] const std::optional<std::string>& operator[](SmartStatusTextKey key) const {
    return values[static_cast<std::size_t>(key)];
  }
  [[nodiscard]] std::optional<std::string>& operator[](SmartStatusTextKey key) {
    return values[static_cast<std::size_t>(key)];
  }
  bool operator==(const SmartStatusTexts&) const = default;
};

// The text to show for `key`: the backend's when it sent a non-empty one, else the built-in one.
[[nodiscard]] std::string smartStatusText(const std::optional<SmartStatusTexts>& texts, SmartStatusTextKey key);

// What the health check concluded when it found a problem.
enum class SmartStatusDiagnosis {
  ourSide,
  whitelist,
  noInternet,
  subExpired,
};

[[nodiscard]] std::string_view toString(SmartStatusDiagnosis diagnosis);

// The published health of a connected tunnel. `problem` carries its diagnosis; the other cases
// carry none.
class SmartStatusHealth {
 public:
  enum class Case {
    none,  // connected, nothing verified yet
    checking,
    repairing,
    rechecking,
    refreshing,
    protected_,
    problem,
  };

  constexpr SmartStatusHealth() = default;
  // Every case but `problem`.
  static constexpr SmartStatusHealth of(Case c) {
    return c == Case::problem ? SmartStatusHealth() : SmartStatusHealth(c, {});
  }
  static constexpr SmartStatusHealth problem(SmartStatusDiagnosis d) { return SmartStatusHealth(Case::problem, d); }

  [[nodiscard]] constexpr Case kind() const { return case_; }
  [[nodiscard]] constexpr std::optional<SmartStatusDiagnosis> diagnosis() const { return diagnosis_; }
  constexpr bool operator==(const SmartStatusHealth&) const = default;

 private:
  constexpr SmartStatusHealth(Case c, std::optional<SmartStatusDiagnosis> d) : case_(c), diagnosis_(d) {}

  Case case_ = Case::none;
  std::optional<SmartStatusDiagnosis> diagnosis_;
};

// "checking", "problem(ourSide)", … for log lines.
[[nodiscard]] std::string toString(SmartStatusHealth health);
// The key of the status wording that labels `health`.
[[nodiscard]] SmartStatusTextKey statusTextKey(SmartStatusHealth health);

// The four texts of one diagnosis's dialog, gathered when the dialog is about to be shown.
struct SmartStatusDialogTexts {
  std::string title;
  std::string message;
  std::string primary;
  std::string secondary;
  bool operator==(const SmartStatusDialogTexts&) const = default;
};

[[nodiscard]] SmartStatusDialogTexts dialogTexts(const std::optional<SmartStatusTexts>& texts,
                                                 SmartStatusDiagnosis diagnosis);

}  // namespace norvik
