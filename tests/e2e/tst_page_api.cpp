// The page API as the page sees it: what each function posts, how answers settle the promises,
// the install guard and the card error texts.
#include "e2e/BrowserHarness.h"

#include "api/SignApiClient.h"
#include "ui/PageScripts.h"

#include <QJsonDocument>
#include <QSet>
#include <QtTest>

using namespace vantro;
using namespace vantro::testing;

namespace {

// clang-format off
const char kCapabilities[] = "local_file_handles explorer_drag_drop_import local_root_watch local_root_selection mirror_queue signed_artifact_mirror artifact_reveal_exact "
    "artifact_reveal_v2 artifact_reveal_cancel windows_default_preview native_windows_preview native_windows_child_preview msoffice_wysiwyg_preview "
    "msoffice_preview_cache adoc_local_extract usb_bridge usb_sign_batch_native qt_bridge native_desktop_bridge native_updates";

// Methods sharing their call arguments and the arguments they must send.
const char* const kCallGroups[][3] = {
    {"sign:getStatus sign:getTheme sign:getLocalDeleteSettings sign:getLocalRoot sign:setLocalRoot sign:pickFiles "
     "sign:reconcileLocalRoot sign:retryMirrorQueue sign:closeNativePreview sign:openLocalRoot sign:getUpdateStatus "
     "sign:checkForUpdates sign:startUpdate sign:cancelUpdate sign:applyUpdate usb:isAvailable usb:diagnose "
     "usb:getSigningCertificate", "'ignored'", "[]"},
    {"sign:activate sign:setLocalDeleteSettings sign:listDocuments sign:mirrorArtifact sign:ensureLocalArtifactAndReveal "
     "sign:openServerDocument sign:renderServerDocumentPreview sign:warmServerDocumentPreview sign:showNativePreview "
     "usb:sign usb:authenticate", "", "[{}]"},
    {"sign:activate sign:listDocuments usb:signBatch", "{q: [1]}", R"([{"q":[1]}])"},
    {"sign:listJobs sign:listExternalInvitations sign:cancelArtifactReveal sign:openLocalFolder", "", R"([""])"},
    {"sign:setTheme sign:setQesVisualPosition sign:listJobs sign:deleteLocalDocument sign:uploadLocalDocument "
     "sign:cancelExternalInvitation sign:remindExternalInvitation sign:hashFile sign:getMirrorStatus "
     "sign:removeLocalArtifact sign:openLocalFile sign:revealLocalFile", "'x'", R"(["x"])"},
    {"sign:setTheme", "", "[null]"},
    {"sign:runPdfTool", "'d', 'merge'", R"(["d","merge",{}])"},
    {"sign:createExternalInvitation sign:queueUpload", "'x'", R"(["x",{}])"},
    {"sign:openLocalArtifactFolder", "'a'", R"(["a","",""])"},
    {"sign:getLocalArtifactStatus", "'a', 'p/x', 's'", R"(["a","p/x","s"])"},
    {"sign:removeLocalDocumentArtifacts", "'d'", R"(["d",""])"},
    {"sign:extractAdocFiles", "", R"([{"files":[]}])"}};

// ltMessage(error expression) and the text it must give.
const char* const kLtMessages[][2] = {
    {"new Error('VANTRO_USB_HELPER_UNAVAILABLE: gone')", "Vantro Sign USB/eID modulis šiame diegime nepasiekiamas."},
    {"new Error('ERR_VANTRO_ORIGIN_FORBIDDEN VANTRO_USB_HELPER_UNAVAILABLE')", "Vantro Sign USB/eID modulis šiame diegime nepasiekiamas."},
    {"new Error('ERR_VANTRO_ORIGIN_FORBIDDEN: rejected')", "Vantro Sign USB/eID modulis atmetė pasirašymo užklausą. Įdiekite naujausią Vantro Sign versiją ir bandykite dar kartą."},
    {"new Error('cannot load C:\\\\X\\\\MCARD-PKCS11.DLL')", "Nepavyko įkelti LT ID kortelės MaskTech/mCard komponento. Įdiekite MaskTech kortelės programinę įrangą, atjunkite ir vėl prijunkite kortelę, tada bandykite dar kartą."},
    {"new Error('C:\\\\Tools\\\\MCard\\\\x.dll')", "Nepavyko įkelti LT ID kortelės MaskTech/mCard komponento. Įdiekite MaskTech kortelės programinę įrangą, atjunkite ir vėl prijunkite kortelę, tada bandykite dar kartą."},
    {"new Error('/usr/lib/mcard/libx.so')", "Nepavyko įkelti LT ID kortelės MaskTech/mCard komponento. Įdiekite MaskTech kortelės programinę įrangą, atjunkite ir vėl prijunkite kortelę, tada bandykite dar kartą."},
    {"new Error('ERR_WEBEID_USER_CANCELLED /opt/mcard/x')", "Nepavyko įkelti LT ID kortelės MaskTech/mCard komponento. Įdiekite MaskTech kortelės programinę įrangą, atjunkite ir vėl prijunkite kortelę, tada bandykite dar kartą."},
    {"new Error('ERR_WEBEID_USER_CANCELLED SMART_CARD_CHANGE_REQUIRED')", "Kortelė aptikta, bet pasirašymo sertifikatai nepasiekiami. Jei naudojate Lietuvos MaskTech ID kortelę, užregistruokite ją mCard įrankiuose ir prijunkite iš naujo."},
    {"new Error('ERR_WEBEID_USER_CANCELLED: USER Cancelled')", "Kortelė aptikta, bet pasirašymo sertifikatai nepasiekiami. Jei naudojate Lietuvos MaskTech ID kortelę, užregistruokite ją mCard įrankiuose ir prijunkite iš naujo."},
    {"new Error('ERR_WEBEID_USER_CANCELLED')", "USB/eID veiksmas atšauktas. Bandykite dar kartą."},
    {"new Error('SMART_CARD_CHANGE_REQUIRED')", "Kortelė arba USB raktas neparuoštas pasirašymui. Jei naudojate Lietuvos MaskTech ID kortelę, užregistruokite ją mCard įrankiuose ir prijunkite iš naujo."},
    {"new Error('PKCS11_TOKEN_NOT_PRESENT')", "Kortelė arba USB raktas neaptiktas. Prijunkite priemonę ir bandykite dar kartą."},
    {"new Error('No Card Or Token Detected')", "Kortelė arba USB raktas neaptiktas. Prijunkite priemonę ir bandykite dar kartą."},
    {"new Error('PKCS11_TOKEN_REMOVED')", "Kortelė arba USB raktas buvo atjungtas. Prijunkite priemonę ir bandykite dar kartą."},
    {"new Error('The token WAS REMOVED')", "Kortelė arba USB raktas buvo atjungtas. Prijunkite priemonę ir bandykite dar kartą."},
    {"new Error('VANTRO_USB_HELPER_TIMEOUT_get-signing-certificate')", "USB/eID sertifikato skaitymas užstrigo. Patikrinkite, ar PIN langas nėra pasislėpęs už kitų langų, ar kortelė/tokenas prijungtas, ir bandykite dar kartą."},
    {"new Error('VANTRO_USB_HELPER_TIMEOUT_sign')", "USB/eID PIN pasirašymo veiksmas negrįžo laiku. Patikrinkite, ar PIN langas nėra pasislėpęs už kitų langų, ir bandykite dar kartą."},
    {"new Error('VANTRO_USB_HELPER_TIMEOUT_sign-batch')", "USB/eID PIN pasirašymo veiksmas negrįžo laiku. Patikrinkite, ar PIN langas nėra pasislėpęs už kitų langų, ir bandykite dar kartą."},
    {"new Error('VANTRO_USB_HELPER_TIMEOUT_diagnose')", "Vantro Sign USB/eID modulis neatsakė laiku."},
    {"new Error('ERR_VANTRO_MIDDLEWARE_MISSING')", "Nerasta reikiama kortelės tvarkyklė. Įdiekite kortelės ar USB rakto gamintojo programinę įrangą."},
    {"new Error('ERR_VANTRO_NO_SIGNING_CERTIFICATE')", "Kortelėje nerastas pasirašymo sertifikatas."},
    {"new Error('ERR_VANTRO_NO_AUTHENTICATION_CERTIFICATE')", "Kortelėje nerastas prisijungimo sertifikatas."},
    {"new Error('ERR_VANTRO_CARD_UNSUPPORTED')", "Kortelė aptikta, bet Vantro Sign jos dar nepalaiko."},
    {"new Error('ERR_VANTRO_TIMEOUT')", "Pasirašymo programa neatsako. Bandykite dar kartą."},
    {"new Error('err_vantro_timeout')", "USB/eID kortelės veiksmas nepavyko. Patikrinkite kortelę arba USB raktą ir bandykite dar kartą."},
    {"new Error('something else')", "USB/eID kortelės veiksmas nepavyko. Patikrinkite kortelę arba USB raktą ir bandykite dar kartą."},
    {"'PKCS11_TOKEN_REMOVED'", "Kortelė arba USB raktas buvo atjungtas. Prijunkite priemonę ir bandykite dar kartą."},
    {"({message: 'ERR_VANTRO_TIMEOUT'})", "Pasirašymo programa neatsako. Bandykite dar kartą."},
    {"undefined", "USB/eID kortelės veiksmas nepavyko. Patikrinkite kortelę arba USB raktą ir bandykite dar kartą."}};
// clang-format on

} // namespace

class PageApiTest : public QObject
{
    Q_OBJECT

private:
    AppWindow m_app;
    QSet<QString> m_ids; // ids the page made so far: each call gets a fresh one

    PageDriver& page() { return m_app.page(); }

    // Runs `call` and returns the message it posted; later posts go nowhere.
    QJsonObject postedBy(const QString& call)
    {
        QString posted;
        QEventLoop loop;
        m_app.host()->setMessageHandler([&](const QString& json, const QUrl&) {
            posted = json;
            loop.quit();
        });
        page().eval("void (" + call + "); 0");
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
        const QStringList names = QString(kCapabilities).split(' ');
        QCOMPARE(page().eval("[vantroSign.version, vantroUsbBridge.version]").toStringList(),
                 QStringList(2, "0.2.0-stage2a"));
        QCOMPARE(page().eval("Object.keys(vantroSign.capabilities)").toStringList(), names);
        QCOMPARE(page().eval("Object.values(vantroSign.capabilities)").toList(),
                 QVariantList(names.size(), true));
    }

    // Each function posts its own method with its arguments and defaults, under a fresh id.
    void postsCallMessages_data()
    {
        QTest::addColumn<QString>("method");
        QTest::addColumn<QByteArray>("args");
        for (const auto& group : kCallGroups) {
            for (const QString& method : QString(group[0]).split(' ')) {
                const QString call =
                    (method.startsWith("usb:") ? "vantroUsbBridge." : "vantroSign.") +
                    method.section(':', 1) + '(' + group[1] + ')';
                QTest::newRow(qPrintable(call)) << method << QByteArray(group[2]);
            }
        }
    }

    void postsCallMessages()
    {
        QFETCH(QString, method);
        QFETCH(QByteArray, args);
        QJsonObject message = postedBy(QString::fromUtf8(QTest::currentDataTag()));
        const QString id = message.take("id").toString();
        QCOMPARE(message, (QJsonObject{{"vantroSignBridge", true},
                                       {"method", method},
                                       {"args", QJsonDocument::fromJson(args).array()},
                                       {"href", page().url().toString()}}));
        QVERIFY2(id.startsWith("vantro-") && !m_ids.contains(id), qPrintable(id));
        m_ids << id;
    }

    // An answer settles only the call with its id, and only with the answer marker; "ok"
    // missing resolves, false rejects with the error's code.
    void answersSettleTheirOwnCall()
    {
        const QString a = postedBy("window.__a = vantroSign.getTheme()").value("id").toString();
        const QString b = postedBy("window.__b = vantroSign.getTheme()").value("id").toString();
        for (const QString& answer :
             {R"({"id":")" + a + R"(","result":{"value":"unmarked"}})",
              R"({"vantroSignBridgeResult":true,"id":")" + a + R"(","result":{"value":"light"}})",
              R"({"vantroSignBridgeResult":true,"id":")" + b +
                  R"(","result":{"ok":false,"error":{"code":"X_FAILED","message":"boom"}}})"})
            m_app.host()->postWebMessageAsJson(answer.toUtf8());
        QCOMPARE(page().await("__a"), (QJsonObject{{"ok", true}, {"value", "light"}}));
        QCOMPARE(page().await("__b"),
                 (QJsonObject{{"ok", false}, {"message", "boom"}, {"code", "X_FAILED"}}));
    }

    // A second run keeps the installed objects; without the guard the same text reinstalls.
    void secondRunInSameDocumentDoesNothing()
    {
        const QString source =
            pagescripts::pageApiSource(m_app.window()->apiClient()->webAppOrigin());
        page().eval("vantroSign.__marker = 42; " + source + "; 0");
        QCOMPARE(page().eval("vantroSign.__marker").toInt(), 42);
        page().eval("delete window.__vantroStage2ABridgeInstalled; " + source + "; 0");
        QCOMPARE(page().eval("typeof vantroSign.__marker").toString(), "undefined");
    }

    void ltMessage_data()
    {
        QTest::addColumn<QString>("text");
        for (const auto& [error, text] : kLtMessages)
            QTest::newRow(error) << QString::fromUtf8(text);
    }

    void ltMessage()
    {
        QFETCH(QString, text);
        const QString error = QString::fromUtf8(QTest::currentDataTag());
        QCOMPARE(page().eval("vantroUsbBridge.ltMessage(" + error + ")").toString(), text);
    }
};

QTEST_MAIN(PageApiTest)
#include "tst_page_api.moc"
