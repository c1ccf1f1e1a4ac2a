#include "gui/screenshots.h"

#include <QAbstractButton>
#include <QDir>
#include <QLineEdit>
#include <QMenu>
#include <QPushButton>
#include <QRadioButton>
#include <QTimer>
#include <QWidget>

#include "gui/dialogs.h"
#include "gui/home_page.h"
#include "gui/main_window.h"
#include "gui/pages.h"
#include "gui/toggle_button.h"
#include "gui/tray.h"
#include "gui/widget_bridge.h"
#include "gui/widget_window.h"

namespace norvik::gui {
namespace {

constexpr int kTickMs = 50;

}  // namespace

ScreenshotWalk::ScreenshotWalk(Models& models, MainWindow& window, Tray& tray, QString home, QString directory,
                               QString set)
    : models_(models),
      window_(window),
      tray_(tray),
      home_(std::move(home)),
      directory_(std::move(directory)),
      set_(std::move(set)) {}

void ScreenshotWalk::start() {
  QDir().mkpath(directory_);
  plan();
  QTimer::singleShot(0, this, &ScreenshotWalk::tick);
}

void ScreenshotWalk::shoot(QWidget* widget, const QString& name) {
  widget->grab().save(QDir(directory_).filePath(name + ".png"));
  qInfo("%s", qPrintable(QDir(directory_).filePath(name + ".png")));
}

void ScreenshotWalk::plan() {
  HomeModel& home = models_.home;
  auto homeTopic = [this] { return models_.home.reachable() && !models_.home.stateText().isEmpty(); };
  auto dialogUp = [this] { return window_.overlay()->dialogShown(); };
  auto dialogGone = [this] { return !window_.overlay()->dialogShown(); };

  if (set_ == "update") {
    steps_ = {
        {"the forced update prompt", [this] { return models_.prompt.shown(); },
         [this] { shoot(&window_, "update-prompt"); }},
    };
    return;
  }

  steps_ = {
      {"the home screen", [homeTopic, &home] { return homeTopic() && home.toggleState() == HomeModel::Toggle::off; },
       [this] { shoot(&window_, "home-disconnected"); }},
      {"the toggle", [] { return true; }, [this] { window_.homePage()->toggle()->click(); }},
      {"a busy text", [&home] { return !home.busyText().isEmpty() || home.toggleState() == HomeModel::Toggle::on; },
       [this, &home] {
         if (!home.busyText().isEmpty()) shoot(&window_, "home-connecting");
       }},
      {"the tunnel up", [&home] { return home.toggleState() == HomeModel::Toggle::on && !home.server().isEmpty(); },
       [this] { shoot(&window_, "home-connected"); }},
      {"the mode tab", [this] { return models_.mode.tabShown(); },
       [this] {
         window_.showScreen(MainWindow::Screen::mode);
         shoot(&window_, "mode");
         models_.mode.choose("full");
       }},
      {"the full mode's confirmation", dialogUp,
       [this] {
         shoot(&window_, "dialog-full-mode");
         // Cancel: the last button of the confirmation.
         window_.overlay()->buttons().last()->click();
       }},
      {"the dialog closed", dialogGone, [this] { models_.mode.choose("services"); }},
      {"the by-sites mode", [this] { return models_.mode.current() == "services"; },
       [this] {
         window_.showScreen(MainWindow::Screen::sites);
         window_.sitesPage()->field()->setText("пример.рф");
         window_.sitesPage()->addButton()->click();
       }},
      {"the Cyrillic site",
       [this] {
         for (const DomainRow& row : models_.sites.domains()) {
           if (row.domain.contains("пример")) return true;
         }
         return false;
       },
       [this] {
         window_.sitesPage()->field()->setText("не сайт");
         window_.sitesPage()->addButton()->click();
       }},
      {"the refusal beside the field", [this] { return !models_.sites.fieldError().isEmpty(); },
       [this] { shoot(&window_, "sites"); }},
      {"settings", [] { return true; },
       [this] {
         window_.showScreen(MainWindow::Screen::settings);
         shoot(&window_, "settings");
         tray_.menu()->adjustSize();
         shoot(tray_.menu(), "tray-menu");
         window_.showScreen(MainWindow::Screen::home);
         window_.homePage()->changeServerButton()->click();
       }},
      {"the server change's answer",
       [this, &home] { return !home.replyText().isEmpty() || window_.overlay()->toastText().size() > 0; },
       [this] {
         if (!window_.overlay()->toastText().isEmpty()) shoot(&window_, "toast");
         auto* bridge = new WidgetBridge(home_, this);
         auto* widget = new WidgetWindow(*bridge);
         widget->setAttribute(Qt::WA_DeleteOnClose);
         widget->show();
         bridge->start();
         widgetRoot_ = widget;
         widgetBridge_ = bridge;
       }},
      {"the widget's state", [this] { return widgetBridge_ != nullptr && widgetBridge_->phase() == "connected"; },
       [this] {
         shoot(widgetRoot_, "widget");
         widgetRoot_->close();
         window_.showScreen(MainWindow::Screen::settings);
         models_.update.check();
       }},
      {"the updater with the release and its notes",
       [this] {
         return models_.update.state() == "available" && !models_.update.releaseNotes().startsWith("Загружаем");
       },
       [this] { shoot(&window_, "updater"); }},
  };
}

void ScreenshotWalk::tick() {
  if (current_ >= steps_.size()) {
    emit finished(0);
    return;
  }
  Step& step = steps_[current_];
  if (step.ready()) {
    step.then();
    ++current_;
    waitedMs_ = 0;
    QTimer::singleShot(0, this, &ScreenshotWalk::tick);
    return;
  }
  waitedMs_ += kTickMs;
  if (waitedMs_ > step.timeoutMs) {
    qWarning("screenshots: %s did not come within %d ms", qPrintable(step.what), step.timeoutMs);
    emit finished(1);
    return;
  }
  QTimer::singleShot(kTickMs, this, &ScreenshotWalk::tick);
}

}  // namespace norvik::gui
