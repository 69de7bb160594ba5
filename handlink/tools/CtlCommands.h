#pragma once
// handlinkctl's command table. Each command registers itself with a name, a usage line and a
// function; main() parses --socket, finds the command and runs it. Commands print results to
// standard output and errors (through fail()) to standard error, and return the exit status.
#include "handlink/client/ControlClient.h"

#include <QCborMap>
#include <QMap>
#include <QSet>
#include <QString>
#include <QStringList>
#include <functional>
#include <vector>

namespace handlink::ctl {

// A command's arguments after the command word, split into positional words and options.
class Arguments {
public:
    // valued: options that take a value (--times N); flags: options without one (--clear).
    // False with *error for an unknown option or a missing value.
    bool parse(const QStringList& words, const QStringList& valued, const QStringList& flags, QString* error);
    const QStringList& positional() const { return _positional; }
    bool has(const QString& option) const { return _options.contains(option); }
    QString value(const QString& option, const QString& otherwise = QString()) const {
        return _options.value(option, otherwise);
    }

private:
    QStringList _positional;
    QMap<QString, QString> _options;
};

struct Context {
    QString socketPath;  // --socket, or the default daemon socket
    QStringList words;   // the words after the command name
};

struct Command {
    QString name;
    QString usage;  // "fail IDENTIFIER OPERATION STATUS [--times N] ..."
    std::function<int(Context&)> run;
};

void registerCommand(Command command);
const std::vector<Command>& commands();

// Registration functions, one per file of commands.
void registerCoreCommands();     // handlinkctl.cpp
void registerConduitCommands();  // ctl_conduit.cpp (file-conduit commands: hold-lock, …)

// Prints "handlinkctl: <message>" to standard error; returns the failing exit status (1).
int fail(const QString& message);
// Prints the usage of a command as an error; returns 2.
int usage(const QString& commandName);
// Prints a line to standard output and flushes it (watch output is read as it comes).
void printLine(const QString& line);
// Opens a control connection; on failure prints the reason and answers false.
bool openControl(const Context& context, client::ControlClient* control);
// One control request by op with the given fields; prints the daemon's error on failure.
bool controlCall(const Context& context, QCborMap request, QCborMap* answer = nullptr);
// Parses an integer in decimal (optionally negative) or 0x hex (32 bits, so 0xE800000B works).
bool parseInteger(const QString& text, qint64* value);

}  // namespace handlink::ctl
