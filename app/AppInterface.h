#pragma once
// The application's interface, loaded the way the program starts: the controller is created
// (its init writes the window state and registers for devices), the windows are made and
// bound to the defaults store, the controller's outlets are connected, its awake step runs,
// and the menus are wired to it. Destroying the interface destroys the controller first.
// Main thread only.
#include <memory>

namespace platform {
class Defaults;
}
class GetFilesOptionsView;
class MainWindow;
class SettingsWindow;
class VRAppController;
class WarningPanel;

class AppInterface {
public:
    explicit AppInterface(platform::Defaults& store);
    ~AppInterface();
    AppInterface(const AppInterface&) = delete;
    AppInterface& operator=(const AppInterface&) = delete;

    // Shows the main window, and the settings window when "settingsWindowVisible" says so.
    void show();

    VRAppController& controller() const { return *_controller; }
    MainWindow& mainWindow() const { return *_mainWindow; }
    SettingsWindow& settingsWindow() const { return *_settingsWindow; }
    WarningPanel& warningPanel() const { return *_warningPanel; }
    GetFilesOptionsView& optionsView() const { return *_optionsView; }

private:
    platform::Defaults& _store;
    std::unique_ptr<VRAppController> _controller;
    std::unique_ptr<MainWindow> _mainWindow;  // owns the warning panel and the options view
    std::unique_ptr<SettingsWindow> _settingsWindow;
    WarningPanel* _warningPanel = nullptr;
    GetFilesOptionsView* _optionsView = nullptr;
};
