// The service stand-in's activation and heartbeat over loopback HTTP: codes work once, an
// expired or unknown code is refused in the service's error shape, state survives a restart,
// and only a known device's heartbeat is recorded.
#include "DevService.h"

#include <QEventLoop>
#include <QJsonDocument>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QTemporaryDir>
#include <QTest>

#include <memory>

using namespace vantro::dev;

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

    void start()
    {
        m_service.reset();
        m_service = std::make_unique<DevService>(m_data.path());
        QVERIFY(m_service->isReady());
        m_port = m_service->listen(QHostAddress::LocalHost, 0);
        QVERIFY(m_port != 0);
    }

    Answer post(const QString& path, const QJsonObject& body, const QByteArray& device = {},
                const QByteArray& secret = {})
    {
        QNetworkRequest request(
            QUrl(QStringLiteral("http://127.0.0.1:%1%2").arg(m_port).arg(path)));
        request.setHeader(QNetworkRequest::ContentTypeHeader, "application/json");
        if (!device.isEmpty()) {
            request.setRawHeader("X-Vantro-Sign-Device-Id", device);
            request.setRawHeader("Authorization", "Bearer " + secret);
        }
        QNetworkReply* reply = m_network.post(request, QJsonDocument(body).toJson());
        QEventLoop loop;
        connect(reply, &QNetworkReply::finished, &loop, &QEventLoop::quit);
        loop.exec();
        reply->deleteLater();
        return {reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt(),
                QJsonDocument::fromJson(reply->readAll()).object()};
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
    }
};

QTEST_GUILESS_MAIN(TestDevService)
#include "tst_dev_service.moc"
