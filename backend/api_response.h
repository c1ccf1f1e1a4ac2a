#pragma once

#include <cstdint>
#include <expected>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

namespace norvik {

// The backend's main configuration ("main" endpoint) as typed values. Every field is optional
// unless noted; a missing key is absent, never an error. Sections whose keys belong to features
// outside the client core (FAQ items, dialog buttons, support configuration, the transport
// profile, the health policy, the tunnel feature flags) are kept as the JSON they arrived as, for
// their owners to read.

using OptText = std::optional<std::string>;
using OptBool = std::optional<bool>;
using OptInt = std::optional<std::int64_t>;
using OptNumber = std::optional<double>;
using OptJson = std::optional<nlohmann::json>;

struct RoutingServiceConfig {
  std::string key;  // required
  OptText title, subtitle, icon, iconURL, color, group;
  OptBool defaultOn, hasList;
  std::optional<std::vector<std::string>> cidr, domains;
  OptBool enabled;
  bool operator==(const RoutingServiceConfig&) const = default;
};

struct RoutingConfig {
  OptBool enabled, showModeTab;
  std::optional<std::vector<std::int64_t>> allowedModes;
  OptInt forcedMode, defaultMode;
  OptText disclaimer;
  OptBool killSwitch, allowCustomDomain, showDnsHint;
  OptText listsVersion;
  OptText fullModeAlertTitle, fullModeAlertMessage, fullModeAlertConfirm, fullModeAlertCancel;
  // Services that failed to decode are dropped; the rest are kept.
  std::optional<std::vector<RoutingServiceConfig>> services;
  OptBool onDemandEnabled, fullModeLightDatapath, relayHardenEnabled;
  OptInt extensionMemLimitMb;
  bool operator==(const RoutingConfig&) const = default;
};

struct MigrationConfig {
  OptBool enabled;
  OptText title, text, button, link, dismiss, mode, code;
  OptInt delayHours, maxShows, intervalMin;
  OptText codeButton;
  OptInt codePollSec;
  OptText step1Title, step2Title, step3Title, idCaption, codeHint, codeCaption;
  bool operator==(const MigrationConfig&) const = default;
};

struct HomeOfferConfig {
  OptBool enabled;
  OptText title;
  OptJson benefits;  // array of benefit items
  OptText cta, status, trust, titleExpired, ctaExpired, priceLine, termsYear, termsYearOnly, termsGeneric;
  bool operator==(const HomeOfferConfig&) const = default;
};

struct MainConfig {
  OptBool isActive;
  OptText switchState, mainText, mainTitle, buttonType, buttonText, buttonLink, alertMessage;
  OptText keyData;  // the full tunnel configuration text
  OptText keyIP;
  OptText activation;
  OptInt deactivateType, telegramType;
  OptBool customButtonHidden;
  OptText linkSupport, linkTelegram, linkTerms, linkApp, mainDomain, linkShare;
  OptBool showCompany, moveButton;
  std::optional<MigrationConfig> migration;
  std::optional<HomeOfferConfig> homeOffer;
  OptText geoipVersion;
  OptBool geoBypassEnabled;        // "geop"
  OptBool geoBypassEnabledLegacy;  // "geo_bypass_enabled", read when "geop" is absent
  OptBool subActive;
  OptInt subExpireTs, serverTime;
  OptBool serverChangeAutoReconnect;
  OptJson smartStatus;  // the health policy object
  OptInt subCardAutoCollapseDays;
  OptBool subCardCollapsedDefault;
  OptBool iosFixedEnable;
  OptJson iosFixes;  // the tunnel feature flags object

  // "geop" when present, else "geo_bypass_enabled".
  [[nodiscard]] OptBool geoBypass() const { return geoBypassEnabled ? geoBypassEnabled : geoBypassEnabledLegacy; }
  bool operator==(const MainConfig&) const = default;
};

struct InfoAlert {
  OptText id;
  OptInt durationMinutes;
  OptText type, title, description, message, button, function, link;
  OptText presentTitle, presentDescription, presentButton, presentButtonLink, screen, webStyle, shareText, shareURL;
  OptText dialogTitle, dialogText;
  OptJson dialogButtons;
  OptText bgColor, textColor, icon, position;
  OptBool compact, dismissible, pulse;
  OptText imageURL;
  bool operator==(const InfoAlert&) const = default;
};

struct PaymentHistoryItem {
  OptText paymentId;
  OptInt date;
  OptText amount;
  OptNumber amountRub;
  OptText description, status;
  bool operator==(const PaymentHistoryItem&) const = default;
};

struct PrimaryCTA {
  OptText text, action, link;
  bool operator==(const PrimaryCTA&) const = default;
};

struct SubPanel {
  std::string state;  // required
  OptText title, subtitle, planName, price;
  OptNumber priceRub;
  OptText currency, billingPeriod;
  OptInt validUntil, nextBillingDate;
  OptBool autoRenew, canCancel;
  std::optional<PrimaryCTA> primaryCta;
  std::optional<std::vector<PaymentHistoryItem>> paymentHistory;
  bool operator==(const SubPanel&) const = default;
};

struct ServiceSubscription {
  OptText planName, price;
  std::string billingPeriod;  // required
  OptInt nextBillingDate;
  bool isActive = false;  // required
  OptInt cancelledDate;
  bool operator==(const ServiceSubscription&) const = default;
};

struct ServiceUser {
  bool available = false;                      // required
  std::optional<ServiceSubscription> service;  // "subscription"
  std::optional<std::vector<PaymentHistoryItem>> paymentHistory;
  bool operator==(const ServiceUser&) const = default;
};

struct Plan {
  OptText name, priceCurrent, priceHigh, modeType, discount;
  OptBool isRecommended;
  OptText planDescription;
  bool operator==(const Plan&) const = default;
};

struct OptionsDepend {
  OptText activationAPI, titleLabel, descriptionLabel, aboutView, aboutView2;
  OptBool format;
  OptText main1Text, main2Text, choose1Text, choose2Text;
  bool operator==(const OptionsDepend&) const = default;
};

struct OptionsConfig {
  OptBool accept;
  std::optional<std::vector<Plan>> plans;
  std::optional<OptionsDepend> depend;
  OptBool agreeReccur;
  OptBool storePageEnabled;  // "store_page": {"enabled": …}
  bool operator==(const OptionsConfig&) const = default;
};

struct APIResponse {
  MainConfig main;  // required
  InfoAlert info;   // required
  OptJson faq;
  std::optional<RoutingConfig> routing;
  std::optional<OptionsConfig> options;  // "tariffs"
  std::optional<ServiceUser> serviceUser;
  std::optional<SubPanel> subPanel;
  OptJson supportConfig;
  OptJson netProfile;
  bool operator==(const APIResponse&) const = default;
};

// Decodes a main configuration document. "routing", "sub_panel", "support_config" and
// "net_profile" are looked for at the top level and, when absent there, inside "main". The error
// names the field and quotes the bad value.
[[nodiscard]] std::expected<APIResponse, std::string> decodeAPIResponse(std::string_view body);

}  // namespace norvik
