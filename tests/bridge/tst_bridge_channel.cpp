// BridgeChannel: message validation, answers, worker routing, reveal ids and desktop events.
#include "BridgeTestSupport.h"

#include "app/Errors.h"

#include <QSignalSpy>
#include <QThreadPool>

#include <atomic>
#include <memory>

using namespace vantro;
using namespace vantro::test;

namespace {

QString callJson(const QString& method, const QString& args = "[]", const QString& id = "a")
{
    return QStringLiteral(R"({"vantroSignBridge":true,"id":"%1","method":"%2","args":%3,)"
                          "\"href\":\"https://sign.vantro.example/sign/app/\"}")
        .arg(id, method, args);
}

// The answer posted to the page, compact and in key order.
QByteArray answer(const QString& result, const QString& id = "a")
{
    return QString(R"({"vantroSignBridgeResult":true,"id":"%1","result":%2})")
        .arg(id, result)
        .toUtf8();
}

const QString kReveal = QStringLiteral("sign:ensureLocalArtifactAndReveal");
const QString kInvalid =
    QStringLiteral(R"({"ok":false,"error":{"code":"VANTRO_SIGN_ARTIFACT_REVEAL_OPERATION_INVALID",)"
                   R"("message":"Artifact reveal operation id is invalid or already active."}})");

} // namespace

class TestBridgeChannel : public QObject
{
    Q_OBJECT
    std::unique_ptr<BridgeFixture> f;
    FakeWebView view;
    std::unique_ptr<BridgeChannel> channel;

private Q_SLOTS:
    void init()
    {
        f = std::make_unique<BridgeFixture>();
        view = FakeWebView();
        channel = std::make_unique<BridgeChannel>(&f->bridge, &f->api,
                                                  defaultWorkerFactory(f->path("device.json")));
        channel->attachWebView(&view);
    }
    void cleanup()
    {
        QThreadPool::globalInstance()->waitForDone(); // worker tasks end before their profile
        channel.reset();
    }

    // Synchronous calls (factory -1) are answered at once, asynchronous ones later from a
    // worker set the factory builds: 0 the default, 1 none, 2 and 3 throwing. A malformed
    // message, or one that arrives with no web view attached, is dropped without an answer.
    void messages_data()
    {
        addColumns<QString, QString, int, QString>({"message", "source", "factory", "result"});
        const char* fallback = "VANTRO_SIGN_BRIDGE_ERROR";
        addRow("ok", callJson("sign:getTheme"), "", -1, R"({"ok":true,"value":"light"})");
        addRow("error", callJson("file:open"), "", -1,
               err("VANTRO_SIGN_BRIDGE_METHOD_UNKNOWN", "file:open"));
        // The frame's origin counts, whatever the page's own href says.
        addRow("frame of another origin", callJson("sign:getTheme"), "https://evil.example/", -1,
               err("ERR_VANTRO_ORIGIN_FORBIDDEN", "Vantro Sign bridge rejected this origin."));
        // A reveal without a usable operation id is refused at once, without a worker.
        addRow("reveal, blank id", callJson(kReveal, R"([{"operationId":" "}])"), "", -1, kInvalid);
        const QString usb = callJson("usb:diagnose");
        const QString helper = "Vantro Sign middleware CLI was not found.";
        addRow("on a worker", usb, "", 0, err("VANTRO_USB_HELPER_UNAVAILABLE", helper));
        addRow("no worker set", usb, "", 1, err(fallback, "Worker components are unavailable."));
        addRow("factory throws coded", usb, "", 2, err("VANTRO_TEST", "VANTRO_TEST: broken"));
        addRow("factory throws other", usb, "", 3,
               err(fallback, "Unexpected failure in usb:diagnose."));
        const QString theme = callJson("sign:setTheme", R"(["dark"])");
        addRow("not json", "vantroSignBridge", "", -1, "");
        addRow("marker as string", QString(theme).replace(":true,", ":\"true\","), "", -1, "");
        addRow("empty id", QString(theme).replace("\"a\"", "\"\""), "", -1, "");
        addRow("no web view", theme, "detached", -1, "");
    }
    void messages()
    {
        QFETCH(QString, message);
        QFETCH(QString, source);
        QFETCH(int, factory);
        QFETCH(QString, result);
        const WorkerFactory workers = defaultWorkerFactory(f->path("device.json"));
        std::atomic<QThread*> builtOn{nullptr};
        BridgeChannel over(&f->bridge, &f->api,
                           [&, workers]() -> std::unique_ptr<WorkerComponents> {
                               builtOn = QThread::currentThread();
                               if (factory == 2)
                                   throw VantroError("VANTRO_TEST: broken");
                               if (factory == 3)
                                   throw 42;
                               return factory == 1 ? nullptr : workers();
                           });
        over.attachWebView(source == "detached" ? nullptr : &view);
        QSignalSpy posted(&over, &BridgeChannel::resultPosted);
        over.handleWebMessage(message, source.startsWith("https:") ? source : f->source);
        const bool later = factory >= 0;
        QCOMPARE(view.posts.size(), later || result.isEmpty() ? 0 : 1);
        QCOMPARE(posted.wait(later ? 5000 : 100), later);
        QCOMPARE(view.posts, result.isEmpty() ? QList<QByteArray>() : QList{answer(result)});
        QCOMPARE(f->state.theme(), "light"); // a dropped message did not run either
        // Worker components are built on a pool thread, never on the page's thread.
        QCOMPARE(builtOn != nullptr, later);
        QVERIFY(builtOn != QThread::currentThread());
    }

    // An operation id is active until its call is answered; a second call with it meanwhile is
    // refused at once.
    void revealOperationIdActiveOnce()
    {
        const QString args = R"([{"operationId":"op-1"}])";
        channel->handleWebMessage(callJson(kReveal, args, "first"), f->source);
        channel->handleWebMessage(callJson(kReveal, args, "second"), f->source);
        QTRY_COMPARE(view.posts.size(), 2);
        channel->handleWebMessage(callJson(kReveal, args, "third"), f->source);
        QTRY_COMPARE(view.posts.size(), 3);
        const QString ran = err("VANTRO_SIGN_COMPONENT_UNAVAILABLE",
                                "Artifact reveal is not available in this build.");
        QCOMPARE(view.posts,
                 (QList{answer(kInvalid, "second"), answer(ran, "first"), answer(ran, "third")}));
    }

    // sign:pickFiles holds the one process-wide flag while its dialog runs the event loop; an
    // exclusive call of the other family arriving meanwhile on a worker is refused at once.
    void workerCallWhileDialogOpen()
    {
        f->shell.duringDialog = [&] {
            channel->handleWebMessage(callJson("usb:sign", "[]", "inner"), f->source);
            QTRY_COMPARE(view.posts.size(), 1);
        };
        channel->handleWebMessage(callJson("sign:pickFiles", "[]", "outer"), f->source);
        const QString busy = "Vantro Sign is still processing the previous desktop request.";
        const QString picked = "VANTRO_SIGN_IMPORT_FILES_REQUIRED";
        QCOMPARE(view.posts, (QList{answer(err("VANTRO_USB_BRIDGE_BUSY", busy), "inner"),
                                    answer(err(picked, picked), "outer")}));
    }

    // Events are dropped, not queued: without a web view, a service client or an origin nothing
    // is sent, not even once a web view is attached. The target origin is the client's current
    // one; the detail keeps its key order.
    void desktopEvents()
    {
        // Not a raw literal: moc misreads one that holds a backslash.
        const QVariant detail = OrderedObject{{"z", 1}, {"a", "\"b\" %2 \\"}}.toVariant();
        const QString detailJson = "{\"z\":1,\"a\":\"\\\"b\\\" %2 \\\\\"}";
        BridgeChannel noClient(&f->bridge, nullptr, nullptr);
        noClient.attachWebView(&view);
        noClient.emitDesktopEvent("t", detail);
        channel->attachWebView(nullptr);
        channel->emitDesktopEvent("t", detail);
        channel->attachWebView(&view);
        f->api.setBaseUrl("");
        channel->emitDesktopEvent("t", detail);
        QVERIFY(view.scripts.isEmpty());
        f->api.setBaseUrl("https://eu.vantro.example:8443");
        channel->emitDesktopEvent("vantro-sign-drop-state", detail);
        channel->emitDesktopEvent("empty", QVariant());
        const QString script = R"(window.postMessage({"vantroSignDesktopEvent":true,"type":"%1",)"
                               R"("detail":%2}, "https://eu.vantro.example:8443");)";
        QCOMPARE(view.scripts, (QStringList{script.arg("vantro-sign-drop-state", detailJson),
                                            script.arg("empty", "{}")}));
    }
};

QTEST_GUILESS_MAIN(TestBridgeChannel)
#include "tst_bridge_channel.moc"
