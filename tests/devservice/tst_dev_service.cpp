// The service stand-in over loopback HTTP: activation codes work once, expired and unknown ones
// are refused in the service's error shape, state survives a restart, only known devices are
// heard, and a document goes through upload, signing, download and acknowledgement.
#include "DevService.h"
#include "support/CmsCheck.h"

#include <QCryptographicHash>
#include <QDateTime>
#include <QEventLoop>
#include <QHttpMultiPart>
#include <QJsonDocument>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

#include <openssl/ecdsa.h>

#include <memory>

using namespace vantro::dev;
using vantro::testing::cmsVerifiedContent;

namespace {

struct Answer
{
    int status = 0;
    QJsonObject body;
};

} // namespace

class TestDevService : public QObject
{
    Q_OBJECT

    QTemporaryDir m_data;
    std::unique_ptr<DevService> m_service;
    quint16 m_port = 0;
    QNetworkAccessManager m_network;
    QByteArray m_device;
    QByteArray m_secret;

    void start()
    {
        m_service.reset();
        m_service = std::make_unique<DevService>(m_data.path());
        QVERIFY(m_service->isReady());
        m_port = m_service->listen(QHostAddress::LocalHost, 0);
        QVERIFY(m_port != 0);
    }

    QUrl url(const QString& path) const
    {
        return QUrl(QStringLiteral("http://127.0.0.1:%1%2").arg(m_port).arg(path));
    }

    static Answer wait(QNetworkReply* reply)
    {
        QEventLoop loop;
        QObject::connect(reply, &QNetworkReply::finished, &loop, &QEventLoop::quit);
        loop.exec();
        reply->deleteLater();
        return {reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt(),
                QJsonDocument::fromJson(reply->readAll()).object()};
    }

    Answer post(const QString& path, const QJsonObject& body, const QByteArray& device = {},
                const QByteArray& secret = {})
    {
        QNetworkRequest request(url(path));
        request.setHeader(QNetworkRequest::ContentTypeHeader, "application/json");
        if (!device.isEmpty()) {
            request.setRawHeader("X-Vantro-Sign-Device-Id", device);
            request.setRawHeader("Authorization", "Bearer " + secret);
        }
        return wait(m_network.post(request, QJsonDocument(body).toJson()));
    }

    // Uploads as the desktop does; answers the new document's id.
    QString upload(const QByteArray& document, const QByteArray& title)
    {
        auto* form = new QHttpMultiPart(QHttpMultiPart::FormDataType);
        const auto part = [form](const char* name, const QByteArray& body) {
            QHttpPart piece;
            piece.setHeader(QNetworkRequest::ContentDispositionHeader,
                            QStringLiteral("form-data; name=\"%1\"").arg(name));
            piece.setBody(body);
            form->append(piece);
        };
        part("file", document);
        part("sha256", QCryptographicHash::hash(document, QCryptographicHash::Sha256).toHex());
        part("title", title);
        QNetworkReply* reply =
            m_network.post(QNetworkRequest(url("/sign/api/v1/documents/uploads")), form);
        form->setParent(reply);
        const Answer uploaded = wait(reply);
        return uploaded.status == 201 ? uploaded.body["document"].toObject()["id"].toString()
                                      : QString();
    }

    // Signs a SHA-256 hash with a key file the way a card does: RSA PKCS#1 v1.5, or ECDSA
    // turned into raw r||s.
    QByteArray cardSign(const QString& keyFile, const QByteArray& hash, bool ec)
    {
        QFile input(m_data.filePath("hash.bin"));
        if (!input.open(QIODevice::WriteOnly) || input.write(hash) != hash.size())
            return {};
        input.close();
        QProcess openssl;
        openssl.start("openssl", {"pkeyutl", "-sign", "-inkey", keyFile, "-in", input.fileName(),
                                  "-pkeyopt", "digest:sha256"});
        openssl.waitForFinished(30000);
        const QByteArray der = openssl.readAllStandardOutput();
        if (!ec)
            return der;
        const auto* cursor = reinterpret_cast<const unsigned char*>(der.constData());
        ECDSA_SIG* signature = d2i_ECDSA_SIG(nullptr, &cursor, long(der.size()));
        if (!signature)
            return {};
        QByteArray raw(64, '\0');
        auto* out = reinterpret_cast<unsigned char*>(raw.data());
        BN_bn2binpad(ECDSA_SIG_get0_r(signature), out, 32);
        BN_bn2binpad(ECDSA_SIG_get0_s(signature), out + 32, 32);
        ECDSA_SIG_free(signature);
        return raw;
    }

    Answer activate(const QString& code)
    {
        return post("/sign/api/v1/devices/activate", {{"activation_code", code}});
    }

private Q_SLOTS:
    void initTestCase() { start(); }

    void codes()
    {
        const QStringList codes = m_service->store().activationCodes();
        QCOMPARE(codes.size(), 3);
        const Answer granted = activate(codes.first().toLower());
        QCOMPARE(granted.status, 200);
        for (const char* key :
             {"device_id", "device_secret", "workspace_id", "app_url", "api_base"})
            QVERIFY2(!granted.body.value(key).toString().isEmpty(), key);
        QVERIFY(granted.body.value("license").isObject());

        const auto refusal = [](const Answer& answer) {
            return QString::number(answer.status) + ' ' +
                   answer.body["error"].toObject()["code"].toString();
        };
        QCOMPARE(refusal(activate(codes.first())), "409 ACTIVATION_CODE_USED");
        QCOMPARE(refusal(activate("DEMO-OLD1")), "410 ACTIVATION_CODE_EXPIRED");
        QCOMPARE(refusal(activate("NOPE-NOPE")), "404 ACTIVATION_CODE_INVALID");
        QCOMPARE(refusal(post("/sign/api/v1/nothing", {})), "404 NOT_FOUND");

        // The state is in the database: after a restart the device and the used code remain.
        start();
        QCOMPARE(m_service->store().activationCodes(), codes.mid(1));
        const QByteArray device = granted.body["device_id"].toString().toUtf8();
        const QByteArray secret = granted.body["device_secret"].toString().toUtf8();
        QCOMPARE(post("/sign/api/v1/heartbeat", {{"n", 1}}, device, secret).status, 200);
        QCOMPARE(post("/sign/api/v1/heartbeat", {{"n", 2}}, device, "wrong").status, 401);
        QCOMPARE(post("/sign/api/v1/heartbeat", {{"n", 3}}).status, 401);
        QCOMPARE(m_service->store().heartbeatCount(), 1);
        m_device = device;
        m_secret = secret;
    }

    // Upload, sign on the service, download the signed copy, acknowledge it: the copy is a CMS
    // package that openssl verifies against the demo certificate and that holds the document.
    void signingFlow()
    {
        const QByteArray document =
            "%PDF-1.7 demo " + QByteArray::number(QDateTime::currentMSecsSinceEpoch());
        const QString id = upload(document, "Sutartis.pdf");

        // The page signs in its own session, which a page of the application opens.
        QCOMPARE(post("/sign/api/v1/documents/" + id + "/sign", {}).status, 401);
        QNetworkReply* page = m_network.get(QNetworkRequest(url("/sign/app/documents/")));
        QCOMPARE(wait(page).status, 200);
        const Answer signedAnswer = post("/sign/api/v1/documents/" + id + "/sign", {});
        QCOMPARE(signedAnswer.status, 200);
        const QJsonObject artifact = signedAnswer.body["artifact"].toObject();
        QCOMPARE(artifact["file_name"].toString(), "Sutartis.pdf.p7m");

        QNetworkRequest get(url(artifact["download_url"].toString()));
        get.setRawHeader("X-Vantro-Sign-Device-Id", m_device);
        get.setRawHeader("Authorization", "Bearer " + m_secret);
        QNetworkReply* fetched = m_network.get(get);
        QEventLoop loop;
        connect(fetched, &QNetworkReply::finished, &loop, &QEventLoop::quit);
        loop.exec();
        fetched->deleteLater();
        const QByteArray package = fetched->readAll();
        QCOMPARE(QString(fetched->rawHeader("Content-Disposition")),
                 "attachment; filename*=UTF-8''Sutartis.pdf.p7m");
        QCOMPARE(QString(QCryptographicHash::hash(package, QCryptographicHash::Sha256).toHex()),
                 artifact["sha256"].toString());

        QFile packed(m_data.filePath("received.p7m"));
        QVERIFY(packed.open(QIODevice::WriteOnly) && packed.write(package) == package.size());
        packed.close();
        QCOMPARE(cmsVerifiedContent(packed.fileName(), m_service->signerCertificate()), document);

        QCOMPARE(post("/sign/api/v1/delivery/ack",
                      {{"document_id", id}, {"version_id", artifact["version_id"]}}, m_device,
                      m_secret)
                     .status,
                 200);
        QCOMPARE(m_service->store().acknowledgementCount(), 1);
    }

    void invitations()
    {
        const QString path = "/sign/api/v1/documents/doc-7/external-invites";
        QCOMPARE(post(path, {{"email", "a@example.lt"}}).status, 401);
        const Answer created = post(path, {{"email", "a@example.lt"}}, m_device, m_secret);
        QCOMPARE(created.status, 201);
        const QJsonObject invitation = created.body["invitation"].toObject();
        QCOMPARE(invitation["email"].toString(), "a@example.lt");
        QCOMPARE(invitation["status"].toString(), "PENDING");
        const QString id = invitation["id"].toString();
        const auto action = [&](const QString& verb) {
            return post("/sign/api/v1/external-invites/" + id + "/" + verb, {}, m_device, m_secret)
                .body["invitation"]
                .toObject();
        };
        QCOMPARE(action("remind")["reminders"].toInt(), 1);
        QCOMPARE(action("cancel")["status"].toString(), "CANCELLED");
        QCOMPARE(
            post("/sign/api/v1/external-invites/inv-999/cancel", {}, m_device, m_secret).status,
            404);
        QCOMPARE(m_service->store().invitations("doc-7").size(), 1);
        QCOMPARE(m_service->store().invitations("doc-8").size(), 0);
    }

    // A card's signature comes back from the page and is packed with the document and the card's
    // certificate; openssl accepts the package. A signature that is not the card's is refused.
    void cardSignature_data()
    {
        QTest::addColumn<QString>("keyType");
        QTest::addColumn<bool>("tampered");
        QTest::newRow("RSA PKCS#1 v1.5") << "rsa:2048" << false;
        QTest::newRow("ECDSA P-256, raw r||s") << "ec" << false;
        QTest::newRow("signature of another hash") << "ec" << true;
    }
    void cardSignature()
    {
        QFETCH(QString, keyType);
        QFETCH(bool, tampered);
        const bool ec = keyType == "ec";
        QProcess openssl;
        QStringList request{"req",
                            "-x509",
                            "-nodes",
                            "-days",
                            "2",
                            "-subj",
                            "/CN=Card holder",
                            "-newkey",
                            keyType,
                            "-keyout",
                            m_data.filePath("card.key"),
                            "-out",
                            m_data.filePath("card.pem"),
                            "-outform",
                            "PEM"};
        if (ec)
            request << "-pkeyopt"
                    << "ec_paramgen_curve:P-256";
        openssl.start("openssl", request);
        QVERIFY(openssl.waitForFinished(60000) && openssl.exitCode() == 0);
        openssl.start("openssl", {"x509", "-in", m_data.filePath("card.pem"), "-outform", "DER"});
        QVERIFY(openssl.waitForFinished(30000));
        const QByteArray certificate = openssl.readAllStandardOutput();

        const QByteArray document = "%PDF-1.7 card " + keyType.toUtf8();
        const QString id = upload(document, "Kortele.pdf");
        QVERIFY(!id.isEmpty());
        const QString base = "/sign/api/v1/documents/" + id + "/card-signing";
        QCOMPARE(post(base + "/finish", {{"signature", "AAAA"}}, m_device, m_secret).status, 409);
        const Answer started =
            post(base, {{"certificate", QString(certificate.toBase64())}}, m_device, m_secret);
        QCOMPARE(started.status, 200);
        QCOMPARE(started.body["hashFunction"].toString(), "SHA-256");
        QByteArray hash = QByteArray::fromBase64(started.body["hash"].toString().toLatin1());
        QCOMPARE(hash, QCryptographicHash::hash(document, QCryptographicHash::Sha256));
        if (tampered)
            hash = QCryptographicHash::hash("other", QCryptographicHash::Sha256);
        const QByteArray signature = cardSign(m_data.filePath("card.key"), hash, ec);
        QVERIFY(!signature.isEmpty());
        const Answer finished = post(
            base + "/finish", {{"signature", QString(signature.toBase64())}}, m_device, m_secret);
        if (tampered) {
            QCOMPARE(finished.status, 422);
            QCOMPARE(finished.body["error"]["code"].toString(), "CARD_SIGNATURE_INVALID");
            return;
        }
        QCOMPARE(finished.status, 200);
        const QJsonObject artifact = finished.body["artifact"].toObject();
        QCOMPARE(artifact["file_name"].toString(), "Kortele.pdf.p7m");
        QFile package(m_data.path() + "/files/" + id + "-signed.p7m");
        QVERIFY(package.exists());
        QCOMPARE(cmsVerifiedContent(package.fileName(), m_data.filePath("card.pem")), document);
    }
};

QTEST_GUILESS_MAIN(TestDevService)
#include "tst_dev_service.moc"
