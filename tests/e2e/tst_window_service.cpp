// An activated device in the real window: the heartbeat before the application loads, and the
// page's upload and invitation calls reaching the service with their paths, headers and bodies.
#include "e2e/BrowserHarness.h"

#include "app/AppState.h"
#include "app/InstanceLog.h"
#include "bridge/DesktopBridge.h"
#include "store/LocalStore.h"
#include "ui/ActivationScreen.h"

#include <QJsonDocument>
#include <QPushButton>
#include <QTemporaryDir>
#include <QtTest>
#include <QUuid>

using namespace vantro;
using namespace vantro::testing;

class WindowServiceTest : public QObject
{
    Q_OBJECT

private:
    AppWindow m_app;
    // The profile outlives a run; fresh artifact ids keep earlier runs' queue rows out of the way.
    const QString m_owed = "owed-" + QUuid::createUuid().toString(QUuid::Id128);
    const QString m_fresh = "fresh-" + QUuid::createUuid().toString(QUuid::Id128);
    ServiceStandIn& service() { return m_app.server().api; }
    PageDriver& page() { return m_app.page(); }
    QJsonValue valueOf(const QString& call)
    {
        const QJsonObject outcome = page().await(call);
        if (!outcome.value("ok").toBool())
            return QStringLiteral("error %1").arg(outcome.value("code").toString());
        return outcome.value("value");
    }
    QString importDocument(const QByteArray& content)
    {
        QTemporaryDir dir;
        QFile file(dir.filePath("Sutartis.pdf"));
        if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size())
            qFatal("cannot write the document");
        file.close();
        AppState state;
        return LocalStore(&state).importFiles({file.fileName()}).first()["documentId"].toString();
    }
    static QVariantMap mirrorDescriptor(const QString& artifact, const QString& documentId)
    {
        return {{"artifactId", artifact},
                {"localDocumentId", documentId},
                {"serverDocumentId", "srv-d1"},
                {"serverVersionId", artifact + "-v"},
                {"downloadUrl", "/sign/app/documents/srv-d1/versions/" + artifact + "/download/"},
                {"relativePath", "Pasirasyta/" + artifact + ".pdf"}};
    }

private Q_SLOTS:
    // A signed result owed from an earlier run waits in the queue before the window opens.
    void initTestCase()
    {
        qunsetenv("DBUS_SESSION_BUS_ADDRESS");
        QVERIFY(AppState().setDeviceIdentity("dev-e2e", "s3cret", "ws-1"));
        service().scriptJson("POST", "/sign/api/v1/heartbeat", 200, {{"ok", true}});
        service().scriptJson("POST", "/sign/api/v1/delivery/ack", 200, {{"ok", true}});
        for (const QString& artifact : {m_owed, m_fresh})
            service().script("GET", mirrorDescriptor(artifact, {})["downloadUrl"].toString(),
                             {200, "%PDF signed " + artifact.toUtf8(), "application/pdf"});
        AppState state;
        LocalStore(&state).enqueueMirrorItem(mirrorDescriptor(m_owed, importDocument("%PDF a")));
        QVERIFY(m_app.open());
    }

    void startupRetryBringsWhatWasOwed()
    {
        LocalStore* store = m_app.window()->desktopBridge()->localStore();
        QTRY_COMPARE(store->getMirrorItem(m_owed)["status"].toString(), "ACKNOWLEDGED");
        QVERIFY(
            QFileInfo::exists(QDir(store->localRoot()).filePath("Pasirasyta/" + m_owed + ".pdf")));
    }

    void mirrorFromThePage()
    {
        const QString document = importDocument("%PDF b");
        const QString descriptor =
            QString::fromUtf8(toCompactJson(mirrorDescriptor(m_fresh, document)));
        QCOMPARE(valueOf("vantroSign.mirrorArtifact(" + descriptor + ").then(r => r.relativePath)"),
                 "Pasirasyta/" + m_fresh + ".pdf");
        QCOMPARE(valueOf("vantroSign.getMirrorStatus('" + m_fresh + "').then(r => r.status)"),
                 "ACKNOWLEDGED");
        QCOMPARE(valueOf("vantroSign.mirrorArtifact({artifactId: 'x'})"),
                 "error VANTRO_SIGN_MIRROR_DESCRIPTOR_INCOMPLETE");
        LocalStore* store = m_app.window()->desktopBridge()->localStore();
        QCOMPARE(store->getDocument(document)["current_version"].toObject()["kind"], "SIGNED");
    }

    void heartbeatBeforeTheApplication()
    {
        // The start-up mirror retry talks to the service meanwhile, from its own thread.
        QCOMPARE(service().paths().filter("heartbeat"), QStringList{"POST /sign/api/v1/heartbeat"});
        const RecordedRequest& beat =
            service().requests.at(service().paths().indexOf("POST /sign/api/v1/heartbeat"));
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

    // The activation screen against the service: every refusal leaves the identity as it was
    // and says why in Lithuanian; a grant is stored whole and the application reopens on it.
    void activation_data()
    {
        QTest::addColumn<QString>("link"); // empty: the code typed on the screen
        QTest::addColumn<int>("status");
        QTest::addColumn<QByteArray>("answer");
        QTest::addColumn<QString>("message"); // empty: activated
        const QJsonObject grant{{"device_id", "dev-activated"},
                                {"device_secret", "fresh-secret"},
                                {"workspace_id", "ws-2"},
                                {"license", QJsonObject{{"plan", "demo"}}},
                                {"signer_profile", QJsonObject{{"name", "Demo"}}},
                                {"app_url", "/sign/app/documents/"},
                                {"api_base", "/sign/api/v1/"}};
        QJsonObject partial = grant;
        partial.remove("workspace_id");
        const QString wrong =
            "Aktyvavimo kodas neteisingas. Patikrinkite jį ir bandykite dar kartą.";
        QTest::newRow("wrong code")
            << "" << 404 << QByteArray("{\"error\":{\"code\":\"ACTIVATION_CODE_INVALID\"}}")
            << wrong;
        QTest::newRow("expired code")
            << "" << 410 << QByteArray("{}")
            << "Šio aktyvavimo kodo galiojimas baigėsi. Paprašykite naujo kodo.";
        QTest::newRow("answer missing a field")
            << "" << 200 << QJsonDocument(partial).toJson()
            << "Vantro Sign paslaugos atsakymas netinkamas, kompiuteris neaktyvuotas. Bandykite "
               "dar kartą vėliau.";
        QTest::newRow("link to a base that is not allowed")
            << "vantrosign://activate?code=AB-12&base=https%3A%2F%2Fevil.example" << 200
            << QJsonDocument(grant).toJson()
            << "Aktyvavimo nuorodoje nurodytas Vantro Sign paslaugos adresas neleidžiamas. "
               "Kompiuteris neaktyvuotas.";
        QTest::newRow("granted") << "" << 200 << QJsonDocument(grant).toJson() << "";
    }
    void activation()
    {
        QFETCH(QString, link);
        QFETCH(int, status);
        QFETCH(QByteArray, answer);
        QFETCH(QString, message);
        const QString code = "ab-12 " + QUuid::createUuid().toString(QUuid::Id128).left(8);
        service().script("POST", "/sign/api/v1/devices/activate", {status, answer});
        const qsizetype before = service().requests.size();
        SignAppWindow* window = m_app.window();
        if (link.isEmpty()) {
            window->openActivationScreen();
            window->activationScreen()->setCode(code);
            window->activationScreen()->findChild<QPushButton*>("activate")->click();
        } else {
            window->handleActivationLink(link);
        }
        const QStringList asked = service().paths().mid(before);
        QCOMPARE(asked.filter("devices/activate").size(), link.isEmpty() ? 1 : 0);
        AppState* state = window->appState();
        if (!message.isEmpty()) {
            QCOMPARE(window->activationScreen()->message(), message);
            QCOMPARE(state->deviceId(), "dev-e2e");
            QCOMPARE(AppState().deviceSecret(), "s3cret");
            return;
        }
        const RecordedRequest& request =
            service().requests.at(before + asked.indexOf("POST /sign/api/v1/devices/activate"));
        QCOMPARE(request.json()["activation_code"].toString(), code.toUpper().remove(' '));
        QVERIFY(!request.hasHeader("Authorization"));
        QVERIFY(!window->activationScreen() || !window->activationScreen()->isVisible());
        QCOMPARE(state->deviceId(), "dev-activated");
        QCOMPARE(AppState().deviceSecret(), "fresh-secret");
        QCOMPARE(AppState().workspaceId(), "ws-2");
        QCOMPARE(state->license()["plan"].toString(), "demo");
        // Heartbeat first, with the new credentials, then the application.
        QVERIFY(page().waitForLoad());
        QTRY_VERIFY(service().paths().mid(before).contains("POST /sign/api/v1/heartbeat"));
        const RecordedRequest& beat = service().requests.at(
            before + service().paths().mid(before).indexOf("POST /sign/api/v1/heartbeat"));
        QCOMPARE(beat.header("X-Vantro-Sign-Device-Id"), "dev-activated");
        // The code is in no file the program keeps.
        for (const QString& path : {AppState().filePath(), instanceLogPath()}) {
            QFile kept(path);
            QVERIFY(kept.open(QIODevice::ReadOnly));
            QVERIFY2(!kept.readAll().toUpper().contains(code.toUpper().remove(' ').toUtf8()),
                     qPrintable(path));
        }
    }
};

QTEST_MAIN(WindowServiceTest)
#include "tst_window_service.moc"
