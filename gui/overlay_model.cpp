#include "gui/overlay_model.h"

#include <QJsonArray>
#include <QPointer>

namespace norvik::gui {

OverlayModel::OverlayModel(AgentLink& link, QObject* parent) : QObject(parent), link_(link) {
  connect(&link_, &AgentLink::topicChanged, this, [this](const QString& topic) {
    if (topic == "overlay") emit changed();
  });
}

OverlayModel::Kind OverlayModel::kind() const {
  const QString kind = overlay().value("kind").toString();
  if (kind == "dialog") return Kind::dialog;
  if (kind == "toast") return Kind::toast;
  return Kind::none;
}

QList<OverlayButton> OverlayModel::buttons() const {
  QList<OverlayButton> buttons;
  for (const auto& button : overlay().value("buttons").toArray()) {
    buttons.append(
        OverlayButton{button.toObject().value("index").toInt(), button.toObject().value("title").toString()});
  }
  return buttons;
}

void OverlayModel::answer(int buttonIndex, bool dontShowAgain) {
  QJsonObject request{{"command", "answer"}, {"id", id()}, {"button", buttonIndex}};
  if (dontShowAgain) request.insert("dontShowAgain", true);
  // A "not-showing" answer means another front-end answered first: the next overlay event shows
  // what is on screen now, so there is nothing to do with the reply.
  link_.request(request);
}

PromptModel::PromptModel(AgentLink& link, QObject* parent) : QObject(parent), link_(link) {
  connect(&link_, &AgentLink::topicChanged, this, [this](const QString& topic) {
    if (topic == "prompt") emit changed();
  });
}

void PromptModel::answer(const QString& button) {
  link_.request(QJsonObject{{"command", "answer"}, {"id", id()}, {"button", button}},
                [self = QPointer(this)](const QJsonObject& reply) {
                  const QString url = reply.value("openURL").toString();
                  if (self && reply.value("ok").toBool() && !url.isEmpty()) emit self->openUrl(url);
                });
}

}  // namespace norvik::gui
