#pragma once

#include <expected>
#include <filesystem>
#include <optional>
#include <string>

#include "platform/error.h"

namespace norvik {

// The per-deployment secrets: signing keys and messages, the support signing pair and the key
// that encrypts the device identifier. They come from a JSON file that is never part of the
// source; HMAC keys are the UTF-8 bytes of their strings, the AES key is standard Base64.
struct Provisioning {
  std::string hmacSecretKey;
  std::string apiHmacKey;
  std::string hmacMessage;
  std::string secondaryHmacSecretKey;
  std::string secondaryHmacMessage;
  std::string paymentHmacSecretKey;
  std::string paymentHmacMessage;
  std::string supportHmacSecret;
  std::string supportHmacMessage;
  std::string aesEncryptionKey;  // Base64; usable only when it decodes to exactly 32 bytes
  // Optional: the Ed25519 public key that signs the update feed's disk images (Base64 of its 32
  // bytes). Without it a signed download cannot be checked, and is refused.
  std::optional<std::string> updateEd25519PublicKey{};
};

// Reads the provisioning file. Every field is a required string, except the optional update key. The error names the
// file and the field, and never quotes a value.
[[nodiscard]] std::expected<Provisioning, Error> loadProvisioning(const std::filesystem::path& file);

// Writes `p` as a provisioning file loadProvisioning() reads back (owner-only, its folder made if
// missing).
[[nodiscard]] std::expected<void, Error> writeProvisioning(const std::filesystem::path& file, const Provisioning& p);

// The provisioning file named by `explicitPath`, else by $NORVIK_PROVISIONING; nothing when neither is set.
[[nodiscard]] std::optional<std::filesystem::path> provisioningPath(
    const std::optional<std::filesystem::path>& explicitPath);

}  // namespace norvik
