#include "platform/FileSystem.h"

namespace vantro::platform {

Qt::CaseSensitivity fileNameCase()
{
    return Qt::CaseInsensitive;
}

QString executableSuffix()
{
    return QStringLiteral(".exe");
}

} // namespace vantro::platform
