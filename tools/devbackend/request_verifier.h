#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "platform/bytes.h"
#include "platform/clock.h"
#include "platform/http_transport.h"

namespace norvik::devbackend {

// What the signature check made of one request.
enum class Verdict {
  ok,
  missingHeaders,  // no "X-Timestamp", "X-Nonce" or "X-HMAC-Signature"
  badTimestamp,    // "X-Timestamp" is not a decimal number
  badSignature,    // the HMAC does not match the exact body, timestamp and nonce
  staleTimestamp,  // signed, but outside the time window
  replayedNonce,   // signed, but the nonce was already served within the window
  badIdentity,     // signed, but the body or its "vendor_id" cannot be read
};

[[nodiscard]] std::string_view toString(Verdict verdict);

struct Verification {  // NOLINT(bugprone-exception-escape): nlohmann::json moves without throwing; the check cannot see
                       // it
  Verdict verdict = Verdict::ok;
  std::string detail;    // why, for the request record
  std::string vendorId;  // the decrypted identifier (empty unless the body opened)
  nlohmann::json body;   // the parsed body (null unless it parsed)
  std::string nonce;
  std::int64_t timestamp = 0;
};

// Checks signed requests as the production backend does: HMAC-SHA256 of body ‖ "X-Timestamp" ‖
// "X-Nonce" under the API key, a timestamp within ±window of this server's clock, a nonce not
// served before within the window, and a "vendor_id" that opens under the AES key.
//
// A nonce counts as used only once its request was served (markServed): the client sends the
// very same signed request again after a 503 or a network failure, and an attempt this server
// turned away before serving must not poison the retry.
//
// Not thread-safe: its owner serialises access.
class RequestVerifier {
 public:
  RequestVerifier(Bytes apiHmacKey, Bytes aesKey, std::chrono::seconds window = std::chrono::minutes(5));

  [[nodiscard]] Verification check(const HttpHeaders& headers, const std::string& body, Clock::TimePoint now) const;
  void markServed(const Verification& verification, Clock::TimePoint now);
  void forgetNonces() { served_.clear(); }
  [[nodiscard]] std::size_t rememberedNonceCount() const { return served_.size(); }

 private:
  Bytes apiHmacKey_;
  Bytes aesKey_;
  std::chrono::seconds window_;
  // Served nonces and the server time they expire from memory; a nonce older than the window
  // would be refused for its timestamp anyway.
  std::map<std::string, Clock::TimePoint, std::less<>> served_;
};

}  // namespace norvik::devbackend
