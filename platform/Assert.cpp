#include "platform/Assert.h"

#include "platform/SystemLog.h"

namespace platform {

namespace {
QString failureText(const QString& method, const QString& file, int line, const QString& message) {
    return QStringLiteral("*** Assertion failure in %1, %2:%3: %4").arg(method, file, QString::number(line), message);
}
}  // namespace

AssertionFailure::AssertionFailure(const QString& method, const QString& file, int line, const QString& message)
    : std::logic_error(failureText(method, file, line, message).toStdString()),
      _method(method), _file(file), _message(message), _line(line) {}

void assertionFailed(const QString& method, const QString& file, int line, const QString& message) {
    logMessage(failureText(method, file, line, message));
    throw AssertionFailure(method, file, line, message);
}

}  // namespace platform
