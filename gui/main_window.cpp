#include "gui/main_window.h"

#include <QButtonGroup>
#include <QCloseEvent>
#include <QDesktopServices>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QScrollArea>
#include <QStackedWidget>
#include <QUrl>
#include <QVBoxLayout>

#include "gui/dialogs.h"
#include "gui/home_page.h"
#include "gui/pages.h"
#include "gui/toggle_button.h"

namespace norvik::gui {
namespace {

QScrollArea* scrolled(QWidget* page) {
  auto* area = new QScrollArea();
  area->setWidget(page);
  area->setWidgetResizable(true);
  area->setFrameShape(QFrame::NoFrame);
  area->viewport()->setAutoFillBackground(false);
  page->setAutoFillBackground(false);
  return area;
}

}  // namespace

MainWindow::MainWindow(Models& models, QWidget* parent) : QMainWindow(parent), models_(models) {
  setWindowTitle("Norvik");
  setMinimumSize(720, 560);
  resize(860, 680);

  auto* central = new QWidget(this);
  central->setObjectName("window");
  auto* content = new QWidget(central);
  auto* centralLayout = new QHBoxLayout(central);
  centralLayout->setContentsMargins(0, 0, 0, 0);
  centralLayout->addWidget(content);
  auto* row = new QHBoxLayout(content);
  row->setContentsMargins(0, 0, 0, 0);
  row->setSpacing(0);

  auto* sidebar = new QWidget(content);
  sidebar->setObjectName("sidebar");
  sidebar->setAttribute(Qt::WA_StyledBackground);
  sidebar->setFixedWidth(210);
  auto* side = new QVBoxLayout(sidebar);
  side->setContentsMargins(16, 24, 16, 16);
  side->setSpacing(4);
  side->addWidget(makeLabel("Norvik", "brand", sidebar));
  auto* group = new QButtonGroup(this);
  const QStringList titles{tr("Главная"), tr("Режим"), tr("Сайты"), tr("Настройки")};
  for (int i = 0; i < titles.size(); ++i) {
    auto* button = new QPushButton(titles.at(i), sidebar);
    button->setObjectName("nav");
    button->setCheckable(true);
    button->setAccessibleName(titles.at(i));
    button->setCursor(Qt::PointingHandCursor);
    group->addButton(button, i);
    side->addWidget(button);
    nav_.append(button);
  }
  side->addStretch(1);
  row->addWidget(sidebar);

  stack_ = new QStackedWidget(content);
  home_ = new HomePage(models_.home);
  mode_ = new ModePage(models_.mode);
  sites_ = new SitesPage(models_.sites);
  settings_ = new SettingsPage(models_.settings, models_.update);
  for (QWidget* page : {static_cast<QWidget*>(home_), static_cast<QWidget*>(mode_), static_cast<QWidget*>(sites_),
                        static_cast<QWidget*>(settings_)}) {
    stack_->addWidget(scrolled(page));
  }
  row->addWidget(stack_, 1);
  setCentralWidget(central);
  connect(group, &QButtonGroup::idClicked, this, [this](int id) { showScreen(static_cast<Screen>(id)); });

  overlay_ = new OverlayLayer(models_.overlay, models_.prompt, content, central);
  connect(settings_, &SettingsPage::openUrl, this, &MainWindow::openUrl);
  connect(&models_.prompt, &PromptModel::openUrl, this, &MainWindow::openUrl);
  connect(&models_.menu, &MenuModel::openWindow, this, &MainWindow::bringForward);
  connect(&models_.mode, &ModeModel::changed, this, &MainWindow::renderNav);
  connect(&models_.sites, &SitesModel::changed, this, &MainWindow::renderNav);
  showScreen(Screen::home);
  renderNav();
  // The toggle is what a user comes for: it has the keyboard first.
  home_->toggle()->setFocus();
}

QPushButton* MainWindow::navButton(Screen screen) const { return nav_.value(static_cast<int>(screen)); }

void MainWindow::showScreen(Screen screen) {
  stack_->setCurrentIndex(static_cast<int>(screen));
  nav_.at(static_cast<int>(screen))->setChecked(true);
}

void MainWindow::renderNav() {
  // The mode tab is the backend's to show; the sites belong to it.
  const bool modes = models_.mode.tabShown();
  nav_.at(static_cast<int>(Screen::mode))->setVisible(modes);
  nav_.at(static_cast<int>(Screen::sites))->setVisible(modes);
  if (!modes && (stack_->currentIndex() == static_cast<int>(Screen::mode) ||
                 stack_->currentIndex() == static_cast<int>(Screen::sites))) {
    showScreen(Screen::home);
  }
}

void MainWindow::bringForward() {
  showNormal();
  raise();
  activateWindow();
}

void MainWindow::closeEvent(QCloseEvent* event) {
  if (hideOnClose_) {
    hide();
    event->ignore();
    return;
  }
  QMainWindow::closeEvent(event);
}

void MainWindow::openUrl(const QString& url) {
  if (!url.isEmpty()) QDesktopServices::openUrl(QUrl(url));
}

}  // namespace norvik::gui
