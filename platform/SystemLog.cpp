#include "platform/SystemLog.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QFileInfo>
#include <cstdio>
#include <syslog.h>
#include <unistd.h>

namespace platform {

namespace {

std::mutex g_outputMutex;  // guards the captures and keeps lines whole on stderr
LogCapture* g_capture = nullptr;
StderrCapture* g_stderrCapture = nullptr;

QString processName() {
    static const QString name = [] {
        if (QCoreApplication::instance()) return QFileInfo(QCoreApplication::applicationFilePath()).fileName();
        return QString::fromLocal8Bit(program_invocation_short_name);
    }();
    return name;
}

}  // namespace

void logMessage(const QString& message) {
    const QByteArray name = processName().toLocal8Bit();
    const QString stamp = QDateTime::currentDateTime().toString(QStringLiteral("yyyy-MM-dd HH:mm:ss.zzz"));
    const QByteArray line = QStringLiteral("%1 %2[%3]: %4\n")
                                .arg(stamp, processName(), QString::number(getpid()), message)
                                .toUtf8();
    std::lock_guard lock(g_outputMutex);
    fwrite(line.constData(), 1, static_cast<size_t>(line.size()), stderr);
    fflush(stderr);
    static bool opened = false;
    static QByteArray ident;
    if (!opened) {
        ident = name;
        openlog(ident.constData(), LOG_PID, LOG_USER);
        opened = true;
    }
    syslog(LOG_NOTICE, "%s", message.toUtf8().constData());
    if (g_capture) g_capture->append(message);
}

LogCapture::LogCapture() {
    std::lock_guard lock(g_outputMutex);
    g_capture = this;
}

LogCapture::~LogCapture() {
    std::lock_guard lock(g_outputMutex);
    if (g_capture == this) g_capture = nullptr;
}

QStringList LogCapture::lines() const {
    std::lock_guard lock(_mutex);
    return _lines;
}

QStringList LogCapture::linesStartingWith(const QString& prefix) const {
    QStringList out;
    for (const QString& line : lines())
        if (line.startsWith(prefix)) out << line;
    return out;
}

void LogCapture::clear() {
    std::lock_guard lock(_mutex);
    _lines.clear();
}

void LogCapture::append(const QString& line) {
    std::lock_guard lock(_mutex);
    _lines << line;
}

void writeStandardError(const QString& text) {
    const QByteArray bytes = text.toLocal8Bit();
    std::lock_guard lock(g_outputMutex);
    fwrite(bytes.constData(), 1, static_cast<size_t>(bytes.size()), stderr);
    fflush(stderr);
    if (g_stderrCapture) g_stderrCapture->append(text);
}

StderrCapture::StderrCapture() {
    std::lock_guard lock(g_outputMutex);
    g_stderrCapture = this;
}

StderrCapture::~StderrCapture() {
    std::lock_guard lock(g_outputMutex);
    if (g_stderrCapture == this) g_stderrCapture = nullptr;
}

QString StderrCapture::text() const {
    std::lock_guard lock(_mutex);
    return _text;
}

void StderrCapture::append(const QString& text) {
    std::lock_guard lock(_mutex);
    _text += text;
}

}  // namespace platform
