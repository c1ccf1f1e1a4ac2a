#include "gui/widget_window.h"

#include <QDesktopServices>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QStyle>
#include <QUrl>
#include <QVBoxLayout>

#include "gui/home_page.h"
#include "gui/style.h"
#include "gui/widget_bridge.h"

namespace norvik::gui {

WidgetWindow::WidgetWindow(WidgetBridge& bridge, QWidget* parent) : QWidget(parent), bridge_(bridge) {
  setWindowTitle(tr("Norvik — виджет"));
  setObjectName("window");
  setAttribute(Qt::WA_StyledBackground);
  auto* outer = new QVBoxLayout(this);
  outer->setContentsMargins(12, 12, 12, 12);
  auto* card = makeCard(this, "widgetCard");
  card->setFixedWidth(360);
  outer->addWidget(card);
  auto* layout = qobject_cast<QVBoxLayout*>(card->layout());
  layout->setContentsMargins(20, 18, 20, 18);
  layout->setSpacing(8);

  auto* head = new QHBoxLayout();
  head->addWidget(makeLabel("Norvik", "cardTitle", card));
  head->addStretch(1);
  dot_ = new QLabel(card);
  dot_->setFixedSize(12, 12);
  head->addWidget(dot_, 0, Qt::AlignVCenter);
  layout->addLayout(head);
  status_ = makeLabel({}, "stateText", card);
  status_->setStyleSheet("font-size: 22px;");
  layout->addWidget(status_);
  traffic_ = makeLabel({}, "muted", card);
  health_ = makeLabel({}, "muted", card);
  layout->addWidget(traffic_);
  layout->addWidget(health_);

  auto* buttons = new QHBoxLayout();
  toggle_ = new QPushButton(card);
  changeServer_ = new QPushButton(tr("Сменить сервер"), card);
  changeServer_->setObjectName("secondary");
  changeServer_->setAccessibleName(tr("Сменить сервер"));
  buttons->addWidget(toggle_, 1);
  buttons->addWidget(changeServer_, 1);
  layout->addLayout(buttons);
  open_ = new QPushButton(tr("Открыть Norvik"), card);
  open_->setObjectName("secondary");
  open_->setAccessibleName(tr("Открыть Norvik"));
  layout->addWidget(open_);

  connect(toggle_, &QPushButton::clicked, this, [this] { bridge_.send("toggle"); });
  connect(changeServer_, &QPushButton::clicked, this, [this] { bridge_.send("changeServer"); });
  connect(open_, &QPushButton::clicked, this,
          [] { QDesktopServices::openUrl(QUrl(QStringLiteral("norvikvpn://widget/open"))); });
  connect(&bridge_, &WidgetBridge::changed, this, &WidgetWindow::render);
  render();
}

QString WidgetWindow::statusText() const { return status_->text(); }

void WidgetWindow::render() {
  const QString phase = bridge_.phase();
  const bool known = bridge_.hasState();
  status_->setText(known ? bridge_.statusText() : tr("Нет данных от Norvik"));
  QColor color = colors::kIdle;
  if (phase == "connected") color = colors::kProtected;
  if (phase == "connecting" || phase == "disconnecting") color = colors::kBusy;
  dot_->setStyleSheet(QString("background: %1; border-radius: 6px;").arg(color.name()));
  status_->setStyleSheet(
      QString("font-size: 22px; color: %1;").arg(color.darker(phase == "connected" ? 100 : 140).name()));

  const bool traffic = !bridge_.trafficDown().isEmpty() || !bridge_.trafficUp().isEmpty();
  traffic_->setText(tr("↓ %1   ↑ %2").arg(bridge_.trafficDown(), bridge_.trafficUp()));
  traffic_->setVisible(traffic);
  const QString raw = bridge_.healthRaw();
  QString verdict;
  if (raw == "ok") verdict = tr("Соединение в порядке");
  if (raw == "busy") verdict = tr("Проверяем соединение…");
  if (raw == "problem") verdict = tr("Есть проблемы с соединением");
  health_->setText(verdict);
  health_->setVisible(!verdict.isEmpty());

  const bool up = phase == "connected" || phase == "connecting";
  toggle_->setText(up ? tr("Отключить") : tr("Подключить"));
  toggle_->setAccessibleName(toggle_->text());
  toggle_->setObjectName(up ? "danger" : "");
  toggle_->style()->unpolish(toggle_);
  toggle_->style()->polish(toggle_);
  toggle_->setEnabled(known && bridge_.canToggle());
  changeServer_->setEnabled(known && bridge_.canChangeServer());
}

}  // namespace norvik::gui
