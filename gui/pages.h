#pragma once

#include <QWidget>

class QButtonGroup;
class QLabel;
class QLineEdit;
class QProgressBar;
class QPushButton;
class QVBoxLayout;
class QFrame;

namespace norvik::gui {

class ModeModel;
class SitesModel;
class SettingsModel;
class UpdateModel;
class Switch;
class SwitchRow;

// The mode tab: one card per allowed mode, the disclaimer and the provider's notice.
class ModePage : public QWidget {
  Q_OBJECT

 public:
  ModePage(ModeModel& model, QWidget* parent = nullptr);

 private:
  void render();
  ModeModel& model_;
  QLabel* notice_;
  QLabel* disclaimer_;
  QLabel* error_;
  QVBoxLayout* choices_;
  QButtonGroup* group_;
};

// The sites screen: the catalog's switches and the user's own domains.
class SitesPage : public QWidget {
  Q_OBJECT

 public:
  SitesPage(SitesModel& model, QWidget* parent = nullptr);
  [[nodiscard]] QLineEdit* field() const { return field_; }
  [[nodiscard]] QPushButton* addButton() const { return add_; }

 private:
  void render();
  void add();
  SitesModel& model_;
  QLabel* note_;
  QFrame* emptyCard_;
  QLabel* emptyTitle_;
  QLabel* emptyMessage_;
  QVBoxLayout* services_;
  QVBoxLayout* domains_;
  QFrame* ownCard_;
  QLabel* ownTitle_;
  QLabel* servicesTitle_;
  QLineEdit* field_;
  QPushButton* add_;
  QLabel* fieldError_;
  QLabel* limit_;
};

// Settings and about: launch at login, the smart mode, the updater, support and sharing.
class SettingsPage : public QWidget {
  Q_OBJECT

 public:
  SettingsPage(SettingsModel& settings, UpdateModel& update, QWidget* parent = nullptr);

 signals:
  void openUrl(const QString& url);

 private:
  void render();
  SettingsModel& settings_;
  UpdateModel& update_;
  Switch* launchAtLogin_;
  Switch* smartMode_;
  SwitchRow* smartRow_;
  QLabel* settingsError_;
  QLabel* updateText_;
  QLabel* updateTitle_;
  QLabel* notes_;
  QProgressBar* progress_;
  QPushButton* check_;
  QPushButton* install_;
  QPushButton* later_;
  QPushButton* cancel_;
  QPushButton* support_;
  QPushButton* channel_;
  QPushButton* share_;
  QLabel* company_;
  QLabel* version_;
};

}  // namespace norvik::gui
