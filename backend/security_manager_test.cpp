#include "backend/security_manager.h"

#include <gtest/gtest.h>
#include <regex>

#include "platform/linux/openssl_crypto.h"
#include "testing/backend_environment.h"

namespace norvik {
namespace {

using namespace std::chrono_literals;

constexpr char kMirror[] = "ABCDEFGH-1111-4222-8333-444455556666";

class SecurityManagerTest : public ::testing::Test, protected testing::BackendEnvironment {
 protected:
  SecurityManager makeManager(const Provisioning& p) { return SecurityManager(p, store, defaults, crypto, clock, log); }
};

TEST_F(SecurityManagerTest, FirstRunStoresOneIdentifierThatEveryLaterReadReturns) {
  const VendorID first = security.vendorID();
  EXPECT_TRUE(first.trusted);
  EXPECT_TRUE(std::regex_match(first.identifier,
                               std::regex("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}")))
      << first.identifier;
  EXPECT_EQ(store.itemCount(), 1u);
  EXPECT_EQ(defaults.stringValue(SecurityManager::kMirrorKey), first.identifier);
  auto attributes = store.copyAttributes({std::string(SecurityManager::kKeychainAccount)});
  EXPECT_EQ(attributes.value->accessible, std::string(kSecAttrAccessibleAfterFirstUnlock));

  for (int i = 0; i < 3; ++i) EXPECT_EQ(security.vendorID().identifier, first.identifier);
  EXPECT_EQ(store.addCount(), 1u);
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(SecurityManagerTest, ALockedStoreFallsBackToTheMirrorAndLogsOnlyItsPrefix) {
  defaults.setString(SecurityManager::kMirrorKey, kMirror);
  store.setLockedStatus(errSecInteractionNotAllowed);

  const VendorID id = security.vendorID();
  EXPECT_EQ(id.identifier, kMirror);
  EXPECT_TRUE(id.trusted);
  EXPECT_TRUE(log.hasLine("[VendorID] Keychain недоступен (OSStatus -25308) — берём зеркало id=ABCDEFGH…"));
  EXPECT_EQ(log.count("1111-4222"), 0u) << "only the first 8 characters reach the log";
}

// A damaged secure store is set aside at start and begins empty; the device keeps its identifier
// from the mirror, and the item is written back so that the next read needs no mirror.
TEST_F(SecurityManagerTest, AnEmptiedStoreTakesTheIdentifierBackFromTheMirror) {
  (void)defaults.setString(SecurityManager::kMirrorKey, kMirror);

  const VendorID id = security.vendorID();
  EXPECT_EQ(id.identifier, kMirror);
  EXPECT_TRUE(id.trusted);
  EXPECT_TRUE(log.hasLine("[VendorID] в Keychain нет идентификатора — восстановлен из зеркала id=ABCDEFGH…"));
  auto item = store.copyData({std::string(SecurityManager::kKeychainAccount)});
  ASSERT_EQ(item.status, errSecSuccess);
  EXPECT_EQ(std::string(item.value->begin(), item.value->end()), kMirror);
  EXPECT_EQ(security.vendorID().identifier, kMirror);
}

TEST_F(SecurityManagerTest, ALockedStoreWithoutMirrorGivesAnUntrustedIdentifierStoredNowhere) {
  store.setLockedStatus(errSecInteractionNotAllowed);
  const VendorID a = security.vendorID();
  const VendorID b = security.vendorID();
  EXPECT_FALSE(a.trusted);
  EXPECT_FALSE(b.trusted);
  EXPECT_NE(a.identifier, b.identifier);
  EXPECT_FALSE(defaults.contains(SecurityManager::kMirrorKey));
  store.setLockedStatus(std::nullopt);
  EXPECT_EQ(store.itemCount(), 0u);
  EXPECT_EQ(log.count("[VendorID] Keychain недоступен (OSStatus -25308) и зеркала нет — запасной ID, запросы к "
                      "бэкенду заблокированы"),
            2u);

  // Once the store opens, the next read creates the real identifier.
  const VendorID real = security.vendorID();
  EXPECT_TRUE(real.trusted);
  EXPECT_NE(real.identifier, a.identifier);
}

TEST_F(SecurityManagerTest, TheUuidOverrideWinsOverTheStore) {
  store.seed({std::string(SecurityManager::kKeychainAccount)}, toBytes(kMirror));
  defaults.setString(SecurityManager::kOverrideKey, "OVERRIDE-ID");
  const VendorID id = security.vendorID();
  EXPECT_EQ(id.identifier, "OVERRIDE-ID");
  EXPECT_TRUE(id.trusted);
  EXPECT_FALSE(defaults.contains(SecurityManager::kMirrorKey)) << "nothing else is consulted";
}

TEST_F(SecurityManagerTest, AnOldItemMovesToAfterFirstUnlockOnceAndGetsAMirror) {
  store.seed(
      {std::string(SecurityManager::kKeychainAccount), std::nullopt, std::string(kSecAttrAccessibleWhenUnlocked)},
      toBytes(kMirror));
  EXPECT_EQ(security.vendorID().identifier, kMirror);
  EXPECT_EQ(defaults.stringValue(SecurityManager::kMirrorKey), kMirror);
  auto attributes = store.copyAttributes({std::string(SecurityManager::kKeychainAccount)});
  EXPECT_EQ(attributes.value->accessible, std::string(kSecAttrAccessibleAfterFirstUnlock));
  (void)security.vendorID();
  EXPECT_EQ(store.updateCount(), 1u) << "an item that already has the class is left alone";
}

TEST_F(SecurityManagerTest, AnItemThatIsNotTextFallsBackToTheMirror) {
  store.seed({std::string(SecurityManager::kKeychainAccount)}, Bytes{0xFF, 0xFE, 0x00});
  defaults.setString(SecurityManager::kMirrorKey, kMirror);
  const VendorID id = security.vendorID();
  EXPECT_EQ(id.identifier, kMirror);
  EXPECT_TRUE(log.contains("(OSStatus 0) — берём зеркало id=ABCDEFGH…"));
}

TEST_F(SecurityManagerTest, EncryptionSealsNonceCiphertextAndTagUnderTheProvisionedKey) {
  auto sealed = security.encryptVendorID(kMirror);
  ASSERT_TRUE(sealed.has_value());
  EXPECT_EQ(sealed->size(), 88u) << "12 + 36 + 16 bytes in Base64";
  auto raw = base64Decode(*sealed);
  ASSERT_TRUE(raw && raw->size() == 64u);
  const ByteView all(*raw);
  auto opened = OpenSslCrypto().aesGcmOpen(testing::testAesKey(), all.first(12), all.subspan(12));
  ASSERT_TRUE(opened.has_value());
  EXPECT_EQ(toString(*opened), kMirror);
  EXPECT_NE(security.encryptVendorID(kMirror), sealed) << "every sealing takes a fresh nonce";
}

TEST_F(SecurityManagerTest, AKeyThatIsNot32BytesMakesEncryptionUnavailable) {
  auto p = testing::testProvisioning();
  p.aesEncryptionKey = base64Encode(Bytes(16, 1));
  EXPECT_FALSE(makeManager(p).encryptVendorID(kMirror).has_value());
  p.aesEncryptionKey = "not base64!";
  EXPECT_FALSE(makeManager(p).canEncrypt());
}

TEST_F(SecurityManagerTest, TheSignatureIsHmacOfBodyThenTimestampThenNonce) {
  const OpenSslCrypto reference;
  const Bytes key = toBytes(testing::testProvisioning().apiHmacKey);
  EXPECT_EQ(security.requestSignature(asBytes("{\"a\":1}"), 1700000000, "bm9uY2U="),
            hexLower(reference.hmacSha256(key, asBytes("{\"a\":1}1700000000bm9uY2U="))));
  // An empty body signs the timestamp and nonce alone.
  EXPECT_EQ(security.requestSignature({}, 42, "abcdefghijk"),
            hexLower(reference.hmacSha256(key, asBytes("42abcdefghijk"))));
  EXPECT_TRUE(log.hasLine("[HMAC] Enhanced signature generated (ts: 42, nonce:abcdefgh...)"));
}

TEST_F(SecurityManagerTest, SignRequestTakesWholeSecondsAndA32ByteNonce) {
  clock.jump(900ms);  // 1 800 000 000.9 s
  auto signature = security.signRequest(asBytes("{}"));
  ASSERT_TRUE(signature.has_value());
  EXPECT_EQ(signature->timestamp, 1'800'000'000);
  EXPECT_EQ(signature->nonce.size(), 44u);
  EXPECT_EQ(base64Decode(signature->nonce)->size(), 32u);
  EXPECT_EQ(signature->signature, security.requestSignature(asBytes("{}"), signature->timestamp, signature->nonce));
  EXPECT_EQ(signature->signature.size(), 64u);

  crypto.failRandom(true);
  EXPECT_FALSE(security.signRequest(asBytes("{}")).has_value());
}

TEST_F(SecurityManagerTest, AFailedRandomSourceNeverBecomesTheDevicesIdentity) {
  crypto.failRandom(true);
  const VendorID failed = security.vendorID();
  EXPECT_FALSE(failed.trusted);
  EXPECT_TRUE(failed.identifier.empty()) << failed.identifier;
  EXPECT_EQ(store.itemCount(), 0u);
  EXPECT_FALSE(defaults.contains(SecurityManager::kMirrorKey));
  EXPECT_TRUE(log.contains("[VendorID] источник случайных чисел недоступен"));

  // Once the source works, the first read makes and keeps a real identifier.
  crypto.failRandom(false);
  const VendorID made = security.vendorID();
  EXPECT_TRUE(made.trusted);
  EXPECT_NE(made.identifier, "00000000-0000-4000-8000-000000000000");
  EXPECT_EQ(defaults.stringValue(SecurityManager::kMirrorKey), made.identifier);
}

TEST_F(SecurityManagerTest, PaymentSignatureDefaultsToTheProvisionedMessage) {
  const OpenSslCrypto reference;
  const Bytes key = toBytes("test-payment-key");
  EXPECT_EQ(security.paymentSignature(), hexLower(reference.hmacSha256(key, asBytes("test-payment-message"))));
  EXPECT_EQ(security.paymentSignature("mode=1"), hexLower(reference.hmacSha256(key, asBytes("mode=1"))));
}

class VendorIDWarmUpTest : public SecurityManagerTest {
 protected:
  VendorIDWarmUp warmUp_{loop, security, log};
};

TEST_F(VendorIDWarmUpTest, TriesSixTimesFiveSecondsApartThenGivesUpSilently) {
  store.setLockedStatus(errSecInteractionNotAllowed);
  warmUp_.start();
  loop.runUntilIdle();
  EXPECT_EQ(log.count("[Sleep] ID ещё недоступен"), 1u);
  loop.advance(4999ms);
  EXPECT_EQ(log.count("[Sleep] ID ещё недоступен"), 1u);
  loop.advance(1ms);
  EXPECT_EQ(log.count("[Sleep] ID ещё недоступен"), 2u);
  loop.advance(60s);
  EXPECT_TRUE(log.hasLine("[Sleep] ID ещё недоступен (попытка 1/6) — ждём разблокировки"));
  EXPECT_TRUE(log.hasLine("[Sleep] ID ещё недоступен (попытка 6/6) — ждём разблокировки"));
  EXPECT_EQ(log.count("[Sleep] ID ещё недоступен"), 6u);
  EXPECT_FALSE(warmUp_.isRunning());
  EXPECT_EQ(loop.pendingTimerCount(), 0u);
}

TEST_F(VendorIDWarmUpTest, EndsAtTheFirstTrustedRead) {
  store.setLockedStatus(errSecInteractionNotAllowed);
  warmUp_.start();
  loop.advance(5s);  // attempts 1 and 2 fail
  store.setLockedStatus(std::nullopt);
  loop.advance(5s);
  const std::string id = *defaults.stringValue(SecurityManager::kMirrorKey);
  EXPECT_TRUE(log.hasLine("[VendorID] прогрев после пробуждения: trusted=true id=" + id.substr(0, 8) + "…"));
  EXPECT_EQ(log.count("[Sleep] ID ещё недоступен"), 2u);
  EXPECT_FALSE(warmUp_.isRunning());
  loop.advance(60s);
  EXPECT_EQ(log.count("[Sleep] ID ещё недоступен"), 2u);
}

}  // namespace
}  // namespace norvik
