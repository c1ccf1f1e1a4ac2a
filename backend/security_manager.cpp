#include "backend/security_manager.h"

#include <fmt/format.h>

#include "platform/text.h"

namespace norvik {
namespace {

std::optional<Bytes> aesKeyFrom(std::string_view base64) {
  auto key = base64Decode(base64);
  if (!key || key->size() != 32) return std::nullopt;
  return key;
}

std::string withEllipsis(std::string_view identifier) { return utf8Prefix(identifier, 8) + "…"; }

}  // namespace

std::mutex SecurityManager::vendorIdLock_;

SecurityManager::SecurityManager(const Provisioning& p, SecureItemStore& secureItems, Defaults& standardDefaults,
                                 Crypto& crypto, Clock& clock, Log& log)
    : secureItems_(secureItems),
      defaults_(standardDefaults),
      crypto_(crypto),
      clock_(clock),
      log_(log),
      hmacSecretKey_(toBytes(p.hmacSecretKey)),
      apiHmacKey_(toBytes(p.apiHmacKey)),
      hmacMessage_(repairUtf8(p.hmacMessage)),
      secondaryHMACSecretKey_(toBytes(p.secondaryHmacSecretKey)),
      secondaryHMACMessage_(repairUtf8(p.secondaryHmacMessage)),
      paymentHMACSecretKey_(toBytes(p.paymentHmacSecretKey)),
      paymentHMACMessage_(repairUtf8(p.paymentHmacMessage)),
      aesEncryptionKey_(aesKeyFrom(p.aesEncryptionKey)) {}

VendorID SecurityManager::vendorID() {
  std::lock_guard lock(vendorIdLock_);

  if (auto override = defaults_.stringValue(kOverrideKey)) return {*override, true};

  const SecureItemQuery query{std::string(kKeychainAccount)};
  auto stored = secureItems_.copyData(query);

  auto mirror = defaults_.stringValue(kMirrorKey);
  if (stored.status == errSecItemNotFound && mirror && !mirror->empty()) {
    // The item is gone (a damaged store was set aside and started afresh) while its mirror
    // survived: the device keeps its identifier, and the item is written back from the mirror.
    log_.format("[VendorID] в Keychain нет идентификатора — восстановлен из зеркала id={}", withEllipsis(*mirror));
    (void)secureItems_.add(
        {std::string(kKeychainAccount), std::nullopt, std::string(kSecAttrAccessibleAfterFirstUnlock)},
        toBytes(*mirror));
    return {*mirror, true};
  }
  if (stored.status == errSecItemNotFound) {
    auto made = makeUUID();
    if (!made) {
      // An identifier not drawn from the random source would be the same on every device that
      // failed alike: nothing is stored, and the read fails as a locked store's does.
      log_.write(
          "[VendorID] источник случайных чисел недоступен — идентификатор не создан, запросы к бэкенду "
          "заблокированы");
      return {std::string(), false};
    }
    std::string fresh = std::move(*made);
    // The add's status is not checked: should it fail, the mirror still carries the identifier.
    (void)secureItems_.add(
        {std::string(kKeychainAccount), std::nullopt, std::string(kSecAttrAccessibleAfterFirstUnlock)}, toBytes(fresh));
    (void)defaults_.setString(kMirrorKey, fresh);
    return {fresh, true};
  }

  if (stored.status == errSecSuccess && stored.value) {
    std::string identifier = toString(*stored.value);
    // An item whose data is not text (or is empty) cannot be the identifier; the mirror is then
    // a better answer than sending garbage to the backend.
    if (isValidUtf8(identifier) && !trimWhitespace(identifier).empty()) {
      if (mirror != identifier) defaults_.setString(kMirrorKey, identifier);
      migrateAccessibility(kKeychainAccount);
      return {identifier, true};
    }
  }

  if (mirror && !mirror->empty()) {
    log_.format("[VendorID] Keychain недоступен (OSStatus {}) — берём зеркало id={}", stored.status,
                withEllipsis(*mirror));
    return {*mirror, true};
  }

  log_.format(
      "[VendorID] Keychain недоступен (OSStatus {}) и зеркала нет — запасной ID, запросы к бэкенду заблокированы",
      stored.status);
  return {makeUUID().value_or(std::string()), false};
}

void SecurityManager::migrateAccessibility(std::string_view account) {
  const SecureItemQuery query{std::string(account)};
  auto attributes = secureItems_.copyAttributes(query);
  if (attributes.status != errSecSuccess || !attributes.value) return;
  if (attributes.value->accessible == kSecAttrAccessibleAfterFirstUnlock) return;
  (void)secureItems_.update(query, {std::nullopt, std::string(kSecAttrAccessibleAfterFirstUnlock)});
}

std::optional<SecurityManager::RequestNonces> SecurityManager::drawRequestNonces() {
  constexpr std::size_t kSigningNonceSize = 32;
  auto random = crypto_.randomBytes(Crypto::kAesGcmNonceSize + kSigningNonceSize);
  if (!random) {
    log_.format("Encryption error: {}", random.error().description());
    return std::nullopt;
  }
  const auto split = random->begin() + static_cast<std::ptrdiff_t>(Crypto::kAesGcmNonceSize);
  return RequestNonces{Bytes(random->begin(), split), Bytes(split, random->end())};
}

std::optional<std::string> SecurityManager::encryptVendorID(std::string_view identifier, ByteView nonce) {
  if (!aesEncryptionKey_) return std::nullopt;
  auto sealed = crypto_.aesGcmSeal(*aesEncryptionKey_, nonce, asBytes(identifier));
  if (!sealed) {
    log_.format("Encryption error: {}", sealed.error().description());
    return std::nullopt;
  }
  Bytes combined(nonce.begin(), nonce.end());
  combined.insert(combined.end(), sealed->begin(), sealed->end());
  return base64Encode(combined);
}

std::optional<std::string> SecurityManager::encryptVendorID(std::string_view identifier) {
  if (!aesEncryptionKey_) return std::nullopt;
  auto nonce = crypto_.randomBytes(Crypto::kAesGcmNonceSize);
  if (!nonce) {
    log_.format("Encryption error: {}", nonce.error().description());
    return std::nullopt;
  }
  return encryptVendorID(identifier, *nonce);
}

std::string SecurityManager::requestSignature(ByteView body, std::int64_t timestamp, std::string_view nonce) {
  const std::string timestampText = std::to_string(timestamp);
  Bytes message(body.begin(), body.end());
  message.insert(message.end(), timestampText.begin(), timestampText.end());
  message.insert(message.end(), nonce.begin(), nonce.end());
  std::string signature = hexLower(crypto_.hmacSha256(apiHmacKey_, message));
  log_.format("[HMAC] Enhanced signature generated (ts: {}, nonce:{}...)", timestamp, utf8Prefix(nonce, 8));
  return signature;
}

std::optional<RequestSignature> SecurityManager::signRequest(ByteView body, ByteView nonceBytes) {
  // Whole seconds, truncated toward zero.
  const auto timestamp = std::chrono::duration_cast<std::chrono::seconds>(clock_.now().time_since_epoch()).count();
  RequestSignature out;
  out.timestamp = static_cast<std::int64_t>(timestamp);
  out.nonce = base64Encode(nonceBytes);
  out.signature = requestSignature(body, out.timestamp, out.nonce);
  if (out.signature.empty()) return std::nullopt;  // HMAC could not be computed
  return out;
}

std::optional<RequestSignature> SecurityManager::signRequest(ByteView body) {
  auto nonces = drawRequestNonces();
  if (!nonces) return std::nullopt;
  return signRequest(body, nonces->signing);
}

std::string SecurityManager::paymentSignature(std::optional<std::string_view> message) const {
  const std::string_view text = message ? *message : std::string_view(paymentHMACMessage_);
  return hexLower(crypto_.hmacSha256(paymentHMACSecretKey_, asBytes(text)));
}

std::optional<std::string> SecurityManager::makeUUID() {
  // A version 4 UUID from the secure random source, upper case as the platform formats it.
  auto random = crypto_.randomBytes(16);
  if (!random || random->size() != 16) return std::nullopt;
  Bytes bytes = std::move(*random);
  bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0F) | 0x40);
  bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3F) | 0x80);
  std::string hex = hexLower(bytes);
  for (auto& c : hex) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return fmt::format("{}-{}-{}-{}-{}", hex.substr(0, 8), hex.substr(8, 4), hex.substr(12, 4), hex.substr(16, 4),
                     hex.substr(20, 12));
}

VendorIDWarmUp::VendorIDWarmUp(EventLoop& loop, SecurityManager& security, Log& log)
    : loop_(loop), security_(security), log_(log) {}

void VendorIDWarmUp::start() {
  ++generation_;  // answers of an earlier run are ignored from now on
  retry_.stop();
  running_ = true;
  attempt(1);
}

void VendorIDWarmUp::attempt(int number) {
  // The read may wait on the secure store; it runs off the loop.
  runBlockingThenReply(
      loop_, [&security = security_] { return security.vendorID(); },
      [weak = weakFactory_.weak(), number, generation = generation_](const VendorID& id) {
        auto self = weak.lock();
        if (!self || generation != self->generation_) return;
        self->onResult(number, id);
      });
}

void VendorIDWarmUp::onResult(int number, const VendorID& id) {
  if (id.trusted) {
    log_.format("[VendorID] прогрев после пробуждения: trusted={} id={}", id.trusted, withEllipsis(id.identifier));
    running_ = false;
    return;
  }
  log_.format("[Sleep] ID ещё недоступен (попытка {}/{}) — ждём разблокировки", number, kAttempts);
  if (number >= kAttempts) {
    running_ = false;  // later requests simply read the identifier again
    return;
  }
  retry_.start(loop_, kInterval, [this, number] { attempt(number + 1); });
}

}  // namespace norvik
