// handlinkctl: controls the device emulator daemon (docs/emulator.md).
//   handlinkctl [--socket PATH] COMMAND ARGUMENTS...
#include "handlink/Handlink.h"
#include "handlink/client/ControlClient.h"
#include "handlink/emulator/Emulator.h"
#include "handlink/tools/CtlCommands.h"
#include "handlink/wire/Frame.h"
#include "handlink/wire/Values.h"
#include "platform/PropertyList.h"

#include <QCborArray>
#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>
#include <cstdio>
#include <unistd.h>

namespace handlink::ctl {

namespace {

QCborMap request(const char* op) {
    QCborMap map;
    map.insert(QStringLiteral("op"), QLatin1String(op));
    return map;
}

// Parses the words; prints the usage on a wrong count or option.
bool parseWords(Context& context, const QString& name, Arguments* args, qsizetype minimum, qsizetype maximum,
                const QStringList& valued = {}, const QStringList& flags = {}) {
    QString error;
    if (!args->parse(context.words, valued, flags, &error)) {
        fail(error);
        usage(name);
        return false;
    }
    if (args->positional().size() < minimum || args->positional().size() > maximum) {
        usage(name);
        return false;
    }
    return true;
}

bool integerOption(const Arguments& args, const QString& option, qint64 otherwise, qint64* value) {
    if (!args.has(option)) {
        *value = otherwise;
        return true;
    }
    if (parseInteger(args.value(option), value)) return true;
    fail(QStringLiteral("%1 wants a number, not \"%2\"").arg(option, args.value(option)));
    return false;
}

int makeDeviceCommand(Context& context) {
    Arguments args;
    if (!parseWords(context, QStringLiteral("make-device"), &args, 1, 1,
                    {QStringLiteral("--name"), QStringLiteral("--class"), QStringLiteral("--identifier"),
                     QStringLiteral("--sample"), QStringLiteral("--files"), QStringLiteral("--seed")}))
        return 2;
    emu::MakeDeviceOptions options;
    options.name = args.value(QStringLiteral("--name"), options.name);
    options.deviceClass = args.value(QStringLiteral("--class"), options.deviceClass);
    options.identifier = args.value(QStringLiteral("--identifier"));
    options.sample = args.value(QStringLiteral("--sample"));
    qint64 files = 0, seed = 1;
    if (!integerOption(args, QStringLiteral("--files"), 0, &files) || !integerOption(args, QStringLiteral("--seed"), 1, &seed))
        return 2;
    options.files = static_cast<int>(files);
    options.seed = static_cast<uint32_t>(seed);
    QString error;
    const QString folder = QFileInfo(args.positional()[0]).absoluteFilePath();
    if (!emu::makeDevice(folder, options, &error)) return fail(error);
    printLine(QStringLiteral("made device %1").arg(folder));
    return 0;
}

int listCommand(Context& context) {
    Arguments args;
    if (!parseWords(context, QStringLiteral("list"), &args, 0, 0)) return 2;
    QCborMap answer;
    if (!controlCall(context, request("list"), &answer)) return 1;
    for (const QCborValue& entry : answer.value(QStringLiteral("devices")).toArray()) {
        const QCborMap device = entry.toMap();
        printLine(QStringLiteral("%1\t%2").arg(device.value(QStringLiteral("id")).toString(),
                                              device.value(QStringLiteral("name")).toString()));
    }
    return 0;
}

int attachCommand(Context& context) {
    Arguments args;
    if (!parseWords(context, QStringLiteral("attach"), &args, 1, 1)) return 2;
    QCborMap message = request("attach");
    message.insert(QStringLiteral("folder"), QFileInfo(args.positional()[0]).absoluteFilePath());
    QCborMap answer;
    if (!controlCall(context, message, &answer)) return 1;
    printLine(QStringLiteral("%1\t%2").arg(answer.value(QStringLiteral("id")).toString(),
                                          answer.value(QStringLiteral("name")).toString()));
    return 0;
}

int detachCommand(Context& context) {
    Arguments args;
    if (!parseWords(context, QStringLiteral("detach"), &args, 1, 1)) return 2;
    QCborMap message = request("detach");
    message.insert(QStringLiteral("id"), args.positional()[0]);
    return controlCall(context, message) ? 0 : 1;
}

int watchCommand(Context& context) {
    Arguments args;
    if (!parseWords(context, QStringLiteral("watch"), &args, 0, 1)) return 2;
    client::ControlClient control;
    if (!openControl(context, &control)) return 1;
    QCborMap message = request("watch");
    if (!args.positional().isEmpty()) message.insert(QStringLiteral("id"), args.positional()[0]);
    QString error;
    if (!control.call(message, nullptr, &error)) return fail(error);
    // On standard error, so standard output carries the notifications alone.
    std::fprintf(stderr, "watching %s (interrupt to stop)\n",
                 args.positional().isEmpty() ? "all devices" : args.positional()[0].toLocal8Bit().constData());
    std::fflush(stderr);
    for (;;) {
        QCborMap event;
        if (wire::readFrame(control.fd(), &event) != wire::ReadResult::Ok) return fail(QStringLiteral("the daemon went away"));
        if (event.value(QStringLiteral("event")).toString() != QLatin1String("posted")) continue;
        printLine(QStringLiteral("%1\t%2").arg(event.value(QStringLiteral("id")).toString(),
                                              event.value(QStringLiteral("name")).toString()));
    }
}

int failCommand(Context& context) {
    Arguments args;
    if (!parseWords(context, QStringLiteral("fail"), &args, 1, 3,
                    {QStringLiteral("--times"), QStringLiteral("--after"), QStringLiteral("--match")}, {QStringLiteral("--clear")}))
        return 2;
    const QStringList& words = args.positional();
    if (args.has(QStringLiteral("--clear"))) {
        if (words.size() != 1) return usage(QStringLiteral("fail"));
        QCborMap message = request("clear-faults");
        message.insert(QStringLiteral("id"), words[0]);
        return controlCall(context, message) ? 0 : 1;
    }
    if (words.size() != 3) return usage(QStringLiteral("fail"));
    qint64 status = 0, times = 1, after = 0;
    if (!parseInteger(words[2], &status)) return fail(QStringLiteral("STATUS wants a number (decimal or 0x hex), not \"%1\"").arg(words[2]));
    if (!integerOption(args, QStringLiteral("--times"), 1, &times) || !integerOption(args, QStringLiteral("--after"), 0, &after))
        return 2;
    QCborMap message = request("fail");
    message.insert(QStringLiteral("id"), words[0]);
    message.insert(QStringLiteral("operation"), words[1]);
    message.insert(QStringLiteral("status"), status);
    message.insert(QStringLiteral("times"), times);
    message.insert(QStringLiteral("after"), after);
    if (args.has(QStringLiteral("--match"))) message.insert(QStringLiteral("match"), args.value(QStringLiteral("--match")));
    return controlCall(context, message) ? 0 : 1;
}

int delayCommand(Context& context) {
    Arguments args;
    if (!parseWords(context, QStringLiteral("delay"), &args, 3, 3, {QStringLiteral("--times")})) return 2;
    const QStringList& words = args.positional();
    qint64 ms = 0, times = 1;
    if (!parseInteger(words[2], &ms) || ms < 0)
        return fail(QStringLiteral("MILLISECONDS wants a number, not \"%1\"").arg(words[2]));
    if (!integerOption(args, QStringLiteral("--times"), 1, &times)) return 2;
    QCborMap message = request("delay");
    message.insert(QStringLiteral("id"), words[0]);
    message.insert(QStringLiteral("operation"), words[1]);
    message.insert(QStringLiteral("milliseconds"), ms);
    message.insert(QStringLiteral("times"), times);
    return controlCall(context, message) ? 0 : 1;
}

int pairingCommand(Context& context) {
    Arguments args;
    if (!parseWords(context, QStringLiteral("pairing"), &args, 2, 2)) return 2;
    QCborMap message = request("pairing");
    message.insert(QStringLiteral("id"), args.positional()[0]);
    message.insert(QStringLiteral("mode"), args.positional()[1]);
    return controlCall(context, message) ? 0 : 1;
}

// Posts the way the desktop does: connect, pair if needed, session, notification service.
int postCommand(Context& context) {
    Arguments args;
    if (!parseWords(context, QStringLiteral("post"), &args, 2, 2)) return 2;
    const QString identifier = args.positional()[0];
    const QString name = args.positional()[1];
    QString error;
    HLDeviceRef device = client::copyDeviceForIdentifier(context.socketPath, identifier, &error);
    if (!device) return fail(error);
    auto failed = [device](const char* call, HLDStatus status) {
        HLDeviceRelease(device);
        return fail(QStringLiteral("%1() answered %2 (0x%3)")
                        .arg(QLatin1String(call), QString::number(status), QString::number(quint32(status), 16)));
    };
    HLDStatus status = HLDeviceConnect(device);
    if (status != kHLDSuccess) return failed("HLDeviceConnect", status);
    if (!HLDeviceIsPaired(device) && (status = HLDevicePair(device)) != kHLDSuccess) {
        HLDeviceDisconnect(device);
        return failed("HLDevicePair", status);
    }
    if ((status = HLDeviceStartSession(device)) != kHLDSuccess) {
        HLDeviceDisconnect(device);
        return failed("HLDeviceStartSession", status);
    }
    int socket = -1;
    status = HLDeviceStartService(device, QStringLiteral("com.corvid.mobile.notification_proxy"), &socket, nullptr);
    HLDeviceStopSession(device);
    HLDeviceDisconnect(device);
    if (status != kHLDSuccess) return failed("HLDeviceStartService", status);
    status = HLDPostNotification(socket, name, nullptr);
    HLDShutdownNotificationProxy(socket);
    ::close(socket);
    if (status != kHLDSuccess) return failed("HLDPostNotification", status);
    HLDeviceRelease(device);
    return 0;
}

int valuesCommand(Context& context) {
    Arguments args;
    if (!parseWords(context, QStringLiteral("values"), &args, 1, 2)) return 2;
    QCborMap message = request("values");
    message.insert(QStringLiteral("id"), args.positional()[0]);
    if (args.positional().size() > 1) message.insert(QStringLiteral("domain"), args.positional()[1]);
    QCborMap answer;
    if (!controlCall(context, message, &answer)) return 1;
    const QVariant values = wire::fromCbor(answer.value(QStringLiteral("values")));
    std::fputs(platform::plist::toXml(values).constData(), stdout);
    std::fflush(stdout);
    return 0;
}

int statsCommand(Context& context) {
    Arguments args;
    if (!parseWords(context, QStringLiteral("stats"), &args, 1, 1, {}, {QStringLiteral("--reset")})) return 2;
    QCborMap message = request("stats");
    message.insert(QStringLiteral("id"), args.positional()[0]);
    QCborMap answer;
    if (!controlCall(context, message, &answer)) return 1;
    const QCborMap counts = answer.value(QStringLiteral("counts")).toMap();
    for (auto it = counts.begin(); it != counts.end(); ++it)
        printLine(QStringLiteral("%1\t%2").arg(it.key().toString(), QString::number(it.value().toInteger())));
    const QCborMap posts = answer.value(QStringLiteral("posts")).toMap();
    for (auto it = posts.begin(); it != posts.end(); ++it)
        printLine(QStringLiteral("posted %1\t%2").arg(it.key().toString(), QString::number(it.value().toInteger())));
    if (args.has(QStringLiteral("--reset"))) {
        QCborMap reset = request("reset-counters");
        reset.insert(QStringLiteral("id"), args.positional()[0]);
        if (!controlCall(context, reset)) return 1;
    }
    return 0;
}

}  // namespace

void registerCoreCommands() {
    registerCommand({QStringLiteral("make-device"),
                     QStringLiteral("make-device DIR [--name NAME] [--class Tamber|Zephyr] [--identifier ID] "
                                    "[--sample small|large|SIZE] [--files N] [--seed N]"),
                     makeDeviceCommand});
    registerCommand({QStringLiteral("list"), QStringLiteral("list"), listCommand});
    registerCommand({QStringLiteral("attach"), QStringLiteral("attach DIR"), attachCommand});
    registerCommand({QStringLiteral("detach"), QStringLiteral("detach IDENTIFIER"), detachCommand});
    registerCommand({QStringLiteral("watch"), QStringLiteral("watch [IDENTIFIER]"), watchCommand});
    registerCommand({QStringLiteral("fail"),
                     QStringLiteral("fail IDENTIFIER OPERATION STATUS [--times N] [--after N] [--match TEXT]\n"
                                    "       handlinkctl [--socket PATH] fail IDENTIFIER --clear"),
                     failCommand});
    registerCommand({QStringLiteral("delay"), QStringLiteral("delay IDENTIFIER OPERATION MILLISECONDS [--times N]"),
                     delayCommand});
    registerCommand({QStringLiteral("pairing"), QStringLiteral("pairing IDENTIFIER accept|refuse|forget"), pairingCommand});
    registerCommand({QStringLiteral("post"), QStringLiteral("post IDENTIFIER NAME"), postCommand});
    registerCommand({QStringLiteral("values"), QStringLiteral("values IDENTIFIER [DOMAIN]"), valuesCommand});
    registerCommand({QStringLiteral("stats"), QStringLiteral("stats IDENTIFIER [--reset]"), statsCommand});
}

}  // namespace handlink::ctl

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    using namespace handlink::ctl;
    registerCoreCommands();
    registerConduitCommands();

    QStringList words = app.arguments().mid(1);
    Context context;
    const qsizetype socketIndex = words.indexOf(QStringLiteral("--socket"));
    if (socketIndex >= 0) {
        if (socketIndex + 1 >= words.size()) return fail(QStringLiteral("--socket needs a path"));
        context.socketPath = words[socketIndex + 1];
        words.remove(socketIndex, 2);
        // The client library finds the daemon through this variable (handlinkctl post).
        qputenv("HANDLINK_SOCKET", QFile::encodeName(context.socketPath));
    }
    if (words.isEmpty() || words[0] == QLatin1String("--help") || words[0] == QLatin1String("help")) {
        std::fprintf(words.isEmpty() ? stderr : stdout, "usage: handlinkctl [--socket PATH] COMMAND ...\ncommands:\n");
        for (const Command& command : commands())
            std::fprintf(words.isEmpty() ? stderr : stdout, "  %s\n", command.usage.toLocal8Bit().constData());
        return words.isEmpty() ? 2 : 0;
    }
    for (const Command& command : commands()) {
        if (command.name != words[0]) continue;
        context.words = words.mid(1);
        return command.run(context);
    }
    return fail(QStringLiteral("unknown command \"%1\" (handlinkctl --help lists them)").arg(words[0]));
}
