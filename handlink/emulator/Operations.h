#pragma once
// The names of the counted and fault-injectable device operations (handlinkctl uses the same
// words). One list, checked in one place by the control connection.
#include <QString>
#include <QStringList>

namespace handlink::emu::ops {

inline const QString kConnect = QStringLiteral("connect");
inline const QString kDisconnect = QStringLiteral("disconnect");
inline const QString kIsPaired = QStringLiteral("is-paired");
inline const QString kPair = QStringLiteral("pair");
inline const QString kStartSession = QStringLiteral("start-session");
inline const QString kStopSession = QStringLiteral("stop-session");
inline const QString kGetValue = QStringLiteral("get-value");
inline const QString kSetValue = QStringLiteral("set-value");
inline const QString kStartService = QStringLiteral("start-service");
inline const QString kPostNotification = QStringLiteral("post-notification");
inline const QString kShutdownNotifications = QStringLiteral("shutdown-notifications");

// Every operation name a fault or delay may name: the lockdown and notification operations
// above and the file conduit's ("qfc-…").
inline QStringList all() {
    return {kConnect, kDisconnect, kIsPaired, kPair, kStartSession, kStopSession, kGetValue, kSetValue,
            kStartService, kPostNotification, kShutdownNotifications,
            QStringLiteral("qfc-connect"), QStringLiteral("qfc-disconnect"), QStringLiteral("qfc-open"),
            QStringLiteral("qfc-read"), QStringLiteral("qfc-lock"), QStringLiteral("qfc-unlock"),
            QStringLiteral("qfc-close"), QStringLiteral("qfc-info"), QStringLiteral("qfc-dir-open"),
            QStringLiteral("qfc-dir-read"), QStringLiteral("qfc-dir-close"), QStringLiteral("qfc-remove")};
}

inline bool isKnown(const QString& operation) { return all().contains(operation); }

}  // namespace handlink::emu::ops
