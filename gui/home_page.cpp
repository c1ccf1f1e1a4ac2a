#include "gui/home_page.h"

#include <QFrame>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QVBoxLayout>

#include "gui/home_model.h"
#include "gui/style.h"
#include "gui/toggle_button.h"

namespace norvik::gui {

QFrame* makeCard(QWidget* parent, const char* role) {
  auto* card = new QFrame(parent);
  card->setObjectName(role);
  auto* layout = new QVBoxLayout(card);
  layout->setContentsMargins(20, 16, 20, 16);
  layout->setSpacing(6);
  return card;
}

QLabel* makeLabel(const QString& text, const char* role, QWidget* parent) {
  auto* label = new QLabel(text, parent);
  label->setObjectName(role);
  label->setWordWrap(true);
  label->setTextInteractionFlags(Qt::TextSelectableByMouse);
  return label;
}

HomePage::HomePage(HomeModel& model, QWidget* parent) : QWidget(parent), model_(model) {
  auto* layout = new QVBoxLayout(this);
  layout->setContentsMargins(32, 28, 32, 24);
  layout->setSpacing(14);

  state_ = makeLabel({}, "stateText", this);
  state_->setAlignment(Qt::AlignHCenter);
  busy_ = makeLabel({}, "busyText", this);
  busy_->setAlignment(Qt::AlignHCenter);
  agentNote_ = makeLabel({}, "agentNote", this);
  agentNote_->setAlignment(Qt::AlignHCenter);
  toggle_ = new PowerToggle(this);
  connect(toggle_, &PowerToggle::clicked, &model_, &HomeModel::toggle);

  layout->addStretch(1);
  layout->addWidget(toggle_, 0, Qt::AlignHCenter);
  layout->addSpacing(6);
  layout->addWidget(state_);
  layout->addWidget(busy_);
  layout->addWidget(agentNote_);

  // The server card: where the traffic goes, and the way to change it.
  QFrame* serverCard = makeCard(this);
  auto* serverRow = new QHBoxLayout();
  auto* serverText = new QVBoxLayout();
  serverText->addWidget(makeLabel(tr("Сервер"), "muted", serverCard));
  server_ = makeLabel({}, "serverName", serverCard);
  serverText->addWidget(server_);
  serverDetail_ = makeLabel({}, "muted", serverCard);
  serverText->addWidget(serverDetail_);
  mode_ = makeLabel({}, "muted", serverCard);
  serverText->addWidget(mode_);
  serverRow->addLayout(serverText, 1);
  changeServer_ = new QPushButton(tr("Сменить сервер"), serverCard);
  changeServer_->setObjectName("secondary");
  changeServer_->setAccessibleName(tr("Сменить сервер"));
  connect(changeServer_, &QPushButton::clicked, &model_, &HomeModel::changeServer);
  serverRow->addWidget(changeServer_, 0, Qt::AlignVCenter);
  qobject_cast<QVBoxLayout*>(serverCard->layout())->addLayout(serverRow);

  // The health line with its verdict's colour.
  auto* healthRow = new QHBoxLayout();
  healthDot_ = new QLabel(serverCard);
  healthDot_->setFixedSize(10, 10);
  health_ = makeLabel({}, "muted", serverCard);
  healthRow->addWidget(healthDot_, 0, Qt::AlignVCenter);
  healthRow->addWidget(health_, 1);
  qobject_cast<QVBoxLayout*>(serverCard->layout())->addLayout(healthRow);
  layout->addWidget(serverCard);

  reply_ = makeLabel({}, "muted", this);
  reply_->setAlignment(Qt::AlignHCenter);
  layout->addWidget(reply_);

  errorCard_ = makeCard(this, "errorCard");
  errorTitle_ = makeLabel({}, "cardTitle", errorCard_);
  errorMessage_ = makeLabel({}, "", errorCard_);
  errorCard_->layout()->addWidget(errorTitle_);
  errorCard_->layout()->addWidget(errorMessage_);
  layout->addWidget(errorCard_);

  // Permission, approval and extension cards share one place: at most one is the user's next step.
  noticeCard_ = makeCard(this, "warnCard");
  noticeTitle_ = makeLabel({}, "cardTitle", noticeCard_);
  noticeMessage_ = makeLabel({}, "", noticeCard_);
  noticeCard_->layout()->addWidget(noticeTitle_);
  noticeCard_->layout()->addWidget(noticeMessage_);
  layout->addWidget(noticeCard_);
  layout->addStretch(2);

  connect(&model_, &HomeModel::changed, this, &HomePage::render);
  render();
}

QString HomePage::stateText() const { return state_->text(); }
QString HomePage::serverText() const { return server_->text(); }

void HomePage::render() {
  const HomeModel::Toggle look = model_.toggleState();
  toggle_->setLook(look == HomeModel::Toggle::on     ? PowerToggle::Look::on
                   : look == HomeModel::Toggle::busy ? PowerToggle::Look::busy
                                                     : PowerToggle::Look::off);
  toggle_->setEnabled(model_.toggleEnabled());
  const QString action = look == HomeModel::Toggle::off ? tr("Подключить VPN") : tr("Отключить VPN");
  toggle_->setAccessibleName(action);
  toggle_->setToolTip(action);
  state_->setText(model_.stateText());
  QColor stateColor = colors::kIdle.darker(140);
  if (look == HomeModel::Toggle::on) stateColor = colors::kProtected;
  if (look == HomeModel::Toggle::busy) stateColor = colors::kBusy.darker(120);
  state_->setStyleSheet(QString("color: %1;").arg(stateColor.name()));
  busy_->setText(model_.busyText());
  busy_->setVisible(!model_.busyText().isEmpty());
  agentNote_->setText(model_.agentNote());
  agentNote_->setVisible(!model_.agentNote().isEmpty());

  // The place leads where the backend named one; the address alone otherwise.
  QString server = model_.location();
  if (server.isEmpty()) server = model_.server();
  server_->setText(server.isEmpty() ? tr("Сервер будет выбран при подключении") : server);
  const QString detail = model_.location().isEmpty() ? QString() : model_.serverDetail();
  serverDetail_->setText(detail);
  serverDetail_->setVisible(!detail.isEmpty());
  QString mode = model_.modeLabel().isEmpty() ? QString() : tr("Режим: %1").arg(model_.modeLabel());
  if (!model_.modeNotice().isEmpty()) mode += (mode.isEmpty() ? "" : " · ") + model_.modeNotice();
  mode_->setText(mode);
  mode_->setVisible(!mode.isEmpty());
  changeServer_->setEnabled(model_.canChangeServer());

  QColor dot = colors::kIdle;
  if (model_.health() == HomeModel::Health::ok) dot = colors::kProtected;
  if (model_.health() == HomeModel::Health::busy) dot = colors::kBusy;
  if (model_.health() == HomeModel::Health::problem) dot = colors::kProblem;
  healthDot_->setStyleSheet(QString("background: %1; border-radius: 5px;").arg(dot.name()));
  health_->setText(model_.healthText());
  healthDot_->setVisible(!model_.healthText().isEmpty());
  health_->setVisible(!model_.healthText().isEmpty());

  reply_->setText(model_.replyText());
  reply_->setVisible(!model_.replyText().isEmpty());

  const Card error = model_.lastError();
  errorTitle_->setText(error.title);
  errorMessage_->setText(error.message);
  errorMessage_->setVisible(!error.message.isEmpty());
  errorCard_->setVisible(error.shown() || !error.message.isEmpty());

  Card notice = model_.permissionCard();
  if (!notice.shown()) notice = model_.approvalCard();
  if (!notice.shown()) notice = model_.extensionBanner();
  noticeTitle_->setText(notice.title);
  noticeMessage_->setText(notice.message);
  noticeMessage_->setVisible(!notice.message.isEmpty());
  noticeCard_->setVisible(notice.shown());
}

}  // namespace norvik::gui
