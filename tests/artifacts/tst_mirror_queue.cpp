// The mirror queue through its bridge rows against the loopback stand-in: a signed result lands
// in the local root, becomes the document's version and is acknowledged; every failure leaves the
// row and the folder as it should; retries pick up whatever an earlier run left; and a process
// killed while writing leaves the whole file or none.
#include "api/Heartbeat.h"
#include "app/FileHash.h"
#include "artifacts/MirrorQueue.h"
#include "artifacts/ServiceFixture.h"
#include "store/RootRules.h"

#include <QProcess>
#include <QRandomGenerator>
#include <QtTest>

using namespace vantro;
using namespace vantro::test;
using namespace vantro::testing;

namespace {

const QByteArray kSigned = "%PDF-1.7 signed by the service";
const QString kAck = QStringLiteral("/sign/api/v1/delivery/ack");

QString downloadPath(const QString& artifact)
{
    return QStringLiteral("/sign/app/documents/srv-d1/versions/%1/download/").arg(artifact);
}

QByteArray fileBytes(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<no file>");
}

} // namespace

class MirrorQueueTest : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<ServiceFixture> m_sx;

    ServiceStandIn& service() { return m_sx->service; }
    LocalStore& store() { return m_sx->store(); }
    QString inRoot(const QString& relative) { return QDir(m_sx->root()).filePath(relative); }
    QVariantMap descriptor(const QString& artifact, const QVariantMap& overrides = {})
    {
        QVariantMap out{{"artifactId", artifact},
                        {"localDocumentId", m_sx->documentId},
                        {"serverDocumentId", "srv-d1"},
                        {"serverVersionId", artifact + "-v"},
                        {"downloadUrl", downloadPath(artifact)},
                        {"expectedSha256", sha256Hex(kSigned)},
                        {"relativePath", "Pasirasyta/" + artifact + ".pdf"}};
        out.insert(overrides);
        return out;
    }
    void serve(const QString& artifact, int status = 200, const QByteArray& body = kSigned)
    {
        service().script("GET", downloadPath(artifact), {status, body, "application/pdf"});
    }
    void acknowledge(int status = 200, const QByteArray& body = R"({"ok":true})")
    {
        service().script("POST", kAck, {status, body});
    }
    QString row(const QString& artifact)
    {
        const QJsonObject item = store().getMirrorItem(artifact);
        return QStringList{item["status"].toString(), QString::number(item["attempts"].toInt()),
                           item["last_error"].toString().section(':', 0, 0)}
            .join('|');
    }
    QStringList downloadsAsked() const
    {
        return m_sx->service.paths().filter(QStringLiteral("GET "));
    }

private Q_SLOTS:
    void init() { m_sx = std::make_unique<ServiceFixture>(); }

    void mirroredRecordedAndAcknowledged()
    {
        serve("art-1");
        acknowledge();
        const QVariant result = m_sx->call("sign:mirrorArtifact", {descriptor("art-1")});
        const QString target = inRoot("Pasirasyta/art-1.pdf");
        QCOMPARE(toCompactJson(ServiceFixture::valueOf(result)),
                 QString(R"({"artifactId":"art-1","status":"MIRRORED","path":"%1",)"
                         R"("relativePath":"Pasirasyta/art-1.pdf","sha256":"%2"})")
                     .arg(target, sha256Hex(kSigned))
                     .toUtf8());
        QCOMPARE(fileBytes(target), kSigned);
        QCOMPARE(row("art-1"), "ACKNOWLEDGED|1|");

        const QJsonObject document = store().getDocument(m_sx->documentId);
        const QJsonObject version = document["current_version"].toObject();
        QCOMPARE(QStringList({document["status"].toString(), version["kind"].toString(),
                              version["path"].toString(), version["server_version_id"].toString(),
                              document["server_document_id"].toString()}),
                 QStringList({"SIGNED", "SIGNED", target, "art-1-v", "srv-d1"}));
        QCOMPARE(service().requests.last().json(), QJsonObject({{"document_id", "srv-d1"},
                                                                {"version_id", "art-1-v"},
                                                                {"sha256", sha256Hex(kSigned)}}));
        QCOMPARE(store()
                     .selectRows("SELECT kind FROM local_artifacts WHERE artifact_id = 'art-1'")
                     .value(0)["kind"],
                 "signed");
        QCOMPARE(
            toCompactJson(ServiceFixture::valueOf(m_sx->call("sign:getMirrorStatus", {"art-1"}))),
            R"({"artifactId":"art-1","status":"ACKNOWLEDGED","lastError":""})");
    }

    void failures_data()
    {
        QTest::addColumn<int>("downloadStatus");
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<QByteArray>("ack"); // "status body" of the acknowledgement
        QTest::addColumn<QString>("answer"); // code, and the message when the mirror gives one
        QTest::addColumn<QString>("row");
        QTest::addColumn<bool>("written");
        const QByteArray ok = "200 {\"ok\":true}";
        QTest::newRow("hash mismatch")
            << 200 << QByteArray("%PDF tampered") << ok
            << "VANTRO_SIGN_MIRROR_HASH_MISMATCH|Downloaded artifact hash did not match."
            << "FAILED|1|VANTRO_SIGN_MIRROR_HASH_MISMATCH" << false;
        QTest::newRow("download 410")
            << 410 << QByteArray() << ok << "VANTRO_SIGN_DOWNLOAD_FAILED_410"
            << "EXPIRED_PURGED|1|VANTRO_SIGN_DOWNLOAD_FAILED_410" << false;
        QTest::newRow("download 404")
            << 404 << QByteArray() << ok << "VANTRO_SIGN_DOWNLOAD_FAILED_404"
            << "EXPIRED_PURGED|1|VANTRO_SIGN_DOWNLOAD_FAILED_404" << false;
        QTest::newRow("download 502")
            << 502 << QByteArray() << ok << "VANTRO_SIGN_DOWNLOAD_FAILED_502"
            << "FAILED|1|VANTRO_SIGN_DOWNLOAD_FAILED_502" << false;
        QTest::newRow("empty download")
            << 200 << QByteArray() << ok << "VANTRO_SIGN_DOWNLOAD_EMPTY_FILE"
            << "FAILED|1|VANTRO_SIGN_DOWNLOAD_EMPTY_FILE" << false;
        QTest::newRow("version gone at acknowledgement")
            << 200 << kSigned
            << QByteArray(R"(404 {"ok":false,"error":{"code":"SIGN_DOCUMENT_VERSION_NOT_FOUND"}})")
            << "SIGN_DOCUMENT_VERSION_NOT_FOUND"
            << "EXPIRED_PURGED|1|SIGN_DOCUMENT_VERSION_NOT_FOUND" << true;
        QTest::newRow("acknowledgement refused")
            << 200 << kSigned << QByteArray("503 ") << "VANTRO_SIGN_API_FAILED_503"
            << "FAILED|1|VANTRO_SIGN_API_FAILED_503" << true;
    }
    void failures()
    {
        QFETCH(int, downloadStatus);
        QFETCH(QByteArray, body);
        QFETCH(QByteArray, ack);
        QFETCH(QString, answer);
        QFETCH(QString, row);
        QFETCH(bool, written);
        serve("art-1", downloadStatus, body);
        acknowledge(ack.left(3).toInt(), ack.mid(4));
        const QVariant result = m_sx->call("sign:mirrorArtifact", {descriptor("art-1")});
        const QString message = variantMember(variantMember(result, "error"), "message").toString();
        QCOMPARE(answer.contains('|') ? codeOf(result) + '|' + message : codeOf(result), answer);
        QCOMPARE(this->row("art-1"), row);
        QCOMPARE(QFileInfo::exists(inRoot("Pasirasyta/art-1.pdf")), written);
        // Only a mirrored file becomes a version.
        QCOMPARE(store().listVersions(m_sx->documentId).size(), written ? 2 : 1);
    }

    void incompleteDescriptorLeavesNoRow()
    {
        const QVariant result =
            m_sx->call("sign:mirrorArtifact", {descriptor("art-1", {{"relativePath", " "}})});
        QCOMPARE(toCompactJson(result), err("VANTRO_SIGN_MIRROR_DESCRIPTOR_INCOMPLETE",
                                            "Mirror descriptor is incomplete."));
        QCOMPARE(row("art-1"), "|0|");
        QCOMPARE(service().requests.size(), 0);
    }

    // A file where the target folder should be: the write fails with the file system's words and
    // leaves nothing behind.
    void failedWriteLeavesNoFile()
    {
        QFile blocker(inRoot("Pasirasyta"));
        QVERIFY(blocker.open(QIODevice::WriteOnly));
        blocker.close();
        serve("art-1");
        acknowledge();
        const QVariant result = m_sx->call("sign:mirrorArtifact", {descriptor("art-1")});
        QCOMPARE(codeOf(result), "VANTRO_SIGN_MIRROR_WRITE_FAILED");
        QVERIFY(!variantMember(variantMember(result, "error"), "message").toString().isEmpty());
        QCOMPARE(row("art-1"), "FAILED|1|VANTRO_SIGN_MIRROR_WRITE_FAILED");
        QCOMPARE(QFileInfo(inRoot("Pasirasyta")).size(), 0);
        QCOMPARE(store().listVersions(m_sx->documentId).size(), 1);
    }

    void emptyExpectedHashSkipsTheCheck()
    {
        serve("art-1", 200, "%PDF whatever came");
        acknowledge();
        const QVariant result =
            m_sx->call("sign:mirrorArtifact", {descriptor("art-1", {{"expectedSha256", ""}})});
        QCOMPARE(codeOf(result), "");
        QCOMPARE(fileBytes(inRoot("Pasirasyta/art-1.pdf")), "%PDF whatever came");
    }

    void fileAlreadyAtTheTarget_data()
    {
        QTest::addColumn<QByteArray>("present");
        QTest::addColumn<QString>("landed");
        QTest::newRow("identical file is reused") << kSigned << "Pasirasyta/art-1.pdf";
        QTest::newRow("different file keeps its name")
            << QByteArray("mine") << "Pasirasyta/art-1_2.pdf";
    }
    void fileAlreadyAtTheTarget()
    {
        QFETCH(QByteArray, present);
        QFETCH(QString, landed);
        QVERIFY(QDir().mkpath(inRoot("Pasirasyta")));
        QFile file(inRoot("Pasirasyta/art-1.pdf"));
        QVERIFY(file.open(QIODevice::WriteOnly) && file.write(present) == present.size());
        file.close();
        serve("art-1");
        acknowledge();
        const QVariant result = m_sx->call("sign:mirrorArtifact", {descriptor("art-1")});
        QCOMPARE(variantMember(ServiceFixture::valueOf(result), "relativePath"), landed);
        QCOMPARE(fileBytes(inRoot("Pasirasyta/art-1.pdf")), present);
        QCOMPARE(fileBytes(inRoot(landed)), kSigned);
        QCOMPARE(QDir(inRoot("Pasirasyta")).entryList(QDir::Files | QDir::Hidden).size(),
                 landed.endsWith("_2.pdf") ? 2 : 1);
    }

    void targetStaysInsideTheRoot_data()
    {
        QTest::addColumn<QString>("relativePath");
        QTest::addColumn<QString>("landed");
        QTest::newRow("plain") << "Pasirasyta/a.pdf"
                               << "Pasirasyta/a.pdf";
        QTest::newRow("no suffix") << "Klientai/Sutartis"
                                   << "Klientai/Sutartis.pdf";
        QTest::newRow("only separators") << "///"
                                         << "Pasirasyta/Vantro_dokumentas.pdf";
        QTest::newRow("climbing") << "../../etc/passwd"
                                  << "Vantro_dokumentas/Vantro_dokumentas/etc/passwd.pdf";
        QTest::newRow("absolute") << "/etc/x.pdf"
                                  << "etc/x.pdf";
        QTest::newRow("drive letter") << "C:/Windows/x.pdf"
                                      << "C_/Windows/x.pdf";
        QTest::newRow("backslashes") << "a\\..\\..\\b.pdf"
                                     << "a_.._.._b.pdf";
        QTest::newRow("reserved characters") << "d/<>:|?*.pdf"
                                             << "d/______.pdf";
        QTest::newRow("blank and dotted pieces") << "a/ . /b.pdf"
                                                 << "a/Vantro_dokumentas/b.pdf";
    }
    void targetStaysInsideTheRoot()
    {
        QFETCH(QString, relativePath);
        QFETCH(QString, landed);
        const QString root = m_sx->root();
        QCOMPARE(rootrules::relativePathInRoot(root, MirrorQueue::targetPath(root, relativePath)),
                 landed);
    }

    // A folder of the root that is a link to elsewhere does not take the file out of the root.
    void linkOutOfTheRootIsRefused()
    {
        QTemporaryDir outside;
        QVERIFY(QFile::link(outside.path(), inRoot("Pasirasyta")));
        serve("art-1");
        acknowledge();
        const QVariant result = m_sx->call("sign:mirrorArtifact", {descriptor("art-1")});
        QCOMPARE(toCompactJson(result), err("VANTRO_SIGN_MIRROR_PATH_OUTSIDE_ROOT",
                                            "Mirror target path is outside the local root."));
        QCOMPARE(QDir(outside.path()).entryList(QDir::Files | QDir::Hidden), QStringList());
        QCOMPARE(row("art-1"), "FAILED|1|VANTRO_SIGN_MIRROR_PATH_OUTSIDE_ROOT");
    }

    void retryPicksUpWhatEarlierRunsLeft()
    {
        for (const char* artifact : {"interrupted", "unacknowledged", "gone", "failing", "done"})
            store().enqueueMirrorItem(descriptor(artifact));
        store().updateMirrorItem("interrupted", {{"status", "RUNNING"}});
        store().updateMirrorItem("done", {{"status", "ACKNOWLEDGED"}});
        // Mirrored by an earlier run whose acknowledgement failed.
        store().updateMirrorItem("unacknowledged", {{"status", "FAILED"},
                                                    {"local_version_id", m_sx->versionId},
                                                    {"mirrored_sha256", "abc"}});
        serve("interrupted");
        serve("gone", 410);
        serve("failing", 500);
        acknowledge();

        const QVariant summary = ServiceFixture::valueOf(m_sx->call("sign:retryMirrorQueue"));
        QCOMPARE(QString(toCompactJson(summary)).section(",\"errors\"", 0, 0),
                 R"({"attempted":4,"acknowledged":2,"expiredPurged":1,"failed":1)");
        QStringList failed;
        for (const QVariant& entry : variantMember(summary, "errors").toList())
            failed << variantMember(entry, "artifactId").toString() + ' ' +
                          variantMember(entry, "error").toString();
        QCOMPARE(failed, QStringList({"gone VANTRO_SIGN_DOWNLOAD_FAILED_410",
                                      "failing VANTRO_SIGN_DOWNLOAD_FAILED_500"}));
        QCOMPARE(downloadsAsked(),
                 QStringList({"GET " + downloadPath("interrupted"), "GET " + downloadPath("gone"),
                              "GET " + downloadPath("failing")}));
        QCOMPARE(row("unacknowledged"), "ACKNOWLEDGED|1|");
        QCOMPARE(row("done"), "ACKNOWLEDGED|0|");

        // The counts the page and the service see (a fresh bridge: the status is cached).
        DesktopBridge fresh(&m_sx->fx.state, &m_sx->fx.runtime, &m_sx->fx.api);
        const OrderedObject helper = fresh.helperRuntime();
        QCOMPARE(helper.value("pendingMirrorCount"), 0);
        QCOMPARE(helper.value("failedMirrorCount"), 1);
        const QVariantMap beat = heartbeatBody(m_sx->root(), helper).toMap();
        QCOMPARE(beat.value("pending_mirror_count"), 0);
        QCOMPARE(beat.value("mirror_queue_failed_count"), 1);
    }

    void acknowledgedArtifactIsNotMirroredAgain()
    {
        serve("art-1");
        acknowledge();
        const QVariant first = m_sx->call("sign:mirrorArtifact", {descriptor("art-1")});
        const QVariant again = m_sx->call("sign:mirrorArtifact", {descriptor("art-1")});
        QCOMPARE(toCompactJson(again), toCompactJson(first));
        QCOMPARE(downloadsAsked().size(), 1);
        QCOMPARE(row("art-1"), "ACKNOWLEDGED|1|");
    }

    // A document the service produced reserved its version id for the file the mirror brings.
    void placeholderTakesItsReservedVersion()
    {
        const QJsonObject placeholder = store().insertPlaceholderDocument("srv-d1", "Sujungtas");
        serve("art-1");
        acknowledge();
        m_sx->call("sign:mirrorArtifact",
                   {descriptor("art-1", {{"localDocumentId", placeholder["id"].toString()}})});
        const QJsonObject document = store().getDocument(placeholder["id"].toString());
        QCOMPARE(document["current_version"].toObject()["id"], placeholder["current_version_id"]);
        QCOMPARE(document["status"], "SIGNED");
    }

    void killedMidWriteLeavesWholeFileOrNone()
    {
        QByteArray big(64 << 20, Qt::Uninitialized);
        QRandomGenerator::global()->fillRange(reinterpret_cast<quint32*>(big.data()),
                                              big.size() / 4);
        service().script("GET", downloadPath("big"), {200, big, "application/pdf"});
        acknowledge();
        store().enqueueMirrorItem(descriptor("big", {{"expectedSha256", sha256Hex(big)}}));
        const QString target = inRoot("Pasirasyta/big.pdf");

        QProcess child;
        child.start(MIRROR_CHILD_EXE, {m_sx->fx.state.filePath(), service().origin(),
                                       QCoreApplication::applicationName()});
        QVERIFY(child.waitForStarted());
        bool sawPartial = false;
        while (child.state() == QProcess::Running && !sawPartial) {
            QCoreApplication::processEvents(); // the stand-in answers from this thread
            sawPartial = !QDir(inRoot("Pasirasyta"))
                              .entryList({"*.partial"}, QDir::Files | QDir::Hidden)
                              .isEmpty();
        }
        child.kill();
        child.waitForFinished();
        QVERIFY2(sawPartial, child.readAllStandardError().right(2000).constData());
        QVERIFY(!QFileInfo::exists(target) || sha256File(target) == sha256Hex(big));
        QCOMPARE(row("big").section('|', 0, 0), "RUNNING");

        m_sx->call("sign:retryMirrorQueue");
        QCOMPARE(row("big"), "ACKNOWLEDGED|2|");
        QCOMPARE(sha256File(target), sha256Hex(big));
    }
};

QTEST_GUILESS_MAIN(MirrorQueueTest)
#include "tst_mirror_queue.moc"
