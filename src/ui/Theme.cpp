#include "ui/Theme.h"

#include <QPalette>
#include <QWidget>

namespace vantro {

namespace {

const char* const kStyleSheet = R"(
QMainWindow { background: %1; }
QMessageBox { background: %2; }
QMessageBox QLabel { color: %3; }
QPushButton { background: %4; color: #ffffff; border: none; border-radius: 4px;
              padding: 5px 16px; min-width: 64px; }
QPushButton:hover { background: %5; }
)";

} // namespace

ThemeColors themeColors(bool dark)
{
    if (dark)
        return {QColor(0x1b, 0x1e, 0x24), QColor(0x26, 0x2a, 0x32), QColor(0xe8, 0xea, 0xee),
                QColor(0x4c, 0x8d, 0xf6)};
    return {QColor(0xf5, 0xf6, 0xf8), QColor(0xff, 0xff, 0xff), QColor(0x1f, 0x23, 0x29),
            QColor(0x1f, 0x5f, 0xd1)};
}

void applyTheme(QWidget* window, bool dark)
{
    const ThemeColors colors = themeColors(dark);
    QPalette palette = window->palette();
    palette.setColor(QPalette::Window, colors.background);
    palette.setColor(QPalette::Base, colors.surface);
    palette.setColor(QPalette::AlternateBase, colors.background);
    palette.setColor(QPalette::Button, colors.surface);
    for (auto role : {QPalette::WindowText, QPalette::Text, QPalette::ButtonText})
        palette.setColor(role, colors.text);
    palette.setColor(QPalette::Highlight, colors.accent);
    window->setPalette(palette);
    window->setStyleSheet(QString::fromUtf8(kStyleSheet)
                              .arg(colors.background.name(), colors.surface.name(),
                                   colors.text.name(), colors.accent.name(),
                                   colors.accent.lighter(115).name()));
}

} // namespace vantro
