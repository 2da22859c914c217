#include "usb/RuntimeBridge.h"

#include "usb/Logging.h"
#include "vantro_config.h"

#include <QDir>
#include <QFile>
#include <QStandardPaths>
#include <QtGlobal>

#include <utility>

namespace vantro {

namespace {

const QString kNoPins = QStringLiteral("Išsaugotų PIN nėra.");

QStringList storedPinFiles(const QString& directory)
{
    QStringList names = QDir(directory).entryList(QDir::Files | QDir::Hidden, QDir::Unsorted);
    names.removeIf([](const QString& name) { return !isStoredPinFileName(name); });
    return names;
}

} // namespace

QString defaultStoredPinDirectory()
{
    const QString localAppData = qEnvironmentVariable("LOCALAPPDATA");
    const QString base = localAppData.isEmpty()
                             ? QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation)
                             : localAppData;
    return QDir(base).filePath(QStringLiteral("Vantro/HighRisk"));
}

bool isStoredPinFileName(const QString& fileName)
{
    return fileName.endsWith(QLatin1String(".dpapi"), Qt::CaseInsensitive) &&
           fileName.compare(QLatin1String("install-nonce.dpapi"), Qt::CaseInsensitive) != 0 &&
           !fileName.endsWith(QLatin1String(".attempts.dpapi"), Qt::CaseInsensitive);
}

int countStoredPins(const QString& directory)
{
    return QDir(directory).exists() ? int(storedPinFiles(directory).size()) : 0;
}

RuntimeBridge::RuntimeBridge(QObject* parent)
    : RuntimeBridge(defaultStoredPinDirectory(), parent)
{
}

RuntimeBridge::RuntimeBridge(QString storedPinDirectory, QObject* parent)
    : QObject(parent)
    , m_directory(std::move(storedPinDirectory))
    , m_count(countStoredPins(m_directory))
{
}

QString RuntimeBridge::version() const
{
    return QString::fromLatin1(config::kApplicationVersion);
}

QString RuntimeBridge::qtVersion() const
{
    return QString::fromLatin1(qVersion());
}

void RuntimeBridge::refresh()
{
    const int count = countStoredPins(m_directory);
    if (count == m_count)
        return;
    m_count = count;
    Q_EMIT savedPinStateChanged();
}

void RuntimeBridge::clearStoredPins()
{
    const QDir dir(m_directory);
    if (!dir.exists()) {
        m_count = 0;
        Q_EMIT savedPinStateChanged();
        setLastMessage(kNoPins);
        return;
    }
    int removed = 0;
    bool failed = false;
    for (const QString& name : storedPinFiles(m_directory)) {
        if (QFile::remove(dir.absoluteFilePath(name))) {
            ++removed;
        } else {
            failed = true;
            qCWarning(lcUsb).noquote() << "could not remove saved PIN" << name;
        }
    }
    refresh();
    if (failed)
        setLastMessage(QStringLiteral("Dalies išsaugotų PIN nepavyko pašalinti."));
    else if (removed > 0)
        setLastMessage(QStringLiteral("Išsaugoti PIN pašalinti: %1.").arg(removed));
    else
        setLastMessage(kNoPins);
}

bool RuntimeBridge::openStoredPinFolder()
{
    if (!QDir().mkpath(m_directory)) {
        qCWarning(lcUsb).noquote() << "could not create the PIN folder" << m_directory;
        return false;
    }
    const QUrl url = QUrl::fromLocalFile(QDir(m_directory).absolutePath());
    return m_openUrl ? m_openUrl(url) : false;
}

void RuntimeBridge::setLastMessage(const QString& text)
{
    if (text == m_lastMessage)
        return;
    m_lastMessage = text;
    Q_EMIT lastMessageChanged();
}

} // namespace vantro
