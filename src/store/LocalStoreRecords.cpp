// Documents, versions, jobs and the store side of the mirror queue.
#include "store/LocalStore.h"

#include "store/RecordJson.h"
#include "store/StoreSql.h"

#include <QJsonValue>
#include <QSqlQuery>
#include <QSqlRecord>

#include <optional>

namespace vantro {

using storesql::newId;
using storesql::nowIso;
using storesql::textOrNull;

namespace {

QString text(const QVariantMap& map, const char* key, const QString& fallback = {})
{
    const QString value = map.value(QLatin1String(key)).toString();
    return value.isEmpty() ? fallback : value;
}

// The bound value of a column after a patch: present keys replace, absent keys keep. Nullable
// id columns never store '' (a mirrored item is recognised by a non-NULL local version id).
QVariant patchedText(const QVariantMap& patch, const QJsonObject& stored, const char* key,
                     bool nullable)
{
    const QString name = QLatin1String(key);
    const QString value =
        patch.contains(name) ? patch.value(name).toString() : stored.value(name).toString();
    return nullable ? textOrNull(value) : QVariant(value);
}

// Where the version's columns start in a "d.*, v.*" row: at its own "id".
int secondIdColumn(const QSqlRecord& record)
{
    for (int i = 1; i < record.count(); ++i) {
        if (record.fieldName(i) == QLatin1String("id"))
            return i;
    }
    return record.count();
}

} // namespace

// --- Documents and versions ------------------------------------------------------------------

QJsonObject LocalStore::documentJsonFor(const QJsonObject& row)
{
    if (row.isEmpty())
        return {};
    // Only the current version is shown, so only it is read.
    const QJsonObject current =
        selectRow(QStringLiteral("SELECT * FROM local_versions WHERE id = ? AND document_id = ?"),
                  {row.value(QLatin1String("current_version_id")).toString(),
                   row.value(QLatin1String("id")).toString()});
    return records::documentJson(row, current);
}

QJsonObject LocalStore::getDocument(const QString& documentId)
{
    return documentJsonFor(
        selectRow(QStringLiteral("SELECT * FROM local_documents WHERE id = ?"), {documentId}));
}

QJsonObject LocalStore::getDocumentByServerId(const QString& serverDocumentId)
{
    return documentJsonFor(selectRow(QStringLiteral("SELECT * FROM local_documents WHERE "
                                                    "server_document_id = ? ORDER BY updated_at "
                                                    "DESC, rowid DESC LIMIT 1"),
                                     {serverDocumentId}));
}

QJsonObject LocalStore::getCurrentVersion(const QString& documentId)
{
    const QJsonObject row = selectRow(
        QStringLiteral("SELECT v.* FROM local_documents d JOIN local_versions v ON v.id = "
                       "d.current_version_id WHERE d.id = ?"),
        {documentId});
    return row.isEmpty() ? row : records::versionJson(row);
}

QJsonObject LocalStore::getVersion(const QString& versionId)
{
    const QJsonObject row =
        selectRow(QStringLiteral("SELECT * FROM local_versions WHERE id = ?"), {versionId});
    return row.isEmpty() ? row : records::versionJson(row);
}

QJsonArray LocalStore::listVersions(const QString& documentId)
{
    return records::shapedArray(
        selectRows(QStringLiteral("SELECT * FROM local_versions WHERE document_id = ? ORDER BY "
                                  "created_at ASC, rowid ASC"),
                   {documentId}),
        records::versionJson);
}

QJsonObject LocalStore::insertImportedDocument(const LocalFileDescriptor& file,
                                               const QString& documentId, const QString& versionId)
{
    const QString docId = documentId.isEmpty() ? newId() : documentId;
    StoreTransaction transaction(*this);
    insertImportedRows(file, docId, versionId.isEmpty() ? newId() : versionId, nowIso());
    transaction.commit();
    return getDocument(docId);
}

void LocalStore::insertImportedRows(const LocalFileDescriptor& file, const QString& docId,
                                    const QString& verId, const QString& now)
{
    execute(QStringLiteral("INSERT INTO local_documents (id, title, original_name, status, source, "
                           "local_state, current_version_id, server_document_id, active_flow_id, "
                           "last_error, created_at, updated_at) VALUES (?, ?, ?, 'LOCAL', "
                           "'LOCAL_IMPORT', 'LOCAL_ONLY', ?, NULL, NULL, '', ?, ?)"),
            {docId, file.title, file.name, verId, now, now});
    execute(
        QStringLiteral("INSERT INTO local_versions (id, document_id, kind, path, relative_path, "
                       "sha256, size_bytes, mime_type, server_version_id, created_at) VALUES "
                       "(?, ?, 'ORIGINAL', ?, ?, ?, ?, ?, NULL, ?)"),
        {verId, docId, file.path, file.relativePath, file.sha256, file.size, file.mimeType, now});
}

QJsonObject LocalStore::insertPlaceholderDocument(const QString& serverDocumentId,
                                                  const QString& title)
{
    const QString name = title.isEmpty() ? QStringLiteral("Sujungtas PDF") : title;
    const QString documentId = newId();
    const QString now = nowIso();
    execute(QStringLiteral("INSERT INTO local_documents (id, title, original_name, status, source, "
                           "local_state, current_version_id, server_document_id, active_flow_id, "
                           "last_error, created_at, updated_at) VALUES (?, ?, ?, 'PROCESSING', "
                           "'SERVER_GENERATED', 'PENDING_MIRROR', ?, ?, NULL, '', ?, ?)"),
            {documentId, name, name + QStringLiteral(".pdf"), newId(), serverDocumentId, now, now});
    return getDocument(documentId);
}

QJsonObject LocalStore::addVersion(const QVariantMap& version)
{
    // The id is the caller's: the mirror adds a placeholder's version under its reserved id.
    const QString versionId = text(version, "id");
    const QString documentId = text(version, "documentId");
    const QString now = nowIso();
    StoreTransaction transaction(*this);
    execute(QStringLiteral(
                "INSERT INTO local_versions (id, document_id, kind, path, relative_path, sha256, "
                "size_bytes, mime_type, server_version_id, created_at) VALUES (?, ?, ?, ?, ?, ?, "
                "?, ?, ?, ?) ON CONFLICT(id) DO UPDATE SET path = excluded.path, relative_path = "
                "excluded.relative_path, sha256 = excluded.sha256, size_bytes = "
                "excluded.size_bytes, mime_type = excluded.mime_type, server_version_id = "
                "excluded.server_version_id"),
            {versionId, documentId, text(version, "kind", QStringLiteral("SIGNED")),
             text(version, "path"), text(version, "relativePath"), text(version, "sha256"),
             version.value(QStringLiteral("sizeBytes")).toInt(),
             text(version, "mimeType", QStringLiteral("application/pdf")),
             text(version, "serverVersionId", versionId), now});
    execute(QStringLiteral("UPDATE local_documents SET current_version_id = ?, status = ?, "
                           "local_state = 'LOCAL_ONLY', server_document_id = "
                           "COALESCE(server_document_id, ?), updated_at = ?, last_error = '' WHERE "
                           "id = ?"),
            {versionId, text(version, "status", QStringLiteral("SIGNED")),
             text(version, "serverDocumentId"), now, documentId});
    transaction.commit();
    return getVersion(versionId);
}

void LocalStore::markUploaded(const QString& versionId, const QJsonObject& response,
                              const QVariantMap& artifact)
{
    const QString serverVersionId = idText(
        response.value(QLatin1String("latest_version")).toObject().value(QLatin1String("id")));
    const QString serverDocumentId = idText(response.value(QLatin1String("id")));
    StoreTransaction transaction(*this);
    execute(QStringLiteral("UPDATE local_versions SET server_version_id = ? WHERE id = ?"),
            {textOrNull(serverVersionId), versionId});
    // Addressed through the current version: an upload of a superseded version changes no
    // document.
    execute(QStringLiteral("UPDATE local_documents SET server_document_id = ?, status = "
                           "'UPLOADED', local_state = 'SERVER_TRANSIENT', last_error = '', "
                           "updated_at = ? WHERE current_version_id = ?"),
            {textOrNull(serverDocumentId), nowIso(), versionId});
    if (!artifact.isEmpty())
        upsertLocalArtifact(artifact);
    transaction.commit();
}

void LocalStore::markUploadFailed(const QString& versionId, const QString& error)
{
    execute(QStringLiteral("UPDATE local_documents SET status = 'FAILED', local_state = "
                           "'LOCAL_ONLY', last_error = ?, updated_at = ? WHERE current_version_id "
                           "= ?"),
            {error, nowIso(), versionId});
}

QJsonObject LocalStore::setDocumentStatus(const QString& documentId, const QString& status,
                                          const QString& error)
{
    execute(
        QStringLiteral(
            "UPDATE local_documents SET status = ?, last_error = ?, updated_at = ? WHERE id = ?"),
        {status, error, nowIso(), documentId});
    return getDocument(documentId);
}

QJsonArray LocalStore::listDocuments(const QVariantMap& filter)
{
    const bool includeHidden = filter.value(QStringLiteral("includeHidden")).toBool();
    const QString status = filter.value(QStringLiteral("status")).toString().trimmed();
    const QString query = filter.value(QStringLiteral("query")).toString().trimmed().toLower();

    QStringList conditions;
    QVariantList values;
    if (!includeHidden && status != QLatin1String("MISSING"))
        conditions << QStringLiteral("(d.status <> 'MISSING' AND COALESCE(d.purged_at, '') = '')");
    if (!query.isEmpty()) {
        conditions << QStringLiteral("(lower(d.title) LIKE ? OR lower(d.original_name) LIKE ?)");
        const QString pattern = QLatin1Char('%') + query + QLatin1Char('%');
        values << pattern << pattern;
    }
    if (!status.isEmpty()) {
        conditions << QStringLiteral("d.status = ?");
        values << status;
    }
    // Each document arrives with its current version in the same row (a version counts only
    // when it belongs to the document, as when versions are grouped by document): thousands of
    // documents cost one pass over one statement, with no second query over all their ids.
    QString sql =
        QStringLiteral("SELECT d.*, v.* FROM local_documents d LEFT JOIN local_versions v "
                       "ON v.id = d.current_version_id AND v.document_id = d.id ");
    if (!conditions.isEmpty())
        sql +=
            QStringLiteral("WHERE ") + conditions.join(QStringLiteral(" AND ")) + QLatin1Char(' ');
    sql += QStringLiteral("ORDER BY d.updated_at DESC, d.created_at DESC, d.rowid DESC");

    QJsonArray result;
    std::optional<records::RowReader> documentReader;
    std::optional<records::RowReader> versionReader;
    int versionColumn = 0;
    forEachRow(sql, values, [&](const QSqlQuery& row) {
        if (!documentReader) {
            const QSqlRecord record = row.record();
            versionColumn = secondIdColumn(record);
            documentReader.emplace(record, 0, versionColumn);
            versionReader.emplace(record, versionColumn, record.count() - versionColumn);
        }
        const bool hasVersion = !row.isNull(versionColumn);
        result.append(records::documentJson(documentReader->read(row),
                                            hasVersion ? versionReader->read(row) : QJsonObject()));
    });
    return result;
}

// --- Jobs --------------------------------------------------------------------------------------

QJsonObject LocalStore::insertJob(const QVariantMap& job)
{
    const QString jobId = text(job, "id", newId());
    const QString now = nowIso();
    execute(QStringLiteral("INSERT INTO local_jobs (id, document_id, type, method, status, "
                           "server_job_id, server_document_id, result_version_id, error, "
                           "created_at, updated_at) VALUES (?, ?, ?, ?, ?, ?, ?, NULL, '', ?, ?)"),
            {jobId, text(job, "documentId"), text(job, "type"), text(job, "method"),
             text(job, "status", QStringLiteral("QUEUED")), textOrNull(text(job, "serverJobId")),
             textOrNull(text(job, "serverDocumentId")), now, now});
    return records::jobJson(
        selectRow(QStringLiteral("SELECT * FROM local_jobs WHERE id = ?"), {jobId}));
}

QJsonObject LocalStore::updateJob(const QString& jobId, const QVariantMap& patch)
{
    const QString select = QStringLiteral("SELECT * FROM local_jobs WHERE id = ?");
    StoreTransaction transaction(*this);
    const QJsonObject stored =
        selectRequiredRow(select, {jobId}, QStringLiteral("VANTRO_SIGN_LOCAL_JOB_NOT_FOUND"));
    execute(QStringLiteral("UPDATE local_jobs SET status = ?, server_job_id = ?, "
                           "server_document_id = ?, result_version_id = ?, error = ?, updated_at "
                           "= ? WHERE id = ?"),
            {patchedText(patch, stored, "status", false),
             patchedText(patch, stored, "server_job_id", true),
             patchedText(patch, stored, "server_document_id", true),
             patchedText(patch, stored, "result_version_id", true),
             patchedText(patch, stored, "error", false), nowIso(), jobId});
    const QJsonObject updated = selectRow(select, {jobId});
    transaction.commit();
    return records::jobJson(updated);
}

QJsonArray LocalStore::listJobs(const QString& documentId)
{
    const QList<QJsonObject> rows =
        documentId.isEmpty()
            ? selectRows(QStringLiteral(
                  "SELECT * FROM local_jobs ORDER BY updated_at DESC, rowid DESC LIMIT 500"))
            : selectRows(QStringLiteral("SELECT * FROM local_jobs WHERE document_id = ? ORDER BY "
                                        "updated_at DESC, rowid DESC"),
                         {documentId});
    return records::shapedArray(rows, records::jobJson);
}

// --- Mirror queue --------------------------------------------------------------------------

QJsonObject LocalStore::getMirrorItem(const QString& idOrArtifactId)
{
    const QJsonObject row = selectRow(
        QStringLiteral("SELECT * FROM mirror_queue WHERE id = ? OR artifact_id = ? LIMIT 1"),
        {idOrArtifactId, idOrArtifactId});
    return row.isEmpty() ? row : records::mirrorItemJson(row);
}

QJsonObject LocalStore::enqueueMirrorItem(const QVariantMap& item)
{
    const QString artifactId = text(item, "artifactId");
    const QString queueId = text(item, "id", artifactId);
    StoreTransaction transaction(*this);
    const QJsonObject existing = selectRow(
        QStringLiteral("SELECT * FROM mirror_queue WHERE id = ? OR artifact_id = ? LIMIT 1"),
        {queueId, artifactId});
    if (existing.value(QLatin1String("status")).toString() == QLatin1String("ACKNOWLEDGED")) {
        transaction.commit();
        return records::mirrorItemJson(existing);
    }
    const QString localVersionId = existing.value(QLatin1String("local_version_id")).toString();
    const QString now = nowIso();
    execute(
        QStringLiteral(
            "INSERT INTO mirror_queue (id, artifact_id, local_document_id, server_document_id, "
            "server_version_id, download_url, expected_sha256, relative_path, output_kind, "
            "document_status, mime_type, local_version_id, local_path, mirrored_sha256, status, "
            "attempts, last_error, server_job_id, created_at, updated_at) VALUES (?, ?, ?, ?, ?, "
            "?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, '', ?, ?, ?) ON CONFLICT(id) DO UPDATE SET "
            "artifact_id = excluded.artifact_id, local_document_id = excluded.local_document_id, "
            "server_document_id = excluded.server_document_id, server_version_id = "
            "excluded.server_version_id, download_url = excluded.download_url, expected_sha256 = "
            "excluded.expected_sha256, relative_path = excluded.relative_path, output_kind = "
            "excluded.output_kind, document_status = excluded.document_status, mime_type = "
            "excluded.mime_type, server_job_id = COALESCE(mirror_queue.server_job_id, "
            "excluded.server_job_id), status = CASE WHEN mirror_queue.status IN ('ACKNOWLEDGED', "
            "'EXPIRED_PURGED') THEN mirror_queue.status WHEN mirror_queue.local_version_id IS NOT "
            "NULL THEN 'MIRRORED' ELSE excluded.status END, last_error = '', updated_at = "
            "excluded.updated_at"),
        {queueId, artifactId, text(item, "localDocumentId"), text(item, "serverDocumentId"),
         text(item, "serverVersionId"), text(item, "downloadUrl"), text(item, "expectedSha256"),
         text(item, "relativePath"), text(item, "outputKind", QStringLiteral("SIGNED")),
         text(item, "documentStatus", QStringLiteral("SIGNED")),
         text(item, "mimeType", QStringLiteral("application/pdf")), textOrNull(localVersionId),
         textOrNull(existing.value(QLatin1String("local_path")).toString()),
         textOrNull(existing.value(QLatin1String("mirrored_sha256")).toString()),
         localVersionId.isEmpty() ? QStringLiteral("QUEUED") : QStringLiteral("MIRRORED"),
         existing.value(QLatin1String("attempts")).toInteger(),
         textOrNull(
             text(item, "serverJobId", existing.value(QLatin1String("server_job_id")).toString())),
         now, now});
    const QJsonObject stored =
        selectRow(QStringLiteral("SELECT * FROM mirror_queue WHERE id = ?"), {queueId});
    transaction.commit();
    return records::mirrorItemJson(stored);
}

QJsonObject LocalStore::updateMirrorItem(const QString& id, const QVariantMap& patch)
{
    const QString select = QStringLiteral("SELECT * FROM mirror_queue WHERE id = ?");
    StoreTransaction transaction(*this);
    const QJsonObject stored =
        selectRequiredRow(select, {id}, QStringLiteral("VANTRO_SIGN_MIRROR_QUEUE_ITEM_NOT_FOUND"));
    const qint64 attempts = stored.value(QLatin1String("attempts")).toInteger() +
                            (patch.value(QStringLiteral("incrementAttempts")).toBool() ? 1 : 0);
    execute(QStringLiteral("UPDATE mirror_queue SET status = ?, local_version_id = ?, local_path = "
                           "?, mirrored_sha256 = ?, attempts = ?, last_error = ?, updated_at = ? "
                           "WHERE id = ?"),
            {patchedText(patch, stored, "status", false),
             patchedText(patch, stored, "local_version_id", true),
             patchedText(patch, stored, "local_path", true),
             patchedText(patch, stored, "mirrored_sha256", true), attempts,
             patchedText(patch, stored, "last_error", false), nowIso(), id});
    const QJsonObject updated = selectRow(select, {id});
    transaction.commit();
    return records::mirrorItemJson(updated);
}

QJsonArray LocalStore::listOpenMirrorItems()
{
    return records::shapedArray(
        // Rows queued within one clock tick share created_at; enqueue order breaks the tie.
        selectRows(QStringLiteral("SELECT * FROM mirror_queue WHERE status IN ('QUEUED', "
                                  "'RUNNING', 'MIRRORED', 'FAILED') ORDER BY created_at ASC, "
                                  "rowid ASC")),
        records::mirrorItemJson);
}

QJsonObject LocalStore::mirrorCounts()
{
    const qint64 pending = count(QStringLiteral("SELECT COUNT(*) AS count FROM mirror_queue WHERE "
                                                "status IN ('QUEUED', 'RUNNING', 'MIRRORED')"));
    const qint64 failed =
        count(QStringLiteral("SELECT COUNT(*) AS count FROM mirror_queue WHERE status = 'FAILED'"));
    return QJsonObject{{QStringLiteral("pending"), pending}, {QStringLiteral("failed"), failed}};
}

} // namespace vantro
