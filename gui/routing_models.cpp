#include "gui/routing_models.h"

#include <QJsonArray>
#include <QPointer>

namespace norvik::gui {

ModeModel::ModeModel(AgentLink& link, QObject* parent) : QObject(parent), link_(link) {
  connect(&link_, &AgentLink::topicChanged, this, [this](const QString& topic) {
    if (topic == "mode") emit changed();
  });
}

QList<ModeChoice> ModeModel::choices() const {
  QList<ModeChoice> choices;
  for (const auto& value : mode().value("allowed").toArray()) {
    const QJsonObject choice = value.toObject();
    choices.append(ModeChoice{choice.value("mode").toString(), choice.value("label").toString(),
                              choice.value("description").toString()});
  }
  return choices;
}

void ModeModel::choose(const QString& mode) {
  if (mode == current() && error_.isEmpty()) return;
  error_.clear();
  emit changed();
  // The full mode's confirmation comes back as a dialog of the overlay queue (code "confirm"):
  // the mode changes when the user answers it, and the topic then says so.
  link_.requestChange(QJsonObject{{"command", "mode"}, {"set", mode}}, this, [this](const QString& error) {
    error_ = error;
    emit changed();
  });
}

SitesModel::SitesModel(AgentLink& link, QObject* parent) : QObject(parent), link_(link) {
  connect(&link_, &AgentLink::topicChanged, this, [this](const QString& topic) {
    if (topic == "sites") emit changed();
  });
}

QList<ServiceRow> SitesModel::services() const {
  QList<ServiceRow> rows;
  for (const auto& value : sites().value("services").toArray()) {
    const QJsonObject row = value.toObject();
    rows.append(ServiceRow{row.value("key").toString(), row.value("title").toString(), row.value("on").toBool()});
  }
  return rows;
}

QList<DomainRow> SitesModel::domains() const {
  QList<DomainRow> rows;
  for (const auto& value : sites().value("domains").toArray()) {
    const QJsonObject row = value.toObject();
    rows.append(DomainRow{row.value("domain").toString(), row.value("on").toBool()});
  }
  return rows;
}

QString SitesModel::emptyTitle() const { return sites().value("emptyScreen").toObject().value("title").toString(); }
QString SitesModel::emptyMessage() const { return sites().value("emptyScreen").toObject().value("message").toString(); }
QString SitesModel::vpnOffTitle() const { return sites().value("vpnOffNote").toObject().value("title").toString(); }
QString SitesModel::vpnOffMessage() const { return sites().value("vpnOffNote").toObject().value("message").toString(); }

void SitesModel::setService(const QString& key, bool on) { send(on ? "on" : "off", key, false); }
void SitesModel::addDomain(const QString& domain) {
  fieldText_ = domain;
  send("add", domain.trimmed(), true);
}
void SitesModel::removeDomain(const QString& domain) { send("remove", domain, false); }
void SitesModel::setDomain(const QString& domain, bool on) { send(on ? "enable" : "disable", domain, false); }

void SitesModel::send(const QString& action, const QString& value, bool fromField) {
  link_.request(QJsonObject{{"command", "sites"}, {"action", action}, {"value", value}},
                [self = QPointer(this), fromField](const QJsonObject& reply) {
                  if (!self) return;
                  if (reply.value("ok").toBool()) {
                    if (fromField) {
                      self->fieldText_.clear();
                      self->fieldError_.clear();
                    }
                  } else {
                    // A refusal of a switch is shown beside the field too: it is the one place the
                    // screen has for the agent's words.
                    // The card already names the list; the refusal's own words go beside the field.
                    const QString message = reply.value("error").toObject().value("message").toString();
                    self->fieldError_ = message.isEmpty() ? AgentLink::errorText(reply) : message;
                  }
                  emit self->changed();
                });
}

}  // namespace norvik::gui
