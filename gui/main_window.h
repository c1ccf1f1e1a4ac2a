#pragma once

#include <QMainWindow>

#include "gui/agent_link.h"
#include "gui/home_model.h"
#include "gui/overlay_model.h"
#include "gui/routing_models.h"
#include "gui/settings_models.h"
#include "gui/update_model.h"

class QPushButton;
class QStackedWidget;

namespace norvik::gui {

class HomePage;
class ModePage;
class OverlayLayer;
class SettingsPage;
class SitesPage;
class Tray;

// Every view model of the application, fed by one link.
struct Models {
  explicit Models(AgentLink& link)
      : home(link),
        overlay(link),
        prompt(link),
        mode(link),
        sites(link),
        update(link),
        menu(link),
        settings(link, menu) {}
  HomeModel home;
  OverlayModel overlay;
  PromptModel prompt;
  ModeModel mode;
  SitesModel sites;
  UpdateModel update;
  MenuModel menu;
  SettingsModel settings;
};

// The main window: a side bar of screens (home, mode, sites, settings), the screen, and the
// overlay queue over it. Closing it hides it; the tray item stays.
class MainWindow : public QMainWindow {
  Q_OBJECT

 public:
  enum class Screen { home, mode, sites, settings };

  explicit MainWindow(Models& models, QWidget* parent = nullptr);
  void showScreen(Screen screen);
  // Brings the window forward (the agent's open-window event, the tray's "Открыть Norvik").
  void bringForward();
  // Closing hides the window instead of ending the application (when a tray item is there).
  void setHideOnClose(bool hide) { hideOnClose_ = hide; }

  [[nodiscard]] HomePage* homePage() const { return home_; }
  [[nodiscard]] ModePage* modePage() const { return mode_; }
  [[nodiscard]] SitesPage* sitesPage() const { return sites_; }
  [[nodiscard]] SettingsPage* settingsPage() const { return settings_; }
  [[nodiscard]] OverlayLayer* overlay() const { return overlay_; }
  [[nodiscard]] QPushButton* navButton(Screen screen) const;

 protected:
  void closeEvent(QCloseEvent* event) override;

 private:
  void renderNav();
  static void openUrl(const QString& url);

  Models& models_;
  QStackedWidget* stack_;
  QList<QPushButton*> nav_;
  HomePage* home_;
  ModePage* mode_;
  SitesPage* sites_;
  SettingsPage* settings_;
  OverlayLayer* overlay_;
  bool hideOnClose_ = false;
};

}  // namespace norvik::gui
