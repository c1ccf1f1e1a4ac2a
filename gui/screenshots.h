#pragma once

#include <QObject>
#include <QString>

#include <functional>

class QWidget;

namespace norvik::gui {

struct Models;
class MainWindow;
class Tray;
class WidgetBridge;

// Renders the screens a user sees to PNG files, driving the application as a user would against a
// running agent: the home screen before and after connecting, the mode tab and its confirmation,
// the sites screen, settings, the tray menu, the widget and the updater; or (`set` "update") the
// forced update prompt. Each step waits for what the agent sends, within a time limit.
class ScreenshotWalk : public QObject {
  Q_OBJECT

 public:
  ScreenshotWalk(Models& models, MainWindow& window, Tray& tray, QString home, QString directory, QString set);
  void start();

 signals:
  // 0 when every screen was rendered; otherwise 1, after saying which step did not come.
  void finished(int status);

 private:
  struct Step {
    QString what;
    std::function<bool()> ready;
    std::function<void()> then;
    int timeoutMs = 20000;
  };
  void plan();
  void tick();
  void shoot(QWidget* widget, const QString& name);

  Models& models_;
  MainWindow& window_;
  Tray& tray_;
  QString home_;
  QString directory_;
  QString set_;
  QList<Step> steps_;
  QWidget* widgetRoot_ = nullptr;
  WidgetBridge* widgetBridge_ = nullptr;
  int current_ = 0;
  int waitedMs_ = 0;
};

}  // namespace norvik::gui
