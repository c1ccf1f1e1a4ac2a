#include "platform/error.h"

#include <fmt/format.h>

namespace norvik {

std::string Error::description() const {
  if (!message.empty()) return message;
  return fmt::format("{} error {}", domain.empty() ? std::string("unknown") : domain, code);
}

}  // namespace norvik
