#include "gui/update_model.h"

#include <QJsonObject>

namespace norvik::gui {

UpdateModel::UpdateModel(AgentLink& link, QObject* parent) : QObject(parent), link_(link) {
  connect(&link_, &AgentLink::topicChanged, this, [this](const QString& topic) {
    if (topic == "updater") emit changed();
  });
}

QString UpdateModel::releaseNotes() const {
  if (updater().value("releaseNotesLoading").toBool()) return tr("Загружаем описание версии…");
  return updater().value("releaseNotes").toString();
}

int UpdateModel::progress() const {
  const QString now = state();
  if (now == "downloading") {
    const double total = updater().value("total").toDouble();
    if (total <= 0) return 0;
    return static_cast<int>(qBound(0.0, updater().value("received").toDouble() / total, 1.0) * 1000);
  }
  if (now == "extracting") return static_cast<int>(qBound(0.0, updater().value("progress").toDouble(), 1.0) * 1000);
  return -1;
}

bool UpdateModel::indeterminate() const { return state() == "downloading" && updater().value("total").toDouble() <= 0; }

QString UpdateModel::installButton() const {
  const QString now = state();
  if (now == "available") {
    const QString button = updater().value("button").toString();
    return button.isEmpty() ? tr("Обновить сейчас") : button;
  }
  if (now == "readyToInstall") return tr("Установить");
  return {};
}

QString UpdateModel::laterButton() const {
  if (state() != "available" || !updater().value("dismissible").toBool(true)) return {};
  return updater().value("laterButton").toString();
}

bool UpdateModel::canCheck() const {
  const QString now = state();
  const bool busy = now == "checking" || now == "downloading" || now == "extracting" || now == "installing";
  return updater().value("canCheck").toBool() && !busy;
}

bool UpdateModel::canCancel() const { return state() == "downloading" || state() == "extracting"; }

void UpdateModel::send(const QString& action) {
  // The topic reports every step and the failure in the user's words; the reply adds nothing.
  link_.request(QJsonObject{{"command", "update"}, {"action", action}});
}

}  // namespace norvik::gui
