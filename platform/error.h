#pragma once

#include <string>

namespace norvik {

// An error of a platform service: the domain names the service ("NEVPNErrorDomain",
// "NSURLErrorDomain", "SQLite", "POSIX", …), the code is that service's own number, and the
// message is the readable description.
struct Error {
  std::string domain;
  int code = 0;
  std::string message;

  [[nodiscard]] std::string description() const;
  bool operator==(const Error&) const = default;
};

// The user's words for a change that could not be saved, naming the cause where the user can act
// on it: "Изменение не сохранено: на диске нет места." for ENOSPC, "…: нет прав на запись." for
// EACCES, EPERM and EROFS, else the system's description.
[[nodiscard]] std::string writeFailureText(const Error& error);

}  // namespace norvik
