#include "testing/fakes.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include <fmt/format.h>

namespace norvik::testing {

VirtualClock::VirtualClock(const VirtualEventLoop& loop, TimePoint wallAtStart)
    : loop_(loop), wallAtStart_(wallAtStart) {}

Clock::TimePoint VirtualClock::now() const {
  return wallAtStart_ + std::chrono::duration_cast<std::chrono::system_clock::duration>(loop_.elapsed()) + offset_;
}

std::string VirtualClock::localDay(TimePoint moment) const {
  const std::time_t seconds = std::chrono::system_clock::to_time_t(moment + utcOffset_);
  std::tm tm{};
  gmtime_r(&seconds, &tm);
  return fmt::format("{:04}-{:02}-{:02}", tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday);
}

void CapturingLog::write(std::string_view line) {
  static const bool echo = std::getenv("NORVIK_TEST_LOG") != nullptr;
  std::lock_guard lock(mutex_);
  if (echo) (void)std::fprintf(stderr, "  log| %.*s\n", static_cast<int>(line.size()), line.data());
  lines_.emplace_back(line);
}

std::vector<std::string> CapturingLog::lines() const {
  std::lock_guard lock(mutex_);
  return lines_;
}

std::vector<std::string> CapturingLog::matching(std::string_view fragment) const {
  std::lock_guard lock(mutex_);
  std::vector<std::string> out;
  for (const auto& line : lines_) {
    if (line.find(fragment) != std::string::npos) out.push_back(line);
  }
  return out;
}

bool CapturingLog::hasLine(std::string_view line) const {
  std::lock_guard lock(mutex_);
  return std::ranges::find(lines_, line) != lines_.end();
}

void CapturingLog::clear() {
  std::lock_guard lock(mutex_);
  lines_.clear();
}

void CapturingAnalytics::record(std::string_view tag) {
  std::lock_guard lock(mutex_);
  tags_.emplace_back(tag);
}

std::vector<std::string> CapturingAnalytics::tags() const {
  std::lock_guard lock(mutex_);
  return tags_;
}

std::size_t CapturingAnalytics::count(std::string_view tag) const {
  std::lock_guard lock(mutex_);
  return static_cast<std::size_t>(std::ranges::count(tags_, tag));
}

std::optional<DefaultsValue> MemoryDefaults::value(std::string_view key) const {
  std::lock_guard lock(mutex_);
  auto it = values_.find(key);
  if (it == values_.end()) return std::nullopt;
  return it->second;
}

Defaults::WriteResult MemoryDefaults::set(std::string_view key, DefaultsValue value) {
  std::lock_guard lock(mutex_);
  if (writeFailure_) return std::unexpected(*writeFailure_);
  ++writes_;
  values_.insert_or_assign(std::string(key), std::move(value));
  return {};
}

Defaults::WriteResult MemoryDefaults::remove(std::string_view key) {
  std::lock_guard lock(mutex_);
  if (writeFailure_) return std::unexpected(*writeFailure_);
  ++writes_;
  if (auto it = values_.find(key); it != values_.end()) values_.erase(it);
  return {};
}

void MemoryDefaults::failWrites(std::optional<Error> failure) {
  std::lock_guard lock(mutex_);
  writeFailure_ = std::move(failure);
}

std::size_t MemoryDefaults::size() const {
  std::lock_guard lock(mutex_);
  return values_.size();
}

std::vector<FakeSecureItemStore::Item>::iterator FakeSecureItemStore::find(const SecureItemQuery& query) {
  return std::ranges::find_if(items_, [&](const Item& item) {
    return item.attributes.account == query.account && (!query.service || item.attributes.service == query.service);
  });
}

SecureItemResult<Bytes> FakeSecureItemStore::copyData(const SecureItemQuery& query) {
  std::lock_guard lock(mutex_);
  if (lockedStatus_) return {*lockedStatus_, std::nullopt};
  auto it = find(query);
  if (it == items_.end()) return {errSecItemNotFound, std::nullopt};
  return {errSecSuccess, it->data};
}

SecureItemResult<SecureItemAttributes> FakeSecureItemStore::copyAttributes(const SecureItemQuery& query) {
  std::lock_guard lock(mutex_);
  if (lockedStatus_) return {*lockedStatus_, std::nullopt};
  auto it = find(query);
  if (it == items_.end()) return {errSecItemNotFound, std::nullopt};
  return {errSecSuccess, it->attributes};
}

OSStatus FakeSecureItemStore::add(const SecureItemAttributes& attributes, const Bytes& data) {
  std::lock_guard lock(mutex_);
  if (lockedStatus_) return *lockedStatus_;
  if (attributes.account.empty()) return errSecParam;
  ++adds_;
  const bool duplicate = std::ranges::any_of(items_, [&](const Item& item) {
    return item.attributes.account == attributes.account && item.attributes.service == attributes.service;
  });
  if (duplicate) return errSecDuplicateItem;
  items_.push_back({attributes, data});
  return errSecSuccess;
}

OSStatus FakeSecureItemStore::update(const SecureItemQuery& query, const SecureItemChanges& changes) {
  std::lock_guard lock(mutex_);
  if (lockedStatus_) return *lockedStatus_;
  ++updates_;
  bool found = false;
  for (auto& item : items_) {
    if (item.attributes.account != query.account || (query.service && item.attributes.service != query.service))
      continue;
    found = true;
    if (changes.data) item.data = *changes.data;
    if (changes.accessible) item.attributes.accessible = *changes.accessible;
  }
  return found ? errSecSuccess : errSecItemNotFound;
}

OSStatus FakeSecureItemStore::remove(const SecureItemQuery& query) {
  std::lock_guard lock(mutex_);
  if (lockedStatus_) return *lockedStatus_;
  const auto removed = std::erase_if(items_, [&](const Item& item) {
    return item.attributes.account == query.account && (!query.service || item.attributes.service == query.service);
  });
  return removed > 0 ? errSecSuccess : errSecItemNotFound;
}

void FakeSecureItemStore::setLockedStatus(std::optional<OSStatus> status) {
  std::lock_guard lock(mutex_);
  lockedStatus_ = status;
}

void FakeSecureItemStore::seed(SecureItemAttributes attributes, Bytes data) {
  std::lock_guard lock(mutex_);
  items_.push_back({std::move(attributes), std::move(data)});
}

std::size_t FakeSecureItemStore::itemCount() const {
  std::lock_guard lock(mutex_);
  return items_.size();
}

std::expected<Bytes, Error> DeterministicCrypto::randomBytes(std::size_t count) {
  int left = successesLeft_.load();
  while (left >= 0) {
    if (left == 0) return std::unexpected(Error{"Test", -1, "random source unavailable"});
    if (successesLeft_.compare_exchange_weak(left, left - 1)) break;
  }
  Bytes out(count);
  for (auto& b : out) b = next_++;
  return out;
}

}  // namespace norvik::testing
