#include "gui/home_model.h"

#include <QJsonObject>
#include <QPointer>
#include <QStringList>

namespace norvik::gui {
namespace {

Card card(const QJsonValue& value) {
  const QJsonObject object = value.toObject();
  return Card{object.value("title").toString(), object.value("message").toString()};
}

}  // namespace

HomeModel::HomeModel(AgentLink& link, QObject* parent) : QObject(parent), link_(link) {
  connect(&link_, &AgentLink::topicChanged, this, [this](const QString& topic) {
    if (topic == "home" || topic == "extension") emit changed();
  });
  connect(&link_, &AgentLink::subscribedChanged, this, &HomeModel::changed);
}

HomeModel::Toggle HomeModel::toggleState() const {
  const QString tunnel = home().value("tunnel").toString();
  if (tunnel == "connecting" || tunnel == "disconnecting" || tunnel == "reasserting") return Toggle::busy;
  if (!home().value("busy").toString().isEmpty()) return Toggle::busy;
  if (tunnel == "connected") return Toggle::on;
  return Toggle::off;
}

bool HomeModel::toggleEnabled() const { return reachable() && !home().value("switchLocked").toBool(); }

QString HomeModel::stateText() const {
  if (!reachable()) return tr("Нет связи с агентом");
  return home().value("tunnelText").toString();
}

QString HomeModel::busyText() const { return home().value("busy").toString(); }
QString HomeModel::server() const { return home().value("server").toString(); }
QString HomeModel::location() const { return home().value("location").toString(); }

QString HomeModel::serverDetail() const {
  QStringList parts;
  for (const char* field : {"serverName", "server"}) {
    const QString part = home().value(field).toString();
    if (!part.isEmpty()) parts << part;
  }
  return parts.join(QStringLiteral(" · "));
}

bool HomeModel::canChangeServer() const {
  return reachable() && home().value("configured").toBool() && home().value("operation").toString() == "none" &&
         !home().value("switchLocked").toBool();
}

QString HomeModel::healthText() const { return home().value("health").toString(); }

HomeModel::Health HomeModel::health() const {
  const QString raw = home().value("healthRaw").toString();
  if (raw == "ok") return Health::ok;
  if (raw == "busy") return Health::busy;
  if (raw == "problem") return Health::problem;
  return Health::none;
}

Card HomeModel::lastError() const { return card(home().value("lastError")); }
Card HomeModel::permissionCard() const { return card(home().value("permissionCard")); }
Card HomeModel::approvalCard() const { return card(home().value("approvalCard")); }
Card HomeModel::extensionBanner() const { return card(link_.object("extension").value("banner")); }
QString HomeModel::modeLabel() const { return home().value("modeLabel").toString(); }
QString HomeModel::modeNotice() const { return home().value("modeNotice").toString(); }

void HomeModel::setAgentNote(const QString& note) {
  if (note == agentNote_) return;
  agentNote_ = note;
  emit changed();
}

void HomeModel::toggle() { send("toggle"); }
void HomeModel::changeServer() { send("change-server"); }

void HomeModel::send(const QString& command) {
  replyText_.clear();
  const int ticket = ++pending_;
  emit changed();
  link_.request(QJsonObject{{"command", command}}, [self = QPointer(this), ticket](const QJsonObject& reply) {
    if (self) self->answered(ticket, reply);
  });
}

void HomeModel::answered(int ticket, const QJsonObject& reply) {
  if (ticket != pending_) return;  // a later request of the user speaks now
  // Success shows in the state itself (and the agent's own toast); a request the user's later
  // word replaced, and a refusal the home screen already shows as the last error, need no words.
  const bool saidElsewhere = reply.value("ok").toBool() || reply.value("code").toString() == "superseded" ||
                             card(reply.value("error")) == lastError();
  replyText_ = saidElsewhere ? QString() : AgentLink::errorText(reply);
  emit changed();
}

}  // namespace norvik::gui
