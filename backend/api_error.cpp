#include "backend/api_error.h"

#include <fmt/format.h>

namespace norvik::api_error {

APIError keychainLocked() { return {std::string(kKeychainLocked), "Device ID unavailable while keychain is locked"}; }
APIError encryptionFailed() { return {std::string(kEncryptionFailed), "Encryption Error"}; }
APIError noURL() { return {std::string(kNoURL), "Failed to construct URL"}; }
APIError noHMAC() { return {std::string(kNoHMAC), "Failed to generate HMAC signature"}; }

APIError networkError(const NetworkError& failure) {
  APIError error{std::string(kNetworkError), "Network request failed"};
  error.timedOut = failure.kind == NetworkErrorKind::timedOut;
  error.networkKind = failure.kind;
  error.certificateOutOfDate = failure.certificateOutOfDate;
  return error;
}

APIError decodeError(std::string_view detail) {
  return {std::string(kDecodeError), fmt::format("Decoding error: {}", detail)};
}

std::string_view codeForStatus(int status) {
  switch (status) {
    case 400:
      return kBadRequest;
    case 401:
      return kUnauthorized;
    case 403:
      return kForbidden;
    case 429:
      return kRateLimit;
    case 503:
      return kServerOverload;
    default:
      return kHttpError;
  }
}

APIError statusError(int status, std::optional<std::string> message, std::optional<std::string> title) {
  APIError error{std::string(codeForStatus(status)),
                 message ? std::move(*message) : fmt::format("Server returned status code {}", status),
                 std::move(title)};
  error.httpStatus = status;
  return error;
}

}  // namespace norvik::api_error
