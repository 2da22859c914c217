#include "platform/FileManager.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QLoggingCategory>
#include <QStringList>
#include <QUrl>

Q_LOGGING_CATEGORY(lcFileManager, "vantro.platform.filemanager")

namespace vantro::platform {

namespace {

// File managers that implement the freedesktop interface answer within a moment; one that is
// being activated by the bus may take longer, but never this long.
constexpr int kShowItemsTimeoutMs = 5000;

QString showItems(const QString& path)
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected())
        return QStringLiteral("no session bus");
    QDBusMessage call = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.FileManager1"),
        QStringLiteral("/org/freedesktop/FileManager1"),
        QStringLiteral("org.freedesktop.FileManager1"), QStringLiteral("ShowItems"));
    call << QStringList{QUrl::fromLocalFile(path).toString(QUrl::FullyEncoded)} << QString();
    const QDBusMessage reply = bus.call(call, QDBus::Block, kShowItemsTimeoutMs);
    if (reply.type() == QDBusMessage::ErrorMessage)
        return reply.errorName() + QStringLiteral(": ") + reply.errorMessage();
    return {};
}

} // namespace

RevealOutcome revealSelected(const QString& path)
{
    RevealOutcome outcome;
    outcome.error = showItems(path);
    outcome.shown = outcome.error.isEmpty();
    outcome.openFolderInstead = !outcome.shown;
    if (!outcome.shown)
        qCInfo(lcFileManager).noquote() << "file manager cannot select items:" << outcome.error;
    return outcome;
}

bool startRevealSelected(const QString& path)
{
    return revealSelected(path).shown;
}

} // namespace vantro::platform
