#include "platform/ErrorRecord.h"

#include <cstring>

namespace platform {

QString ErrorRecord::description() const {
    if (!_localizedDescription.isEmpty()) return _localizedDescription;
    QString text = QStringLiteral("Error Domain=%1 Code=%2").arg(_domain, QString::number(_code));
    if (_domain == kPOSIXErrorDomain)
        text += QStringLiteral(" \"%1\"").arg(QString::fromLocal8Bit(strerror(static_cast<int>(_code))));
    if (_filePath) text += QStringLiteral(" UserInfo={NSFilePath=%1}").arg(*_filePath);
    return text;
}

}  // namespace platform
