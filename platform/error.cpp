#include "platform/error.h"

#include <cerrno>

#include <fmt/format.h>

namespace norvik {

std::string Error::description() const {
  if (!message.empty()) return message;
  return fmt::format("{} error {}", domain.empty() ? std::string("unknown") : domain, code);
}

std::string writeFailureText(const Error& error) {
  if (error.domain == "POSIX") {
    switch (error.code) {
      case ENOSPC:
      case EDQUOT:
        return "Изменение не сохранено: на диске нет места.";
      case EACCES:
      case EPERM:
      case EROFS:
        return "Изменение не сохранено: нет прав на запись.";
      default:
        break;
    }
  }
  return "Изменение не сохранено: " + error.message;
}

}  // namespace norvik
