#include "platform/FileSystem.h"

#include <io.h>
#include <windows.h>

namespace vantro::platform {

Qt::CaseSensitivity fileNameCase()
{
    return Qt::CaseInsensitive;
}

bool syncToDisk(QFileDevice& file)
{
    const auto handle = reinterpret_cast<HANDLE>(_get_osfhandle(file.handle()));
    return file.flush() && handle != INVALID_HANDLE_VALUE && FlushFileBuffers(handle) != 0;
}

QString executableSuffix()
{
    return QStringLiteral(".exe");
}

} // namespace vantro::platform
