#include "store/LocalDeletion.h"

#include "app/Errors.h"
#include "app/SafeName.h"
#include "store/LocalStore.h"
#include "store/RootRules.h"
#include "store/StoreSql.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSet>

namespace vantro {

namespace {

constexpr int kMaxDeletedPartLength = 80;

bool existsOrIsLink(const QString& path)
{
    const QFileInfo info(path);
    return info.exists() || info.isSymLink();
}

} // namespace

LocalDeletion::LocalDeletion(const QString& root, const QJsonObject& settings, const QDate& today,
                             Rename rename)
    : m_root(root)
    , m_action(settings.value(QLatin1String("deletedFileAction")).toString())
    , m_folderName(settings.value(QLatin1String("deletedFolderName")).toString())
    , m_groupByMonth(settings.value(QLatin1String("groupDeletedByMonth")).toBool(true))
    , m_today(today)
    , m_rename(rename ? std::move(rename) : [](const QString& from, const QString& to) {
        return QDir().rename(from, to);
    })
{
    if (m_folderName.isEmpty())
        m_folderName = QString::fromLatin1(rootrules::kDefaultDeletedFolder);
}

OrderedObject LocalDeletion::outcome(const char* status, const QString& path) const
{
    return OrderedObject{
        {QStringLiteral("status"), QString::fromLatin1(status)},
        {QStringLiteral("path"), path},
        {QStringLiteral("relativePath"), rootrules::relativePathInRoot(m_root, path)}};
}

OrderedObject LocalDeletion::removeLocalFile(const QString& path) const
{
    if (!rootrules::isPhysicallyInside(m_root, path))
        fail(QStringLiteral("VANTRO_SIGN_PATH_OUTSIDE_ROOT"), path);
    if (!existsOrIsLink(path))
        return outcome("MISSING", path);
    if (m_action == QLatin1String("keep_local_files"))
        return outcome("KEPT", path);
    if (m_action == QLatin1String("delete_permanently")) {
        QFile file(path);
        if (!file.remove())
            fail(QStringLiteral("VANTRO_SIGN_LOCAL_DELETE_FAILED"),
                 QStringLiteral("%1: %2").arg(path, file.errorString()));
        return outcome("REMOVED", path);
    }
    const QString target = deletedTargetPath(path);
    moveToDeleted(path, target);
    return outcome("MOVED_TO_DELETED", target);
}

// A rename fails across volumes (a root spanning drives); the copy then stands in for it, and a
// copy whose source cannot be removed is taken back so the file is not in two places.
void LocalDeletion::moveToDeleted(const QString& path, const QString& target) const
{
    const auto failed = [&](const QString& why) {
        fail(QStringLiteral("VANTRO_SIGN_LOCAL_MOVE_TO_DELETED_FAILED"),
             QStringLiteral("%1: %2").arg(path, why));
    };
    if (!QDir().mkpath(QFileInfo(target).absolutePath()))
        failed(QStringLiteral("cannot create %1").arg(QFileInfo(target).absolutePath()));
    if (m_rename(path, target))
        return;
    QFile source(path);
    if (!source.copy(target))
        failed(source.errorString());
    if (!QFile::remove(path)) {
        QFile::remove(target);
        failed(QStringLiteral("the file cannot be removed after copying"));
    }
}

QString LocalDeletion::deletedTargetPath(const QString& path) const
{
    QStringList parts;
    const QString relative = rootrules::relativePathInRoot(m_root, path);
    for (const QString& part : relative.split(QLatin1Char('/'), Qt::SkipEmptyParts)) {
        const QString clean = windowsSafeName(part, kMaxDeletedPartLength);
        if (!clean.isEmpty())
            parts.append(clean);
    }
    const QString name =
        parts.isEmpty()
            ? rootrules::cleanFileName(QFileInfo(path).fileName(),
                                       QString::fromLatin1(rootrules::kFallbackFileName))
            : parts.takeLast();
    QStringList folder{m_folderName};
    if (m_groupByMonth)
        folder.append(m_today.toString(QStringLiteral("yyyy-MM")));
    folder.append(parts);
    const QString targetFolder = QDir(m_root).filePath(folder.join(QLatin1Char('/')));
    return rootrules::uniquePath(QDir(targetFolder).filePath(name));
}

OrderedObject LocalStore::deleteDocument(const QString& documentId)
{
    selectRequiredRow(QStringLiteral("SELECT id FROM local_documents WHERE id = ?"), {documentId},
                      QStringLiteral("VANTRO_SIGN_LOCAL_DOCUMENT_NOT_FOUND"),
                      QStringLiteral("Local document was not found."));
    const LocalDeletion deletion(localRoot(), deleteSettings());
    QVariantList files;
    QSet<QString> seen;
    const QString versions = QStringLiteral("SELECT * FROM local_versions WHERE document_id = ?");
    for (const QJsonObject& version : selectRows(versions, {documentId})) {
        const QString path = version.value(QLatin1String("path")).toString();
        if (path.isEmpty() || seen.contains(path))
            continue;
        seen.insert(path);
        files.append(deletion.removeLocalFile(path).toVariant());
    }
    execute(QStringLiteral("DELETE FROM local_documents WHERE id = ?"), {documentId});
    qCInfo(lcStore) << "Deleted document" << documentId << "with" << files.size() << "file(s)";
    return OrderedObject{{QStringLiteral("deleted"), true},
                         {QStringLiteral("documentId"), documentId},
                         {QStringLiteral("files"), files}};
}

} // namespace vantro
