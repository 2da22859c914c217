// BridgeChannel: message validation, answers, worker routing, reveal ids and desktop events.
#include "BridgeTestSupport.h"

#include "app/Errors.h"

#include <QSignalSpy>
#include <QThread>
#include <QThreadPool>
#include <QtTest>

#include <atomic>
#include <memory>

using namespace vantro;
using namespace vantro::test;

namespace {

QString callJson(const QString& id, const QString& method, const QString& args = "[]")
{
    return QStringLiteral(R"({"vantroSignBridge":true,"id":"%1","method":"%2","args":%3,)"
                          "\"href\":\"https://sign.vantro.example/sign/app/\"}")
        .arg(id, method, args);
}

// Where the worker sets of asynchronous calls were built and destroyed.
struct WorkerTrace
{
    std::atomic<int> built{0};
    std::atomic<QThread*> builtOn{nullptr};
    std::atomic<QThread*> destroyedOn{nullptr};
};

class FakeHooks : public CompletionHooks
{
public:
    void showNativePreview(const QVariant&) override { calls << "preview"; }
    void openPreparedDefault(const QVariant&) override { calls << "open"; }
    void completeArtifactReveal(const QVariant&) override { calls << "reveal"; }
    QStringList calls;
};

} // namespace

class TestBridgeChannel : public QObject
{
    Q_OBJECT
    std::unique_ptr<BridgeFixture> f;
    std::shared_ptr<WorkerTrace> trace;
    FakeWebView view;
    std::unique_ptr<BridgeChannel> channel;

    // The default worker factory, also recording the threads its sets live on.
    WorkerFactory tracingFactory()
    {
        return [device = f->devicePath(), trace = trace] {
            auto components = defaultWorkerFactory(device)();
            trace->builtOn = QThread::currentThread();
            ++trace->built;
            QObject::connect(components->bridge.get(), &QObject::destroyed,
                             [trace] { trace->destroyedOn = QThread::currentThread(); });
            return components;
        };
    }

    // The posted answer, compact and in key order.
    static QByteArray answerText(const QString& id, const QString& result)
    {
        const QString answer = R"({"vantroSignBridgeResult":true,"id":"%1","result":%2})";
        return answer.arg(id, result).toUtf8();
    }

    QJsonObject waitFor(const QString& id, BridgeChannel* on)
    {
        QSignalSpy posted(on, &BridgeChannel::resultPosted);
        while (view.answer(id).isEmpty() && posted.wait(5000)) {
        }
        return view.answer(id);
    }

private Q_SLOTS:
    void init()
    {
        f = std::make_unique<BridgeFixture>();
        QVERIFY(f->prepared);
        trace = std::make_shared<WorkerTrace>();
        view = FakeWebView();
        channel = std::make_unique<BridgeChannel>(&f->bridge, &f->api, tracingFactory());
        channel->attachWebView(&view);
    }

    void cleanup()
    {
        // Worker tasks end before their profile goes away.
        QThreadPool::globalInstance()->waitForDone();
        channel.reset();
        f.reset();
    }

    // Every call is answered once, compact and in key order; a malformed message, or one that
    // arrives with no web view attached, is dropped without an answer.
    void messages_data()
    {
        addColumns<QString, QString, QString>({"message", "source", "result"});
        const QString unknown = "VANTRO_SIGN_BRIDGE_METHOD_UNKNOWN";
        addRow("ok", callJson("a", "sign:getTheme"), "", okJson(R"("light")"));
        addRow("error", callJson("a", "file:open"), "", err(unknown, "file:open"));
        addRow("method not a string", R"({"vantroSignBridge":true,"id":"a","method":5})", "",
               err(unknown, ""));
        addRow("args not a list", callJson("a", "sign:setTheme", R"("dark")"), "",
               okJson(R"("light")"));
        // The frame's origin counts, whatever the page's own href says.
        addRow("frame of another origin", callJson("a", "sign:getTheme"),
               "https://evil.example/sign/app/",
               err("ERR_VANTRO_ORIGIN_FORBIDDEN", "Vantro Sign bridge rejected this origin."));
        // A reveal without a usable operation id is refused at once, without a worker.
        const QString reveal = "sign:ensureLocalArtifactAndReveal";
        const QString invalid = err("VANTRO_SIGN_ARTIFACT_REVEAL_OPERATION_INVALID",
                                    "Artifact reveal operation id is invalid or already active.");
        addRow("reveal, no argument", callJson("a", reveal), "", invalid);
        addRow("reveal, blank id", callJson("a", reveal, R"([{"operationId":" "}])"), "", invalid);
        addRow("reveal, id not a string", callJson("a", reveal, R"([{"operationId":1}])"), "",
               invalid);
        const QString sync = R"("method":"sign:setTheme","args":["dark"])";
        const QString async = R"("method":"sign:hashFile")";
        addRow("not json", "vantroSignBridge", "", "");
        addRow("not an object", "[" + callJson("a", "sign:setTheme", R"(["dark"])") + "]", "", "");
        addRow("marker as string", R"({"vantroSignBridge":"true","id":"a",)" + sync + "}", "", "");
        addRow("marker missing", R"({"id":"a",)" + async + "}", "", "");
        addRow("empty id", R"({"vantroSignBridge":true,"id":"",)" + sync + "}", "", "");
        addRow("no web view", callJson("a", "sign:hashFile"), "detached", "");
    }

    void messages()
    {
        QFETCH(QString, message);
        QFETCH(QString, source);
        QFETCH(QString, result);
        channel->attachWebView(source == "detached" ? nullptr : &view);
        QSignalSpy posted(channel.get(), &BridgeChannel::resultPosted);
        channel->handleWebMessage(message, source.startsWith("https:") ? source : f->source);
        if (result.isEmpty()) { // nothing ran either: the theme stays, no worker answers late
            QVERIFY(!posted.wait(100));
            QCOMPARE(f->state.theme(), "light");
        }
        QCOMPARE(view.posts, result.isEmpty() ? QList<QByteArray>()
                                              : QList<QByteArray>{answerText("a", result)});
        QCOMPARE(trace->built, 0);
    }

    void routing_data()
    {
        addColumns<QString, int, bool, QString, QString>(
            {"method", "factory", "async", "code", "message"});
        const char* fallback = "VANTRO_SIGN_BRIDGE_ERROR";
        // Each completion hook's method, failing here: no hook runs, no event is sent.
        addRow("reconcile on a worker", "sign:reconcileLocalRoot", 0, true,
               "VANTRO_SIGN_COMPONENT_UNAVAILABLE",
               "Local root reconciliation is not available in this build.");
        addRow("native preview on a worker", "sign:showNativePreview", 0, true,
               "VANTRO_SIGN_COMPONENT_UNAVAILABLE",
               "Native preview is not available in this build.");
        addRow("server document on a worker", "sign:openServerDocument", 0, true,
               "VANTRO_SIGN_COMPONENT_UNAVAILABLE",
               "Document preview is not available in this build.");
        addRow("async usb row on a worker", "usb:diagnose", 0, true,
               "VANTRO_USB_HELPER_UNAVAILABLE", "USB/eID helper is not available in this build.");
        addRow("no worker components", "usb:diagnose", 1, true, fallback,
               "Worker components are unavailable.");
        addRow("factory throws a coded error", "usb:diagnose", 2, true, "VANTRO_TEST",
               "VANTRO_TEST: broken");
        addRow("factory throws something else", "usb:diagnose", 3, true, fallback,
               "Unexpected failure in usb:diagnose.");
    }

    // The main bridge refuses every origin, so only a worker's own bridge can get further;
    // failures to build that bridge are answered in place of its result.
    void routing()
    {
        QFETCH(QString, method);
        QFETCH(int, factory);
        QFETCH(bool, async);
        QFETCH(QString, code);
        QFETCH(QString, message);
        const bool worker = async && factory == 0;
        DesktopBridge refusing(&f->state, nullptr);
        const WorkerFactory traced = tracingFactory();
        BridgeChannel over(&refusing, &f->api, [=]() -> std::unique_ptr<WorkerComponents> {
            if (factory == 2)
                throw VantroError("VANTRO_TEST: broken");
            if (factory == 3)
                throw 42;
            return factory == 0 ? traced() : nullptr;
        });
        FakeHooks hooks;
        over.setCompletionHooks(&hooks);
        over.attachWebView(&view);
        over.handleWebMessage(callJson("w", method), f->source);
        QCOMPARE(view.posts.isEmpty(), async);
        waitFor("w", &over);
        QCOMPARE(view.posts, QList<QByteArray>{answerText("w", err(code, message))});
        QVERIFY(hooks.calls.isEmpty() && view.scripts.isEmpty());
        QCOMPARE(trace->built, worker ? 1 : 0);
        if (worker) {
            QVERIFY(trace->builtOn && trace->builtOn != QThread::currentThread());
            QCOMPARE(trace->destroyedOn, trace->builtOn);
        }
    }

    void revealOperationIdActiveOnce()
    {
        const QString args = R"([{"operationId":"op-1"}])";
        const QString method = "sign:ensureLocalArtifactAndReveal";
        const QString ran = "VANTRO_SIGN_COMPONENT_UNAVAILABLE";
        channel->handleWebMessage(callJson("first", method, args), f->source);
        // No event processing in between: the first is still active.
        channel->handleWebMessage(callJson("second", method, args), f->source);
        QCOMPARE(codeOf(view.answer("second")), "VANTRO_SIGN_ARTIFACT_REVEAL_OPERATION_INVALID");
        QCOMPARE(codeOf(waitFor("first", channel.get())), ran);
        // Released with the answer: the id may be used again.
        channel->handleWebMessage(callJson("third", method, args), f->source);
        QCOMPARE(codeOf(waitFor("third", channel.get())), ran);
    }

    void callsWhileDialogOpen_data()
    {
        addColumns<QString, QString>({"method", "code"});
        addRow("card signing on a worker", "usb:sign", "VANTRO_USB_BRIDGE_BUSY");
        addRow("upload on a worker", "sign:uploadLocalDocument", "VANTRO_SIGN_BRIDGE_BUSY");
        addRow("status on the main thread", "sign:getStatus", "");
    }

    // sign:pickFiles holds the one process-wide flag while its dialog runs the event loop;
    // calls arriving meanwhile are answered, before the dialog's own.
    void callsWhileDialogOpen()
    {
        QFETCH(QString, method);
        QFETCH(QString, code);
        QJsonObject during;
        f->shell.duringDialog = [&] {
            channel->handleWebMessage(callJson("inner", method), f->source);
            during = waitFor("inner", channel.get());
        };
        channel->handleWebMessage(callJson("outer", "sign:pickFiles"), f->source);
        QCOMPARE(codeOf(view.answer("outer")), "VANTRO_SIGN_IMPORT_FILES_REQUIRED");
        QVERIFY(!during.isEmpty() && view.posts.first().contains("\"inner\""));
        QCOMPARE(codeOf(during), code);
    }

    void desktopEvents_data()
    {
        addColumns<QVariant, QString, QString>({"detail", "detailJson", "drop"});
        const QVariant state = OrderedObject{{"active", true}, {"busy", false}}.toVariant();
        const char* stateJson = R"({"active":true,"busy":false})";
        addRow("ordered detail", state, stateJson, "");
        addRow("no detail", QVariant(), "{}", "");
        // Not a raw literal: moc misreads one that holds a backslash.
        addRow("text needing escapes", QVariant(QVariantMap{{"message", "a \"b\" %2 \\"}}),
               "{\"message\":\"a \\\"b\\\" %2 \\\\\"}", "");
        addRow("dropped without a web view", state, stateJson, "view");
        addRow("dropped without a service client", state, stateJson, "client");
        addRow("dropped without an origin", state, stateJson, "origin");
    }

    // Events are dropped, not queued: attaching a web view afterwards sends nothing either.
    void desktopEvents()
    {
        QFETCH(QVariant, detail);
        QFETCH(QString, detailJson);
        QFETCH(QString, drop);
        // The target origin is the client's current one, not a built-in default.
        f->api.setBaseUrl(drop == "origin" ? "" : "https://eu.vantro.example:8443");
        QCOMPARE(f->api.webAppOrigin(), drop == "origin" ? "" : "https://eu.vantro.example:8443");
        BridgeChannel over(&f->bridge, drop == "client" ? nullptr : &f->api, tracingFactory());
        over.attachWebView(drop == "view" ? nullptr : &view);
        over.emitDesktopEvent("vantro-sign-drop-state", detail);
        over.attachWebView(&view);
        const QString script = R"(window.postMessage({"vantroSignDesktopEvent":true,)"
                               R"("type":"vantro-sign-drop-state","detail":%1}, "%2");)";
        QCOMPARE(view.scripts, drop.isEmpty()
                                   ? QStringList{script.arg(detailJson, f->api.webAppOrigin())}
                                   : QStringList());
        QVERIFY(view.posts.isEmpty());
    }
};

QTEST_GUILESS_MAIN(TestBridgeChannel)
#include "tst_bridge_channel.moc"
