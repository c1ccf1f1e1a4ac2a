#pragma once

#include <expected>
#include <string>

#include <nlohmann/json.hpp>

#include "platform/bytes.h"
#include "platform/http_transport.h"

namespace norvik::testing {

struct VerifiedRequest {  // NOLINT(bugprone-exception-escape): nlohmann::json moves without throwing; the check cannot
                          // see it
  nlohmann::json body;
  std::string vendorId;  // the decrypted "vendor_id"
  std::int64_t timestamp = 0;
  std::string nonce;
};

// What the backend does with a signed request, written straight on OpenSSL so that it checks the
// client rather than repeating it: the signature "X-HMAC-Signature" over body ‖ "X-Timestamp" ‖
// "X-Nonce" under the API key, then "vendor_id" opened with AES-256-GCM (nonce ‖ ciphertext ‖
// tag, Base64). The error says what did not verify.
[[nodiscard]] std::expected<VerifiedRequest, std::string> verifySignedRequest(const HttpHeaders& headers,
                                                                              const std::string& body,
                                                                              ByteView apiHmacKey, ByteView aesKey);

}  // namespace norvik::testing
