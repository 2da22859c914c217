#include "store/LocalFiles.h"

#include "app/Errors.h"
#include "app/FileHash.h"
#include "platform/FileSystem.h"
#include "store/RootRules.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMimeDatabase>
#include <QUuid>

namespace vantro::localfiles {

namespace {

constexpr qint64 kCopyChunk = 1 << 20;

[[noreturn]] void copyFailed(const QString& detail)
{
    fail(QStringLiteral("VANTRO_SIGN_IMPORT_COPY_FAILED"), detail);
}

// Writes `target`, which must not exist yet, with the bytes of `source` and answers their
// SHA-256. A failed copy removes what it wrote.
QString copyNewFile(const QString& source, const QString& target)
{
    QFile in(source);
    if (!in.open(QIODevice::ReadOnly | QIODevice::Unbuffered))
        copyFailed(QStringLiteral("%1: %2").arg(source, in.errorString()));
    QFile out(target);
    // NewOnly: a file that appeared since the name was chosen is never overwritten.
    if (!out.open(QIODevice::WriteOnly | QIODevice::NewOnly | QIODevice::Unbuffered))
        copyFailed(QStringLiteral("%1: %2").arg(target, out.errorString()));
    try {
        Sha256Stream digest;
        QByteArray buffer(kCopyChunk, Qt::Uninitialized);
        for (;;) {
            const qint64 read = in.read(buffer.data(), kCopyChunk);
            if (read < 0)
                copyFailed(QStringLiteral("%1: %2").arg(source, in.errorString()));
            if (read == 0)
                break;
            digest.update(buffer.constData(), read);
            if (out.write(buffer.constData(), read) != read)
                copyFailed(QStringLiteral("%1: %2").arg(target, out.errorString()));
        }
        out.close();
        if (out.error() != QFileDevice::NoError)
            copyFailed(QStringLiteral("%1: %2").arg(target, out.errorString()));
        return digest.hexDigest();
    } catch (...) {
        out.remove();
        throw;
    }
}

QString partialFileFor(const QString& target)
{
    const QFileInfo info(target);
    const QString tag = QUuid::createUuid().toString(QUuid::Id128).left(8);
    return info.dir().filePath(QStringLiteral(".%1.vantro-%2.partial").arg(info.fileName(), tag));
}

} // namespace

void writeNewFile(const QString& target, const QByteArray& bytes)
{
    QFile partial(partialFileFor(target));
    const auto failed = [&](const QString& error) {
        partial.remove();
        fail(QStringLiteral("VANTRO_SIGN_LOCAL_FILE_WRITE_FAILED"),
             QStringLiteral("%1: %2").arg(target, error));
    };
    if (!QDir().mkpath(QFileInfo(target).absolutePath()))
        failed(QStringLiteral("cannot create its folder"));
    if (!partial.open(QIODevice::WriteOnly | QIODevice::NewOnly))
        failed(partial.errorString());
    if (partial.write(bytes) != bytes.size() || !platform::syncToDisk(partial))
        failed(partial.errorString());
    partial.close();
    // Refuses an existing target, so a file that appeared meanwhile is not replaced.
    if (!partial.rename(target))
        failed(partial.errorString());
}

LocalFileDescriptor describe(const QString& root, const QString& path, const QString& knownSha256)
{
    const QFileInfo info(path);
    LocalFileDescriptor file;
    file.path = info.absoluteFilePath();
    file.relativePath = rootrules::relativePathInRoot(root, file.path);
    file.name = info.fileName();
    file.title = rootrules::titleFromFile(file.path);
    file.size = info.size();
    file.sha256 = knownSha256.isEmpty() ? sha256File(file.path) : knownSha256;
    file.mimeType = QMimeDatabase().mimeTypeForFile(info).name();
    return file;
}

CopiedFile copyIntoOriginals(const QString& root, const QString& source, const QDate& localDate)
{
    const QString folder = rootrules::monthFolder(root, localDate);
    if (!QDir().mkpath(folder))
        copyFailed(folder);
    const QString name = rootrules::cleanFileName(
        QFileInfo(source).fileName(), QString::fromLatin1(rootrules::kFallbackFileName));
    CopiedFile copy;
    copy.path = rootrules::uniquePath(QDir(folder).filePath(name));
    copy.sha256 = copyNewFile(source, copy.path);
    return copy;
}

} // namespace vantro::localfiles
