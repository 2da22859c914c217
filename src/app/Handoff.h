#pragma once

#include <QDateTime>
#include <QString>

#include <functional>

namespace vantro {

// Single-instance command handoff through files in commandsDir(): a second start leaves one
// command ("show" or an activation link) and exits; the primary instance picks it up.

// What a received command may lead to. Nothing else can be triggered by a command file.
struct HandoffActions
{
    std::function<void(const QString& link)> link; // a "vantrosign:" link arrived
    std::function<void()> show;                    // any other non-empty command
};

// Who writes, and when: the pair keeps the names of simultaneous writers distinct.
struct HandoffStamp
{
    QDateTime localTime;
    qint64 pid = 0;

    static HandoffStamp now();
};

// "command-<yyyyMMddHHmmsszzz>-<pid>.txt"
QString handoffFileName(const HandoffStamp& stamp);

// Writes the command for `linkArgument` ("show" when it is empty) atomically and logs the
// outcome with the link redacted. Returns the file path, or an empty string on failure.
QString writeHandoff(const QString& linkArgument);
QString writeHandoff(const QString& directory, const QString& linkArgument,
                     const HandoffStamp& stamp);

// Handles every pending command file in name order: fresh ones (younger than 301 s) are read,
// deleted and acted on; stale ones are deleted unread; unreadable ones stay for the next run.
void receiveHandoff(const HandoffActions& actions);
void receiveHandoff(const QString& directory, const HandoffActions& actions,
                    const QDateTime& now = QDateTime::currentDateTimeUtc());

} // namespace vantro
