// local.db: connection options, schema and the migration ladder, concurrent connections.
#include "StoreTestSupport.h"

#include <QThread>

using namespace vantro;
using namespace storetest;

namespace {

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

QStringList items(const char* part)
{
    return QString::fromLatin1(part).split(", ", Qt::SkipEmptyParts);
}

// The table as an older release created it: its first `columns` columns, its foreign keys and
// the indexes over those columns; written from the notation above, not the store's scripts.
QString createTable(const TableShape& shape, int columns = -1)
{
    const QStringList kept = items(shape.columns).mid(0, columns);
    const QString names = ", " + kept.join(", ");
    QString sql = kept.join(", "), indexes;
    sql.replace(" NN", " NOT NULL").replace(" =", " DEFAULT ").replace(" PK", " PRIMARY KEY");
    for (const QString& key : items(shape.foreignKeys))
        sql += ", FOREIGN KEY(" + key.section('>', 0, 0) + ") REFERENCES " +
               key.section('>', 1).replace(") ", ") ON DELETE ");
    for (const QString& index : items(shape.indexes)) {
        const QString on = index.section('(', 1).chopped(1);
        if (!names.contains(", " + on.section(',', -1).section(' ', 0, 0) + ' '))
            continue; // over a column added later
        if (index.startsWith("UNIQUE"))
            sql += ", " + index;
        else
            indexes += QStringLiteral("CREATE INDEX %1 ON %2(%3);")
                           .arg(index.section('(', 0, 0), shape.name, on);
    }
    return QStringLiteral("CREATE TABLE %1 (%2);").arg(shape.name, sql) + indexes;
}

// The schema as read back from the file, in the notation above, prefixed with the table.
QStringList describe(const RawDatabase& raw, const QString& table)
{
    QStringList items;
    for (const char* sql :
         {"SELECT name || ' ' || type || IIF(\"notnull\", ' NN', '') || COALESCE(' =' || "
          "dflt_value, '') || IIF(pk, ' PK', '') FROM pragma_table_info(?) ORDER BY cid",
          "SELECT \"from\" || '>' || \"table\" || '(' || \"to\" || ') ' || on_delete FROM "
          "pragma_foreign_key_list(?)",
          "SELECT IIF(origin = 'u', 'UNIQUE', l.name) || '(' || (SELECT group_concat(name || "
          "IIF(\"desc\", ' DESC', ''), ',') FROM (SELECT * FROM pragma_index_xinfo(l.name) WHERE "
          "key ORDER BY seqno)) || ')' FROM pragma_index_list(?) l WHERE origin <> 'pk' ORDER BY "
          "1"})
        items += raw.run(QLatin1String(sql), {table});
    for (QString& item : items)
        item.prepend(table + ": ");
    return items;
}

} // namespace

class StoreSchemaTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // An old file: its first `tables` tables, local_documents cut to `columns` columns.
    void migrates_data()
    {
        QTest::addColumn<int>("tables");
        QTest::addColumn<int>("columns");
        QTest::addColumn<int>("version");
        QTest::newRow("fresh data directory") << 0 << 0 << 0;
        QTest::newRow("version 1") << 3 << 12 << 1;
        QTest::newRow("version 2") << 4 << 12 << 2;
        QTest::newRow("version 2 with missing_since and hidden_at") << 4 << 14 << 2;
        QTest::newRow("version 3, treated like 2") << 4 << 12 << 3;
        QTest::newRow("version 4") << 4 << 17 << 4;
    }
    void migrates()
    {
        QFETCH(int, tables);
        QFETCH(int, columns);
        QFETCH(int, version);
        StoreFixture fx;
        const QString file = fx.path("nested/data/dir/local.db");
        QString sql = QStringLiteral("PRAGMA user_version = %1;").arg(version);
        for (int i = 0; i < tables; ++i)
            sql += createTable(kSchema[i], i == 0 ? columns : -1);
        if (tables > 0)
            RawDatabase(file).run(
                sql +
                "INSERT INTO local_documents (id, title, original_name, status, source, "
                "local_state, current_version_id, server_document_id, created_at, "
                "updated_at) VALUES ('doc-1', 'S', 'S.pdf', 'UPLOADED', 'LOCAL_IMPORT', "
                "'SERVER_TRANSIENT', 'ver-1', 'srv-1', 'c', 'u'); INSERT INTO "
                "local_versions VALUES ('ver-1', 'doc-1', 'ORIGINAL', '/r/S.pdf', 'S.pdf', "
                "'abc', 12, 'application/pdf', NULL, 'c');" +
                (columns > 12 ? "UPDATE local_documents SET missing_since = 'kept'" : ""));
        {
            LocalStore store(fx.state(), file);
            store.open();
            const QJsonObject seed = store.getDocument("doc-1");
            QCOMPARE(fields(seed, "server_document_id cloud_state") + '|' +
                         fields(seed.value("current_version").toObject(), "size_bytes"),
                     tables ? "srv-1|LOCAL|12" : "~|~|~");
        }
        RawDatabase raw(file);
        QCOMPARE(raw.scalar("PRAGMA user_version"), "5");
        for (const TableShape& shape : kSchema) {
            QStringList expected;
            for (const char* part : {shape.columns, shape.foreignKeys, shape.indexes})
                for (const QString& item : items(part))
                    expected << QLatin1String(shape.name) + ": " + item;
            QCOMPARE(describe(raw, QLatin1String(shape.name)), expected);
        }
        // Nothing else: 7 tables and 10 indexes.
        QCOMPARE(raw.scalar("SELECT COUNT(*) FROM sqlite_master WHERE name NOT LIKE 'sqlite_%'"),
                 "17");
        // A column that was already there keeps its data.
        QCOMPARE(raw.scalar("SELECT missing_since FROM local_documents"),
                 columns > 12 ? "kept" : "");
    }

    // Also: the busy timeout as a connection option and in effect.
    void deletingADocumentCascadesExceptArtifacts()
    {
        StoreFixture fx;
        auto store = fx.makeStore();
        store->open();
        QSqlQuery query(QSqlDatabase::database(store->connectionName()));
        QVERIFY(query.exec("PRAGMA busy_timeout") && query.next());
        QCOMPARE(QSqlDatabase::database(store->connectionName()).connectOptions() + '|' +
                     query.value(0).toString(),
                 "QSQLITE_BUSY_TIMEOUT=5000|5000");
        const QString id = fields(store->insertImportedDocument(fileNamed("a.pdf")), "id");
        store->insertJob({{"documentId", id}, {"type", "upload"}});
        store->enqueueMirrorItem({{"artifactId", "art-1"}, {"localDocumentId", id}});
        RawDatabase raw(fx.dbPath());
        raw.run("INSERT INTO local_artifacts VALUES ('art-1', '/p', 'p', NULL, 'x', ?, 'n')", {id});
        // Foreign keys are a per-connection setting: delete through the store's own connection.
        QVERIFY(query.exec("DELETE FROM local_documents"));
        QCOMPARE(raw.scalar("SELECT (SELECT COUNT(*) FROM local_versions) + (SELECT COUNT(*) FROM "
                            "local_jobs) + (SELECT COUNT(*) FROM mirror_queue)"),
                 "0");
        QCOMPARE(raw.count("local_artifacts"), 1);
    }

    // Both threads write all the time; the busy timeout must absorb every collision.
    void twoStoresOnTwoThreadsDoNotLock()
    {
        StoreFixture fx;
        fx.makeStore()->open();
        QString errors[2];
        const auto worker = [&](int n) {
            try {
                LocalStore store(nullptr, fx.dbPath());
                for (int i = 0; i < 120; ++i) {
                    const QString name = QString::number(n) + '-' + QString::number(i);
                    const QString id = fields(store.insertImportedDocument(fileNamed(name)), "id");
                    store.enqueueMirrorItem({{"artifactId", name}, {"localDocumentId", id}});
                    store.updateMirrorItem(name, {{"status", "RUNNING"}});
                    store.listDocuments({});
                }
            } catch (const VantroError& error) {
                errors[n] = error.text();
            }
        };
        std::unique_ptr<QThread> a(QThread::create(worker, 0)), b(QThread::create(worker, 1));
        a->start();
        b->start();
        QVERIFY(a->wait(120000) && b->wait(120000));
        QCOMPARE(errors[0] + errors[1], QString());
        QCOMPARE(RawDatabase(fx.dbPath()).count("mirror_queue WHERE status = 'RUNNING'"), 240);
    }
};

QTEST_GUILESS_MAIN(StoreSchemaTest)
#include "tst_store_schema.moc"
