#include "app/ProgressIndicator.h"

#include <QStyleOptionProgressBar>
#include <QStylePainter>

ProgressIndicator::ProgressIndicator(QWidget* parent) : QProgressBar(parent) {}

void ProgressIndicator::setAnimating(bool animating)
{
    if (_animating == animating)
        return;
    _animating = animating;
    update();
}

void ProgressIndicator::paintEvent(QPaintEvent* event)
{
    if (_animating || !isIndeterminate()) {
        QProgressBar::paintEvent(event);
        return;
    }
    // Still and indeterminate: an empty determinate track (the style stops its busy animation).
    QStylePainter painter(this);
    QStyleOptionProgressBar option;
    initStyleOption(&option);
    option.minimum = 0;
    option.maximum = 1;
    option.progress = 0;
    painter.drawControl(QStyle::CE_ProgressBar, option);
}
