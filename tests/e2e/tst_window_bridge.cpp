// The bridge end to end through the window: page calls and their answers, the origin check on
// the address the browser reports, the exclusive rule, and desktop events and their target.
#include "e2e/BrowserHarness.h"

#include "bridge/DesktopBridge.h"
#include "ui/SignAppWindow.h"
#include "ui/WebHost.h"

#include <QEventLoop>
#include <QJsonArray>
#include <QJsonDocument>
#include <QTimer>
#include <QtTest>

using namespace vantro;
using namespace vantro::testing;

namespace {

const QString kForbidden = QStringLiteral("ERR_VANTRO_ORIGIN_FORBIDDEN");
const QString kForbiddenMessage = QStringLiteral("Vantro Sign bridge rejected this origin.");

// A call the page makes past the page API, straight onto the channel; resolves with the answer.
QString rawCall(const QString& id, const QString& method, const QString& href = {})
{
    return QStringLiteral(R"(new Promise(function (resolve) {
        window.chrome.webview.addEventListener('message', function (event) {
            if (event.data && event.data.id === '%1')
                resolve(event.data.result);
        });
        window.chrome.webview.postMessage({ vantroSignBridge: true, id: '%1', method: '%2',
                                            args: [], href: '%3' || window.location.href });
    }))")
        .arg(id, method, href);
}

} // namespace

class WindowBridgeTest : public QObject
{
    Q_OBJECT

private:
    AppWindow m_app;
    PageServer m_foreign;

    PageDriver& page() { return m_app.page(); }

    // The answer ids the page saw on its channel.
    QStringList answeredIds()
    {
        QStringList ids;
        for (const QJsonObject& answer : page().answers())
            ids << answer.value("id").toString();
        return ids;
    }

    QList<QJsonObject> desktopEvents()
    {
        QList<QJsonObject> events;
        for (const QJsonObject& event : page().events()) {
            if (event.contains("vantroSignDesktopEvent"))
                events << event;
        }
        return events;
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

    // The page receives exactly what the bridge computes, keys in the same order.
    void getStatusRoundTrip()
    {
        const QJsonObject outcome =
            page().await(QStringLiteral("vantroSign.getStatus().then(function (status) {"
                                        " return {keys: Object.keys(status), status: status}; })"));
        QVERIFY2(outcome.value("ok").toBool(), qPrintable(outcome.value("message").toString()));
        const QJsonObject value = outcome.value("value").toObject();
        const OrderedObject native = m_app.window()->desktopBridge()->handle(
            QStringLiteral("sign:getStatus"), {}, m_app.appUrl().toString());
        const QVariant nativeStatus = native.value(QStringLiteral("value"));
        QVERIFY(nativeStatus.canConvert<OrderedObject>());
        QCOMPARE(value.value("keys").toVariant().toStringList(),
                 nativeStatus.value<OrderedObject>().keys());
        QVERIFY(!value.value("keys").toArray().isEmpty());
    }

    // The native side finds the transport's receiver by name; a page script must not be able
    // to swap it and swallow the answers.
    void transportReceiverCannotBeReplaced()
    {
        page().eval(QStringLiteral("try { qt.webChannelTransport.onmessage = function () {}; }"
                                   " catch (e) {} 0"));
        const QJsonObject outcome = page().await(QStringLiteral("vantroSign.getTheme()"));
        QVERIFY2(outcome.value("ok").toBool(), "the answer did not reach the page");
    }

    void setThemeRoundTripChangesTheWindow()
    {
        const QJsonObject dark = page().await(QStringLiteral("vantroSign.setTheme('dark')"));
        QCOMPARE(dark.value("value").toString(), QStringLiteral("dark"));
        const QJsonObject read = page().await(QStringLiteral("vantroSign.getTheme()"));
        QCOMPARE(read.value("value").toString(), QStringLiteral("dark"));
        const QColor darkBackground = m_app.window()->palette().color(QPalette::Window);
        page().await(QStringLiteral("vantroSign.setTheme('light')"));
        QVERIFY(m_app.window()->palette().color(QPalette::Window) != darkBackground);
    }

    void rawMessages_data()
    {
        QTest::addColumn<QString>("message"); // JavaScript value posted on the channel
        QTest::addColumn<QString>("id");
        QTest::addColumn<QString>("code"); // empty: no answer at all
        QTest::addColumn<QString>("errorMessage");
        QTest::newRow("other method family")
            << R"({vantroSignBridge: true, id: 'raw-1', method: 'file:open', args: []})"
            << "raw-1"
            << "VANTRO_SIGN_BRIDGE_METHOD_UNKNOWN"
            << "file:open";
        QTest::newRow("unknown sign method")
            << R"({vantroSignBridge: true, id: 'raw-2', method: 'sign:nothing', args: []})"
            << "raw-2"
            << "VANTRO_SIGN_BRIDGE_METHOD_UNKNOWN"
            << "sign:nothing";
        QTest::newRow("unknown usb method")
            << R"({vantroSignBridge: true, id: 'raw-3', method: 'usb:nothing'})"
            << "raw-3"
            << "VANTRO_SIGN_BRIDGE_METHOD_UNKNOWN"
            << "usb:nothing";
        QTest::newRow("marker as text")
            << R"({vantroSignBridge: 'true', id: 'raw-4', method: 'sign:getStatus', args: []})"
            << "raw-4" << QString() << QString();
        QTest::newRow("marker missing") << R"({id: 'raw-5', method: 'sign:getStatus', args: []})"
                                        << "raw-5" << QString() << QString();
        QTest::newRow("empty id")
            << R"({vantroSignBridge: true, id: '', method: 'sign:getStatus', args: []})"
            << "" << QString() << QString();
        QTest::newRow("not an object") << R"(['raw-7'])"
                                       << "raw-7" << QString() << QString();
    }

    // A valid call posted after the raw one is answered after it, so when that answer is in,
    // the raw one has had its chance.
    void rawMessages()
    {
        QFETCH(QString, message);
        QFETCH(QString, id);
        QFETCH(QString, code);
        QFETCH(QString, errorMessage);
        page().eval(QStringLiteral("window.chrome.webview.postMessage(%1); 0").arg(message));
        QVERIFY(page().await(QStringLiteral("vantroSign.getTheme()")).value("ok").toBool());
        QVERIFY(page().settle());
        const QList<QJsonObject> answers = page().answers();
        const auto answer = std::find_if(answers.begin(), answers.end(), [&](const QJsonObject& a) {
            return a.value("id").toString() == id;
        });
        if (code.isEmpty()) {
            QVERIFY2(answer == answers.end(), "an ignored message was answered");
            QCOMPARE(answers.size(), 1);
            return;
        }
        QVERIFY(answer != answers.end());
        QCOMPARE(answer->value("vantroSignBridgeResult"), QJsonValue(true));
        const QJsonObject result = answer->value("result").toObject();
        QCOMPARE(result.value("ok"), QJsonValue(false));
        QCOMPARE(result.value("error").toObject().value("code").toString(), code);
        QCOMPARE(result.value("error").toObject().value("message").toString(), errorMessage);
    }

    void callsFromPagesOutsideTheApplication_data()
    {
        QTest::addColumn<QString>("url");
        QTest::addColumn<bool>("hasApi");
        QTest::addColumn<QString>("method");
        QTest::newRow("localhost alias of the origin, synchronous method")
            << "http://localhost:8000/sign/app/" << true << "sign:getStatus";
        QTest::newRow("localhost alias of the origin, worker method")
            << "http://localhost:8000/sign/app/" << true << "sign:hashFile";
        QTest::newRow("application origin, other path")
            << "http://127.0.0.1:8000/other/path" << false << "sign:getStatus";
        QTest::newRow("foreign origin") << "FOREIGN/sign/app/" << false << "sign:getStatus";
        QTest::newRow("foreign origin, exclusive method")
            << "FOREIGN/sign/app/" << false << "sign:pickFiles";
    }

    void callsFromPagesOutsideTheApplication()
    {
        QFETCH(QString, url);
        QFETCH(bool, hasApi);
        QFETCH(QString, method);
        url.replace(QStringLiteral("FOREIGN"), m_foreign.origin());
        m_app.allowAnyPage();
        QVERIFY(page().load(QUrl(url)));
        QCOMPARE(page().eval(QStringLiteral("typeof window.vantroSign")).toString(),
                 hasApi ? QStringLiteral("object") : QStringLiteral("undefined"));
        // A forged call that claims to come from the application.
        const QJsonObject outcome =
            page().await(rawCall(QStringLiteral("forged-1"), method, m_app.appUrl().toString()));
        QVERIFY(outcome.value("ok").toBool());
        const QJsonObject result = outcome.value("value").toObject();
        QCOMPARE(result.value("ok"), QJsonValue(false));
        QCOMPARE(result.value("error").toObject().value("code").toString(), kForbidden);
        QCOMPARE(result.value("error").toObject().value("message").toString(), kForbiddenMessage);
        QCOMPARE(m_app.shell().pickFilesCalls, 0);
    }

    // The source is the page's address when the message arrives, not what the page claims.
    void sourceFollowsHistoryChanges()
    {
        page().eval(QStringLiteral("history.pushState({}, '', '/other/path'); 0"));
        QJsonObject outcome =
            page().await(rawCall(QStringLiteral("pushed-1"), QStringLiteral("sign:getTheme"),
                                 m_app.appUrl().toString()));
        QCOMPARE(
            outcome.value("value").toObject().value("error").toObject().value("code").toString(),
            kForbidden);
        page().eval(QStringLiteral("history.pushState({}, '', '/sign/app/documents/1#x'); 0"));
        outcome = page().await(QStringLiteral("vantroSign.getTheme()"));
        QVERIFY2(outcome.value("ok").toBool(), qPrintable(outcome.value("message").toString()));
    }

    void workerMethodsAnswerTheApplication()
    {
        QSignalSpy posted(m_app.window()->bridgeChannel(), &BridgeChannel::resultPosted);
        const QJsonObject outcome = page().await(QStringLiteral("vantroSign.hashFile('none')"));
        // Served by a worker bridge (the row's component is not in this build), not refused.
        QCOMPARE(outcome.value("code").toString(),
                 QStringLiteral("VANTRO_SIGN_COMPONENT_UNAVAILABLE"));
        QCOMPARE(outcome.value("message").toString(),
                 QStringLiteral("Local file handles is not available in this build."));
        QCOMPARE(posted.count(), 1);
    }

    // A pick held open in its dialog keeps the exclusive flag: the page's own pick is refused
    // at once, a non-exclusive call is served, and the flag is free again afterwards. (The
    // browser does not deliver page messages while a page call sits in a dialog, so the first
    // pick comes from the desktop side.)
    void exclusiveCallsDoNotOverlap()
    {
        QJsonObject during;
        m_app.shell().pickFilesCalls = 0;
        m_app.shell().onPickFiles = [&] {
            during = page().await(QStringLiteral(
                "Promise.allSettled([vantroSign.pickFiles(), vantroSign.getTheme()])"
                ".then(function (all) { return all.map(function (r) {"
                " return r.status === 'fulfilled' ? {ok: true, value: r.value}"
                " : {ok: false, code: r.reason.code, message: r.reason.message}; }); })"));
            return QStringList();
        };
        const OrderedObject first = m_app.window()->desktopBridge()->handle(
            QStringLiteral("sign:pickFiles"), {}, m_app.appUrl().toString());
        m_app.shell().onPickFiles = nullptr;
        // The cancelled dialog imports nothing, which the import refuses.
        const QString nothingPicked = QStringLiteral("VANTRO_SIGN_IMPORT_FILES_REQUIRED");
        QCOMPARE(variantMember(first.value(QStringLiteral("error")), QStringLiteral("code")),
                 QVariant(nothingPicked));
        const QJsonArray results = during.value("value").toArray();
        QCOMPARE(results.size(), 2);
        QCOMPARE(results.at(0).toObject().value("ok"), QJsonValue(false));
        QCOMPARE(results.at(0).toObject().value("code").toString(),
                 QStringLiteral("VANTRO_SIGN_BRIDGE_BUSY"));
        QCOMPARE(results.at(0).toObject().value("message").toString(),
                 QStringLiteral("Vantro Sign is still processing the previous desktop request."));
        QCOMPARE(results.at(1).toObject().value("ok"), QJsonValue(true));
        QCOMPARE(m_app.shell().pickFilesCalls, 1);

        const QJsonObject again = page().await(QStringLiteral("vantroSign.pickFiles()"));
        QCOMPARE(again.value("code").toString(), nothingPicked);
        QCOMPARE(m_app.shell().pickFilesCalls, 2);
    }

    void desktopEventsReachTheApplicationPage()
    {
        m_app.window()->bridgeChannel()->emitDesktopEvent(QStringLiteral("vantro-sign-test-event"),
                                                          QVariantMap{{"n", 1}});
        QVERIFY(page().settle());
        const QList<QJsonObject> events = desktopEvents();
        QCOMPARE(events.size(), 1);
        QCOMPARE(events.first(), QJsonDocument::fromJson(R"({"vantroSignDesktopEvent":true,
                     "type":"vantro-sign-test-event","detail":{"n":1}})")
                                     .object());
        // Events and answers are told apart by their marker keys.
        QVERIFY(page().answers().isEmpty());
    }

    void desktopEventsMissPagesOfOtherOrigins_data()
    {
        QTest::addColumn<QString>("url");
        QTest::newRow("localhost alias") << "http://localhost:8000/sign/app/";
        QTest::newRow("foreign origin") << "FOREIGN/sign/app/";
    }

    void desktopEventsMissPagesOfOtherOrigins()
    {
        QFETCH(QString, url);
        url.replace(QStringLiteral("FOREIGN"), m_foreign.origin());
        m_app.allowAnyPage();
        QVERIFY(page().load(QUrl(url)));
        m_app.window()->bridgeChannel()->emitDesktopEvent(QStringLiteral("vantro-sign-test-event"),
                                                          QVariantMap{{"n", 2}});
        QVERIFY(page().settle());
        QVERIFY(desktopEvents().isEmpty());
    }
};

QTEST_MAIN(WindowBridgeTest)
#include "tst_window_bridge.moc"
