#include "platform/PathJoin.h"

#include <QStringList>

namespace platform {

namespace {

// Reduces runs of "/" to one and drops a trailing "/" (but keeps "/" itself).
QString collapseSeparators(const QString& path)
{
    QString result;
    result.reserve(path.size());
    for (const QChar c : path) {
        if (c == u'/' && result.endsWith(u'/')) continue;
        result.append(c);
    }
    if (result.size() > 1 && result.endsWith(u'/')) result.chop(1);
    return result;
}

}  // namespace

QString joinPath(const QString& a, const QString& b)
{
    if (a.isEmpty()) return collapseSeparators(b);
    if (b.isEmpty()) return collapseSeparators(a);
    return collapseSeparators(a + u'/' + b);
}

QString standardizePath(const QString& path)
{
    if (path.isEmpty()) return path;
    const bool absolute = path.startsWith(u'/');
    QStringList kept;
    for (const QString& component : path.split(u'/', Qt::SkipEmptyParts)) {
        if (component == u".") continue;
        if (component == u".." && absolute) {
            if (!kept.isEmpty()) kept.removeLast();
            continue;
        }
        kept.append(component);
    }
    const QString joined = kept.join(u'/');
    if (absolute) return u'/' + joined;
    return joined.isEmpty() ? QStringLiteral(".") : joined;
}

}  // namespace platform
