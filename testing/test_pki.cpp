#include "testing/test_pki.h"

#include <arpa/inet.h>
#include <memory>
#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <stdexcept>

namespace norvik::testing {
namespace {

template <class T, void (*Free)(T*)>
struct Deleter {
  void operator()(T* p) const { Free(p); }
};
using Key = std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY, EVP_PKEY_free>>;
using Cert = std::unique_ptr<X509, Deleter<X509, X509_free>>;
using Bio = std::unique_ptr<BIO, Deleter<BIO, BIO_free_all>>;

void check(bool ok, const char* what) {
  if (!ok) throw std::runtime_error(std::string("test PKI: ") + what);
}

Key makeKey() {
  Key key(EVP_EC_gen("P-256"));
  check(key != nullptr, "key generation");
  return key;
}

void addExtension(X509* cert, X509* issuer, int nid, const char* value) {
  X509V3_CTX ctx;
  X509V3_set_ctx_nodb(&ctx);
  X509V3_set_ctx(&ctx, issuer, cert, nullptr, nullptr, 0);
  X509_EXTENSION* ext = X509V3_EXT_conf_nid(nullptr, &ctx, nid, value);
  check(ext != nullptr, "extension");
  X509_add_ext(cert, ext, -1);
  X509_EXTENSION_free(ext);
}

std::string subjectAltNames(const std::vector<std::string>& extraNames) {
  std::string names = "DNS:localhost,IP:127.0.0.1,IP:::1";
  for (const auto& name : extraNames) {
    unsigned char address[16];
    const bool isAddress =
        inet_pton(AF_INET, name.c_str(), address) == 1 || inet_pton(AF_INET6, name.c_str(), address) == 1;
    names += (isAddress ? ",IP:" : ",DNS:") + name;
  }
  return names;
}

Cert makeCertificate(EVP_PKEY* key, const char* commonName, long serial, std::chrono::seconds from,
                     std::chrono::seconds until, X509* issuer, EVP_PKEY* issuerKey, bool isCa,
                     const std::string& altNames = {}) {
  Cert cert(X509_new());
  check(cert != nullptr, "X509_new");
  X509_set_version(cert.get(), 2);
  ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), serial);
  X509_gmtime_adj(X509_getm_notBefore(cert.get()), static_cast<long>(from.count()));
  X509_gmtime_adj(X509_getm_notAfter(cert.get()), static_cast<long>(until.count()));
  X509_set_pubkey(cert.get(), key);
  X509_NAME* name = X509_get_subject_name(cert.get());
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>(commonName), -1, -1, 0);
  X509* signer = issuer ? issuer : cert.get();
  X509_set_issuer_name(cert.get(), X509_get_subject_name(signer));
  if (isCa) {
    addExtension(cert.get(), signer, NID_basic_constraints, "critical,CA:TRUE");
    addExtension(cert.get(), signer, NID_key_usage, "critical,keyCertSign,cRLSign");
    addExtension(cert.get(), signer, NID_subject_key_identifier, "hash");
  } else {
    addExtension(cert.get(), signer, NID_basic_constraints, "critical,CA:FALSE");
    addExtension(cert.get(), signer, NID_subject_alt_name, altNames.c_str());
    addExtension(cert.get(), signer, NID_ext_key_usage, "serverAuth");
    addExtension(cert.get(), signer, NID_authority_key_identifier, "keyid:always");
  }
  check(X509_sign(cert.get(), issuerKey ? issuerKey : key, EVP_sha256()) > 0, "sign");
  return cert;
}

std::string pem(X509* cert) {
  Bio bio(BIO_new(BIO_s_mem()));
  PEM_write_bio_X509(bio.get(), cert);
  char* data = nullptr;
  const long n = BIO_get_mem_data(bio.get(), &data);
  return std::string(data, static_cast<std::size_t>(n));
}

std::string pem(EVP_PKEY* key) {
  Bio bio(BIO_new(BIO_s_mem()));
  PEM_write_bio_PrivateKey(bio.get(), key, nullptr, nullptr, 0, nullptr, nullptr);
  char* data = nullptr;
  const long n = BIO_get_mem_data(bio.get(), &data);
  return std::string(data, static_cast<std::size_t>(n));
}

}  // namespace

TestPki makeTestPki(const TestPkiOptions& options) {
  Key caKey = makeKey();
  Cert ca = makeCertificate(caKey.get(), options.commonName.c_str(), 1, std::chrono::seconds(-86400),
                            std::chrono::seconds(30 * 86400), nullptr, nullptr, true);
  Key serverKey = makeKey();
  Cert server = makeCertificate(serverKey.get(), "localhost", 2, options.validFrom, options.validUntil, ca.get(),
                                caKey.get(), false, subjectAltNames(options.extraNames));
  return TestPki{pem(ca.get()), pem(server.get()), pem(serverKey.get())};
}

}  // namespace norvik::testing
