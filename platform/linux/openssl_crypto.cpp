#include "platform/linux/openssl_crypto.h"

#include <memory>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>

namespace norvik {
namespace {

Error opensslError(std::string_view what) {
  const unsigned long code = ERR_get_error();
  char text[256] = "unknown error";
  if (code != 0) ERR_error_string_n(code, text, sizeof text);
  ERR_clear_error();
  return Error{"OpenSSL", static_cast<int>(ERR_GET_REASON(code)), std::string(what) + ": " + text};
}

using CipherContext = std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)>;

std::expected<void, Error> checkSizes(ByteView key, ByteView nonce) {
  if (key.size() != 32) return std::unexpected(Error{"OpenSSL", 0, "AES-256-GCM needs a 32-byte key"});
  if (nonce.size() != Crypto::kAesGcmNonceSize) {
    return std::unexpected(Error{"OpenSSL", 0, "AES-GCM needs a 12-byte nonce"});
  }
  return {};
}

}  // namespace

Bytes OpenSslCrypto::hmacSha256(ByteView key, ByteView data) const {
  static const std::uint8_t kEmpty = 0;  // HMAC() wants a non-null key even when it is empty
  Bytes out(EVP_MAX_MD_SIZE);
  unsigned int length = 0;
  HMAC(EVP_sha256(), key.empty() ? &kEmpty : key.data(), static_cast<int>(key.size()),
       data.empty() ? &kEmpty : data.data(), data.size(), out.data(), &length);
  out.resize(length);
  return out;
}

std::expected<Bytes, Error> OpenSslCrypto::aesGcmSeal(ByteView key, ByteView nonce, ByteView plaintext) const {
  if (auto ok = checkSizes(key, nonce); !ok) return std::unexpected(ok.error());
  CipherContext ctx(EVP_CIPHER_CTX_new(), &EVP_CIPHER_CTX_free);
  if (!ctx || EVP_EncryptInit_ex(ctx.get(), EVP_aes_256_gcm(), nullptr, key.data(), nonce.data()) != 1) {
    return std::unexpected(opensslError("AES-GCM init"));
  }
  Bytes out(plaintext.size() + kAesGcmTagSize);
  int written = 0;
  if (!plaintext.empty() &&
      EVP_EncryptUpdate(ctx.get(), out.data(), &written, plaintext.data(), static_cast<int>(plaintext.size())) != 1) {
    return std::unexpected(opensslError("AES-GCM encrypt"));
  }
  int tail = 0;
  if (EVP_EncryptFinal_ex(ctx.get(), out.data() + written, &tail) != 1) {
    return std::unexpected(opensslError("AES-GCM final"));
  }
  const auto cipherLength = static_cast<std::size_t>(written + tail);
  if (EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_GCM_GET_TAG, kAesGcmTagSize, out.data() + cipherLength) != 1) {
    return std::unexpected(opensslError("AES-GCM tag"));
  }
  out.resize(cipherLength + kAesGcmTagSize);
  return out;
}

std::expected<Bytes, Error> OpenSslCrypto::aesGcmOpen(ByteView key, ByteView nonce, ByteView ciphertextAndTag) const {
  if (auto ok = checkSizes(key, nonce); !ok) return std::unexpected(ok.error());
  if (ciphertextAndTag.size() < kAesGcmTagSize) return std::unexpected(Error{"OpenSSL", 0, "AES-GCM input too short"});
  const auto cipherLength = ciphertextAndTag.size() - kAesGcmTagSize;
  CipherContext ctx(EVP_CIPHER_CTX_new(), &EVP_CIPHER_CTX_free);
  if (!ctx || EVP_DecryptInit_ex(ctx.get(), EVP_aes_256_gcm(), nullptr, key.data(), nonce.data()) != 1) {
    return std::unexpected(opensslError("AES-GCM init"));
  }
  Bytes out(cipherLength + 1);  // +1: never hand OpenSSL a null buffer
  int written = 0;
  if (cipherLength > 0 && EVP_DecryptUpdate(ctx.get(), out.data(), &written, ciphertextAndTag.data(),
                                            static_cast<int>(cipherLength)) != 1) {
    return std::unexpected(opensslError("AES-GCM decrypt"));
  }
  Bytes tag(ciphertextAndTag.begin() + static_cast<std::ptrdiff_t>(cipherLength), ciphertextAndTag.end());
  if (EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_GCM_SET_TAG, kAesGcmTagSize, tag.data()) != 1) {
    return std::unexpected(opensslError("AES-GCM tag"));
  }
  int tail = 0;
  if (EVP_DecryptFinal_ex(ctx.get(), out.data() + written, &tail) != 1) {
    ERR_clear_error();
    return std::unexpected(Error{"OpenSSL", 0, "AES-GCM authentication failed"});
  }
  out.resize(static_cast<std::size_t>(written + tail));
  return out;
}

std::expected<Bytes, Error> OpenSslCrypto::randomBytes(std::size_t count) {
  Bytes out(count);
  if (count > 0 && RAND_bytes(out.data(), static_cast<int>(count)) != 1) {
    return std::unexpected(opensslError("RAND_bytes"));
  }
  return out;
}

}  // namespace norvik
