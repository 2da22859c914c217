#pragma once

#include <QFileDevice>
#include <QString>

namespace vantro::platform {

// How this platform's file systems compare file names: NTFS ignores case, Linux file systems
// do not. Paths inside the local root and handoff file names follow it.
Qt::CaseSensitivity fileNameCase();

// Pushes what was written to `file` (open for writing) down to the disk, so that a file renamed
// into place after it survives a power cut whole. False when the system refuses.
bool syncToDisk(QFileDevice& file);

// ".exe" on Windows, empty elsewhere; helper programs are named with it.
QString executableSuffix();

} // namespace vantro::platform
