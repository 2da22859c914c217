// local.db: location, connection, schema and the migration ladder, concurrent connections.
#include "StoreTestSupport.h"

#include <QElapsedTimer>
#include <QMutex>
#include <QRegularExpression>
#include <QSemaphore>
#include <QStandardPaths>
#include <QThread>
#include <QtTest>

using namespace vantro;
using storetest::errorOf;
using storetest::RawDatabase;
using storetest::StoreFixture;

namespace {

// The schema as older releases left it, written independently of the store's own scripts.
const char kOldVersion1[] = R"(
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
  'LOCAL_IMPORT', 'SERVER_TRANSIENT', 'ver-1', 'srv-1', NULL, '', '2025-01-01T00:00:00.000Z',
  '2025-01-02T00:00:00.000Z');
INSERT INTO local_versions VALUES ('ver-1', 'doc-1', 'ORIGINAL', '/r/Sutartis.pdf',
  'Sutartis.pdf', 'abc', 12, 'application/pdf', NULL, '2025-01-01T00:00:00.000Z');
PRAGMA user_version = 1
)";

const char kOldVersion2[] = R"(
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
PRAGMA user_version = 2
)";

const char kAllVersion4Columns[] = R"(
ALTER TABLE local_documents ADD COLUMN missing_since TEXT NOT NULL DEFAULT '';
ALTER TABLE local_documents ADD COLUMN hidden_at TEXT NOT NULL DEFAULT '';
ALTER TABLE local_documents ADD COLUMN purge_after TEXT NOT NULL DEFAULT '';
ALTER TABLE local_documents ADD COLUMN purged_at TEXT NOT NULL DEFAULT '';
ALTER TABLE local_documents ADD COLUMN cloud_state TEXT NOT NULL DEFAULT 'LOCAL';
CREATE INDEX idx_local_documents_missing_purge ON local_documents(status, purge_after);
PRAGMA user_version = 4
)";

const QStringList kTables{"local_artifacts",       "local_documents", "local_file_handles",
                          "local_file_hash_cache", "local_jobs",      "local_versions",
                          "mirror_queue"};
const QStringList kIndexes{"idx_local_artifacts_document",   "idx_local_documents_missing_purge",
                           "idx_local_documents_status",     "idx_local_documents_updated",
                           "idx_local_file_handles_created", "idx_local_file_hash_cache_updated",
                           "idx_local_jobs_document",        "idx_local_versions_document",
                           "idx_mirror_queue_document",      "idx_mirror_queue_status"};
const QStringList kDocumentColumns{"id",
                                   "title",
                                   "original_name",
                                   "status",
                                   "source",
                                   "local_state",
                                   "current_version_id",
                                   "server_document_id",
                                   "active_flow_id",
                                   "last_error",
                                   "created_at",
                                   "updated_at",
                                   "missing_since",
                                   "hidden_at",
                                   "purge_after",
                                   "purged_at",
                                   "cloud_state"};

QString script(std::initializer_list<const char*> parts)
{
    QString text;
    for (const char* part : parts)
        text += QString::fromLatin1(part) + QLatin1Char(';');
    return text;
}

QSqlQuery storeQuery(const LocalStore& store, const QString& sql)
{
    QSqlQuery query(QSqlDatabase::database(store.connectionName()));
    if (!query.exec(sql))
        qWarning() << sql << query.lastError().text();
    query.next();
    return query;
}

QStringList storeConnections()
{
    return QSqlDatabase::connectionNames().filter(QStringLiteral("vantro-sign-app-local-store-"));
}

} // namespace

class StoreSchemaTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { QStandardPaths::setTestModeEnabled(true); }

    void defaultLocationIsTheDataDirectory()
    {
        const QString expected = QDir(AppState::dataDir()).filePath(QStringLiteral("local.db"));
        QCOMPARE(LocalStore::databasePath(), expected);
        QDir(AppState::dataDir()).removeRecursively();
        {
            LocalStore store(nullptr);
            QCOMPARE(store.databaseFile(), expected);
            QVERIFY(!QFileInfo::exists(expected));
            store.open();
            QVERIFY(QFileInfo::exists(expected));
        }
        QDir(AppState::dataDir()).removeRecursively();
    }

    void connectionIsNamedAndOpenedLazily()
    {
        StoreFixture fx;
        auto first = fx.makeStore();
        auto second = fx.makeStore();
        const QRegularExpression pattern(QStringLiteral(
            "^vantro-sign-app-local-store-[0-9a-f]{8}(-[0-9a-f]{4}){3}-[0-9a-f]{12}$"));
        QVERIFY2(pattern.match(first->connectionName()).hasMatch(),
                 qPrintable(first->connectionName()));
        QVERIFY(first->connectionName() != second->connectionName());
        QVERIFY(!QFileInfo::exists(fx.dbPath()));
        QVERIFY(!QSqlDatabase::contains(first->connectionName()));
        first->open();
        QVERIFY(QFileInfo::exists(fx.dbPath()));
    }

    void connectionIsTuned()
    {
        StoreFixture fx;
        auto store = fx.makeStore();
        store->open();
        QCOMPARE(storeQuery(*store, QStringLiteral("PRAGMA busy_timeout")).value(0).toInt(), 5000);
        QCOMPARE(storeQuery(*store, QStringLiteral("PRAGMA foreign_keys")).value(0).toInt(), 1);
        QCOMPARE(storeQuery(*store, QStringLiteral("PRAGMA journal_mode")).value(0).toString(),
                 QStringLiteral("wal"));
    }

    void destroyedStoresLeaveNoConnection()
    {
        StoreFixture fx;
        const QStringList before = storeConnections();
        for (int i = 0; i < 300; ++i) {
            LocalStore store(fx.state(), fx.dbPath());
            QCOMPARE(store.mirrorCounts().value(QStringLiteral("pending")).toInt(), 0);
        }
        QCOMPARE(storeConnections(), before);
    }

    void migrates_data()
    {
        QTest::addColumn<QString>("setup");
        QTest::addColumn<bool>("hasSeedRow");

        QTest::newRow("fresh data directory") << QString() << false;
        QTest::newRow("version 1") << script({kOldVersion1}) << true;
        QTest::newRow("version 2") << script({kOldVersion1, kOldVersion2}) << true;
        QTest::newRow("version 2 with missing_since and hidden_at")
            << script({kOldVersion1, kOldVersion2,
                       "ALTER TABLE local_documents ADD COLUMN missing_since TEXT NOT NULL "
                       "DEFAULT ''",
                       "ALTER TABLE local_documents ADD COLUMN hidden_at TEXT NOT NULL DEFAULT ''",
                       "UPDATE local_documents SET missing_since = 'kept'"})
            << true;
        QTest::newRow("version 3 (never written, treated like 2)")
            << script({kOldVersion1, kOldVersion2, "PRAGMA user_version = 3"}) << true;
        QTest::newRow("version 4")
            << script({kOldVersion1, kOldVersion2, kAllVersion4Columns}) << true;
    }
    void migrates()
    {
        QFETCH(QString, setup);
        QFETCH(bool, hasSeedRow);
        StoreFixture fx;
        const QString file = fx.path(QStringLiteral("nested/data/dir/local.db"));
        if (!setup.isEmpty()) {
            RawDatabase raw(file);
            QVERIFY(raw.exec(setup));
        }
        {
            LocalStore store(fx.state(), file);
            store.open();
            if (hasSeedRow) {
                const QJsonObject document = store.getDocument(QStringLiteral("doc-1"));
                QCOMPARE(document.value(QStringLiteral("server_document_id")).toString(),
                         QStringLiteral("srv-1"));
                QCOMPARE(document.value(QStringLiteral("cloud_state")).toString(),
                         QStringLiteral("LOCAL"));
                QCOMPARE(document.value(QStringLiteral("current_version"))
                             .toObject()
                             .value(QStringLiteral("size_bytes")),
                         QJsonValue(12));
            }
        }
        RawDatabase raw(file);
        QCOMPARE(raw.userVersion(), 5);
        QCOMPARE(raw.objects("table"), kTables);
        QCOMPARE(raw.objects("index"), kIndexes);
        QCOMPARE(raw.columnsOf(QStringLiteral("local_documents")), kDocumentColumns);
        if (setup.contains(QLatin1String("'kept'"))) {
            QCOMPARE(raw.scalar(QStringLiteral("SELECT missing_since FROM local_documents")),
                     QVariant(QStringLiteral("kept")));
        }
    }

    void existingStepFourColumnsAreNotAddedAgain()
    {
        // Earlier run stopped after adding two of the five columns, in another order.
        StoreFixture fx;
        {
            RawDatabase raw(fx.dbPath());
            QVERIFY(raw.exec(script(
                {kOldVersion1, kOldVersion2,
                 "ALTER TABLE local_documents ADD COLUMN cloud_state TEXT NOT NULL DEFAULT 'X'",
                 "ALTER TABLE local_documents ADD COLUMN hidden_at TEXT NOT NULL DEFAULT ''"})));
        }
        fx.makeStore()->open();
        RawDatabase raw(fx.dbPath());
        const QStringList columns = raw.columnsOf(QStringLiteral("local_documents"));
        QCOMPARE(columns.size(), kDocumentColumns.size());
        QCOMPARE(columns.mid(12), (QStringList{"cloud_state", "hidden_at", "missing_since",
                                               "purge_after", "purged_at"}));
        QCOMPARE(raw.scalar(QStringLiteral("SELECT cloud_state FROM local_documents")),
                 QVariant(QStringLiteral("X")));
    }

    void higherVersionIsOpenedAsIs()
    {
        StoreFixture fx;
        {
            RawDatabase raw(fx.dbPath());
            QVERIFY(raw.exec(QStringLiteral("PRAGMA user_version = 9")));
        }
        auto store = fx.makeStore();
        store->open();
        QVERIFY(
            errorOf([&] { store->listDocuments({}); }).contains(QLatin1String("no such table")));
        RawDatabase raw(fx.dbPath());
        QCOMPARE(raw.userVersion(), 9);
        QVERIFY(raw.objects("table").isEmpty());
    }

    void failedStepKeepsLastVersionAndIsRetried()
    {
        StoreFixture fx;
        RawDatabase raw(fx.dbPath());
        // A view where the version-5 step wants a table: the index on it cannot be created.
        QVERIFY(raw.exec(script({kOldVersion1, kOldVersion2,
                                 "CREATE VIEW local_file_handles AS SELECT 1 AS id, '' AS path, "
                                 "'' AS created_at"})));
        auto store = fx.makeStore();
        QVERIFY(errorOf([&] {
                    store->mirrorCounts();
                }).contains(QLatin1String("views may not be indexed")));
        QCOMPARE(raw.userVersion(), 4);
        QCOMPARE(raw.columnsOf(QStringLiteral("local_documents")), kDocumentColumns);

        QVERIFY(raw.exec(QStringLiteral("DROP VIEW local_file_handles")));
        QCOMPARE(store->mirrorCounts().value(QStringLiteral("failed")).toInt(), 0);
        QCOMPARE(raw.userVersion(), 5);
        QCOMPARE(raw.objects("table"), kTables);
    }

    void deletingADocumentCascadesExceptArtifacts()
    {
        StoreFixture fx;
        auto store = fx.makeStore();
        LocalFileDescriptor file;
        file.path = fx.root() + QStringLiteral("/a.pdf");
        file.relativePath = QStringLiteral("a.pdf");
        file.name = QStringLiteral("a.pdf");
        file.title = QStringLiteral("a");
        file.size = 3;
        file.sha256 = QString(64, QLatin1Char('0'));
        file.mimeType = QStringLiteral("application/pdf");
        const QString documentId =
            store->insertImportedDocument(file).value(QStringLiteral("id")).toString();
        store->insertJob({{"documentId", documentId}, {"type", "upload"}});
        store->enqueueMirrorItem({{"artifactId", "art-1"}, {"localDocumentId", documentId}});
        RawDatabase raw(fx.dbPath());
        QVERIFY(raw.exec(QStringLiteral("INSERT INTO local_artifacts VALUES ('art-1', '/p', 'p', "
                                        "NULL, 'other', ?, 'now')"),
                         {documentId}));

        // Foreign keys are a per-connection setting: delete through the store's own connection.
        QSqlQuery remove(QSqlDatabase::database(store->connectionName()));
        QVERIFY(remove.prepare(QStringLiteral("DELETE FROM local_documents WHERE id = ?")));
        remove.addBindValue(documentId);
        QVERIFY(remove.exec());

        for (const char* table : {"local_versions", "local_jobs", "mirror_queue"})
            QCOMPARE(raw.scalar(QStringLiteral("SELECT COUNT(*) FROM %1").arg(QLatin1String(table)))
                         .toInt(),
                     0);
        QCOMPARE(raw.scalar(QStringLiteral("SELECT COUNT(*) FROM local_artifacts")).toInt(), 1);
    }

    void twoStoresOnTwoThreadsDoNotLock()
    {
        StoreFixture fx;
        fx.makeStore()->open();
        constexpr int kRounds = 120;
        QMutex mutex;
        QStringList errors;
        const auto worker = [&](const QString& tag) {
            try {
                LocalStore store(nullptr, fx.dbPath());
                for (int i = 0; i < kRounds; ++i) {
                    LocalFileDescriptor file;
                    file.path = QStringLiteral("/r/%1-%2.pdf").arg(tag).arg(i);
                    file.relativePath = file.name = QStringLiteral("%1-%2.pdf").arg(tag).arg(i);
                    file.sha256 = QString(64, QLatin1Char('a'));
                    const QString id =
                        store.insertImportedDocument(file).value(QStringLiteral("id")).toString();
                    const QString artifact = tag + QString::number(i);
                    store.enqueueMirrorItem({{"artifactId", artifact}, {"localDocumentId", id}});
                    store.updateMirrorItem(artifact, {{"status", "RUNNING"}});
                    store.insertJob({{"documentId", id}, {"type", "upload"}});
                    store.listDocuments({});
                }
            } catch (const VantroError& error) {
                QMutexLocker lock(&mutex);
                errors << error.text();
            }
        };
        std::unique_ptr<QThread> a(QThread::create(worker, QStringLiteral("a")));
        std::unique_ptr<QThread> b(QThread::create(worker, QStringLiteral("b")));
        a->start();
        b->start();
        QVERIFY(a->wait(120000));
        QVERIFY(b->wait(120000));
        QVERIFY2(errors.isEmpty(), qPrintable(errors.join(QLatin1Char('\n'))));
        RawDatabase raw(fx.dbPath());
        QCOMPARE(raw.scalar(QStringLiteral("SELECT COUNT(*) FROM local_documents")).toInt(),
                 2 * kRounds);
        QCOMPARE(raw.scalar(QStringLiteral("SELECT COUNT(*) FROM mirror_queue WHERE status = "
                                           "'RUNNING'"))
                     .toInt(),
                 2 * kRounds);
    }

    void writerWaitsForAnotherConnectionsTransaction()
    {
        StoreFixture fx;
        auto store = fx.makeStore();
        const QString documentId = store->insertPlaceholderDocument(QString(), QString())
                                       .value(QStringLiteral("id"))
                                       .toString();
        QSemaphore locked;
        QSemaphore release;
        std::unique_ptr<QThread> holder(QThread::create([&] {
            RawDatabase raw(fx.dbPath());
            raw.exec(QStringLiteral("BEGIN IMMEDIATE"));
            locked.release();
            release.tryAcquire(1, 10000);
            QThread::msleep(300);
            raw.exec(QStringLiteral("COMMIT"));
        }));
        holder->start();
        QVERIFY(locked.tryAcquire(1, 10000));
        release.release();
        QElapsedTimer timer;
        timer.start();
        const QJsonObject item =
            store->enqueueMirrorItem({{"artifactId", "art"}, {"localDocumentId", documentId}});
        QVERIFY(timer.elapsed() >= 250);
        QCOMPARE(item.value(QStringLiteral("status")).toString(), QStringLiteral("QUEUED"));
        QVERIFY(holder->wait(10000));
    }
};

QTEST_GUILESS_MAIN(StoreSchemaTest)
#include "tst_store_schema.moc"
