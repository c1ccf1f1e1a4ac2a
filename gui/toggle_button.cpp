#include "gui/toggle_button.h"

#include <QPainter>
#include <QPainterPath>

#include "gui/style.h"

namespace norvik::gui {

PowerToggle::PowerToggle(QWidget* parent) : QAbstractButton(parent) {
  setCursor(Qt::PointingHandCursor);
  setFocusPolicy(Qt::StrongFocus);
  setFixedSize(sizeHint());
}

void PowerToggle::setLook(Look look) {
  if (look == look_) return;
  look_ = look;
  update();
}

void PowerToggle::paintEvent(QPaintEvent* /*event*/) {
  QPainter painter(this);
  painter.setRenderHint(QPainter::Antialiasing);
  QColor color = colors::kIdle;
  if (look_ == Look::on) color = colors::kProtected;
  if (look_ == Look::busy) color = colors::kBusy;
  if (!isEnabled()) color = QColor(0xd5, 0xdb, 0xe8);

  const QRectF outer = QRectF(rect()).adjusted(4, 4, -4, -4);
  QColor halo = color;
  halo.setAlpha(45);
  painter.setPen(Qt::NoPen);
  painter.setBrush(halo);
  painter.drawEllipse(outer);
  const QRectF inner = outer.adjusted(18, 18, -18, -18);
  painter.setBrush(color);
  painter.drawEllipse(inner);
  if (hasFocus()) {
    painter.setBrush(Qt::NoBrush);
    painter.setPen(QPen(colors::kAccent, 3));
    painter.drawEllipse(outer.adjusted(1, 1, -1, -1));
  }
  if (look_ == Look::busy) {
    painter.setBrush(Qt::NoBrush);
    painter.setPen(QPen(Qt::white, 4, Qt::DashLine, Qt::RoundCap));
    painter.drawEllipse(inner.adjusted(10, 10, -10, -10));
  }

  // The power symbol: an open ring and a bar.
  const QRectF symbol =
      inner.adjusted(inner.width() * 0.3, inner.height() * 0.3, -inner.width() * 0.3, -inner.height() * 0.3);
  painter.setPen(QPen(Qt::white, 7, Qt::SolidLine, Qt::RoundCap));
  painter.setBrush(Qt::NoBrush);
  painter.drawArc(symbol, 120 * 16, 300 * 16);
  painter.drawLine(QPointF(symbol.center().x(), symbol.top() - 6), QPointF(symbol.center().x(), symbol.center().y()));
}

Switch::Switch(const QString& accessibleName, QWidget* parent) : QAbstractButton(parent) {
  setCheckable(true);
  setCursor(Qt::PointingHandCursor);
  setFocusPolicy(Qt::StrongFocus);
  setAccessibleName(accessibleName);
  setFixedSize(sizeHint());
}

void Switch::paintEvent(QPaintEvent* /*event*/) {
  QPainter painter(this);
  painter.setRenderHint(QPainter::Antialiasing);
  const QRectF track = QRectF(rect()).adjusted(1, 1, -1, -1);
  QColor color = isChecked() ? colors::kProtected : QColor(0xd5, 0xdb, 0xe8);
  if (!isEnabled()) color.setAlpha(110);
  painter.setPen(hasFocus() ? QPen(colors::kAccent, 2) : Qt::NoPen);
  painter.setBrush(color);
  painter.drawRoundedRect(track, track.height() / 2, track.height() / 2);
  const qreal knob = track.height() - 6;
  const qreal x = isChecked() ? track.right() - 3 - knob : track.left() + 3;
  painter.setPen(Qt::NoPen);
  painter.setBrush(Qt::white);
  painter.drawEllipse(QRectF(x, track.top() + 3, knob, knob));
}

}  // namespace norvik::gui
