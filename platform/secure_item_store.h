#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/bytes.h"

namespace norvik {

// Status codes of the secure item store, with the keychain's numbering.
using OSStatus = std::int32_t;
inline constexpr OSStatus errSecSuccess = 0;
inline constexpr OSStatus errSecParam = -50;
inline constexpr OSStatus errSecDiskFull = -34;  // the write did not fit on the disk
inline constexpr OSStatus errSecIO = -36;
inline constexpr OSStatus errSecWrPerm = -61;  // the store may not be written
inline constexpr OSStatus errSecAuthFailed = -25293;
inline constexpr OSStatus errSecDuplicateItem = -25299;
inline constexpr OSStatus errSecItemNotFound = -25300;
inline constexpr OSStatus errSecInteractionNotAllowed = -25308;  // the store is locked
inline constexpr OSStatus errSecDecode = -26275;

// Accessibility classes of an item.
inline constexpr std::string_view kSecAttrAccessibleAfterFirstUnlock = "ak";
inline constexpr std::string_view kSecAttrAccessibleWhenUnlocked = "aku";
inline constexpr std::string_view kSecAttrAccessibleWhenUnlockedThisDeviceOnly = "akuo";

// Selects generic-password items. Without a service it matches an item of any service; a query
// returns the first match (match limit one).
struct SecureItemQuery {
  std::string account;
  std::optional<std::string> service{};
};

struct SecureItemAttributes {
  std::string account;
  std::optional<std::string> service{};
  std::optional<std::string> accessible{};
};

// What an update changes; absent fields stay as they are.
struct SecureItemChanges {
  std::optional<Bytes> data{};
  std::optional<std::string> accessible{};
};

template <class T>
struct SecureItemResult {
  OSStatus status = errSecItemNotFound;
  std::optional<T> value;  // set exactly when status is errSecSuccess
};

// A store of small secrets with keychain semantics: generic-password items addressed by account
// (and optionally service), each with its data and an accessibility class. Every operation
// reports a status; a locked store answers errSecInteractionNotAllowed. Thread-safe; the Linux
// adapter is also safe between processes of the same user.
class SecureItemStore {
 public:
  virtual ~SecureItemStore() = default;

  [[nodiscard]] virtual SecureItemResult<Bytes> copyData(const SecureItemQuery& query) = 0;
  [[nodiscard]] virtual SecureItemResult<SecureItemAttributes> copyAttributes(const SecureItemQuery& query) = 0;
  // errSecDuplicateItem when an item with the same account and service exists.
  virtual OSStatus add(const SecureItemAttributes& attributes, const Bytes& data) = 0;
  virtual OSStatus update(const SecureItemQuery& query, const SecureItemChanges& changes) = 0;
  virtual OSStatus remove(const SecureItemQuery& query) = 0;
};

}  // namespace norvik
