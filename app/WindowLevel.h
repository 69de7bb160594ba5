#pragma once
// Window levels: a window of a higher level floats above windows of lower levels. Qt has no
// such numbers, so a window's level is kept as its "windowLevel" property (absent: normal, or
// floating for a stays-on-top window), and a window raised above another one becomes its
// transient (the window manager keeps it above that window). Main thread only.
class QWidget;

namespace windowlevel {

constexpr int kNormalWindowLevel = 0;
constexpr int kFloatingWindowLevel = 3;

int level(const QWidget* window);
// Stores the level; a window above `below`'s level is kept on top of `below` (and of every
// window with a floating level or higher stays on top of all). Call while the window is hidden.
void setLevel(QWidget* window, int level, QWidget* below = nullptr);

}  // namespace windowlevel
