#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/error.h"
#include "tunnel/system_extension_state.h"

namespace norvik {

// The Russian texts of the network extension's activation: its errors, the approval and reboot
// instructions, and the home-screen banner. The approval wording depends on the system: from
// macOS 15 on, extensions are allowed with a switch in the settings; before, with an "Allow"
// button in the security section.
namespace sysext_texts {

inline constexpr std::string_view kNotInApplications = "Переместите приложение в папку «Программы» и запустите снова.";
inline constexpr std::string_view kTranslocated =
    "Приложение запущено из временной папки. Перетащите его в «Программы» через Finder и перезапустите.";
inline constexpr std::string_view kSignatureInvalid =
    "Расширение не прошло проверку подписи. Установите приложение из подписанного DMG.";
inline constexpr std::string_view kUnsupportedLocation = "Приложение должно находиться в папке «Программы».";
inline constexpr std::string_view kBlockedPrefix = "Расширение заблокировано системой. ";
inline constexpr std::string_view kAuthorizationRequired =
    "Требуется подтверждение. Повторите и подтвердите системный запрос.";

inline constexpr std::string_view kApprovalSwitch =
    "Разрешите сетевое расширение «Norvik»: откройте настройки и включите переключатель напротив «Norvik», "
    "затем подключитесь снова.";
inline constexpr std::string_view kApprovalSecurity =
    "Разрешите сетевое расширение «Norvik»: откройте настройки, в блоке «Безопасность» нажмите «Разрешить» "
    "рядом с «Norvik», затем подключитесь снова.";
inline constexpr std::string_view kReboot = "Для завершения установки расширения перезагрузите Mac.";

inline constexpr std::string_view kBannerErrorTitle = "Ошибка расширения";
inline constexpr std::string_view kBannerRebootTitle = "Нужна перезагрузка";
inline constexpr std::string_view kBannerApprovalTitle = "Нужно разрешение";
inline constexpr std::string_view kBannerApprovalSwitch =
    "Нажмите «Открыть настройки» и включите переключатель «Norvik» в окне, которое откроется. "
    "Затем вернитесь в приложение — VPN включится сам.";
inline constexpr std::string_view kBannerApprovalSecurity =
    "Нажмите «Открыть настройки», в блоке «Безопасность» нажмите «Разрешить» рядом с сообщением о «Norvik». "
    "Затем вернитесь в приложение — VPN включится сам.";

// The first major version that allows extensions with a switch.
inline constexpr int kSwitchApprovalSince = 15;

}  // namespace sysext_texts

// Why an activation did not happen.
struct SysExtError {
  enum class Kind { notInApplications, failed, translocated };

  Kind kind = Kind::failed;
  std::string path{};                                           // notInApplications: where the application runs from
  int code = 0;                                                 // failed: the system's extension error code
  Error underlying{};                                           // failed: the system's error
  int systemMajorVersion = sysext_texts::kSwitchApprovalSince;  // picks the approval wording

  static SysExtError notInApplications(std::string path, int systemMajorVersion);
  static SysExtError translocated(int systemMajorVersion);
  static SysExtError failed(Error underlying, int systemMajorVersion);

  // The Russian text the screens show.
  [[nodiscard]] std::string description() const;
  bool operator==(const SysExtError&) const = default;
};

// The instruction that tells the user how to allow the extension on this system.
[[nodiscard]] std::string_view approvalInstruction(int systemMajorVersion);

// What the home screen's banner shows for an extension state, with an action that opens the
// system settings; nothing while the extension is fine or still being asked for.
struct SystemExtensionBanner {
  std::string title;
  std::string message;
  bool operator==(const SystemExtensionBanner&) const = default;
};
[[nodiscard]] std::optional<SystemExtensionBanner> systemExtensionBanner(const SystemExtensionState& state,
                                                                         int systemMajorVersion);

}  // namespace norvik
