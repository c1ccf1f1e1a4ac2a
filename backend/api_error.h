#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/http_transport.h"

namespace norvik {

// The one error of every backend operation. Callers choose the user's text by `code`.
struct APIError {
  std::string code;
  std::string message;
  std::optional<std::string> title{};
  // Set on "NETWORK_ERROR" when the last attempt timed out: the server-change flow tells the
  // user something different for it.
  bool timedOut = false;
  // The HTTP status behind a status error, 0 otherwise.
  int httpStatus = 0;
  // On "NETWORK_ERROR": what failed below HTTP, so that the user is told what they can do about it
  // (another network, the clock, the connection).
  NetworkErrorKind networkKind = NetworkErrorKind::other;
  bool certificateOutOfDate = false;

  bool operator==(const APIError&) const = default;
};

namespace api_error {

inline constexpr std::string_view kKeychainLocked = "KEYCHAIN_LOCKED";
inline constexpr std::string_view kEncryptionFailed = "ENCRYPTION_FAILED";
inline constexpr std::string_view kNoURL = "NO_URL";
inline constexpr std::string_view kNoHMAC = "NO_HMAC";
inline constexpr std::string_view kNetworkError = "NETWORK_ERROR";
inline constexpr std::string_view kDecodeError = "DECODE_ERROR";
inline constexpr std::string_view kBadRequest = "BAD_REQUEST";
inline constexpr std::string_view kUnauthorized = "UNAUTHORIZED";
inline constexpr std::string_view kForbidden = "FORBIDDEN";
inline constexpr std::string_view kRateLimit = "RATE_LIMIT";
inline constexpr std::string_view kServerOverload = "SERVER_OVERLOAD";
// Any other non-success status.
inline constexpr std::string_view kHttpError = "HTTP_ERROR";

APIError keychainLocked();
APIError encryptionFailed();
APIError noURL();
APIError noHMAC();
APIError networkError(const NetworkError& failure);
// "Decoding error: " followed by the decoder's error.
APIError decodeError(std::string_view detail);
// A non-success HTTP status, named as the backend's statuses are named ("RATE_LIMIT" for 429 …),
// carrying the server's own "message" and "title" when it sent them.
APIError statusError(int status, std::optional<std::string> message, std::optional<std::string> title);

// The code for an HTTP status: 400 "BAD_REQUEST", 401 "UNAUTHORIZED", 403 "FORBIDDEN",
// 429 "RATE_LIMIT", 503 "SERVER_OVERLOAD", anything else "HTTP_ERROR".
std::string_view codeForStatus(int status);

}  // namespace api_error
}  // namespace norvik
