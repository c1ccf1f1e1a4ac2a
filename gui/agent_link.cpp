#include "gui/agent_link.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QPointer>

#include <memory>

namespace norvik::gui {
namespace {

// No line of the agent comes near this; a peer that sends more without a newline is not the agent.
constexpr qsizetype kMaxLine = 4 << 20;

QByteArray encode(const QJsonObject& object) { return QJsonDocument(object).toJson(QJsonDocument::Compact) + '\n'; }

QJsonObject unreachable(const QString& why) {
  return QJsonObject{
      {"ok", false}, {"code", "unreachable"}, {"error", QJsonObject{{"title", QString()}, {"message", why}}}};
}

// Takes the complete lines off the front of `buffer`.
QList<QJsonObject> takeLines(QByteArray& buffer, bool& broken) {
  QList<QJsonObject> lines;
  qsizetype start = 0;
  for (qsizetype end = buffer.indexOf('\n'); end >= 0; end = buffer.indexOf('\n', start)) {
    const QJsonDocument document = QJsonDocument::fromJson(buffer.mid(start, end - start));
    if (document.isObject()) lines.append(document.object());
    start = end + 1;
  }
  buffer.remove(0, start);
  broken = buffer.size() > kMaxLine;
  return lines;
}

}  // namespace

AgentLink::AgentLink(QString socketPath, QObject* parent) : QObject(parent), socketPath_(std::move(socketPath)) {
  retry_.setSingleShot(true);
  connect(&retry_, &QTimer::timeout, this, &AgentLink::connectSubscription);
}

void AgentLink::start(int retryMs) {
  retry_.setInterval(retryMs);
  connectSubscription();
}

void AgentLink::connectSubscription() {
  if (subscription_ != nullptr) subscription_->deleteLater();
  buffer_.clear();
  subscription_ = new QLocalSocket(this);
  QLocalSocket* socket = subscription_;
  connect(socket, &QLocalSocket::connected, this, [socket] {
    socket->write(encode(QJsonObject{{"command", "subscribe"}}));
  });
  connect(socket, &QLocalSocket::readyRead, this, &AgentLink::readSubscription);
  connect(socket, &QLocalSocket::disconnected, this, [this, socket] {
    if (socket != subscription_) return;
    if (subscribed_) {
      subscribed_ = false;
      emit subscribedChanged(false);
    }
    retry_.start();
  });
  connect(socket, &QLocalSocket::errorOccurred, this, [this, socket](QLocalSocket::LocalSocketError) {
    if (socket != subscription_ || socket->state() == QLocalSocket::ConnectedState) return;
    if (subscribed_) {
      subscribed_ = false;
      emit subscribedChanged(false);
    }
    retry_.start();
  });
  socket->connectToServer(socketPath_);
}

void AgentLink::readSubscription() {
  buffer_.append(subscription_->readAll());
  bool broken = false;
  const QList<QJsonObject> lines = takeLines(buffer_, broken);
  for (const QJsonObject& line : lines) handleEvent(line);
  if (broken) subscription_->abort();
}

void AgentLink::handleEvent(const QJsonObject& event) {
  const QString kind = event.value("event").toString();
  if (kind.isEmpty()) return;  // the final line of a refused subscription: the hang-up follows
  if (!subscribed_) {
    subscribed_ = true;
    emit subscribedChanged(true);
  }
  if (kind == "open-window") {
    emit openWindowRequested();
    return;
  }
  if (kind != "snapshot" && kind != "changed") return;  // a later kind of event this client does not know
  const QString name = event.value("topic").toString();
  topics_.insert(name, event.value("value"));
  emit topicChanged(name);
}

void AgentLink::request(const QJsonObject& request, const Reply& done, const Progress& progress) {
  auto* socket = new QLocalSocket(this);
  auto buffer = std::make_shared<QByteArray>();
  auto answered = std::make_shared<bool>(false);
  auto finish = [socket, answered, done](const QJsonObject& reply) {
    if (*answered) return;
    *answered = true;
    socket->disconnect();
    socket->deleteLater();
    if (done) done(reply);
  };
  connect(socket, &QLocalSocket::connected, socket, [socket, request] { socket->write(encode(request)); });
  connect(socket, &QLocalSocket::readyRead, socket, [socket, buffer, finish, progress] {
    buffer->append(socket->readAll());
    bool broken = false;
    for (const QJsonObject& line : takeLines(*buffer, broken)) {
      if (line.contains("ok")) {
        finish(line);
        return;
      }
      if (progress) progress(line);
    }
    if (broken) finish(unreachable(tr("Агент прислал непонятный ответ.")));
  });
  connect(socket, &QLocalSocket::disconnected, socket,
          [finish] { finish(unreachable(tr("Агент Norvik не ответил."))); });
  connect(socket, &QLocalSocket::errorOccurred, socket, [finish, socket](QLocalSocket::LocalSocketError) {
    if (socket->state() != QLocalSocket::ConnectedState) finish(unreachable(tr("Агент Norvik не запущен.")));
  });
  socket->connectToServer(socketPath_);
}

void AgentLink::requestChange(QJsonObject request, QObject* owner, std::function<void(const QString& error)> refused) {
  request["dialog"] = true;
  this->request(request, [owner = QPointer(owner), refused = std::move(refused)](const QJsonObject& reply) {
    if (!owner) return;
    const QString code = reply.value("code").toString();
    if (reply.value("ok").toBool() || code == "confirm" || code == "superseded") return;
    refused(errorText(reply));
  });
}

QString AgentLink::errorText(const QJsonObject& reply) {
  const QJsonObject error = reply.value("error").toObject();
  QString title = error.value("title").toString();
  QString message = error.value("message").toString();
  if (title.isEmpty()) return message;
  if (message.isEmpty()) return title;
  return title + ". " + message;
}

}  // namespace norvik::gui
