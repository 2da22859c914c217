// The bridge end to end through the window: answers, which pages get the API, the origin check
// on the address the browser reports, the exclusive rule, and where desktop events go.
#include "e2e/BrowserHarness.h"

#include "bridge/DesktopBridge.h"
#include "usb/FakeHost.h"
#include "usb/HelperRegistry.h"
#include "vantro_config.h"

#include <QCoreApplication>

#include <QJsonDocument>
#include <QtTest>

using namespace vantro;
using namespace vantro::testing;

namespace {

QByteArray scriptOf(const QJsonObject& steps)
{
    return QJsonDocument(steps).toJson(QJsonDocument::Compact);
}

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

    // The page receives exactly what the bridge computes, keys in the same order.
    void getStatusRoundTrip()
    {
        const QJsonObject outcome = page().await("vantroSign.getStatus().then(Object.keys)");
        QVERIFY2(outcome.value("ok").toBool(), qPrintable(outcome.value("message").toString()));
        const OrderedObject native = m_app.window()->desktopBridge()->handle(
            QStringLiteral("sign:getStatus"), {}, m_app.appUrl().toString());
        const QStringList keys = native.value("value").value<OrderedObject>().keys();
        QVERIFY(keys.size() > 1);
        QCOMPARE(outcome.value("value").toVariant().toStringList(), keys);
    }

    // Unknown methods are answered with their name; a marker that is only text gets no answer.
    // The valid call posted last is answered last.
    void rawMessages()
    {
        page().eval("for (const m of [{method: 'sign:nothing', args: []}, {method: 'usb:nothing'},"
                    " {vantroSignBridge: 'true', method: 'sign:getStatus'}]) chrome.webview"
                    ".postMessage(Object.assign({vantroSignBridge: true, id: 'raw'}, m)); 0");
        QVERIFY(page().await("vantroSign.getTheme()").value("ok").toBool());
        QVERIFY(page().settle());
        const QString unknown =
            R"({"vantroSignBridgeResult":true,"id":"raw","result":{"ok":false,)"
            R"("error":{"code":"VANTRO_SIGN_BRIDGE_METHOD_UNKNOWN","message":"%1"}}})";
        const QJsonArray answers = page().answers();
        QCOMPARE(answers.size(), 3);
        for (const int i : {0, 1})
            QCOMPARE(
                answers.at(i).toObject(),
                QJsonDocument::fromJson(unknown.arg(i ? "usb:nothing" : "sign:nothing").toUtf8())
                    .object());
    }

    void pagesInAndOutsideTheApplication_data()
    {
        QTest::addColumn<QString>("url");
        QTest::addColumn<bool>("inside"); // API present, forged calls served, events arrive
        QTest::addColumn<QString>("method");
        const QString app = m_app.server().origin();
        QTest::newRow("application") << app + "/sign/app/x?y#z" << true << "sign:getTheme";
        QTest::newRow("longer first segment")
            << app + "/sign/application" << false << "sign:getStatus";
        QTest::newRow("foreign origin")
            << m_app.foreign.origin() + "/sign/app/" << false << "sign:pickFiles";
    }

    // Forged calls claim the application's address; the browser's own report decides.
    void pagesInAndOutsideTheApplication()
    {
        QFETCH(QString, url);
        QFETCH(bool, inside);
        QFETCH(QString, method);
        m_app.host()->setTrustRule([](const QUrl&) { return true; });
        QVERIFY(page().load(QUrl(url)));
        QCOMPARE(page().eval("typeof window.vantroSign").toString(),
                 inside ? "object" : "undefined");

        m_app.window()->bridgeChannel()->emitDesktopEvent("vantro-sign-test", 7);
        QVERIFY(page().settle());
        const QJsonObject event{
            {"vantroSignDesktopEvent", true}, {"type", "vantro-sign-test"}, {"detail", 7}};
        // Events only reach the application's own origin.
        const bool ownOrigin = url.startsWith(m_app.server().origin());
        QCOMPARE(page().desktopEvents(), ownOrigin ? QJsonArray{event} : QJsonArray());
        QVERIFY(page().answers().isEmpty());

        const QString forged = QStringLiteral(
            "new Promise(function (resolve) { chrome.webview.addEventListener('message',"
            " function (e) { resolve(e.data.result); }); chrome.webview.postMessage("
            "{vantroSignBridge: true, id: 'forged', method: '%1', args: [], href: '%2'}); })");
        const QJsonObject result =
            page().await(forged.arg(method, m_app.appUrl().toString())).value("value").toObject();
        QCOMPARE(result.value("ok").toBool(), inside);
        const QJsonObject forbidden{{"code", "ERR_VANTRO_ORIGIN_FORBIDDEN"},
                                    {"message", "Vantro Sign bridge rejected this origin."}};
        QCOMPARE(result.value("error").toObject(), inside ? QJsonObject() : forbidden);
        QCOMPARE(m_app.shell.pickFilesCalls, 0);
    }

    // A pick held open in its dialog keeps the exclusive flag: the page's own pick is refused at
    // once, a non-exclusive call is served, and the flag is free afterwards. The first pick
    // comes from the desktop side: pages get no messages through while a dialog is open.
    void exclusiveCallsDoNotOverlap()
    {
        QJsonObject during;
        m_app.shell.onPickFiles = [&] {
            during = page().await(
                "Promise.allSettled([vantroSign.pickFiles(), vantroSign.getTheme()])"
                ".then(function (all) { return all.map(function (r) { return r.reason"
                " ? {code: r.reason.code, message: r.reason.message} : {ok: true}; }); })");
            return QStringList();
        };
        const OrderedObject first = m_app.window()->desktopBridge()->handle(
            QStringLiteral("sign:pickFiles"), {}, m_app.appUrl().toString());
        m_app.shell.onPickFiles = nullptr;
        // The cancelled dialog imports nothing, which the import refuses.
        const QString nothingPicked = QStringLiteral("VANTRO_SIGN_IMPORT_FILES_REQUIRED");
        QCOMPARE(variantMember(first.value("error"), "code"), QVariant(nothingPicked));
        const QJsonObject busy{
            {"code", "VANTRO_SIGN_BRIDGE_BUSY"},
            {"message", "Vantro Sign is still processing the previous desktop request."}};
        QCOMPARE(during.value("value").toArray(), (QJsonArray{busy, QJsonObject{{"ok", true}}}));
        QCOMPARE(page().await("vantroSign.pickFiles()").value("code").toString(), nothingPicked);
        QCOMPARE(m_app.shell.pickFilesCalls, 2);
    }

    // Every function of the page's USB object reaches a host process over real pipes, on a worker;
    // what the host answers, or its own error, is what the page gets.
    void usbFunctionsReachTheHost()
    {
        vantro::test::FakeHostDir dir;
        dir.install(nativeHostFileName());
        dir.install(middlewareCliFileName(), scriptOf({{"diagnose", "{\"middleware\": \"ok\"}"}}));
        DesktopBridge* bridge = m_app.window()->desktopBridge();
        bridge->useHelperRegistry(std::make_shared<HelperRegistry>(dir.path()));
        const auto restore = qScopeGuard([bridge] {
            bridge->useHelperRegistry(
                std::make_shared<HelperRegistry>(QCoreApplication::applicationDirPath()));
        });
        const QJsonObject available = page().await("vantroUsbBridge.isAvailable()");
        QVERIFY2(available.value("value") == true, QJsonDocument(available).toJson().constData());

        const QString portal = QString::fromLatin1(config::kPortalOrigin);
        const QList<std::tuple<QString, QString, QJsonObject>> calls{
            {"getSigningCertificate({ignored: 1})", "get-signing-certificate", {}},
            {"sign({hash: 'aa', origin: 'https://evil.example'})", "sign", {{"hash", "aa"}}},
            {"signBatch({hashes: ['a', 'b']})", "sign-batch", {{"hashes", QJsonArray{"a", "b"}}}},
            {"authenticate({challenge: 'c'})", "authenticate", {{"challenge", "c"}}}};
        for (auto [call, command, arguments] : calls) {
            const QJsonObject outcome = page().await("vantroUsbBridge." + call);
            arguments.insert("origin", portal);
            const QJsonObject sent{{"command", command}, {"arguments", arguments}};
            QCOMPARE(outcome.value("value").toObject(), QJsonObject({{"echo", sent}}));
            QVERIFY(dir.processGone(nativeHostFileName()));
        }

        const QJsonObject diagnosis =
            page().await("vantroUsbBridge.diagnose()").value("value").toObject();
        QCOMPARE(diagnosis.value("middleware"), "ok");
        QCOMPARE(diagnosis.value("vantroRuntime").toObject().value("helperAvailable"), true);

        const QJsonObject blocked{
            {"error", QJsonObject{{"code", "PIN_BLOCKED"}, {"message", "PIN užblokuotas"}}}};
        dir.install(nativeHostFileName(),
                    scriptOf({{"answer", QString(QJsonDocument(blocked).toJson())}}));
        const QJsonObject refused = page().await("vantroUsbBridge.sign({})");
        QCOMPARE(refused.value("code"), "PIN_BLOCKED");
        QCOMPARE(refused.value("message"), "PIN užblokuotas");
    }
};

QTEST_MAIN(WindowBridgeTest)
#include "tst_window_bridge.moc"
