// The cost of building and signing one backend request: identity read, encryption of the
// identifier, body serialisation, signature and headers — against the bare OpenSSL calls that
// any implementation must make on the same bytes.
#include <benchmark/benchmark.h>
#include <nlohmann/json.hpp>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>

#include "backend/network_service.h"
#include "platform/linux/file_secure_item_store.h"
#include "platform/linux/openssl_crypto.h"
#include "platform/linux/sqlite_defaults.h"
#include "platform/linux/system_clock.h"
#include "testing/fakes.h"
#include "testing/http_fakes.h"
#include "testing/temp_dir.h"
#include "testing/test_provisioning.h"

namespace norvik {
namespace {

class NullLog final : public Log {
 public:
  void write(std::string_view) override {}
};

// The product's request builder over the given stores.
struct Builder {
  Builder(Defaults& defaults, SecureItemStore& store)
      : security(testing::testProvisioning(), store, defaults, crypto, clock, log),
        service(loop, transport, security, defaults, clock, log) {}

  testing::VirtualEventLoop loop;
  SystemClock clock;
  OpenSslCrypto crypto;
  NullLog log;
  testing::FakeHttpTransport transport{loop};
  SecurityManager security;
  NetworkService service;
};

void BM_BuildSignedRequest(benchmark::State& state) {
  testing::MemoryDefaults defaults;
  testing::FakeSecureItemStore store;
  Builder builder(defaults, store);
  (void)builder.security.vendorID();  // the identifier exists, as on every start but the first
  const nlohmann::json params = nlohmann::json::object();
  for (auto _ : state) {
    auto request = builder.service.buildRequest(endpoints::kMain, params);
    benchmark::DoNotOptimize(request);
  }
}
BENCHMARK(BM_BuildSignedRequest);

// The same over the real Linux stores: the identifier is read from the secure item file and the
// announced host from SQLite on every request, as the product does.
void BM_BuildSignedRequest_RealStores(benchmark::State& state) {
  testing::TempDir dir;
  NullLog log;
  auto defaults = SqliteDefaults::open(dir / "defaults.sqlite3", log).value();
  FileSecureItemStore store(dir / "keychain");
  Builder builder(*defaults, store);
  (void)builder.security.vendorID();
  const nlohmann::json params = nlohmann::json::object();
  for (auto _ : state) {
    auto request = builder.service.buildRequest(endpoints::kMain, params);
    benchmark::DoNotOptimize(request);
  }
}
BENCHMARK(BM_BuildSignedRequest_RealStores);

// The floor: the OpenSSL work itself on bytes of the same size — 12 + 32 random bytes, AES-GCM
// of a 36-byte identifier, Base64 of 64 and 32 bytes, HMAC-SHA256 of a ~130-byte message.
void BM_Floor_BareOpenSsl(benchmark::State& state) {
  const auto key = testing::testAesKey();
  const std::string identifier = "818C008A-1E26-4C65-91D7-53AE368E2BE2";
  const std::string hmacKey = testing::testProvisioning().apiHmacKey;
  for (auto _ : state) {
    unsigned char random[44];
    RAND_bytes(random, sizeof random);
    unsigned char sealed[64];
    int n = 0;
    EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
    EVP_EncryptInit_ex(ctx, EVP_aes_256_gcm(), nullptr, key.data(), random);
    EVP_EncryptUpdate(ctx, sealed + 12, &n, reinterpret_cast<const unsigned char*>(identifier.data()),
                      static_cast<int>(identifier.size()));
    EVP_EncryptFinal_ex(ctx, sealed + 12 + n, &n);
    EVP_CIPHER_CTX_ctrl(ctx, EVP_CTRL_GCM_GET_TAG, 16, sealed + 48);
    EVP_CIPHER_CTX_free(ctx);
    unsigned char encoded[90];
    EVP_EncodeBlock(encoded, sealed, 64);
    unsigned char nonce[48];
    EVP_EncodeBlock(nonce, random + 12, 32);
    std::string message = R"({"vendor_id":")";
    message.append(reinterpret_cast<char*>(encoded), 88);
    message.append(R"(","version_info":"1.0.0"}1800000000)");
    message.append(reinterpret_cast<char*>(nonce), 44);
    unsigned char mac[32];
    unsigned int macLength = 0;
    HMAC(EVP_sha256(), hmacKey.data(), static_cast<int>(hmacKey.size()),
         reinterpret_cast<const unsigned char*>(message.data()), message.size(), mac, &macLength);
    benchmark::DoNotOptimize(mac);
  }
}
BENCHMARK(BM_Floor_BareOpenSsl);

}  // namespace
}  // namespace norvik

BENCHMARK_MAIN();
