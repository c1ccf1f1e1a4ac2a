#pragma once

// Test support for the package tests: Debian-package-shaped ar archives made in memory, signed as
// scripts/sign-package signs them.

#include <string>
#include <string_view>

#include <fmt/format.h>

#include "platform/bytes.h"
#include "platform/crypto.h"
#include "update/fake_mac_tools.h"

namespace norvik::testing {

// One ar member: the 60-byte header, the data and the padding to an even offset.
inline std::string arMember(std::string_view name, std::string_view data) {
  std::string member = fmt::format("{:<16}{:<12}{:<6}{:<6}{:<8}{:<10}`\n", name, 0, 0, 0, 100644, data.size());
  member += data;
  if (data.size() % 2 == 1) member += '\n';
  return member;
}

// An unsigned package: the three members dpkg-deb writes, with made-up contents.
inline std::string unsignedPackage(std::string_view payload = "data of version 2.0") {
  return "!<arch>\n" + arMember("debian-binary", "2.0\n") + arMember("control.tar.xz", "control of norvik") +
         arMember("data.tar.xz", payload);
}

inline std::string signatureMember(const Bytes& publicKey, const std::string& signature) {
  return arMember("_norvik-sig", fmt::format("Norvik-Package-Signature: 1\nKey: {}\nSignature: {}\n",
                                             base64Encode(publicKey), signature));
}

// `package` with the signature member `signer` makes over it.
inline std::string signedPackage(const Ed25519Signer& signer, const std::string& package = unsignedPackage()) {
  return package + signatureMember(signer.publicKey(), signer.sign(package));
}

}  // namespace norvik::testing
