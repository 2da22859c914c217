#include "platform/FileManager.h"

#include <QDir>
#include <QProcess>
#include <QStringList>

#include <shlobj.h>
#include <windows.h>

namespace vantro::platform {

namespace {

QString nativeError(HRESULT result)
{
    const QString hex =
        QStringLiteral("%1").arg(static_cast<quint32>(result), 8, 16, QLatin1Char('0')).toUpper();
    return QStringLiteral("%1 failed with native error 0x%2.")
        .arg(QStringLiteral("Windows artifact reveal"), hex);
}

} // namespace

RevealOutcome revealSelected(const QString& path)
{
    RevealOutcome outcome;
    const std::wstring native = QDir::toNativeSeparators(path).toStdWString();
    PIDLIST_ABSOLUTE item = nullptr;
    HRESULT result = SHParseDisplayName(native.c_str(), nullptr, &item, 0, nullptr);
    if (SUCCEEDED(result)) {
        result = SHOpenFolderAndSelectItems(item, 0, nullptr, 0);
        CoTaskMemFree(item);
    }
    outcome.shown = SUCCEEDED(result);
    if (!outcome.shown)
        outcome.error = nativeError(result);
    return outcome;
}

bool startRevealSelected(const QString& path)
{
    return QProcess::startDetached(QStringLiteral("explorer.exe"),
                                   {QStringLiteral("/select,"), QDir::toNativeSeparators(path)});
}

} // namespace vantro::platform
