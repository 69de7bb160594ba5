// vireo-screenshot: loads Vireo's windows exactly as the application does, waits until a
// device is shown, saves a picture of the main window and quits. Used by `./run demo
// --screenshot FILE`.
//
//   vireo-screenshot FILE [--defaults INI] [--timeout SECONDS]
//
// Exit status: 0 saved, 1 no device appeared in time or the picture could not be written,
// 2 usage. --defaults points the defaults store at that file instead of the user's.
#include <QApplication>
#include <QLabel>
#include <QTimer>
#include <cstdio>
#include <memory>

#include "app/AppInterface.h"
#include "app/MainWindow.h"
#include "platform/Defaults.h"

namespace {

int usage()
{
    std::fprintf(stderr, "usage: vireo-screenshot FILE [--defaults INI] [--timeout SECONDS]\n");
    return 2;
}

}  // namespace

int main(int argc, char** argv)
{
    QApplication application(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Vireo"));
    QApplication::setOrganizationName(QStringLiteral("Corvid"));

    QStringList args = QApplication::arguments().mid(1);
    QString file;
    QString defaultsFile;
    double timeoutSeconds = 20.0;
    while (!args.isEmpty()) {
        const QString word = args.takeFirst();
        if (word == u"--defaults" && !args.isEmpty()) {
            defaultsFile = args.takeFirst();
        } else if (word == u"--timeout" && !args.isEmpty()) {
            bool ok = false;
            timeoutSeconds = args.takeFirst().toDouble(&ok);
            if (!ok || timeoutSeconds <= 0)
                return usage();
        } else if (!word.startsWith(u'-') && file.isEmpty()) {
            file = word;
        } else {
            return usage();
        }
    }
    if (file.isEmpty())
        return usage();
    if (!defaultsFile.isEmpty())
        platform::Defaults::setStandardFile(defaultsFile);

    platform::Defaults& store = platform::Defaults::standard();
    AppInterface interface(store);
    interface.show();

    int status = 1;
    QTimer poll;
    QObject::connect(&poll, &QTimer::timeout, &application, [&] {
        if (!store.boolForKey(QStringLiteral("connected")) || !interface.mainWindow().isVisible())
            return;
        poll.stop();
        // A moment for the new name and the enabled Run button to be laid out.
        QTimer::singleShot(200, &application, [&] {
            if (interface.mainWindow().grab().save(file)) {
                std::printf("vireo-screenshot: %s shows \"%s\"\n", qPrintable(file),
                            qPrintable(interface.mainWindow().deviceNameLabel()->text()));
                status = 0;
            } else {
                std::fprintf(stderr, "vireo-screenshot: could not write %s\n", qPrintable(file));
            }
            QApplication::quit();
        });
    });
    poll.start(100);
    QTimer::singleShot(static_cast<int>(timeoutSeconds * 1000), &application, [] {
        std::fprintf(stderr, "vireo-screenshot: no device was shown in time\n");
        QApplication::quit();
    });
    QApplication::exec();
    return status;
}
