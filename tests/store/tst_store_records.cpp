// Documents, versions, jobs and mirror-queue rows as the bridge and the mirror see them.
#include "StoreTestSupport.h"

using namespace vantro;
using namespace storetest;

class StoreRecordsTest : public QObject
{
    Q_OBJECT
    // Replaced whole for each test; the raw connection closes first, the directory goes last.
    struct Env
    {
        StoreFixture fx;
        std::unique_ptr<LocalStore> store = fx.makeStore();
        RawDatabase raw{fx.dbPath()};
    };
    std::unique_ptr<Env> m_env;
    LocalStore* m_store = nullptr;

    QString importDocument(const QString& name)
    {
        return fields(m_store->insertImportedDocument(fileNamed(name)), "id");
    }
    void sql(const QString& statement, const QVariantList& values = {})
    {
        m_env->raw.run(statement, values);
    }

private Q_SLOTS:
    void init()
    {
        m_env = std::make_unique<Env>();
        m_store = m_env->store.get();
    }

    // Optional columns holding '' never reach the JSON; an empty cloud_state reads LOCAL.
    void emptyOptionalValuesStayOutOfJson()
    {
        const QString id = importDocument("a.pdf");
        sql("UPDATE local_documents SET server_document_id = '', active_flow_id = '', "
            "cloud_state = ''");
        const char* keys = "server_document_id active_flow_id missing_since cloud_state";
        QCOMPARE(fields(m_store->getDocument(id), keys), "~|~|~|LOCAL");
        QCOMPARE(fields(m_store->listDocuments({})[0].toObject(), keys), "~|~|~|LOCAL");
    }

    void placeholderHasNoCurrentVersionUntilMirrored()
    {
        const QJsonObject held = m_store->insertPlaceholderDocument("srv-9", {});
        const QString id = fields(held, "id"), reserved = fields(held, "current_version_id");
        QCOMPARE(fields(held, "title status local_state server_document_id current_version"),
                 "Sujungtas PDF|PROCESSING|PENDING_MIRROR|srv-9|~");
        QVERIFY(!reserved.isEmpty() && m_store->listVersions(id).isEmpty());
        QCOMPARE(fields(m_store->listDocuments({})[0].toObject(), "id current_version"), id + "|~");
        m_store->addVersion({{"id", reserved}, {"documentId", id}, {"path", "/r/m.pdf"}});
        QCOMPARE(fields(m_store->getDocument(id)["current_version"].toObject(), "id"), reserved);
    }

    // Values are stored as the caller gave them: a blank title is a title, an absent version id
    // is the empty id, an empty service id is empty text rather than "unknown" (NULL).
    void valuesAsGiven()
    {
        const QJsonObject blank = m_store->insertPlaceholderDocument({}, "  ");
        QCOMPARE(fields(blank, "title original_name"), "  |  .pdf");
        const QString id = importDocument("a.pdf"); // no service id yet: NULL
        QCOMPARE(fields(m_store->addVersion({{"documentId", id}, {"serverDocumentId", ""}}),
                        "id server_version_id"),
                 "|~"); // the empty id, and no service version id to show
        QCOMPARE(m_env->raw.run("SELECT quote(server_document_id) FROM local_documents ORDER BY "
                                "title"),
                 (QStringList{"''", "''"}));
    }

    // A known service id is kept against another one; an unknown one is filled in.
    void addVersion()
    {
        const QString id = importDocument("a.pdf"), known = importDocument("b.pdf");
        const QString original = fields(m_store->getDocument(id), "current_version_id");
        // A later creation time for the original: versions are listed by created_at.
        sql("UPDATE local_versions SET created_at = '2999'");
        sql("UPDATE local_documents SET server_document_id = IIF(id = ?, 'S1', NULL), last_error "
            "= 'old', local_state = 'SERVER_TRANSIENT'",
            {known});
        for (const QString& d : {id, known})
            m_store->addVersion(
                {{"id", "v-" + d}, {"documentId", d}, {"serverDocumentId", "S2"}, {"path", "/p"}});
        QCOMPARE(fields(m_store->getVersion("v-" + id), "kind server_version_id"),
                 "SIGNED|v-" + id);
        const char* keys = "current_version_id status local_state last_error server_document_id";
        QCOMPARE(fields(m_store->getDocument(id), keys), "v-" + id + "|SIGNED|LOCAL_ONLY||S2");
        QCOMPARE(fields(m_store->getDocument(known), "server_document_id"), "S1");
        QCOMPARE(column(m_store->listVersions(id)), (QStringList{"v-" + id, original}));
    }

    // Once superseded, a version still learns its service id but its document stays.
    void markUploadedOfNonCurrentVersion()
    {
        const QString id = importDocument("a.pdf");
        const QString original = fields(m_store->getDocument(id), "current_version_id");
        const QJsonObject response{{"id", "S"}, {"latest_version", QJsonObject{{"id", "SV"}}}};
        sql("UPDATE local_documents SET last_error = 'NETWORK'");
        m_store->markUploaded(original, response);
        QCOMPARE(
            fields(m_store->getDocument(id), "status local_state last_error server_document_id"),
            "UPLOADED|SERVER_TRANSIENT||S");
        m_store->addVersion({{"id", "v2"}, {"documentId", id}, {"path", "/p"}});
        const QJsonObject before = m_store->getDocument(id);
        m_store->markUploaded(original,
                              {{"id", "T"}, {"latest_version", QJsonObject{{"id", "TV"}}}});
        m_store->markUploadFailed(original, "late");
        QCOMPARE(m_store->getDocument(id), before);
        QCOMPARE(fields(m_store->getVersion(original), "server_version_id"), "TV");
    }

    void listDocuments_data()
    {
        QTest::addColumn<QVariantMap>("filter");
        QTest::addColumn<QString>("expected");
        // Sutartis LOCAL, Saskaita purged, Aktas MISSING, Prasymas UPLOADED as sutartis-kopija;
        // Sutartis updated last, the others tied and created in reverse order.
        QTest::newRow("default hides missing and purged") << QVariantMap{} << "Sutartis Prasymas";
        QTest::newRow("status MISSING shows missing")
            << QVariantMap{{"status", "MISSING"}} << "Aktas";
        QTest::newRow("includeHidden shows all, ties by created_at")
            << QVariantMap{{"includeHidden", true}} << "Sutartis Saskaita Aktas Prasymas";
        QTest::newRow("query on title or name, trimmed, any case")
            << QVariantMap{{"query", " sUT "}} << "Sutartis Prasymas";
    }
    void listDocuments()
    {
        for (const char* name : {"Sutartis.pdf", "Saskaita.pdf", "Aktas.pdf", "Prasymas.pdf"})
            importDocument(QLatin1String(name));
        sql("UPDATE local_documents SET updated_at = IIF(title = 'Sutartis', '2', '1'), created_at "
            "= CASE title WHEN 'Saskaita' THEN '4' WHEN 'Aktas' THEN '3' WHEN 'Prasymas' THEN '2' "
            "ELSE '1' END, purged_at = IIF(title = 'Saskaita', 'p', ''), status = CASE title WHEN "
            "'Aktas' THEN 'MISSING' WHEN 'Prasymas' THEN 'UPLOADED' ELSE status END, original_name "
            "= IIF(title = 'Prasymas', 'sutartis-kopija.pdf', original_name)");
        QFETCH(QVariantMap, filter);
        QTEST(column(m_store->listDocuments(filter), "title").join(' '), "expected");
    }

    // Rows written within one clock tick: the newest import still comes first.
    void fullTiesListNewestFirst()
    {
        for (const char* name : {"Sutartis.pdf", "Saskaita.pdf", "Aktas.pdf"})
            importDocument(QLatin1String(name));
        sql("UPDATE local_documents SET updated_at = 't', created_at = 't'");
        QCOMPARE(column(m_store->listDocuments({}), "title").join(' '), "Aktas Saskaita Sutartis");
    }

    void jobs()
    {
        const QString id = importDocument("a.pdf");
        const QJsonObject job =
            m_store->insertJob({{"documentId", id}, {"type", "t"}, {"serverJobId", "sj"}});
        QTest::qWait(5); // the refreshed updated_at must be visibly later
        const QJsonObject updated = m_store->updateJob(fields(job, "id"), {{"status", "DONE"}});
        QCOMPARE(fields(updated, "status server_job_id created_at"),
                 "DONE|sj|" + fields(job, "created_at"));
        QVERIFY(fields(updated, "updated_at") > fields(job, "updated_at"));
        // Without a document: the newest 500 of all jobs.
        sql("WITH RECURSIVE n(i) AS (SELECT 0 UNION ALL SELECT i + 1 FROM n WHERE i < 509) INSERT "
            "INTO local_jobs (id, document_id, type, status, created_at, updated_at) SELECT "
            "printf('j%03d', i), ?, 't', 'Q', 'c', printf('3000-%03d', i) FROM n",
            {id});
        const QStringList all = column(m_store->listJobs(QString()));
        QCOMPARE(all.size(), 500);
        QCOMPARE(all.first() + all.last(), "j509j010");
        QCOMPARE(m_store->listJobs(id).size(), 511);
    }

    // Expected: status|local_version_id after enqueueing the artifact again, "" untouched.
    void reEnqueue_data()
    {
        QTest::addColumn<QString>("status");
        QTest::addColumn<QString>("localVersion");
        QTest::addColumn<QString>("expected");
        const auto row = [](const char* name, const char* status, const char* local,
                            const char* expected) {
            QTest::newRow(name) << QString(status) << QString(local) << QString(expected);
        };
        row("failed goes back to queue", "FAILED", "", "QUEUED|~");
        row("with a local version: mirrored", "RUNNING", "lv", "MIRRORED|lv");
        row("acknowledged returned untouched", "ACKNOWLEDGED", "lv", "");
    }
    void reEnqueue()
    {
        QFETCH(QString, status);
        QFETCH(QString, localVersion);
        QFETCH(QString, expected);
        QVariantMap item{{"artifactId", "art"}, {"localDocumentId", importDocument("a.pdf")}};
        const QJsonObject created = m_store->enqueueMirrorItem(item);
        const QJsonObject before =
            m_store->updateMirrorItem("art", {{"status", status},
                                              {"local_version_id", localVersion},
                                              {"incrementAttempts", true},
                                              {"last_error", "E"}});
        QTest::qWait(5);
        item.insert("downloadUrl", "https://new");
        const QJsonObject again = m_store->enqueueMirrorItem(item);
        QCOMPARE(m_env->raw.count("mirror_queue"), 1);
        if (expected.isEmpty()) {
            QCOMPARE(again, before);
            return;
        }
        QCOMPARE(fields(again, "status local_version_id"), expected);
        // Attempts and created_at survive, last_error is cleared, updated_at moves on.
        QCOMPARE(fields(again, "download_url last_error attempts created_at"),
                 "https://new||1|" + fields(created, "created_at"));
        QVERIFY(fields(again, "updated_at") > fields(before, "updated_at"));
    }
};

QTEST_GUILESS_MAIN(StoreRecordsTest)
#include "tst_store_records.moc"
