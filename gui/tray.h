#pragma once

#include <QObject>

class QMenu;
class QSystemTrayIcon;

namespace norvik::gui {

class MenuModel;

// The tray item: the agent's menu-bar model as a menu, plus "Выйти" of the application itself.
// Quitting ends only the application; the tunnel stays as the user had it.
class Tray : public QObject {
  Q_OBJECT

 public:
  explicit Tray(MenuModel& model, QObject* parent = nullptr);
  ~Tray() override;
  [[nodiscard]] QMenu* menu() const { return menu_; }
  // Shows the icon where the desktop has a tray; false where it has none.
  bool show();
  // The icon, kept current whether or not the desktop shows it: protected or not, the menu's title
  // as its tool tip.
  [[nodiscard]] QSystemTrayIcon* icon() const { return icon_; }

 signals:
  void quitRequested();

 private:
  void render();
  MenuModel& model_;
  QMenu* menu_;
  QSystemTrayIcon* icon_;
};

}  // namespace norvik::gui
