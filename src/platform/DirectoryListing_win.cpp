#include "platform/DirectoryListing.h"

#include <QDir>

#include <windows.h>

namespace vantro::platform {

namespace {

// FILETIME counts 100 ns steps since 1601-01-01; the epoch lies this many steps later.
constexpr qint64 kEpochOffset = 116444736000000000LL;

qint64 toEpochMs(const FILETIME& time)
{
    const qint64 ticks = (qint64(time.dwHighDateTime) << 32) | time.dwLowDateTime;
    return (ticks - kEpochOffset) / 10000;
}

DirectoryEntry::Kind kindOf(DWORD attributes)
{
    if (attributes & FILE_ATTRIBUTE_REPARSE_POINT)
        return DirectoryEntry::Link;
    if (attributes & FILE_ATTRIBUTE_DIRECTORY)
        return DirectoryEntry::Directory;
    if (attributes & FILE_ATTRIBUTE_DEVICE)
        return DirectoryEntry::Other;
    return DirectoryEntry::File;
}

QString lastErrorText()
{
    return QStringLiteral("Windows error %1").arg(GetLastError());
}

} // namespace

bool listDirectory(const QString& path, QList<DirectoryEntry>& entries, QString& error)
{
    entries.clear();
    const std::wstring pattern =
        (QDir::toNativeSeparators(path) + QStringLiteral("\\*")).toStdWString();
    WIN32_FIND_DATAW data;
    HANDLE find = FindFirstFileExW(pattern.c_str(), FindExInfoBasic, &data, FindExSearchNameMatch,
                                   nullptr, FIND_FIRST_EX_LARGE_FETCH);
    if (find == INVALID_HANDLE_VALUE) {
        error = lastErrorText();
        return false;
    }
    do {
        const QString name = QString::fromWCharArray(data.cFileName);
        if (name == QLatin1String(".") || name == QLatin1String(".."))
            continue;
        DirectoryEntry entry;
        entry.name = name;
        entry.kind = kindOf(data.dwFileAttributes);
        entry.size = (qint64(data.nFileSizeHigh) << 32) | data.nFileSizeLow;
        entry.modifiedMs = toEpochMs(data.ftLastWriteTime);
        entries.append(entry);
    } while (FindNextFileW(find, &data));
    const DWORD last = GetLastError();
    FindClose(find);
    if (last != ERROR_NO_MORE_FILES) {
        error = QStringLiteral("Windows error %1").arg(last);
        return false;
    }
    return true;
}

} // namespace vantro::platform
