#pragma once

#include <filesystem>
#include <mutex>
#include <vector>

#include "platform/secure_item_store.h"
#include "platform/store_reset.h"

namespace norvik {

// The secure item store on Linux: one JSON file, readable only by its user (directory 0700,
// file 0600), written through a temporary file and a rename under an advisory lock so that
// several processes may use it. The store answers errSecInteractionNotAllowed, as a locked
// keychain does, while a file named "locked" exists in its directory or when the items cannot be
// read; a damaged file answers errSecDecode and is never overwritten. A write that does not reach
// the disk answers errSecDiskFull (no space), errSecWrPerm (no permission) or errSecIO, and the
// items stay as they were.
class FileSecureItemStore final : public SecureItemStore {
 public:
  explicit FileSecureItemStore(std::filesystem::path directory);

  [[nodiscard]] SecureItemResult<Bytes> copyData(const SecureItemQuery& query) override;
  [[nodiscard]] SecureItemResult<SecureItemAttributes> copyAttributes(const SecureItemQuery& query) override;
  OSStatus add(const SecureItemAttributes& attributes, const Bytes& data) override;
  OSStatus update(const SecureItemQuery& query, const SecureItemChanges& changes) override;
  OSStatus remove(const SecureItemQuery& query) override;

  [[nodiscard]] const std::filesystem::path& directory() const { return directory_; }

  // At start-up: an items file that cannot be read as items (damaged, or not a regular file) is
  // set aside as "items.json.damaged" and the store starts empty. Says what was done, if anything.
  [[nodiscard]] std::optional<StoreReset> setAsideIfDamaged();

 private:
  struct Item {
    SecureItemAttributes attributes;
    Bytes data;
  };
  class FileLock;

  [[nodiscard]] OSStatus load(std::vector<Item>& items) const;
  [[nodiscard]] OSStatus save(const std::vector<Item>& items) const;
  [[nodiscard]] bool isLocked() const;

  // Runs `body` on the loaded items under the lock; `write` saves the items afterwards when the
  // body reports success.
  template <class Body>
  OSStatus withItems(bool write, Body&& body);

  std::filesystem::path directory_;
  std::mutex mutex_;
};

}  // namespace norvik
