#include "app/WindowLevel.h"

#include <QVariant>
#include <QWidget>

namespace windowlevel {

namespace {
const char* const kLevelProperty = "windowLevel";
}

int level(const QWidget* window)
{
    const QVariant stored = window->property(kLevelProperty);
    if (stored.isValid())
        return stored.toInt();
    return window->windowFlags().testFlag(Qt::WindowStaysOnTopHint) ? kFloatingWindowLevel : kNormalWindowLevel;
}

void setLevel(QWidget* window, int newLevel, QWidget* below)
{
    window->setProperty(kLevelProperty, newLevel);
    // A dialog-type child of `below` is its transient: always drawn above it.
    if (below && newLevel > level(below) && window->parentWidget() != below)
        window->setParent(below, window->windowFlags() | Qt::Dialog);
    const bool onTop = newLevel >= kFloatingWindowLevel;
    if (window->windowFlags().testFlag(Qt::WindowStaysOnTopHint) != onTop)
        window->setWindowFlag(Qt::WindowStaysOnTopHint, onTop);
}

}  // namespace windowlevel
