#pragma once

#include <QColor>
#include <QString>

class QApplication;

namespace norvik::gui {

// The look of the application: one light palette, round cards, one accent colour per state.
namespace colors {
inline const QColor kAccent{0x2f, 0x6b, 0xff};
inline const QColor kProtected{0x1f, 0xb8, 0x6a};
inline const QColor kBusy{0xf5, 0xa6, 0x23};
inline const QColor kProblem{0xe5, 0x48, 0x4d};
inline const QColor kIdle{0x9a, 0xa3, 0xb5};
}  // namespace colors

void applyStyle(QApplication& app);
[[nodiscard]] QString styleSheet();

}  // namespace norvik::gui
