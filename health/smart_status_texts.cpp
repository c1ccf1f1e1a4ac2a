#include "health/smart_status_texts.h"

namespace norvik {
namespace {

struct TextEntry {
  SmartStatusTextKey key;
  std::string_view json;
  std::string_view wording;
};

// One row per key, in the order of SmartStatusTextKey.
constexpr std::array<TextEntry, kSmartStatusTextKeyCount> kTexts{{
    {SmartStatusTextKey::statusChecking, "status_checking", "Проверяем соединение…"},
    {SmartStatusTextKey::statusRepairing, "status_repairing", "Восстанавливаем подключение…"},
    {SmartStatusTextKey::statusRechecking, "status_rechecking", "Перепроверяем…"},
    {SmartStatusTextKey::statusProtected, "status_protected", "Интернет работает"},
    {SmartStatusTextKey::statusConnected, "status_connected", "Подключено"},
    {SmartStatusTextKey::statusProblemOurSide, "status_problem_our_side", "Есть проблемы с доступом"},
    {SmartStatusTextKey::statusProblemWhitelist, "status_problem_whitelist", "Сеть ограничивает доступ"},
    {SmartStatusTextKey::statusProblemNoInternet, "status_problem_no_internet", "Нет доступа к интернету"},
    {SmartStatusTextKey::statusProblemSubExpired, "status_problem_sub_expired", "Проверьте подписку"},
    {SmartStatusTextKey::statusRefreshing, "status_refreshing", "Интернет работает"},
    {SmartStatusTextKey::statusRefreshOk, "status_refresh_ok", "Проверили — всё работает"},
    {SmartStatusTextKey::dlgOurSideTitle, "dlg_our_side_title", "Проблема на нашей стороне"},
    {SmartStatusTextKey::dlgOurSideMessage, "dlg_our_side_message",
     "VPN подключился, но трафик не проходит. Смена сервера обычно решает это за несколько секунд. Подключение мы не "
     "выключали."},
    {SmartStatusTextKey::dlgOurSidePrimary, "dlg_our_side_primary", "Сменить сервер"},
    {SmartStatusTextKey::dlgOurSideSecondary, "dlg_our_side_secondary", "Проверить ещё раз"},
    {SmartStatusTextKey::dlgWhitelistTitle, "dlg_whitelist_title", "Сеть ограничивает доступ"},
    {SmartStatusTextKey::dlgWhitelistMessage, "dlg_whitelist_message",
     "Похоже, ваша сеть сейчас пропускает только российские сервисы — так бывает на мобильном интернете во время "
     "временных ограничений. Попробуйте Wi-Fi или вернитесь чуть позже: такие ограничения обычно снимают. VPN остаётся "
     "включённым — как только появится доступ, статус обновится сам."},
    {SmartStatusTextKey::dlgWhitelistPrimary, "dlg_whitelist_primary", "Проверить ещё раз"},
    {SmartStatusTextKey::dlgWhitelistSecondary, "dlg_whitelist_secondary", "Понятно"},
    {SmartStatusTextKey::dlgNoInternetTitle, "dlg_no_internet_title", "Нет интернета"},
    {SmartStatusTextKey::dlgNoInternetMessage, "dlg_no_internet_message",
     "Похоже, у вас сейчас нет доступа к интернету. Проверьте Wi-Fi или мобильную сеть. VPN остаётся включённым: как "
     "только сеть появится, статус обновится сам."},
    {SmartStatusTextKey::dlgNoInternetPrimary, "dlg_no_internet_primary", "Проверить ещё раз"},
    // the dialog says the status updates itself: the second button just closes it
    {SmartStatusTextKey::dlgNoInternetSecondary, "dlg_no_internet_secondary", "Понятно"},
    {SmartStatusTextKey::dlgSubExpiredTitle, "dlg_sub_expired_title", "Похоже, закончилась подписка"},
    {SmartStatusTextKey::dlgSubExpiredMessage, "dlg_sub_expired_message",
     "VPN подключился, но трафик не проходит — обычно так бывает, когда заканчивается подписка. Выключите VPN — и мы "
     "проверим точно."},
    {SmartStatusTextKey::dlgSubExpiredPrimary, "dlg_sub_expired_primary", "Выключить и проверить"},
    {SmartStatusTextKey::dlgSubExpiredSecondary, "dlg_sub_expired_secondary", "Позже"},
}};

constexpr bool tableFollowsEnum() {
  for (std::size_t i = 0; i < kTexts.size(); ++i) {
    if (static_cast<std::size_t>(kTexts[i].key) != i) return false;
  }
  return true;
}
static_assert(tableFollowsEnum(), "kTexts must list the keys in enum order");

const TextEntry& entry(SmartStatusTextKey key) {
  const auto index = static_cast<std::size_t>(key);
  return kTexts[index < kTexts.size() ? index : 0];
}

}  // namespace

std::string_view jsonKey(SmartStatusTextKey key) { return entry(key).json; }

std::string_view builtInWording(SmartStatusTextKey key) { return entry(key).wording; }

std::string smartStatusText(const std::optional<SmartStatusTexts>& texts, SmartStatusTextKey key) {
  if (texts) {
    if (const auto& sent = (*texts)[key]; sent && !sent->empty()) return *sent;
  }
  return std::string(builtInWording(key));
}

std::string_view toString(SmartStatusDiagnosis diagnosis) {
  switch (diagnosis) {
    case SmartStatusDiagnosis::ourSide:
      return "ourSide";
    case SmartStatusDiagnosis::whitelist:
      return "whitelist";
    case SmartStatusDiagnosis::noInternet:
      return "noInternet";
    case SmartStatusDiagnosis::subExpired:
      return "subExpired";
    default:
      return "unknown";
  }
}

std::string toString(SmartStatusHealth health) {
  using Case = SmartStatusHealth::Case;
  switch (health.kind()) {
    case Case::none:
      return "none";
    case Case::checking:
      return "checking";
    case Case::repairing:
      return "repairing";
    case Case::rechecking:
      return "rechecking";
    case Case::refreshing:
      return "refreshing";
    case Case::protected_:
      return "protected";
    case Case::problem:
      return "problem(" + std::string(toString(*health.diagnosis())) + ")";
    default:
      return "unknown";
  }
}

SmartStatusTextKey statusTextKey(SmartStatusHealth health) {
  using Case = SmartStatusHealth::Case;
  switch (health.kind()) {
    case Case::none:
      return SmartStatusTextKey::statusConnected;
    case Case::checking:
      return SmartStatusTextKey::statusChecking;
    case Case::repairing:
      return SmartStatusTextKey::statusRepairing;
    case Case::rechecking:
      return SmartStatusTextKey::statusRechecking;
    case Case::refreshing:
      return SmartStatusTextKey::statusRefreshing;
    case Case::protected_:
      return SmartStatusTextKey::statusProtected;
    case Case::problem:
      switch (*health.diagnosis()) {
        case SmartStatusDiagnosis::ourSide:
          return SmartStatusTextKey::statusProblemOurSide;
        case SmartStatusDiagnosis::whitelist:
          return SmartStatusTextKey::statusProblemWhitelist;
        case SmartStatusDiagnosis::noInternet:
          return SmartStatusTextKey::statusProblemNoInternet;
        case SmartStatusDiagnosis::subExpired:
          return SmartStatusTextKey::statusProblemSubExpired;
        default:
          return SmartStatusTextKey::statusProblemOurSide;
      }
    default:
      return SmartStatusTextKey::statusConnected;
  }
}

SmartStatusDialogTexts dialogTexts(const std::optional<SmartStatusTexts>& texts, SmartStatusDiagnosis diagnosis) {
  using K = SmartStatusTextKey;
  auto gather = [&](K title, K message, K primary, K secondary) {
    return SmartStatusDialogTexts{smartStatusText(texts, title), smartStatusText(texts, message),
                                  smartStatusText(texts, primary), smartStatusText(texts, secondary)};
  };
  switch (diagnosis) {
    case SmartStatusDiagnosis::whitelist:
      return gather(K::dlgWhitelistTitle, K::dlgWhitelistMessage, K::dlgWhitelistPrimary, K::dlgWhitelistSecondary);
    case SmartStatusDiagnosis::noInternet:
      return gather(K::dlgNoInternetTitle, K::dlgNoInternetMessage, K::dlgNoInternetPrimary, K::dlgNoInternetSecondary);
    case SmartStatusDiagnosis::subExpired:
      return gather(K::dlgSubExpiredTitle, K::dlgSubExpiredMessage, K::dlgSubExpiredPrimary, K::dlgSubExpiredSecondary);
    case SmartStatusDiagnosis::ourSide:
    default:
      return gather(K::dlgOurSideTitle, K::dlgOurSideMessage, K::dlgOurSidePrimary, K::dlgOurSideSecondary);
  }
}

}  // namespace norvik
