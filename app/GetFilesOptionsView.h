#pragma once
// The options of Get Files and Simulate Sync, placed into the main window's tab "2". Each
// control is bound to its defaults key and is enabled while no command runs. Main thread only.
#include <QWidget>
#include <memory>

namespace platform {
class Defaults;
}
namespace Ui {
class GetFilesOptionsView;
}

class GetFilesOptionsView : public QWidget {
    Q_OBJECT
public:
    explicit GetFilesOptionsView(platform::Defaults& store, QWidget* parent = nullptr);
    ~GetFilesOptionsView() override;

private:
    std::unique_ptr<Ui::GetFilesOptionsView> _ui;
};
