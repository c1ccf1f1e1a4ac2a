#pragma once

#include <string>

#include "platform/error.h"

namespace norvik {

inline constexpr std::string_view kURLErrorDomain = "NSURLErrorDomain";

// The Russian text the connection screen shows for a tunnel error, chosen by domain and code.
// Every tunnel error a user sees passes through here.
[[nodiscard]] std::string tunnelErrorMessage(const Error& error);

}  // namespace norvik
