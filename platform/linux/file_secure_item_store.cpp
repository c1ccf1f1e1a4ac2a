#include "platform/linux/file_secure_item_store.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "platform/crypto.h"
#include "platform/files.h"

namespace norvik {
namespace {

constexpr const char* kItemsFile = "items.json";
constexpr const char* kLockFile = ".lock";
constexpr const char* kLockedMarker = "locked";

bool matches(const SecureItemAttributes& item, const SecureItemQuery& query) {
  if (item.account != query.account) return false;
  return !query.service || item.service == query.service;
}

}  // namespace

// flock() on a lock file beside the items, shared for reads and exclusive for writes.
class FileSecureItemStore::FileLock {
 public:
  FileLock(const std::filesystem::path& file, bool exclusive) {
    fd_ = ::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd_ < 0) return;
    while (::flock(fd_, exclusive ? LOCK_EX : LOCK_SH) != 0) {
      if (errno != EINTR) {
        ::close(fd_);
        fd_ = -1;
        return;
      }
    }
  }
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;
  ~FileLock() {
    if (fd_ >= 0) ::close(fd_);  // closing releases the lock
  }
  bool held() const { return fd_ >= 0; }

 private:
  int fd_ = -1;
};

FileSecureItemStore::FileSecureItemStore(std::filesystem::path directory) : directory_(std::move(directory)) {}

bool FileSecureItemStore::isLocked() const {
  std::error_code ec;
  return std::filesystem::exists(directory_ / kLockedMarker, ec);
}

OSStatus FileSecureItemStore::load(std::vector<Item>& items) const {
  items.clear();
  auto contents = readFile(directory_ / kItemsFile, 4u << 20);
  if (!contents) {
    switch (contents.error().code) {
      case ENOENT:
        return errSecSuccess;  // no items yet
      case EACCES:
      case EPERM:
        return errSecInteractionNotAllowed;
      case EINVAL:  // not a regular file: nothing that can be items
      case EFBIG:   // far larger than any set of items
        return errSecDecode;
      default:
        return errSecIO;
    }
  }
  auto json = nlohmann::json::parse(*contents, nullptr, /*allow_exceptions=*/false);
  if (!json.is_object() || !json.contains("items") || !json["items"].is_array()) return errSecDecode;
  for (const auto& entry : json["items"]) {
    if (!entry.is_object()) return errSecDecode;
    auto text = [&](const char* key) -> std::optional<std::string> {
      auto it = entry.find(key);
      if (it == entry.end() || !it->is_string()) return std::nullopt;
      return it->get<std::string>();
    };
    auto account = text("account");
    auto data = text("data");
    if (!account || !data) return errSecDecode;
    auto bytes = base64Decode(*data);
    if (!bytes) return errSecDecode;
    items.push_back(Item{SecureItemAttributes{*account, text("service"), text("accessible")}, std::move(*bytes)});
  }
  return errSecSuccess;
}

OSStatus FileSecureItemStore::save(const std::vector<Item>& items) const {
  nlohmann::json list = nlohmann::json::array();
  for (const auto& item : items) {
    nlohmann::json entry{{"account", item.attributes.account}, {"data", base64Encode(item.data)}};
    if (item.attributes.service) entry["service"] = *item.attributes.service;
    if (item.attributes.accessible) entry["accessible"] = *item.attributes.accessible;
    list.push_back(std::move(entry));
  }
  const std::string text =
      nlohmann::json{{"items", std::move(list)}}.dump(2, ' ', false, nlohmann::json::error_handler_t::replace);
  auto written = writeFileAtomically(directory_ / kItemsFile, text, 0600);
  if (written) return errSecSuccess;
  switch (written.error().code) {
    case ENOSPC:
    case EDQUOT:
      return errSecDiskFull;
    case EACCES:
    case EPERM:
    case EROFS:
      return errSecWrPerm;
    default:
      return errSecIO;
  }
}

std::optional<StoreReset> FileSecureItemStore::setAsideIfDamaged() {
  std::lock_guard guard(mutex_);
  FileLock lock(directory_ / kLockFile, /*exclusive=*/true);
  std::vector<Item> items;
  if (load(items) != errSecDecode) return std::nullopt;
  auto contents = readFile(directory_ / kItemsFile, 4u << 20);
  const std::string reason = contents ? "the items cannot be read" : contents.error().message;
  const auto aside = setDamagedFileAside(directory_ / kItemsFile);
  if (aside.empty()) return std::nullopt;
  return StoreReset{"secure items", reason, aside, 0};
}

template <class Body>
OSStatus FileSecureItemStore::withItems(bool write, Body&& body) {
  std::lock_guard guard(mutex_);
  if (isLocked()) return errSecInteractionNotAllowed;
  if (write) {
    if (auto made = makeDirectories(directory_, 0700); !made) {
      return made.error().code == EACCES ? errSecInteractionNotAllowed : errSecIO;
    }
  }
  FileLock lock(directory_ / kLockFile, write);
  if (!lock.held() && write) return errSecIO;
  std::vector<Item> items;
  if (OSStatus status = load(items); status != errSecSuccess) return status;
  const OSStatus status = body(items);
  if (status != errSecSuccess || !write) return status;
  return save(items);
}

SecureItemResult<Bytes> FileSecureItemStore::copyData(const SecureItemQuery& query) {
  SecureItemResult<Bytes> result;
  result.status = withItems(false, [&](std::vector<Item>& items) {
    auto it = std::ranges::find_if(items, [&](const Item& i) { return matches(i.attributes, query); });
    if (it == items.end()) return errSecItemNotFound;
    result.value = it->data;
    return errSecSuccess;
  });
  if (result.status != errSecSuccess) result.value.reset();
  return result;
}

SecureItemResult<SecureItemAttributes> FileSecureItemStore::copyAttributes(const SecureItemQuery& query) {
  SecureItemResult<SecureItemAttributes> result;
  result.status = withItems(false, [&](std::vector<Item>& items) {
    auto it = std::ranges::find_if(items, [&](const Item& i) { return matches(i.attributes, query); });
    if (it == items.end()) return errSecItemNotFound;
    result.value = it->attributes;
    return errSecSuccess;
  });
  if (result.status != errSecSuccess) result.value.reset();
  return result;
}

OSStatus FileSecureItemStore::add(const SecureItemAttributes& attributes, const Bytes& data) {
  if (attributes.account.empty()) return errSecParam;
  return withItems(true, [&](std::vector<Item>& items) {
    const bool duplicate = std::ranges::any_of(items, [&](const Item& i) {
      return i.attributes.account == attributes.account && i.attributes.service == attributes.service;
    });
    if (duplicate) return errSecDuplicateItem;
    items.push_back(Item{attributes, data});
    return errSecSuccess;
  });
}

OSStatus FileSecureItemStore::update(const SecureItemQuery& query, const SecureItemChanges& changes) {
  return withItems(true, [&](std::vector<Item>& items) {
    bool found = false;
    for (auto& item : items) {
      if (!matches(item.attributes, query)) continue;
      found = true;
      if (changes.data) item.data = *changes.data;
      if (changes.accessible) item.attributes.accessible = *changes.accessible;
    }
    return found ? errSecSuccess : errSecItemNotFound;
  });
}

OSStatus FileSecureItemStore::remove(const SecureItemQuery& query) {
  return withItems(true, [&](std::vector<Item>& items) {
    const auto removed = std::erase_if(items, [&](const Item& i) { return matches(i.attributes, query); });
    return removed > 0 ? errSecSuccess : errSecItemNotFound;
  });
}

}  // namespace norvik
