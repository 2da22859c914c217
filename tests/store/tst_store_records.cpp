// Documents, versions, jobs and mirror-queue rows as the bridge and the mirror see them.
#include "StoreTestSupport.h"

#include <QRegularExpression>
#include <QtTest>

using namespace vantro;
using storetest::codeOf;
using storetest::errorOf;
using storetest::RawDatabase;
using storetest::StoreFixture;

namespace {

LocalFileDescriptor fileNamed(const QString& name)
{
    LocalFileDescriptor file;
    file.path = QStringLiteral("/root/") + name;
    file.relativePath = name;
    file.name = name;
    file.title = name.section(QLatin1Char('.'), 0, 0);
    file.size = 1234;
    file.sha256 = QString(64, QLatin1Char('c'));
    file.mimeType = QStringLiteral("application/pdf");
    return file;
}

QString str(const QJsonObject& object, const char* key)
{
    return object.value(QLatin1String(key)).toString();
}

QStringList titles(const QJsonArray& documents)
{
    QStringList result;
    for (const QJsonValue& document : documents)
        result << document.toObject().value(QStringLiteral("title")).toString();
    return result;
}

bool isIsoUtcMs(const QString& text)
{
    static const QRegularExpression pattern(
        QStringLiteral("^\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{3}Z$"));
    return pattern.match(text).hasMatch();
}

} // namespace

class StoreRecordsTest : public QObject
{
    Q_OBJECT

private:
    StoreFixture* m_fx = nullptr;
    std::unique_ptr<LocalStore> m_store;
    std::unique_ptr<RawDatabase> m_raw;

    QString importDocument(const QString& name)
    {
        return str(m_store->insertImportedDocument(fileNamed(name)), "id");
    }

private Q_SLOTS:
    void init()
    {
        m_fx = new StoreFixture;
        m_store = m_fx->makeStore();
        m_store->open();
        m_raw = std::make_unique<RawDatabase>(m_fx->dbPath());
    }
    void cleanup()
    {
        m_raw.reset();
        m_store.reset();
        delete m_fx;
    }

    void importedDocumentJson()
    {
        const QJsonObject document = m_store->insertImportedDocument(fileNamed("Sutartis.pdf"));
        const QJsonObject version = document.value(QStringLiteral("current_version")).toObject();
        QCOMPARE(str(document, "status"), QStringLiteral("LOCAL"));
        QCOMPARE(str(document, "source"), QStringLiteral("LOCAL_IMPORT"));
        QCOMPARE(str(document, "local_state"), QStringLiteral("LOCAL_ONLY"));
        QCOMPARE(str(document, "title"), QStringLiteral("Sutartis"));
        QCOMPARE(str(document, "original_name"), QStringLiteral("Sutartis.pdf"));
        QCOMPARE(str(document, "cloud_state"), QStringLiteral("LOCAL"));
        QCOMPARE(document.value(QStringLiteral("last_error")), QJsonValue(QString()));
        for (const char* absent : {"server_document_id", "active_flow_id", "missing_since",
                                   "hidden_at", "purge_after", "purged_at"})
            QVERIFY2(!document.contains(QLatin1String(absent)), absent);
        QVERIFY(isIsoUtcMs(str(document, "created_at")));
        QCOMPARE(str(document, "updated_at"), str(document, "created_at"));
        QCOMPARE(str(version, "id"), str(document, "current_version_id"));
        QCOMPARE(str(version, "kind"), QStringLiteral("ORIGINAL"));
        QCOMPARE(str(version, "document_id"), str(document, "id"));
        QCOMPARE(version.value(QStringLiteral("size_bytes")), QJsonValue(1234));
        QVERIFY(!version.contains(QStringLiteral("server_version_id")));
        QCOMPARE(QUuid::fromString(str(document, "id")).isNull(), false);
        QVERIFY(!str(document, "id").startsWith(QLatin1Char('{')));
    }

    void insertImportedDocumentUsesGivenIds()
    {
        const QJsonObject document = m_store->insertImportedDocument(
            fileNamed("a.pdf"), QStringLiteral("d"), QStringLiteral("v"));
        QCOMPARE(str(document, "id"), QStringLiteral("d"));
        QCOMPARE(str(document.value(QStringLiteral("current_version")).toObject(), "id"),
                 QStringLiteral("v"));
        // The same ids again: the second pair fails as a whole.
        QVERIFY(!errorOf([&] {
                     m_store->insertImportedDocument(fileNamed("b.pdf"), QStringLiteral("e"),
                                                     QStringLiteral("v"));
                 }).isEmpty());
        QVERIFY(m_store->getDocument(QStringLiteral("e")).isEmpty());
    }

    void optionalKeysLeftOut_data()
    {
        QTest::addColumn<QString>("column");
        QTest::addColumn<QVariant>("stored");
        QTest::addColumn<bool>("present");

        const QVariant null(QMetaType::fromType<QString>());
        for (const char* column : {"server_document_id", "active_flow_id"}) {
            QTest::addRow("%s NULL", column) << column << null << false;
            QTest::addRow("%s empty", column) << column << QVariant(QStringLiteral("")) << false;
            QTest::addRow("%s set", column) << column << QVariant("x") << true;
        }
        for (const char* column : {"missing_since", "hidden_at", "purge_after", "purged_at"}) {
            QTest::addRow("%s empty", column) << column << QVariant(QStringLiteral("")) << false;
            QTest::addRow("%s set", column)
                << column << QVariant("2026-01-01T00:00:00.000Z") << true;
        }
    }
    void optionalKeysLeftOut()
    {
        QFETCH(QString, column);
        QFETCH(QVariant, stored);
        QFETCH(bool, present);
        const QString id = importDocument("a.pdf");
        QVERIFY(
            m_raw->exec(QStringLiteral("UPDATE local_documents SET %1 = ?").arg(column), {stored}));
        const QJsonObject document = m_store->getDocument(id);
        QCOMPARE(document.contains(column), present);
        if (present)
            QCOMPARE(document.value(column).toVariant(), stored);
        QCOMPARE(titles(m_store->listDocuments({{"includeHidden", true}})).size(), 1);
        QCOMPARE(
            m_store->listDocuments({{"includeHidden", true}}).at(0).toObject().contains(column),
            present);
    }

    void emptyCloudStateReadsLocal()
    {
        const QString id = importDocument("a.pdf");
        QVERIFY(m_raw->exec(QStringLiteral("UPDATE local_documents SET cloud_state = ''")));
        QCOMPARE(str(m_store->getDocument(id), "cloud_state"), QStringLiteral("LOCAL"));
        QVERIFY(
            m_raw->exec(QStringLiteral("UPDATE local_documents SET cloud_state = 'CLOUD_ONLY'")));
        QCOMPARE(str(m_store->getDocument(id), "cloud_state"), QStringLiteral("CLOUD_ONLY"));
    }

    void lookupsWithoutRowAnswerEmpty()
    {
        QVERIFY(m_store->getDocument(QStringLiteral("nope")).isEmpty());
        QVERIFY(m_store->getDocumentByServerId(QStringLiteral("nope")).isEmpty());
        QVERIFY(m_store->getCurrentVersion(QStringLiteral("nope")).isEmpty());
        QVERIFY(m_store->getVersion(QStringLiteral("nope")).isEmpty());
        QVERIFY(m_store->listVersions(QStringLiteral("nope")).isEmpty());
        QVERIFY(m_store->getMirrorItem(QStringLiteral("nope")).isEmpty());
    }

    void documentByServerIdTakesNewest()
    {
        const QString older = importDocument("old.pdf");
        const QString newer = importDocument("new.pdf");
        QVERIFY(m_raw->exec(QStringLiteral("UPDATE local_documents SET server_document_id = 'S', "
                                           "updated_at = CASE id WHEN ? THEN '2026-01-02' ELSE "
                                           "'2026-01-01' END"),
                            {newer}));
        QCOMPARE(str(m_store->getDocumentByServerId(QStringLiteral("S")), "id"), newer);
        QVERIFY(m_raw->exec(QStringLiteral("UPDATE local_documents SET updated_at = '2026-01-03' "
                                           "WHERE id = ?"),
                            {older}));
        QCOMPARE(str(m_store->getDocumentByServerId(QStringLiteral("S")), "id"), older);
    }

    void placeholderHasNoCurrentVersionUntilMirrored()
    {
        const QJsonObject placeholder =
            m_store->insertPlaceholderDocument(QStringLiteral("srv-9"), QString());
        QCOMPARE(str(placeholder, "title"), QStringLiteral("Sujungtas PDF"));
        QCOMPARE(str(placeholder, "original_name"), QStringLiteral("Sujungtas PDF.pdf"));
        QCOMPARE(str(placeholder, "status"), QStringLiteral("PROCESSING"));
        QCOMPARE(str(placeholder, "source"), QStringLiteral("SERVER_GENERATED"));
        QCOMPARE(str(placeholder, "local_state"), QStringLiteral("PENDING_MIRROR"));
        QCOMPARE(str(placeholder, "server_document_id"), QStringLiteral("srv-9"));
        QVERIFY(!placeholder.contains(QStringLiteral("current_version")));
        const QString reserved = str(placeholder, "current_version_id");
        QVERIFY(!reserved.isEmpty());
        QVERIFY(m_store->listVersions(str(placeholder, "id")).isEmpty());
        QVERIFY(!m_store->listDocuments({}).at(0).toObject().contains(
            QStringLiteral("current_version")));

        const QJsonObject version = m_store->addVersion({{"id", reserved},
                                                         {"documentId", str(placeholder, "id")},
                                                         {"path", "/r/m.pdf"},
                                                         {"relativePath", "Apdorota/m.pdf"},
                                                         {"sha256", "ab"},
                                                         {"sizeBytes", 10}});
        QCOMPARE(str(version, "id"), reserved);
        const QJsonObject mirrored = m_store->getDocument(str(placeholder, "id"));
        QCOMPARE(str(mirrored.value(QStringLiteral("current_version")).toObject(), "id"), reserved);
        QCOMPARE(str(mirrored, "status"), QStringLiteral("SIGNED"));
        QCOMPARE(str(mirrored, "local_state"), QStringLiteral("LOCAL_ONLY"));

        QCOMPARE(str(m_store->insertPlaceholderDocument(QString(), QStringLiteral("Rinkinys")),
                     "original_name"),
                 QStringLiteral("Rinkinys.pdf"));
    }

    void addVersion_data()
    {
        QTest::addColumn<QString>("knownServerId");
        QTest::addColumn<QString>("passedServerId");
        QTest::addColumn<QString>("expectedServerId");

        QTest::newRow("known id kept against another") << "S1"
                                                       << "S2"
                                                       << "S1";
        QTest::newRow("unknown id filled") << ""
                                           << "S2"
                                           << "S2";
        QTest::newRow("nothing known, nothing passed") << ""
                                                       << ""
                                                       << "";
    }
    void addVersion()
    {
        QFETCH(QString, knownServerId);
        QFETCH(QString, passedServerId);
        QFETCH(QString, expectedServerId);
        const QString id = importDocument("a.pdf");
        if (!knownServerId.isEmpty())
            QVERIFY(m_raw->exec(QStringLiteral("UPDATE local_documents SET server_document_id = ?, "
                                               "last_error = 'old'"),
                                {knownServerId}));
        const QJsonObject version = m_store->addVersion({{"id", "v2"},
                                                         {"documentId", id},
                                                         {"serverDocumentId", passedServerId},
                                                         {"path", "/r/Pasirasyta/a.pdf"},
                                                         {"relativePath", "Pasirasyta/a.pdf"},
                                                         {"sha256", "ff"},
                                                         {"sizeBytes", "2048"}});
        QCOMPARE(str(version, "kind"), QStringLiteral("SIGNED"));
        QCOMPARE(str(version, "mime_type"), QStringLiteral("application/pdf"));
        QCOMPARE(str(version, "server_version_id"), QStringLiteral("v2"));
        QCOMPARE(version.value(QStringLiteral("size_bytes")), QJsonValue(2048));
        const QJsonObject document = m_store->getDocument(id);
        QCOMPARE(str(document, "current_version_id"), QStringLiteral("v2"));
        QCOMPARE(str(document, "status"), QStringLiteral("SIGNED"));
        QCOMPARE(str(document, "last_error"), QString());
        QCOMPARE(document.contains(QStringLiteral("server_document_id")),
                 !expectedServerId.isEmpty());
        QCOMPARE(str(document, "server_document_id"), expectedServerId);
        QCOMPARE(m_store->listVersions(id).size(), 2);
    }

    void addVersionUpsertKeepsOwnerKindAndCreation()
    {
        const QString id = importDocument("a.pdf");
        const QJsonObject first = m_store->addVersion({{"id", "v2"},
                                                       {"documentId", id},
                                                       {"kind", "MERGED"},
                                                       {"path", "/one"},
                                                       {"serverVersionId", "sv1"},
                                                       {"status", "DONE"},
                                                       {"mimeType", "text/plain"}});
        QCOMPARE(str(m_store->getDocument(id), "status"), QStringLiteral("DONE"));
        const QString other = importDocument("b.pdf");
        const QJsonObject second = m_store->addVersion({{"id", "v2"},
                                                        {"documentId", other},
                                                        {"kind", "SIGNED"},
                                                        {"path", "/two"},
                                                        {"sha256", "ee"}});
        QCOMPARE(str(second, "path"), QStringLiteral("/two"));
        QCOMPARE(str(second, "sha256"), QStringLiteral("ee"));
        QCOMPARE(str(second, "server_version_id"), QStringLiteral("v2"));
        QCOMPARE(str(second, "mime_type"), QStringLiteral("application/pdf"));
        QCOMPARE(str(second, "kind"), QStringLiteral("MERGED"));
        QCOMPARE(str(second, "document_id"), id);
        QCOMPARE(str(second, "created_at"), str(first, "created_at"));
    }

    void failedWritesLeaveBothTablesUnchanged()
    {
        const QString id = importDocument("a.pdf");
        const QJsonObject before = m_store->getDocument(id);
        const QString currentVersion = str(before, "current_version_id");
        QVERIFY(
            m_raw->statement(QStringLiteral("CREATE TRIGGER no_update BEFORE UPDATE ON "
                                            "local_documents BEGIN SELECT RAISE(ABORT, 'blocked'); "
                                            "END")));
        QVERIFY(errorOf([&] {
                    m_store->addVersion({{"id", "v2"}, {"documentId", id}, {"path", "/p"}});
                }).contains(QLatin1String("blocked")));
        QVERIFY(m_store->getVersion(QStringLiteral("v2")).isEmpty());

        QVERIFY(errorOf([&] {
                    m_store->markUploaded(
                        currentVersion,
                        {{"id", "S"}, {"latest_version", QJsonObject{{"id", "SV"}}}});
                }).contains(QLatin1String("blocked")));
        QVERIFY(!m_store->getVersion(currentVersion).contains(QStringLiteral("server_version_id")));
        QCOMPARE(m_store->getDocument(id), before);

        QVERIFY(!errorOf([&] {
                     m_store->addVersion({{"id", "v3"}, {"documentId", "missing"}});
                 }).isEmpty());
        QVERIFY(m_store->getVersion(QStringLiteral("v3")).isEmpty());
    }

    void markUploaded()
    {
        const QString id = importDocument("a.pdf");
        const QString original = str(m_store->getDocument(id), "current_version_id");
        m_store->markUploadFailed(original, QStringLiteral("NETWORK"));
        QJsonObject document = m_store->getDocument(id);
        QCOMPARE(str(document, "status"), QStringLiteral("FAILED"));
        QCOMPARE(str(document, "local_state"), QStringLiteral("LOCAL_ONLY"));
        QCOMPARE(str(document, "last_error"), QStringLiteral("NETWORK"));

        // Numeric service ids are kept as text.
        m_store->markUploaded(original, {{"id", 77}, {"latest_version", QJsonObject{{"id", 78}}}});
        document = m_store->getDocument(id);
        QCOMPARE(str(document, "status"), QStringLiteral("UPLOADED"));
        QCOMPARE(str(document, "local_state"), QStringLiteral("SERVER_TRANSIENT"));
        QCOMPARE(str(document, "server_document_id"), QStringLiteral("77"));
        QCOMPARE(str(document, "last_error"), QString());
        QCOMPARE(str(m_store->getVersion(original), "server_version_id"), QStringLiteral("78"));
    }

    void markUploadedOfSupersededVersionChangesNoDocument()
    {
        const QString id = importDocument("a.pdf");
        const QString original = str(m_store->getDocument(id), "current_version_id");
        m_store->addVersion({{"id", "v2"}, {"documentId", id}, {"path", "/p"}});
        const QJsonObject before = m_store->getDocument(id);
        m_store->markUploaded(original,
                              {{"id", "S"}, {"latest_version", QJsonObject{{"id", "SV"}}}});
        QCOMPARE(m_store->getDocument(id), before);
        QCOMPARE(str(m_store->getVersion(original), "server_version_id"), QStringLiteral("SV"));
        m_store->markUploadFailed(original, QStringLiteral("late"));
        QCOMPARE(m_store->getDocument(id), before);
    }

    void setDocumentStatus()
    {
        const QString id = importDocument("a.pdf");
        const QJsonObject document =
            m_store->setDocumentStatus(id, QStringLiteral("ARCHIVED"), QStringLiteral("why"));
        QCOMPARE(str(document, "status"), QStringLiteral("ARCHIVED"));
        QCOMPARE(str(document, "last_error"), QStringLiteral("why"));
        QCOMPARE(str(document, "local_state"), QStringLiteral("LOCAL_ONLY"));
        QVERIFY(
            m_store->setDocumentStatus(QStringLiteral("nope"), QStringLiteral("X"), {}).isEmpty());
    }

    void currentVersionAndVersionList()
    {
        const QString id = importDocument("a.pdf");
        QVERIFY(m_raw->exec(QStringLiteral("UPDATE local_versions SET created_at = '2000-01-01'")));
        m_store->addVersion({{"id", "v2"}, {"documentId", id}, {"path", "/p"}});
        const QJsonArray versions = m_store->listVersions(id);
        QCOMPARE(versions.size(), 2);
        QCOMPARE(str(versions.at(1).toObject(), "id"), QStringLiteral("v2"));
        QCOMPARE(str(m_store->getCurrentVersion(id), "id"), QStringLiteral("v2"));
    }

    void listDocuments_data()
    {
        QTest::addColumn<QVariantMap>("filter");
        QTest::addColumn<QStringList>("expected");

        QTest::newRow("default hides missing and purged")
            << QVariantMap{} << QStringList{"Sutartis", "Prasymas"};
        QTest::newRow("status MISSING shows missing rows")
            << QVariantMap{{"status", "MISSING"}} << QStringList{"Aktas"};
        QTest::newRow("status filter trimmed")
            << QVariantMap{{"status", " MISSING "}} << QStringList{"Aktas"};
        QTest::newRow("includeHidden shows all")
            << QVariantMap{{"includeHidden", true}}
            << QStringList{"Sutartis", "Saskaita", "Aktas", "Prasymas"};
        QTest::newRow("includeHidden with a status")
            << QVariantMap{{"includeHidden", true}, {"status", "LOCAL"}}
            << QStringList{"Sutartis", "Saskaita"};
        QTest::newRow("query matches title case-insensitively, or original name")
            << QVariantMap{{"query", "Sut"}} << QStringList{"Sutartis", "Prasymas"};
        QTest::newRow("query trimmed")
            << QVariantMap{{"query", "  AKT "}, {"includeHidden", true}} << QStringList{"Aktas"};
        QTest::newRow("blank query is no filter")
            << QVariantMap{{"query", "   "}} << QStringList{"Sutartis", "Prasymas"};
        QTest::newRow("underscore acts as wildcard")
            << QVariantMap{{"query", "s_t"}} << QStringList{"Sutartis", "Prasymas"};
        QTest::newRow("status UPLOADED")
            << QVariantMap{{"status", "UPLOADED"}} << QStringList{"Prasymas"};
        QTest::newRow("nothing matches") << QVariantMap{{"query", "zzz"}} << QStringList{};
    }
    void listDocuments()
    {
        QFETCH(QVariantMap, filter);
        QFETCH(QStringList, expected);
        const QString sutartis = importDocument("Sutartis.pdf");
        const QString saskaita = importDocument("Saskaita.pdf");
        const QString aktas = importDocument("Aktas.pdf");
        const QString prasymas = importDocument("Prasymas.pdf");
        const auto set = [&](const QString& id, const QString& assignments) {
            QVERIFY(m_raw->exec(
                QStringLiteral("UPDATE local_documents SET %1 WHERE id = ?").arg(assignments),
                {id}));
        };
        set(sutartis, QStringLiteral("updated_at = '2026-01-04'"));
        set(saskaita, QStringLiteral("updated_at = '2026-01-03', purged_at = '2026-01-03'"));
        set(aktas, QStringLiteral("updated_at = '2026-01-02', status = 'MISSING'"));
        set(prasymas, QStringLiteral("updated_at = '2026-01-01', status = 'UPLOADED', "
                                     "original_name = 'sutartis-kopija.pdf'"));
        const QJsonArray documents = m_store->listDocuments(filter);
        QCOMPARE(titles(documents), expected);
        for (const QJsonValue& value : documents) {
            const QJsonObject document = value.toObject();
            QCOMPARE(str(document.value(QStringLiteral("current_version")).toObject(), "id"),
                     str(document, "current_version_id"));
        }
    }

    void listOrderTiesBrokenByCreation()
    {
        for (const char* name : {"b.pdf", "a.pdf", "c.pdf"})
            importDocument(QString::fromLatin1(name));
        QVERIFY(m_raw->exec(QStringLiteral(
            "UPDATE local_documents SET updated_at = '2026-01-01', created_at = CASE title WHEN "
            "'a' THEN '2025-03' WHEN 'b' THEN '2025-01' ELSE '2025-02' END")));
        QCOMPARE(titles(m_store->listDocuments({})), (QStringList{"a", "c", "b"}));
    }

    void listAttachesEachDocumentsOwnCurrentVersion()
    {
        QStringList ids;
        for (int i = 0; i < 40; ++i) {
            ids << importDocument(QStringLiteral("d%1.pdf").arg(i));
            if (i % 3 == 0)
                m_store->addVersion({{"id", QStringLiteral("signed-%1").arg(i)},
                                     {"documentId", ids.last()},
                                     {"path", "/p"}});
        }
        const QJsonArray documents = m_store->listDocuments({});
        QCOMPARE(documents.size(), 40);
        for (const QJsonValue& value : documents) {
            const QJsonObject document = value.toObject();
            const QJsonObject version =
                document.value(QStringLiteral("current_version")).toObject();
            QCOMPARE(str(version, "document_id"), str(document, "id"));
            QCOMPARE(str(version, "id"), str(document, "current_version_id"));
            const bool isSigned = str(version, "id").startsWith(QLatin1String("signed-"));
            QCOMPARE(str(version, "kind"),
                     isSigned ? QStringLiteral("SIGNED") : QStringLiteral("ORIGINAL"));
        }
    }

    void currentVersionMustBelongToTheDocument()
    {
        const QString a = importDocument("a.pdf");
        const QString b = importDocument("b.pdf");
        const QString versionOfB = str(m_store->getDocument(b), "current_version_id");
        QVERIFY(m_raw->exec(QStringLiteral("UPDATE local_documents SET current_version_id = ? "
                                           "WHERE id = ?"),
                            {versionOfB, a}));
        QVERIFY(!m_store->getDocument(a).contains(QStringLiteral("current_version")));
        // Get current version follows the id alone.
        QCOMPARE(str(m_store->getCurrentVersion(a), "id"), versionOfB);
        for (const QJsonValue& value : m_store->listDocuments({})) {
            const QJsonObject document = value.toObject();
            QCOMPARE(document.contains(QStringLiteral("current_version")),
                     str(document, "id") == b);
        }
    }

    void jobs()
    {
        const QString id = importDocument("a.pdf");
        const QJsonObject job = m_store->insertJob({{"documentId", id}, {"type", "pdf_merge"}});
        QCOMPARE(str(job, "status"), QStringLiteral("QUEUED"));
        QCOMPARE(str(job, "method"), QString());
        QCOMPARE(str(job, "error"), QString());
        for (const char* absent : {"server_job_id", "server_document_id", "result_version_id"})
            QVERIFY2(!job.contains(QLatin1String(absent)), absent);
        QVERIFY(isIsoUtcMs(str(job, "created_at")));

        const QJsonObject given = m_store->insertJob({{"id", "job-2"},
                                                      {"documentId", id},
                                                      {"type", "t"},
                                                      {"method", "m"},
                                                      {"status", "RUNNING"},
                                                      {"serverJobId", "sj"},
                                                      {"serverDocumentId", "sd"}});
        QCOMPARE(str(given, "id"), QStringLiteral("job-2"));
        QCOMPARE(str(given, "server_job_id"), QStringLiteral("sj"));

        QJsonObject updated = m_store->updateJob(QStringLiteral("job-2"),
                                                 {{"status", "DONE"}, {"result_version_id", "rv"}});
        QCOMPARE(str(updated, "status"), QStringLiteral("DONE"));
        QCOMPARE(str(updated, "result_version_id"), QStringLiteral("rv"));
        QCOMPARE(str(updated, "server_job_id"), QStringLiteral("sj"));
        QCOMPARE(str(updated, "server_document_id"), QStringLiteral("sd"));
        QVERIFY(str(updated, "updated_at") >= str(given, "updated_at"));
        updated =
            m_store->updateJob(QStringLiteral("job-2"), {{"server_job_id", ""}, {"error", "E"}});
        QVERIFY(!updated.contains(QStringLiteral("server_job_id")));
        QCOMPARE(str(updated, "error"), QStringLiteral("E"));
        QCOMPARE(str(updated, "status"), QStringLiteral("DONE"));

        QCOMPARE(errorOf([&] { m_store->updateJob(QStringLiteral("nope"), {}); }),
                 QStringLiteral("VANTRO_SIGN_LOCAL_JOB_NOT_FOUND"));
        QVERIFY(m_raw->exec(QStringLiteral("UPDATE local_jobs SET updated_at = CASE id WHEN "
                                           "'job-2' THEN '2000' ELSE '2001' END")));
        const QJsonArray list = m_store->listJobs(id);
        QCOMPARE(list.size(), 2);
        QCOMPARE(str(list.at(1).toObject(), "id"), QStringLiteral("job-2"));
        QVERIFY(m_store->listJobs(QStringLiteral("other")).isEmpty());
    }

    void listJobsWithoutDocumentIsCapped()
    {
        const QString id = importDocument("a.pdf");
        QVERIFY(m_raw->exec(QStringLiteral("BEGIN")));
        for (int i = 0; i < 510; ++i)
            QVERIFY(m_raw->exec(QStringLiteral("INSERT INTO local_jobs (id, document_id, type, "
                                               "status, created_at, updated_at) VALUES (?, ?, "
                                               "'t', 'QUEUED', 'c', ?)"),
                                {QStringLiteral("j%1").arg(i, 3, 10, QLatin1Char('0')), id,
                                 QStringLiteral("2026-%1").arg(i, 3, 10, QLatin1Char('0'))}));
        QVERIFY(m_raw->exec(QStringLiteral("COMMIT")));
        const QJsonArray all = m_store->listJobs(QString());
        QCOMPARE(all.size(), 500);
        QCOMPARE(str(all.first().toObject(), "id"), QStringLiteral("j509"));
        QCOMPARE(str(all.last().toObject(), "id"), QStringLiteral("j010"));
        QCOMPARE(m_store->listJobs(id).size(), 510);
    }

    void enqueueNewItem()
    {
        const QString id = importDocument("a.pdf");
        const QJsonObject item = m_store->enqueueMirrorItem({{"artifactId", "art-1"},
                                                             {"localDocumentId", id},
                                                             {"serverDocumentId", "sd"},
                                                             {"serverVersionId", "sv"},
                                                             {"downloadUrl", "https://x/d"},
                                                             {"expectedSha256", "ab"},
                                                             {"relativePath", "Pasirasyta/a.pdf"}});
        QCOMPARE(str(item, "id"), QStringLiteral("art-1"));
        QCOMPARE(str(item, "status"), QStringLiteral("QUEUED"));
        QCOMPARE(str(item, "output_kind"), QStringLiteral("SIGNED"));
        QCOMPARE(str(item, "document_status"), QStringLiteral("SIGNED"));
        QCOMPARE(str(item, "mime_type"), QStringLiteral("application/pdf"));
        QCOMPARE(item.value(QStringLiteral("attempts")), QJsonValue(0));
        for (const char* absent :
             {"local_version_id", "local_path", "mirrored_sha256", "server_job_id"})
            QVERIFY2(!item.contains(QLatin1String(absent)), absent);
        QCOMPARE(m_store->getMirrorItem(QStringLiteral("art-1")), item);
        const QJsonObject withOwnId = m_store->enqueueMirrorItem(
            {{"id", "q-2"}, {"artifactId", "art-2"}, {"localDocumentId", id}});
        QCOMPARE(m_store->getMirrorItem(QStringLiteral("art-2")), withOwnId);
        QCOMPARE(m_store->getMirrorItem(QStringLiteral("q-2")), withOwnId);
    }

    void reEnqueue_data()
    {
        QTest::addColumn<QString>("status");
        QTest::addColumn<QString>("localVersion");
        QTest::addColumn<QString>("expectedStatus");
        QTest::addColumn<bool>("untouched");

        QTest::newRow("queued stays queued") << "QUEUED"
                                             << ""
                                             << "QUEUED" << false;
        QTest::newRow("failed goes back to queue") << "FAILED"
                                                   << ""
                                                   << "QUEUED" << false;
        QTest::newRow("running without file is queued") << "RUNNING"
                                                        << ""
                                                        << "QUEUED" << false;
        QTest::newRow("item with a local version is mirrored") << "RUNNING"
                                                               << "lv"
                                                               << "MIRRORED" << false;
        QTest::newRow("failed item with a local version is mirrored") << "FAILED"
                                                                      << "lv"
                                                                      << "MIRRORED" << false;
        QTest::newRow("expired purged keeps its state") << "EXPIRED_PURGED"
                                                        << ""
                                                        << "EXPIRED_PURGED" << false;
        QTest::newRow("acknowledged returned untouched") << "ACKNOWLEDGED"
                                                         << "lv"
                                                         << "ACKNOWLEDGED" << true;
    }
    void reEnqueue()
    {
        QFETCH(QString, status);
        QFETCH(QString, localVersion);
        QFETCH(QString, expectedStatus);
        QFETCH(bool, untouched);
        const QString id = importDocument("a.pdf");
        const QVariantMap first{{"artifactId", "art"},
                                {"localDocumentId", id},
                                {"downloadUrl", "https://old"},
                                {"serverJobId", "job-1"}};
        const QJsonObject created = m_store->enqueueMirrorItem(first);
        m_store->updateMirrorItem(QStringLiteral("art"), {{"status", status},
                                                          {"local_version_id", localVersion},
                                                          {"incrementAttempts", true},
                                                          {"last_error", "E"}});
        const QJsonObject before = m_store->getMirrorItem(QStringLiteral("art"));
        QTest::qWait(3); // a later updated_at must be visible

        const QJsonObject item = m_store->enqueueMirrorItem({{"artifactId", "art"},
                                                             {"localDocumentId", id},
                                                             {"downloadUrl", "https://new"},
                                                             {"serverJobId", "job-2"},
                                                             {"outputKind", "MERGED"}});
        QCOMPARE(str(item, "status"), expectedStatus);
        QCOMPARE(m_raw->scalar(QStringLiteral("SELECT COUNT(*) FROM mirror_queue")).toInt(), 1);
        if (untouched) {
            QCOMPARE(item, before);
            return;
        }
        QCOMPARE(str(item, "download_url"), QStringLiteral("https://new"));
        QCOMPARE(str(item, "output_kind"), QStringLiteral("MERGED"));
        QCOMPARE(item.value(QStringLiteral("attempts")), QJsonValue(1));
        QCOMPARE(str(item, "created_at"), str(created, "created_at"));
        QVERIFY(str(item, "updated_at") > str(before, "updated_at"));
        QCOMPARE(str(item, "last_error"), QString());
        QCOMPARE(str(item, "server_job_id"), QStringLiteral("job-1"));
        QCOMPARE(str(item, "local_version_id"), localVersion);
    }

    void reEnqueueFillsMissingServerJob()
    {
        const QString id = importDocument("a.pdf");
        m_store->enqueueMirrorItem({{"artifactId", "art"}, {"localDocumentId", id}});
        const QJsonObject item = m_store->enqueueMirrorItem(
            {{"artifactId", "art"}, {"localDocumentId", id}, {"serverJobId", "job-2"}});
        QCOMPARE(str(item, "server_job_id"), QStringLiteral("job-2"));
    }

    void updateMirrorItem()
    {
        const QString id = importDocument("a.pdf");
        m_store->enqueueMirrorItem({{"artifactId", "art"}, {"localDocumentId", id}});
        QJsonObject item =
            m_store->updateMirrorItem(QStringLiteral("art"), {{"status", "MIRRORED"},
                                                              {"local_path", "/r/p.pdf"},
                                                              {"mirrored_sha256", "ab"},
                                                              {"incrementAttempts", false}});
        QCOMPARE(str(item, "status"), QStringLiteral("MIRRORED"));
        QCOMPARE(str(item, "local_path"), QStringLiteral("/r/p.pdf"));
        QCOMPARE(item.value(QStringLiteral("attempts")), QJsonValue(0));
        item = m_store->updateMirrorItem(QStringLiteral("art"), {{"incrementAttempts", true}});
        item = m_store->updateMirrorItem(QStringLiteral("art"), {{"incrementAttempts", true}});
        QCOMPARE(item.value(QStringLiteral("attempts")), QJsonValue(2));
        QCOMPARE(str(item, "status"), QStringLiteral("MIRRORED"));
        QCOMPARE(str(item, "mirrored_sha256"), QStringLiteral("ab"));
        QCOMPARE(errorOf([&] { m_store->updateMirrorItem(QStringLiteral("nope"), {}); }),
                 QStringLiteral("VANTRO_SIGN_MIRROR_QUEUE_ITEM_NOT_FOUND"));
    }

    void openItemsAndCounts()
    {
        const QString id = importDocument("a.pdf");
        const QStringList statuses{"QUEUED",       "RUNNING",        "MIRRORED", "FAILED",
                                   "ACKNOWLEDGED", "EXPIRED_PURGED", "FAILED"};
        for (int i = 0; i < statuses.size(); ++i) {
            const QString artifact = QStringLiteral("a%1").arg(i);
            m_store->enqueueMirrorItem({{"artifactId", artifact}, {"localDocumentId", id}});
            m_store->updateMirrorItem(artifact, {{"status", statuses.at(i)}});
        }
        QVERIFY(m_raw->exec(QStringLiteral("UPDATE mirror_queue SET created_at = '2026-' || (9 - "
                                           "substr(id, 2))")));
        const QJsonArray open = m_store->listOpenMirrorItems();
        QStringList ids;
        for (const QJsonValue& value : open)
            ids << str(value.toObject(), "id");
        QCOMPARE(ids, (QStringList{"a6", "a3", "a2", "a1", "a0"}));
        QCOMPARE(m_store->mirrorCounts(), (QJsonObject{{"pending", 3}, {"failed", 2}}));
    }
};

QTEST_GUILESS_MAIN(StoreRecordsTest)
#include "tst_store_records.moc"
