#include "backend/security_manager.h"

#include <gtest/gtest.h>
#include <regex>

#include "platform/linux/openssl_crypto.h"
#include "testing/fakes.h"
#include "testing/test_provisioning.h"

namespace norvik {
namespace {

using namespace std::chrono_literals;

const std::string kMirror = "ABCDEFGH-1111-4222-8333-444455556666";

class SecurityManagerTest : public ::testing::Test {
 protected:
  SecurityManager makeManager(Provisioning p = testing::testProvisioning()) {
    return SecurityManager(p, store_, defaults_, crypto_, clock_, log_);
  }

  testing::VirtualEventLoop loop_;
  testing::VirtualClock clock_{loop_};
  testing::FakeSecureItemStore store_;
  testing::MemoryDefaults defaults_;
  testing::DeterministicCrypto crypto_;
  testing::CapturingLog log_;
  SecurityManager security_ = makeManager();
};

TEST_F(SecurityManagerTest, FirstRunStoresOneIdentifierThatEveryLaterReadReturns) {
  const VendorID first = security_.vendorID();
  EXPECT_TRUE(first.trusted);
  EXPECT_TRUE(std::regex_match(first.identifier,
                               std::regex("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}")))
      << first.identifier;
  EXPECT_EQ(store_.itemCount(), 1u);
  EXPECT_EQ(defaults_.stringValue(SecurityManager::kMirrorKey), first.identifier);
  auto attributes = store_.copyAttributes({std::string(SecurityManager::kKeychainAccount)});
  EXPECT_EQ(attributes.value->accessible, std::string(kSecAttrAccessibleAfterFirstUnlock));

  for (int i = 0; i < 3; ++i) EXPECT_EQ(security_.vendorID().identifier, first.identifier);
  EXPECT_EQ(store_.addCount(), 1u);
  EXPECT_TRUE(log_.lines().empty());
}

TEST_F(SecurityManagerTest, ALockedStoreFallsBackToTheMirrorAndLogsOnlyItsPrefix) {
  defaults_.setString(SecurityManager::kMirrorKey, kMirror);
  store_.setLockedStatus(errSecInteractionNotAllowed);

  const VendorID id = security_.vendorID();
  EXPECT_EQ(id.identifier, kMirror);
  EXPECT_TRUE(id.trusted);
  EXPECT_TRUE(log_.hasLine("[VendorID] Keychain недоступен (OSStatus -25308) — берём зеркало id=ABCDEFGH…"));
  EXPECT_EQ(log_.count("1111-4222"), 0u) << "only the first 8 characters reach the log";
}

TEST_F(SecurityManagerTest, ALockedStoreWithoutMirrorGivesAnUntrustedIdentifierStoredNowhere) {
  store_.setLockedStatus(errSecInteractionNotAllowed);
  const VendorID a = security_.vendorID();
  const VendorID b = security_.vendorID();
  EXPECT_FALSE(a.trusted);
  EXPECT_FALSE(b.trusted);
  EXPECT_NE(a.identifier, b.identifier);
  EXPECT_FALSE(defaults_.contains(SecurityManager::kMirrorKey));
  store_.setLockedStatus(std::nullopt);
  EXPECT_EQ(store_.itemCount(), 0u);
  EXPECT_EQ(log_.count("[VendorID] Keychain недоступен (OSStatus -25308) и зеркала нет — запасной ID, запросы к "
                       "бэкенду заблокированы"),
            2u);

  // Once the store opens, the next read creates the real identifier.
  const VendorID real = security_.vendorID();
  EXPECT_TRUE(real.trusted);
  EXPECT_NE(real.identifier, a.identifier);
}

TEST_F(SecurityManagerTest, TheUuidOverrideWinsOverTheStore) {
  store_.seed({std::string(SecurityManager::kKeychainAccount)}, toBytes(kMirror));
  defaults_.setString(SecurityManager::kOverrideKey, "OVERRIDE-ID");
  const VendorID id = security_.vendorID();
  EXPECT_EQ(id.identifier, "OVERRIDE-ID");
  EXPECT_TRUE(id.trusted);
  EXPECT_FALSE(defaults_.contains(SecurityManager::kMirrorKey)) << "nothing else is consulted";
}

TEST_F(SecurityManagerTest, AnOldItemMovesToAfterFirstUnlockOnceAndGetsAMirror) {
  store_.seed({std::string(SecurityManager::kKeychainAccount), std::nullopt, std::string(kSecAttrAccessibleWhenUnlocked)},
              toBytes(kMirror));
  EXPECT_EQ(security_.vendorID().identifier, kMirror);
  EXPECT_EQ(defaults_.stringValue(SecurityManager::kMirrorKey), kMirror);
  auto attributes = store_.copyAttributes({std::string(SecurityManager::kKeychainAccount)});
  EXPECT_EQ(attributes.value->accessible, std::string(kSecAttrAccessibleAfterFirstUnlock));
  (void)security_.vendorID();
  EXPECT_EQ(store_.updateCount(), 1u) << "an item that already has the class is left alone";
}

TEST_F(SecurityManagerTest, AnItemThatIsNotTextFallsBackToTheMirror) {
  store_.seed({std::string(SecurityManager::kKeychainAccount)}, Bytes{0xFF, 0xFE, 0x00});
  defaults_.setString(SecurityManager::kMirrorKey, kMirror);
  const VendorID id = security_.vendorID();
  EXPECT_EQ(id.identifier, kMirror);
  EXPECT_TRUE(log_.contains("(OSStatus 0) — берём зеркало id=ABCDEFGH…"));
}

TEST_F(SecurityManagerTest, EncryptionSealsNonceCiphertextAndTagUnderTheProvisionedKey) {
  auto sealed = security_.encryptVendorID(kMirror);
  ASSERT_TRUE(sealed.has_value());
  EXPECT_EQ(sealed->size(), 88u) << "12 + 36 + 16 bytes in Base64";
  auto raw = base64Decode(*sealed);
  ASSERT_TRUE(raw && raw->size() == 64u);
  const ByteView all(*raw);
  auto opened = OpenSslCrypto().aesGcmOpen(testing::testAesKey(), all.first(12), all.subspan(12));
  ASSERT_TRUE(opened.has_value());
  EXPECT_EQ(toString(*opened), kMirror);
  EXPECT_NE(security_.encryptVendorID(kMirror), sealed) << "every sealing takes a fresh nonce";
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
  EXPECT_EQ(security_.requestSignature(asBytes("{\"a\":1}"), 1700000000, "bm9uY2U="),
            hexLower(reference.hmacSha256(key, asBytes("{\"a\":1}1700000000bm9uY2U="))));
  // An empty body signs the timestamp and nonce alone.
  EXPECT_EQ(security_.requestSignature({}, 42, "abcdefghijk"), hexLower(reference.hmacSha256(key, asBytes("42abcdefghijk"))));
  EXPECT_TRUE(log_.hasLine("[HMAC] Enhanced signature generated (ts: 42, nonce:abcdefgh...)"));
}

TEST_F(SecurityManagerTest, SignRequestTakesWholeSecondsAndA32ByteNonce) {
  clock_.jump(900ms);  // 1 800 000 000.9 s
  auto signature = security_.signRequest(asBytes("{}"));
  ASSERT_TRUE(signature.has_value());
  EXPECT_EQ(signature->timestamp, 1'800'000'000);
  EXPECT_EQ(signature->nonce.size(), 44u);
  EXPECT_EQ(base64Decode(signature->nonce)->size(), 32u);
  EXPECT_EQ(signature->signature, security_.requestSignature(asBytes("{}"), signature->timestamp, signature->nonce));
  EXPECT_EQ(signature->signature.size(), 64u);

  crypto_.failRandom(true);
  EXPECT_FALSE(security_.signRequest(asBytes("{}")).has_value());
}

TEST_F(SecurityManagerTest, PaymentSignatureDefaultsToTheProvisionedMessage) {
  const OpenSslCrypto reference;
  const Bytes key = toBytes("test-payment-key");
  EXPECT_EQ(security_.paymentSignature(), hexLower(reference.hmacSha256(key, asBytes("test-payment-message"))));
  EXPECT_EQ(security_.paymentSignature("mode=1"), hexLower(reference.hmacSha256(key, asBytes("mode=1"))));
}

class VendorIDWarmUpTest : public SecurityManagerTest {
 protected:
  VendorIDWarmUp warmUp_{loop_, security_, log_};
};

TEST_F(VendorIDWarmUpTest, TriesSixTimesFiveSecondsApartThenGivesUpSilently) {
  store_.setLockedStatus(errSecInteractionNotAllowed);
  warmUp_.start();
  loop_.runUntilIdle();
  EXPECT_EQ(log_.count("[Sleep] ID ещё недоступен"), 1u);
  loop_.advance(4999ms);
  EXPECT_EQ(log_.count("[Sleep] ID ещё недоступен"), 1u);
  loop_.advance(1ms);
  EXPECT_EQ(log_.count("[Sleep] ID ещё недоступен"), 2u);
  loop_.advance(60s);
  EXPECT_TRUE(log_.hasLine("[Sleep] ID ещё недоступен (попытка 1/6) — ждём разблокировки"));
  EXPECT_TRUE(log_.hasLine("[Sleep] ID ещё недоступен (попытка 6/6) — ждём разблокировки"));
  EXPECT_EQ(log_.count("[Sleep] ID ещё недоступен"), 6u);
  EXPECT_FALSE(warmUp_.isRunning());
  EXPECT_EQ(loop_.pendingTimerCount(), 0u);
}

TEST_F(VendorIDWarmUpTest, EndsAtTheFirstTrustedRead) {
  store_.setLockedStatus(errSecInteractionNotAllowed);
  warmUp_.start();
  loop_.advance(5s);  // attempts 1 and 2 fail
  store_.setLockedStatus(std::nullopt);
  loop_.advance(5s);
  const std::string id = *defaults_.stringValue(SecurityManager::kMirrorKey);
  EXPECT_TRUE(log_.hasLine("[VendorID] прогрев после пробуждения: trusted=true id=" + id.substr(0, 8) + "…"));
  EXPECT_EQ(log_.count("[Sleep] ID ещё недоступен"), 2u);
  EXPECT_FALSE(warmUp_.isRunning());
  loop_.advance(60s);
  EXPECT_EQ(log_.count("[Sleep] ID ещё недоступен"), 2u);
}

}  // namespace
}  // namespace norvik
