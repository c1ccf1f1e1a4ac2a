#pragma once

#include <string_view>

#include "routing/routing_mode.h"

namespace norvik::routing_texts {

// Every fixed text of the routing screens, in one place. The screens and the overlay queue show
// them as they stand.

// --- Mode screen ---

// The label of each mode on the mode screen.
[[nodiscard]] constexpr std::string_view label(VPNRoutingMode mode) {
  switch (mode) {
    case VPNRoutingMode::full:
      return "Обычный";
    case VPNRoutingMode::smart:
      return "Умный режим";
    case VPNRoutingMode::services:
      return "По сайтам";
    default:
      return "Умный режим";
  }
}

// How each mode routes, in the user's words.
[[nodiscard]] constexpr std::string_view description(VPNRoutingMode mode) {
  switch (mode) {
    case VPNRoutingMode::full:
      return "Весь интернет идёт через VPN. Максимально просто и надёжно.";
    case VPNRoutingMode::smart:
      return "Российские сайты — напрямую и быстро, зарубежные — через VPN.";
    case VPNRoutingMode::services:
      return "Через VPN пойдут только выбранные сайты. Всё остальное — напрямую.";
    default:
      return "";
  }
}

inline constexpr std::string_view kSitesThroughVPN = "Сайты через VPN";
inline constexpr std::string_view kOwnSites = "Свои сайты";
inline constexpr std::string_view kChooseAtLeastOneSite = "Выберите хотя бы один сайт";
inline constexpr std::string_view kEnableSiteBelow =
    "Включите сайт ниже — через VPN пойдёт только он, остальное напрямую.";
inline constexpr std::string_view kVPNOff = "VPN выключен";
inline constexpr std::string_view kSitesAfterVPNOn = "Выбранные сайты заработают после включения VPN на «Главной».";
inline constexpr std::string_view kOnlySelectedSites =
    "Через VPN пойдут только выбранные сайты — остальной трафик идёт напрямую и на полной скорости.";
inline constexpr std::string_view kModeSetByProvider = "Режим настроен провайдером";
inline constexpr std::string_view kModeControlUnavailable = "Управление режимом временно недоступно.";

// --- Full-mode confirmation (each text may be replaced by the backend's) ---

inline constexpr std::string_view kFullModeConfirmIdentifier = "modes_full_mode_confirm";
inline constexpr std::string_view kFullModeConfirmTitle = "Включить Обычный режим?";
inline constexpr std::string_view kFullModeConfirmMessage =
    "Весь трафик пойдёт через VPN — просто и надёжно. Российские сайты (банки, Госуслуги, Ozon) при этом могут не "
    "открываться — для них удобнее Умный режим.";
inline constexpr std::string_view kFullModeConfirmButton = "Всё равно переключить";
inline constexpr std::string_view kFullModeCancelButton = "Не переключать";

// --- The toast after the last site was switched off in the services mode ---

inline constexpr std::string_view kAutoSmartNoticeIdentifier = "modes_auto_smart_notice";
inline constexpr std::string_view kAutoSmartNoticeText = "Включили «Умный» режим — все сайты были выключены";

// --- Settings screen: switching the smart mode off ---

inline constexpr std::string_view kSmartDisableIdentifier = "settings_smart_mode_disable";
inline constexpr std::string_view kSmartDisableTitle = "Выключить Умный режим?";
inline constexpr std::string_view kSmartDisableMessage =
    "С Умным режимом российские сайты — банки, Госуслуги, маркетплейсы — работают напрямую, без VPN.\n\nБез него "
    "эти сайты могут блокировать доступ или не открываться.";
inline constexpr std::string_view kSmartDisableConfirm = "Выключить";
inline constexpr std::string_view kSmartDisableKeep = "Оставить";
inline constexpr std::string_view kSmartDisableDontShowAgain = "Больше не показывать";

// --- Custom domains ---

inline constexpr std::string_view kInvalidDomain = "Введите корректный домен, например twitch.tv";
inline constexpr std::string_view kDomainPlaceholder = "например, twitch.tv";
// "Можно добавить максимум " N " сайтов"
inline constexpr std::string_view kDomainLimitPrefix = "Можно добавить максимум ";
inline constexpr std::string_view kDomainLimitSuffix = " сайтов";

// --- Analytics screens of the empty services selection ---

inline constexpr std::string_view kEmptySitesOnScreen = "empty_sites_on_screen";
inline constexpr std::string_view kEmptySitesOffScreen = "empty_sites_off_screen";

}  // namespace norvik::routing_texts
