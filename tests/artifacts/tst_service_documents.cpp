// Upload and external invitations through the bridge rows, against the loopback stand-in: what
// reaches the service, what the page is answered and what the store remembers afterwards.
#include "app/FileHash.h"
#include "artifacts/ServiceFixture.h"

#include <QtTest>

using namespace vantro;
using namespace vantro::test;
using namespace vantro::testing;

namespace {

const QString kUploads = QStringLiteral("/sign/api/v1/documents/uploads");

QByteArray uploadAnswer(const QString& versionId)
{
    return QStringLiteral(R"({"ok":true,"document":{"id":"srv-d1","latest_version":{"id":"%1"}},)"
                          R"("extra":"passed through"})")
        .arg(versionId)
        .toUtf8();
}

} // namespace

class ServiceDocumentsTest : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<ServiceFixture> m_sx;
    ServiceStandIn* m_service = nullptr;
    QString m_documentId, m_versionId, m_path;

    LocalStore& store() { return m_sx->store(); }
    QVariant call(const QString& method, const QVariantList& args = {})
    {
        return m_sx->call(method, args);
    }
    static QVariant valueOf(const QVariant& result) { return ServiceFixture::valueOf(result); }
    // What the store says about the document, its version and the recorded artifacts.
    QString recorded()
    {
        const QJsonObject document = store().getDocument(m_documentId);
        QStringList artifacts;
        for (const QJsonObject& row : store().selectRows(
                 "SELECT artifact_id, kind, document_id, sha256 = ? AS same FROM local_artifacts",
                 {sha256File(m_path)}))
            artifacts << QStringList{row["artifact_id"].toString(), row["kind"].toString(),
                                     row["document_id"].toString(),
                                     row["same"].toInt() ? "hash ok" : "hash wrong"}
                             .join(' ');
        return QStringList{document["status"].toString(), document["local_state"].toString(),
                           document["server_document_id"].toString(),
                           store().getVersion(m_versionId)["server_version_id"].toString(),
                           artifacts.join(',')}
            .join('|');
    }

private Q_SLOTS:
    void init()
    {
        m_sx = std::make_unique<ServiceFixture>();
        m_service = &m_sx->service;
        m_documentId = m_sx->documentId;
        m_versionId = m_sx->versionId;
        m_path = m_sx->path;
    }

    void uploadRecordsWhatTheServiceMade()
    {
        m_service->script("POST", kUploads, {201, uploadAnswer("srv-v1")});
        const QVariant result = call("sign:uploadLocalDocument", {m_documentId});
        QCOMPARE(recorded(),
                 "UPLOADED|SERVER_TRANSIENT|srv-d1|srv-v1|srv-v1 uploaded srv-d1 hash ok");

        const OrderedObject value = valueOf(result).value<OrderedObject>();
        QCOMPARE(value.keys(), QStringList({"document", "extra", "ok", "sha256", "name", "path",
                                            "latest_version", "artifactId"}));
        QCOMPARE(value.value("artifactId"), "srv-v1");
        QCOMPARE(value.value("path"), m_path);
        QCOMPARE(variantMember(value.value("latest_version"), "id"), "srv-v1");

        // The document goes under its title, with the digest of the bytes sent.
        const QList<FormPart> parts = formParts(m_service->requests.value(0));
        QCOMPARE(parts.size(), 3);
        QCOMPARE(parts.at(1).body, sha256File(m_path).toUtf8());
        QCOMPARE(parts.at(2).disposition + '=' + parts.at(2).body,
                 R"(form-data; name="title"=)" +
                     store().getDocument(m_documentId)["title"].toString().toUtf8());
        QCOMPARE(m_service->requests.first().header("Authorization"), "Bearer s3cret");
    }

    void failedUploadWritesNothing_data()
    {
        QTest::addColumn<int>("status");
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<QString>("code"); // "" when the call succeeds
        QTest::newRow("service error")
            << 503 << QByteArray(R"({"ok":false,"error":{"code":"DOWN"}})") << "DOWN";
        QTest::newRow("200 without ok")
            << 200 << QByteArray(R"({"document":{"id":"x"}})") << "VANTRO_SIGN_UPLOAD_FAILED_200";
        QTest::newRow("no version id in the answer") << 201 << uploadAnswer("") << "";
    }
    void failedUploadWritesNothing()
    {
        QFETCH(int, status);
        QFETCH(QByteArray, body);
        QFETCH(QString, code);
        const QString before = recorded();
        m_service->script("POST", kUploads, {status, body});
        const QVariant result =
            call("sign:queueUpload", {m_versionId, QVariantMap{{"title", "t"}}});
        QCOMPARE(codeOf(result), code);
        QCOMPARE(recorded(), before);
        QCOMPARE(m_service->requests.size(), 1);
    }

    void unknownIdsReachNoService()
    {
        QCOMPARE(toCompactJson(call("sign:uploadLocalDocument", {"nope"})),
                 err("VANTRO_SIGN_LOCAL_DOCUMENT_NOT_FOUND", "Local document was not found."));
        QCOMPARE(codeOf(call("sign:queueUpload", {"nope"})), "VANTRO_SIGN_FILE_HANDLE_NOT_FOUND");
        QCOMPARE(codeOf(call("sign:createExternalInvitation", {"nope"})),
                 "VANTRO_SIGN_LOCAL_DOCUMENT_NOT_FOUND");
        QCOMPARE(m_service->requests.size(), 0);
    }

    void fileHandleUploadLeavesTheDocumentAlone()
    {
        m_service->script("POST", kUploads, {201, uploadAnswer("srv-v9")});
        const QVariant result = call("sign:queueUpload", {store().createFileHandle(m_path)});
        QCOMPARE(variantMember(valueOf(result), "artifactId"), "srv-v9");
        QCOMPARE(recorded(), "LOCAL|LOCAL_ONLY|||srv-v9 uploaded srv-d1 hash ok");
    }

    void invitationCalls_data()
    {
        QTest::addColumn<QString>("method");
        QTest::addColumn<QString>("id"); // "$local" stands for the uploaded local document
        QTest::addColumn<QString>("request");
        QTest::addColumn<QString>("answer"); // the page's value as JSON
        QTest::newRow("list all") << "sign:listExternalInvitations"
                                  << ""
                                  << "GET /sign/api/v1/external-invites"
                                  << R"([{"id":"i1"}])";
        QTest::newRow("list by an id the store does not know")
            << "sign:listExternalInvitations"
            << "srv-9"
            << "GET /sign/api/v1/documents/srv-9/external-invites"
            << R"([{"id":"i1"}])";
        QTest::newRow("list by an uploaded local document")
            << "sign:listExternalInvitations"
            << "$local"
            << "GET /sign/api/v1/documents/srv-d1/external-invites"
            << R"([{"id":"i1"}])";
        QTest::newRow("create for an uploaded document")
            << "sign:createExternalInvitation"
            << "$local"
            << "POST /sign/api/v1/documents/srv-d1/external-invites"
            << R"({"id":"i2"})";
        QTest::newRow("cancel") << "sign:cancelExternalInvitation"
                                << "inv-1"
                                << "POST /sign/api/v1/external-invites/inv-1/cancel"
                                << R"({"id":"i2"})";
        QTest::newRow("remind") << "sign:remindExternalInvitation"
                                << "inv-1"
                                << "POST /sign/api/v1/external-invites/inv-1/remind"
                                << R"({"id":"i2"})";
    }
    void invitationCalls()
    {
        QFETCH(QString, method);
        QFETCH(QString, id);
        QFETCH(QString, request);
        QFETCH(QString, answer);
        store().markUploaded(m_versionId, QJsonObject{{"id", "srv-d1"}});
        const QString verb = request.section(' ', 0, 0), path = request.section(' ', 1);
        m_service->script(
            verb.toLatin1(), path,
            {200, R"({"ok":true,"invitations":[{"id":"i1"}],"invitation":{"id":"i2"}})"});
        const QVariantMap input{{"email", "a@b.lt"}, {"role", "signer"}};
        const QVariant result = call(method, {id == "$local" ? m_documentId : id, input});
        QCOMPARE(m_service->paths(), QStringList{request});
        QCOMPARE(toCompactJson(valueOf(result)), answer.toUtf8());
        const QByteArray body = m_service->requests.first().body;
        QCOMPARE(body, verb == "GET"                      ? ""
                       : method.startsWith("sign:create") ? toCompactJson(input)
                                                          : "{}");
    }

    void invitingANeverUploadedDocumentUploadsItFirst()
    {
        m_service->script("POST", kUploads, {201, uploadAnswer("srv-v1")});
        m_service->scriptJson("POST", "/sign/api/v1/documents/srv-d1/external-invites", 201,
                              {{"invitation", QJsonObject{{"id", "i3"}}}});
        const QVariant result =
            call("sign:createExternalInvitation", {m_documentId, QVariantMap{{"email", "a@b.lt"}}});
        QCOMPARE(m_service->paths(),
                 QStringList(
                     {"POST " + kUploads, "POST /sign/api/v1/documents/srv-d1/external-invites"}));
        QCOMPARE(toCompactJson(valueOf(result)), R"({"id":"i3"})");
        QCOMPARE(recorded().section('|', 0, 2), "UPLOADED|SERVER_TRANSIENT|srv-d1");
    }

    void invitingStopsWhenTheUploadFails()
    {
        m_service->script("POST", kUploads,
                          {500, R"({"ok":false,"error":{"code":"E","message":"m"}})"});
        const QVariant result =
            call("sign:createExternalInvitation", {m_documentId, QVariantMap()});
        QCOMPARE(toCompactJson(result), err("E", "E: m").toUtf8());
        QCOMPARE(m_service->paths(), QStringList{"POST " + kUploads});
    }
};

QTEST_GUILESS_MAIN(ServiceDocumentsTest)
#include "tst_service_documents.moc"
