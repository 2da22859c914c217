// local.db: location, connection, schema and the migration ladder, concurrent connections.
#include "StoreTestSupport.h"

#include <QMutex>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QThread>

using namespace vantro;
using namespace storetest;

namespace {

// The schema as older releases left it, written independently of the store's own scripts.
const char kVersion1[] = R"(
CREATE TABLE local_documents (id TEXT PRIMARY KEY, title TEXT NOT NULL,
  original_name TEXT NOT NULL, status TEXT NOT NULL, source TEXT NOT NULL,
  local_state TEXT NOT NULL, current_version_id TEXT NOT NULL, server_document_id TEXT,
  active_flow_id TEXT, last_error TEXT NOT NULL DEFAULT '', created_at TEXT NOT NULL,
  updated_at TEXT NOT NULL);
CREATE TABLE local_versions (id TEXT PRIMARY KEY,
  document_id TEXT NOT NULL REFERENCES local_documents(id) ON DELETE CASCADE,
  kind TEXT NOT NULL, path TEXT NOT NULL, relative_path TEXT NOT NULL, sha256 TEXT NOT NULL,
  size_bytes INTEGER NOT NULL, mime_type TEXT NOT NULL, server_version_id TEXT,
  created_at TEXT NOT NULL);
CREATE TABLE local_jobs (id TEXT PRIMARY KEY,
  document_id TEXT NOT NULL REFERENCES local_documents(id) ON DELETE CASCADE,
  type TEXT NOT NULL, method TEXT NOT NULL DEFAULT '', status TEXT NOT NULL, server_job_id TEXT,
  server_document_id TEXT, result_version_id TEXT, error TEXT NOT NULL DEFAULT '',
  created_at TEXT NOT NULL, updated_at TEXT NOT NULL);
CREATE INDEX idx_local_documents_updated ON local_documents(updated_at DESC);
CREATE INDEX idx_local_documents_status ON local_documents(status);
CREATE INDEX idx_local_versions_document ON local_versions(document_id);
CREATE INDEX idx_local_jobs_document ON local_jobs(document_id, updated_at DESC);
INSERT INTO local_documents VALUES ('doc-1', 'Sutartis', 'Sutartis.pdf', 'UPLOADED',
  'LOCAL_IMPORT', 'SERVER_TRANSIENT', 'ver-1', 'srv-1', NULL, '', '2025-01-01', '2025-01-02');
INSERT INTO local_versions VALUES ('ver-1', 'doc-1', 'ORIGINAL', '/r/Sutartis.pdf',
  'Sutartis.pdf', 'abc', 12, 'application/pdf', NULL, '2025-01-01');
PRAGMA user_version = 1;
)";
const char kVersion2[] = R"(
CREATE TABLE mirror_queue (id TEXT PRIMARY KEY, artifact_id TEXT NOT NULL UNIQUE,
  local_document_id TEXT NOT NULL REFERENCES local_documents(id) ON DELETE CASCADE,
  server_document_id TEXT NOT NULL, server_version_id TEXT NOT NULL,
  download_url TEXT NOT NULL, expected_sha256 TEXT NOT NULL, relative_path TEXT NOT NULL,
  output_kind TEXT NOT NULL, document_status TEXT NOT NULL, mime_type TEXT NOT NULL,
  local_version_id TEXT, local_path TEXT, mirrored_sha256 TEXT, status TEXT NOT NULL,
  attempts INTEGER NOT NULL DEFAULT 0, last_error TEXT NOT NULL DEFAULT '', server_job_id TEXT,
  created_at TEXT NOT NULL, updated_at TEXT NOT NULL);
CREATE INDEX idx_mirror_queue_status ON mirror_queue(status, created_at);
CREATE INDEX idx_mirror_queue_document ON mirror_queue(local_document_id, updated_at DESC);
PRAGMA user_version = 2;
)";
const char kTwoStep4Columns[] = R"(
ALTER TABLE local_documents ADD COLUMN missing_since TEXT NOT NULL DEFAULT '';
ALTER TABLE local_documents ADD COLUMN hidden_at TEXT NOT NULL DEFAULT '';
UPDATE local_documents SET missing_since = 'kept';
)";
const char kVersion4[] = R"(
ALTER TABLE local_documents ADD COLUMN purge_after TEXT NOT NULL DEFAULT '';
ALTER TABLE local_documents ADD COLUMN purged_at TEXT NOT NULL DEFAULT '';
ALTER TABLE local_documents ADD COLUMN cloud_state TEXT NOT NULL DEFAULT 'LOCAL';
CREATE INDEX idx_local_documents_missing_purge ON local_documents(status, purge_after);
PRAGMA user_version = 4;
)";

// Expected schema. Columns "name TYPE [NN] [=default] [PK]", foreign keys
// "column>table(column) ON_DELETE", indexes "name(column[ DESC],...)" with "UNIQUE" for a
// UNIQUE constraint; items separated by ", ".
struct TableShape
{
    const char *name, *columns, *foreignKeys, *indexes;
};
const TableShape kSchema[] = {
    {"local_documents",
     "id TEXT PK, title TEXT NN, original_name TEXT NN, status TEXT NN, source TEXT NN, "
     "local_state TEXT NN, current_version_id TEXT NN, server_document_id TEXT, active_flow_id "
     "TEXT, last_error TEXT NN ='', created_at TEXT NN, updated_at TEXT NN, missing_since TEXT NN "
     "='', hidden_at TEXT NN ='', purge_after TEXT NN ='', purged_at TEXT NN ='', cloud_state "
     "TEXT NN ='LOCAL'",
     "",
     "idx_local_documents_missing_purge(status,purge_after), idx_local_documents_status(status), "
     "idx_local_documents_updated(updated_at DESC)"},
    {"local_versions",
     "id TEXT PK, document_id TEXT NN, kind TEXT NN, path TEXT NN, relative_path TEXT NN, sha256 "
     "TEXT NN, size_bytes INTEGER NN, mime_type TEXT NN, server_version_id TEXT, created_at TEXT "
     "NN",
     "document_id>local_documents(id) CASCADE", "idx_local_versions_document(document_id)"},
    {"local_jobs",
     "id TEXT PK, document_id TEXT NN, type TEXT NN, method TEXT NN ='', status TEXT NN, "
     "server_job_id TEXT, server_document_id TEXT, result_version_id TEXT, error TEXT NN ='', "
     "created_at TEXT NN, updated_at TEXT NN",
     "document_id>local_documents(id) CASCADE",
     "idx_local_jobs_document(document_id,updated_at DESC)"},
    {"mirror_queue",
     "id TEXT PK, artifact_id TEXT NN, local_document_id TEXT NN, server_document_id TEXT NN, "
     "server_version_id TEXT NN, download_url TEXT NN, expected_sha256 TEXT NN, relative_path "
     "TEXT NN, output_kind TEXT NN, document_status TEXT NN, mime_type TEXT NN, local_version_id "
     "TEXT, local_path TEXT, mirrored_sha256 TEXT, status TEXT NN, attempts INTEGER NN =0, "
     "last_error TEXT NN ='', server_job_id TEXT, created_at TEXT NN, updated_at TEXT NN",
     "local_document_id>local_documents(id) CASCADE",
     "UNIQUE(artifact_id), idx_mirror_queue_document(local_document_id,updated_at DESC), "
     "idx_mirror_queue_status(status,created_at)"},
    {"local_artifacts",
     "artifact_id TEXT PK, path TEXT NN, relative_path TEXT NN, sha256 TEXT, kind TEXT NN, "
     "document_id TEXT, updated_at TEXT NN",
     "", "idx_local_artifacts_document(document_id)"},
    {"local_file_hash_cache",
     "path_key TEXT PK, path TEXT NN, size_bytes INTEGER NN, last_modified_ms INTEGER NN, sha256 "
     "TEXT NN, updated_at TEXT NN",
     "", "idx_local_file_hash_cache_updated(updated_at)"},
    {"local_file_handles", "id TEXT PK, path TEXT NN, created_at TEXT NN", "",
     "idx_local_file_handles_created(created_at)"},
};

// The same notation read back from the file, each item prefixed with its table.
QStringList describe(const RawDatabase& raw, const QString& table)
{
    const auto rows = [&](const char* sql) {
        return raw.column(QLatin1String(sql), {table});
    };
    QStringList items =
        rows("SELECT name || ' ' || type || IIF(\"notnull\", ' NN', '') || COALESCE(' =' || "
             "dflt_value, '') || IIF(pk, ' PK', '') FROM pragma_table_info(?) ORDER BY cid");
    items += rows("SELECT \"from\" || '>' || \"table\" || '(' || \"to\" || ') ' || on_delete "
                  "FROM pragma_foreign_key_list(?)");
    items += rows("SELECT IIF(origin = 'u', 'UNIQUE', l.name) || '(' || (SELECT "
                  "group_concat(name || IIF(\"desc\", ' DESC', ''), ',') FROM (SELECT * FROM "
                  "pragma_index_xinfo(l.name) WHERE key ORDER BY seqno)) || ')' FROM "
                  "pragma_index_list(?) l WHERE origin <> 'pk' ORDER BY 1");
    for (QString& item : items)
        item.prepend(table + ": ");
    return items;
}

void verifySchema(const RawDatabase& raw)
{
    QStringList tables;
    for (const TableShape& shape : kSchema) {
        QStringList expected;
        for (const char* part : {shape.columns, shape.foreignKeys, shape.indexes}) {
            for (const QString& item : QString::fromLatin1(part).split(", ", Qt::SkipEmptyParts))
                expected << QLatin1String(shape.name) + ": " + item;
        }
        QCOMPARE(describe(raw, QLatin1String(shape.name)), expected);
        tables << QLatin1String(shape.name);
    }
    tables.sort();
    const QString objects = QStringLiteral("SELECT name FROM sqlite_master WHERE type = '%1' AND "
                                           "name NOT LIKE 'sqlite_%' ORDER BY name");
    QCOMPARE(raw.column(objects.arg("table")), tables);
    QCOMPARE(raw.column(objects.arg("index")).size(), 10);
}

int pragma(const LocalStore& store, const char* name)
{
    QSqlQuery query(QSqlDatabase::database(store.connectionName()));
    return query.exec("PRAGMA " + QLatin1String(name)) && query.next() ? query.value(0).toInt()
                                                                       : -1;
}

} // namespace

class StoreSchemaTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { QStandardPaths::setTestModeEnabled(true); }

    void connectionIsNamedLazyAndTuned()
    {
        const QString defaultFile = QDir(AppState::dataDir()).filePath("local.db");
        QCOMPARE(LocalStore::databasePath(), defaultFile);
        QCOMPARE(LocalStore(nullptr).databaseFile(), defaultFile);
        StoreFixture fx;
        auto store = fx.makeStore();
        const QString name = store->connectionName();
        const QRegularExpression uuid("^[0-9a-f]{8}(-[0-9a-f]{4}){3}-[0-9a-f]{12}$");
        QVERIFY2(name.startsWith("vantro-sign-app-local-store-") &&
                     uuid.match(name.mid(28)).hasMatch(),
                 qPrintable(name));
        QVERIFY(name != fx.makeStore()->connectionName());
        QVERIFY(!QSqlDatabase::contains(name) && !QFileInfo::exists(fx.dbPath()));
        store->open();
        QCOMPARE(QSqlDatabase::database(name).connectOptions(), "QSQLITE_BUSY_TIMEOUT=5000");
        QCOMPARE(pragma(*store, "busy_timeout"), 5000);
        QCOMPARE(pragma(*store, "foreign_keys"), 1);
        QCOMPARE(RawDatabase(fx.dbPath()).scalar("PRAGMA journal_mode"), "wal");
        store.reset(); // a destroyed store leaves no connection behind
        QVERIFY(!QSqlDatabase::contains(name));
    }

    void migrates_data()
    {
        QTest::addColumn<QString>("setup");
        const QString v1 = QLatin1String(kVersion1), v2 = v1 + QLatin1String(kVersion2);
        QTest::newRow("fresh data directory") << QString();
        QTest::newRow("version 1") << v1;
        QTest::newRow("version 2") << v2;
        QTest::newRow("version 2 with missing_since and hidden_at") << v2 + kTwoStep4Columns;
        QTest::newRow("version 3, treated like 2") << v2 + "PRAGMA user_version=3";
        QTest::newRow("version 4") << v2 + kTwoStep4Columns + kVersion4;
    }
    void migrates()
    {
        QFETCH(QString, setup);
        StoreFixture fx;
        const QString file = fx.path("nested/data/dir/local.db");
        if (!setup.isEmpty())
            QVERIFY(RawDatabase(file).exec(setup));
        {
            LocalStore store(fx.state(), file);
            store.open();
            const QJsonObject seed = store.getDocument("doc-1");
            QCOMPARE(fields(seed, "server_document_id cloud_state") + '|' +
                         fields(seed.value("current_version").toObject(), "size_bytes"),
                     setup.isEmpty() ? "~|~|~" : "srv-1|LOCAL|12");
        }
        RawDatabase raw(file);
        QCOMPARE(raw.userVersion(), 5);
        verifySchema(raw);
        // A column that was already there keeps its data.
        QCOMPARE(raw.scalar("SELECT missing_since FROM local_documents"),
                 QLatin1String(setup.contains("'kept'") ? "kept" : ""));
    }

    void deletingADocumentCascadesExceptArtifacts()
    {
        StoreFixture fx;
        auto store = fx.makeStore();
        const QString id = str(store->insertImportedDocument(fileNamed("a.pdf")), "id");
        store->insertJob({{"documentId", id}, {"type", "upload"}});
        store->enqueueMirrorItem({{"artifactId", "art-1"}, {"localDocumentId", id}});
        RawDatabase raw(fx.dbPath());
        QVERIFY(raw.exec(
            QStringLiteral(
                "INSERT INTO local_artifacts VALUES ('art-1', '/p', 'p', NULL, 'x', ?, 'n')"),
            {id}));
        // Foreign keys are a per-connection setting: delete through the store's own connection.
        QSqlQuery remove(QSqlDatabase::database(store->connectionName()));
        QVERIFY(remove.prepare("DELETE FROM local_documents WHERE id = ?"));
        remove.addBindValue(id);
        QVERIFY(remove.exec());
        for (const char* table : {"local_versions", "local_jobs", "mirror_queue"})
            QCOMPARE(raw.count(QLatin1String(table)), 0);
        QCOMPARE(raw.count("local_artifacts"), 1);
    }

    // Both threads write all the time; the busy timeout must absorb every collision.
    void twoStoresOnTwoThreadsDoNotLock()
    {
        StoreFixture fx;
        fx.makeStore()->open();
        QMutex mutex;
        QStringList errors;
        const auto worker = [&](const QString& tag) {
            try {
                LocalStore store(nullptr, fx.dbPath());
                for (int i = 0; i < 120; ++i) {
                    const QString name = tag + QString::number(i);
                    const QString id = str(store.insertImportedDocument(fileNamed(name)), "id");
                    store.enqueueMirrorItem({{"artifactId", name}, {"localDocumentId", id}});
                    store.updateMirrorItem(name, {{"status", "RUNNING"}});
                    store.insertJob({{"documentId", id}, {"type", "upload"}});
                    store.listDocuments({});
                }
            } catch (const VantroError& error) {
                const QMutexLocker lock(&mutex);
                errors << error.text();
            }
        };
        std::unique_ptr<QThread> a(QThread::create(worker, "a")), b(QThread::create(worker, "b"));
        a->start();
        b->start();
        QVERIFY(a->wait(120000) && b->wait(120000));
        QVERIFY2(errors.isEmpty(), qPrintable(errors.join('\n')));
        RawDatabase raw(fx.dbPath());
        QCOMPARE(raw.count("local_documents"), 240);
        QCOMPARE(raw.count("mirror_queue WHERE status = 'RUNNING'"), 240);
    }
};

QTEST_GUILESS_MAIN(StoreSchemaTest)
#include "tst_store_schema.moc"
