#include "app/Handoff.h"

#include "app/ActivationLink.h"
#include "app/InstanceLog.h"
#include "app/Paths.h"
#include "platform/FileSystem.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>

#include <optional>

namespace vantro {

namespace {

constexpr qint64 kFreshSeconds = 301;
// A real command is one line; anything far larger was not written by this program.
constexpr qint64 kMaxCommandBytes = 64 * 1024;

QString payloadFor(const QString& linkArgument)
{
    const QString link = linkArgument.trimmed();
    return link.isEmpty() ? QStringLiteral("show") : link;
}

bool isFresh(const QFileInfo& info, const QDateTime& now)
{
    const QDateTime modified = info.fileTime(QFileDevice::FileModificationTime).toUTC();
    return modified.secsTo(now.toUTC()) < kFreshSeconds;
}

// The trimmed command text, or nothing when the file cannot be opened (it stays for a later run)
// or cannot be removed (acting on it would repeat on every run).
std::optional<QString> takeCommand(const QFileInfo& info)
{
    QFile file(info.filePath());
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text))
        return std::nullopt;
    const QByteArray bytes = file.read(kMaxCommandBytes + 1);
    file.close();
    if (!file.remove()) {
        logLine(QStringLiteral("handoff could not remove %1").arg(info.fileName()));
        return std::nullopt;
    }
    if (bytes.size() > kMaxCommandBytes) {
        logLine(QStringLiteral("handoff discarded oversized command"));
        return QString();
    }
    return QString::fromUtf8(bytes).trimmed();
}

void dispatch(const QString& command, const HandoffActions& actions)
{
    if (isActivationLink(command)) {
        logLine(QStringLiteral("handoff received protocol"));
        if (actions.link)
            actions.link(command);
    } else if (!command.isEmpty()) {
        logLine(QStringLiteral("handoff received show"));
        if (actions.show)
            actions.show();
    }
}

} // namespace

HandoffStamp HandoffStamp::now()
{
    return {QDateTime::currentDateTime(), QCoreApplication::applicationPid()};
}

QString handoffFileName(const HandoffStamp& stamp)
{
    return QStringLiteral("command-%1-%2.txt")
        .arg(stamp.localTime.toString(QStringLiteral("yyyyMMddHHmmsszzz")))
        .arg(stamp.pid);
}

QString writeHandoff(const QString& linkArgument)
{
    return writeHandoff(commandsDir(), linkArgument, HandoffStamp::now());
}

QString writeHandoff(const QString& directory, const QString& linkArgument,
                     const HandoffStamp& stamp)
{
    const QString payload = payloadFor(linkArgument);
    QSaveFile file(QDir(directory).filePath(handoffFileName(stamp)));
    if (!file.open(QIODevice::WriteOnly | QIODevice::Text)) {
        logLine(QStringLiteral("handoff write failed: %1").arg(file.errorString()));
        return {};
    }
    file.write(payload.toUtf8() + '\n');
    const bool ok = file.commit();
    logLine(QStringLiteral("handoff write %1: %2")
                .arg(redactActivationLink(payload),
                     ok ? QStringLiteral("ok") : QStringLiteral("failed")));
    return ok ? file.fileName() : QString();
}

void receiveHandoff(const HandoffActions& actions)
{
    receiveHandoff(commandsDir(), actions);
}

void receiveHandoff(const QString& directory, const HandoffActions& actions, const QDateTime& now)
{
    // Unreadable files are listed too: a fresh one fails to open and waits, a stale one is
    // removed, which needs no read access. Names match with the file system's own case rule,
    // so "COMMAND-1.TXT" is a stranger's file where case matters.
    QDir::Filters filters = QDir::Files | QDir::NoSymLinks;
    if (platform::fileNameCase() == Qt::CaseSensitive)
        filters |= QDir::CaseSensitive;
    const QFileInfoList files =
        QDir(directory).entryInfoList({QStringLiteral("command-*.txt")}, filters, QDir::Name);
    for (const QFileInfo& info : files) {
        if (!isFresh(info, now)) {
            QFile::remove(info.filePath());
            continue;
        }
        if (const std::optional<QString> command = takeCommand(info))
            dispatch(*command, actions);
    }
}

} // namespace vantro
