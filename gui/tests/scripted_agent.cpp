#include "gui/tests/scripted_agent.h"

#include <QJsonDocument>

namespace norvik::gui::testing {

ScriptedAgent::ScriptedAgent() { connect(&server_, &QLocalServer::newConnection, this, &ScriptedAgent::accept); }

ScriptedAgent::~ScriptedAgent() {
  // The sockets die with the server, after this object's lists: they must not call back.
  for (QLocalSocket* socket : server_.findChildren<QLocalSocket*>()) socket->disconnect(this);
}

bool ScriptedAgent::listen() { return server_.listen(socketPath()); }

void ScriptedAgent::stop() {
  server_.close();
  for (QLocalSocket* socket : server_.findChildren<QLocalSocket*>()) socket->abort();
  subscribers_.clear();
}

void ScriptedAgent::publish(const QString& topic, const QJsonValue& value) {
  if (!topics_.contains(topic)) order_.append(topic);
  topics_.insert(topic, value);
  for (QLocalSocket* socket : subscribers_) {
    send(socket, QJsonObject{{"event", "changed"}, {"topic", topic}, {"value", value}});
  }
}

void ScriptedAgent::openWindow() {
  for (QLocalSocket* socket : subscribers_) {
    send(socket, QJsonObject{{"event", "open-window"}, {"topic", "home"}, {"value", QJsonValue::Null}});
  }
}

void ScriptedAgent::accept() {
  while (QLocalSocket* socket = server_.nextPendingConnection()) {
    socket->setParent(&server_);
    connect(socket, &QLocalSocket::readyRead, this, [this, socket] {
      while (socket->canReadLine()) {
        const QJsonDocument request = QJsonDocument::fromJson(socket->readLine());
        handle(socket, request.object());
      }
    });
    connect(socket, &QLocalSocket::disconnected, this, [this, socket] {
      subscribers_.removeAll(socket);
      socket->deleteLater();
    });
  }
}

void ScriptedAgent::handle(QLocalSocket* socket, const QJsonObject& request) {
  const QString command = request.value("command").toString();
  if (command == "subscribe") {
    for (const QString& topic : order_) {
      send(socket, QJsonObject{{"event", "snapshot"}, {"topic", topic}, {"value", topics_.value(topic)}});
    }
    subscribers_.append(socket);
    return;
  }
  requests_.append(request);
  for (const QJsonObject& event : progress_.value(command)) send(socket, event);
  send(socket, replies_.value(command, QJsonObject{{"ok", true}}));
  emit requested(request);
}

void ScriptedAgent::send(QLocalSocket* socket, const QJsonObject& line) {
  socket->write(QJsonDocument(line).toJson(QJsonDocument::Compact) + '\n');
}

}  // namespace norvik::gui::testing
