// The page API as the page sees it: what each function posts, how answers settle the promises,
// the install guard and the card error texts. Real window, real browser, pages on loopback.
#include "e2e/BrowserHarness.h"

#include "api/SignApiClient.h"
#include "app/OrderedJson.h"
#include "ui/PageScripts.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QRegularExpression>
#include <QtTest>

#include <utility>

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
    QString m_lastId;

    PageDriver& page() { return m_app.page(); }

    // Runs `call` and returns the message it posted. From then on posts go nowhere: answers are
    // the test's to give.
    QJsonObject postedBy(const QString& call)
    {
        QString posted;
        QEventLoop loop;
        m_app.host()->setMessageHandler([&](const QString& json, const QUrl&) {
            posted = json;
            loop.quit();
        });
        page().eval(QStringLiteral("void (%1); 0").arg(call));
        if (posted.isEmpty())
            runUntil(loop);
        m_app.host()->setMessageHandler([](const QString&, const QUrl&) {});
        return QJsonDocument::fromJson(posted.toUtf8()).object();
    }

private Q_SLOTS:
    void initTestCase() { QVERIFY(m_app.open()); }
    void init() { QVERIFY(m_app.reset()); }

    void exposesVersionAndCapabilitiesInOrder()
    {
        const QVariantList values =
            page()
                .eval(QStringLiteral("[vantroSign.version, vantroUsbBridge.version,"
                                     " Object.keys(vantroSign.capabilities),"
                                     " Object.values(vantroSign.capabilities)]"))
                .toList();
        QCOMPARE(values.size(), 4);
        QCOMPARE(values.at(0).toString(), QStringLiteral("0.2.0-stage2a"));
        QCOMPARE(values.at(1).toString(), QStringLiteral("0.2.0-stage2a"));
        const QStringList expected =
            QStringLiteral(
                "local_file_handles explorer_drag_drop_import local_root_watch "
                "local_root_selection "
                "mirror_queue signed_artifact_mirror artifact_reveal_exact artifact_reveal_v2 "
                "artifact_reveal_cancel windows_default_preview native_windows_preview "
                "native_windows_child_preview msoffice_wysiwyg_preview msoffice_preview_cache "
                "adoc_local_extract usb_bridge usb_sign_batch_native qt_bridge "
                "native_desktop_bridge "
                "native_updates")
                .split(' ');
        QCOMPARE(values.at(2).toStringList(), expected);
        QCOMPARE(values.at(3).toList(), QVariantList(expected.size(), QVariant(true)));
    }

    void postsCallMessages_data()
    {
        QTest::addColumn<QString>("call");
        QTest::addColumn<QString>("args");
        // Functions without arguments send none, whatever the page passes.
        for (const char* name :
             {"getStatus", "getTheme", "getLocalDeleteSettings", "getLocalRoot", "setLocalRoot",
              "pickFiles", "reconcileLocalRoot", "retryMirrorQueue", "closeNativePreview",
              "openLocalRoot", "getUpdateStatus", "checkForUpdates", "startUpdate", "cancelUpdate",
              "applyUpdate"})
            QTest::newRow(name) << QStringLiteral("vantroSign.%1('ignored')").arg(name) << "[]";
        for (const char* name : {"isAvailable", "diagnose", "getSigningCertificate"})
            QTest::newRow(name) << QStringLiteral("vantroUsbBridge.%1('ignored')").arg(name)
                                << "[]";
        const char* const calls[][2] = {
            {"vantroSign.activate()", "[{}]"},
            {"vantroSign.activate({code: 'A1'})", R"([{"code":"A1"}])"},
            {"vantroSign.setTheme('dark')", R"(["dark"])"},
            {"vantroSign.setTheme()", "[null]"},
            {"vantroSign.setLocalDeleteSettings()", "[{}]"},
            {"vantroSign.setQesVisualPosition('top_left')", R"(["top_left"])"},
            {"vantroSign.listDocuments()", "[{}]"},
            {"vantroSign.listDocuments({q: 'x'})", R"([{"q":"x"}])"},
            {"vantroSign.listJobs()", R"([""])"},
            {"vantroSign.listJobs('d1')", R"(["d1"])"},
            {"vantroSign.deleteLocalDocument('d1')", R"(["d1"])"},
            {"vantroSign.uploadLocalDocument('d1')", R"(["d1"])"},
            {"vantroSign.runPdfTool('d1', 'merge')", R"(["d1","merge",{}])"},
            {"vantroSign.listExternalInvitations()", R"([""])"},
            {"vantroSign.createExternalInvitation('d1')", R"(["d1",{}])"},
            {"vantroSign.cancelExternalInvitation('i1')", R"(["i1"])"},
            {"vantroSign.remindExternalInvitation('i1')", R"(["i1"])"},
            {"vantroSign.hashFile('h1')", R"(["h1"])"},
            {"vantroSign.queueUpload('h1')", R"(["h1",{}])"},
            {"vantroSign.mirrorArtifact()", "[{}]"},
            {"vantroSign.ensureLocalArtifactAndReveal()", "[{}]"},
            {"vantroSign.cancelArtifactReveal()", R"([""])"},
            {"vantroSign.getMirrorStatus('a1')", R"(["a1"])"},
            {"vantroSign.openServerDocument()", "[{}]"},
            {"vantroSign.renderServerDocumentPreview()", "[{}]"},
            {"vantroSign.warmServerDocumentPreview()", "[{}]"},
            {"vantroSign.showNativePreview()", "[{}]"},
            {"vantroSign.openLocalFolder()", R"([""])"},
            {"vantroSign.openLocalArtifactFolder('a1')", R"(["a1","",""])"},
            {"vantroSign.getLocalArtifactStatus('a1', 'p/x', 's1')", R"(["a1","p/x","s1"])"},
            {"vantroSign.removeLocalArtifact('a1')", R"(["a1"])"},
            {"vantroSign.removeLocalDocumentArtifacts('d1')", R"(["d1",""])"},
            {"vantroSign.extractAdocFiles()", R"([{"files":[]}])"},
            {"vantroSign.openLocalFile('f1')", R"(["f1"])"},
            {"vantroSign.revealLocalFile('f1')", R"(["f1"])"},
            {"vantroUsbBridge.sign()", "[{}]"},
            {"vantroUsbBridge.signBatch({items: [1]})", R"([{"items":[1]}])"},
            {"vantroUsbBridge.authenticate()", "[{}]"}};
        for (const auto& call : calls)
            QTest::newRow(call[0]) << call[0] << call[1];
    }

    // Each function calls the method of its own name: "sign:" for vantroSign, "usb:" for
    // vantroUsbBridge.
    void postsCallMessages()
    {
        QFETCH(QString, call);
        QFETCH(QString, args);
        const QJsonObject message = postedBy(call);
        const QString prefix = call.startsWith("vantroSign.") ? "sign:" : "usb:";
        QCOMPARE(message.value("vantroSignBridge"), QJsonValue(true));
        QCOMPARE(message.value("method").toString(),
                 prefix + call.section('.', 1).section('(', 0, 0));
        QCOMPARE(message.value("args"), parseJson(args));
        QCOMPARE(message.value("href").toString(), page().url().toString());
        // Answers find their promise by id: every call needs its own.
        const QString id = message.value("id").toString();
        static const QRegularExpression idPattern(QStringLiteral("^vantro-[0-9a-z]+-[0-9a-z]+$"));
        QVERIFY2(idPattern.match(id).hasMatch(), qPrintable(id));
        QVERIFY(id != std::exchange(m_lastId, id));
    }

    void settlesOnlyItsOwnAnswer_data()
    {
        QTest::addColumn<QString>("result");
        QTest::addColumn<QString>("outcome"); // as the page's await sees it
        QTest::newRow("success") << R"({"ok":true,"value":{"a":[1,2]}})"
                                 << R"({"ok":true,"value":{"a":[1,2]}})";
        QTest::newRow("ok missing resolves") << R"({"value":"light"})"
                                             << R"({"ok":true,"value":"light"})";
        QTest::newRow("ok not exactly false resolves") << R"({"ok":0,"value":5})"
                                                       << R"({"ok":true,"value":5})";
        QTest::newRow("failure") << R"({"ok":false,"error":{"code":"X_FAILED","message":"boom"}})"
                                 << R"({"ok":false,"message":"boom","code":"X_FAILED"})";
        QTest::newRow("failure without message")
            << R"({"ok":false,"error":{"code":"X_FAILED"}})"
            << R"({"ok":false,"message":"VANTRO_SIGN_BRIDGE_ERROR","code":"X_FAILED"})";
        QTest::newRow("failure without error")
            << R"({"ok":false})"
            << R"({"ok":false,"message":"VANTRO_SIGN_BRIDGE_ERROR","code":null})";
    }

    // Answers for other ids or without the answer marker leave the promise pending; the one
    // matching answer settles it.
    void settlesOnlyItsOwnAnswer()
    {
        QFETCH(QString, result);
        QFETCH(QString, outcome);
        const QJsonObject call = postedBy(QStringLiteral("window.__call = vantroSign.getTheme()"));
        QVERIFY(call.contains("id"));
        const QString id = js(call.value("id").toString());
        page().eval(QStringLiteral("window.__settled = false; window.__call.then(function () {"
                                   " window.__settled = true; }, function () {"
                                   " window.__settled = true; }); 0"));
        for (const QString& other :
             {QStringLiteral(R"({"vantroSignBridgeResult":true,"id":"vantro-other","result":{}})"),
              QStringLiteral(R"({"id":%1,"result":{}})").arg(id),
              QStringLiteral(R"({"vantroSignBridgeResult":false,"id":%1,"result":{}})").arg(id)})
            m_app.host()->postWebMessageAsJson(other.toUtf8());
        QVERIFY(page().settle());
        QCOMPARE(page().eval(QStringLiteral("window.__settled")).toBool(), false);

        m_app.host()->postWebMessageAsJson(
            QStringLiteral(R"({"vantroSignBridgeResult":true,"id":%1,"result":%2})")
                .arg(id, result)
                .toUtf8());
        QCOMPARE(page().await(QStringLiteral("window.__call")), parseJson(outcome).toObject());
    }

    // A second run keeps the installed objects; without the guard the same text would install
    // afresh.
    void secondRunInSameDocumentDoesNothing()
    {
        const QString source =
            pagescripts::pageApiSource(m_app.window()->apiClient()->webAppOrigin());
        QVERIFY(!source.isEmpty());
        page().eval(QStringLiteral("window.vantroSign.__marker = 42; %1; 0").arg(source));
        QCOMPARE(page().eval(QStringLiteral("window.vantroSign.__marker")).toInt(), 42);
        page().eval(
            QStringLiteral("delete window.__vantroStage2ABridgeInstalled; %1; 0").arg(source));
        QCOMPARE(page().eval(QStringLiteral("typeof window.vantroSign.__marker")).toString(),
                 QStringLiteral("undefined"));
    }

    void ltMessage_data()
    {
        QTest::addColumn<QString>("error"); // a JavaScript expression
        QTest::addColumn<QString>("text");
        const auto row = [](const char* name, const char* message, const QString& text) {
            QTest::newRow(name) << QStringLiteral("new Error(%1)").arg(js(message)) << text;
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

        row("helper unavailable", "VANTRO_USB_HELPER_UNAVAILABLE: gone", unavailable);
        row("helper unavailable before origin",
            "ERR_VANTRO_ORIGIN_FORBIDDEN VANTRO_USB_HELPER_UNAVAILABLE", unavailable);
        row("origin forbidden", "ERR_VANTRO_ORIGIN_FORBIDDEN: rejected",
            "Vantro Sign USB/eID modulis atmetė pasirašymo užklausą. Įdiekite naujausią Vantro "
            "Sign versiją ir bandykite dar kartą.");
        row("mcard library in capitals", "cannot load C:\\X\\MCARD-PKCS11.DLL", mcard);
        row("mcard windows folder", "C:\\Tools\\MCard\\x.dll", mcard);
        row("mcard unix folder", "/usr/lib/mcard/libx.so", mcard);
        row("mcard before cancel", "ERR_WEBEID_USER_CANCELLED /opt/mcard/x", mcard);
        row("cancelled with card change", "ERR_WEBEID_USER_CANCELLED SMART_CARD_CHANGE_REQUIRED",
            noCertificates);
        row("cancelled with user cancelled in any case",
            "ERR_WEBEID_USER_CANCELLED: USER Cancelled", noCertificates);
        row("cancelled", "ERR_WEBEID_USER_CANCELLED",
            "USB/eID veiksmas atšauktas. Bandykite dar kartą.");
        row("card change", "SMART_CARD_CHANGE_REQUIRED",
            "Kortelė arba USB raktas neparuoštas pasirašymui. Jei naudojate Lietuvos MaskTech ID "
            "kortelę, užregistruokite ją mCard įrankiuose ir prijunkite iš naujo.");
        row("token not present", "PKCS11_TOKEN_NOT_PRESENT", notPresent);
        row("no card text in any case", "No Card Or Token Detected", notPresent);
        row("token removed", "PKCS11_TOKEN_REMOVED", removed);
        row("was removed text", "The token WAS REMOVED", removed);
        row("certificate timeout", "VANTRO_USB_HELPER_TIMEOUT_get-signing-certificate",
            "USB/eID sertifikato skaitymas užstrigo. Patikrinkite, ar PIN langas nėra "
            "pasislėpęs už kitų langų, ar kortelė/tokenas prijungtas, ir bandykite dar kartą.");
        row("sign timeout", "VANTRO_USB_HELPER_TIMEOUT_sign", signTimeout);
        row("batch sign timeout", "VANTRO_USB_HELPER_TIMEOUT_sign-batch", signTimeout);
        row("other helper timeout", "VANTRO_USB_HELPER_TIMEOUT_diagnose",
            "Vantro Sign USB/eID modulis neatsakė laiku.");
        row("middleware missing", "ERR_VANTRO_MIDDLEWARE_MISSING",
            "Nerasta reikiama kortelės tvarkyklė. Įdiekite kortelės ar USB rakto gamintojo "
            "programinę įrangą.");
        row("no signing certificate", "ERR_VANTRO_NO_SIGNING_CERTIFICATE",
            "Kortelėje nerastas pasirašymo sertifikatas.");
        row("no authentication certificate", "ERR_VANTRO_NO_AUTHENTICATION_CERTIFICATE",
            "Kortelėje nerastas prisijungimo sertifikatas.");
        row("card unsupported", "ERR_VANTRO_CARD_UNSUPPORTED",
            "Kortelė aptikta, bet Vantro Sign jos dar nepalaiko.");
        row("host timeout", "ERR_VANTRO_TIMEOUT", timeout);
        row("codes compare case-sensitively", "err_vantro_timeout", fallback);
        row("unknown", "something else", fallback);
        QTest::newRow("plain text value") << QStringLiteral("'PKCS11_TOKEN_REMOVED'") << removed;
        QTest::newRow("object with message")
            << QStringLiteral("({message: 'ERR_VANTRO_TIMEOUT'})") << timeout;
        QTest::newRow("nothing") << QStringLiteral("undefined") << fallback;
    }

    void ltMessage()
    {
        QFETCH(QString, error);
        QFETCH(QString, text);
        QCOMPARE(page().eval(QStringLiteral("vantroUsbBridge.ltMessage(%1)").arg(error)).toString(),
                 text);
    }
};

QTEST_MAIN(PageApiTest)
#include "tst_page_api.moc"
