#include "tunnel/tunnel_error_messages.h"

#include <fmt/format.h>

#include "platform/tunnel_service.h"

namespace norvik {

std::string tunnelErrorMessage(const Error& error) {
  if (error.domain == kNEVPNErrorDomain) {
    switch (error.code) {
      case 1:
        return "Неверная конфигурация VPN. Получите новый ключ через \"Сменить сервер\".";
      case 2:
        return "VPN конфигурация отключена. Попробуйте перезапустить приложение.";
      case 3:
        return "Не удалось подключиться к серверу. Проверьте интернет-соединение.";
      case 4:
        return "Конфигурация устарела. Получите новый ключ.";
      case 5:
        return "Ошибка чтения конфигурации. Перезапустите приложение.";
      case 6:
        return "Конфигурация не найдена. Получите VPN ключ заново.";
      default:
        return fmt::format("Ошибка VPN (код {}). Попробуйте позже или смените сервер.", error.code);
    }
  }
  if (error.domain == kURLErrorDomain) {
    // The URL error codes are negative; shifted by 1020 they count up from "data not allowed".
    switch (error.code + 1020) {
      case 0:
        return "Мобильные данные отключены. Включите их в настройках iOS.";
      case 11:
        return "Нет подключения к интернету. Проверьте WiFi или мобильные данные.";
      case 14:
        return "Ошибка DNS. Попробуйте переключиться с WiFi на мобильный интернет (или наоборот).";
      case 15:
        return "Соединение потеряно. Проверьте стабильность интернета.";
      case 16:
        return "Не удается подключиться к серверу. Проверьте firewall или смените сервер.";
      case 17:
        return "Сервер не найден. Попробуйте сменить сервер.";
      case 19:
        return "Превышено время ожидания. Проверьте скорость интернета.";
      default:
        return fmt::format("Ошибка сети (код {}). Проверьте подключение к интернету.", error.code);
    }
  }
  return fmt::format("Не удалось подключиться к VPN. {}", error.description());
}

}  // namespace norvik
