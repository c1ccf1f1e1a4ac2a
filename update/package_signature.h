#pragma once

#include <cstdint>
#include <expected>
#include <filesystem>
#include <string>
#include <string_view>

#include "platform/bytes.h"

namespace norvik {

// A Norvik package (.deb) is signed for the in-app updater by one more archive member after the
// package's own, "_norvik-sig" (dpkg ignores members whose names begin with "_"):
//
//   Norvik-Package-Signature: 1
//   Key: <standard Base64 of the 32-byte Ed25519 public key>
//   Signature: <standard Base64 of the 64-byte Ed25519 signature>
//
// The signature covers every byte of the file before that member's header, which is the package as
// dpkg-deb built it. `scripts/sign-package` writes it. The key is the counterpart of the team
// identifier of a signed macOS application: a package signed with another key is not ours.
inline constexpr std::string_view kPackageSignatureMember = "_norvik-sig";

struct PackageSignature {
  Bytes publicKey;             // 32 bytes
  std::string signature;       // Base64, as written
  std::uint64_t signedLength;  // the bytes before the signature member
};

enum class PackageSignatureProblem {
  notAnArchive,  // not an ar archive, or one whose member headers do not add up
  unsigned_,     // no signature member, or one that is not the last member
  malformed,     // a signature member that cannot be read
};

struct PackageSignatureError {
  PackageSignatureProblem problem;
  std::string detail;  // quotes the offending value
};

// Finds and reads the signature member of a whole package in memory. Walks every member header
// (magic, sizes that stay inside the file), so a truncated or padded file is refused.
[[nodiscard]] std::expected<PackageSignature, PackageSignatureError> findPackageSignature(std::string_view archive);

// The signature member's text, one `Field: value` line at a time.
[[nodiscard]] std::expected<PackageSignature, PackageSignatureError> parsePackageSignature(std::string_view text,
                                                                                           std::uint64_t signedLength);

}  // namespace norvik
