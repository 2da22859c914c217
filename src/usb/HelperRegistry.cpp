#include "usb/HelperRegistry.h"

#include "platform/FileSystem.h"

#include <QDir>
#include <QFileInfo>
#include <QMutexLocker>

#include <utility>

namespace vantro {

QString nativeHostFileName()
{
    return QStringLiteral("vantro-sign-native-host") + platform::executableSuffix();
}

QString middlewareCliFileName()
{
    return QStringLiteral("vantro-sign-mw-cli") + platform::executableSuffix();
}

QStringList helperCandidates(const QString& applicationDir, const QString& fileName)
{
    const QDir dir(applicationDir);
    return {
        dir.filePath(fileName),
        dir.filePath(QStringLiteral("mw/") + fileName),
        dir.filePath(QStringLiteral("../mw/") + fileName),
        QDir(QDir::cleanPath(applicationDir) + QStringLiteral("/..")).filePath(fileName),
    };
}

QString findHelperExecutable(const QString& applicationDir, const QString& fileName)
{
    for (const QString& candidate : helperCandidates(applicationDir, fileName)) {
        const QFileInfo info(candidate);
        if (info.exists() && info.isFile())
            return info.absoluteFilePath();
    }
    return {};
}

HelperRegistry::HelperRegistry(QString applicationDir)
    : m_applicationDir(std::move(applicationDir))
{
}

QString HelperRegistry::locate(const QString& fileName)
{
    {
        QMutexLocker lock(&m_mutex);
        const auto cached = m_locations.constFind(fileName);
        if (cached != m_locations.constEnd())
            return cached.value();
    }
    const QString found = findHelperExecutable(m_applicationDir, fileName);
    QMutexLocker lock(&m_mutex);
    m_locations.insert(fileName, found);
    return found;
}

OrderedObject HelperRegistry::cachedStatus(qint64 nowMs, qint64 maxAgeMs) const
{
    QMutexLocker lock(&m_mutex);
    const qint64 age = nowMs - m_statusAtMs;
    if (m_status.isEmpty() || age < 0 || age >= maxAgeMs)
        return {};
    return m_status;
}

void HelperRegistry::storeStatus(const OrderedObject& status, qint64 nowMs)
{
    QMutexLocker lock(&m_mutex);
    m_status = status;
    m_statusAtMs = nowMs;
}

} // namespace vantro
