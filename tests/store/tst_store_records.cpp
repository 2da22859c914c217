// Documents, versions, jobs and mirror-queue rows as the bridge and the mirror see them.
#include "StoreTestSupport.h"

#include <QRegularExpression>

using namespace vantro;
using namespace storetest;

namespace {
const QJsonObject kUploaded{{"id", "S"}, {"latest_version", QJsonObject{{"id", "SV"}}}};
} // namespace

class StoreRecordsTest : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<StoreFixture> m_fx;
    std::unique_ptr<LocalStore> m_store;
    std::unique_ptr<RawDatabase> m_raw;

    QString importDocument(const QString& name)
    {
        return str(m_store->insertImportedDocument(fileNamed(name)), "id");
    }
    void sql(const QString& statement, const QVariantList& values = {})
    {
        QVERIFY(m_raw->exec(statement, values));
    }
    static QJsonObject current(const QJsonObject& document)
    {
        return document.value("current_version").toObject();
    }

private Q_SLOTS:
    void init()
    {
        m_fx = std::make_unique<StoreFixture>();
        m_store = m_fx->makeStore();
        m_store->open();
        m_raw = std::make_unique<RawDatabase>(m_fx->dbPath());
    }
    void cleanup()
    {
        m_raw.reset();
        m_store.reset();
        m_fx.reset();
    }

    void importedDocumentJson()
    {
        const QJsonObject document = m_store->insertImportedDocument(fileNamed("Sutartis.pdf"));
        QCOMPARE(fields(document, "status source local_state cloud_state original_name last_error "
                                  "server_document_id active_flow_id missing_since"),
                 "LOCAL|LOCAL_IMPORT|LOCAL_ONLY|LOCAL|Sutartis.pdf||~|~|~");
        QVERIFY(QRegularExpression("^\\d{4}-\\d\\d-\\d\\dT[\\d:]{8}\\.\\d{3}Z$")
                    .match(str(document, "created_at"))
                    .hasMatch());
        QCOMPARE(str(document, "updated_at"), str(document, "created_at"));
        QCOMPARE(fields(current(document), "id document_id kind size_bytes server_version_id"),
                 fields(document, "current_version_id id") + "|ORIGINAL|1234|~");
        QCOMPARE(QUuid(str(document, "id")).toString(QUuid::WithoutBraces), str(document, "id"));
        for (auto lookup :
             {&LocalStore::getDocument, &LocalStore::getDocumentByServerId,
              &LocalStore::getCurrentVersion, &LocalStore::getVersion, &LocalStore::getMirrorItem})
            QVERIFY((m_store.get()->*lookup)("nope").isEmpty());
    }

    // Optional columns holding NULL or '' never reach the JSON; an empty cloud_state reads LOCAL.
    void optionalKeys_data()
    {
        QTest::addColumn<QVariant>("stored");
        QTest::addColumn<QString>("expected");
        QTest::newRow("NULL") << QVariant(QMetaType::fromType<QString>()) << "~|~|~|~|~|~|LOCAL";
        QTest::newRow("empty") << QVariant(QString("")) << "~|~|~|~|~|~|LOCAL";
        QTest::newRow("set") << QVariant("x") << "x|x|x|x|x|x|x";
    }
    void optionalKeys()
    {
        QFETCH(QVariant, stored);
        const QString id = importDocument("a.pdf");
        sql(QStringLiteral("UPDATE local_documents SET server_document_id = ?, active_flow_id = ?, "
                           "missing_since = COALESCE(?, ''), hidden_at = COALESCE(?, ''), "
                           "purge_after = COALESCE(?, ''), purged_at = COALESCE(?, ''), "
                           "cloud_state = COALESCE(?, '')"),
            QVariantList(7, stored));
        const char* keys = "server_document_id active_flow_id missing_since hidden_at purge_after "
                           "purged_at cloud_state";
        QTEST(fields(m_store->getDocument(id), keys), "expected");
        QTEST(fields(m_store->listDocuments({{"includeHidden", true}})[0].toObject(), keys),
              "expected");
    }

    void placeholderHasNoCurrentVersionUntilMirrored()
    {
        const QJsonObject held = m_store->insertPlaceholderDocument("srv-9", {});
        const QString id = str(held, "id"), reserved = str(held, "current_version_id");
        QCOMPARE(
            fields(held, "title original_name status source local_state server_document_id "
                         "current_version"),
            "Sujungtas PDF|Sujungtas PDF.pdf|PROCESSING|SERVER_GENERATED|PENDING_MIRROR|srv-9|~");
        QVERIFY(!reserved.isEmpty() && m_store->listVersions(id).isEmpty());
        QCOMPARE(fields(m_store->listDocuments({})[0].toObject(), "id current_version"), id + "|~");
        m_store->addVersion({{"id", reserved}, {"documentId", id}, {"path", "/r/m.pdf"}});
        QCOMPARE(str(current(m_store->getDocument(id)), "id"), reserved);
        QCOMPARE(fields(m_store->insertPlaceholderDocument({}, "Rinkinys"),
                        "title original_name server_document_id"),
                 "Rinkinys|Rinkinys.pdf|~");
    }

    void addVersion_data()
    {
        QTest::addColumn<QString>("known");
        QTest::addColumn<QString>("passed");
        QTest::addColumn<QString>("expected");
        const auto row = [](const char* name, const char* known, const char* passed,
                            const char* expected) {
            QTest::newRow(name) << known << passed << expected;
        };
        row("known service id kept against another", "S1", "S2", "S1");
        row("unknown service id filled", "", "S2", "S2");
        row("nothing known, nothing passed", "", "", "~");
    }
    void addVersion()
    {
        QFETCH(QString, known);
        QFETCH(QString, passed);
        const QString id = importDocument("a.pdf"), other = importDocument("b.pdf");
        const QString original = str(m_store->getDocument(id), "current_version_id");
        // A later creation time for the original: versions are listed by created_at.
        sql("UPDATE local_versions SET created_at = '2999'");
        sql(QStringLiteral("UPDATE local_documents SET server_document_id = NULLIF(?, ''), "
                           "last_error = 'old', local_state = 'SERVER_TRANSIENT'"),
            {known});
        const QVariantMap add{
            {"id", "v2"},         {"documentId", id}, {"serverDocumentId", passed},
            {"path", "/r/a.pdf"}, {"sha256", "ff"},   {"sizeBytes", "2048"}};
        const QJsonObject version = m_store->addVersion(add);
        QCOMPARE(fields(version, "kind mime_type server_version_id path sha256 size_bytes"),
                 "SIGNED|application/pdf|v2|/r/a.pdf|ff|2048");
        const QJsonObject document = m_store->getDocument(id);
        QCOMPARE(fields(document, "current_version_id status local_state last_error"),
                 "v2|SIGNED|LOCAL_ONLY|");
        QTEST(fields(document, "server_document_id"), "expected");
        QCOMPARE(column(m_store->listVersions(id)), (QStringList{"v2", original}));
        QCOMPARE(str(m_store->getCurrentVersion(id), "id"), "v2");
        // Added again (a retried mirror): the file changes, owner, kind and creation stay.
        const QJsonObject again = m_store->addVersion(
            {{"id", "v2"}, {"documentId", other}, {"kind", "MERGED"}, {"path", "/two"}});
        QCOMPARE(fields(again, "path kind document_id created_at"),
                 "/two|SIGNED|" + id + "|" + str(version, "created_at"));
    }

    void failedWritesLeaveBothTablesUnchanged()
    {
        const QJsonObject before = m_store->insertImportedDocument(fileNamed("a.pdf"), "d", "v");
        QCOMPARE(fields(before, "id current_version_id"), "d|v");
        // A taken version id fails the pair as a whole.
        QVERIFY(
            !errorOf([&] { m_store->insertImportedDocument(fileNamed("b"), "e", "v"); }).isEmpty());
        QVERIFY(m_store->getDocument("e").isEmpty());
        sql(QStringLiteral("CREATE TRIGGER no_update BEFORE UPDATE ON local_documents BEGIN "
                           "SELECT RAISE(ABORT, 'blocked'); END"));
        QVERIFY(errorOf([&] {
                    m_store->addVersion({{"id", "v2"}, {"documentId", "d"}, {"path", "/p"}});
                }).contains("blocked"));
        QVERIFY(m_store->getVersion("v2").isEmpty());
        QVERIFY(errorOf([&] { m_store->markUploaded("v", kUploaded); }).contains("blocked"));
        QCOMPARE(fields(m_store->getVersion("v"), "server_version_id"), "~");
        QCOMPARE(m_store->getDocument("d"), before);
    }

    void uploadAndStatusTransitions()
    {
        const QString id = importDocument("a.pdf");
        const QString original = str(m_store->getDocument(id), "current_version_id");
        const auto state = [&] {
            return fields(m_store->getDocument(id), "status local_state last_error "
                                                    "server_document_id");
        };
        m_store->markUploadFailed(original, "NETWORK");
        QCOMPARE(state(), "FAILED|LOCAL_ONLY|NETWORK|~");
        // Numeric service ids are kept as text.
        m_store->markUploaded(original, {{"id", 77}, {"latest_version", QJsonObject{{"id", 78}}}});
        QCOMPARE(state(), "UPLOADED|SERVER_TRANSIENT||77");
        QCOMPARE(str(m_store->getVersion(original), "server_version_id"), "78");
        QCOMPARE(str(m_store->getDocumentByServerId("77"), "id"), id);
        QCOMPARE(str(m_store->setDocumentStatus(id, "ARCHIVED", "why"), "status"), "ARCHIVED");
        QCOMPARE(state(), "ARCHIVED|SERVER_TRANSIENT|why|77");
        QVERIFY(m_store->setDocumentStatus("nope", "X", {}).isEmpty());
        // Once superseded, the version still learns its service id but no document changes.
        m_store->addVersion({{"id", "v2"}, {"documentId", id}, {"path", "/p"}});
        const QJsonObject before = m_store->getDocument(id);
        m_store->markUploaded(original, kUploaded);
        m_store->markUploadFailed(original, "late");
        QCOMPARE(m_store->getDocument(id), before);
        QCOMPARE(str(m_store->getVersion(original), "server_version_id"), "SV");
    }

    void listDocuments_data()
    {
        QTest::addColumn<QVariantMap>("filter");
        QTest::addColumn<QString>("expected");
        const auto row = [](const char* name, const QVariantMap& filter, const char* titles) {
            QTest::newRow(name) << filter << QString::fromLatin1(titles);
        };
        // Sutartis LOCAL, Saskaita purged, Aktas MISSING, Prasymas UPLOADED as sutartis-kopija.
        row("default hides missing and purged", {}, "Sutartis Prasymas");
        row("status MISSING shows missing", {{"status", "MISSING"}}, "Aktas");
        row("status trimmed", {{"status", " MISSING "}}, "Aktas");
        row("includeHidden shows all", {{"includeHidden", true}},
            "Sutartis Saskaita Aktas Prasymas");
        row("includeHidden and status", {{"includeHidden", true}, {"status", "LOCAL"}},
            "Sutartis Saskaita");
        row("query on title or name, any case", {{"query", "Sut"}}, "Sutartis Prasymas");
        row("query trimmed", {{"query", "  AKT "}, {"includeHidden", true}}, "Aktas");
        row("blank query is no filter", {{"query", "   "}}, "Sutartis Prasymas");
        row("underscore is a wildcard", {{"query", "s_t"}}, "Sutartis Prasymas");
    }
    void listDocuments()
    {
        QFETCH(QVariantMap, filter);
        for (const char* name : {"Sutartis.pdf", "Saskaita.pdf", "Aktas.pdf", "Prasymas.pdf"})
            importDocument(QLatin1String(name));
        sql(QStringLiteral(
            "UPDATE local_documents SET updated_at = CASE title WHEN 'Sutartis' THEN "
            "'4' WHEN 'Saskaita' THEN '3' WHEN 'Aktas' THEN '2' ELSE '1' END, "
            "purged_at = IIF(title = 'Saskaita', 'p', ''), status = CASE title "
            "WHEN 'Aktas' THEN 'MISSING' WHEN 'Prasymas' THEN 'UPLOADED' ELSE "
            "status END, original_name = IIF(title = 'Prasymas', "
            "'sutartis-kopija.pdf', original_name)"));
        QTEST(column(m_store->listDocuments(filter), "title").join(' '), "expected");
    }

    // Ties on updated_at go by created_at; the batch-loaded versions go to their own document.
    void listOrderAndCurrentVersions()
    {
        const QString b = importDocument("b.pdf"), a = importDocument("a.pdf");
        const QString c = importDocument("c.pdf");
        m_store->addVersion({{"id", "signed-a"}, {"documentId", a}, {"path", "/p"}});
        sql(QStringLiteral("UPDATE local_documents SET updated_at = '2026', created_at = CASE id "
                           "WHEN ? THEN '3' WHEN ? THEN '1' ELSE '2' END, current_version_id = "
                           "IIF(id = ?, 'signed-a', current_version_id)"),
            {a, b, c});
        const QJsonArray list = m_store->listDocuments({});
        QCOMPARE(column(list, "title"), (QStringList{"a", "c", "b"}));
        QCOMPARE(fields(current(list[0].toObject()), "id document_id"), "signed-a|" + a);
        QCOMPARE(fields(list[1].toObject(), "current_version"), "~"); // names a's version
        QCOMPARE(fields(current(list[2].toObject()), "document_id kind"), b + "|ORIGINAL");
        QCOMPARE(fields(m_store->getDocument(c), "current_version"), "~");
    }

    void jobs()
    {
        const QString id = importDocument("a.pdf");
        const QJsonObject job = m_store->insertJob({{"documentId", id}, {"type", "pdf_merge"}});
        QCOMPARE(fields(job, "type status method error server_job_id server_document_id "
                             "result_version_id"),
                 "pdf_merge|QUEUED|||~|~|~");
        const QVariantMap insert{{"id", "job-2"},       {"documentId", id},
                                 {"type", "t"},         {"status", "RUNNING"},
                                 {"serverJobId", "sj"}, {"serverDocumentId", "sd"}};
        const QJsonObject given = m_store->insertJob(insert);
        QCOMPARE(fields(given, "id status server_job_id"), "job-2|RUNNING|sj");
        QTest::qWait(5); // the refreshed updated_at must be visibly later
        QJsonObject updated =
            m_store->updateJob("job-2", {{"status", "DONE"}, {"result_version_id", "rv"}});
        QCOMPARE(fields(updated, "status result_version_id server_job_id server_document_id"),
                 "DONE|rv|sj|sd");
        QVERIFY2(str(updated, "updated_at") > str(given, "updated_at"),
                 qPrintable(str(updated, "updated_at")));
        QCOMPARE(str(updated, "created_at"), str(given, "created_at"));
        updated = m_store->updateJob("job-2", {{"server_job_id", ""}, {"error", "E"}});
        QCOMPARE(fields(updated, "server_job_id error status"), "~|E|DONE");
        QCOMPARE(codeOf([&] { m_store->updateJob("nope", {}); }),
                 "VANTRO_SIGN_LOCAL_JOB_NOT_FOUND");
        sql("UPDATE local_jobs SET updated_at = IIF(id = 'job-2', '2000', '2001')");
        QCOMPARE(column(m_store->listJobs(id)), (QStringList{str(job, "id"), "job-2"}));
        QVERIFY(m_store->listJobs("other").isEmpty());
        // Without a document: the newest 500 of all jobs.
        sql(QStringLiteral("WITH RECURSIVE n(i) AS (SELECT 0 UNION ALL SELECT i + 1 FROM n WHERE i "
                           "< 509) INSERT INTO local_jobs (id, document_id, type, status, "
                           "created_at, updated_at) SELECT printf('j%03d', i), ?, 't', 'Q', 'c', "
                           "printf('2026-%03d', i) FROM n"),
            {id});
        const QStringList all = column(m_store->listJobs(QString()));
        QCOMPARE(all.size(), 500);
        QCOMPARE(all.first() + all.last(), "j509j010");
        QCOMPARE(m_store->listJobs(id).size(), 512);
    }

    void reEnqueue_data()
    {
        QTest::addColumn<QString>("status");
        QTest::addColumn<QString>("localVersion");
        QTest::addColumn<QString>("firstJob");
        QTest::addColumn<QString>(
            "expected"); // status|server_job_id|local_version_id, "" untouched
        const auto row = [](const char* name, const char* status, const char* localVersion,
                            const char* firstJob, const char* expected) {
            QTest::newRow(name) << status << localVersion << firstJob << expected;
        };
        row("failed goes back to queue", "FAILED", "", "job-1", "QUEUED|job-1|~");
        row("item with a local version is mirrored", "RUNNING", "lv", "job-1", "MIRRORED|job-1|lv");
        row("expired purged keeps its state", "EXPIRED_PURGED", "", "job-1",
            "EXPIRED_PURGED|job-1|~");
        row("missing server job is filled", "QUEUED", "", "", "QUEUED|job-2|~");
        row("acknowledged returned untouched", "ACKNOWLEDGED", "lv", "job-1", "");
    }
    void reEnqueue()
    {
        QFETCH(QString, status);
        QFETCH(QString, localVersion);
        QFETCH(QString, firstJob);
        QFETCH(QString, expected);
        const QString id = importDocument("a.pdf");
        QVariantMap item{{"artifactId", "art"}, {"localDocumentId", id}};
        if (!firstJob.isEmpty())
            item.insert("serverJobId", firstJob);
        const QJsonObject created = m_store->enqueueMirrorItem(item);
        QCOMPARE(fields(created, "id status output_kind document_status mime_type attempts "
                                 "local_version_id local_path mirrored_sha256"),
                 "art|QUEUED|SIGNED|SIGNED|application/pdf|0|~|~|~");
        const QVariantMap patch{{"status", status},
                                {"local_version_id", localVersion},
                                {"incrementAttempts", true},
                                {"last_error", "E"}};
        const QJsonObject before = m_store->updateMirrorItem("art", patch);
        QTest::qWait(5);
        item.insert(
            {{"downloadUrl", "https://new"}, {"serverJobId", "job-2"}, {"outputKind", "M"}});
        const QJsonObject again = m_store->enqueueMirrorItem(item);
        QCOMPARE(m_raw->count("mirror_queue"), 1);
        if (expected.isEmpty()) {
            QCOMPARE(again, before);
            return;
        }
        QCOMPARE(fields(again, "status server_job_id local_version_id"), expected);
        // Attempts and created_at survive, last_error is cleared.
        QCOMPARE(fields(again, "download_url output_kind last_error attempts created_at"),
                 "https://new|M||1|" + str(created, "created_at"));
        QVERIFY(str(again, "updated_at") > str(before, "updated_at"));
    }

    void updateMirrorItemAndQueueViews()
    {
        const QString id = importDocument("a.pdf");
        const QJsonObject queued = m_store->enqueueMirrorItem(
            {{"id", "q"}, {"artifactId", "art"}, {"localDocumentId", id}});
        QCOMPARE(m_store->getMirrorItem("art"), queued);
        QTest::qWait(5); // the refreshed updated_at must be visibly later
        QJsonObject item = m_store->updateMirrorItem(
            "q", {{"status", "MIRRORED"}, {"local_path", "/p"}, {"mirrored_sha256", "ab"}});
        QCOMPARE(fields(item, "status local_path mirrored_sha256 attempts"), "MIRRORED|/p|ab|0");
        QVERIFY2(str(item, "updated_at") > str(queued, "updated_at"),
                 qPrintable(str(item, "updated_at")));
        m_store->updateMirrorItem("q", {{"incrementAttempts", true}});
        item = m_store->updateMirrorItem("q", {{"incrementAttempts", true}});
        QCOMPARE(fields(item, "status local_path mirrored_sha256 attempts"), "MIRRORED|/p|ab|2");
        QCOMPARE(codeOf([&] { m_store->updateMirrorItem("nope", {}); }),
                 "VANTRO_SIGN_MIRROR_QUEUE_ITEM_NOT_FOUND");

        const QStringList statuses{"QUEUED",       "RUNNING",        "FAILED",
                                   "ACKNOWLEDGED", "EXPIRED_PURGED", "FAILED"};
        for (int i = 0; i < statuses.size(); ++i) {
            const QString artifact = QStringLiteral("a%1").arg(i);
            m_store->enqueueMirrorItem({{"artifactId", artifact}, {"localDocumentId", id}});
            m_store->updateMirrorItem(artifact, {{"status", statuses.at(i)}});
        }
        // Oldest first: creation order reversed against insertion order.
        sql(QStringLiteral(
            "UPDATE mirror_queue SET created_at = IIF(id = 'q', '0', 9 - substr(id, 2))"));
        QCOMPARE(column(m_store->listOpenMirrorItems()),
                 (QStringList{"q", "a5", "a2", "a1", "a0"}));
        QCOMPARE(m_store->mirrorCounts(), (QJsonObject{{"pending", 3}, {"failed", 2}}));
    }
};

QTEST_GUILESS_MAIN(StoreRecordsTest)
#include "tst_store_records.moc"
