#pragma once
// System log: one line per message, "<time stamp> <process>[<pid>]: <message>", written to
// standard error and to syslog. Thread-safe. Tests install a LogCapture to read lines back.
#include <QString>
#include <QStringList>
#include <mutex>

namespace platform {

void logMessage(const QString& message);

// While alive, every logged message (without the prefix) is also kept here, in order.
// One capture at a time; it may be read from any thread.
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    QStringList lines() const;
    // Lines that start with prefix.
    QStringList linesStartingWith(const QString& prefix) const;
    void clear();
    void append(const QString& line);  // used by the log

private:
    mutable std::mutex _mutex;  // guards _lines
    QStringList _lines;
};

// Standard-error capture for the two messages that go there instead of the log
// ("Unknown action: %d\n", "Could not shut down notifications: %d\n").
// Writes go through writeStandardError(); a StderrCapture keeps a copy while alive.
void writeStandardError(const QString& text);
class StderrCapture {
public:
    StderrCapture();
    ~StderrCapture();
    QString text() const;
    void append(const QString& text);

private:
    mutable std::mutex _mutex;  // guards _text
    QString _text;
};

}  // namespace platform
