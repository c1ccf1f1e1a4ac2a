#pragma once

#include "platform/crypto.h"

namespace norvik {

// Crypto on OpenSSL 3: HMAC-SHA256, AES-256-GCM and RAND_bytes.
class OpenSslCrypto final : public Crypto {
 public:
  [[nodiscard]] Bytes hmacSha256(ByteView key, ByteView data) const override;
  [[nodiscard]] std::expected<Bytes, Error> aesGcmSeal(ByteView key, ByteView nonce, ByteView plaintext) const override;
  [[nodiscard]] std::expected<Bytes, Error> aesGcmOpen(ByteView key, ByteView nonce,
                                                       ByteView ciphertextAndTag) const override;
  [[nodiscard]] std::expected<Bytes, Error> randomBytes(std::size_t count) override;
};

}  // namespace norvik
