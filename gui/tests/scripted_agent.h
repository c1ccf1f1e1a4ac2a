#pragma once

#include <QHash>
#include <QJsonObject>
#include <QList>
#include <QLocalServer>
#include <QLocalSocket>
#include <QObject>
#include <QTemporaryDir>

#include <functional>

namespace norvik::gui::testing {

// A peer of the control socket speaking the management interface as the agent documents it: a
// subscription gets one snapshot per topic and then the changes the test publishes; every other
// request is recorded and answered with the reply the test scripted for its command ({"ok": true}
// when none).
class ScriptedAgent : public QObject {
  Q_OBJECT

 public:
  ScriptedAgent();
  ~ScriptedAgent() override;
  ScriptedAgent(const ScriptedAgent&) = delete;
  ScriptedAgent& operator=(const ScriptedAgent&) = delete;

  [[nodiscard]] QString socketPath() const { return dir_.filePath("agent.sock"); }
  [[nodiscard]] QString home() const { return dir_.path(); }
  bool listen();
  // Hangs up on everyone and stops listening, as an agent that ends.
  void stop();

  // The value a new subscriber gets in its snapshot; also published to the current subscribers.
  void publish(const QString& topic, const QJsonValue& value);
  void openWindow();
  void reply(const QString& command, const QJsonObject& answer) { replies_.insert(command, answer); }
  // Progress lines sent before the final answer of `command`.
  void progress(const QString& command, const QList<QJsonObject>& events) { progress_.insert(command, events); }

  [[nodiscard]] const QList<QJsonObject>& requests() const { return requests_; }
  [[nodiscard]] QJsonObject lastRequest() const { return requests_.isEmpty() ? QJsonObject() : requests_.last(); }
  [[nodiscard]] int subscribers() const { return static_cast<int>(subscribers_.size()); }

 signals:
  void requested(const QJsonObject& request);

 private:
  void accept();
  void handle(QLocalSocket* socket, const QJsonObject& request);
  static void send(QLocalSocket* socket, const QJsonObject& line);

  QTemporaryDir dir_;
  QLocalServer server_;
  QList<QString> order_;
  QHash<QString, QJsonValue> topics_;
  QHash<QString, QJsonObject> replies_;
  QHash<QString, QList<QJsonObject>> progress_;
  QList<QJsonObject> requests_;
  QList<QLocalSocket*> subscribers_;
};

}  // namespace norvik::gui::testing
