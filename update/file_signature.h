#pragma once

#include <expected>
#include <filesystem>
#include <string>
#include <string_view>

#include "platform/bytes.h"

namespace norvik {

// The update feed signs each disk image with Ed25519: the enclosure's signature attribute is the
// standard Base64 of the 64-byte signature over the file's bytes, and the application carries the
// 32-byte public key (provisioned as Base64, see docs/updates.md).

// The key from its Base64 form. The error says what is wrong without quoting the key.
[[nodiscard]] std::expected<Bytes, std::string> parseEd25519PublicKey(std::string_view base64);

// Checks the signature of the whole file (mapped, not copied). The error quotes the signature text
// when it is not Base64 of 64 bytes, and says "mismatch" when the file is not what was signed.
[[nodiscard]] std::expected<void, std::string> verifyEd25519FileSignature(const std::filesystem::path& file,
                                                                          std::string_view signatureBase64,
                                                                          ByteView publicKey);

// The same check over bytes in memory.
[[nodiscard]] std::expected<void, std::string> verifyEd25519Signature(std::string_view data,
                                                                      std::string_view signatureBase64,
                                                                      ByteView publicKey);

}  // namespace norvik
