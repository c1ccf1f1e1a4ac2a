#include "connection/connection_messages.h"

#include <algorithm>
#include <cctype>
#include <optional>

#include "platform/tunnel_service.h"

namespace norvik {

namespace busy_texts {
BusyText fetchingKey() { return {"Получаем ключ, подождите…", "Получаем ключ…"}; }
BusyText changingServer() { return {"Меняем сервер, подождите…", "Меняем сервер…"}; }
BusyText loadingData() { return {"Загружаем данные, секунду…", "Загружаем данные…"}; }
BusyText refreshingKey() { return {"Обновляем сервер…", "Обновляем сервер…"}; }
BusyText disconnectingForChange() { return {"Отключаем VPN…", "Отключаем VPN…"}; }
BusyText reconnectingForChange() { return {"Подключаемся…", "Подключаемся…"}; }
BusyText checkingPayment() { return {"Проверяем оплату…", "Проверяем оплату…"}; }
}  // namespace busy_texts

namespace {

constexpr std::string_view kRateLimit = "Слишком много запросов. Пожалуйста, подождите немного и попробуйте снова.";
constexpr std::string_view kOverload = "Сервер перегружен. Попробуйте через несколько минут.";
constexpr std::string_view kUnauthorized = "Ошибка авторизации. Перезапустите приложение и попробуйте снова.";

// A failure below HTTP the user can act on other than by checking the connection: a wrong clock,
// or a network that intercepts TLS.
std::optional<std::string> networkCause(const APIError& error) {
  if (error.code != api_error::kNetworkError) return std::nullopt;
  if (error.certificateOutOfDate) return std::string(connection_texts::kClockWrong);
  if (error.networkKind == NetworkErrorKind::certificate) return std::string(connection_texts::kCertificateProblem);
  return std::nullopt;
}

}  // namespace

std::string keyFetchMessage(const APIError& error) {
  if (auto cause = networkCause(error)) return *cause;
  const std::string& code = error.code;
  if (code == api_error::kRateLimit) return std::string(kRateLimit);
  if (code == api_error::kServerOverload) return std::string(kOverload);
  if (code == api_error::kBadRequest) return "Ошибка запроса. Попробуйте снова или обратитесь в поддержку.";
  if (code == api_error::kUnauthorized) return std::string(kUnauthorized);
  if (code == api_error::kNetworkError) return std::string(connection_texts::kCheckInternet);
  if (code == api_error::kDecodeError) return "Ошибка обработки данных от сервера";
  return "Не удалось получить ключ. Попробуйте позже.";
}

std::string serverChangeMessage(const APIError& error) {
  if (auto cause = networkCause(error)) return *cause;
  const std::string& code = error.code;
  if (code == api_error::kRateLimit) return std::string(kRateLimit);
  if (code == api_error::kServerOverload) return std::string(kOverload);
  if (code == api_error::kBadRequest) return "Ошибка запроса. Попробуйте позже или обратитесь в поддержку.";
  if (code == api_error::kUnauthorized) return std::string(kUnauthorized);
  if (code == api_error::kForbidden) return "Для смены сервера требуется активная подписка";
  if (code == api_error::kNetworkError) {
    if (error.timedOut) return std::string(connection_texts::kChangeTimedOut);
    return "Не удалось связаться с сервером. Проверьте подключение к интернету.";
  }
  if (code == api_error::kDecodeError) return "Ошибка обработки ответа сервера";
  return "Не удалось сменить сервер. Попробуйте позже.";
}

bool isVPNPermissionDenied(const Error& error) {
  // The system reports a refused "allow VPN configuration" prompt as a failed write of the
  // configuration whose description names the refusal.
  if (error.domain != kNEVPNErrorDomain ||
      error.code != static_cast<int>(NEVPNErrorCode::configurationReadWriteFailed)) {
    return false;
  }
  std::string lower = error.message;
  std::ranges::transform(lower, lower.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return lower.find("permission denied") != std::string::npos;
}

std::string withWriteCause(std::string_view message, const Error& error) {
  if (error.domain != "POSIX") return std::string(message);
  std::string text(message);
  if (!text.ends_with('.')) text += '.';
  return text + " " + writeFailureText(error);
}

}  // namespace norvik
