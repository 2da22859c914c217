#include "platform/DirectoryListing.h"

#include <QFile>

#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>

namespace vantro::platform {

namespace {

struct DirCloser
{
    void operator()(DIR* dir) const { closedir(dir); }
};

DirectoryEntry::Kind kindOf(mode_t mode)
{
    if (S_ISLNK(mode))
        return DirectoryEntry::Link;
    if (S_ISDIR(mode))
        return DirectoryEntry::Directory;
    if (S_ISREG(mode))
        return DirectoryEntry::File;
    return DirectoryEntry::Other;
}

bool isDotEntry(const char* name)
{
    return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

} // namespace

bool listDirectory(const QString& path, QList<DirectoryEntry>& entries, QString& error)
{
    entries.clear();
    std::unique_ptr<DIR, DirCloser> dir(opendir(QFile::encodeName(path).constData()));
    if (!dir) {
        error = QString::fromLocal8Bit(std::strerror(errno));
        return false;
    }
    const int fd = dirfd(dir.get());
    errno = 0;
    while (const dirent* item = readdir(dir.get())) {
        if (isDotEntry(item->d_name))
            continue;
        struct stat info;
        // An entry that vanished since the listing is simply no longer there.
        if (fstatat(fd, item->d_name, &info, AT_SYMLINK_NOFOLLOW) != 0)
            continue;
        DirectoryEntry entry;
        entry.name = QFile::decodeName(item->d_name);
        entry.kind = kindOf(info.st_mode);
        entry.size = info.st_size;
        entry.modifiedMs = qint64(info.st_mtim.tv_sec) * 1000 + info.st_mtim.tv_nsec / 1000000;
        entries.append(entry);
        errno = 0;
    }
    if (errno != 0) {
        error = QString::fromLocal8Bit(std::strerror(errno));
        return false;
    }
    return true;
}

} // namespace vantro::platform
