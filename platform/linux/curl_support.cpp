#include "platform/linux/curl_support.h"

#include <openssl/x509_vfy.h>

#include <mutex>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>

#include <fmt/format.h>

#include "platform/files.h"

namespace norvik::curl_support {
namespace {

// Adds every certificate of `pem` to `store` (or only counts them when `store` is null).
int addCertificates(X509_STORE* store, std::string_view pem) {
  BIO* bio = BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size()));
  if (!bio) return 0;
  int added = 0;
  while (X509* cert = PEM_read_bio_X509(bio, nullptr, nullptr, nullptr)) {
    if (!store || X509_STORE_add_cert(store, cert) == 1) ++added;
    X509_free(cert);
  }
  ERR_clear_error();  // the end of the PEM data reads as an error
  BIO_free(bio);
  return added;
}

CURLcode addExtraCa(CURL*, void* sslContext, void* userData) {
  const auto* pem = static_cast<const std::string*>(userData);
  addCertificates(SSL_CTX_get_cert_store(static_cast<SSL_CTX*>(sslContext)), *pem);
  return CURLE_OK;
}

}  // namespace

void initialiseOnce() {
  static std::once_flag once;
  std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

std::expected<std::string, Error> loadExtraCaPem(const std::filesystem::path& file) {
  auto pem = readFile(file, 1u << 20);
  if (!pem) return std::unexpected(pem.error());
  if (addCertificates(nullptr, *pem) == 0) {
    return std::unexpected(Error{"OpenSSL", 0, fmt::format("{}: no PEM certificate found", file.string())});
  }
  return pem;
}

void configureTrust(CURL* curl, const std::string& extraPem) {
  // libcurl's built-in directory; without one (or when it is missing) its bundle stays in use.
  static const char* const certificateDirectory = []() -> const char* {
    const char* path = curl_version_info(CURLVERSION_NOW)->capath;
    std::error_code error;
    return path && std::filesystem::is_directory(path, error) ? path : nullptr;
  }();
  if (certificateDirectory) {
    curl_easy_setopt(curl, CURLOPT_CAINFO, nullptr);
    curl_easy_setopt(curl, CURLOPT_CAPATH, certificateDirectory);
  }
  if (extraPem.empty()) return;
  curl_easy_setopt(curl, CURLOPT_SSL_CTX_FUNCTION, &addExtraCa);
  curl_easy_setopt(curl, CURLOPT_SSL_CTX_DATA, const_cast<std::string*>(&extraPem));
}

NetworkError classifyFailure(CURL* curl, CURLcode code, const char* detail) {
  NetworkError error;
  error.osCode = static_cast<int>(code);
  error.message = detail && *detail ? detail : curl_easy_strerror(code);
  switch (code) {
    case CURLE_OPERATION_TIMEDOUT:
      error.kind = NetworkErrorKind::timedOut;
      break;
    case CURLE_COULDNT_CONNECT:
    case CURLE_INTERFACE_FAILED:
      error.kind = NetworkErrorKind::cannotConnect;
      break;
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_RESOLVE_PROXY:
      error.kind = NetworkErrorKind::hostNotFound;
      break;
    case CURLE_PEER_FAILED_VERIFICATION: {
      long verify = 0;
      curl_easy_getinfo(curl, CURLINFO_SSL_VERIFYRESULT, &verify);
      error.certificateOutOfDate = verify == X509_V_ERR_CERT_HAS_EXPIRED || verify == X509_V_ERR_CERT_NOT_YET_VALID;
      error.kind = NetworkErrorKind::certificate;
      break;
    }
    default:
      error.kind = NetworkErrorKind::other;
      break;
  }
  return error;
}

}  // namespace norvik::curl_support
