#pragma once

#include <QColor>
#include <QString>

class QWidget;

namespace vantro {

struct ThemeColors
{
    QColor background;
    QColor surface;
    QColor text;
    QColor accent;
};

ThemeColors themeColors(bool dark);

// Applies the light or dark look (palette and stylesheet) to a top-level window.
void applyTheme(QWidget* window, bool dark);

} // namespace vantro
