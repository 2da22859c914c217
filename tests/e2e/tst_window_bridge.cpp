// The bridge end to end through the window: page calls and their answers, which pages get the
// API, the origin check on the address the browser reports, the exclusive rule, and desktop
// events and their target.
#include "e2e/BrowserHarness.h"

#include "bridge/DesktopBridge.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QtTest>

using namespace vantro;
using namespace vantro::testing;

namespace {

const QString kForbidden = QStringLiteral("ERR_VANTRO_ORIGIN_FORBIDDEN");
const QString kUnknown = QStringLiteral("VANTRO_SIGN_BRIDGE_METHOD_UNKNOWN");

} // namespace

class WindowBridgeTest : public QObject
{
    Q_OBJECT

private:
    AppWindow m_app;

    PageDriver& page() { return m_app.page(); }

private Q_SLOTS:
    void initTestCase() { QVERIFY(m_app.open()); }
    void init() { QVERIFY(m_app.reset()); }

    // The page receives exactly what the bridge computes, keys in the same order. The native
    // side finds the transport's receiver by name, so a page script cannot swap it to swallow
    // the answers.
    void getStatusRoundTrip()
    {
        page().eval(QStringLiteral("try { qt.webChannelTransport.onmessage = function () {}; }"
                                   " catch (e) {} 0"));
        const QJsonObject outcome =
            page().await(QStringLiteral("vantroSign.getStatus().then(Object.keys)"));
        QVERIFY2(outcome.value("ok").toBool(), qPrintable(outcome.value("message").toString()));
        const OrderedObject native = m_app.window()->desktopBridge()->handle(
            QStringLiteral("sign:getStatus"), {}, m_app.appUrl().toString());
        const QStringList keys =
            native.value(QStringLiteral("value")).value<OrderedObject>().keys();
        QVERIFY(!keys.isEmpty());
        QCOMPARE(outcome.value("value").toVariant().toStringList(), keys);
    }

    void setThemeRoundTripChangesTheWindow()
    {
        QCOMPARE(page().await(QStringLiteral("vantroSign.setTheme('dark')")).value("value"),
                 QJsonValue("dark"));
        QCOMPARE(page().await(QStringLiteral("vantroSign.getTheme()")).value("value"),
                 QJsonValue("dark"));
        const QColor dark = m_app.window()->palette().color(QPalette::Window);
        QCOMPARE(page().await(QStringLiteral("vantroSign.setTheme('light')")).value("value"),
                 QJsonValue("light"));
        QVERIFY(m_app.window()->palette().color(QPalette::Window) != dark);
    }

    void rawMessages_data()
    {
        QTest::addColumn<QString>("message"); // JavaScript value posted on the channel
        QTest::addColumn<QString>("method");  // named in the answer; empty: no answer at all
        QTest::newRow("other method family")
            << "{vantroSignBridge: true, id: 'raw', method: 'file:open', args: []}"
            << "file:open";
        QTest::newRow("unknown sign method")
            << "{vantroSignBridge: true, id: 'raw', method: 'sign:nothing', args: []}"
            << "sign:nothing";
        QTest::newRow("unknown usb method, no arguments")
            << "{vantroSignBridge: true, id: 'raw', method: 'usb:nothing'}"
            << "usb:nothing";
        QTest::newRow("marker as text")
            << "{vantroSignBridge: 'true', id: 'raw', method: 'sign:getStatus', args: []}"
            << QString();
        QTest::newRow("marker missing")
            << "{id: 'raw', method: 'sign:getStatus', args: []}" << QString();
        QTest::newRow("empty id")
            << "{vantroSignBridge: true, id: '', method: 'sign:getStatus', args: []}" << QString();
        QTest::newRow("not an object") << "['raw']" << QString();
    }

    // A valid call posted after the raw one is answered after it, so once that answer is in,
    // the raw one has had its chance.
    void rawMessages()
    {
        QFETCH(QString, message);
        QFETCH(QString, method);
        page().eval(QStringLiteral("window.chrome.webview.postMessage(%1); 0").arg(message));
        QVERIFY(page().await(QStringLiteral("vantroSign.getTheme()")).value("ok").toBool());
        QVERIFY(page().settle());
        const QList<QJsonObject> answers = page().answers();
        QCOMPARE(answers.size(), method.isEmpty() ? 1 : 2);
        if (method.isEmpty())
            return;
        const QJsonObject error{{"code", kUnknown}, {"message", method}};
        QCOMPARE(answers.first(),
                 (QJsonObject{{"vantroSignBridgeResult", true},
                              {"id", "raw"},
                              {"result", QJsonObject{{"ok", false}, {"error", error}}}}));
    }

    void pagesInAndOutsideTheApplication_data()
    {
        QTest::addColumn<QString>("url");
        QTest::addColumn<QString>("script"); // run once the page has loaded
        QTest::addColumn<bool>("hasApi");
        QTest::addColumn<QString>("method"); // posted past the API, claiming the application
        QTest::addColumn<QString>("code");   // of the answer; empty: a successful answer
        QTest::addColumn<bool>("events");    // desktop events reach the page
        const QString app = QStringLiteral("http://127.0.0.1:8000");
        const QString local = QStringLiteral("http://localhost:8000");
        QTest::newRow("application root")
            << app + "/sign/app/" << QString() << true << "sign:getStatus" << QString() << true;
        QTest::newRow("application without slash")
            << app + "/sign/app" << QString() << true << "sign:getTheme" << QString() << true;
        // The worker's own components make the same check; hashing is not in this build.
        QTest::newRow("deep application page, worker method")
            << app + "/sign/app/documents/7?x=1#top" << QString() << true << "sign:hashFile"
            << "VANTRO_SIGN_COMPONENT_UNAVAILABLE" << true;
        QTest::newRow("longer first segment") << app + "/sign/application" << QString() << false
                                              << "sign:getStatus" << kForbidden << true;
        QTest::newRow("path in other case")
            << app + "/Sign/App/" << QString() << false << "sign:getStatus" << kForbidden << true;
        // The source is the page's address when the message arrives, not where it loaded.
        QTest::newRow("left the application through history")
            << app + "/sign/app/"
            << "history.pushState({}, '', '/other/path')" << true << "sign:getTheme" << kForbidden
            << true;
        QTest::newRow("localhost alias of the origin")
            << local + "/sign/app/" << QString() << true << "sign:getStatus" << kForbidden << false;
        QTest::newRow("localhost alias, worker method")
            << local + "/sign/app/" << QString() << true << "sign:hashFile" << kForbidden << false;
        QTest::newRow("foreign origin, exclusive method")
            << "FOREIGN/sign/app/" << QString() << false << "sign:pickFiles" << kForbidden << false;
    }

    void pagesInAndOutsideTheApplication()
    {
        QFETCH(QString, url);
        QFETCH(QString, script);
        QFETCH(bool, hasApi);
        QFETCH(QString, method);
        QFETCH(QString, code);
        QFETCH(bool, events);
        m_app.allowAnyPage();
        QVERIFY(page().load(m_app.resolve(url)));
        page().eval(script + QStringLiteral("; 0"));
        QCOMPARE(page().eval(QStringLiteral("typeof window.vantroSign")).toString(),
                 QLatin1String(hasApi ? "object" : "undefined"));

        m_app.window()->bridgeChannel()->emitDesktopEvent(QStringLiteral("vantro-sign-test"),
                                                          QVariantMap{{"n", 1}});
        QVERIFY(page().settle());
        const QJsonObject event = QJsonDocument::fromJson(
                                      R"({"vantroSignDesktopEvent":true,"type":"vantro-sign-test",
                                          "detail":{"n":1}})")
                                      .object();
        QCOMPARE(page().desktopEvents(), events ? QList<QJsonObject>{event} : QList<QJsonObject>());
        // Events and answers are told apart by their marker keys.
        QVERIFY(page().answers().isEmpty());

        const QJsonObject outcome = page().await(QStringLiteral(R"(new Promise(function (resolve) {
            window.chrome.webview.addEventListener('message', function (event) {
                resolve(event.data.result); });
            window.chrome.webview.postMessage({ vantroSignBridge: true, id: 'forged',
                                                method: '%1', args: [], href: '%2' });
        }))")
                                                     .arg(method, m_app.appUrl().toString()));
        const QJsonObject result = outcome.value("value").toObject();
        QCOMPARE(result.value("ok").toBool(), code.isEmpty());
        const QJsonObject error = result.value("error").toObject();
        QCOMPARE(error.value("code").toString(), code);
        if (code == kForbidden)
            QCOMPARE(error.value("message").toString(),
                     QStringLiteral("Vantro Sign bridge rejected this origin."));
        QCOMPARE(m_app.shell().pickFilesCalls, 0);
    }

    // A pick held open in its dialog keeps the exclusive flag: the page's own pick is refused
    // at once, a non-exclusive call is served, and the flag is free again afterwards. (The
    // browser does not deliver page messages while a page call sits in a dialog, so the first
    // pick comes from the desktop side.)
    void exclusiveCallsDoNotOverlap()
    {
        QJsonObject during;
        m_app.shell().onPickFiles = [&] {
            during = page().await(QStringLiteral(
                "Promise.allSettled([vantroSign.pickFiles(), vantroSign.getTheme()])"
                ".then(function (all) { return all.map(function (r) { return r.reason"
                " ? {code: r.reason.code, message: r.reason.message} : {ok: true}; }); })"));
            return QStringList();
        };
        const OrderedObject first = m_app.window()->desktopBridge()->handle(
            QStringLiteral("sign:pickFiles"), {}, m_app.appUrl().toString());
        m_app.shell().onPickFiles = nullptr;
        // The cancelled dialog imports nothing, which the import refuses.
        const QString nothingPicked = QStringLiteral("VANTRO_SIGN_IMPORT_FILES_REQUIRED");
        QCOMPARE(variantMember(first.value(QStringLiteral("error")), QStringLiteral("code")),
                 QVariant(nothingPicked));
        const QJsonArray busy{
            QJsonObject{{"code", "VANTRO_SIGN_BRIDGE_BUSY"},
                        {"message", "Vantro Sign is still processing the previous desktop "
                                    "request."}},
            QJsonObject{{"ok", true}}};
        QCOMPARE(during.value("value").toArray(), busy);
        QCOMPARE(m_app.shell().pickFilesCalls, 1);

        QCOMPARE(page().await(QStringLiteral("vantroSign.pickFiles()")).value("code").toString(),
                 nothingPicked);
        QCOMPARE(m_app.shell().pickFilesCalls, 2);
    }
};

QTEST_MAIN(WindowBridgeTest)
#include "tst_window_bridge.moc"
