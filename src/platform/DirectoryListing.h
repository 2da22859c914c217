#pragma once

#include <QList>
#include <QString>

namespace vantro::platform {

struct DirectoryEntry
{
    enum Kind { File, Directory, Link, Other };
    QString name;
    Kind kind = Other;
    qint64 size = 0;
    qint64 modifiedMs = 0; // last modification, milliseconds since the epoch (UTC)
};

// The entries of one folder in one pass, "." and ".." left out, links (symbolic links, and
// junctions on Windows) reported as Link and never followed. Size and time come from the
// listing itself: no time-zone conversion and no second stat per file. False, with the
// system's error text, when the folder cannot be read.
bool listDirectory(const QString& path, QList<DirectoryEntry>& entries, QString& error);

} // namespace vantro::platform
