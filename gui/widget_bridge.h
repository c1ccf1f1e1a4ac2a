#pragma once

#include <QFileSystemWatcher>
#include <QJsonObject>
#include <QObject>
#include <QString>

namespace norvik::gui {

// The widget's side of the group container, and nothing else: it reads "widget-state.json" when
// the application posts "com.norvik.macos.widget.state", and leaves commands in
// "widget-command.json" followed by "com.norvik.macos.widget.command". A named notification is a
// file of that name in the notification directory, replaced by a rename; the widget watches the
// directory, so it wakes only when something is posted.
//
// Threading: the GUI thread.
class WidgetBridge : public QObject {
  Q_OBJECT

 public:
  static constexpr const char* kStateNotification = "com.norvik.macos.widget.state";
  static constexpr const char* kCommandNotification = "com.norvik.macos.widget.command";

  // `home` is the agent's home directory (group container and notification directory below it).
  explicit WidgetBridge(const QString& home, QObject* parent = nullptr);

  // Reads the state file once and starts following the notifications.
  void start();

  [[nodiscard]] bool hasState() const { return !state_.isEmpty(); }
  [[nodiscard]] QString phase() const { return state_.value("phase").toString(); }
  [[nodiscard]] QString statusText() const { return state_.value("statusText").toString(); }
  [[nodiscard]] bool canToggle() const { return state_.value("canToggle").toBool(); }
  [[nodiscard]] bool canChangeServer() const { return state_.value("canChangeServer").toBool(); }
  [[nodiscard]] QString healthRaw() const { return state_.value("healthRaw").toString(); }
  [[nodiscard]] QString trafficDown() const { return state_.value("trafficDown").toString(); }
  [[nodiscard]] QString trafficUp() const { return state_.value("trafficUp").toString(); }
  [[nodiscard]] QString tunnelAddress() const { return state_.value("tunnelAddress").toString(); }
  [[nodiscard]] bool appRunning() const { return state_.value("appRunning").toBool(true); }

  // Leaves a command ("toggle" or "changeServer") and posts it. False when the files could not be
  // written.
  bool send(const QString& kind);

  [[nodiscard]] QString stateFile() const;
  [[nodiscard]] QString commandFile() const;
  [[nodiscard]] const QString& notificationDirectory() const { return notify_; }

 signals:
  void changed();

 private:
  void readState();
  bool post(const char* name);

  QString container_;
  QString notify_;
  QFileSystemWatcher watcher_;
  QByteArray lastStateStamp_;
  QJsonObject state_;
};

}  // namespace norvik::gui
