#include "bridge/NativeHost.h"

#include "platform/FileSystem.h"

#include <QDir>
#include <QFileInfo>

namespace vantro {

QString nativeHostFileName()
{
    return QStringLiteral("vantro-sign-native-host") + platform::executableSuffix();
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

} // namespace vantro
