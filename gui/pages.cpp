#include "gui/pages.h"

#include <QButtonGroup>
#include <QClipboard>
#include <QEvent>
#include <QFrame>
#include <QGuiApplication>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QProgressBar>
#include <QPushButton>
#include <QRadioButton>
#include <QVBoxLayout>

#include "gui/home_page.h"
#include "gui/routing_models.h"
#include "gui/settings_models.h"
#include "gui/toggle_button.h"
#include "gui/update_model.h"

namespace norvik::gui {
namespace {

void clear(QLayout* layout) {
  while (QLayoutItem* item = layout->takeAt(0)) {
    if (QWidget* widget = item->widget()) widget->deleteLater();
    delete item;
  }
}

QVBoxLayout* pageLayout(QWidget* page, const QString& title) {
  auto* layout = new QVBoxLayout(page);
  layout->setContentsMargins(32, 28, 32, 24);
  layout->setSpacing(14);
  layout->addWidget(makeLabel(title, "pageTitle", page));
  return layout;
}

}  // namespace

// A switch row: the title on the left, the switch on the right. The switch carries the title as
// its accessible name; clicking the title flips it too.
class SwitchRow : public QWidget {
 public:
  SwitchRow(const QString& title, QWidget* parent) : QWidget(parent), switch_(new Switch(title, this)) {
    auto* layout = new QHBoxLayout(this);
    layout->setContentsMargins(0, 2, 0, 2);
    auto* label = new QLabel(title, this);
    label->setWordWrap(true);
    layout->addWidget(label, 1);
    layout->addWidget(switch_, 0, Qt::AlignVCenter);
    label->setCursor(Qt::PointingHandCursor);
    label->installEventFilter(this);
  }
  [[nodiscard]] Switch* control() const { return switch_; }

 protected:
  bool eventFilter(QObject* watched, QEvent* event) override {
    if (event->type() == QEvent::MouseButtonRelease && switch_->isEnabled()) switch_->click();
    return QWidget::eventFilter(watched, event);
  }

 private:
  Switch* switch_;
};

ModePage::ModePage(ModeModel& model, QWidget* parent) : QWidget(parent), model_(model) {
  QVBoxLayout* layout = pageLayout(this, tr("Режим работы"));
  notice_ = makeLabel({}, "agentNote", this);
  layout->addWidget(notice_);
  QFrame* card = makeCard(this);
  choices_ = qobject_cast<QVBoxLayout*>(card->layout());
  choices_->setSpacing(12);
  layout->addWidget(card);
  disclaimer_ = makeLabel({}, "muted", this);
  layout->addWidget(disclaimer_);
  error_ = makeLabel({}, "fieldError", this);
  layout->addWidget(error_);
  layout->addStretch(1);
  group_ = new QButtonGroup(this);
  connect(&model_, &ModeModel::changed, this, &ModePage::render);
  render();
}

void ModePage::render() {
  clear(choices_);
  for (QAbstractButton* button : group_->buttons()) group_->removeButton(button);
  for (const ModeChoice& choice : model_.choices()) {
    auto* radio = new QRadioButton(choice.label, this);
    radio->setAccessibleName(choice.label);
    radio->setAccessibleDescription(choice.description);
    radio->setChecked(choice.mode == model_.current());
    radio->setEnabled(!model_.forced());
    group_->addButton(radio);
    connect(radio, &QRadioButton::clicked, this, [this, mode = choice.mode] { model_.choose(mode); });
    choices_->addWidget(radio);
    if (!choice.description.isEmpty()) {
      QLabel* description = makeLabel(choice.description, "muted", this);
      description->setContentsMargins(30, 0, 0, 6);
      choices_->addWidget(description);
    }
  }
  notice_->setText(model_.notice());
  notice_->setVisible(!model_.notice().isEmpty());
  disclaimer_->setText(model_.disclaimer());
  disclaimer_->setVisible(!model_.disclaimer().isEmpty());
  error_->setText(model_.errorText());
  error_->setVisible(!model_.errorText().isEmpty());
}

SitesPage::SitesPage(SitesModel& model, QWidget* parent) : QWidget(parent), model_(model) {
  QVBoxLayout* layout = pageLayout(this, tr("Сайты"));
  note_ = makeLabel({}, "muted", this);
  layout->addWidget(note_);

  emptyCard_ = makeCard(this, "warnCard");
  emptyTitle_ = makeLabel({}, "cardTitle", emptyCard_);
  emptyMessage_ = makeLabel({}, "", emptyCard_);
  emptyCard_->layout()->addWidget(emptyTitle_);
  emptyCard_->layout()->addWidget(emptyMessage_);
  layout->addWidget(emptyCard_);

  QFrame* servicesCard = makeCard(this);
  servicesTitle_ = makeLabel({}, "cardTitle", servicesCard);
  servicesCard->layout()->addWidget(servicesTitle_);
  services_ = new QVBoxLayout();
  services_->setSpacing(8);
  qobject_cast<QVBoxLayout*>(servicesCard->layout())->addLayout(services_);
  layout->addWidget(servicesCard);

  ownCard_ = makeCard(this);
  auto* ownLayout = qobject_cast<QVBoxLayout*>(ownCard_->layout());
  ownTitle_ = makeLabel({}, "cardTitle", ownCard_);
  ownLayout->addWidget(ownTitle_);
  auto* fieldRow = new QHBoxLayout();
  field_ = new QLineEdit(ownCard_);
  field_->setAccessibleName(tr("Адрес сайта"));
  add_ = new QPushButton(tr("Добавить"), ownCard_);
  add_->setAccessibleName(tr("Добавить сайт"));
  fieldRow->addWidget(field_, 1);
  fieldRow->addWidget(add_);
  ownLayout->addLayout(fieldRow);
  fieldError_ = makeLabel({}, "fieldError", ownCard_);
  ownLayout->addWidget(fieldError_);
  limit_ = makeLabel({}, "muted", ownCard_);
  ownLayout->addWidget(limit_);
  domains_ = new QVBoxLayout();
  domains_->setSpacing(8);
  ownLayout->addLayout(domains_);
  layout->addWidget(ownCard_);
  layout->addStretch(1);

  connect(add_, &QPushButton::clicked, this, &SitesPage::add);
  connect(field_, &QLineEdit::returnPressed, this, &SitesPage::add);
  connect(&model_, &SitesModel::changed, this, &SitesPage::render);
  render();
}

void SitesPage::add() {
  if (field_->text().trimmed().isEmpty()) return;
  model_.addDomain(field_->text());
}

void SitesPage::render() {
  const auto text = [this](const QString& key, const QString& fallback) {
    const QString value = model_.text(key);
    return value.isEmpty() ? fallback : value;
  };
  note_->setText(model_.vpnOffTitle().isEmpty() ? text("note", {})
                                                : model_.vpnOffTitle() + ". " + model_.vpnOffMessage());
  note_->setVisible(!note_->text().isEmpty());
  emptyTitle_->setText(model_.emptyTitle());
  emptyMessage_->setText(model_.emptyMessage());
  emptyCard_->setVisible(!model_.emptyTitle().isEmpty());
  servicesTitle_->setText(text("sitesTitle", tr("Сервисы")));
  ownTitle_->setText(text("ownSitesTitle", tr("Свои сайты")));
  field_->setPlaceholderText(text("domainPlaceholder", tr("например, пример.рф")));

  clear(services_);
  for (const ServiceRow& row : model_.services()) {
    auto* line = new SwitchRow(row.title, this);
    line->control()->setChecked(row.on);
    connect(line->control(), &Switch::clicked, this, [this, key = row.key](bool on) { model_.setService(key, on); });
    services_->addWidget(line);
  }
  clear(domains_);
  for (const DomainRow& row : model_.domains()) {
    auto* line = new QWidget(this);
    auto* lineLayout = new QHBoxLayout(line);
    lineLayout->setContentsMargins(0, 0, 0, 0);
    auto* box = new SwitchRow(row.domain, line);
    box->control()->setChecked(row.on);
    connect(box->control(), &Switch::clicked, this,
            [this, domain = row.domain](bool on) { model_.setDomain(domain, on); });
    auto* remove = new QPushButton(tr("Удалить"), line);
    remove->setObjectName("danger");
    remove->setAccessibleName(tr("Удалить %1").arg(row.domain));
    connect(remove, &QPushButton::clicked, this, [this, domain = row.domain] { model_.removeDomain(domain); });
    lineLayout->addWidget(box, 1);
    lineLayout->addWidget(remove);
    domains_->addWidget(line);
  }
  ownCard_->setVisible(model_.customDomainsAllowed());
  field_->setEnabled(model_.canAddDomain());
  add_->setEnabled(model_.canAddDomain());
  // The field keeps what the user typed until the agent has taken it.
  if (field_->text() != model_.fieldText() && !field_->hasFocus()) field_->setText(model_.fieldText());
  if (model_.fieldText().isEmpty()) field_->clear();
  fieldError_->setText(model_.fieldError());
  fieldError_->setVisible(!model_.fieldError().isEmpty());
  limit_->setText(model_.domainLimitText());
  limit_->setVisible(!model_.domainLimitText().isEmpty());
}

SettingsPage::SettingsPage(SettingsModel& settings, UpdateModel& update, QWidget* parent)
    : QWidget(parent), settings_(settings), update_(update) {
  QVBoxLayout* layout = pageLayout(this, tr("Настройки"));

  QFrame* general = makeCard(this);
  auto* launchRow = new SwitchRow(tr("Запускать при входе в систему"), general);
  smartRow_ = new SwitchRow(tr("Умный режим"), general);
  launchAtLogin_ = launchRow->control();
  smartMode_ = smartRow_->control();
  settingsError_ = makeLabel({}, "fieldError", general);
  general->layout()->addWidget(launchRow);
  general->layout()->addWidget(smartRow_);
  general->layout()->addWidget(settingsError_);
  layout->addWidget(general);
  connect(launchAtLogin_, &Switch::clicked, this, [this](bool on) { settings_.setLaunchAtLogin(on); });
  connect(smartMode_, &Switch::clicked, this, [this](bool on) {
    smartMode_->setChecked(settings_.smartModeOn());  // the agent's answer decides
    settings_.setSmartMode(on);
  });

  QFrame* updates = makeCard(this);
  auto* updatesLayout = qobject_cast<QVBoxLayout*>(updates->layout());
  updatesLayout->addWidget(makeLabel(tr("Обновления"), "cardTitle", updates));
  updateText_ = makeLabel({}, "", updates);
  updateTitle_ = makeLabel({}, "muted", updates);
  notes_ = makeLabel({}, "muted", updates);
  progress_ = new QProgressBar(updates);
  progress_->setRange(0, 1000);
  progress_->setAccessibleName(tr("Ход загрузки обновления"));
  updatesLayout->addWidget(updateText_);
  updatesLayout->addWidget(updateTitle_);
  updatesLayout->addWidget(notes_);
  updatesLayout->addWidget(progress_);
  auto* buttons = new QHBoxLayout();
  check_ = new QPushButton(tr("Проверить обновления"), updates);
  check_->setObjectName("secondary");
  install_ = new QPushButton(updates);
  later_ = new QPushButton(updates);
  later_->setObjectName("secondary");
  cancel_ = new QPushButton(tr("Отменить"), updates);
  cancel_->setObjectName("secondary");
  for (QPushButton* button : {install_, later_, cancel_, check_}) buttons->addWidget(button);
  buttons->addStretch(1);
  updatesLayout->addLayout(buttons);
  layout->addWidget(updates);
  connect(check_, &QPushButton::clicked, &update_, &UpdateModel::check);
  connect(install_, &QPushButton::clicked, &update_, &UpdateModel::install);
  connect(later_, &QPushButton::clicked, &update_, &UpdateModel::postpone);
  connect(cancel_, &QPushButton::clicked, &update_, &UpdateModel::cancel);

  QFrame* about = makeCard(this);
  auto* aboutLayout = qobject_cast<QVBoxLayout*>(about->layout());
  aboutLayout->addWidget(makeLabel(tr("О программе"), "cardTitle", about));
  version_ = makeLabel({}, "muted", about);
  aboutLayout->addWidget(version_);
  auto* links = new QHBoxLayout();
  support_ = new QPushButton(tr("Поддержка"), about);
  channel_ = new QPushButton(tr("Канал поддержки"), about);
  share_ = new QPushButton(tr("Поделиться"), about);
  for (QPushButton* button : {support_, channel_, share_}) {
    button->setObjectName("secondary");
    links->addWidget(button);
  }
  links->addStretch(1);
  aboutLayout->addLayout(links);
  company_ = makeLabel(tr("Norvik — сервис защищённого доступа в интернет."), "muted", about);
  aboutLayout->addWidget(company_);
  layout->addWidget(about);
  layout->addStretch(1);
  connect(support_, &QPushButton::clicked, this, [this] { emit openUrl(settings_.support()); });
  connect(channel_, &QPushButton::clicked, this, [this] { emit openUrl(settings_.supportChannel()); });
  connect(share_, &QPushButton::clicked, this, [this] {
    QGuiApplication::clipboard()->setText(settings_.share());
    share_->setText(tr("Ссылка скопирована"));
  });

  connect(&settings_, &SettingsModel::changed, this, &SettingsPage::render);
  connect(&update_, &UpdateModel::changed, this, &SettingsPage::render);
  render();
}

void SettingsPage::render() {
  launchAtLogin_->setChecked(settings_.launchAtLogin());
  smartMode_->setChecked(settings_.smartModeOn());
  smartRow_->setVisible(settings_.smartModeOffered());
  settingsError_->setText(settings_.errorText());
  settingsError_->setVisible(!settings_.errorText().isEmpty());

  updateText_->setText(update_.text().isEmpty() ? tr("Обновления проверяются автоматически") : update_.text());
  updateTitle_->setText(update_.title());
  updateTitle_->setVisible(!update_.title().isEmpty() && update_.title() != update_.text());
  notes_->setText(update_.releaseNotes());
  notes_->setVisible(!update_.releaseNotes().isEmpty());
  progress_->setVisible(update_.progress() >= 0);
  if (update_.indeterminate()) {
    progress_->setRange(0, 0);
  } else {
    progress_->setRange(0, 1000);
    progress_->setValue(qMax(0, update_.progress()));
  }
  install_->setText(update_.installButton());
  install_->setVisible(!update_.installButton().isEmpty());
  later_->setText(update_.laterButton());
  later_->setVisible(!update_.laterButton().isEmpty());
  cancel_->setVisible(update_.canCancel());
  check_->setVisible(update_.canCheck());

  version_->setText(update_.currentVersion().isEmpty() ? QStringLiteral("Norvik")
                                                       : tr("Norvik, версия %1").arg(update_.currentVersion()));
  support_->setVisible(!settings_.support().isEmpty());
  channel_->setVisible(!settings_.supportChannel().isEmpty());
  share_->setVisible(!settings_.share().isEmpty());
  company_->setVisible(settings_.showCompany());
}

}  // namespace norvik::gui
