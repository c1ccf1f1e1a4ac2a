#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace norvik::testing {

// A certificate authority and one server certificate for 127.0.0.1, ::1 and "localhost", made
// with OpenSSL (P-256) when a test starts. No key material is checked in.
struct TestPki {
  std::string caCertificatePem;
  std::string serverCertificatePem;
  std::string serverKeyPem;
};

struct TestPkiOptions {
  // Validity of the server certificate, relative to now.
  std::chrono::seconds validFrom{-3600};
  std::chrono::seconds validUntil{7 * 24 * 3600};
  std::string commonName = "Norvik Test CA";
  // Further names the server certificate covers: host names, or IPv4/IPv6 addresses.
  std::vector<std::string> extraNames{};
};

[[nodiscard]] TestPki makeTestPki(const TestPkiOptions& options = {});

}  // namespace norvik::testing
