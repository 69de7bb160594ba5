// Vireo: hands control to the main loop; the interface loads from inside it.
#include <QApplication>
#include <QTimer>
#include <memory>

#include "app/AppInterface.h"
#include "platform/Defaults.h"

int main(int argc, char** argv)
{
    QApplication application(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Vireo"));
    QApplication::setOrganizationName(QStringLiteral("Corvid"));

    std::unique_ptr<AppInterface> interface;
    QTimer::singleShot(0, &application, [&interface] {
        interface = std::make_unique<AppInterface>(platform::Defaults::standard());
        interface->show();
    });
    const int status = QApplication::exec();
    interface.reset();
    return status;
}
