#pragma once

#include <QList>
#include <QObject>
#include <QString>

#include "gui/agent_link.h"

namespace norvik::gui {

struct MenuItem {
  int index = 0;
  QString title;
  QString action;  // "connect", "disconnect", "toggleLaunchAtLogin", "openMainWindow", "installUpdate"
  bool enabled = true;
  bool checkable = false;
  bool checked = false;
  bool operator==(const MenuItem&) const = default;
};

// The menu-bar item as the agent builds it: "Norvik — " and the state, connect or disconnect, the
// login item, "Открыть Norvik" and the update items. The tray shows exactly this.
class MenuModel : public QObject {
  Q_OBJECT

 public:
  explicit MenuModel(AgentLink& link, QObject* parent = nullptr);

  [[nodiscard]] QString title() const;
  [[nodiscard]] QList<MenuItem> items() const;
  [[nodiscard]] bool launchAtLogin() const;
  [[nodiscard]] int launchAtLoginIndex() const;

  void choose(int index);

 signals:
  void changed();
  // "Открыть Norvik" chosen here, or the agent's open-window event (a widget link, another menu).
  void openWindow();

 private:
  [[nodiscard]] QJsonObject menu() const { return link_.object("menu"); }
  AgentLink& link_;
};

// Settings and about: launch at login, the smart mode's switch with its confirmation, the support
// and share links, and the company block when the backend shows it.
class SettingsModel : public QObject {
  Q_OBJECT

 public:
  SettingsModel(AgentLink& link, MenuModel& menu, QObject* parent = nullptr);

  [[nodiscard]] bool launchAtLogin() const { return menu_.launchAtLogin(); }
  [[nodiscard]] bool smartModeOffered() const;
  [[nodiscard]] bool smartModeOn() const { return link_.object("mode").value("mode").toString() == "smart"; }
  [[nodiscard]] QString support() const { return links().value("support").toString(); }
  [[nodiscard]] QString supportChannel() const { return links().value("supportChannel").toString(); }
  [[nodiscard]] QString share() const { return links().value("share").toString(); }
  [[nodiscard]] bool showCompany() const { return links().value("showCompany").toBool(); }
  [[nodiscard]] QString version() const { return link_.object("updater").value("currentVersion").toString(); }
  [[nodiscard]] const QString& errorText() const { return error_; }

  void setLaunchAtLogin(bool on);
  // Switching the smart mode off asks "settings_smart_mode_disable" through the overlay queue
  // (with its "Больше не показывать"), unless the user has hidden that question.
  void setSmartMode(bool on);

 signals:
  void changed();

 private:
  [[nodiscard]] QJsonObject links() const { return link_.object("links"); }
  AgentLink& link_;
  MenuModel& menu_;
  QString error_;
};

}  // namespace norvik::gui
