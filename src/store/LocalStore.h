#pragma once

#include "app/OrderedJson.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QVariantList>
#include <QVariantMap>

#include <functional>
#include <memory>

class QSqlDatabase;
class QSqlQuery;

namespace vantro {

class AppState;

// A file as it is registered in the local store (import and reconciliation).
struct LocalFileDescriptor
{
    QString path;         // absolute
    QString relativePath; // root-relative, "/" separated
    QString name;
    QString title;
    qint64 size = 0;
    QString sha256; // lower-case hex
    QString mimeType;
};

// The local database ("local.db") and the local root it describes. One store owns one named
// SQLite connection; every public operation first opens it and brings the schema up to date.
// Failures throw VantroError ("CODE: detail" or the driver's error text).
class LocalStore : public QObject
{
    Q_OBJECT
public:
    explicit LocalStore(AppState* state, QObject* parent = nullptr);
    // Uses `databaseFile` instead of the default location (tests, tools, benchmarks).
    LocalStore(AppState* state, const QString& databaseFile, QObject* parent = nullptr);
    ~LocalStore() override;

    QString connectionName() const { return m_connectionName; }
    // AppState::dataDir()/local.db
    static QString databasePath();
    QString databaseFile() const { return m_databaseFile; }
    static constexpr int kSchemaVersion = 5;

    // Page-facing operations used by the bridge.
    QJsonArray listDocuments(const QVariantMap& filter);
    QJsonArray listJobs(const QString& documentId);
    QJsonArray importFiles(const QStringList& paths);
    // {pending, failed} counts of the mirror queue, for the helper-runtime object.
    QJsonObject mirrorCounts();

    // The remaining record, mirror-queue and import operations are declared below this line
    // by the store's owner.

    // Opens the connection and brings the schema up to date; every operation starts with it.
    void open();

    // The local root from the settings, absolute and cleaned, the deleted-files folder name
    // and the whole normalised deletion policy.
    QString localRoot() const;
    QString deletedFolderName() const;
    QJsonObject deleteSettings() const;

    // Documents and versions. Lookups that find nothing answer an empty object.
    QJsonObject getDocument(const QString& documentId);
    QJsonObject getDocumentByServerId(const QString& serverDocumentId);
    QJsonObject getCurrentVersion(const QString& documentId);
    QJsonObject getVersion(const QString& versionId);
    QJsonArray listVersions(const QString& documentId);
    // Document and "ORIGINAL" version of an imported file in one transaction; empty ids get
    // fresh UUIDs.
    QJsonObject insertImportedDocument(const LocalFileDescriptor& file,
                                       const QString& documentId = {},
                                       const QString& versionId = {});
    // A service-produced document whose file is not mirrored yet: its current version id is
    // reserved, with no version row until the mirror adds one under that id.
    QJsonObject insertPlaceholderDocument(const QString& serverDocumentId, const QString& title);
    // keys: id, documentId, serverDocumentId, kind, path, relativePath, sha256, sizeBytes,
    // mimeType, serverVersionId, status. Answers the new current version.
    QJsonObject addVersion(const QVariantMap& version);
    // `response` is the service's upload answer: `id` and `latest_version`.`id`. A non-empty
    // `artifact` (keys of upsertLocalArtifact) is recorded in the same transaction.
    void markUploaded(const QString& versionId, const QJsonObject& response,
                      const QVariantMap& artifact = {});
    void markUploadFailed(const QString& versionId, const QString& error);
    QJsonObject setDocumentStatus(const QString& documentId, const QString& status,
                                  const QString& error);

    // Jobs. insertJob keys: id, documentId, type, method, status, serverJobId, serverDocumentId.
    QJsonObject insertJob(const QVariantMap& job);
    // Patch keys (snake_case): status, server_job_id, server_document_id, result_version_id, error.
    QJsonObject updateJob(const QString& jobId, const QVariantMap& patch);

    // Mirror queue, store side.
    QJsonObject getMirrorItem(const QString& idOrArtifactId);
    // keys: id, artifactId, localDocumentId, serverDocumentId, serverVersionId, downloadUrl,
    // expectedSha256, relativePath, outputKind, documentStatus, mimeType, serverJobId.
    QJsonObject enqueueMirrorItem(const QVariantMap& item);
    // Patch keys: status, local_version_id, local_path, mirrored_sha256, incrementAttempts,
    // last_error.
    QJsonObject updateMirrorItem(const QString& id, const QVariantMap& patch);
    QJsonArray listOpenMirrorItems();

    // Reconciliation of the local root with the database; the summary object. The folders its
    // walk entered go to `walkedFolders` when given.
    OrderedObject reconcileLocalRoot(QStringList* walkedFolders = nullptr);
    // Deletes the document's rows after applying the deletion policy to each of its files:
    // {deleted, documentId, files}. VANTRO_SIGN_LOCAL_DOCUMENT_NOT_FOUND when there is none.
    OrderedObject deleteDocument(const QString& documentId);

    // Local artifacts: where a known artifact id lies on disk.
    // keys: artifactId, path, sha256, kind (default "other"), documentId.
    void upsertLocalArtifact(const QVariantMap& artifact);
    // Resolves the artifact through local_artifacts, the mirror queue, service versions, service
    // documents and the expected relative path, in that order; never fails for a missing file.
    OrderedObject localArtifactStatus(const QString& artifactId, const QString& serverVersionId,
                                      const QString& serverDocumentId,
                                      const QString& expectedRelativePath);
    // Removes the artifacts of a document (or the one artifact) by the deletion policy:
    // {removed, movedToDeleted, kept, missing, artifacts}.
    OrderedObject removeLocalArtifacts(const QString& documentId, const QString& artifactId);

    // Opaque handles the page uses instead of paths.
    QString createFileHandle(const QString& path);
    // The handle's path; VANTRO_SIGN_FILE_HANDLE_NOT_FOUND, or VANTRO_SIGN_PATH_OUTSIDE_ROOT
    // for a row that points out of the local root.
    QString resolveFileHandle(const QString& handleId);
    // {path, name, sha256} of the handle's file.
    OrderedObject hashFileHandle(const QString& handleId);

    // Writes the files the page unpacked from an ADOC container into the local root:
    // {root, files}. All entries are checked before the first file is written, and a failed
    // write takes back the files of this call.
    OrderedObject extractAdocFiles(const QVariantMap& input);

    // Import of one file: registered in place inside the root, otherwise copied into
    // Originalai/yyyy-MM. Answers documentId, versionId, name, size, sha256, relativePath,
    // mimeType.
    QJsonObject importFile(const QString& path);

    // The document and "ORIGINAL" version rows of an imported file, inside the caller's
    // transaction; nothing is read back (reconciliation imports thousands at a time).
    void insertImportedRows(const LocalFileDescriptor& file, const QString& documentId,
                            const QString& versionId, const QString& now);

    // Statement helpers for the store's concern classes (reconciliation, deletion, artifacts),
    // which share this connection. Statements are prepared once per connection and reused;
    // results are always fully read and reset so that no statement keeps a read snapshot open.
    // Values bind as parameters; a failure throws the driver's error text.
    void forEachRow(const QString& sql, const QVariantList& values,
                    const std::function<void(const QSqlQuery&)>& onRow);
    QList<QJsonObject> selectRows(const QString& sql, const QVariantList& values = {});
    QJsonObject selectRow(const QString& sql, const QVariantList& values = {});
    // The row, or a failure "code: message" when there is none.
    QJsonObject selectRequiredRow(const QString& sql, const QVariantList& values,
                                  const QString& code, const QString& message = {});
    // Answers the number of rows changed.
    int execute(const QString& sql, const QVariantList& values = {});

private:
    class QueryCache;

    QSqlDatabase database() const;
    void openConnection();
    void runSchemaStep();
    void addMissingDocumentColumns();

    QSqlQuery& prepared(const QString& sql);
    QSqlQuery& run(const QString& sql, const QVariantList& values);
    qint64 count(const QString& sql);

    QJsonObject documentJsonFor(const QJsonObject& row);
    LocalFileDescriptor registerImportSource(const QString& path);

    AppState* m_state = nullptr;
    QString m_connectionName;
    QString m_databaseFile;
    bool m_schemaEnsured = false;
    std::unique_ptr<QueryCache> m_queries;
};

} // namespace vantro
