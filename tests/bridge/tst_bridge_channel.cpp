// BridgeChannel: message validation, answers, worker calls and desktop events.
#include "BridgeTestSupport.h"

#include "api/SignApiClient.h"
#include "app/AppState.h"
#include "app/Errors.h"
#include "bridge/BridgeChannel.h"
#include "bridge/DesktopBridge.h"
#include "vantro_config.h"

#include <QJsonArray>
#include <QSignalSpy>
#include <QThread>
#include <QtTest>

#include <memory>
#include <utility>

using namespace vantro;
using namespace vantro::test;

namespace {

QByteArray callJson(const QString& id, const QString& method, const QJsonArray& args = {},
                    const QString& href = {})
{
    return QJsonDocument(QJsonObject{{QStringLiteral("vantroSignBridge"), true},
                                     {QStringLiteral("id"), id},
                                     {QStringLiteral("method"), method},
                                     {QStringLiteral("args"), args},
                                     {QStringLiteral("href"), href}})
        .toJson(QJsonDocument::Compact);
}

QString codeIn(const QJsonObject& answer)
{
    return answer.value(QStringLiteral("result"))
        .toObject()
        .value(QStringLiteral("error"))
        .toObject()
        .value(QStringLiteral("code"))
        .toString();
}

// Where the worker set of one asynchronous call was built and destroyed.
struct WorkerTrace
{
    QMutex mutex;
    QThread* builtOn = nullptr;
    QThread* destroyedOn = nullptr;
    int built = 0;
};

class FakeHooks : public CompletionHooks
{
public:
    void showNativePreview(const QVariant&) override { calls << QStringLiteral("preview"); }
    void openPreparedDefault(const QVariant&) override { calls << QStringLiteral("open"); }
    void completeArtifactReveal(const QVariant&) override { calls << QStringLiteral("reveal"); }
    QStringList calls;
};

} // namespace

class TestBridgeChannel : public QObject
{
    Q_OBJECT

private:
    // A worker factory like the default one that also records the threads it ran on.
    WorkerFactory tracingFactory()
    {
        const QString device = m_profile->devicePath();
        auto trace = m_trace;
        return [device, trace] {
            auto components = defaultWorkerFactory(device)();
            QMutexLocker lock(&trace->mutex);
            trace->builtOn = QThread::currentThread();
            ++trace->built;
            QObject::connect(
                components->bridge.get(), &QObject::destroyed, components->bridge.get(),
                [trace] {
                    QMutexLocker inner(&trace->mutex);
                    trace->destroyedOn = QThread::currentThread();
                },
                Qt::DirectConnection);
            return components;
        };
    }

    void send(const QByteArray& json)
    {
        m_channel->handleWebMessage(QString::fromUtf8(json), m_source);
    }

    // Sends one call and waits for its answer.
    QJsonObject roundTrip(const QString& id, const QString& method, const QJsonArray& args = {})
    {
        QSignalSpy posted(m_channel.get(), &BridgeChannel::resultPosted);
        send(callJson(id, method, args));
        while (m_view.answer(id).isEmpty() && posted.wait(5000)) {
        }
        return m_view.answer(id);
    }

    std::unique_ptr<IsolatedProfile> m_profile;
    std::unique_ptr<AppState> m_state;
    std::unique_ptr<SignApiClient> m_api;
    std::unique_ptr<DesktopBridge> m_bridge;
    std::unique_ptr<BridgeChannel> m_channel;
    std::shared_ptr<WorkerTrace> m_trace;
    FakeWebView m_view;
    FakeShell m_shell;
    QString m_source;

private Q_SLOTS:
    void init()
    {
        m_profile = std::make_unique<IsolatedProfile>();
        QVERIFY(m_profile->isValid());
        m_state = std::make_unique<AppState>(m_profile->devicePath());
        m_api = std::make_unique<SignApiClient>(m_state.get());
        m_bridge = std::make_unique<DesktopBridge>(m_state.get(), m_api.get());
        m_bridge->setDesktopShell(&m_shell);
        m_trace = std::make_shared<WorkerTrace>();
        m_channel = std::make_unique<BridgeChannel>(m_bridge.get(), m_api.get(), tracingFactory());
        m_channel->attachWebView(&m_view);
        m_view = FakeWebView();
        m_shell = FakeShell();
        m_source = m_api->webAppUrl().toString();
    }

    void cleanup()
    {
        // Let worker tasks of the test end before their profile goes away.
        QThreadPool::globalInstance()->waitForDone();
        m_channel.reset();
        m_bridge.reset();
        m_api.reset();
        m_state.reset();
        m_profile.reset();
    }

    void answerIsCompactAndOrdered()
    {
        const QByteArray expected =
            R"({"vantroSignBridgeResult":true,"id":"vantro-1","result":{"ok":true,"value":"light"}})";
        send(callJson(QStringLiteral("vantro-1"), QStringLiteral("sign:getTheme")));
        QCOMPARE(m_view.posts, QList<QByteArray>{expected});
    }

    void statusAnswerKeepsKeyOrder()
    {
        send(callJson(QStringLiteral("s"), QStringLiteral("sign:getStatus")));
        QCOMPARE(m_view.posts.size(), 1);
        const QByteArray text = m_view.posts.first();
        int last = -1;
        for (const char* key :
             {"\"version\"", "\"activated\"", "\"localRoot\"", "\"theme\"", "\"license\"",
              "\"signerProfile\"", "\"helperAvailable\"", "\"helperBackgroundRunning\"",
              "\"helperRuntime\"", "\"helperRuntimeVersion\"", "\"helperRuntimePath\"",
              "\"usbSignBatchNative\""}) {
            const int at = text.indexOf(key);
            QVERIFY2(at > last, key);
            last = at;
        }
    }

    void malformedMessagesAreIgnored_data()
    {
        QTest::addColumn<QByteArray>("json");
        QTest::newRow("not json") << QByteArray("vantroSignBridge");
        QTest::newRow("empty text") << QByteArray();
        QTest::newRow("array") << QByteArray(R"([{"vantroSignBridge":true,"id":"a"}])");
        QTest::newRow("string") << QByteArray(R"("hello")");
        QTest::newRow("null") << QByteArray("null");
        QTest::newRow("empty object") << QByteArray("{}");
        QTest::newRow("marker as string")
            << QByteArray(R"({"vantroSignBridge":"true","id":"a","method":"sign:getTheme"})");
        QTest::newRow("marker as number")
            << QByteArray(R"({"vantroSignBridge":1,"id":"a","method":"sign:getTheme"})");
        QTest::newRow("marker false")
            << QByteArray(R"({"vantroSignBridge":false,"id":"a","method":"sign:getTheme"})");
        QTest::newRow("marker missing") << QByteArray(R"({"id":"a","method":"sign:getTheme"})");
        QTest::newRow("empty id") << QByteArray(
            R"({"vantroSignBridge":true,"id":"","method":"sign:getTheme"})");
        QTest::newRow("numeric id")
            << QByteArray(R"({"vantroSignBridge":true,"id":7,"method":"sign:getTheme"})");
        QTest::newRow("object id")
            << QByteArray(R"({"vantroSignBridge":true,"id":{},"method":"sign:getTheme"})");
        QTest::newRow("missing id")
            << QByteArray(R"({"vantroSignBridge":true,"method":"sign:getTheme"})");
        QTest::newRow("async method, bad marker")
            << QByteArray(R"({"vantroSignBridge":"yes","id":"a","method":"sign:hashFile"})");
        QTest::newRow("truncated")
            // Not a raw literal: moc loses track of one holding an odd number of quotes.
            << QByteArray("{\"vantroSignBridge\":true,\"id\":\"a\",\"method\":\"sign:getTh");
        QTest::newRow("nested beyond the parser's depth")
            << QByteArray(R"({"vantroSignBridge":true,"id":"a","method":"sign:getTheme","args":)") +
                   QByteArray(5000, '[') + QByteArray(5000, ']') + QByteArray("}");
    }

    void malformedMessagesAreIgnored()
    {
        QFETCH(QByteArray, json);
        QSignalSpy posted(m_channel.get(), &BridgeChannel::resultPosted);
        send(json);
        QVERIFY(!posted.wait(200));
        QVERIFY(m_view.posts.isEmpty());
        QCOMPARE(m_trace->built, 0);
    }

    void oddButValidCalls_data()
    {
        QTest::addColumn<QByteArray>("json");
        QTest::addColumn<QString>("code");
        QTest::newRow("numeric method")
            << QByteArray(R"({"vantroSignBridge":true,"id":"a","method":5})")
            << "VANTRO_SIGN_BRIDGE_METHOD_UNKNOWN";
        QTest::newRow("args not a list")
            << QByteArray(
                   R"({"vantroSignBridge":true,"id":"a","method":"sign:getTheme","args":"x"})")
            << "";
        QTest::newRow("huge argument list")
            << callJson(QStringLiteral("a"), QStringLiteral("sign:setTheme"),
                        [] {
                            QJsonArray many{QStringLiteral("dark")};
                            for (int i = 0; i < 100000; ++i)
                                many.append(QJsonObject{{QStringLiteral("n"), i}});
                            return many;
                        }())
            << "";
        QTest::newRow("huge string argument")
            << callJson(QStringLiteral("a"), QStringLiteral("sign:setTheme"),
                        {QString(4 * 1024 * 1024, QLatin1Char('x'))})
            << "";
        QTest::newRow("other prefix") << callJson(QStringLiteral("a"), QStringLiteral("file:open"))
                                      << "VANTRO_SIGN_BRIDGE_METHOD_UNKNOWN";
    }

    void oddButValidCalls()
    {
        QFETCH(QByteArray, json);
        QFETCH(QString, code);
        send(json);
        QCOMPARE(m_view.posts.size(), 1);
        const QJsonObject answer = m_view.answer(QStringLiteral("a"));
        QCOMPARE(codeIn(answer), code);
        QCOMPARE(
            answer.value(QStringLiteral("result")).toObject().value(QStringLiteral("ok")).toBool(),
            code.isEmpty());
    }

    void noViewNoAnswer()
    {
        m_channel->attachWebView(nullptr);
        QSignalSpy posted(m_channel.get(), &BridgeChannel::resultPosted);
        send(callJson(QStringLiteral("a"), QStringLiteral("sign:setTheme"),
                      {QStringLiteral("dark")}));
        send(callJson(QStringLiteral("b"), QStringLiteral("sign:hashFile")));
        QVERIFY(!posted.wait(200));
        QCOMPARE(m_trace->built, 0);
        // Ignored entirely: the call did not run.
        QCOMPARE(m_state->theme(), QStringLiteral("light"));
    }

    void originForbiddenWhateverHrefSays()
    {
        m_channel->handleWebMessage(
            QString::fromUtf8(
                callJson(QStringLiteral("a"), QStringLiteral("sign:getTheme"), {}, m_source)),
            QStringLiteral("https://evil.example/sign/app/"));
        QCOMPARE(codeIn(m_view.answer(QStringLiteral("a"))),
                 QStringLiteral("ERR_VANTRO_ORIGIN_FORBIDDEN"));
    }

    void asyncCallRunsOnWorkerWithOwnComponents()
    {
        // The main bridge would refuse every call: only a worker bridge can answer this one.
        DesktopBridge refusing(m_state.get(), nullptr);
        BridgeChannel channel(&refusing, m_api.get(), tracingFactory());
        channel.attachWebView(&m_view);
        QSignalSpy posted(&channel, &BridgeChannel::resultPosted);
        channel.handleWebMessage(
            QString::fromUtf8(callJson(QStringLiteral("w"), QStringLiteral("sign:hashFile"),
                                       {QStringLiteral("handle-1")})),
            m_source);
        QVERIFY(m_view.posts.isEmpty());
        QVERIFY(posted.wait(5000));
        QCOMPARE(posted.first().first().toString(), QStringLiteral("w"));
        const QJsonObject answer = m_view.answer(QStringLiteral("w"));
        QCOMPARE(codeIn(answer), QStringLiteral("VANTRO_SIGN_COMPONENT_UNAVAILABLE"));

        QMutexLocker lock(&m_trace->mutex);
        QCOMPARE(m_trace->built, 1);
        QVERIFY(m_trace->builtOn != nullptr);
        QVERIFY(m_trace->builtOn != QThread::currentThread());
        QCOMPARE(m_trace->destroyedOn, m_trace->builtOn);
    }

    void syncCallUsesMainBridge()
    {
        const QJsonObject answer =
            roundTrip(QStringLiteral("m"), QStringLiteral("sign:getLocalRoot"));
        QCOMPARE(answer.value(QStringLiteral("result"))
                     .toObject()
                     .value(QStringLiteral("value"))
                     .toString(),
                 m_profile->rootPath());
        QCOMPARE(m_trace->built, 0);
    }

    void workerFactoryFailures_data()
    {
        QTest::addColumn<int>("mode");
        QTest::addColumn<QString>("code");
        QTest::addColumn<QString>("message");
        const QString fallback = QStringLiteral("VANTRO_SIGN_BRIDGE_ERROR");
        QTest::newRow("no components") << 0 << fallback << "Worker components are unavailable.";
        QTest::newRow("factory throws a coded error") << 1 << "VANTRO_TEST_FACTORY"
                                                      << "VANTRO_TEST_FACTORY: broken";
        QTest::newRow("no factory") << 2 << fallback << "Worker components are unavailable.";
        QTest::newRow("factory throws something else")
            << 3 << fallback << "Unexpected failure in usb:diagnose.";
    }

    void workerFactoryFailures()
    {
        QFETCH(int, mode);
        QFETCH(QString, code);
        QFETCH(QString, message);
        WorkerFactory factory;
        if (mode == 0)
            factory = [] {
                return std::unique_ptr<WorkerComponents>();
            };
        else if (mode == 1)
            factory = []() -> std::unique_ptr<WorkerComponents> {
                throw VantroError(QStringLiteral("VANTRO_TEST_FACTORY: broken"));
            };
        else if (mode == 3)
            factory = []() -> std::unique_ptr<WorkerComponents> {
                throw 42;
            };
        BridgeChannel channel(m_bridge.get(), m_api.get(), factory);
        channel.attachWebView(&m_view);
        QSignalSpy posted(&channel, &BridgeChannel::resultPosted);
        channel.handleWebMessage(
            QString::fromUtf8(callJson(QStringLiteral("f"), QStringLiteral("usb:diagnose"))),
            m_source);
        QVERIFY(posted.wait(5000));
        const QJsonObject error = m_view.answer(QStringLiteral("f"))
                                      .value(QStringLiteral("result"))
                                      .toObject()
                                      .value(QStringLiteral("error"))
                                      .toObject();
        QCOMPARE(error.value(QStringLiteral("code")).toString(), code);
        QCOMPARE(error.value(QStringLiteral("message")).toString(), message);
    }

    void defaultFactoryAnswers()
    {
        BridgeChannel channel(m_bridge.get(), m_api.get(),
                              defaultWorkerFactory(m_profile->devicePath()));
        channel.attachWebView(&m_view);
        QSignalSpy posted(&channel, &BridgeChannel::resultPosted);
        channel.handleWebMessage(
            QString::fromUtf8(callJson(QStringLiteral("d"), QStringLiteral("usb:sign"))), m_source);
        QVERIFY(posted.wait(5000));
        QCOMPARE(codeIn(m_view.answer(QStringLiteral("d"))),
                 QStringLiteral("VANTRO_USB_HELPER_UNAVAILABLE"));
    }

    void revealOperationIds_data()
    {
        QTest::addColumn<QJsonArray>("args");
        QTest::newRow("no argument") << QJsonArray();
        QTest::newRow("argument not an object") << QJsonArray{QStringLiteral("op")};
        QTest::newRow("empty id") << QJsonArray{QJsonObject{{QStringLiteral("operationId"), ""}}};
        QTest::newRow("blank id") << QJsonArray{
            QJsonObject{{QStringLiteral("operationId"), "   "}}};
        QTest::newRow("id of wrong type")
            << QJsonArray{QJsonObject{{QStringLiteral("operationId"), 12}}};
    }

    void revealOperationIds()
    {
        QFETCH(QJsonArray, args);
        send(callJson(QStringLiteral("r"), QStringLiteral("sign:ensureLocalArtifactAndReveal"),
                      args));
        // Refused at once, without a worker.
        QCOMPARE(codeIn(m_view.answer(QStringLiteral("r"))),
                 QStringLiteral("VANTRO_SIGN_ARTIFACT_REVEAL_OPERATION_INVALID"));
        QCOMPARE(m_view.answer(QStringLiteral("r"))
                     .value(QStringLiteral("result"))
                     .toObject()
                     .value(QStringLiteral("error"))
                     .toObject()
                     .value(QStringLiteral("message"))
                     .toString(),
                 QStringLiteral("Artifact reveal operation id is invalid or already active."));
        QCOMPARE(m_trace->built, 0);
    }

    void revealOperationIdActiveOnce()
    {
        const QJsonArray args{QJsonObject{{QStringLiteral("operationId"), QStringLiteral("op-1")}}};
        QSignalSpy posted(m_channel.get(), &BridgeChannel::resultPosted);
        const QString method = QStringLiteral("sign:ensureLocalArtifactAndReveal");
        send(callJson(QStringLiteral("first"), method, args));
        // No event processing in between: the first is still active.
        send(callJson(QStringLiteral("second"), method, args));
        QCOMPARE(codeIn(m_view.answer(QStringLiteral("second"))),
                 QStringLiteral("VANTRO_SIGN_ARTIFACT_REVEAL_OPERATION_INVALID"));
        while (m_view.answer(QStringLiteral("first")).isEmpty())
            QVERIFY(posted.wait(5000));
        QCOMPARE(codeIn(m_view.answer(QStringLiteral("first"))),
                 QStringLiteral("VANTRO_SIGN_COMPONENT_UNAVAILABLE"));
        // Released with the answer: the id may be used again.
        const QJsonObject third = roundTrip(QStringLiteral("third"), method, args);
        QCOMPARE(codeIn(third), QStringLiteral("VANTRO_SIGN_COMPONENT_UNAVAILABLE"));
    }

    void failedAsyncCallsRunNoHooks()
    {
        FakeHooks hooks;
        m_channel->setCompletionHooks(&hooks);
        for (const char* method :
             {"sign:reconcileLocalRoot", "sign:showNativePreview", "sign:openServerDocument"})
            roundTrip(QString::fromLatin1(method), QString::fromLatin1(method));
        QCOMPARE(m_view.posts.size(), 3);
        QVERIFY(hooks.calls.isEmpty());
        QVERIFY(m_view.scripts.isEmpty());
    }

    void exclusiveFlagSharedWithWorkers_data()
    {
        QTest::addColumn<QString>("method");
        QTest::addColumn<QString>("code");
        QTest::newRow("card signing")
            << QStringLiteral("usb:sign") << QStringLiteral("VANTRO_USB_BRIDGE_BUSY");
        QTest::newRow("upload") << QStringLiteral("sign:uploadLocalDocument")
                                << QStringLiteral("VANTRO_SIGN_BRIDGE_BUSY");
        QTest::newRow("status while busy") << QStringLiteral("sign:getStatus") << QString();
        QTest::newRow("diagnostics while busy")
            << QStringLiteral("usb:diagnose") << QStringLiteral("VANTRO_USB_HELPER_UNAVAILABLE");
    }

    // While sign:pickFiles has its dialog open (an event loop runs, as in a modal dialog),
    // calls from the page keep arriving and are answered.
    void exclusiveFlagSharedWithWorkers()
    {
        QFETCH(QString, method);
        QFETCH(QString, code);
        QJsonObject during;
        m_shell.duringDialog = [&] {
            during = roundTrip(QStringLiteral("inner"), method);
        };
        send(callJson(QStringLiteral("outer"), QStringLiteral("sign:pickFiles")));
        QVERIFY(!m_view.answer(QStringLiteral("outer")).isEmpty());
        QVERIFY(!during.isEmpty());
        QCOMPARE(codeIn(during), code);
        // The answer to the inner call went out first.
        QVERIFY(m_view.posts.first().contains("\"inner\""));
    }

    void desktopEventScript_data()
    {
        QTest::addColumn<QString>("type");
        QTest::addColumn<QVariant>("detail");
        QTest::addColumn<QString>("envelope");
        QTest::newRow("drop state")
            << QStringLiteral("vantro-sign-drop-state")
            << QVariant(OrderedObject{
                   {QStringLiteral("active"), true},
                   {QStringLiteral("busy"),
                    false}}.toVariant())
            << R"({"vantroSignDesktopEvent":true,"type":"vantro-sign-drop-state","detail":{"active":true,"busy":false}})";
        QTest::newRow("empty detail")
            << QStringLiteral("vantro-sign-open-update-status") << QVariant(QVariantMap())
            << R"({"vantroSignDesktopEvent":true,"type":"vantro-sign-open-update-status","detail":{}})";
        QTest::newRow("no detail")
            << QStringLiteral("vantro-sign-open-update-status") << QVariant()
            << R"({"vantroSignDesktopEvent":true,"type":"vantro-sign-open-update-status","detail":{}})";
        QTest::newRow("text needing escapes")
            << QStringLiteral("vantro-sign-drop-error")
            << QVariant(QVariantMap{
                   {QStringLiteral("message"), QStringLiteral("bad \"name\" </script> %2 \\ end")}})
            << "{\"vantroSignDesktopEvent\":true,\"type\":\"vantro-sign-drop-error\",\"detail\":{"
               "\"message\":\"bad \\\"name\\\" </script> %2 \\\\ end\"}}";
    }

    void desktopEventScript()
    {
        QFETCH(QString, type);
        QFETCH(QVariant, detail);
        QFETCH(QString, envelope);
        m_channel->emitDesktopEvent(type, detail);
        const QString origin = QString::fromLatin1(config::kProductionOrigin);
        QCOMPARE(m_api->webAppOrigin(), origin);
        QCOMPARE(
            m_view.scripts,
            QStringList{QStringLiteral("window.postMessage(%1, \"%2\");").arg(envelope, origin)});
        QVERIFY(m_view.posts.isEmpty());
    }

    void desktopEventsDropped_data()
    {
        QTest::addColumn<int>("mode");
        QTest::newRow("no web view") << 0;
        QTest::newRow("no service client") << 1;
        QTest::newRow("empty origin") << 2;
    }

    void desktopEventsDropped()
    {
        QFETCH(int, mode);
        SignApiClient api(m_state.get());
        BridgeChannel channel(m_bridge.get(), mode == 1 ? nullptr : &api, tracingFactory());
        if (mode != 0)
            channel.attachWebView(&m_view);
        if (mode == 2) {
            api.setBaseUrl(QString());
            QCOMPARE(api.webAppOrigin(), QString());
        }
        channel.emitDesktopEvent(QStringLiteral("vantro-sign-drop-state"),
                                 QVariantMap{{QStringLiteral("active"), true}});
        QVERIFY(m_view.scripts.isEmpty());
        // Dropped, not queued: attaching afterwards sends nothing either.
        channel.attachWebView(&m_view);
        QVERIFY(m_view.scripts.isEmpty());
    }
};

QTEST_GUILESS_MAIN(TestBridgeChannel)
#include "tst_bridge_channel.moc"
