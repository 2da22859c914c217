#pragma once

#include "app/OrderedJson.h"

#include <QHash>
#include <QMutex>
#include <QString>
#include <QStringList>

namespace vantro {

// File names of the helper programs on this platform.
QString nativeHostFileName();
QString middlewareCliFileName();

// Where a helper program may be installed relative to the application's directory, in search
// order: beside it, in "mw/", in "../mw/", and in the parent directory.
QStringList helperCandidates(const QString& applicationDir, const QString& fileName);

// Absolute path of the first candidate that is a regular file, or empty.
QString findHelperExecutable(const QString& applicationDir, const QString& fileName);

// Where the helpers are and the last helper-status object. One registry serves the window's
// bridge and every bridge a worker call builds, so a helper missing at the first look stays
// missing until the program restarts, and the status cache holds across calls.
class HelperRegistry
{
public:
    explicit HelperRegistry(QString applicationDir);

    // Cached per file name, misses included. The file system is probed outside the lock: two
    // threads may probe the same name at once and store the same answer.
    QString locate(const QString& fileName);

    // The cached status when it was stored less than `maxAgeMs` before `nowMs`, else empty.
    OrderedObject cachedStatus(qint64 nowMs, qint64 maxAgeMs) const;
    void storeStatus(const OrderedObject& status, qint64 nowMs);

private:
    const QString m_applicationDir;
    mutable QMutex m_mutex;
    QHash<QString, QString> m_locations;
    OrderedObject m_status;
    qint64 m_statusAtMs = -1;
};

} // namespace vantro
