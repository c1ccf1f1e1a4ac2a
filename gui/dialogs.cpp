#include "gui/dialogs.h"

#include <QCheckBox>
#include <QEvent>
#include <QFrame>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QVBoxLayout>

#include "gui/home_page.h"
#include "gui/overlay_model.h"

namespace norvik::gui {

OverlayLayer::OverlayLayer(OverlayModel& overlay, PromptModel& prompt, QWidget* covered, QWidget* parent)
    : QWidget(parent), overlay_(overlay), prompt_(prompt), covered_(covered) {
  setAttribute(Qt::WA_TransparentForMouseEvents, false);
  scrim_ = new QWidget(this);
  scrim_->setObjectName("scrim");
  scrim_->setAttribute(Qt::WA_StyledBackground);
  auto* scrimLayout = new QVBoxLayout(scrim_);
  dialog_ = new QFrame(scrim_);
  dialog_->setObjectName("dialog");
  dialog_->setFixedWidth(440);
  auto* layout = new QVBoxLayout(dialog_);
  layout->setContentsMargins(28, 24, 28, 22);
  layout->setSpacing(10);
  title_ = makeLabel({}, "dialogTitle", dialog_);
  message_ = makeLabel({}, "", dialog_);
  after_ = makeLabel({}, "muted", dialog_);
  choice_ = new QCheckBox(dialog_);
  buttons_ = new QVBoxLayout();
  buttons_->setSpacing(8);
  layout->addWidget(title_);
  layout->addWidget(message_);
  layout->addWidget(choice_);
  layout->addSpacing(6);
  layout->addLayout(buttons_);
  layout->addWidget(after_);
  scrimLayout->addWidget(dialog_, 0, Qt::AlignCenter);

  toast_ = makeLabel({}, "toast", this);
  toast_->setAlignment(Qt::AlignCenter);
  toast_->setAccessibleName(tr("Уведомление"));

  parent->installEventFilter(this);
  connect(&overlay_, &OverlayModel::changed, this, &OverlayLayer::render);
  connect(&prompt_, &PromptModel::changed, this, &OverlayLayer::render);
  render();
}

bool OverlayLayer::eventFilter(QObject* watched, QEvent* event) {
  if (watched == parentWidget() && event->type() == QEvent::Resize) render();
  return QWidget::eventFilter(watched, event);
}

bool OverlayLayer::dialogShown() const { return scrim_->isVisible(); }
QString OverlayLayer::dialogTitle() const { return title_->text(); }
QString OverlayLayer::toastText() const { return toast_->isVisible() ? toast_->text() : QString(); }

QList<QPushButton*> OverlayLayer::buttons() const {
  QList<QPushButton*> buttons;
  for (int i = 0; i < buttons_->count(); ++i) {
    if (auto* button = qobject_cast<QPushButton*>(buttons_->itemAt(i)->widget())) buttons.append(button);
  }
  return buttons;
}

void OverlayLayer::addButton(const QString& title, bool primary, const std::function<void()>& chosen) {
  auto* button = new QPushButton(title, dialog_);
  button->setAccessibleName(title);
  if (!primary) button->setObjectName("secondary");
  connect(button, &QPushButton::clicked, this, chosen);
  buttons_->addWidget(button);
}

void OverlayLayer::render() {
  const QRect area = parentWidget()->rect();
  setGeometry(area);
  scrim_->setGeometry(area);

  // The update prompt comes first: a forced one blocks everything else.
  const bool showPrompt = prompt_.shown();
  const bool showDialog = !showPrompt && overlay_.kind() == OverlayModel::Kind::dialog;
  const QString id = showPrompt ? prompt_.id() : showDialog ? overlay_.id() : QString();
  if (id != shownId_) {
    shownId_ = id;
    while (QLayoutItem* item = buttons_->takeAt(0)) {
      if (item->widget() != nullptr) item->widget()->deleteLater();
      delete item;
    }
    choice_->setChecked(false);
    if (showPrompt) {
      title_->setText(prompt_.title());
      message_->setText(prompt_.message());
      after_->setText(prompt_.textAfterButton());
      choice_->hide();
      if (!prompt_.laterButton().isEmpty()) addButton(prompt_.laterButton(), false, [this] { prompt_.chooseLater(); });
      addButton(prompt_.mainButton().isEmpty() ? tr("Обновить сейчас") : prompt_.mainButton(), true,
                [this] { prompt_.chooseMain(); });
    } else if (showDialog) {
      title_->setText(overlay_.title());
      message_->setText(overlay_.message());
      after_->clear();
      choice_->setText(overlay_.choice());
      choice_->setAccessibleName(overlay_.choice());
      choice_->setVisible(!overlay_.choice().isEmpty());
      const QList<OverlayButton> buttons = overlay_.buttons();
      for (const OverlayButton& button : buttons) {
        // The first button is the dialog's own answer; the rest are quieter.
        addButton(button.title, button.index == buttons.first().index,
                  [this, index = button.index] { overlay_.answer(index, choice_->isChecked()); });
      }
    }
    title_->setVisible(!title_->text().isEmpty());
    message_->setVisible(!message_->text().isEmpty());
    after_->setVisible(!after_->text().isEmpty());
    if (!id.isEmpty()) {
      dialog_->setAccessibleName(title_->text());
      if (QPushButton* first = buttons().value(0)) first->setFocus();
    }
  }
  scrim_->setVisible(!id.isEmpty());
  covered_->setEnabled(id.isEmpty());

  const bool toast = overlay_.kind() == OverlayModel::Kind::toast;
  const QString toastText = overlay_.title().isEmpty()     ? overlay_.message()
                            : overlay_.message().isEmpty() ? overlay_.title()
                                                           : overlay_.title() + "\n" + overlay_.message();
  toast_->setText(toast ? toastText : QString());
  toast_->setVisible(toast);
  if (toast) {
    toast_->setMaximumWidth(area.width() - 80);
    toast_->adjustSize();
    toast_->move((area.width() - toast_->width()) / 2, area.height() - toast_->height() - 28);
  }
  setVisible(!id.isEmpty() || toast);
  if (isVisible()) raise();
  // Only the dialog takes the mouse; a toast lets clicks through to the window.
  setAttribute(Qt::WA_TransparentForMouseEvents, id.isEmpty());
}

}  // namespace norvik::gui
