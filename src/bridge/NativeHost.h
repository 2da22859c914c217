#pragma once

#include <QString>
#include <QStringList>

namespace vantro {

// File name of the card host program on this platform.
QString nativeHostFileName();

// Where a helper program may be installed relative to the application's directory, in search
// order: beside it, in "mw/", in "../mw/", and in the parent directory.
QStringList helperCandidates(const QString& applicationDir, const QString& fileName);

// Absolute path of the first candidate that is a regular file, or empty.
QString findHelperExecutable(const QString& applicationDir, const QString& fileName);

} // namespace vantro
