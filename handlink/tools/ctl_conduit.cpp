// handlinkctl commands of the file conduit: hold-lock, the device's own software holding a
// lock file in its media area. ("make-device --sample/--files/--seed" is parsed by the core
// make-device command and handed to makeDevice(), which calls fillSampleMedia().)
#include <signal.h>
#include <sys/socket.h>

#include <QCborMap>
#include <atomic>
#include <cmath>

#include "handlink/tools/CtlCommands.h"
#include "handlink/wire/Frame.h"

namespace handlink::ctl {

namespace {

// The control connection of a running hold-lock, for the signal handler.
std::atomic<int> g_holdFd{-1};

// Interrupted: stop writing, which the daemon takes as "let go"; its last answer still comes.
void interrupt(int) {
    const int fd = g_holdFd.load();
    if (fd >= 0) ::shutdown(fd, SHUT_WR);
}

int holdLockCommand(Context& context) {
    const QString name = QStringLiteral("hold-lock");
    Arguments args;
    QString error;
    if (!args.parse(context.words,
                    {QStringLiteral("--yield-on"), QStringLiteral("--after-requests"), QStringLiteral("--after"),
                     QStringLiteral("--seconds")},
                    {QStringLiteral("--shared"), QStringLiteral("--exclusive")}, &error)) {
        fail(error);
        return usage(name);
    }
    const bool shared = args.has(QStringLiteral("--shared"));
    const bool exclusive = args.has(QStringLiteral("--exclusive"));
    const bool yields = args.has(QStringLiteral("--yield-on"));
    if (args.positional().size() != 2 || shared == exclusive) return usage(name);
    if (!yields && (args.has(QStringLiteral("--after-requests")) || args.has(QStringLiteral("--after"))))
        return usage(name);
    qint64 afterRequests = 1, seconds = 0;
    if (args.has(QStringLiteral("--after-requests")) &&
        (!parseInteger(args.value(QStringLiteral("--after-requests")), &afterRequests) || afterRequests < 1))
        return fail(QStringLiteral("--after-requests wants a number of at least 1"));
    if (args.has(QStringLiteral("--seconds")) &&
        (!parseInteger(args.value(QStringLiteral("--seconds")), &seconds) || seconds < 0))
        return fail(QStringLiteral("--seconds wants a number of seconds"));
    bool ok = true;
    const double after = args.has(QStringLiteral("--after")) ? args.value(QStringLiteral("--after")).toDouble(&ok) : 0.0;
    if (!ok || after < 0 || !std::isfinite(after)) return fail(QStringLiteral("--after wants a number of seconds"));

    const QString identifier = args.positional()[0];
    const QString path = args.positional()[1];
    QCborMap request;
    request.insert(QStringLiteral("op"), QStringLiteral("hold-lock"));
    request.insert(QStringLiteral("id"), identifier);
    request.insert(QStringLiteral("path"), path);
    request.insert(QStringLiteral("exclusive"), exclusive);
    if (yields) {
        request.insert(QStringLiteral("yieldOn"), args.value(QStringLiteral("--yield-on")));
        request.insert(QStringLiteral("afterRequests"), afterRequests);
        request.insert(QStringLiteral("afterMs"), static_cast<qint64>(std::llround(after * 1000.0)));
    }
    request.insert(QStringLiteral("seconds"), seconds);
    request.insert(QStringLiteral("wait"), true);

    client::ControlClient control;
    if (!openControl(context, &control)) return 1;
    g_holdFd.store(control.fd());
    struct sigaction action {};
    action.sa_handler = interrupt;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGHUP, &action, nullptr);

    if (!control.call(request, nullptr, &error)) return fail(error);
    const QString kind = exclusive ? QStringLiteral("exclusive") : QStringLiteral("shared");
    printLine(QStringLiteral("holding %1 lock on %2 of %3").arg(kind, path, identifier));
    QCborMap last;
    if (wire::readFrame(control.fd(), &last) != wire::ReadResult::Ok ||
        !last.value(QStringLiteral("released")).toBool())
        return fail(QStringLiteral("the daemon went away while holding the lock on %1").arg(path));
    printLine(QStringLiteral("released %1 lock on %2 of %3").arg(kind, path, identifier));
    return 0;
}

}  // namespace

void registerConduitCommands() {
    registerCommand({QStringLiteral("hold-lock"),
                     QStringLiteral("hold-lock IDENTIFIER PATH --shared|--exclusive [--yield-on NAME "
                                    "[--after-requests K] [--after SECONDS]] [--seconds N]"),
                     holdLockCommand});
}

}  // namespace handlink::ctl
