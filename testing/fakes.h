#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "platform/clock.h"
#include "platform/crypto.h"
#include "platform/defaults.h"
#include "platform/linux/openssl_crypto.h"
#include "platform/log.h"
#include "platform/secure_item_store.h"
#include "testing/virtual_event_loop.h"

namespace norvik::testing {

// Wall-clock time that moves with a virtual loop: advancing the loop by 5 s moves this clock by
// 5 s. jump() changes the wall clock alone, as a user setting the system time does. The "local"
// calendar day is taken at a fixed UTC offset (UTC unless set).
class VirtualClock final : public Clock {
 public:
  explicit VirtualClock(const VirtualEventLoop& loop,
                        TimePoint wallAtStart = TimePoint{} + std::chrono::seconds(1'800'000'000));

  [[nodiscard]] TimePoint now() const override;
  [[nodiscard]] std::string localDay(TimePoint moment) const override;

  void jump(std::chrono::system_clock::duration delta) { offset_ += delta; }
  void setUtcOffset(std::chrono::minutes offset) { utcOffset_ = offset; }

 private:
  const VirtualEventLoop& loop_;
  TimePoint wallAtStart_;
  std::chrono::system_clock::duration offset_{};
  std::chrono::minutes utcOffset_{};
};

// Keeps every log line; lines also go to stderr when NORVIK_TEST_LOG is set.
class CapturingLog final : public Log {
 public:
  void write(std::string_view line) override;

  [[nodiscard]] std::vector<std::string> lines() const;
  // Lines that contain `fragment`.
  [[nodiscard]] std::vector<std::string> matching(std::string_view fragment) const;
  [[nodiscard]] std::size_t count(std::string_view fragment) const { return matching(fragment).size(); }
  [[nodiscard]] bool contains(std::string_view fragment) const { return count(fragment) > 0; }
  // True when some line is exactly `line`.
  [[nodiscard]] bool hasLine(std::string_view line) const;
  void clear();

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
};

class CapturingAnalytics final : public Analytics {
 public:
  void record(std::string_view tag) override;
  [[nodiscard]] std::vector<std::string> tags() const;
  [[nodiscard]] std::size_t count(std::string_view tag) const;

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> tags_;
};

// Defaults in memory, with the same typed behaviour as the SQLite suite.
class MemoryDefaults final : public Defaults {
 public:
  [[nodiscard]] std::optional<DefaultsValue> value(std::string_view key) const override;
  WriteResult set(std::string_view key, DefaultsValue value) override;
  WriteResult remove(std::string_view key) override;
  using Defaults::set;

  // Every write fails with `failure` (a full disk, say) and changes nothing, until called again
  // with nothing.
  void failWrites(std::optional<Error> failure);
  [[nodiscard]] std::size_t size() const;
  [[nodiscard]] std::size_t writeCount() const { return writes_; }

 private:
  mutable std::mutex mutex_;
  std::map<std::string, DefaultsValue, std::less<>> values_;
  std::optional<Error> writeFailure_;
  std::atomic<std::size_t> writes_{0};
};

// A keychain in memory. setLockedStatus() makes every operation answer that status, as the login
// keychain answers errSecInteractionNotAllowed while locked; counters show what was written.
class FakeSecureItemStore final : public SecureItemStore {
 public:
  [[nodiscard]] SecureItemResult<Bytes> copyData(const SecureItemQuery& query) override;
  [[nodiscard]] SecureItemResult<SecureItemAttributes> copyAttributes(const SecureItemQuery& query) override;
  OSStatus add(const SecureItemAttributes& attributes, const Bytes& data) override;
  OSStatus update(const SecureItemQuery& query, const SecureItemChanges& changes) override;
  OSStatus remove(const SecureItemQuery& query) override;

  void setLockedStatus(std::optional<OSStatus> status);
  // Puts an item in place directly, bypassing the counters.
  void seed(SecureItemAttributes attributes, Bytes data);
  [[nodiscard]] std::size_t itemCount() const;
  [[nodiscard]] std::size_t addCount() const { return adds_; }
  [[nodiscard]] std::size_t updateCount() const { return updates_; }

 private:
  struct Item {
    SecureItemAttributes attributes;
    Bytes data;
  };
  std::vector<Item>::iterator find(const SecureItemQuery& query);

  mutable std::mutex mutex_;
  std::vector<Item> items_;
  std::optional<OSStatus> lockedStatus_;
  std::size_t adds_ = 0;
  std::size_t updates_ = 0;
};

// OpenSSL crypto with a predictable random source (a counter), so that nonces and identifiers are
// known in advance; the random source and HMAC can be made to fail.
class DeterministicCrypto final : public Crypto {
 public:
  [[nodiscard]] Bytes hmacSha256(ByteView key, ByteView data) const override {
    return failHmac_ ? Bytes{} : real_.hmacSha256(key, data);
  }
  [[nodiscard]] std::expected<Bytes, Error> aesGcmSeal(ByteView key, ByteView nonce,
                                                       ByteView plaintext) const override {
    return real_.aesGcmSeal(key, nonce, plaintext);
  }
  [[nodiscard]] std::expected<Bytes, Error> aesGcmOpen(ByteView key, ByteView nonce, ByteView data) const override {
    return real_.aesGcmOpen(key, nonce, data);
  }
  [[nodiscard]] std::expected<Bytes, Error> randomBytes(std::size_t count) override;

  void failRandom(bool fail) { successesLeft_ = fail ? 0 : -1; }
  // The next `count` draws succeed, every later one fails.
  void failRandomAfter(int count) { successesLeft_ = count; }
  // HMAC gives no bytes, as OpenSSL's does when it cannot compute one.
  void failHmac(bool fail) { failHmac_ = fail; }

 private:
  OpenSslCrypto real_;
  std::atomic<bool> failHmac_{false};
  std::atomic<std::uint8_t> next_{1};
  std::atomic<int> successesLeft_{-1};  // -1: never fail
};

}  // namespace norvik::testing
