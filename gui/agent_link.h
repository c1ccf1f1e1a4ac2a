#pragma once

#include <QHash>
#include <QJsonObject>
#include <QJsonValue>
#include <QLocalSocket>
#include <QObject>
#include <QString>
#include <QTimer>

#include <functional>

namespace norvik::gui {

// The application's side of the agent's control socket. One connection carries the subscription
// to every topic; each request gets a connection of its own, so that a long request (a connect, an
// install) never holds up an answer to a dialog. The link keeps the last value of every topic and
// announces changes; it holds no state of the tunnel beyond what the agent sent.
//
// Threading: the GUI thread. Ownership: owns its sockets; a reply callback is dropped with the link.
class AgentLink : public QObject {
  Q_OBJECT

 public:
  using Reply = std::function<void(const QJsonObject& reply)>;
  using Progress = std::function<void(const QJsonObject& event)>;

  explicit AgentLink(QString socketPath, QObject* parent = nullptr);

  // Opens the subscription. While the agent cannot be reached the link tries again every
  // `retryMs`; once subscribed it does nothing until the agent speaks.
  void start(int retryMs = 1000);
  [[nodiscard]] bool subscribed() const { return subscribed_; }
  [[nodiscard]] const QString& socketPath() const { return socketPath_; }

  // The last value of `topic` (null until the agent sent one).
  [[nodiscard]] QJsonValue topic(const QString& name) const { return topics_.value(name); }
  [[nodiscard]] QJsonObject object(const QString& name) const { return topics_.value(name).toObject(); }

  // Sends one request on a fresh connection. `done` gets the final line, or, when the agent
  // cannot be reached or hangs up, {"ok": false, "code": "unreachable", "error": {...}}.
  void request(const QJsonObject& request, const Reply& done = {}, const Progress& progress = {});

  // Sends a change the agent may want confirmed first ("dialog": true): the confirmation then
  // comes as a dialog of the overlay queue and the topics say what the user chose. `refused` gets
  // the words of a refusal only — a success, a dialog to answer or a replacement by a later request
  // needs none — and is not called once `owner` is gone.
  void requestChange(QJsonObject request, QObject* owner, std::function<void(const QString& error)> refused);

  static QString errorText(const QJsonObject& reply);

 signals:
  void topicChanged(const QString& topic);
  void openWindowRequested();
  void subscribedChanged(bool subscribed);

 private:
  void connectSubscription();
  void readSubscription();
  void handleEvent(const QJsonObject& event);

  QString socketPath_;
  QLocalSocket* subscription_ = nullptr;
  QByteArray buffer_;
  QTimer retry_;
  bool subscribed_ = false;
  QHash<QString, QJsonValue> topics_;
};

}  // namespace norvik::gui
