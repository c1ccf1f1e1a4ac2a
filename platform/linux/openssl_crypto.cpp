#include "platform/linux/openssl_crypto.h"

#include <memory>
#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/params.h>
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
using MacContext = std::unique_ptr<EVP_MAC_CTX, decltype(&EVP_MAC_CTX_free)>;

std::expected<void, Error> checkSizes(ByteView key, ByteView nonce) {
  if (key.size() != 32) return std::unexpected(Error{"OpenSSL", 0, "AES-256-GCM needs a 32-byte key"});
  if (nonce.size() != Crypto::kAesGcmNonceSize) {
    return std::unexpected(Error{"OpenSSL", 0, "AES-GCM needs a 12-byte nonce"});
  }
  return {};
}

}  // namespace

void OpenSslCrypto::FreeCipher::operator()(EVP_CIPHER* cipher) const { EVP_CIPHER_free(cipher); }
void OpenSslCrypto::FreeMacContext::operator()(EVP_MAC_CTX* ctx) const { EVP_MAC_CTX_free(ctx); }

OpenSslCrypto::OpenSslCrypto() : aesGcm_(EVP_CIPHER_fetch(nullptr, "AES-256-GCM", nullptr)) {
  if (EVP_MAC* mac = EVP_MAC_fetch(nullptr, "HMAC", nullptr)) {
    hmacSha256_.reset(EVP_MAC_CTX_new(mac));
    EVP_MAC_free(mac);  // the context holds its own reference
    char digest[] = "SHA256";
    const OSSL_PARAM params[] = {OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST, digest, 0),
                                 OSSL_PARAM_construct_end()};
    if (hmacSha256_ && EVP_MAC_CTX_set_params(hmacSha256_.get(), params) != 1) hmacSha256_.reset();
  }
  ERR_clear_error();  // a missing algorithm is reported by the call that needs it
}

Bytes OpenSslCrypto::hmacSha256(ByteView key, ByteView data) const {
  static const std::uint8_t kEmpty = 0;  // OpenSSL wants non-null pointers even for empty input
  Bytes out(EVP_MAX_MD_SIZE);
  std::size_t length = 0;
  MacContext ctx(hmacSha256_ ? EVP_MAC_CTX_dup(hmacSha256_.get()) : nullptr, &EVP_MAC_CTX_free);
  if (!ctx || EVP_MAC_init(ctx.get(), key.empty() ? &kEmpty : key.data(), key.size(), nullptr) != 1 ||
      EVP_MAC_update(ctx.get(), data.empty() ? &kEmpty : data.data(), data.size()) != 1 ||
      EVP_MAC_final(ctx.get(), out.data(), &length, out.size()) != 1) {
    // Only a broken OpenSSL installation gets here; callers treat no bytes as a failure.
    ERR_clear_error();
    return {};
  }
  out.resize(length);
  return out;
}

std::expected<Bytes, Error> OpenSslCrypto::aesGcmSeal(ByteView key, ByteView nonce, ByteView plaintext) const {
  if (auto ok = checkSizes(key, nonce); !ok) return std::unexpected(ok.error());
  CipherContext ctx(EVP_CIPHER_CTX_new(), &EVP_CIPHER_CTX_free);
  if (!ctx || !aesGcm_ || EVP_EncryptInit_ex2(ctx.get(), aesGcm_.get(), key.data(), nonce.data(), nullptr) != 1) {
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
  const auto cipherLength = static_cast<std::size_t>(written) + static_cast<std::size_t>(tail);
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
  if (!ctx || !aesGcm_ || EVP_DecryptInit_ex2(ctx.get(), aesGcm_.get(), key.data(), nonce.data(), nullptr) != 1) {
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
  out.resize(static_cast<std::size_t>(written) + static_cast<std::size_t>(tail));
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
