#include "gui/tray.h"

#include <QMenu>
#include <QPainter>
#include <QSystemTrayIcon>

#include "gui/settings_models.h"
#include "gui/style.h"

namespace norvik::gui {
namespace {

QIcon stateIcon(bool on) {
  QPixmap pixmap(64, 64);
  pixmap.fill(Qt::transparent);
  QPainter painter(&pixmap);
  painter.setRenderHint(QPainter::Antialiasing);
  painter.setPen(Qt::NoPen);
  painter.setBrush(on ? colors::kProtected : colors::kIdle);
  painter.drawEllipse(QRectF(4, 4, 56, 56));
  painter.setPen(QPen(Qt::white, 6, Qt::SolidLine, Qt::RoundCap));
  painter.setBrush(Qt::NoBrush);
  painter.drawArc(QRectF(18, 18, 28, 28), 120 * 16, 300 * 16);
  painter.drawLine(QPointF(32, 13), QPointF(32, 31));
  return QIcon(pixmap);
}

}  // namespace

Tray::Tray(MenuModel& model, QObject* parent)
    : QObject(parent), model_(model), menu_(new QMenu()), icon_(new QSystemTrayIcon(this)) {
  menu_->setAccessibleName(tr("Меню Norvik"));
  icon_->setContextMenu(menu_);
  // A click on the icon opens the window; the menu is the other button's.
  connect(icon_, &QSystemTrayIcon::activated, this, [this](QSystemTrayIcon::ActivationReason reason) {
    if (reason == QSystemTrayIcon::Trigger) emit model_.openWindow();
  });
  connect(&model_, &MenuModel::changed, this, &Tray::render);
  render();
}

Tray::~Tray() { delete menu_; }

bool Tray::show() {
  if (!QSystemTrayIcon::isSystemTrayAvailable()) return false;
  icon_->show();
  return true;
}

void Tray::render() {
  menu_->clear();
  QAction* title = menu_->addAction(model_.title());
  title->setEnabled(false);
  menu_->addSeparator();
  bool on = false;
  for (const MenuItem& item : model_.items()) {
    QAction* action = menu_->addAction(item.title);
    action->setEnabled(item.enabled);
    action->setCheckable(item.checkable);
    action->setChecked(item.checked);
    if (item.action == "disconnect") on = true;
    connect(action, &QAction::triggered, this, [this, index = item.index] { model_.choose(index); });
  }
  menu_->addSeparator();
  connect(menu_->addAction(tr("Выйти из Norvik")), &QAction::triggered, this, &Tray::quitRequested);
  icon_->setIcon(stateIcon(on));
  icon_->setToolTip(model_.title());
}

}  // namespace norvik::gui
