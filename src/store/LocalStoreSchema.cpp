// Schema of local.db and its forward-only migration ladder on PRAGMA user_version.
#include "store/LocalStore.h"

#include "app/Errors.h"
#include "store/StoreSql.h"

#include <QSet>
#include <QSqlDatabase>
#include <QSqlError>
#include <QSqlQuery>

namespace vantro {

namespace {

// Each script ends with its user_version assignment, so an interrupted step is repeated on the
// next start; every statement is IF NOT EXISTS so repeating is harmless.
const char kVersion1[] = R"(
CREATE TABLE IF NOT EXISTS local_documents (
    id TEXT PRIMARY KEY,
    title TEXT NOT NULL,
    original_name TEXT NOT NULL,
    status TEXT NOT NULL,
    source TEXT NOT NULL,
    local_state TEXT NOT NULL,
    current_version_id TEXT NOT NULL,
    server_document_id TEXT,
    active_flow_id TEXT,
    last_error TEXT NOT NULL DEFAULT '',
    created_at TEXT NOT NULL,
    updated_at TEXT NOT NULL
);
CREATE TABLE IF NOT EXISTS local_versions (
    id TEXT PRIMARY KEY,
    document_id TEXT NOT NULL REFERENCES local_documents(id) ON DELETE CASCADE,
    kind TEXT NOT NULL,
    path TEXT NOT NULL,
    relative_path TEXT NOT NULL,
    sha256 TEXT NOT NULL,
    size_bytes INTEGER NOT NULL,
    mime_type TEXT NOT NULL,
    server_version_id TEXT,
    created_at TEXT NOT NULL
);
CREATE TABLE IF NOT EXISTS local_jobs (
    id TEXT PRIMARY KEY,
    document_id TEXT NOT NULL REFERENCES local_documents(id) ON DELETE CASCADE,
    type TEXT NOT NULL,
    method TEXT NOT NULL DEFAULT '',
    status TEXT NOT NULL,
    server_job_id TEXT,
    server_document_id TEXT,
    result_version_id TEXT,
    error TEXT NOT NULL DEFAULT '',
    created_at TEXT NOT NULL,
    updated_at TEXT NOT NULL
);
CREATE INDEX IF NOT EXISTS idx_local_documents_updated ON local_documents(updated_at DESC);
CREATE INDEX IF NOT EXISTS idx_local_documents_status ON local_documents(status);
CREATE INDEX IF NOT EXISTS idx_local_versions_document ON local_versions(document_id);
CREATE INDEX IF NOT EXISTS idx_local_jobs_document ON local_jobs(document_id, updated_at DESC);
PRAGMA user_version = 1;
)";

const char kVersion2[] = R"(
CREATE TABLE IF NOT EXISTS mirror_queue (
    id TEXT PRIMARY KEY,
    artifact_id TEXT NOT NULL UNIQUE,
    local_document_id TEXT NOT NULL REFERENCES local_documents(id) ON DELETE CASCADE,
    server_document_id TEXT NOT NULL,
    server_version_id TEXT NOT NULL,
    download_url TEXT NOT NULL,
    expected_sha256 TEXT NOT NULL,
    relative_path TEXT NOT NULL,
    output_kind TEXT NOT NULL,
    document_status TEXT NOT NULL,
    mime_type TEXT NOT NULL,
    local_version_id TEXT,
    local_path TEXT,
    mirrored_sha256 TEXT,
    status TEXT NOT NULL,
    attempts INTEGER NOT NULL DEFAULT 0,
    last_error TEXT NOT NULL DEFAULT '',
    server_job_id TEXT,
    created_at TEXT NOT NULL,
    updated_at TEXT NOT NULL
);
CREATE INDEX IF NOT EXISTS idx_mirror_queue_status ON mirror_queue(status, created_at);
CREATE INDEX IF NOT EXISTS idx_mirror_queue_document ON mirror_queue(local_document_id, updated_at DESC);
PRAGMA user_version = 2;
)";

// Added to local_documents in step 4, in this order.
const char* const kVersion4Columns[] = {
    "missing_since TEXT NOT NULL DEFAULT ''", "hidden_at TEXT NOT NULL DEFAULT ''",
    "purge_after TEXT NOT NULL DEFAULT ''", "purged_at TEXT NOT NULL DEFAULT ''",
    "cloud_state TEXT NOT NULL DEFAULT 'LOCAL'"};

const char kVersion4[] = R"(
CREATE INDEX IF NOT EXISTS idx_local_documents_missing_purge ON local_documents(status, purge_after);
PRAGMA user_version = 4;
)";

const char kVersion5[] = R"(
CREATE TABLE IF NOT EXISTS local_artifacts (
    artifact_id TEXT PRIMARY KEY,
    path TEXT NOT NULL,
    relative_path TEXT NOT NULL,
    sha256 TEXT,
    kind TEXT NOT NULL,
    document_id TEXT,
    updated_at TEXT NOT NULL
);
CREATE INDEX IF NOT EXISTS idx_local_artifacts_document ON local_artifacts(document_id);
CREATE TABLE IF NOT EXISTS local_file_hash_cache (
    path_key TEXT PRIMARY KEY,
    path TEXT NOT NULL,
    size_bytes INTEGER NOT NULL,
    last_modified_ms INTEGER NOT NULL,
    sha256 TEXT NOT NULL,
    updated_at TEXT NOT NULL
);
CREATE INDEX IF NOT EXISTS idx_local_file_hash_cache_updated ON local_file_hash_cache(updated_at);
CREATE TABLE IF NOT EXISTS local_file_handles (
    id TEXT PRIMARY KEY,
    path TEXT NOT NULL,
    created_at TEXT NOT NULL
);
CREATE INDEX IF NOT EXISTS idx_local_file_handles_created ON local_file_handles(created_at);
PRAGMA user_version = 5;
)";

// Runs one statement outside the prepared-statement cache (schema changes happen once).
QSqlQuery execOnce(const QSqlDatabase& db, const QString& sql)
{
    QSqlQuery query(db);
    query.setForwardOnly(true);
    if (!query.exec(sql))
        throw VantroError(query.lastError().text());
    return query;
}

// Runs a ";"-separated script statement by statement; user_version is each script's last
// statement, so a failure leaves the version at the last completed step.
void runScript(const QSqlDatabase& db, const char* script)
{
    for (const QString& piece : QString::fromLatin1(script).split(QLatin1Char(';'))) {
        const QString statement = piece.trimmed();
        if (!statement.isEmpty())
            execOnce(db, statement);
    }
}

} // namespace

void LocalStore::runSchemaStep()
{
    const QSqlDatabase db = database();
    execOnce(db, QStringLiteral("PRAGMA journal_mode = WAL"));
    execOnce(db, QStringLiteral("PRAGMA foreign_keys = ON"));
    int version = 0;
    {
        QSqlQuery query = execOnce(db, QStringLiteral("PRAGMA user_version"));
        if (query.next())
            version = query.value(0).toInt();
    }
    if (version < 1)
        runScript(db, kVersion1);
    if (version < 2)
        runScript(db, kVersion2);
    if (version < 4) {
        addMissingDocumentColumns();
        runScript(db, kVersion4);
    }
    if (version < 5)
        runScript(db, kVersion5);
    if (version < kSchemaVersion)
        qCInfo(lcStore) << "Migrated" << m_databaseFile << "from schema version" << version;
}

void LocalStore::addMissingDocumentColumns()
{
    const QSqlDatabase db = database();
    QSet<QString> existing;
    {
        QSqlQuery query = execOnce(db, QStringLiteral("PRAGMA table_info(local_documents)"));
        while (query.next())
            existing.insert(query.value(QStringLiteral("name")).toString());
    }
    for (const char* definition : kVersion4Columns) {
        const QString column = QString::fromLatin1(definition).section(QLatin1Char(' '), 0, 0);
        if (existing.contains(column))
            continue;
        execOnce(db, QStringLiteral("ALTER TABLE local_documents ADD COLUMN %1")
                         .arg(QString::fromLatin1(definition)));
    }
}

} // namespace vantro
