#include "routing/service_catalog_store.h"

#include <algorithm>
#include <cassert>
#include <unordered_set>

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <nlohmann/json.hpp>

#include "platform/files.h"
#include "routing/domain_name.h"
#include "routing/routing_texts.h"

namespace norvik {
namespace {

// Collects list entries in order, each once, for a text of one entry a line.
class LineList {
 public:
  void add(std::string_view entry) {
    if (entry.empty() || !seen_.emplace(entry).second) return;
    if (!text_.empty()) text_.push_back('\n');
    text_.append(entry);
    ++count_;
  }
  [[nodiscard]] const std::string& text() const { return text_; }
  [[nodiscard]] std::size_t count() const { return count_; }

 private:
  std::unordered_set<std::string> seen_;
  std::string text_;
  std::size_t count_ = 0;
};

std::size_t cidrCount(const std::map<std::string, std::vector<std::string>>& lists) {
  std::size_t count = 0;
  for (const auto& [key, cidrs] : lists) count += cidrs.size();
  return count;
}

}  // namespace

ServiceCatalogStore::ServiceCatalogStore(EventLoop& loop, Defaults& groupDefaults, NetworkService& network,
                                         ModesStore& modes, std::filesystem::path geodataDirectory, Log& log,
                                         Analytics& analytics)
    : loop_(loop),
      defaults_(groupDefaults),
      network_(network),
      modes_(modes),
      geodataDirectory_(std::move(geodataDirectory)),
      log_(log),
      analytics_(analytics) {
  const auto stored = defaults_.stringArrayValue(kSelectedServices);
  const auto selection = stored ? *stored : defaultServiceSelection();
  selectedServices_.set(std::set<std::string>(selection.begin(), selection.end()));
  customDomains_.set(defaults_.stringArrayValue(kCustomDomains).value_or(std::vector<std::string>{}));
  disabledDomains_.set(defaults_.stringArrayValue(kDisabledCustomDomains).value_or(std::vector<std::string>{}));
  loadCachedLists();

  catalog_ = catalogFor(routing_);
  const auto& response = network_.currentResponse().get();
  if (response) takeRoutingSection(response->routing.value_or(RoutingConfig{}));
  apply();
  if (response) syncServiceLists();
  responseSubscription_ =
      network_.currentResponse().subscribe([this](const NetworkService::MainResponse& r) { onResponse(r); });
}

// --- Responses and the catalog ---

void ServiceCatalogStore::onResponse(const NetworkService::MainResponse& response) {
  assert(loop_.isLoopThread());
  if (!response) return;
  RoutingConfig routing = response->routing.value_or(RoutingConfig{});
  if (!lastRouting_ || *lastRouting_ != routing) {
    takeRoutingSection(routing);
    apply();
  }
  // Every response may retry a download that failed before, even when the section is the same.
  syncServiceLists();
}

void ServiceCatalogStore::takeRoutingSection(const RoutingConfig& routing) {
  routing_ = routing;
  lastRouting_ = routing;
  catalog_ = catalogFor(routing);
  selectDefaultOnServices(routing);
}

void ServiceCatalogStore::selectDefaultOnServices(const RoutingConfig& routing) {
  if (!routing.services || routing.services->empty()) return;
  auto seenList = defaults_.stringArrayValue(kSeenServiceKeys).value_or(std::vector<std::string>{});
  const std::set<std::string> seen(seenList.begin(), seenList.end());

  auto selection = selectedServices_.get();
  std::vector<std::string> added;
  for (const auto& service : *routing.services) {
    if (seen.contains(service.key) || !service.defaultOn.value_or(false)) continue;
    if (selection.insert(service.key).second) added.push_back(service.key);
  }
  // Every offered key is seen from now on, so a service the user switches off stays off.
  bool seenGrew = false;
  for (const auto& service : *routing.services) {
    if (!seen.contains(service.key) && std::ranges::find(seenList, service.key) == seenList.end()) {
      seenList.push_back(service.key);
      seenGrew = true;
    }
  }
  if (seenGrew) defaults_.setStringArray(kSeenServiceKeys, seenList);
  if (!added.empty()) {
    selectedServices_.set(std::move(selection));
    persistSelection();
    log_.format("[Routing] default_on включил новые сервисы: {}", fmt::join(added, ", "));
  }
}

// --- User actions ---

Defaults::WriteResult ServiceCatalogStore::toggle(std::string_view serviceKey, bool on) {
  assert(loop_.isLoopThread());
  auto selection = selectedServices_.get();
  const std::string key(serviceKey);
  const bool changed = on ? selection.insert(key).second : selection.erase(key) > 0;
  if (!changed) return {};
  if (auto saved = saveList(kSelectedServices, std::vector<std::string>(selection.begin(), selection.end())); !saved) {
    return saved;
  }
  selectedServices_.set(std::move(selection));
  if (on) didAutoSmart_.set(false);
  scheduleApply();
  if (!on) fallBackToSmartIfEmpty();
  return {};
}

std::expected<std::string, std::string> ServiceCatalogStore::addCustomDomain(std::string_view text) {
  assert(loop_.isLoopThread());
  auto parsed = parseDomainName(text);
  if (!parsed) {
    log_.format("[Routing] custom domain refused: \"{}\" ({})", text, parsed.error());
    return std::unexpected(std::string(routing_texts::kInvalidDomain));
  }
  if (findCustomDomain(parsed->display) != customDomains_.get().end()) return parsed->display;  // already listed
  if (!canAddCustomDomain()) {
    log_.format("[Routing] custom domain refused: \"{}\" (the list holds {} already)", text, kMaxCustomDomains);
    return std::unexpected(customDomainLimitText());
  }
  auto domains = customDomains_.get();
  domains.push_back(parsed->display);
  if (auto saved = saveList(kCustomDomains, domains); !saved) return std::unexpected(writeFailureText(saved.error()));
  customDomains_.set(std::move(domains));
  didAutoSmart_.set(false);
  scheduleApply();
  return parsed->display;
}

Defaults::WriteResult ServiceCatalogStore::removeCustomDomain(std::string_view domain) {
  assert(loop_.isLoopThread());
  auto it = findCustomDomain(domain);
  if (it == customDomains_.get().end()) return {};
  // A copy: customDomains_.set below frees the list `it` points into, and `listed` is used after it.
  const std::string listed = *it;  // NOLINT(performance-unnecessary-copy-initialization)
  auto domains = customDomains_.get();
  std::erase(domains, listed);
  if (auto saved = saveList(kCustomDomains, domains); !saved) return saved;
  customDomains_.set(std::move(domains));
  auto disabled = disabledDomains_.get();
  // Left in the switched-off list, a domain that is gone does nothing: a failure here loses nothing.
  if (std::erase(disabled, listed) > 0 && saveList(kDisabledCustomDomains, disabled)) {
    disabledDomains_.set(std::move(disabled));
  }
  scheduleApply();
  fallBackToSmartIfEmpty();
  return {};
}

Defaults::WriteResult ServiceCatalogStore::setCustomDomainEnabled(std::string_view domain, bool on) {
  assert(loop_.isLoopThread());
  auto it = findCustomDomain(domain);
  if (it == customDomains_.get().end()) return {};
  const std::string& listed = *it;
  auto disabled = disabledDomains_.get();
  const bool isDisabled = std::ranges::find(disabled, listed) != disabled.end();
  if (on == !isDisabled) return {};
  if (on) {
    std::erase(disabled, listed);
  } else {
    disabled.push_back(listed);
  }
  if (auto saved = saveList(kDisabledCustomDomains, disabled); !saved) return saved;
  disabledDomains_.set(std::move(disabled));
  if (on) didAutoSmart_.set(false);
  scheduleApply();
  if (!on) fallBackToSmartIfEmpty();
  return {};
}

std::string ServiceCatalogStore::customDomainLimitText() {
  return fmt::format("{}{}{}", routing_texts::kDomainLimitPrefix, kMaxCustomDomains, routing_texts::kDomainLimitSuffix);
}

std::vector<std::string>::const_iterator ServiceCatalogStore::findCustomDomain(std::string_view domain) const {
  const auto& domains = customDomains_.get();
  if (auto exact = std::ranges::find(domains, domain); exact != domains.end()) return exact;
  // The screen may hand back what the user typed rather than the listed form.
  auto parsed = parseDomainName(domain);
  if (!parsed) return domains.end();
  return std::ranges::find_if(domains, [&](const std::string& listed) {
    auto other = parseDomainName(listed);
    return other && other->ascii == parsed->ascii;
  });
}

bool ServiceCatalogStore::isSelectionEmpty() const {
  if (!selectedServices_.get().empty()) return false;
  const auto& disabled = disabledDomains_.get();
  return std::ranges::all_of(customDomains_.get(), [&](const std::string& domain) {
    return std::ranges::find(disabled, domain) != disabled.end();
  });
}

void ServiceCatalogStore::recordEmptySitesScreen(bool tunnelOn) {
  if (!isSelectionEmpty()) return;
  analytics_.record(tunnelOn ? routing_texts::kEmptySitesOnScreen : routing_texts::kEmptySitesOffScreen);
}

void ServiceCatalogStore::fallBackToSmartIfEmpty() {
  if (!isSelectionEmpty() || modes_.currentMode().get() != VPNRoutingMode::services) return;
  log_.write("[Routing] все сайты выключены — включаем Умный режим");
  didAutoSmart_.set(true);
  pendingSmartNotice_.set(true);
  modes_.select(VPNRoutingMode::smart);
}

void ServiceCatalogStore::persistSelection() {
  const auto& selection = selectedServices_.get();
  (void)saveList(kSelectedServices, std::vector<std::string>(selection.begin(), selection.end()));
}

Defaults::WriteResult ServiceCatalogStore::saveList(std::string_view key, std::vector<std::string> list) {
  auto saved = defaults_.setStringArray(key, std::move(list));
  if (!saved) log_.format("[Routing] {} не сохранён: {}", key, saved.error().message);
  return saved;
}

// --- Apply ---

void ServiceCatalogStore::scheduleApply() {
  pendingApply_.start(loop_, kApplyInterval, [weak = weakFactory_.weak()] {
    if (auto self = weak.lock()) self->apply();
  });
}

void ServiceCatalogStore::apply() {
  assert(loop_.isLoopThread());
  pendingApply_.stop();
  LineList cidrs;
  LineList domains;
  const auto& selection = selectedServices_.get();
  std::size_t services = 0;
  for (const auto& item : catalog_) {
    if (!selection.contains(item.key)) continue;
    ++services;
    if (auto lists = serviceLists_.find(item.key); lists != serviceLists_.end()) {
      for (const auto& cidr : lists->second) cidrs.add(cidr);
    }
    for (const auto& cidr : item.inlineCidrs) cidrs.add(cidr);
    for (const auto& domain : item.watchDomains) domains.add(domain);
  }
  const auto& disabled = disabledDomains_.get();
  for (const auto& domain : customDomains_.get()) {
    if (std::ranges::find(disabled, domain) != disabled.end()) continue;
    if (auto parsed = parseDomainName(domain)) domains.add(parsed->ascii);
  }

  const bool cidrsChanged = defaults_.stringValue(kServiceCIDRs) != cidrs.text();
  const bool domainsChanged = defaults_.stringValue(kWatchDomains) != domains.text();
  if (cidrsChanged) defaults_.setString(kServiceCIDRs, cidrs.text());
  if (domainsChanged) defaults_.setString(kWatchDomains, domains.text());
  if (cidrsChanged || domainsChanged) {
    log_.format("[Routing] applied: {} services, {} CIDRs, {} domains", services, cidrs.count(), domains.count());
  }
}

// --- Service lists ---

void ServiceCatalogStore::loadCachedLists() {
  auto text = readFile(geodataDirectory_ / std::string(kCacheFileName));
  if (!text) return;
  auto cached = decodeServiceListsResponse(*text);
  if (!cached) {
    log_.format("[ServiceLists][cache] unreadable, ignored: {}", cached.error());
    return;
  }
  serviceLists_ = cached->services.value_or(std::map<std::string, std::vector<std::string>>{});
  cachedListsLoaded_ = true;
}

void ServiceCatalogStore::syncServiceLists() {
  assert(loop_.isLoopThread());
  if (syncInFlight_) return;
  const auto& announced = routing_.listsVersion;
  if (!announced || announced->empty()) return;
  // Without a readable cache the stored version describes nothing we have.
  const auto stored = cachedListsLoaded_ ? defaults_.stringValue(kServiceListsVersion) : std::nullopt;
  if (stored == announced) {
    log_.format("[ServiceLists] version unchanged ({})", *announced);
    return;
  }
  log_.format("[ServiceLists] version changed (stored={}, new={}) — downloading /service_lists",
              stored.value_or("none"), *announced);
  syncInFlight_ = true;
  network_.fetchServiceLists([weak = weakFactory_.weak(), version = *announced](auto result) mutable {
    if (auto self = weak.lock()) self->onServiceLists(std::move(version), std::move(result));
  });
}

void ServiceCatalogStore::onServiceLists(std::string version, std::expected<ServiceListsResponse, APIError> result) {
  if (!result) {
    syncInFlight_ = false;
    // The stored version and the old cache stay; the next response tries again.
    log_.format("[ServiceLists] download failed: {} {}", result.error().code, result.error().message);
    return;
  }
  auto lists = result->services.value_or(std::map<std::string, std::vector<std::string>>{});
  nlohmann::json document = {{"version", result->version.value_or(version)}, {"services", lists}};
  std::string text = document.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
  const std::size_t bytes = text.size();

  auto write = [directory = geodataDirectory_, text = std::move(text)]() -> std::expected<void, Error> {
    if (auto made = makeDirectories(directory); !made) return made;
    return writeFileAtomically(directory / std::string(kCacheFileName), text, 0644,
                               std::string(kCacheFileName) + ".tmp");
  };
  auto reply = [weak = weakFactory_.weak(), version = std::move(version), lists = std::move(lists),
                bytes](std::expected<void, Error> written) mutable {
    auto self = weak.lock();
    if (!self) return;
    self->syncInFlight_ = false;
    if (written) {
      self->log_.format("[ServiceLists][cache] wrote {} bytes", bytes);
      self->defaults_.setString(kServiceListsVersion, version);
      self->cachedListsLoaded_ = true;
    } else {
      // The lists still apply for this run; the version stays old so that the next response
      // downloads again and the cache catches up.
      self->log_.format("[ServiceLists][cache] write failed: {}", written.error().description());
    }
    const std::size_t total = cidrCount(lists);
    self->serviceLists_ = std::move(lists);
    self->apply();
    self->log_.format("[ServiceLists] synced: {} CIDRs, version={}", total, version);
  };
  runBlockingThenReply(loop_, std::move(write), std::move(reply));
}

}  // namespace norvik
