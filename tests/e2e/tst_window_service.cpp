// An activated device in the real window: the heartbeat before the application loads, and the
// page's upload and invitation calls reaching the service with their paths, headers and bodies.
#include "e2e/BrowserHarness.h"

#include "app/AppState.h"
#include "bridge/DesktopBridge.h"
#include "store/LocalStore.h"

#include <QJsonDocument>
#include <QtTest>

using namespace vantro;
using namespace vantro::testing;

class WindowServiceTest : public QObject
{
    Q_OBJECT

private:
    AppWindow m_app;
    ServiceStandIn& service() { return m_app.server().api; }
    PageDriver& page() { return m_app.page(); }
    QJsonValue valueOf(const QString& call)
    {
        const QJsonObject outcome = page().await(call);
        if (!outcome.value("ok").toBool())
            return QStringLiteral("error %1").arg(outcome.value("code").toString());
        return outcome.value("value");
    }

private Q_SLOTS:
    void initTestCase()
    {
        qunsetenv("DBUS_SESSION_BUS_ADDRESS");
        QVERIFY(AppState().setDeviceIdentity("dev-e2e", "s3cret", "ws-1"));
        service().scriptJson("POST", "/sign/api/v1/heartbeat", 200, {{"ok", true}});
        QVERIFY(m_app.open());
    }

    void heartbeatBeforeTheApplication()
    {
        QCOMPARE(service().paths(), QStringList{"POST /sign/api/v1/heartbeat"});
        const RecordedRequest& beat = service().requests.first();
        QCOMPARE(beat.header("Authorization") + '|' + beat.header("X-Vantro-Sign-Device-Id"),
                 "Bearer s3cret|dev-e2e");
        // Keys in their order; no USB helper is installed beside the test program.
        const QByteArray head = "{\"app_version\":\"0.2.5\",\"platform\":\"desktop\","
                                "\"helper_health\":\"missing\",\"local_root_hash\":\"";
        const QByteArray capabilities = "\"capabilities\":{\"platform\":\"desktop\","
                                        "\"qt_bridge\":true,";
        const QByteArray tail = "\"adoc_local_extract\":true,\"usb_bridge\":false}}";
        QVERIFY2(beat.body.startsWith(head), beat.body.constData());
        QVERIFY2(beat.body.contains(capabilities), beat.body.constData());
        QVERIFY2(beat.body.endsWith(tail), beat.body.constData());
    }

    void uploadAndInvitationsFromThePage()
    {
        QFile file(QDir::temp().filePath("vantro-e2e-sutartis.pdf"));
        QVERIFY(file.open(QIODevice::WriteOnly) && file.write("%PDF-1.7 e2e") > 0);
        file.close();
        LocalStore* store = m_app.window()->desktopBridge()->localStore();
        const QString id =
            store->importFiles({file.fileName()}).first().toObject()["documentId"].toString();
        service().requests.clear();
        service().scriptJson("POST", "/sign/api/v1/documents/uploads", 201,
                             QJsonDocument::fromJson(R"({"ok":true,"document":{"id":"srv-d1",)"
                                                     R"("latest_version":{"id":"srv-v1"}}})")
                                 .object());
        const QString invites = "/sign/api/v1/documents/srv-d1/external-invites";
        service().scriptJson("GET", invites, 200, {{"invitations", QJsonArray{"i1"}}});
        service().scriptJson("POST", invites, 201, {{"invitation", "i2"}});
        service().scriptJson("POST", "/sign/api/v1/external-invites/i2/remind", 200,
                             {{"invitation", "i2 reminded"}});
        service().scriptJson("POST", "/sign/api/v1/external-invites/i2/cancel", 404,
                             QJsonDocument::fromJson(R"({"ok":false,"error":{"code":)"
                                                     R"("INVITE_GONE","message":"gone"}})")
                                 .object());

        const QString call = "vantroSign.%1('" + id + "'%2)";
        QCOMPARE(valueOf(call.arg("uploadLocalDocument", "") + ".then(r => r.artifactId)"),
                 "srv-v1");
        QCOMPARE(valueOf(call.arg("listExternalInvitations", "")), QJsonArray{"i1"});
        QCOMPARE(valueOf(call.arg("createExternalInvitation", ", {email: 'a@b.lt'}")), "i2");
        QCOMPARE(valueOf("vantroSign.remindExternalInvitation('i2')"), "i2 reminded");
        QCOMPARE(valueOf("vantroSign.cancelExternalInvitation('i2')"), "error INVITE_GONE");

        QCOMPARE(service().paths(),
                 QStringList({"POST /sign/api/v1/documents/uploads", "GET " + invites,
                              "POST " + invites, "POST /sign/api/v1/external-invites/i2/remind",
                              "POST /sign/api/v1/external-invites/i2/cancel"}));
        QCOMPARE(service().requests.at(2).body, R"({"email":"a@b.lt"})");
        QCOMPARE(service().requests.at(3).body, "{}");
        for (const RecordedRequest& request : std::as_const(service().requests))
            QCOMPARE(request.header("Authorization"), "Bearer s3cret");
        QCOMPARE(formParts(service().requests.first()).first().body, "%PDF-1.7 e2e");
        QCOMPARE(store->getDocument(id)["server_document_id"], "srv-d1");
        file.remove();
    }
};

QTEST_MAIN(WindowServiceTest)
#include "tst_window_service.moc"
