#pragma once

#include <QWidget>

class QCheckBox;
class QFrame;
class QVBoxLayout;
class QLabel;
class QPushButton;

namespace norvik::gui {

class OverlayModel;
class PromptModel;

// Shows the overlay queue over the window: the agent's dialog (or the update prompt) on a dimmed
// background, and a toast at the bottom. While a dialog shows, the window under it is disabled,
// so Tab walks only the dialog's buttons.
class OverlayLayer : public QWidget {
  Q_OBJECT

 public:
  OverlayLayer(OverlayModel& overlay, PromptModel& prompt, QWidget* covered, QWidget* parent);
  [[nodiscard]] bool dialogShown() const;
  [[nodiscard]] QString dialogTitle() const;
  [[nodiscard]] QList<QPushButton*> buttons() const;
  [[nodiscard]] QString toastText() const;

 protected:
  bool eventFilter(QObject* watched, QEvent* event) override;

 private:
  void render();
  void addButton(const QString& title, bool primary, const std::function<void()>& chosen);

  OverlayModel& overlay_;
  PromptModel& prompt_;
  QWidget* covered_;
  QWidget* scrim_;
  QFrame* dialog_;
  QLabel* title_;
  QLabel* message_;
  QLabel* after_;
  QCheckBox* choice_;
  QVBoxLayout* buttons_;
  QLabel* toast_;
  QString shownId_;
};

}  // namespace norvik::gui
