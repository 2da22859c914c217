// The page API as the page sees it: where it installs, what each function posts, how answers
// settle the promises, and the card error texts. Real window, real browser, pages on loopback.
#include "e2e/BrowserHarness.h"

#include "api/SignApiClient.h"
#include "app/OrderedJson.h"
#include "ui/PageScripts.h"
#include "ui/SignAppWindow.h"
#include "ui/WebHost.h"

#include <QEventLoop>
#include <QJsonArray>
#include <QJsonDocument>
#include <QRegularExpression>
#include <QTimer>
#include <QtTest>

using namespace vantro;
using namespace vantro::testing;

namespace {

QString js(const QString& text)
{
    return QString::fromUtf8(toCompactJson(text));
}

QJsonValue parseJson(const QString& json)
{
    return QJsonDocument::fromJson("[" + json.toUtf8() + "]").array().at(0);
}

} // namespace

class PageApiTest : public QObject
{
    Q_OBJECT

private:
    AppWindow m_app;
    PageServer m_foreign;
    QList<QString> m_posted;

    WebHost* host() const { return m_app.window()->webHost(); }

    // Runs `call` (which posts one message) and returns the message it posted. From then on
    // posts go to a recorder instead of the bridge: answers are the test's to give.
    QJsonObject postedBy(const QString& call)
    {
        m_posted.clear();
        QEventLoop loop;
        host()->setMessageHandler([this, &loop](const QString& json, const QUrl&) {
            m_posted << json;
            loop.quit();
        });
        m_app.page().eval(QStringLiteral("void (%1); 0").arg(call));
        if (m_posted.isEmpty()) {
            QTimer::singleShot(kScriptTimeoutMs, &loop, &QEventLoop::quit);
            loop.exec();
        }
        host()->setMessageHandler([this](const QString& json, const QUrl&) { m_posted << json; });
        return m_posted.isEmpty() ? QJsonObject()
                                  : QJsonDocument::fromJson(m_posted.first().toUtf8()).object();
    }

    QString pageApiSource() const
    {
        return pagescripts::pageApiSource(m_app.window()->apiClient()->webAppOrigin());
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_app.open());
        QVERIFY(m_foreign.start());
    }

    void cleanupTestCase()
    {
        m_app.close();
        m_foreign.stop();
    }

    void init() { QVERIFY(m_app.loadApp()); }

    void cleanup() { m_app.restoreWindowRules(); }

    void installsOnlyOnAllowedOriginsAndPaths_data()
    {
        QTest::addColumn<QString>("url");
        QTest::addColumn<bool>("installed");
        const QString app = QStringLiteral("http://127.0.0.1:8000");
        QTest::newRow("application root") << app + "/sign/app/" << true;
        QTest::newRow("application without slash") << app + "/sign/app" << true;
        QTest::newRow("deep application page") << app + "/sign/app/documents/7?x=1#top" << true;
        QTest::newRow("longer first segment") << app + "/sign/application" << false;
        QTest::newRow("other path, same origin") << app + "/other/path" << false;
        QTest::newRow("path in other case") << app + "/Sign/App/" << false;
        QTest::newRow("localhost development origin")
            << QStringLiteral("http://localhost:8000/sign/app/") << true;
        QTest::newRow("same path, foreign origin") << QStringLiteral("FOREIGN/sign/app/") << false;
    }

    // The script decides for itself; the navigation rule is opened up so every row loads.
    void installsOnlyOnAllowedOriginsAndPaths()
    {
        QFETCH(QString, url);
        QFETCH(bool, installed);
        url.replace(QStringLiteral("FOREIGN"), m_foreign.origin());
        m_app.allowAnyPage();
        QVERIFY(m_app.page().load(QUrl(url)));
        const QVariant state = m_app.page().eval(
            QStringLiteral("[typeof window.vantroSign, typeof window.vantroUsbBridge,"
                           " window.__vantroStage2ABridgeInstalled === true,"
                           " !!(window.chrome && window.chrome.webview)]"));
        const QString expected = installed ? QStringLiteral("object") : QStringLiteral("undefined");
        const QVariantList values = state.toList();
        QCOMPARE(values.size(), 4);
        QCOMPARE(values.at(0).toString(), expected);
        QCOMPARE(values.at(1).toString(), expected);
        QCOMPARE(values.at(2).toBool(), installed);
        // The message channel itself exists in every main-frame document.
        QVERIFY(values.at(3).toBool());
    }

    void exposesVersionAndCapabilitiesInOrder()
    {
        const QVariantList values =
            m_app.page()
                .eval(QStringLiteral("[vantroSign.version, vantroUsbBridge.version,"
                                     " JSON.stringify(Object.keys(vantroSign.capabilities)),"
                                     " Object.keys(vantroSign.capabilities).every(function (key) {"
                                     "   return vantroSign.capabilities[key] === true; })]"))
                .toList();
        QCOMPARE(values.size(), 4);
        QCOMPARE(values.at(0).toString(), QStringLiteral("0.2.0-stage2a"));
        QCOMPARE(values.at(1).toString(), QStringLiteral("0.2.0-stage2a"));
        const QStringList expected{"local_file_handles",
                                   "explorer_drag_drop_import",
                                   "local_root_watch",
                                   "local_root_selection",
                                   "mirror_queue",
                                   "signed_artifact_mirror",
                                   "artifact_reveal_exact",
                                   "artifact_reveal_v2",
                                   "artifact_reveal_cancel",
                                   "windows_default_preview",
                                   "native_windows_preview",
                                   "native_windows_child_preview",
                                   "msoffice_wysiwyg_preview",
                                   "msoffice_preview_cache",
                                   "adoc_local_extract",
                                   "usb_bridge",
                                   "usb_sign_batch_native",
                                   "qt_bridge",
                                   "native_desktop_bridge",
                                   "native_updates"};
        QCOMPARE(
            QJsonDocument::fromJson(values.at(2).toString().toUtf8()).toVariant().toStringList(),
            expected);
        QVERIFY(values.at(3).toBool());
    }

    void postsCallMessages_data()
    {
        QTest::addColumn<QString>("call");
        QTest::addColumn<QString>("method");
        QTest::addColumn<QString>("args");
        const auto row = [](const char* call, const char* method, const char* args) {
            QTest::newRow(call) << QString::fromUtf8(call) << QString::fromUtf8(method)
                                << QString::fromUtf8(args);
        };
        for (const char* name :
             {"getStatus", "getTheme", "getLocalDeleteSettings", "getLocalRoot", "setLocalRoot",
              "pickFiles", "reconcileLocalRoot", "retryMirrorQueue", "closeNativePreview",
              "openLocalRoot", "getUpdateStatus", "checkForUpdates", "startUpdate", "cancelUpdate",
              "applyUpdate"}) {
            const QByteArray call = "vantroSign." + QByteArray(name) + "('ignored')";
            QTest::newRow(call.constData())
                << QString::fromUtf8(call) << QStringLiteral("sign:") + name
                << QStringLiteral("[]");
        }
        row("vantroSign.activate()", "sign:activate", "[{}]");
        row("vantroSign.activate({code: 'A1'})", "sign:activate", R"([{"code":"A1"}])");
        row("vantroSign.setTheme('dark')", "sign:setTheme", R"(["dark"])");
        row("vantroSign.setTheme()", "sign:setTheme", "[null]");
        row("vantroSign.setLocalDeleteSettings()", "sign:setLocalDeleteSettings", "[{}]");
        row("vantroSign.setQesVisualPosition('top_left')", "sign:setQesVisualPosition",
            R"(["top_left"])");
        row("vantroSign.listDocuments()", "sign:listDocuments", "[{}]");
        row("vantroSign.listDocuments({q: 'x'})", "sign:listDocuments", R"([{"q":"x"}])");
        row("vantroSign.listJobs()", "sign:listJobs", R"([""])");
        row("vantroSign.listJobs('d1')", "sign:listJobs", R"(["d1"])");
        row("vantroSign.deleteLocalDocument('d1')", "sign:deleteLocalDocument", R"(["d1"])");
        row("vantroSign.uploadLocalDocument('d1')", "sign:uploadLocalDocument", R"(["d1"])");
        row("vantroSign.runPdfTool('d1', 'merge')", "sign:runPdfTool", R"(["d1","merge",{}])");
        row("vantroSign.listExternalInvitations()", "sign:listExternalInvitations", R"([""])");
        row("vantroSign.createExternalInvitation('d1')", "sign:createExternalInvitation",
            R"(["d1",{}])");
        row("vantroSign.cancelExternalInvitation('i1')", "sign:cancelExternalInvitation",
            R"(["i1"])");
        row("vantroSign.remindExternalInvitation('i1')", "sign:remindExternalInvitation",
            R"(["i1"])");
        row("vantroSign.hashFile('h1')", "sign:hashFile", R"(["h1"])");
        row("vantroSign.queueUpload('h1')", "sign:queueUpload", R"(["h1",{}])");
        row("vantroSign.mirrorArtifact()", "sign:mirrorArtifact", "[{}]");
        row("vantroSign.ensureLocalArtifactAndReveal()", "sign:ensureLocalArtifactAndReveal",
            "[{}]");
        row("vantroSign.cancelArtifactReveal()", "sign:cancelArtifactReveal", R"([""])");
        row("vantroSign.getMirrorStatus('a1')", "sign:getMirrorStatus", R"(["a1"])");
        row("vantroSign.openServerDocument()", "sign:openServerDocument", "[{}]");
        row("vantroSign.renderServerDocumentPreview()", "sign:renderServerDocumentPreview", "[{}]");
        row("vantroSign.warmServerDocumentPreview()", "sign:warmServerDocumentPreview", "[{}]");
        row("vantroSign.showNativePreview()", "sign:showNativePreview", "[{}]");
        row("vantroSign.openLocalFolder()", "sign:openLocalFolder", R"([""])");
        row("vantroSign.openLocalArtifactFolder('a1')", "sign:openLocalArtifactFolder",
            R"(["a1","",""])");
        row("vantroSign.getLocalArtifactStatus('a1', 'p/x.pdf', 's1')",
            "sign:getLocalArtifactStatus", R"(["a1","p/x.pdf","s1"])");
        row("vantroSign.removeLocalArtifact('a1')", "sign:removeLocalArtifact", R"(["a1"])");
        row("vantroSign.removeLocalDocumentArtifacts('d1')", "sign:removeLocalDocumentArtifacts",
            R"(["d1",""])");
        row("vantroSign.extractAdocFiles()", "sign:extractAdocFiles", R"([{"files":[]}])");
        row("vantroSign.openLocalFile('f1')", "sign:openLocalFile", R"(["f1"])");
        row("vantroSign.revealLocalFile('f1')", "sign:revealLocalFile", R"(["f1"])");
        row("vantroUsbBridge.isAvailable('ignored')", "usb:isAvailable", "[]");
        row("vantroUsbBridge.diagnose()", "usb:diagnose", "[]");
        row("vantroUsbBridge.getSigningCertificate()", "usb:getSigningCertificate", "[]");
        row("vantroUsbBridge.sign()", "usb:sign", "[{}]");
        row("vantroUsbBridge.signBatch({items: [1]})", "usb:signBatch", R"([{"items":[1]}])");
        row("vantroUsbBridge.authenticate()", "usb:authenticate", "[{}]");
    }

    void postsCallMessages()
    {
        QFETCH(QString, call);
        QFETCH(QString, method);
        QFETCH(QString, args);
        const QJsonObject message = postedBy(call);
        QCOMPARE(message.value("vantroSignBridge"), QJsonValue(true));
        QCOMPARE(message.value("method").toString(), method);
        QCOMPARE(message.value("args"), parseJson(args));
        QCOMPARE(message.value("href").toString(), m_app.page().url().toString());
        static const QRegularExpression idPattern(QStringLiteral("^vantro-[0-9a-z]+-[0-9a-z]+$"));
        QVERIFY2(idPattern.match(message.value("id").toString()).hasMatch(),
                 qPrintable(message.value("id").toString()));
    }

    void callIdsAreUnique()
    {
        const QString first =
            postedBy(QStringLiteral("vantroSign.getTheme()")).value("id").toString();
        const QString second =
            postedBy(QStringLiteral("vantroSign.getTheme()")).value("id").toString();
        QVERIFY(!first.isEmpty());
        QVERIFY(first != second);
    }

    void settlesOnlyItsOwnAnswer_data()
    {
        QTest::addColumn<QString>("result");
        QTest::addColumn<bool>("resolved");
        QTest::addColumn<QString>("value"); // JSON of the resolved value, or the error message
        QTest::addColumn<QString>("code");  // the rejection's code property
        QTest::newRow("success") << R"({"ok":true,"value":{"a":[1,2]}})" << true << R"({"a":[1,2]})"
                                 << QString();
        QTest::newRow("ok missing resolves")
            << R"({"value":"light"})" << true << R"("light")" << QString();
        QTest::newRow("ok not exactly false resolves")
            << R"({"ok":0,"value":5})" << true << "5" << QString();
        QTest::newRow("failure") << R"({"ok":false,"error":{"code":"X_FAILED","message":"boom"}})"
                                 << false << "boom"
                                 << "X_FAILED";
        QTest::newRow("failure without message")
            << R"({"ok":false,"error":{"code":"X_FAILED"}})" << false << "VANTRO_SIGN_BRIDGE_ERROR"
            << "X_FAILED";
        QTest::newRow("failure without error")
            << R"({"ok":false})" << false << "VANTRO_SIGN_BRIDGE_ERROR" << QString();
    }

    // Answers for other ids or without the answer marker leave the promise pending; the one
    // matching answer settles it.
    void settlesOnlyItsOwnAnswer()
    {
        QFETCH(QString, result);
        QFETCH(bool, resolved);
        QFETCH(QString, value);
        QFETCH(QString, code);
        const QString id = postedBy(QStringLiteral("window.__call = vantroSign.getTheme()"))
                               .value("id")
                               .toString();
        QVERIFY(!id.isEmpty());
        const QString settleJs = QStringLiteral(
            "window.__settled = false; window.__call.then(function () { window.__settled = true; },"
            " function () { window.__settled = true; }); 0");
        m_app.page().eval(settleJs);
        host()->postWebMessageAsJson(
            QStringLiteral(
                R"({"vantroSignBridgeResult":true,"id":"vantro-other","result":{"ok":false}})")
                .toUtf8());
        host()->postWebMessageAsJson(
            QStringLiteral(R"({"id":%1,"result":{"ok":false}})").arg(js(id)).toUtf8());
        host()->postWebMessageAsJson(
            QStringLiteral(R"({"vantroSignBridgeResult":false,"id":%1,"result":{"ok":false}})")
                .arg(js(id))
                .toUtf8());
        QVERIFY(m_app.page().settle());
        QCOMPARE(m_app.page().eval(QStringLiteral("window.__settled")).toBool(), false);

        host()->postWebMessageAsJson(
            QStringLiteral(R"({"vantroSignBridgeResult":true,"id":%1,"result":%2})")
                .arg(js(id), result)
                .toUtf8());
        const QJsonObject outcome = m_app.page().await(QStringLiteral("window.__call"));
        QCOMPARE(outcome.value("ok").toBool(), resolved);
        if (resolved) {
            QCOMPARE(outcome.value("value"), parseJson(value));
        } else {
            QCOMPARE(outcome.value("message").toString(), value);
            QCOMPARE(outcome.value("code").toString(), code);
        }
    }

    // The guard keeps a second run from replacing the installed objects; without the guard the
    // same text would install afresh.
    void secondRunInSameDocumentDoesNothing()
    {
        const QString source = pageApiSource();
        QVERIFY(!source.isEmpty());
        m_app.page().eval(QStringLiteral("window.vantroSign.__marker = 42; 0"));
        m_app.page().eval(source + QStringLiteral("; 0"));
        QCOMPARE(m_app.page().eval(QStringLiteral("window.vantroSign.__marker")).toInt(), 42);
        m_app.page().eval(
            QStringLiteral("delete window.__vantroStage2ABridgeInstalled; %1; 0").arg(source));
        QCOMPARE(m_app.page().eval(QStringLiteral("typeof window.vantroSign.__marker")).toString(),
                 QStringLiteral("undefined"));
    }

    // Frames get neither script. Run by hand in a frame, the API has no channel to post on.
    void framesGetNoChannelAndCallsRejectWithoutIt()
    {
        const QJsonObject loaded =
            m_app.page().await(QStringLiteral(R"(new Promise(function (resolve) {
            var frame = document.createElement('iframe');
            frame.onload = function () { resolve(true); };
            frame.src = '/sign/app/frame';
            document.body.appendChild(frame);
        }))"));
        QVERIFY(loaded.value("ok").toBool());
        const QVariantList before =
            m_app.page()
                .eval(QStringLiteral("var w = document.querySelector('iframe').contentWindow;"
                                     "[typeof w.vantroSign, !!(w.chrome && w.chrome.webview),"
                                     " typeof w.qt]"))
                .toList();
        QCOMPARE(before.value(0).toString(), QStringLiteral("undefined"));
        QCOMPARE(before.value(1).toBool(), false);
        QCOMPARE(before.value(2).toString(), QStringLiteral("undefined"));

        m_app.page().eval(
            QStringLiteral("document.querySelector('iframe').contentWindow.eval(%1); 0")
                .arg(js(pageApiSource())));
        const QJsonObject outcome = m_app.page().await(QStringLiteral(
            "document.querySelector('iframe').contentWindow.vantroSign.getStatus()"));
        QCOMPARE(outcome.value("ok").toBool(), false);
        QCOMPARE(outcome.value("message").toString(),
                 QStringLiteral("VANTRO_SIGN_WEBVIEW2_UNAVAILABLE"));
    }

    void ltMessage_data()
    {
        QTest::addColumn<QString>("error"); // a JavaScript expression
        QTest::addColumn<QString>("text");
        const auto error = [](const char* message) {
            return QStringLiteral("new Error(%1)").arg(js(QString::fromUtf8(message)));
        };
        const QString unavailable = "Vantro Sign USB/eID modulis šiame diegime nepasiekiamas.";
        const QString mcard =
            "Nepavyko įkelti LT ID kortelės MaskTech/mCard komponento. Įdiekite MaskTech kortelės "
            "programinę įrangą, atjunkite ir vėl prijunkite kortelę, tada bandykite dar kartą.";
        const QString noCertificates =
            "Kortelė aptikta, bet pasirašymo sertifikatai nepasiekiami. Jei naudojate Lietuvos "
            "MaskTech ID kortelę, užregistruokite ją mCard įrankiuose ir prijunkite iš naujo.";
        const QString notPresent =
            "Kortelė arba USB raktas neaptiktas. Prijunkite priemonę ir bandykite dar kartą.";
        const QString removed =
            "Kortelė arba USB raktas buvo atjungtas. Prijunkite priemonę ir bandykite dar kartą.";
        const QString signTimeout =
            "USB/eID PIN pasirašymo veiksmas negrįžo laiku. Patikrinkite, ar PIN langas nėra "
            "pasislėpęs už kitų langų, ir bandykite dar kartą.";
        const QString timeout = "Pasirašymo programa neatsako. Bandykite dar kartą.";
        const QString fallback = "USB/eID kortelės veiksmas nepavyko. Patikrinkite kortelę arba "
                                 "USB raktą ir bandykite dar kartą.";

        QTest::newRow("helper unavailable")
            << error("VANTRO_USB_HELPER_UNAVAILABLE: gone") << unavailable;
        QTest::newRow("helper unavailable before origin")
            << error("ERR_VANTRO_ORIGIN_FORBIDDEN VANTRO_USB_HELPER_UNAVAILABLE") << unavailable;
        QTest::newRow("origin forbidden")
            << error("ERR_VANTRO_ORIGIN_FORBIDDEN: Vantro Sign bridge rejected this origin.")
            << QStringLiteral("Vantro Sign USB/eID modulis atmetė pasirašymo užklausą. Įdiekite "
                              "naujausią Vantro Sign versiją ir bandykite dar kartą.");
        QTest::newRow("mcard library in capitals")
            << error("cannot load C:\\Program Files\\X\\MCARD-PKCS11.DLL") << mcard;
        QTest::newRow("mcard windows folder") << error("C:\\Tools\\MCard\\x.dll") << mcard;
        QTest::newRow("mcard unix folder") << error("/usr/lib/mcard/libx.so") << mcard;
        QTest::newRow("mcard before cancel")
            << error("ERR_WEBEID_USER_CANCELLED /opt/mcard/x") << mcard;
        QTest::newRow("cancelled with card change")
            << error("ERR_WEBEID_USER_CANCELLED SMART_CARD_CHANGE_REQUIRED") << noCertificates;
        QTest::newRow("cancelled with user cancelled in any case")
            << error("ERR_WEBEID_USER_CANCELLED: USER Cancelled") << noCertificates;
        QTest::newRow("cancelled")
            << error("ERR_WEBEID_USER_CANCELLED")
            << QStringLiteral("USB/eID veiksmas atšauktas. Bandykite dar kartą.");
        QTest::newRow("card change")
            << error("SMART_CARD_CHANGE_REQUIRED")
            << QStringLiteral("Kortelė arba USB raktas neparuoštas pasirašymui. Jei naudojate "
                              "Lietuvos MaskTech ID kortelę, užregistruokite ją mCard įrankiuose "
                              "ir prijunkite iš naujo.");
        QTest::newRow("token not present") << error("PKCS11_TOKEN_NOT_PRESENT") << notPresent;
        QTest::newRow("no card text in any case")
            << error("No Card Or Token Detected") << notPresent;
        QTest::newRow("token removed") << error("PKCS11_TOKEN_REMOVED") << removed;
        QTest::newRow("was removed text") << error("The token WAS REMOVED") << removed;
        QTest::newRow("certificate timeout")
            << error("VANTRO_USB_HELPER_TIMEOUT_get-signing-certificate")
            << QStringLiteral("USB/eID sertifikato skaitymas užstrigo. Patikrinkite, ar PIN langas "
                              "nėra pasislėpęs už kitų langų, ar kortelė/tokenas prijungtas, ir "
                              "bandykite dar kartą.");
        QTest::newRow("sign timeout") << error("VANTRO_USB_HELPER_TIMEOUT_sign") << signTimeout;
        QTest::newRow("batch sign timeout")
            << error("VANTRO_USB_HELPER_TIMEOUT_sign-batch") << signTimeout;
        QTest::newRow("other helper timeout")
            << error("VANTRO_USB_HELPER_TIMEOUT_diagnose")
            << QStringLiteral("Vantro Sign USB/eID modulis neatsakė laiku.");
        QTest::newRow("middleware missing")
            << error("ERR_VANTRO_MIDDLEWARE_MISSING")
            << QStringLiteral("Nerasta reikiama kortelės tvarkyklė. Įdiekite kortelės ar USB rakto "
                              "gamintojo programinę įrangą.");
        QTest::newRow("no signing certificate")
            << error("ERR_VANTRO_NO_SIGNING_CERTIFICATE")
            << QStringLiteral("Kortelėje nerastas pasirašymo sertifikatas.");
        QTest::newRow("no authentication certificate")
            << error("ERR_VANTRO_NO_AUTHENTICATION_CERTIFICATE")
            << QStringLiteral("Kortelėje nerastas prisijungimo sertifikatas.");
        QTest::newRow("card unsupported")
            << error("ERR_VANTRO_CARD_UNSUPPORTED")
            << QStringLiteral("Kortelė aptikta, bet Vantro Sign jos dar nepalaiko.");
        QTest::newRow("host timeout") << error("ERR_VANTRO_TIMEOUT") << timeout;
        QTest::newRow("codes compare case-sensitively") << error("err_vantro_timeout") << fallback;
        QTest::newRow("unknown") << error("something else") << fallback;
        QTest::newRow("plain text value") << QStringLiteral("'PKCS11_TOKEN_REMOVED'") << removed;
        QTest::newRow("object with message")
            << QStringLiteral("({message: 'ERR_VANTRO_TIMEOUT'})") << timeout;
        QTest::newRow("nothing") << QStringLiteral("undefined") << fallback;
    }

    void ltMessage()
    {
        QFETCH(QString, error);
        QFETCH(QString, text);
        QCOMPARE(m_app.page()
                     .eval(QStringLiteral("vantroUsbBridge.ltMessage(%1)").arg(error))
                     .toString(),
                 text);
    }
};

QTEST_MAIN(PageApiTest)
#include "tst_page_api.moc"
