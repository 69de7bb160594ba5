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
    // A command still running uses the controller from its worker thread: then the controller
    // stays until the process ends. Otherwise it is torn down (and stops observing devices).
    if (interface && !platform::Defaults::standard().boolForKey(QStringLiteral("appInactive")))
        (void)interface.release();
    interface.reset();
    return status;
}
