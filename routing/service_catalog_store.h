#pragma once

#include <chrono>
#include <expected>
#include <filesystem>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "backend/network_service.h"
#include "platform/defaults.h"
#include "platform/event_loop.h"
#include "platform/log.h"
#include "platform/published.h"
#include "platform/weak_ptr_factory.h"
#include "routing/modes_store.h"
#include "routing/service_catalog.h"

namespace norvik {

// The services mode's state: the catalog of routable services, the user's selection, the user's
// own domains and which of them are switched off. From these it writes the two lists the tunnel
// routes in the services mode — "routing.serviceCIDRs" and "routing.watchDomains", one entry a
// line — into the group suite. The services' CIDR lists are synchronised from the backend when
// the routing section announces a new "lists_version", and cached in "geodata/services_cache".
//
// User actions persist at once and apply after a quiet half second, so that a burst of toggles
// writes the lists once.
//
// Threading: a main-loop object. The defaults, the backend client, the modes store and the log
// are lent and must outlive it.
class ServiceCatalogStore {
 public:
  static constexpr std::string_view kServiceCIDRs = "routing.serviceCIDRs";
  static constexpr std::string_view kWatchDomains = "routing.watchDomains";
  static constexpr std::string_view kSelectedServices = "routing.selectedServices";
  static constexpr std::string_view kCustomDomains = "routing.customDomains";
  static constexpr std::string_view kDisabledCustomDomains = "routing.disabledCustomDomains";
  static constexpr std::string_view kSeenServiceKeys = "routing.seenServiceKeys";
  static constexpr std::string_view kServiceListsVersion = "routing.serviceLists.version";
  static constexpr std::string_view kCacheFileName = "services_cache";
  static constexpr std::chrono::milliseconds kApplyInterval{500};
  static constexpr std::size_t kMaxCustomDomains = 30;

  // `geodataDirectory` is the "geodata" directory of the group container.
  ServiceCatalogStore(EventLoop& loop, Defaults& groupDefaults, NetworkService& network, ModesStore& modes,
                      std::filesystem::path geodataDirectory, Log& log, Analytics& analytics);
  ServiceCatalogStore(const ServiceCatalogStore&) = delete;
  ServiceCatalogStore& operator=(const ServiceCatalogStore&) = delete;

  [[nodiscard]] const std::vector<RoutingServiceItem>& catalog() const { return catalog_; }
  [[nodiscard]] Published<std::set<std::string>>& selectedServices() { return selectedServices_; }
  [[nodiscard]] Published<std::vector<std::string>>& customDomains() { return customDomains_; }
  [[nodiscard]] Published<std::vector<std::string>>& disabledDomains() { return disabledDomains_; }
  // Set when switching off the last site sent the services mode back to smart.
  [[nodiscard]] Published<bool>& didAutoSmart() { return didAutoSmart_; }
  // The toast "modes_auto_smart_notice" is due; the screen clears it once shown.
  [[nodiscard]] Published<bool>& pendingSmartNotice() { return pendingSmartNotice_; }
  void acknowledgeSmartNotice() { pendingSmartNotice_.set(false); }

  // Each user action below is written to the group suite first; when that fails (a full disk, no
  // permission) nothing changes and the system's reason is answered. addCustomDomain answers the
  // text to show instead (platform/error.h, writeFailureText).
  Defaults::WriteResult toggle(std::string_view serviceKey, bool on);

  // The accepted domain as the list shows it, or the text the add field shows instead.
  [[nodiscard]] std::expected<std::string, std::string> addCustomDomain(std::string_view text);
  Defaults::WriteResult removeCustomDomain(std::string_view domain);
  // Off keeps the domain in the list but out of the tunnel.
  Defaults::WriteResult setCustomDomainEnabled(std::string_view domain, bool on);
  [[nodiscard]] bool canAddCustomDomain() const { return customDomains_.get().size() < kMaxCustomDomains; }
  // "Можно добавить максимум 30 сайтов", shown instead of the add field at the limit.
  [[nodiscard]] static std::string customDomainLimitText();
  // The backend may hide the add field ("allow_custom_domain": false); domains already added stay.
  [[nodiscard]] bool allowsCustomDomains() const { return routing_.allowCustomDomain.value_or(true); }

  // Nothing is routed in the services mode: no selected service and no enabled domain.
  [[nodiscard]] bool isSelectionEmpty() const;
  // Reports the empty-selection screen ("empty_sites_on_screen" / "empty_sites_off_screen").
  void recordEmptySitesScreen(bool tunnelOn);

  // Writes the two lists now (a pending delayed apply is dropped).
  void apply();
  // Downloads the service lists when the announced version differs from the stored one.
  void syncServiceLists();

 private:
  void onResponse(const NetworkService::MainResponse& response);
  void takeRoutingSection(const RoutingConfig& routing);
  void selectDefaultOnServices(const RoutingConfig& routing);
  void onServiceLists(std::string version, std::expected<ServiceListsResponse, APIError> result);
  void loadCachedLists();
  void scheduleApply();
  void persistSelection();
  Defaults::WriteResult saveList(std::string_view key, std::vector<std::string> list);
  void fallBackToSmartIfEmpty();
  [[nodiscard]] std::vector<std::string>::const_iterator findCustomDomain(std::string_view domain) const;

  EventLoop& loop_;
  Defaults& defaults_;
  NetworkService& network_;
  ModesStore& modes_;
  std::filesystem::path geodataDirectory_;
  Log& log_;
  Analytics& analytics_;

  RoutingConfig routing_;
  std::optional<RoutingConfig> lastRouting_;
  std::vector<RoutingServiceItem> catalog_;
  std::map<std::string, std::vector<std::string>> serviceLists_;
  bool cachedListsLoaded_ = false;
  bool syncInFlight_ = false;

  Published<bool> didAutoSmart_{false};
  Published<bool> pendingSmartNotice_{false};
  OneShotTimer pendingApply_;
  Published<std::set<std::string>> selectedServices_;
  Published<std::vector<std::string>> customDomains_;
  Published<std::vector<std::string>> disabledDomains_;
  Subscription responseSubscription_;

  WeakPtrFactory<ServiceCatalogStore> weakFactory_{this};
};

}  // namespace norvik
