#include "testing/backend_verifier.h"

#include <charconv>
#include <memory>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>

namespace norvik::testing {
namespace {

std::string hex(const unsigned char* data, unsigned int n) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string out;
  for (unsigned int i = 0; i < n; ++i) {
    out.push_back(kDigits[data[i] >> 4]);
    out.push_back(kDigits[data[i] & 15]);
  }
  return out;
}

std::optional<Bytes> unbase64(const std::string& text) {
  std::unique_ptr<EVP_ENCODE_CTX, decltype(&EVP_ENCODE_CTX_free)> ctx(EVP_ENCODE_CTX_new(), &EVP_ENCODE_CTX_free);
  Bytes out(text.size() + 3);
  int n = 0;
  int tail = 0;
  EVP_DecodeInit(ctx.get());
  if (EVP_DecodeUpdate(ctx.get(), out.data(), &n, reinterpret_cast<const unsigned char*>(text.data()),
                       static_cast<int>(text.size())) < 0 ||
      EVP_DecodeFinal(ctx.get(), out.data() + n, &tail) != 1) {
    return std::nullopt;
  }
  out.resize(static_cast<std::size_t>(n) + static_cast<std::size_t>(tail));
  return out;
}

}  // namespace

std::expected<VerifiedRequest, std::string> verifySignedRequest(const HttpHeaders& headers, const std::string& body,
                                                                ByteView apiHmacKey, ByteView aesKey) {
  auto timestamp = findHeader(headers, "X-Timestamp");
  auto nonce = findHeader(headers, "X-Nonce");
  auto signature = findHeader(headers, "X-HMAC-Signature");
  if (!timestamp || !nonce || !signature) return std::unexpected("missing signature headers");

  VerifiedRequest out;
  auto [end, ec] = std::from_chars(timestamp->data(), timestamp->data() + timestamp->size(), out.timestamp);
  if (ec != std::errc{} || end != timestamp->data() + timestamp->size()) return std::unexpected("bad X-Timestamp");
  out.nonce = std::string(*nonce);

  const std::string signedText = body + std::string(*timestamp) + out.nonce;
  unsigned char mac[EVP_MAX_MD_SIZE];
  unsigned int macLength = 0;
  HMAC(EVP_sha256(), apiHmacKey.data(), static_cast<int>(apiHmacKey.size()),
       reinterpret_cast<const unsigned char*>(signedText.data()), signedText.size(), mac, &macLength);
  const std::string expected = hex(mac, macLength);
  if (expected.size() != signature->size() || CRYPTO_memcmp(expected.data(), signature->data(), expected.size()) != 0) {
    return std::unexpected("signature mismatch");
  }

  out.body = nlohmann::json::parse(body, nullptr, false);
  if (!out.body.is_object()) return std::unexpected("body is not a JSON object");
  if (!out.body.contains("vendor_id") || !out.body["vendor_id"].is_string()) return std::unexpected("no vendor_id");
  auto sealed = unbase64(out.body["vendor_id"].get<std::string>());
  if (!sealed || sealed->size() < 12 + 16) return std::unexpected("vendor_id is not sealed Base64");

  std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> ctx(EVP_CIPHER_CTX_new(), &EVP_CIPHER_CTX_free);
  const std::size_t cipherLength = sealed->size() - 12 - 16;
  Bytes plain(cipherLength + 1);
  int n = 0;
  int tail = 0;
  const bool opened =
      EVP_DecryptInit_ex(ctx.get(), EVP_aes_256_gcm(), nullptr, aesKey.data(), sealed->data()) == 1 &&
      EVP_DecryptUpdate(ctx.get(), plain.data(), &n, sealed->data() + 12, static_cast<int>(cipherLength)) == 1 &&
      EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_GCM_SET_TAG, 16, sealed->data() + 12 + cipherLength) == 1 &&
      EVP_DecryptFinal_ex(ctx.get(), plain.data() + n, &tail) == 1;
  if (!opened) return std::unexpected("vendor_id does not open under the AES key");
  out.vendorId.assign(reinterpret_cast<const char*>(plain.data()),
                      static_cast<std::size_t>(n) + static_cast<std::size_t>(tail));
  return out;
}

}  // namespace norvik::testing
