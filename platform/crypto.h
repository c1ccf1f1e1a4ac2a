#pragma once

#include <cstddef>
#include <expected>
#include <optional>
#include <string>
#include <string_view>

#include "platform/bytes.h"
#include "platform/error.h"

namespace norvik {

// Cryptographic primitives and the system's random source. The Linux adapter is OpenSSL.
// Thread-safe.
class Crypto {
 public:
  static constexpr std::size_t kAesGcmNonceSize = 12;
  static constexpr std::size_t kAesGcmTagSize = 16;

  virtual ~Crypto() = default;

  [[nodiscard]] virtual Bytes hmacSha256(ByteView key, ByteView data) const = 0;
  // AES-256-GCM without additional data. Returns ciphertext ‖ tag.
  [[nodiscard]] virtual std::expected<Bytes, Error> aesGcmSeal(ByteView key, ByteView nonce,
                                                               ByteView plaintext) const = 0;
  // The inverse of aesGcmSeal; fails when the tag does not verify.
  [[nodiscard]] virtual std::expected<Bytes, Error> aesGcmOpen(ByteView key, ByteView nonce,
                                                               ByteView ciphertextAndTag) const = 0;
  // Bytes from the cryptographically secure random source.
  [[nodiscard]] virtual std::expected<Bytes, Error> randomBytes(std::size_t count) = 0;
};

// Standard Base64 with padding and no line breaks.
[[nodiscard]] std::string base64Encode(ByteView bytes);
// Strict: the standard alphabet, padding required, no white space. Nothing on any other input.
[[nodiscard]] std::optional<Bytes> base64Decode(std::string_view text);
// Lower-case hexadecimal, two digits a byte.
[[nodiscard]] std::string hexLower(ByteView bytes);

}  // namespace norvik
