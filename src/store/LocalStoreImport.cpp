// Import of files the user picked, dropped or named: registered in place inside the local root,
// otherwise copied into Originalai/yyyy-MM first.
#include "store/LocalStore.h"

#include "app/Errors.h"
#include "store/LocalFiles.h"
#include "store/RootRules.h"
#include "store/StoreSql.h"

#include <QDate>
#include <QFileInfo>
#include <QSet>

namespace vantro {

namespace {

constexpr qsizetype kMaxImportFiles = 100;
constexpr qint64 kMaxImportBytes = 52428800;

// Validates the file before anything is copied or hashed; the order of the checks decides
// which code the page sees.
void checkImportable(const QString& path)
{
    const QFileInfo info(path);
    if (!info.exists() || !info.isFile())
        fail(QStringLiteral("VANTRO_SIGN_IMPORT_REQUIRES_FILE"), path);
    // An empty file is most likely still being written by another program.
    if (info.size() < 1)
        fail(QStringLiteral("VANTRO_SIGN_IMPORT_FILE_NOT_READY"), path);
    if (info.size() > kMaxImportBytes)
        fail(QStringLiteral("VANTRO_SIGN_IMPORT_TOO_LARGE"), path);
    if (!rootrules::isSupportedDocumentType(path))
        fail(QStringLiteral("VANTRO_SIGN_IMPORT_UNSUPPORTED_TYPE"), path);
}

} // namespace

QJsonArray LocalStore::importFiles(const QStringList& paths)
{
    if (paths.size() > kMaxImportFiles)
        fail(QStringLiteral("VANTRO_SIGN_IMPORT_TOO_MANY_FILES"), QString::number(paths.size()));
    if (paths.isEmpty())
        fail(QStringLiteral("VANTRO_SIGN_IMPORT_FILES_REQUIRED"));
    QSet<QString> seen;
    QJsonArray results;
    for (const QString& path : paths) {
        const QString key = QFileInfo(path).absoluteFilePath().trimmed().toLower();
        if (seen.contains(key))
            continue;
        seen.insert(key);
        QJsonObject result = importFile(path);
        result.insert(QStringLiteral("ok"), true);
        result.insert(QStringLiteral("sourcePath"), path);
        results.append(result);
    }
    return results;
}

QJsonObject LocalStore::importFile(const QString& path)
{
    open();
    checkImportable(path);
    const LocalFileDescriptor file = registerImportSource(path);
    const QJsonObject document = insertImportedDocument(file);
    qCInfo(lcStore) << "Imported" << file.relativePath << "as"
                    << document.value(QLatin1String("id"));
    return QJsonObject{
        {QStringLiteral("documentId"), document.value(QLatin1String("id"))},
        {QStringLiteral("versionId"), document.value(QLatin1String("current_version_id"))},
        {QStringLiteral("name"), file.name},
        {QStringLiteral("size"), file.size},
        {QStringLiteral("sha256"), file.sha256},
        {QStringLiteral("relativePath"), file.relativePath},
        {QStringLiteral("mimeType"), file.mimeType},
    };
}

LocalFileDescriptor LocalStore::registerImportSource(const QString& path)
{
    const QString root = localRoot();
    // Without a root there is nowhere to put a copy, and nothing may be written elsewhere.
    if (root.isEmpty())
        fail(QStringLiteral("VANTRO_SIGN_LOCAL_ROOT_MISSING"));
    const QString source = QFileInfo(path).absoluteFilePath();
    const QString relative = rootrules::relativePathInRoot(root, source);
    if (!relative.isEmpty() && !rootrules::isSkippedRelativePath(relative, deletedFolderName()))
        return localfiles::describe(root, source);
    const localfiles::CopiedFile copy =
        localfiles::copyIntoOriginals(root, source, QDate::currentDate());
    return localfiles::describe(root, copy.path, copy.sha256);
}

} // namespace vantro
