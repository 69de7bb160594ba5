#pragma once
// Revealing a file in the desktop file browser. The default revealer asks the freedesktop
// file manager over D-Bus (org.freedesktop.FileManager1.ShowItems) and falls back to opening
// the parent folder. Tests install their own revealer.
#include <QString>
#include <memory>

namespace platform {

class Revealer {
public:
    virtual ~Revealer() = default;
    // Shows the item selected in a browser window of its parent folder. Any thread.
    virtual void reveal(const QString& path) = 0;

    static Revealer& current();
    // Replaces the process-wide revealer; returns the previous one. Main thread.
    static std::unique_ptr<Revealer> setCurrent(std::unique_ptr<Revealer> revealer);
};

class DesktopRevealer : public Revealer {
public:
    void reveal(const QString& path) override;
};

}  // namespace platform
