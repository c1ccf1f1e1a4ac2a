#pragma once

#include <string>
#include <string_view>

#include "backend/api_error.h"
#include "platform/error.h"

namespace norvik {

// The fixed Russian texts of the connection flow, in one place.
namespace connection_texts {

inline constexpr std::string_view kKeyErrorTitle = "Ошибка получения ключа";
inline constexpr std::string_view kKeyErrorShortTitle = "Не удалось получить ключ";
inline constexpr std::string_view kServerChangeTitle = "Смена сервера";
inline constexpr std::string_view kServerChangeRequestErrorTitle = "Ошибка смены сервера";
inline constexpr std::string_view kServerChangeInstallErrorTitle = "Не удалось сменить сервер";

inline constexpr std::string_view kWaitForServerChange = "Дождитесь завершения смены сервера.";
inline constexpr std::string_view kWaitForKeyInstall = "Дождитесь установки ключа VPN.";
inline constexpr std::string_view kNoKeyConfiguration = "Сервер не предоставил конфигурацию VPN";
inline constexpr std::string_view kNoNewConfiguration = "Сервер не предоставил новую конфигурацию";
inline constexpr std::string_view kInstallFailed = "Не удалось установить конфигурацию VPN";
inline constexpr std::string_view kNewInstallFailed = "Не удалось установить новую конфигурацию VPN";
inline constexpr std::string_view kConnectFailed =
    "Не удалось подключиться к VPN. Попробуйте снова или смените сервер.";
inline constexpr std::string_view kDisconnectFailed = "Не удалось отключить VPN. Попробуйте ещё раз.";
inline constexpr std::string_view kChangeTimedOut = "Превышено время ожидания. Проверьте подключение к интернету.";
inline constexpr std::string_view kChangedButNotConnected =
    "Сервер сменён, но подключить VPN не удалось. Попробуйте включить VPN снова.";
inline constexpr std::string_view kServerChanged = "Сервер сменён";
inline constexpr std::string_view kRefreshInstallFailed = "Не удалось обновить сервер. Попробуйте включить VPN снова.";
inline constexpr std::string_view kRefreshedButNotConnected =
    "Сервер обновлён, но подключить VPN не удалось. Попробуйте включить VPN снова.";
inline constexpr std::string_view kServerRefreshed = "Сервер обновлён";
inline constexpr std::string_view kConnectionDropped = "VPN подключение прервано. Попробуйте включить VPN снова.";
inline constexpr std::string_view kCheckInternet = "Проверьте подключение к интернету и повторите попытку";
// What a failed connection to the backend was, where the user can act on it.
inline constexpr std::string_view kCertificateProblem =
    "Не удалось проверить подлинность сервера Norvik: сеть подменяет защищённое соединение (так бывает в "
    "гостевых и корпоративных сетях). Подключитесь к другой сети и повторите попытку.";
inline constexpr std::string_view kClockWrong =
    "Часы компьютера показывают неверное время, и защищённое соединение с сервером не устанавливается. "
    "Выставьте точное время и повторите попытку.";
inline constexpr std::string_view kAllowVPN = "Разрешите VPN-подключение";
inline constexpr std::string_view kCheckingPayment = "Проверяем оплату…";
inline constexpr std::string_view kConnectErrorTitle = "Ошибка подключения";
inline constexpr std::string_view kRefreshTitle = "Обновление сервера";
inline constexpr std::string_view kExtensionErrorTitle = "Ошибка расширения";
inline constexpr std::string_view kGenericKeyError = "Не удалось получить ключ. Попробуйте позже.";
inline constexpr std::string_view kGenericChangeError = "Не удалось сменить сервер. Попробуйте позже.";
inline constexpr std::string_view kAlreadyConnected = "VPN уже подключён";
inline constexpr std::string_view kAlreadyDisconnected = "VPN уже отключён";
// A request that a later, opposite one replaced before it was done.
inline constexpr std::string_view kSuperseded = "Команда отменена: её заменила более поздняя команда.";
inline constexpr std::string_view kSubscriptionActivated = "Подписка активирована — включаем VPN";

}  // namespace connection_texts

// A busy text as the home screen shows it, with the short form for the toggle.
struct BusyText {
  std::string text;
  std::string shortText;
  bool operator==(const BusyText&) const = default;
};

namespace busy_texts {
BusyText fetchingKey();     // "Получаем ключ, подождите…" / "Получаем ключ…"
BusyText changingServer();  // "Меняем сервер, подождите…" / "Меняем сервер…"
BusyText loadingData();  // "Загружаем данные, секунду…" / "Загружаем данные…"
BusyText refreshingKey();           // "Обновляем сервер…"
BusyText disconnectingForChange();  // "Отключаем VPN…"
BusyText reconnectingForChange();   // "Подключаемся…"
BusyText checkingPayment();         // "Проверяем оплату…"
}  // namespace busy_texts

// The user's message for an error of "getkey", chosen by code.
[[nodiscard]] std::string keyFetchMessage(const APIError& error);
// The user's message for an error of "change_server", chosen by code (a time-out has its own).
[[nodiscard]] std::string serverChangeMessage(const APIError& error);

// `message`, followed by what the user can do about a failed write of the tunnel's settings (a full
// disk, no permission), when that is why it failed; `message` alone otherwise.
[[nodiscard]] std::string withWriteCause(std::string_view message, const Error& error);

// True for a tunnel save the user refused (the system asked to allow the VPN configuration).
[[nodiscard]] bool isVPNPermissionDenied(const Error& error);

}  // namespace norvik
