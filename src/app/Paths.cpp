#include "app/Paths.h"

#include <QDir>
#include <QStandardPaths>

namespace vantro {

QString appDataDir()
{
    const QString base = qEnvironmentVariable("LOCALAPPDATA").trimmed();
    if (base.isEmpty())
        return QStandardPaths::writableLocation(QStandardPaths::AppLocalDataLocation);
    return QDir::cleanPath(base + QStringLiteral("/Vantro Sign Next/app"));
}

QString commandsDir()
{
    const QString dir = appDataDir() + QStringLiteral("/commands");
    QDir().mkpath(dir);
    return dir;
}

QString instanceLockPath()
{
    return appDataDir() + QStringLiteral("/vantro-sign-app.lock");
}

QString updatesDir()
{
    return appDataDir() + QStringLiteral("/updates");
}

} // namespace vantro
