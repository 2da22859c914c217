#include "bridge/NativeHost.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>

namespace vantro {

namespace {
#ifdef Q_OS_WIN
constexpr char kNativeHostFileName[] = "vantro-sign-native-host.exe";
#else
constexpr char kNativeHostFileName[] = "vantro-sign-native-host";
#endif
} // namespace

QString nativeHostFileName()
{
    return QString::fromLatin1(kNativeHostFileName);
}

QString nativeHostPath()
{
    return QDir(QCoreApplication::applicationDirPath()).filePath(nativeHostFileName());
}

bool nativeHostPresent()
{
    return QFileInfo(nativeHostPath()).isFile();
}

} // namespace vantro
