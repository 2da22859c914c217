#include "platform/FileSystem.h"

#include <unistd.h>

namespace vantro::platform {

Qt::CaseSensitivity fileNameCase()
{
    return Qt::CaseSensitive;
}

bool syncToDisk(QFileDevice& file)
{
    return file.flush() && ::fsync(file.handle()) == 0;
}

QString executableSuffix()
{
    return {};
}

} // namespace vantro::platform
