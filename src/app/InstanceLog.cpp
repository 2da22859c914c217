#include "app/InstanceLog.h"

#include "app/Paths.h"

#include <QDateTime>
#include <QDir>
#include <QFile>

namespace vantro {

QString instanceLogPath()
{
    return appDataDir() + QStringLiteral("/logs/single-instance.log");
}

void logLine(const QString& message)
{
    QDir().mkpath(appDataDir() + QStringLiteral("/logs"));
    QFile file(instanceLogPath());
    if (!file.open(QIODevice::WriteOnly | QIODevice::Append | QIODevice::Text))
        return;
    const QString stamp = QDateTime::currentDateTime().toString(Qt::ISODateWithMs);
    file.write(QStringLiteral("%1 %2\n").arg(stamp, message).toUtf8());
}

} // namespace vantro
