#include "tools/devbackend/dev_material.h"

#include <algorithm>
#include <chrono>
#include <ctime>
#include <memory>

#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include "platform/files.h"
#include "testing/test_pki.h"

namespace norvik::devbackend {
namespace {

using Bio = std::unique_ptr<BIO, decltype(&BIO_free_all)>;
using PKey = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;

Error materialError(std::string message) { return Error{"DevBackendMaterial", 0, std::move(message)}; }

PKey readPrivateKey(const std::string& pem) {
  Bio bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())), &BIO_free_all);
  return PKey(bio ? PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, nullptr) : nullptr, &EVP_PKEY_free);
}

std::optional<std::string> rawPublicKeyBase64(EVP_PKEY* key) {
  Bytes raw(32);
  std::size_t length = raw.size();
  if (EVP_PKEY_get_raw_public_key(key, raw.data(), &length) != 1 || length != raw.size()) return std::nullopt;
  return base64Encode(raw);
}

std::expected<std::string, Error> randomText(Crypto& crypto, std::size_t bytes) {
  auto random = crypto.randomBytes(bytes);
  if (!random) return std::unexpected(random.error());
  return base64Encode(*random);
}

// True when the certificate in `file` is valid now and for at least another day.
bool stillValid(const std::filesystem::path& file) {
  auto pem = readFile(file, 1u << 20);
  if (!pem) return false;
  Bio bio(BIO_new_mem_buf(pem->data(), static_cast<int>(pem->size())), &BIO_free_all);
  std::unique_ptr<X509, decltype(&X509_free)> cert(
      bio ? PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr) : nullptr, &X509_free);
  if (!cert) return false;
  std::time_t tomorrow = std::time(nullptr) + 86400;
  return X509_cmp_current_time(X509_get0_notBefore(cert.get())) < 0 &&
         X509_cmp_time(X509_get0_notAfter(cert.get()), &tomorrow) > 0;
}

}  // namespace

std::expected<FeedSigner, Error> FeedSigner::loadOrCreate(const std::filesystem::path& file) {
  FeedSigner signer;
  std::error_code ec;
  if (std::filesystem::exists(file, ec)) {
    auto pem = readFile(file, 1u << 16);
    if (!pem) return std::unexpected(pem.error());
    signer.privatePem_ = std::move(*pem);
  } else {
    PKey key(EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519"), &EVP_PKEY_free);
    Bio bio(BIO_new(BIO_s_mem()), &BIO_free_all);
    if (!key || !bio || PEM_write_bio_PrivateKey(bio.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr) != 1) {
      return std::unexpected(materialError("cannot make the feed signing key"));
    }
    char* data = nullptr;
    const long n = BIO_get_mem_data(bio.get(), &data);
    signer.privatePem_.assign(data, static_cast<std::size_t>(n));
    if (auto made = makeDirectories(file.parent_path(), 0700); !made) return std::unexpected(made.error());
    if (auto written = writeFileAtomically(file, signer.privatePem_, 0600); !written) {
      return std::unexpected(written.error());
    }
  }
  PKey key = readPrivateKey(signer.privatePem_);
  if (!key || EVP_PKEY_get_id(key.get()) != EVP_PKEY_ED25519) {
    return std::unexpected(materialError(fmt::format("{} does not hold an Ed25519 private key", file.string())));
  }
  auto publicKey = rawPublicKeyBase64(key.get());
  if (!publicKey) return std::unexpected(materialError("cannot read the feed signing key's public half"));
  signer.publicKey_ = std::move(*publicKey);
  return signer;
}

std::expected<std::string, Error> FeedSigner::sign(std::string_view data) const {
  PKey key = readPrivateKey(privatePem_);
  std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(), &EVP_MD_CTX_free);
  Bytes signature(64);
  std::size_t length = signature.size();
  if (!key || !context || EVP_DigestSignInit(context.get(), nullptr, nullptr, nullptr, key.get()) != 1 ||
      EVP_DigestSign(context.get(), signature.data(), &length, reinterpret_cast<const unsigned char*>(data.data()),
                     data.size()) != 1) {
    return std::unexpected(materialError("Ed25519 signing failed"));
  }
  signature.resize(length);
  return base64Encode(signature);
}

std::expected<ProvisioningInUse, Error> prepareProvisioning(const std::filesystem::path& stateDir,
                                                            const std::optional<std::filesystem::path>& explicitFile,
                                                            const std::string& updateKey, Crypto& crypto) {
  ProvisioningInUse out;
  out.file = explicitFile.value_or(stateDir / "provisioning.json");
  std::error_code ec;
  if (explicitFile || std::filesystem::exists(out.file, ec)) {
    auto loaded = loadProvisioning(out.file);
    if (!loaded) return std::unexpected(loaded.error());
    out.provisioning = std::move(*loaded);
  } else {
    Provisioning& p = out.provisioning;
    for (std::string* key : {&p.hmacSecretKey, &p.apiHmacKey, &p.secondaryHmacSecretKey, &p.paymentHmacSecretKey,
                             &p.supportHmacSecret, &p.aesEncryptionKey}) {
      auto text = randomText(crypto, 32);
      if (!text) return std::unexpected(text.error());
      *key = std::move(*text);
    }
    for (std::string* message :
         {&p.hmacMessage, &p.secondaryHmacMessage, &p.paymentHmacMessage, &p.supportHmacMessage}) {
      auto random = crypto.randomBytes(8);
      if (!random) return std::unexpected(random.error());
      *message = "devbackend-" + hexLower(*random);
    }
    p.updateEd25519PublicKey = updateKey;
    if (auto written = writeProvisioning(out.file, p); !written) return std::unexpected(written.error());
  }
  auto aes = base64Decode(out.provisioning.aesEncryptionKey);
  if (!aes || aes->size() != 32) {
    return std::unexpected(materialError(
        fmt::format("provisioning file {}: \"aes_encryption_key\" must be the Base64 of 32 bytes", out.file.string())));
  }
  out.aesKey = std::move(*aes);
  return out;
}

bool isCertificateName(std::string_view name) {
  return !name.empty() && name.size() <= 253 && std::ranges::all_of(name, [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' || c == '-' ||
           c == ':' || c == '*';
  });
}

std::expected<TlsFiles, Error> prepareTls(const std::filesystem::path& stateDir,
                                          const std::vector<std::string>& extraNames) {
  for (const auto& name : extraNames) {
    if (!isCertificateName(name))
      return std::unexpected(materialError(fmt::format("\"{}\" is no host name or address", name)));
  }
  const auto dir = stateDir / "tls";
  TlsFiles files{dir / "server.pem", dir / "server.key", dir / "ca.pem"};
  std::vector<std::string> sorted = extraNames;
  std::ranges::sort(sorted);
  std::string names;
  for (const auto& name : sorted) names += name + "\n";

  const auto namesFile = dir / "names.txt";
  auto recorded = readFile(namesFile, 1u << 16);
  std::error_code ec;
  if (recorded && *recorded == names && std::filesystem::exists(files.key, ec) &&
      std::filesystem::exists(*files.ca, ec) && stillValid(files.certificate)) {
    return files;
  }

  testing::TestPkiOptions options;
  options.commonName = "Norvik Development CA";
  options.validUntil = std::chrono::days(29);  // the CA lives 30 days
  options.extraNames = sorted;
  testing::TestPki pki;
  try {
    pki = testing::makeTestPki(options);
  } catch (const std::exception& e) {
    return std::unexpected(materialError(e.what()));
  }
  if (auto made = makeDirectories(dir, 0700); !made) return std::unexpected(made.error());
  for (const auto& [file, text, mode] :
       {std::tuple{*files.ca, &pki.caCertificatePem, mode_t{0644}},
        std::tuple{files.certificate, &pki.serverCertificatePem, mode_t{0644}},
        std::tuple{files.key, &pki.serverKeyPem, mode_t{0600}}, std::tuple{namesFile, &names, mode_t{0644}}}) {
    if (auto written = writeFileAtomically(file, *text, mode); !written) return std::unexpected(written.error());
  }
  return files;
}

std::string placeholderDiskImage(std::string_view version, std::size_t size) {
  const std::string line = fmt::format("Norvik {} development disk image (not a real image)\n", version);
  std::string out;
  out.reserve(size);
  while (out.size() < size) out += line;
  out.resize(size);
  return out;
}

}  // namespace norvik::devbackend
