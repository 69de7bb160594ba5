#pragma once
// Assertion failures for programming errors: logged, then raised as an exception whose text
// names the method, the source file, the line and the message.
//   *** Assertion failure in <method>, <file>:<line>: <message>
#include <QString>
#include <stdexcept>

namespace platform {

class AssertionFailure : public std::logic_error {
public:
    AssertionFailure(const QString& method, const QString& file, int line, const QString& message);
    const QString& method() const { return _method; }
    const QString& file() const { return _file; }
    int line() const { return _line; }
    const QString& message() const { return _message; }

private:
    QString _method, _file, _message;
    int _line;
};

// Logs the failure and throws AssertionFailure.
[[noreturn]] void assertionFailed(const QString& method, const QString& file, int line, const QString& message);

}  // namespace platform

// Checks cond; on failure raises with the given file name (as the program names its sources),
// line and message.
#define VR_ASSERT(cond, method, file, line, message)                        \
    do {                                                                    \
        if (!(cond)) ::platform::assertionFailed((method), (file), (line), (message)); \
    } while (0)
