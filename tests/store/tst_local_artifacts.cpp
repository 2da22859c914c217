// Local artifacts: the resolution chain and its reasons, removal by the deletion policy, file
// handles, and writing the files of an ADOC container.
#include "StoreTestSupport.h"

#include "app/FileHash.h"

using namespace vantro;
using namespace storetest;

namespace {

QVariantMap adocEntry(const QString& name, const QByteArray& content, const QString& sha = {})
{
    QVariantMap entry{{"content_b64", QString::fromLatin1(content.toBase64())},
                      {"mime_type", "application/pdf"}};
    if (!name.isNull())
        entry.insert("filename", name);
    if (!sha.isNull())
        entry.insert("sha256", sha);
    return entry;
}

} // namespace

class LocalArtifactsTest : public QObject
{
    Q_OBJECT
    StoreCase m_case;

    QString put(const QString& relative) { return m_case.fx->put(relative); }
    QStringList rootEntries() const
    {
        return QDir(m_case.fx->root())
            .entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden);
    }
    // status, then source|reason of each unresolved candidate, or the found source and path.
    QString resolve(const QString& artifactId, const QString& serverVersionId = {},
                    const QString& serverDocumentId = {}, const QString& expected = {})
    {
        const OrderedObject status = m_case.store->localArtifactStatus(artifactId, serverVersionId,
                                                                       serverDocumentId, expected);
        QStringList out{status.value("status").toString()};
        if (status.contains("resolutionSource"))
            out << status.value("resolutionSource").toString()
                << status.value("relativePath").toString();
        for (const QVariant& candidate : status.value("unresolvedCandidates").toList())
            out << variantMember(candidate, "source").toString() + ':' +
                       variantMember(candidate, "reason").toString();
        return out.join('|');
    }

private Q_SLOTS:
    void init() { m_case.renew(); }
    void cleanup() { m_case.clear(); }

    // The sources in their order: each that has a row but no usable file is listed with its
    // reason and the next is asked.
    void resolutionChain()
    {
        QCOMPARE(resolve({}), "UNKNOWN");
        QCOMPARE(resolve("art"), "UNKNOWN");
        const QString outside = m_case.fx->writeFile("outside.pdf");
        m_case.store->upsertLocalArtifact({{"artifactId", "art"}, {"path", outside}});
        const QString doc = fields(m_case.store->importFile(put("Originalai/a.pdf")), "documentId");
        m_case.store->enqueueMirrorItem({{"artifactId", "art"}, {"localDocumentId", doc}});
        m_case.store->updateMirrorItem("art",
                                       {{"local_path", m_case.fx->inRoot("Pasirasyta/gone.pdf")}});
        m_case.store->addVersion({{"id", "v-signed"},
                                  {"documentId", doc},
                                  {"serverDocumentId", "S"},
                                  {"serverVersionId", "SV"},
                                  {"kind", "SIGNED"},
                                  {"path", put("Pasirasyta/a-signed.pdf")}});
        // A found file answers with its source only; the earlier sources had nothing usable.
        QCOMPARE(resolve("art", "SV", "S"), "LOCAL|server_version|Pasirasyta/a-signed.pdf");
        // An empty service version id accepts the document's current version, whichever it is.
        QCOMPARE(resolve("art", {}, "S"), "LOCAL|server_document|Pasirasyta/a-signed.pdf");
        QCOMPARE(resolve("art", "other", "S", "../outside.pdf"),
                 "MISSING|local_artifact:OUTSIDE_LOCAL_ROOT|mirror_queue:FILE_NOT_FOUND|"
                 "expected_relative_path:OUTSIDE_LOCAL_ROOT");
        QCOMPARE(resolve("art", "other", "S", "Originalai/a.pdf"),
                 "LOCAL|expected_relative_path|Originalai/a.pdf");
        m_case.store->upsertLocalArtifact({{"artifactId", "art"}, {"path", put("exact.pdf")}});
        QCOMPARE(resolve("art", "SV", "S"), "LOCAL|local_artifact|exact.pdf");
    }

    // One artifact, or all of a document's, by the deletion policy; the rows go with them.
    void removal()
    {
        m_case.fx->state()->setLocalDeleteSettings({{"deletedFileAction", "delete_permanently"}});
        m_case.store->upsertLocalArtifact(
            {{"artifactId", "a1"}, {"path", put("a1.pdf")}, {"documentId", "D"}});
        m_case.store->upsertLocalArtifact(
            {{"artifactId", "a2"}, {"path", m_case.fx->inRoot("gone.pdf")}, {"documentId", "D"}});
        m_case.store->upsertLocalArtifact({{"artifactId", "lone"}, {"path", put("lone.pdf")}});
        m_case.store->upsertLocalArtifact({{"artifactId", "other"}, {"path", put("other.pdf")}});
        const OrderedObject one = m_case.store->removeLocalArtifacts({}, "lone");
        QCOMPARE(QString(one.toJson()).section(",\"artifacts\"", 0, 0),
                 R"({"removed":1,"movedToDeleted":0,"kept":0,"missing":0)");
        QVERIFY(
            QFileInfo::exists(m_case.fx->inRoot("other.pdf"))); // no sweep of document-less rows
        const OrderedObject document = m_case.store->removeLocalArtifacts("D", "");
        QCOMPARE(QString(document.toJson()).section(",\"artifacts\"", 0, 0),
                 R"({"removed":1,"movedToDeleted":0,"kept":0,"missing":1)");
        QCOMPARE(RawDatabase(m_case.fx->dbPath()).run("SELECT artifact_id FROM local_artifacts"),
                 QStringList{"other"});
    }

    void fileHandles()
    {
        const QString path = put("a.pdf");
        const QString handle = m_case.store->createFileHandle(path);
        QCOMPARE(m_case.store->resolveFileHandle(handle), path);
        QCOMPARE(
            QString(m_case.store->hashFileHandle(handle).toJson()),
            QString(R"({"path":"%1","name":"a.pdf","sha256":"%2"})").arg(path, sha256File(path)));
        QCOMPARE(codeOf([&] { m_case.store->resolveFileHandle("nope"); }),
                 "VANTRO_SIGN_FILE_HANDLE_NOT_FOUND");
        // A row edited to point out of the root is refused, not followed.
        RawDatabase(m_case.fx->dbPath())
            .run("UPDATE local_file_handles SET path = ?", {m_case.fx->writeFile("outside.pdf")});
        QCOMPARE(codeOf([&] { m_case.store->hashFileHandle(handle); }),
                 "VANTRO_SIGN_PATH_OUTSIDE_ROOT");
    }

    // Every refusal writes nothing, also when the refused entry comes after good ones.
    void adocRefusals_data()
    {
        QTest::addColumn<QVariant>("files");
        QTest::addColumn<QString>("code");
        const QVariantMap good = adocEntry("good.pdf", "ok");
        const auto after = [&](const QVariantMap& bad) {
            return QVariant(QVariantList{good, bad});
        };
        QTest::newRow("no list") << QVariant("x") << "VANTRO_SIGN_ADOC_EXTRACT_FILES_REQUIRED";
        QTest::newRow("empty list")
            << QVariant(QVariantList{}) << "VANTRO_SIGN_ADOC_EXTRACT_FILES_REQUIRED";
        QTest::newRow("101 files")
            << QVariant(QVariantList(101, good)) << "VANTRO_SIGN_ADOC_EXTRACT_TOO_MANY_FILES";
        QTest::newRow("empty content")
            << after(adocEntry("e.pdf", "")) << "VANTRO_SIGN_ADOC_EXTRACT_EMPTY_FILE";
        QTest::newRow("over 50 MiB") << after(adocEntry("big.pdf", QByteArray(52428801, 'x')))
                                     << "VANTRO_SIGN_ADOC_EXTRACT_FILE_TOO_LARGE";
        QTest::newRow("hash mismatch") << after(adocEntry("h.pdf", "ok", QString(64, '0')))
                                       << "VANTRO_SIGN_ADOC_EXTRACT_HASH_MISMATCH";
        for (const char* name :
             {"../x.pdf", "..\\x.pdf", "/etc/x.pdf", "C:x.pdf", "a/b.pdf", "..", "..x.pdf"})
            QTest::newRow(name) << after(adocEntry(name, "ok")) << "VANTRO_SIGN_PATH_OUTSIDE_ROOT";
    }
    void adocRefusals()
    {
        QFETCH(QVariant, files);
        QTEST(codeOf([&] { m_case.store->extractAdocFiles({{"files", files}}); }), "code");
        QVERIFY(rootEntries().isEmpty());
        QVERIFY(!QFileInfo::exists(m_case.fx->path("x.pdf")) && !QFileInfo::exists("/etc/x.pdf"));
    }

    void adocExtraction()
    {
        const QByteArray content = "%PDF-1.4 signed";
        const QVariantList files{adocEntry("Sutartis.pdf", content, sha256Hex(content).toUpper()),
                                 adocEntry(" Sutartis.pdf ", content), adocEntry(QString(), "x"),
                                 adocEntry("a<b>.pdf", "y")};
        const OrderedObject result = m_case.store->extractAdocFiles({{"files", files}});
        QCOMPARE(result.value("root").toString(), m_case.fx->root());
        QStringList written;
        for (const QVariant& file : result.value("files").toList()) {
            const OrderedObject item = file.value<OrderedObject>();
            QCOMPARE(item.keys().join(' '), "name size sha256 relativePath mimeType localFileId");
            written << item.value("relativePath").toString();
            QCOMPARE(m_case.store->resolveFileHandle(item.value("localFileId").toString()),
                     m_case.fx->inRoot(item.value("name").toString()));
        }
        QCOMPARE(written,
                 (QStringList{"Sutartis.pdf", "Sutartis_2.pdf", "dokumentas.pdf", "a_b_.pdf"}));
        QFile second(m_case.fx->inRoot("Sutartis_2.pdf"));
        QVERIFY(second.open(QIODevice::ReadOnly));
        QCOMPARE(second.readAll(), content);
    }
};

QTEST_GUILESS_MAIN(LocalArtifactsTest)
#include "tst_local_artifacts.moc"
