#pragma once

#include <memory>
#include <openssl/types.h>

#include "platform/crypto.h"

namespace norvik {

// Crypto on OpenSSL 3: HMAC-SHA256, AES-256-GCM and RAND_bytes.
//
// The algorithms are fetched from the provider once, when the object is made: OpenSSL's
// convenience calls (HMAC(), EVP_aes_256_gcm()) look them up again on every use, which is a
// quarter of the cost of signing a backend request. Fetched algorithms are immutable and may be
// shared between threads.
class OpenSslCrypto final : public Crypto {
 public:
  OpenSslCrypto();

  [[nodiscard]] Bytes hmacSha256(ByteView key, ByteView data) const override;
  [[nodiscard]] std::expected<Bytes, Error> aesGcmSeal(ByteView key, ByteView nonce, ByteView plaintext) const override;
  [[nodiscard]] std::expected<Bytes, Error> aesGcmOpen(ByteView key, ByteView nonce,
                                                       ByteView ciphertextAndTag) const override;
  [[nodiscard]] std::expected<Bytes, Error> randomBytes(std::size_t count) override;

 private:
  struct FreeCipher {
    void operator()(EVP_CIPHER* cipher) const;
  };
  struct FreeMacContext {
    void operator()(EVP_MAC_CTX* ctx) const;
  };

  // Null only when the provider lacks the algorithm; every call then fails cleanly.
  std::unique_ptr<EVP_CIPHER, FreeCipher> aesGcm_;
  // HMAC with SHA-256 already chosen and no key; each call works on a copy of it.
  std::unique_ptr<EVP_MAC_CTX, FreeMacContext> hmacSha256_;
};

}  // namespace norvik
