#pragma once

#include <expected>
#include <string>
#include <string_view>

#include "platform/crypto.h"

namespace norvik::devbackend {

// A Curve25519 key pair as WireGuard writes it: each key the standard Base64 of its 32 bytes
// (44 characters).
struct WireGuardKeyPair {
  std::string privateKey;
  std::string publicKey;
};

// A fresh pair from OpenSSL (X25519). Fails only when OpenSSL does.
[[nodiscard]] std::expected<WireGuardKeyPair, std::string> generateWireGuardKeyPair();

// The public key of a Base64 private key; the error says what is wrong without quoting the key.
[[nodiscard]] std::expected<std::string, std::string> wireGuardPublicKey(std::string_view privateKeyBase64);

// True for the Base64 of exactly 32 bytes.
[[nodiscard]] bool isWireGuardKey(std::string_view text);

// What goes into one key text, the configuration a device installs.
struct KeyTextFields {
  std::string privateKey;     // the device's
  std::string address;        // the device's tunnel address with its prefix, "10.66.1.2/32"
  std::string dns;            // "1.1.1.1, 1.0.0.1"
  std::string peerPublicKey;  // the server's
  std::string presharedKey;
  std::string allowedIPs;  // "0.0.0.0/0, ::/0"
  std::string endpoint;    // "203.0.113.10:51820"
  int persistentKeepalive = 25;
};

// The key text: an [Interface] and a [Peer] section of "Key = Value" lines, ending in a newline.
[[nodiscard]] std::string composeKeyText(const KeyTextFields& fields);

}  // namespace norvik::devbackend
