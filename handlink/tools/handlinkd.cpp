// handlinkd: the device emulator daemon (docs/emulator.md).
//   handlinkd [--socket PATH] [--device DIR]...
// Runs in the foreground until SIGINT or SIGTERM; prints one line per attach, detach and
// posted notification.
#include "handlink/client/DaemonSocket.h"
#include "handlink/emulator/Emulator.h"

#include <QCoreApplication>
#include <QStringList>
#include <csignal>
#include <cstdio>
#include <mutex>

namespace {

int fail(const QString& message) {
    std::fprintf(stderr, "handlinkd: %s\n", message.toLocal8Bit().constData());
    return 1;
}

int usage() {
    std::fprintf(stderr, "usage: handlinkd [--socket PATH] [--device DIR]...\n");
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    // Block the stop signals before any thread starts, so only sigwait() below receives them.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    // Sockets are written with MSG_NOSIGNAL; this covers standard output read by a pipe that
    // closes early, so the daemon outlives whoever watched its lines.
    std::signal(SIGPIPE, SIG_IGN);

    QCoreApplication app(argc, argv);
    QString socketPath = handlink::client::daemonSocketPath();
    QStringList devices;
    const QStringList words = app.arguments().mid(1);
    for (qsizetype i = 0; i < words.size(); ++i) {
        const QString& word = words[i];
        if ((word == QLatin1String("--socket") || word == QLatin1String("--device")) && i + 1 < words.size()) {
            if (word == QLatin1String("--socket"))
                socketPath = words[++i];
            else
                devices << words[++i];
        } else if (word == QLatin1String("--help")) {
            std::printf("usage: handlinkd [--socket PATH] [--device DIR]...\n");
            return 0;
        } else {
            return usage();
        }
    }

    std::mutex printMutex;  // one line at a time from the server's threads
    handlink::emu::Emulator emulator(socketPath);
    emulator.setPrinter([&printMutex](const QString& line) {
        std::lock_guard lock(printMutex);
        std::fprintf(stdout, "%s\n", line.toLocal8Bit().constData());
        std::fflush(stdout);
    });
    QString error;
    if (!emulator.start(&error)) return fail(error);
    {
        std::lock_guard lock(printMutex);
        std::fprintf(stdout, "listening on %s\n", socketPath.toLocal8Bit().constData());
        std::fflush(stdout);
    }
    for (const QString& folder : devices) {
        if (!emulator.attach(folder, &error)) {
            emulator.stop();
            return fail(error);
        }
    }

    int signal = 0;
    while (sigwait(&stopSignals, &signal) != 0) {
    }
    emulator.stop();
    {
        std::lock_guard lock(printMutex);
        std::fprintf(stdout, "stopped\n");
        std::fflush(stdout);
    }
    return 0;
}
