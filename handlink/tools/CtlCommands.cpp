#include "handlink/tools/CtlCommands.h"

#include <cstdio>

namespace handlink::ctl {

namespace {
std::vector<Command>& table() {
    static std::vector<Command> commands;
    return commands;
}
}  // namespace

bool Arguments::parse(const QStringList& words, const QStringList& valued, const QStringList& flags, QString* error) {
    for (qsizetype i = 0; i < words.size(); ++i) {
        const QString& word = words[i];
        if (!word.startsWith(QLatin1String("--")) || word == QLatin1String("--")) {
            _positional << word;
            continue;
        }
        if (flags.contains(word)) {
            _options.insert(word, QString());
        } else if (valued.contains(word)) {
            if (i + 1 >= words.size()) {
                *error = QStringLiteral("%1 needs a value").arg(word);
                return false;
            }
            _options.insert(word, words[++i]);
        } else {
            *error = QStringLiteral("unknown option %1").arg(word);
            return false;
        }
    }
    return true;
}

void registerCommand(Command command) { table().push_back(std::move(command)); }

const std::vector<Command>& commands() { return table(); }

int fail(const QString& message) {
    std::fprintf(stderr, "handlinkctl: %s\n", message.toLocal8Bit().constData());
    return 1;
}

int usage(const QString& commandName) {
    for (const Command& command : commands())
        if (command.name == commandName)
            std::fprintf(stderr, "usage: handlinkctl [--socket PATH] %s\n", command.usage.toLocal8Bit().constData());
    return 2;
}

void printLine(const QString& line) {
    std::fprintf(stdout, "%s\n", line.toLocal8Bit().constData());
    std::fflush(stdout);
}

bool openControl(const Context& context, client::ControlClient* control) {
    QString error;
    if (control->open(context.socketPath, &error)) return true;
    fail(error);
    return false;
}

bool controlCall(const Context& context, QCborMap request, QCborMap* answer) {
    client::ControlClient control;
    if (!openControl(context, &control)) return false;
    QString error;
    if (control.call(request, answer, &error)) return true;
    fail(error);
    return false;
}

bool parseInteger(const QString& text, qint64* value) {
    bool ok = false;
    if (text.startsWith(QLatin1String("0x"), Qt::CaseInsensitive)) {
        const quint64 u = text.mid(2).toULongLong(&ok, 16);
        if (!ok || u > 0xFFFFFFFFull) return false;
        *value = static_cast<int32_t>(static_cast<uint32_t>(u));
        return true;
    }
    *value = text.toLongLong(&ok, 10);
    return ok;
}

}  // namespace handlink::ctl
