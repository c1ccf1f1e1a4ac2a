#include "tools/devbackend/wireguard_keys.h"

#include <memory>

#include <fmt/format.h>
#include <openssl/evp.h>

namespace norvik::devbackend {
namespace {

constexpr std::size_t kKeySize = 32;

using PKey = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;
using PKeyContext = std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)>;

std::expected<std::string, std::string> rawPublicKey(EVP_PKEY* key) {
  Bytes raw(kKeySize);
  std::size_t length = raw.size();
  if (EVP_PKEY_get_raw_public_key(key, raw.data(), &length) != 1 || length != kKeySize) {
    return std::unexpected("cannot read the X25519 public key");
  }
  return base64Encode(raw);
}

}  // namespace

std::expected<WireGuardKeyPair, std::string> generateWireGuardKeyPair() {
  PKeyContext context(EVP_PKEY_CTX_new_id(EVP_PKEY_X25519, nullptr), &EVP_PKEY_CTX_free);
  EVP_PKEY* generated = nullptr;
  if (!context || EVP_PKEY_keygen_init(context.get()) != 1 || EVP_PKEY_keygen(context.get(), &generated) != 1) {
    return std::unexpected("X25519 key generation failed");
  }
  PKey key(generated, &EVP_PKEY_free);
  Bytes raw(kKeySize);
  std::size_t length = raw.size();
  if (EVP_PKEY_get_raw_private_key(key.get(), raw.data(), &length) != 1 || length != kKeySize) {
    return std::unexpected("cannot read the X25519 private key");
  }
  auto publicKey = rawPublicKey(key.get());
  if (!publicKey) return std::unexpected(publicKey.error());
  return WireGuardKeyPair{base64Encode(raw), std::move(*publicKey)};
}

std::expected<std::string, std::string> wireGuardPublicKey(std::string_view privateKeyBase64) {
  const auto raw = base64Decode(privateKeyBase64);
  if (!raw || raw->size() != kKeySize) return std::unexpected("not the Base64 of a 32-byte key");
  PKey key(EVP_PKEY_new_raw_private_key(EVP_PKEY_X25519, nullptr, raw->data(), raw->size()), &EVP_PKEY_free);
  if (!key) return std::unexpected("OpenSSL refused the X25519 private key");
  return rawPublicKey(key.get());
}

bool isWireGuardKey(std::string_view text) {
  const auto raw = base64Decode(text);
  return raw && raw->size() == kKeySize;
}

std::string composeKeyText(const KeyTextFields& f) {
  return fmt::format(
      "[Interface]\n"
      "PrivateKey = {}\n"
      "Address = {}\n"
      "DNS = {}\n"
      "\n"
      "[Peer]\n"
      "PublicKey = {}\n"
      "PresharedKey = {}\n"
      "AllowedIPs = {}\n"
      "Endpoint = {}\n"
      "PersistentKeepalive = {}\n",
      f.privateKey, f.address, f.dns, f.peerPublicKey, f.presharedKey, f.allowedIPs, f.endpoint, f.persistentKeepalive);
}

}  // namespace norvik::devbackend
