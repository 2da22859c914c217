// Local artifacts, opaque file handles and ADOC extraction: the page names files by ids and
// never by paths it made up, and nothing it sends can place or reach a file outside the root.
#include "app/Errors.h"
#include "app/FileHash.h"
#include "store/LocalDeletion.h"
#include "store/LocalStore.h"
#include "store/RootRules.h"
#include "store/StoreSql.h"

#include <QDir>
#include <QFileInfo>
#include <QRegularExpression>
#include <QSaveFile>

#include <functional>

namespace vantro {

using storesql::newId;
using storesql::nowIso;
using storesql::textOrNull;

namespace {

constexpr qsizetype kMaxAdocFiles = 100;
constexpr qsizetype kMaxAdocFileBytes = 52428800;

QString text(const QVariantMap& map, const char* key, const QString& fallback = {})
{
    const QString value = map.value(QLatin1String(key)).toString();
    return value.isEmpty() ? fallback : value;
}

// One place an artifact may be: its path and what the source knows about it.
struct Candidate
{
    const char* source;
    QString path;
    QString kind;
};

// --- Artifact resolution -----------------------------------------------------------------------

class ArtifactResolution
{
public:
    ArtifactResolution(const QString& root, const QString& artifactId)
        : m_root(root)
        , m_artifactId(artifactId)
    {
    }

    // True when the candidate is the answer; otherwise it is listed with its reason.
    bool offer(const Candidate& candidate)
    {
        const QString reason = reasonAgainst(candidate.path);
        if (reason.isEmpty()) {
            m_found = candidate;
            return true;
        }
        m_unresolved.append(OrderedObject{
            {QStringLiteral("source"), QString::fromLatin1(candidate.source)},
            {QStringLiteral("path"), candidate.path},
            {QStringLiteral("reason"),
             reason}}.toVariant());
        return false;
    }

    OrderedObject answer() const
    {
        OrderedObject status{{QStringLiteral("artifactId"), m_artifactId}};
        if (m_found.source) {
            status.insert(QStringLiteral("status"), QStringLiteral("LOCAL"));
            status.insert(QStringLiteral("path"), m_found.path);
            status.insert(QStringLiteral("relativePath"),
                          rootrules::relativePathInRoot(m_root, m_found.path));
            status.insert(QStringLiteral("kind"), m_found.kind);
            status.insert(QStringLiteral("resolutionSource"), QString::fromLatin1(m_found.source));
            return status;
        }
        // Nothing recorded anywhere is unknown; recorded but not on disk is missing.
        status.insert(QStringLiteral("status"), m_unresolved.isEmpty() ? QStringLiteral("UNKNOWN")
                                                                       : QStringLiteral("MISSING"));
        status.insert(QStringLiteral("unresolvedCandidates"), m_unresolved);
        return status;
    }

private:
    QString reasonAgainst(const QString& path) const
    {
        if (!path.isEmpty() && !rootrules::isPhysicallyInside(m_root, path))
            return QStringLiteral("OUTSIDE_LOCAL_ROOT");
        if (path.isEmpty() || !QFileInfo(path).isFile())
            return QStringLiteral("FILE_NOT_FOUND");
        return {};
    }

    QString m_root;
    QString m_artifactId;
    Candidate m_found{nullptr, {}, {}};
    QVariantList m_unresolved;
};

Candidate candidateFrom(const char* source, const QJsonObject& row, const char* pathKey,
                        const char* kindKey)
{
    return {source, row.value(QLatin1String(pathKey)).toString(),
            row.value(QLatin1String(kindKey)).toString()};
}

// --- ADOC extraction ---------------------------------------------------------------------------

struct AdocFile
{
    QString name;
    QByteArray content;
    QString sha256;
    QString mimeType;
};

// A name that tries to place the file anywhere but directly in the root is refused before it
// is cleaned, so "../x.pdf" or "C:\x.pdf" cannot turn into a harmless-looking file name.
bool climbsOutOfRoot(const QString& name)
{
    static const QRegularExpression drive(QStringLiteral("^[A-Za-z]:"));
    return name.contains(QLatin1Char('/')) || name.contains(QLatin1Char('\\')) ||
           name.contains(drive) || name.trimmed() == QLatin1String("..");
}

AdocFile checkedAdocFile(const QString& root, const QVariantMap& entry)
{
    const QString given = text(entry, "filename", QStringLiteral("dokumentas.pdf"));
    const QString name =
        rootrules::cleanFileName(given, QString::fromLatin1(rootrules::kFallbackFileName));
    if (climbsOutOfRoot(given) ||
        rootrules::relativePathInRoot(root, QDir(root).filePath(name)).isEmpty())
        fail(QStringLiteral("VANTRO_SIGN_PATH_OUTSIDE_ROOT"), given);
    AdocFile file{name,
                  QByteArray::fromBase64(text(entry, "content_b64").toLatin1()),
                  {},
                  text(entry, "mime_type")};
    if (file.content.isEmpty())
        fail(QStringLiteral("VANTRO_SIGN_ADOC_EXTRACT_EMPTY_FILE"), given);
    if (file.content.size() > kMaxAdocFileBytes)
        fail(QStringLiteral("VANTRO_SIGN_ADOC_EXTRACT_FILE_TOO_LARGE"), given);
    file.sha256 = sha256Hex(file.content);
    const QString expected = text(entry, "sha256").trimmed().toLower();
    if (!expected.isEmpty() && expected != file.sha256)
        fail(QStringLiteral("VANTRO_SIGN_ADOC_EXTRACT_HASH_MISMATCH"), given);
    return file;
}

// Written whole or not at all (QSaveFile), never over an existing file.
QString writeAdocFile(const QString& root, const AdocFile& file)
{
    const QString target = rootrules::uniquePath(QDir(root).filePath(file.name));
    if (!rootrules::isPhysicallyInside(root, target))
        fail(QStringLiteral("VANTRO_SIGN_PATH_OUTSIDE_ROOT"), file.name);
    QSaveFile out(target);
    if (!out.open(QIODevice::WriteOnly) || out.write(file.content) != file.content.size() ||
        !out.commit())
        fail(QStringLiteral("VANTRO_SIGN_ADOC_EXTRACT_WRITE_FAILED"),
             QStringLiteral("%1: %2").arg(target, out.errorString()));
    return target;
}

} // namespace

void LocalStore::upsertLocalArtifact(const QVariantMap& artifact)
{
    const QString path = text(artifact, "path");
    execute(QStringLiteral("INSERT INTO local_artifacts (artifact_id, path, relative_path, sha256, "
                           "kind, document_id, updated_at) VALUES (?, ?, ?, ?, ?, ?, ?) ON "
                           "CONFLICT(artifact_id) DO UPDATE SET path = excluded.path, "
                           "relative_path = excluded.relative_path, sha256 = excluded.sha256, kind "
                           "= excluded.kind, document_id = excluded.document_id, updated_at = "
                           "excluded.updated_at"),
            {text(artifact, "artifactId"), path, rootrules::relativePathInRoot(localRoot(), path),
             text(artifact, "sha256"), text(artifact, "kind", QStringLiteral("other")),
             textOrNull(text(artifact, "documentId")), nowIso()});
}

OrderedObject LocalStore::localArtifactStatus(const QString& artifactId,
                                              const QString& serverVersionId,
                                              const QString& serverDocumentId,
                                              const QString& expectedRelativePath)
{
    if (artifactId.isEmpty() && serverVersionId.isEmpty() && serverDocumentId.isEmpty())
        return OrderedObject{{QStringLiteral("artifactId"), artifactId},
                             {QStringLiteral("status"), QStringLiteral("UNKNOWN")}};
    const QString root = localRoot();
    ArtifactResolution resolution(root, artifactId);
    struct Source
    {
        const char* name;
        bool asked; // an empty id looks nothing up
        std::function<QJsonObject()> row;
        const char* pathKey;
        const char* kindKey;
    };
    const Source sources[] = {
        {"local_artifact", !artifactId.isEmpty(),
         [&] {
             return selectRow(QStringLiteral("SELECT * FROM local_artifacts WHERE artifact_id = ?"),
                              {artifactId});
         },
         "path", "kind"},
        {"mirror_queue", !artifactId.isEmpty(), [&] { return getMirrorItem(artifactId); },
         "local_path", "output_kind"},
        {"server_version", !serverVersionId.isEmpty(),
         [&] {
             return selectRow(QStringLiteral("SELECT path, relative_path, kind FROM "
                                             "local_versions WHERE server_version_id = ? ORDER BY "
                                             "created_at DESC, rowid DESC LIMIT 1"),
                              {serverVersionId});
         },
         "path", "kind"},
        {"server_document", !serverDocumentId.isEmpty(),
         [&] {
             return selectRow(
                 QStringLiteral("SELECT v.path, v.relative_path, v.kind FROM local_documents d "
                                "JOIN local_versions v ON v.id = d.current_version_id WHERE "
                                "d.server_document_id = ? AND (? = '' OR v.server_version_id = ?) "
                                "ORDER BY d.updated_at DESC, d.rowid DESC LIMIT 1"),
                 {serverDocumentId, serverVersionId, serverVersionId});
         },
         "path", "kind"},
    };
    // The first source with a usable file answers; the ones before it are listed as tried.
    for (const Source& source : sources) {
        if (!source.asked)
            continue;
        const QJsonObject row = source.row();
        if (!row.isEmpty() &&
            resolution.offer(candidateFrom(source.name, row, source.pathKey, source.kindKey)))
            return resolution.answer();
    }
    if (!expectedRelativePath.trimmed().isEmpty())
        resolution.offer({"expected_relative_path",
                          QDir::cleanPath(QDir(root).filePath(
                              QDir::fromNativeSeparators(expectedRelativePath.trimmed()))),
                          QStringLiteral("other")});
    return resolution.answer();
}

OrderedObject LocalStore::removeLocalArtifacts(const QString& documentId, const QString& artifactId)
{
    const LocalDeletion deletion(localRoot(), deleteSettings());
    QHash<QString, int> counts;
    QVariantList artifacts;
    // Empty ids bind as NULL, which matches no row: removing one artifact never sweeps up the
    // artifacts that belong to no document.
    const QList<QJsonObject> rows = selectRows(
        QStringLiteral("SELECT artifact_id, path FROM local_artifacts WHERE document_id = ? OR "
                       "artifact_id = ?"),
        {textOrNull(documentId), textOrNull(artifactId)});
    for (const QJsonObject& row : rows) {
        const QString id = row.value(QLatin1String("artifact_id")).toString();
        OrderedObject outcome =
            deletion.removeLocalFile(row.value(QLatin1String("path")).toString());
        execute(QStringLiteral("DELETE FROM local_artifacts WHERE artifact_id = ?"), {id});
        ++counts[outcome.value(QStringLiteral("status")).toString()];
        OrderedObject item{{QStringLiteral("artifactId"), id}};
        for (const auto& [key, value] : outcome.items())
            item.insert(key, value);
        artifacts.append(item.toVariant());
    }
    return OrderedObject{
        {QStringLiteral("removed"), counts.value(QStringLiteral("REMOVED"))},
        {QStringLiteral("movedToDeleted"), counts.value(QStringLiteral("MOVED_TO_DELETED"))},
        {QStringLiteral("kept"), counts.value(QStringLiteral("KEPT"))},
        {QStringLiteral("missing"), counts.value(QStringLiteral("MISSING"))},
        {QStringLiteral("artifacts"), artifacts}};
}

QString LocalStore::createFileHandle(const QString& path)
{
    const QString id = newId();
    execute(
        QStringLiteral(
            "INSERT OR REPLACE INTO local_file_handles (id, path, created_at) VALUES (?, ?, ?)"),
        {id, QFileInfo(path).absoluteFilePath(), nowIso()});
    return id;
}

QString LocalStore::resolveFileHandle(const QString& handleId)
{
    const QJsonObject row =
        selectRequiredRow(QStringLiteral("SELECT path FROM local_file_handles WHERE id = ?"),
                          {handleId}, QStringLiteral("VANTRO_SIGN_FILE_HANDLE_NOT_FOUND"),
                          QStringLiteral("Local file handle was not found."));
    const QString path = row.value(QLatin1String("path")).toString();
    if (!rootrules::isPhysicallyInside(localRoot(), path))
        fail(QStringLiteral("VANTRO_SIGN_PATH_OUTSIDE_ROOT"), path);
    return path;
}

OrderedObject LocalStore::hashFileHandle(const QString& handleId)
{
    const QString path = resolveFileHandle(handleId);
    return OrderedObject{{QStringLiteral("path"), path},
                         {QStringLiteral("name"), QFileInfo(path).fileName()},
                         {QStringLiteral("sha256"), sha256File(path)}};
}

OrderedObject LocalStore::extractAdocFiles(const QVariantMap& input)
{
    const QVariant filesValue = input.value(QStringLiteral("files"));
    const QVariantList entries = filesValue.toList();
    if (filesValue.typeId() != QMetaType::QVariantList || entries.isEmpty())
        fail(QStringLiteral("VANTRO_SIGN_ADOC_EXTRACT_FILES_REQUIRED"));
    if (entries.size() > kMaxAdocFiles)
        fail(QStringLiteral("VANTRO_SIGN_ADOC_EXTRACT_TOO_MANY_FILES"),
             QString::number(entries.size()));
    const QString root = localRoot();
    if (root.isEmpty() || !QDir().mkpath(root))
        fail(QStringLiteral("VANTRO_SIGN_LOCAL_ROOT_MISSING"), root);
    QList<AdocFile> files;
    for (const QVariant& entry : entries)
        files.append(checkedAdocFile(root, entry.toMap()));

    QStringList written;
    QVariantList results;
    try {
        for (const AdocFile& file : std::as_const(files)) {
            const QString target = writeAdocFile(root, file);
            written.append(target);
            results.append(OrderedObject{
                {QStringLiteral("name"), QFileInfo(target).fileName()},
                {QStringLiteral("size"), file.content.size()},
                {QStringLiteral("sha256"), file.sha256},
                {QStringLiteral("relativePath"), rootrules::relativePathInRoot(root, target)},
                {QStringLiteral("mimeType"), file.mimeType},
                {QStringLiteral("localFileId"), createFileHandle(target)},
            }
                               .toVariant());
        }
    } catch (...) {
        for (const QString& path : std::as_const(written))
            QFile::remove(path);
        throw;
    }
    return OrderedObject{{QStringLiteral("root"), root}, {QStringLiteral("files"), results}};
}

} // namespace vantro
