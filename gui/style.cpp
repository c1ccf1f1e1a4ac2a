#include "gui/style.h"

#include <QAbstractButton>
#include <QApplication>
#include <QEvent>
#include <QFont>

namespace norvik::gui {

QString styleSheet() {
  return QStringLiteral(R"(
QWidget { color: #1b2133; font-size: 14px; }
QMainWindow, #window { background: #f3f5fa; }
#sidebar { background: #ffffff; border-right: 1px solid #e4e8f1; }
#brand { font-size: 20px; font-weight: 700; color: #1b2133; padding: 4px 8px 18px 8px; }
#nav { border: none; background: transparent; border-radius: 10px; padding: 10px 14px; text-align: left;
       font-size: 15px; color: #4a5370; }
#nav:hover { background: #eef2fb; }
#nav:checked { background: #e6edff; color: #2f6bff; font-weight: 600; }
#nav:focus { outline: none; border: 1px solid #c5d4f7; }
#card { background: #ffffff; border: 1px solid #e4e8f1; border-radius: 16px; }
#warnCard { background: #fff6e5; border: 1px solid #ffd591; border-radius: 16px; }
#errorCard { background: #fdecec; border: 1px solid #f5b5b7; border-radius: 16px; }
#pageTitle { font-size: 24px; font-weight: 700; }
#stateText { font-size: 28px; font-weight: 700; }
#busyText { font-size: 14px; color: #b26a00; }
#muted { color: #6b7390; font-size: 13px; }
#cardTitle { font-size: 15px; font-weight: 600; }
#serverName { font-size: 17px; font-weight: 600; }
#fieldError { color: #d2373d; font-size: 13px; }
#agentNote { color: #2f6bff; font-size: 13px; }
QPushButton { background: #2f6bff; color: white; border: none; border-radius: 12px; padding: 9px 18px;
              font-weight: 600; }
QPushButton:hover { background: #245ae0; }
QPushButton:focus { border: 2px solid #9db8ff; }
QPushButton:disabled { background: #c9d2e6; color: #f5f7fb; }
QPushButton#secondary { background: #eef2fb; color: #2f6bff; }
QPushButton#secondary:hover { background: #e0e8fb; }
QPushButton#danger { background: #fdecec; color: #d2373d; }
QLineEdit { background: #ffffff; border: 1px solid #d5dbe8; border-radius: 10px; padding: 8px 12px; }
QLineEdit:focus { border: 2px solid #2f6bff; }
QCheckBox { spacing: 10px; }
QCheckBox::indicator { width: 40px; height: 22px; border-radius: 11px; background: #d5dbe8; }
QCheckBox::indicator:checked { background: #1fb86a; }
QCheckBox:focus { color: #2f6bff; }
QRadioButton { spacing: 10px; font-size: 15px; font-weight: 600; }
QProgressBar { background: #e4e8f1; border: none; border-radius: 5px; height: 10px; text-align: center;
               font-size: 1px; color: transparent; }
QProgressBar::chunk { background: #2f6bff; border-radius: 5px; }
QScrollArea { border: none; background: transparent; }
#scrim { background: rgba(20, 26, 45, 110); }
#dialog { background: #ffffff; border-radius: 20px; }
#dialogTitle { font-size: 18px; font-weight: 700; }
#toast { background: #1b2133; color: #ffffff; border-radius: 14px; padding: 12px 20px; font-size: 14px; }
#widgetCard { background: #ffffff; border: 1px solid #e4e8f1; border-radius: 22px; }
#widgetCard QPushButton { padding: 9px 10px; }
)");
}

namespace {

// Every button, switch and choice takes focus from the keyboard, whatever the platform's habit
// (some leave buttons out of the Tab chain).
class KeyboardReach : public QObject {
 public:
  using QObject::QObject;

 protected:
  bool eventFilter(QObject* watched, QEvent* event) override {
    if (event->type() == QEvent::Polish) {
      if (auto* button = qobject_cast<QAbstractButton*>(watched)) button->setFocusPolicy(Qt::StrongFocus);
    }
    return QObject::eventFilter(watched, event);
  }
};

}  // namespace

void applyStyle(QApplication& app) {
  app.installEventFilter(new KeyboardReach(&app));
  QFont font = app.font();
  font.setPointSizeF(10.5);
  app.setFont(font);
  app.setStyleSheet(styleSheet());
}

}  // namespace norvik::gui
