#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/published.h"
#include "platform/tunnel_service.h"

namespace norvik {

class VPNManager;

// The tunnel's state in words, as the menu bar and the widget show it.
[[nodiscard]] std::string_view tunnelStateText(TunnelStatus status);

// What the application knows about an update of itself, fed from the updater's state.
struct MenuBarUpdateFacts {
  bool available = false;                // an update is known
  std::optional<std::string> version{};  // its version, when known
  bool downloading = false;              // it is being downloaded or unpacked
  bool operator==(const MenuBarUpdateFacts&) const = default;
};

struct MenuBarItem {
  enum class Action { connect, disconnect, toggleLaunchAtLogin, openMainWindow, installUpdate };
  std::string title;
  Action action = Action::openMainWindow;
  bool enabled = true;
  std::optional<bool> checked{};  // set for a check item
  bool operator==(const MenuBarItem&) const = default;
};

struct MenuBarMenu {
  std::string title;  // "Norvik — " and the state
  std::vector<MenuBarItem> items;
  bool operator==(const MenuBarMenu&) const = default;
};

// The menu-bar item as plain data that a front end renders: its title follows the tunnel's state,
// its items the tunnel, the login item and the updater. Choosing an item runs the application's
// handler for it.
//
// Threading: a main-loop object. Ownership: borrows the VPNManager, which outlives it.
class MenuBarModel {
 public:
  struct Handlers {
    std::function<void()> connect;
    std::function<void()> disconnect;
    std::function<void(bool)> setLaunchAtLogin;
    std::function<void()> openMainWindow;
    std::function<void()> installUpdate;
  };

  MenuBarModel(VPNManager& vpn, Handlers handlers);
  MenuBarModel(const MenuBarModel&) = delete;
  MenuBarModel& operator=(const MenuBarModel&) = delete;

  [[nodiscard]] Published<MenuBarMenu>& menu() { return menu_; }

  void setUpdateFacts(MenuBarUpdateFacts facts);
  void setLaunchAtLogin(bool enabled);

  // Runs the handler of an item; a disabled item does nothing.
  void choose(const MenuBarItem& item) const;

 private:
  void rebuild();

  VPNManager& vpn_;
  Handlers handlers_;
  MenuBarUpdateFacts update_;
  bool launchAtLogin_ = false;
  Published<MenuBarMenu> menu_;
  Subscription stateSubscription_;
};

}  // namespace norvik
