#pragma once

#include <expected>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "backend/provisioning.h"
#include "platform/bytes.h"
#include "platform/crypto.h"
#include "platform/error.h"

namespace norvik::devbackend {

// The secrets and certificates a development backend needs, kept in its state directory so that
// a restart keeps serving the clients it served before. Nothing here is ever checked in: all of it
// is made at run time.

// The Ed25519 key that signs the update feed's disk images, kept as PEM (0600).
class FeedSigner {
 public:
  // Reads the key from `file`, or makes one and writes it there when the file is missing.
  [[nodiscard]] static std::expected<FeedSigner, Error> loadOrCreate(const std::filesystem::path& file);

  // Standard Base64 of the 32-byte public key: the provisioning field "update_ed25519_public_key".
  [[nodiscard]] const std::string& publicKeyBase64() const { return publicKey_; }
  // Standard Base64 of the 64-byte signature over `data`.
  [[nodiscard]] std::expected<std::string, Error> sign(std::string_view data) const;

 private:
  std::string privatePem_;
  std::string publicKey_;
};

// The provisioning in use: `explicitFile` when given (it must exist), else "provisioning.json" in
// the state directory, made with random keys (and `updateKey`) when missing.
struct ProvisioningInUse {
  Provisioning provisioning;
  std::filesystem::path file;
  Bytes aesKey;  // decoded; exactly 32 bytes
};
[[nodiscard]] std::expected<ProvisioningInUse, Error> prepareProvisioning(
    const std::filesystem::path& stateDir, const std::optional<std::filesystem::path>& explicitFile,
    const std::string& updateKey, Crypto& crypto);

// The TLS files the server uses.
struct TlsFiles {
  std::filesystem::path certificate;
  std::filesystem::path key;
  std::optional<std::filesystem::path> ca;  // only for a certificate made here
};
// A CA and a server certificate for 127.0.0.1, ::1, localhost and `extraNames`, in "tls/" of the
// state directory. Made when missing, when the names differ from the last ones, or when the
// certificate is not valid for at least another day; reused otherwise.
[[nodiscard]] std::expected<TlsFiles, Error> prepareTls(const std::filesystem::path& stateDir,
                                                        const std::vector<std::string>& extraNames);

// True for a host name or an IP address fit for a certificate's subject names.
[[nodiscard]] bool isCertificateName(std::string_view name);

// A stand-in disk image of `size` bytes for the update feed; the same version gives the same bytes.
[[nodiscard]] std::string placeholderDiskImage(std::string_view version, std::size_t size = 64 * 1024);

}  // namespace norvik::devbackend
