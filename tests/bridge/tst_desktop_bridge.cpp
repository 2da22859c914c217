// DesktopBridge: origin check, exclusive rule, routing, error mapping and the built rows.
#include "BridgeTestSupport.h"

#include "api/SignApiClient.h"
#include "app/AppState.h"
#include "app/Errors.h"
#include "bridge/BridgeArgs.h"
#include "bridge/BridgeDispatch.h"
#include "bridge/DesktopBridge.h"
#include "bridge/NativeHost.h"
#include "vantro_config.h"

#include <QJsonArray>
#include <QThread>
#include <QtTest>

#include <memory>
#include <stdexcept>
#include <utility>

using namespace vantro;
using namespace vantro::test;

namespace {

struct MethodTraits
{
    const char* name;
    bool async;
    bool exclusive;
};

// Every page method in dispatch order with the thread it runs on and whether it is exclusive.
const QList<MethodTraits> kMethods{
    {"sign:getStatus", false, false},
    {"sign:getUpdateStatus", false, false},
    {"sign:checkForUpdates", false, false},
    {"sign:startUpdate", false, false},
    {"sign:cancelUpdate", false, false},
    {"sign:applyUpdate", false, false},
    {"sign:getTheme", false, false},
    {"sign:setTheme", false, false},
    {"sign:getLocalDeleteSettings", false, false},
    {"sign:setLocalDeleteSettings", false, false},
    {"sign:setQesVisualPosition", false, false},
    {"sign:getLocalRoot", false, false},
    {"sign:setLocalRoot", false, false},
    {"sign:pickFiles", false, true},
    {"sign:reconcileLocalRoot", true, true},
    {"sign:listDocuments", false, false},
    {"sign:listJobs", false, false},
    {"sign:deleteLocalDocument", true, true},
    {"sign:uploadLocalDocument", true, true},
    {"sign:runPdfTool", true, true},
    {"sign:listExternalInvitations", true, false},
    {"sign:createExternalInvitation", true, true},
    {"sign:cancelExternalInvitation", true, true},
    {"sign:remindExternalInvitation", true, true},
    {"sign:hashFile", true, false},
    {"sign:queueUpload", true, true},
    {"sign:mirrorArtifact", true, false},
    {"sign:ensureLocalArtifactAndReveal", true, true},
    {"sign:cancelArtifactReveal", false, false},
    {"sign:getMirrorStatus", false, false},
    {"sign:retryMirrorQueue", true, true},
    {"sign:openServerDocument", true, false},
    {"sign:renderServerDocumentPreview", true, false},
    {"sign:warmServerDocumentPreview", true, false},
    {"sign:showNativePreview", true, false},
    {"sign:closeNativePreview", false, false},
    {"sign:openLocalRoot", false, false},
    {"sign:openLocalFolder", false, false},
    {"sign:openLocalArtifactFolder", false, false},
    {"sign:getLocalArtifactStatus", true, false},
    {"sign:removeLocalArtifact", false, true},
    {"sign:removeLocalDocumentArtifacts", false, true},
    {"sign:extractAdocFiles", true, true},
    {"sign:openLocalFile", false, false},
    {"sign:revealLocalFile", false, false},
    {"sign:activate", false, false},
    {"usb:isAvailable", false, false},
    {"usb:diagnose", true, false},
    {"usb:getSigningCertificate", true, true},
    {"usb:sign", true, true},
    {"usb:signBatch", true, true},
    {"usb:authenticate", true, true},
};

// Rows whose components are not part of this build yet.
const QStringList kPendingMethods{
    QStringLiteral("sign:reconcileLocalRoot"),
    QStringLiteral("sign:deleteLocalDocument"),
    QStringLiteral("sign:uploadLocalDocument"),
    QStringLiteral("sign:runPdfTool"),
    QStringLiteral("sign:listExternalInvitations"),
    QStringLiteral("sign:createExternalInvitation"),
    QStringLiteral("sign:cancelExternalInvitation"),
    QStringLiteral("sign:remindExternalInvitation"),
    QStringLiteral("sign:hashFile"),
    QStringLiteral("sign:queueUpload"),
    QStringLiteral("sign:mirrorArtifact"),
    QStringLiteral("sign:ensureLocalArtifactAndReveal"),
    QStringLiteral("sign:cancelArtifactReveal"),
    QStringLiteral("sign:getMirrorStatus"),
    QStringLiteral("sign:retryMirrorQueue"),
    QStringLiteral("sign:openServerDocument"),
    QStringLiteral("sign:renderServerDocumentPreview"),
    QStringLiteral("sign:warmServerDocumentPreview"),
    QStringLiteral("sign:showNativePreview"),
    QStringLiteral("sign:closeNativePreview"),
    QStringLiteral("sign:openLocalArtifactFolder"),
    QStringLiteral("sign:getLocalArtifactStatus"),
    QStringLiteral("sign:removeLocalArtifact"),
    QStringLiteral("sign:removeLocalDocumentArtifacts"),
    QStringLiteral("sign:extractAdocFiles"),
    QStringLiteral("sign:openLocalFile"),
    QStringLiteral("sign:revealLocalFile"),
    QStringLiteral("usb:diagnose"),
    QStringLiteral("usb:getSigningCertificate"),
    QStringLiteral("usb:sign"),
    QStringLiteral("usb:signBatch"),
    QStringLiteral("usb:authenticate"),
};

const QString kBusyMessage =
    QStringLiteral("Vantro Sign is still processing the previous desktop request.");
// What sign:pickFiles answers when its dialog was cancelled: it ran, and imported nothing.
const QString kNothingPicked = QStringLiteral("VANTRO_SIGN_IMPORT_FILES_REQUIRED");

bool isOk(const OrderedObject& result)
{
    return result.value(QStringLiteral("ok")).toBool();
}

QString codeOf(const OrderedObject& result)
{
    return variantMember(result.value(QStringLiteral("error")), QStringLiteral("code")).toString();
}

QString messageOf(const OrderedObject& result)
{
    return variantMember(result.value(QStringLiteral("error")), QStringLiteral("message"))
        .toString();
}

QVariant valueOf(const OrderedObject& result)
{
    return result.value(QStringLiteral("value"));
}

QVariantList argsFromJson(const QByteArray& json)
{
    return QJsonDocument::fromJson(json).array().toVariantList();
}

QStringList tableNames(const DispatchTable& table)
{
    QStringList names;
    for (const BridgeMethod& row : table.methods)
        names << QString::fromLatin1(row.name);
    return names;
}

} // namespace

class TestDesktopBridge : public QObject
{
    Q_OBJECT

private:
    OrderedObject call(const QString& method, const QVariantList& args = {})
    {
        return m_bridge->handle(method, args, m_source);
    }

    std::unique_ptr<IsolatedProfile> m_profile;
    std::unique_ptr<AppState> m_state;
    std::unique_ptr<SignApiClient> m_api;
    std::unique_ptr<DesktopBridge> m_bridge;
    std::unique_ptr<FakeShell> m_shell;
    QString m_source;

private Q_SLOTS:
    void init()
    {
        m_profile = std::make_unique<IsolatedProfile>();
        QVERIFY(m_profile->isValid());
        m_state = std::make_unique<AppState>(m_profile->devicePath());
        m_api = std::make_unique<SignApiClient>(m_state.get());
        m_bridge = std::make_unique<DesktopBridge>(m_state.get(), m_api.get());
        m_shell = std::make_unique<FakeShell>();
        m_bridge->setDesktopShell(m_shell.get());
        m_source = m_api->webAppUrl().toString();
        QVERIFY(m_api->isAllowedOrigin(QUrl(m_source)));
    }

    void cleanup()
    {
        m_bridge.reset();
        m_api.reset();
        m_state.reset();
        m_shell.reset();
        m_profile.reset();
    }

    void methodSets_data()
    {
        QTest::addColumn<QString>("method");
        QTest::addColumn<bool>("async");
        QTest::addColumn<bool>("exclusive");
        for (const MethodTraits& traits : kMethods)
            QTest::newRow(traits.name)
                << QString::fromLatin1(traits.name) << traits.async << traits.exclusive;
        // Names are compared exactly: other spellings are in neither set.
        QTest::newRow("upper-case prefix") << QStringLiteral("SIGN:pickFiles") << false << false;
        QTest::newRow("lower-case name") << QStringLiteral("usb:signbatch") << false << false;
        QTest::newRow("trailing blank") << QStringLiteral("usb:sign ") << false << false;
        QTest::newRow("empty") << QString() << false << false;
    }

    void methodSets()
    {
        QFETCH(QString, method);
        QFETCH(bool, async);
        QFETCH(bool, exclusive);
        QCOMPARE(DesktopBridge::isAsynchronous(method), async);
        QCOMPARE(DesktopBridge::isExclusive(method), exclusive);
    }

    void methodSetSizes()
    {
        int async = 0;
        int exclusive = 0;
        for (const MethodTraits& traits : kMethods) {
            async += DesktopBridge::isAsynchronous(QString::fromLatin1(traits.name)) ? 1 : 0;
            exclusive += DesktopBridge::isExclusive(QString::fromLatin1(traits.name)) ? 1 : 0;
        }
        QCOMPARE(async, 24);
        QCOMPARE(exclusive, 18);
    }

    void tablesListEveryMethodInDispatchOrder()
    {
        QStringList expected;
        for (const MethodTraits& traits : kMethods)
            expected << QString::fromLatin1(traits.name);
        QCOMPARE(tableNames(signMethodTable()) + tableNames(usbMethodTable()), expected);
    }

    void pendingRowsNameTheirComponent_data()
    {
        QTest::addColumn<QString>("method");
        QTest::addColumn<QString>("code");
        for (const QString& method : kPendingMethods)
            QTest::newRow(qPrintable(method))
                << method
                << (method.startsWith(QLatin1String("usb:"))
                        ? QStringLiteral("VANTRO_USB_HELPER_UNAVAILABLE")
                        : QStringLiteral("VANTRO_SIGN_COMPONENT_UNAVAILABLE"));
    }

    void pendingRowsNameTheirComponent()
    {
        QFETCH(QString, method);
        QFETCH(QString, code);
        const OrderedObject result = call(method, {QVariantMap{}});
        QVERIFY(!isOk(result));
        QCOMPARE(codeOf(result), code);
        QVERIFY2(QRegularExpression(QStringLiteral("^\\S.* is not available in this build\\.$"))
                     .match(messageOf(result))
                     .hasMatch(),
                 qPrintable(messageOf(result)));
        // The exclusive flag of a pending row is released like any other.
        QCOMPARE(codeOf(call(QStringLiteral("sign:pickFiles"))), kNothingPicked);
    }

    void originForbidden_data()
    {
        QTest::addColumn<QString>("source");
        QTest::addColumn<QString>("method");
        const QString origin = QString::fromLatin1(config::kProductionOrigin);
        QTest::newRow("empty source") << QString() << QStringLiteral("sign:getStatus");
        QTest::newRow("other host")
            << QStringLiteral("https://evil.example/sign/app/") << QStringLiteral("sign:getStatus");
        QTest::newRow("same origin, other path")
            << origin + QStringLiteral("/other/") << QStringLiteral("sign:getTheme");
        QTest::newRow("path that only starts like the app")
            << origin + QStringLiteral("/sign/application") << QStringLiteral("sign:getTheme");
        QTest::newRow("plain http") << QStringLiteral("http://sign.vantro.example/sign/app/")
                                    << QStringLiteral("sign:getTheme");
        QTest::newRow("explicit other port")
            << QStringLiteral("https://sign.vantro.example:8443/sign/app/")
            << QStringLiteral("usb:sign");
        QTest::newRow("portal origin")
            << QString::fromLatin1(config::kPortalOrigin) + QStringLiteral("/sign/app/")
            << QStringLiteral("sign:activate");
        QTest::newRow("javascript url")
            << QStringLiteral("javascript:alert(1)") << QStringLiteral("sign:pickFiles");
        QTest::newRow("garbage") << QStringLiteral("::: not a url :::")
                                 << QStringLiteral("file:open");
    }

    void originForbidden()
    {
        QFETCH(QString, source);
        QFETCH(QString, method);
        const OrderedObject result = m_bridge->handle(method, {}, source);
        QCOMPARE(codeOf(result), QStringLiteral("ERR_VANTRO_ORIGIN_FORBIDDEN"));
        QCOMPARE(messageOf(result), QStringLiteral("Vantro Sign bridge rejected this origin."));
        QVERIFY(m_shell->calls.isEmpty());
    }

    void originForbiddenWithoutClient()
    {
        DesktopBridge bridge(m_state.get(), nullptr);
        const OrderedObject result = bridge.handle(QStringLiteral("sign:getTheme"), {}, m_source);
        QCOMPARE(codeOf(result), QStringLiteral("ERR_VANTRO_ORIGIN_FORBIDDEN"));
    }

    void unknownMethods_data()
    {
        QTest::addColumn<QString>("method");
        QTest::newRow("other prefix") << QStringLiteral("file:open");
        QTest::newRow("unknown sign name") << QStringLiteral("sign:nope");
        QTest::newRow("unknown usb name") << QStringLiteral("usb:nope");
        QTest::newRow("bare sign prefix") << QStringLiteral("sign:");
        QTest::newRow("prefix case differs") << QStringLiteral("Sign:getStatus");
        QTest::newRow("name case differs") << QStringLiteral("sign:getstatus");
        QTest::newRow("usb name case differs") << QStringLiteral("usb:isavailable");
        QTest::newRow("no prefix") << QStringLiteral("getStatus");
        QTest::newRow("empty") << QString();
    }

    void unknownMethods()
    {
        QFETCH(QString, method);
        const OrderedObject result = call(method);
        QCOMPARE(codeOf(result), QStringLiteral("VANTRO_SIGN_BRIDGE_METHOD_UNKNOWN"));
        QCOMPARE(messageOf(result), method);
    }

    void resultBuilders()
    {
        const QByteArray okNumber = R"({"ok":true,"value":5})";
        const QByteArray okNull = R"({"ok":true,"value":null})";
        // Written without a raw literal: moc misreads a backslash inside one.
        const QByteArray failure =
            "{\"ok\":false,\"error\":{\"code\":\"X_Y\",\"message\":\"m\\\"n\"}}";
        QCOMPARE(DesktopBridge::ok(5).toJson(), okNumber);
        QCOMPARE(DesktopBridge::ok().toJson(), okNull);
        QCOMPARE(DesktopBridge::error(QStringLiteral("X_Y"), QStringLiteral("m\"n")).toJson(),
                 failure);
    }

    void exceptionsBecomeErrors_data()
    {
        QTest::addColumn<QString>("kind");
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("code");
        QTest::addColumn<QString>("message");
        const QString fallback = QStringLiteral("VANTRO_SIGN_BRIDGE_ERROR");
        QTest::newRow("code and message") << "vantro"
                                          << "CODE: msg"
                                          << "CODE"
                                          << "CODE: msg";
        QTest::newRow("empty code") << "vantro"
                                    << ": msg" << fallback << ": msg";
        QTest::newRow("no colon") << "vantro"
                                  << "no colon"
                                  << "no colon"
                                  << "no colon";
        QTest::newRow("spaced code") << "vantro"
                                     << "  SPACED  : x"
                                     << "SPACED"
                                     << "  SPACED  : x";
        QTest::newRow("several colons") << "vantro"
                                        << "A: b: c"
                                        << "A"
                                        << "A: b: c";
        QTest::newRow("empty text") << "vantro"
                                    << "" << fallback << "";
        QTest::newRow("non-ascii detail") << "vantro"
                                          << "CODE: Žinutė"
                                          << "CODE"
                                          << "CODE: Žinutė";
        QTest::newRow("std runtime_error") << "runtime"
                                           << "DB_LOCKED: busy"
                                           << "DB_LOCKED"
                                           << "DB_LOCKED: busy";
        QTest::newRow("std logic_error") << "logic"
                                         << "bad state"
                                         << "bad state"
                                         << "bad state";
        QTest::newRow("not an exception class")
            << "int"
            << "" << fallback << "Unexpected failure in sign:pickFiles.";
    }

    void exceptionsBecomeErrors()
    {
        QFETCH(QString, kind);
        QFETCH(QString, text);
        QFETCH(QString, code);
        QFETCH(QString, message);
        m_shell->duringDialog = [&] {
            if (kind == QLatin1String("vantro"))
                throw VantroError(text);
            if (kind == QLatin1String("runtime"))
                throw std::runtime_error(text.toStdString());
            if (kind == QLatin1String("logic"))
                throw std::logic_error(text.toStdString());
            throw 42;
        };
        const OrderedObject result = call(QStringLiteral("sign:pickFiles"));
        QVERIFY(!isOk(result));
        QCOMPARE(codeOf(result), code);
        QCOMPARE(messageOf(result), message);

        // The throw left the exclusive section: the next exclusive call is not busy.
        m_shell->duringDialog = nullptr;
        QCOMPARE(codeOf(call(QStringLiteral("sign:pickFiles"))), kNothingPicked);
    }

    void exclusiveRuleWhileAnotherRuns_data()
    {
        QTest::addColumn<QString>("method");
        QTest::addColumn<QString>("busyCode");
        for (const MethodTraits& traits : kMethods) {
            const QString name = QString::fromLatin1(traits.name);
            QString code;
            if (traits.exclusive)
                code = name.startsWith(QLatin1String("usb:"))
                           ? QStringLiteral("VANTRO_USB_BRIDGE_BUSY")
                           : QStringLiteral("VANTRO_SIGN_BRIDGE_BUSY");
            QTest::newRow(traits.name) << name << code;
        }
    }

    // sign:pickFiles holds the flag while its dialog is open; calls made meanwhile meet it.
    void exclusiveRuleWhileAnotherRuns()
    {
        QFETCH(QString, method);
        QFETCH(QString, busyCode);
        OrderedObject during;
        bool entered = false;
        m_shell->duringDialog = [&] {
            // Rows that open a dialog themselves must not recurse.
            if (std::exchange(entered, true))
                return;
            during = call(method, {QVariantMap{}});
        };
        QCOMPARE(codeOf(call(QStringLiteral("sign:pickFiles"))), kNothingPicked);
        if (busyCode.isEmpty()) {
            QVERIFY2(!codeOf(during).endsWith(QLatin1String("_BRIDGE_BUSY")),
                     qPrintable(codeOf(during)));
        } else {
            QCOMPARE(codeOf(during), busyCode);
            QCOMPARE(messageOf(during), kBusyMessage);
        }
        // Released afterwards: the same method is no longer refused as busy.
        m_shell->calls.clear();
        const OrderedObject after = call(method, {QVariantMap{}});
        QVERIFY2(!codeOf(after).endsWith(QLatin1String("_BRIDGE_BUSY")), qPrintable(codeOf(after)));
    }

    void exclusiveRuleAcrossThreads()
    {
        // A bridge built on another thread shares the one process-wide flag.
        OrderedObject fromWorker;
        m_shell->duringDialog = [&] {
            QThread* worker = QThread::create([&] {
                AppState state(m_profile->devicePath());
                SignApiClient api(&state);
                DesktopBridge bridge(&state, &api);
                fromWorker = bridge.handle(QStringLiteral("usb:sign"), {}, m_source);
            });
            worker->start();
            worker->wait();
            delete worker;
        };
        QCOMPARE(codeOf(call(QStringLiteral("sign:pickFiles"))), kNothingPicked);
        QCOMPARE(codeOf(fromWorker), QStringLiteral("VANTRO_USB_BRIDGE_BUSY"));
    }

    void stringArguments_data()
    {
        QTest::addColumn<QByteArray>("args");
        QTest::addColumn<int>("index");
        QTest::addColumn<QString>("expected");
        QTest::newRow("string") << QByteArray(R"(["abc"])") << 0 << "abc";
        QTest::newRow("missing position") << QByteArray("[]") << 0 << "";
        QTest::newRow("beyond the end") << QByteArray(R"(["a"])") << 3 << "";
        QTest::newRow("negative position") << QByteArray(R"(["a"])") << -1 << "";
        QTest::newRow("second position") << QByteArray(R"(["a","b"])") << 1 << "b";
        QTest::newRow("whole number") << QByteArray("[5]") << 0 << "5";
        QTest::newRow("fraction") << QByteArray("[1.5]") << 0 << "1.5";
        QTest::newRow("bool") << QByteArray("[true]") << 0 << "true";
        QTest::newRow("null") << QByteArray("[null]") << 0 << "";
        QTest::newRow("object") << QByteArray(R"([{"a":"b"}])") << 0 << "";
        QTest::newRow("one-element list") << QByteArray(R"([["dark"]])") << 0 << "";
    }

    void stringArguments()
    {
        QFETCH(QByteArray, args);
        QFETCH(int, index);
        QFETCH(QString, expected);
        QCOMPARE(bridgeargs::stringAt(argsFromJson(args), index), expected);
    }

    void objectArguments_data()
    {
        QTest::addColumn<QByteArray>("args");
        QTest::addColumn<int>("index");
        QTest::addColumn<QByteArray>("expected");
        QTest::newRow("object") << QByteArray(R"([{"a":1}])") << 0 << QByteArray(R"({"a":1})");
        QTest::newRow("missing position") << QByteArray("[]") << 0 << QByteArray("{}");
        QTest::newRow("string") << QByteArray(R"(["x"])") << 0 << QByteArray("{}");
        QTest::newRow("list") << QByteArray(R"([[{"a":1}]])") << 0 << QByteArray("{}");
        QTest::newRow("null") << QByteArray("[null]") << 0 << QByteArray("{}");
        QTest::newRow("second position")
            << QByteArray(R"([1,{"b":true}])") << 1 << QByteArray(R"({"b":true})");
    }

    void objectArguments()
    {
        QFETCH(QByteArray, args);
        QFETCH(int, index);
        QFETCH(QByteArray, expected);
        QCOMPARE(toCompactJson(bridgeargs::objectAt(argsFromJson(args), index)), expected);
    }

    void setThemeReadsItsArgument_data()
    {
        QTest::addColumn<QByteArray>("args");
        QTest::addColumn<QString>("theme");
        QTest::newRow("dark") << QByteArray(R"(["dark"])") << "dark";
        QTest::newRow("light") << QByteArray(R"(["light"])") << "light";
        QTest::newRow("no argument") << QByteArray("[]") << "light";
        QTest::newRow("capitalised") << QByteArray(R"(["Dark"])") << "light";
        QTest::newRow("number") << QByteArray("[5]") << "light";
        QTest::newRow("object") << QByteArray(R"([{"theme":"dark"}])") << "light";
        QTest::newRow("list holding dark") << QByteArray(R"([["dark"]])") << "light";
        QTest::newRow("extra arguments") << QByteArray(R"(["dark","x",{}])") << "dark";
    }

    void setThemeReadsItsArgument()
    {
        QFETCH(QByteArray, args);
        QFETCH(QString, theme);
        m_state->setTheme(theme == QLatin1String("dark") ? QStringLiteral("light")
                                                         : QStringLiteral("dark"));
        const OrderedObject result = call(QStringLiteral("sign:setTheme"), argsFromJson(args));
        QVERIFY(isOk(result));
        QCOMPARE(valueOf(result).toString(), theme);
        QCOMPARE(valueOf(call(QStringLiteral("sign:getTheme"))).toString(), theme);
        QCOMPARE(AppState(m_profile->devicePath()).theme(), theme);
    }

    void localDeleteSettings_data()
    {
        QTest::addColumn<QByteArray>("args");
        QTest::addColumn<QString>("action");
        QTest::addColumn<QString>("folder");
        QTest::newRow("kept action")
            << QByteArray(R"([{"deletedFileAction":"keep_local_files"}])") << "keep_local_files"
            << "Istrinta";
        QTest::newRow("folder is cleaned")
            << QByteArray(R"([{"deletedFolderName":"a/b: c. "}])") << "move_to_deleted_folder"
            << "a_b_ c";
        QTest::newRow("not an object")
            << QByteArray(R"(["delete_permanently"])") << "move_to_deleted_folder"
            << "Istrinta";
        QTest::newRow("no argument") << QByteArray("[]") << "move_to_deleted_folder"
                                     << "Istrinta";
    }

    void localDeleteSettings()
    {
        QFETCH(QByteArray, args);
        QFETCH(QString, action);
        QFETCH(QString, folder);
        const OrderedObject result =
            call(QStringLiteral("sign:setLocalDeleteSettings"), argsFromJson(args));
        QVERIFY(isOk(result));
        const QVariantMap stored = valueOf(result).toMap();
        QCOMPARE(stored.value(QStringLiteral("deletedFileAction")).toString(), action);
        QCOMPARE(stored.value(QStringLiteral("deletedFolderName")).toString(), folder);
        QCOMPARE(valueOf(call(QStringLiteral("sign:getLocalDeleteSettings"))).toMap(), stored);
    }

    void statusKeysInOrder()
    {
        const OrderedObject result = call(QStringLiteral("sign:getStatus"));
        QVERIFY(isOk(result));
        const OrderedObject status = valueOf(result).value<OrderedObject>();
        const QStringList keys{"version",           "activated",
                               "localRoot",         "theme",
                               "license",           "signerProfile",
                               "helperAvailable",   "helperBackgroundRunning",
                               "helperRuntime",     "helperRuntimeVersion",
                               "helperRuntimePath", "usbSignBatchNative"};
        QCOMPARE(status.keys(), keys);
        QCOMPARE(status.value(QStringLiteral("version")).toString(),
                 QString::fromLatin1(config::kApplicationVersion));
        QCOMPARE(status.value(QStringLiteral("localRoot")).toString(), m_profile->rootPath());
        QCOMPARE(status.value(QStringLiteral("helperRuntime")).toString(), QStringLiteral("next"));
        // The helper's own answers win over the status defaults.
        QCOMPARE(status.value(QStringLiteral("helperAvailable")).toBool(), false);
        QCOMPARE(status.value(QStringLiteral("helperBackgroundRunning")).toBool(), true);
        QCOMPARE(status.value(QStringLiteral("usbSignBatchNative")).toBool(), true);
        QCOMPARE(status.value(QStringLiteral("helperRuntimeVersion")).toString(),
                 QString::fromLatin1(config::kApplicationVersion));
    }

    void helperRuntimeKeysAndValues()
    {
        const OrderedObject helper = m_bridge->helperRuntime();
        const QStringList keys{"helperAvailable",    "helperBackgroundRunning",
                               "helperRuntime",      "helperRuntimeVersion",
                               "helperRuntimePath",  "usbSignBatchNative",
                               "storedPinAvailable", "savedPinCount",
                               "pendingMirrorCount", "failedMirrorCount"};
        QCOMPARE(helper.keys(), keys);
        QCOMPARE(helper.value(QStringLiteral("helperRuntime")).toString(), QStringLiteral("next"));
        QCOMPARE(helper.value(QStringLiteral("savedPinCount")).toInt(), 0);
        QCOMPARE(helper.value(QStringLiteral("storedPinAvailable")).toBool(), false);
        QCOMPARE(helper.value(QStringLiteral("pendingMirrorCount")).toInt(), 0);
        QCOMPARE(helper.value(QStringLiteral("failedMirrorCount")).toInt(), 0);
    }

    // The helper-runtime object is rebuilt after a second, but the host's location is looked
    // up once per bridge: a host installed while the program runs counts after a restart.
    void helperRuntimeCacheAndHostLocation()
    {
        const QString appDir = QCoreApplication::applicationDirPath();
        const QString hostPath = QDir(appDir).filePath(nativeHostFileName());
        QVERIFY2(!QFile::exists(hostPath), "a host program is already beside the test");
        const OrderedObject first = m_bridge->helperRuntime();
        QCOMPARE(first.value(QStringLiteral("helperAvailable")).toBool(), false);
        QCOMPARE(first.value(QStringLiteral("helperRuntimePath")).toString(), QString());

        const HostProgramBeside host(hostPath);
        QThread::msleep(1050);
        QCOMPARE(m_bridge->helperRuntime(), first);
        QCOMPARE(valueOf(call(QStringLiteral("usb:isAvailable"))).toBool(), false);

        DesktopBridge restarted(m_state.get(), m_api.get());
        const OrderedObject found = restarted.helperRuntime();
        QCOMPARE(found.value(QStringLiteral("helperAvailable")).toBool(), true);
        QCOMPARE(found.value(QStringLiteral("helperRuntimePath")).toString(), appDir);
        QCOMPARE(restarted.handle(QStringLiteral("usb:isAvailable"), {}, m_source)
                     .value(QStringLiteral("value"))
                     .toBool(),
                 true);
    }

    void helperSearchOrder_data()
    {
        QTest::addColumn<QStringList>("installed");
        QTest::addColumn<QString>("expected");
        const QStringList all{"app/h", "app/mw/h", "mw/h", "h"};
        QTest::newRow("beside the program wins") << all << "app/h";
        QTest::newRow("then mw below it") << all.mid(1) << "app/mw/h";
        QTest::newRow("then mw beside it") << all.mid(2) << "mw/h";
        QTest::newRow("then the parent directory") << all.mid(3) << "h";
        QTest::newRow("nowhere") << QStringList() << "";
        QTest::newRow("a folder of that name is no program") << QStringList{"app/h/"} << "";
    }

    void helperSearchOrder()
    {
        QFETCH(QStringList, installed);
        QFETCH(QString, expected);
        QTemporaryDir base;
        QVERIFY(QDir().mkpath(base.filePath(QStringLiteral("app"))));
        for (const QString& relative : installed) {
            const QString path = base.filePath(relative);
            QVERIFY(QDir().mkpath(QFileInfo(path).absolutePath()));
            QFile file(path);
            QVERIFY(relative.endsWith(QLatin1Char('/')) || file.open(QIODevice::WriteOnly));
        }
        const QString found =
            findHelperExecutable(base.filePath(QStringLiteral("app")), QStringLiteral("h"));
        QCOMPARE(found, expected.isEmpty() ? QString() : base.filePath(expected));
    }

    void stateRowsWithoutState_data()
    {
        QTest::addColumn<QString>("method");
        QTest::newRow("getStatus") << QStringLiteral("sign:getStatus");
        QTest::newRow("getTheme") << QStringLiteral("sign:getTheme");
        QTest::newRow("setTheme") << QStringLiteral("sign:setTheme");
        QTest::newRow("setLocalRoot") << QStringLiteral("sign:setLocalRoot");
        QTest::newRow("pickFiles") << QStringLiteral("sign:pickFiles");
        QTest::newRow("listDocuments") << QStringLiteral("sign:listDocuments");
        QTest::newRow("openLocalFolder") << QStringLiteral("sign:openLocalFolder");
    }

    void stateRowsWithoutState()
    {
        QFETCH(QString, method);
        SignApiClient api(nullptr);
        DesktopBridge bridge(nullptr, &api);
        bridge.setDesktopShell(m_shell.get());
        const OrderedObject result = bridge.handle(method, {}, api.webAppUrl().toString());
        QCOMPARE(codeOf(result), QStringLiteral("VANTRO_SIGN_STATE_UNAVAILABLE"));
        QCOMPARE(messageOf(result), QStringLiteral("Vantro Sign state is unavailable."));
        QVERIFY(m_shell->calls.isEmpty());
    }

    void setLocalRootCancelledKeepsRoot_data()
    {
        QTest::addColumn<QString>("answer");
        QTest::newRow("cancelled") << QString();
        QTest::newRow("blank answer") << QStringLiteral("   ");
    }

    void setLocalRootCancelledKeepsRoot()
    {
        QFETCH(QString, answer);
        const QString before = m_state->localRoot();
        const QByteArray device = m_profile->deviceBytes();
        m_shell->folderAnswer = answer;
        const OrderedObject result = call(QStringLiteral("sign:setLocalRoot"));
        QCOMPARE(codeOf(result), QStringLiteral("VANTRO_SIGN_LOCAL_ROOT_NOT_SELECTED"));
        QCOMPARE(messageOf(result), QStringLiteral("Local root was not selected."));
        QCOMPARE(m_shell->calls,
                 QStringList{QStringLiteral("pickFolder|Vantro Sign folder|") + before});
        QCOMPARE(m_state->localRoot(), before);
        QCOMPARE(m_profile->deviceBytes(), device);
    }

    void setLocalRootStoresChoice()
    {
        const QString chosen = m_profile->path(QStringLiteral("chosen/deeper"));
        m_shell->folderAnswer = chosen;
        const OrderedObject result = call(QStringLiteral("sign:setLocalRoot"));
        QVERIFY(isOk(result));
        QCOMPARE(valueOf(result).toString(), chosen);
        QVERIFY(QFileInfo(chosen).isDir());
        QCOMPARE(AppState(m_profile->devicePath()).localRoot(), chosen);
    }

    void dialogRowsWithoutShell_data()
    {
        QTest::addColumn<QString>("method");
        QTest::newRow("setLocalRoot") << QStringLiteral("sign:setLocalRoot");
        QTest::newRow("pickFiles") << QStringLiteral("sign:pickFiles");
        QTest::newRow("openLocalRoot") << QStringLiteral("sign:openLocalRoot");
        QTest::newRow("openLocalFolder") << QStringLiteral("sign:openLocalFolder");
    }

    void dialogRowsWithoutShell()
    {
        QFETCH(QString, method);
        m_bridge->setDesktopShell(nullptr);
        const OrderedObject result = call(method);
        QCOMPARE(codeOf(result), QStringLiteral("VANTRO_SIGN_DESKTOP_SHELL_UNAVAILABLE"));
        QVERIFY(!messageOf(result).isEmpty());
        QCOMPARE(m_state->localRoot(), m_profile->rootPath());
    }

    void pickFilesCancelledImportsNothing()
    {
        const OrderedObject result = call(QStringLiteral("sign:pickFiles"));
        QCOMPARE(codeOf(result), kNothingPicked);
        QCOMPARE(m_shell->calls,
                 QStringList{QStringLiteral("pickFiles|Pasirinkite dokumentus|%1|Vantro Sign "
                                            "documents (*.pdf *.doc *.docx *.odt *.xls *.xlsx "
                                            "*.txt *.png *.jpg *.jpeg *.adoc *.asice)")
                                 .arg(m_profile->rootPath())});
    }

    void pickFilesImportsChosenFiles()
    {
        const QString source = m_profile->path(QStringLiteral("incoming.txt"));
        QFile file(source);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write("hello");
        file.close();
        m_shell->filesAnswer = {source};
        const OrderedObject result = call(QStringLiteral("sign:pickFiles"));
        QVERIFY2(isOk(result), qPrintable(messageOf(result)));
        const QVariantList imported = valueOf(result).toList();
        QCOMPARE(imported.size(), 1);
        QCOMPARE(imported.first().toMap().value(QStringLiteral("sourcePath")).toString(), source);
        const OrderedObject listed = call(QStringLiteral("sign:listDocuments"), {QVariantMap{}});
        QVERIFY(isOk(listed));
        QCOMPARE(valueOf(listed).toList().size(), 1);
    }

    void listingsOnEmptyStore_data()
    {
        QTest::addColumn<QString>("method");
        QTest::addColumn<QByteArray>("args");
        QTest::newRow("documents, no filter")
            << QStringLiteral("sign:listDocuments") << QByteArray("[]");
        QTest::newRow("documents, filter of wrong type")
            << QStringLiteral("sign:listDocuments") << QByteArray(R"(["x"])");
        QTest::newRow("jobs, id of wrong type")
            << QStringLiteral("sign:listJobs") << QByteArray(R"([{"id":1}])");
    }

    void listingsOnEmptyStore()
    {
        QFETCH(QString, method);
        QFETCH(QByteArray, args);
        const OrderedObject result = call(method, argsFromJson(args));
        QVERIFY2(isOk(result), qPrintable(messageOf(result)));
        QCOMPARE(valueOf(result).toList(), QVariantList());
    }

    void openLocalFolder_data()
    {
        QTest::addColumn<QByteArray>("args");
        QTest::addColumn<QString>("code");
        QTest::addColumn<QString>("openedRelative");
        const QString outside = QStringLiteral("VANTRO_SIGN_LOCAL_PATH_OUTSIDE_ROOT");
        const QString missing = QStringLiteral("VANTRO_SIGN_LOCAL_FOLDER_MISSING");
        QTest::newRow("root itself") << QByteArray(R"([""])") << ""
                                     << "";
        QTest::newRow("no argument") << QByteArray("[]") << ""
                                     << "";
        QTest::newRow("argument of wrong type") << QByteArray(R"([{"a":1}])") << ""
                                                << "";
        QTest::newRow("subfolder") << QByteArray(R"(["sub"])") << ""
                                   << "/sub";
        QTest::newRow("dot steps inside") << QByteArray(R"(["sub/./inner/.."])") << ""
                                          << "/sub";
        QTest::newRow("climbs out") << QByteArray(R"(["../outside"])") << outside << "";
        QTest::newRow("climbs out through a subfolder")
            << QByteArray(R"(["sub/../../outside"])") << outside << "";
        QTest::newRow("sibling sharing the root's name")
            << QByteArray(R"(["../root-evil"])") << outside << "";
        QTest::newRow("absolute path") << QByteArray(R"(["@outside"])") << outside << "";
        QTest::newRow("link leading out") << QByteArray(R"(["link-out"])") << outside << "";
        QTest::newRow("missing folder") << QByteArray(R"(["nothing-here"])") << missing << "";
        QTest::newRow("a file, not a folder") << QByteArray(R"(["file.txt"])") << missing << "";
    }

    void openLocalFolder()
    {
        QFETCH(QByteArray, args);
        QFETCH(QString, code);
        QFETCH(QString, openedRelative);
        const QString root = m_profile->rootPath();
        const QString outsideDir = m_profile->path(QStringLiteral("outside"));
        QVERIFY(QDir().mkpath(root + QStringLiteral("/sub/inner")));
        QVERIFY(QDir().mkpath(outsideDir));
        QVERIFY(QDir().mkpath(m_profile->path(QStringLiteral("root-evil"))));
        QVERIFY(QFile::link(outsideDir, root + QStringLiteral("/link-out")));
        QFile file(root + QStringLiteral("/file.txt"));
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.close();

        args.replace("@outside", outsideDir.toUtf8());
        const OrderedObject result =
            call(QStringLiteral("sign:openLocalFolder"), argsFromJson(args));
        if (!code.isEmpty()) {
            QCOMPARE(codeOf(result), code);
            QCOMPARE(messageOf(result),
                     code.endsWith(QLatin1String("OUTSIDE_ROOT"))
                         ? QStringLiteral("Requested folder is outside the Vantro Sign local root.")
                         : QStringLiteral("Vietinio aplanko atidaryti nepavyko."));
            QVERIFY(m_shell->opened.isEmpty());
            return;
        }
        QVERIFY2(isOk(result), qPrintable(messageOf(result)));
        const QVariantMap value = valueOf(result).value<OrderedObject>().toMap();
        QCOMPARE(value.value(QStringLiteral("opened")).toBool(), true);
        QCOMPARE(value.value(QStringLiteral("path")).toString(), root + openedRelative);
        QCOMPARE(m_shell->opened, QList<QUrl>{QUrl::fromLocalFile(root + openedRelative)});
    }

    void openLocalRootCreatesIt()
    {
        QVERIFY(QDir(m_profile->rootPath()).removeRecursively());
        m_shell->openAnswer = false;
        const OrderedObject result = call(QStringLiteral("sign:openLocalRoot"));
        QVERIFY(isOk(result));
        const OrderedObject value = valueOf(result).value<OrderedObject>();
        QCOMPARE(value.keys(), (QStringList{"opened", "path"}));
        QCOMPARE(value.value(QStringLiteral("opened")).toBool(), false);
        QCOMPARE(value.value(QStringLiteral("path")).toString(), m_profile->rootPath());
        QVERIFY(QFileInfo(m_profile->rootPath()).isDir());
    }

    void openLocalRootThatCannotExist()
    {
        // A root below a regular file can never be created.
        QFile blocker(m_profile->path(QStringLiteral("blocker")));
        QVERIFY(blocker.open(QIODevice::WriteOnly));
        blocker.close();
        m_profile->writeDevice(QJsonObject{
            {QStringLiteral("localRoot"), m_profile->path(QStringLiteral("blocker/root"))}});
        QVERIFY(m_state->load());
        const OrderedObject result = call(QStringLiteral("sign:openLocalRoot"));
        QCOMPARE(codeOf(result), QStringLiteral("VANTRO_SIGN_LOCAL_ROOT_MISSING"));
        QCOMPARE(messageOf(result), QStringLiteral("Vietinio aplanko sukurti nepavyko."));
        QVERIFY(m_shell->opened.isEmpty());
    }

    void fixedErrorRows_data()
    {
        QTest::addColumn<QString>("method");
        QTest::addColumn<QString>("code");
        QTest::addColumn<QString>("message");
        const QString update = QStringLiteral("VANTRO_SIGN_UPDATE_MANAGER_UNAVAILABLE");
        const QString updateMessage = QStringLiteral("Update manager is unavailable.");
        for (const char* method : {"sign:getUpdateStatus", "sign:checkForUpdates",
                                   "sign:startUpdate", "sign:cancelUpdate", "sign:applyUpdate"})
            QTest::newRow(method) << QString::fromLatin1(method) << update << updateMessage;
        QTest::newRow("sign:activate")
            << QStringLiteral("sign:activate")
            << QStringLiteral("VANTRO_SIGN_ACTIVATION_NATIVE_SCREEN_REQUIRED")
            << QStringLiteral("Use the native activation screen in this build.");
    }

    void fixedErrorRows()
    {
        QFETCH(QString, method);
        QFETCH(QString, code);
        QFETCH(QString, message);
        for (const QVariantList& args :
             {QVariantList{}, QVariantList{QVariantMap{{QStringLiteral("code"), 1}}}}) {
            const OrderedObject result = call(method, args);
            QCOMPARE(codeOf(result), code);
            QCOMPARE(messageOf(result), message);
        }
    }

    void visualPositionAnswersStatus_data()
    {
        QTest::addColumn<QString>("position");
        QTest::addColumn<QString>("stored");
        QTest::newRow("accepted") << QStringLiteral("bottom_right") << "bottom_right";
        QTest::newRow("refused") << QStringLiteral("center") << "top_left";
    }

    void visualPositionAnswersStatus()
    {
        QFETCH(QString, position);
        QFETCH(QString, stored);
        const OrderedObject result = call(QStringLiteral("sign:setQesVisualPosition"), {position});
        QVERIFY(isOk(result));
        const OrderedObject status = valueOf(result).value<OrderedObject>();
        QCOMPARE(status.keys().first(), QStringLiteral("version"));
        const QJsonObject profile = status.value(QStringLiteral("signerProfile")).toJsonObject();
        QCOMPARE(profile.value(QStringLiteral("visual_position")).toString(), stored);
    }

    void getLocalRootCreatesIt()
    {
        QVERIFY(QDir(m_profile->rootPath()).removeRecursively());
        const OrderedObject result = call(QStringLiteral("sign:getLocalRoot"));
        QVERIFY(isOk(result));
        QCOMPARE(valueOf(result).toString(), m_profile->rootPath());
        QVERIFY(QFileInfo(m_profile->rootPath()).isDir());
    }
};

QTEST_GUILESS_MAIN(TestDesktopBridge)
#include "tst_desktop_bridge.moc"
