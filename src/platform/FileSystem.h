#pragma once

#include <QString>

namespace vantro::platform {

// How this platform's file systems compare file names: NTFS ignores case, Linux file systems
// do not. Paths inside the local root and handoff file names follow it.
Qt::CaseSensitivity fileNameCase();

// ".exe" on Windows, empty elsewhere; helper programs are named with it.
QString executableSuffix();

} // namespace vantro::platform
