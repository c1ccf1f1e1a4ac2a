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

}  // namespace norvik
