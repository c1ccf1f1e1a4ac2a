#include "tunnel/menu_bar_model.h"

#include "tunnel/vpn_manager.h"

namespace norvik {

std::string_view tunnelStateText(TunnelStatus status) {
  switch (status) {
    case TunnelStatus::connected:
      return "Защищено";
    case TunnelStatus::connecting:
    case TunnelStatus::reasserting:
      return "Подключение...";
    case TunnelStatus::disconnecting:
      return "Отключение...";
    case TunnelStatus::invalid:
    case TunnelStatus::disconnected:
    default:
      return "Отключено";
  }
}

MenuBarModel::MenuBarModel(VPNManager& vpn, Handlers handlers) : vpn_(vpn), handlers_(std::move(handlers)) {
  rebuild();
  stateSubscription_ = vpn_.connectionState().subscribe([this](const TunnelStatus&) { rebuild(); });
}

void MenuBarModel::setUpdateFacts(MenuBarUpdateFacts facts) {
  if (facts == update_) return;
  update_ = std::move(facts);
  rebuild();
}

void MenuBarModel::setLaunchAtLogin(bool enabled) {
  if (enabled == launchAtLogin_) return;
  launchAtLogin_ = enabled;
  rebuild();
}

void MenuBarModel::rebuild() {
  using Action = MenuBarItem::Action;
  const TunnelStatus status = vpn_.connectionState().get();
  MenuBarMenu menu;
  menu.title = "Norvik — " + std::string(tunnelStateText(status));

  // A tunnel on its way up can be stopped, and one on its way down started again: the last choice
  // wins.
  if (isLive(status)) {
    menu.items.push_back({"Отключить", Action::disconnect});
  } else {
    menu.items.push_back({"Подключить", Action::connect});
  }
  menu.items.push_back({"Запускать при входе в систему", Action::toggleLaunchAtLogin, true, launchAtLogin_});
  menu.items.push_back({"Открыть Norvik", Action::openMainWindow});

  if (update_.downloading) {
    menu.items.push_back({"Загрузка обновления…", Action::installUpdate, false});
  } else if (update_.available && update_.version) {
    menu.items.push_back({"Обновить до " + *update_.version, Action::installUpdate});
  } else if (update_.available) {
    menu.items.push_back({"Обновить приложение", Action::installUpdate});
  }
  menu_.set(std::move(menu));
}

void MenuBarModel::choose(const MenuBarItem& item) const {
  if (!item.enabled) return;
  auto call = [](const std::function<void()>& handler) {
    if (handler) handler();
  };
  switch (item.action) {
    case MenuBarItem::Action::connect:
      return call(handlers_.connect);
    case MenuBarItem::Action::disconnect:
      return call(handlers_.disconnect);
    case MenuBarItem::Action::toggleLaunchAtLogin:
      if (handlers_.setLaunchAtLogin) handlers_.setLaunchAtLogin(!item.checked.value_or(false));
      return;
    case MenuBarItem::Action::openMainWindow:
      return call(handlers_.openMainWindow);
    case MenuBarItem::Action::installUpdate:
      return call(handlers_.installUpdate);
    default:
      return;
  }
}

}  // namespace norvik
