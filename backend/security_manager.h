#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "backend/provisioning.h"
#include "platform/bytes.h"
#include "platform/clock.h"
#include "platform/crypto.h"
#include "platform/defaults.h"
#include "platform/event_loop.h"
#include "platform/log.h"
#include "platform/secure_item_store.h"
#include "platform/weak_ptr_factory.h"

namespace norvik {

// The device identifier and whether it can be trusted: true when it came from the "uuid"
// override, the secure store, its mirror, or was just stored; false for a temporary identifier
// that was stored nowhere (the store was locked and there was no mirror).
struct VendorID {
  std::string identifier;
  bool trusted = false;
};

struct RequestSignature {
  std::int64_t timestamp = 0;  // whole seconds since 1970
  std::string nonce;           // 32 random bytes, Base64
  std::string signature;       // 64 lower-case hexadecimal characters
};

// The device identity, its encryption for transport, and the signatures of backend requests.
// One instance per process, created at start-up and lent to the backend client.
//
// Threading: vendorID() may be called from any thread; one process-wide lock serialises it,
// so concurrent first reads cannot create two identifiers. The signing and encryption functions
// may run on any thread.
class SecurityManager {
 public:
  static constexpr std::string_view kKeychainAccount = "com.Quillon.uuid";
  static constexpr std::string_view kMirrorKey = "uuid_keychain_mirror";
  static constexpr std::string_view kOverrideKey = "uuid";

  SecurityManager(const Provisioning& provisioning, SecureItemStore& secureItems, Defaults& standardDefaults,
                  Crypto& crypto, Clock& clock, Log& log);

  [[nodiscard]] VendorID vendorID();

  // The two random values one request needs: the identifier's 12-byte sealing nonce and the
  // signature's 32 bytes. They are drawn together because every draw from the random source costs
  // a system call, the largest single cost of a request. Nothing when the source fails (logged).
  struct RequestNonces {
    Bytes sealing;
    Bytes signing;
  };
  [[nodiscard]] std::optional<RequestNonces> drawRequestNonces();

  // AES-256-GCM of the identifier under `nonce` (12 bytes, fresh each time; the one-argument form
  // draws its own): Base64 of nonce ‖ ciphertext ‖ tag. Nothing when the provisioned key is
  // unusable or sealing fails.
  [[nodiscard]] std::optional<std::string> encryptVendorID(std::string_view identifier, ByteView nonce);
  [[nodiscard]] std::optional<std::string> encryptVendorID(std::string_view identifier);
  // HMAC-SHA256 of body ‖ decimal timestamp ‖ nonce under the API key, in lower-case hex.
  [[nodiscard]] std::string requestSignature(ByteView body, std::int64_t timestamp, std::string_view nonce);
  // The current timestamp, the Base64 of `nonceBytes` (32 fresh bytes; the one-argument form draws
  // its own) and the signature over `body`. Nothing when the random source or HMAC fails.
  [[nodiscard]] std::optional<RequestSignature> signRequest(ByteView body, ByteView nonceBytes);
  [[nodiscard]] std::optional<RequestSignature> signRequest(ByteView body);
  // HMAC-SHA256 of `message` (default: the provisioned payment message) under the payment key.
  [[nodiscard]] std::string paymentSignature(std::optional<std::string_view> message = std::nullopt) const;
  // Brings an existing item of `account` to the after-first-unlock accessibility.
  void migrateAccessibility(std::string_view account);

  [[nodiscard]] bool canEncrypt() const { return aesEncryptionKey_.has_value(); }

 private:
  // Nothing when the random source fails.
  [[nodiscard]] std::optional<std::string> makeUUID();

  SecureItemStore& secureItems_;
  Defaults& defaults_;
  Crypto& crypto_;
  Clock& clock_;
  Log& log_;

  const Bytes hmacSecretKey_;
  const Bytes apiHmacKey_;
  const std::string hmacMessage_;
  const Bytes secondaryHMACSecretKey_;
  const std::string secondaryHMACMessage_;
  const Bytes paymentHMACSecretKey_;
  const std::string paymentHMACMessage_;
  const std::optional<Bytes> aesEncryptionKey_;

  static std::mutex vendorIdLock_;
};

// After a wake from sleep the login keychain may still be locked for a while. This reads the
// identifier again in the background, up to 6 attempts 5 seconds apart, until it is trusted, so
// that the first request after the wake does not wait for it. A new wake restarts the attempts.
// Lives on the main loop.
class VendorIDWarmUp {
 public:
  static constexpr int kAttempts = 6;
  static constexpr std::chrono::seconds kInterval{5};

  VendorIDWarmUp(EventLoop& loop, SecurityManager& security, Log& log);

  void start();
  [[nodiscard]] bool isRunning() const { return running_; }

 private:
  void attempt(int number);
  void onResult(int number, const VendorID& id);

  EventLoop& loop_;
  SecurityManager& security_;
  Log& log_;
  bool running_ = false;
  std::uint64_t generation_ = 0;
  OneShotTimer retry_;
  WeakPtrFactory<VendorIDWarmUp> weakFactory_{this};
};

}  // namespace norvik
