#include "platform/FileSystem.h"

namespace vantro::platform {

Qt::CaseSensitivity fileNameCase()
{
    return Qt::CaseSensitive;
}

QString executableSuffix()
{
    return {};
}

} // namespace vantro::platform
