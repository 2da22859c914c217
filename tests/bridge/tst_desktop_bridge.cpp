// DesktopBridge: method sets, exclusive rule, origin check, routing, error mapping and the rows.
#include "BridgeTestSupport.h"

#include "app/Errors.h"
#include "bridge/BridgeArgs.h"
#include "bridge/BridgeDispatch.h"
#include "bridge/NativeHost.h"
#include "store/LocalStore.h"
#include "vantro_config.h"

#include <QScopeGuard>
#include <QThread>
#include <QtTest>

#include <memory>
#include <stdexcept>
#include <utility>

using namespace vantro;
using namespace vantro::test;

namespace {

QStringList names(const char* spaced)
{
    return QString::fromLatin1(spaced).split(QLatin1Char(' '));
}

// Written out in full, so a method added to or dropped from either set in the code fails.
const QStringList kAsync = names(
    "usb:diagnose usb:getSigningCertificate usb:sign usb:signBatch usb:authenticate "
    "sign:reconcileLocalRoot sign:uploadLocalDocument sign:runPdfTool "
    "sign:createExternalInvitation sign:cancelExternalInvitation sign:remindExternalInvitation "
    "sign:listExternalInvitations sign:queueUpload sign:mirrorArtifact "
    "sign:ensureLocalArtifactAndReveal sign:retryMirrorQueue sign:getLocalArtifactStatus "
    "sign:openServerDocument sign:renderServerDocumentPreview sign:warmServerDocumentPreview "
    "sign:showNativePreview sign:deleteLocalDocument sign:extractAdocFiles sign:hashFile");
const QStringList kExclusive = names(
    "sign:pickFiles sign:reconcileLocalRoot sign:deleteLocalDocument sign:uploadLocalDocument "
    "sign:runPdfTool sign:createExternalInvitation sign:cancelExternalInvitation "
    "sign:remindExternalInvitation sign:queueUpload sign:ensureLocalArtifactAndReveal "
    "sign:retryMirrorQueue sign:removeLocalArtifact sign:removeLocalDocumentArtifacts "
    "sign:extractAdocFiles usb:getSigningCertificate usb:sign usb:signBatch usb:authenticate");

// sign:pickFiles with its dialog cancelled: it ran, holding the flag, and imported nothing.
const QString kNothingPicked = QStringLiteral("VANTRO_SIGN_IMPORT_FILES_REQUIRED");

QStringList tableNames()
{
    QStringList all;
    for (const DispatchTable* table : {&signMethodTable(), &usbMethodTable()})
        for (const BridgeMethod& row : table->methods)
            all << QString::fromLatin1(row.name);
    return all;
}

QString json(const OrderedObject& result)
{
    return QString::fromUtf8(result.toJson());
}

// The component a refusal row leaves out of its bridge.
constexpr int kNothing = 0, kClient = 1, kState = 2, kShell = 3;

} // namespace

class TestDesktopBridge : public QObject
{
    Q_OBJECT
    std::unique_ptr<BridgeFixture> f;

private Q_SLOTS:
    void init()
    {
        f = std::make_unique<BridgeFixture>();
        QVERIFY(f->prepared && f->api.isAllowedOrigin(QUrl(f->source)));
    }
    void cleanup() { f.reset(); }

    void methodSets_data()
    {
        addColumns<QString>({"method"});
        QStringList all = tableNames() + kAsync + kExclusive;
        all.removeDuplicates();
        for (const QString& method : all)
            addRow(qPrintable(method), method);
    }

    // While sign:pickFiles holds the flag (its dialog open), exclusive rows get their family's
    // busy answer and the others run; afterwards the flag is free again.
    void methodSets()
    {
        QFETCH(QString, method);
        QVERIFY(tableNames().contains(method));
        const bool exclusive = kExclusive.contains(method);
        QCOMPARE(DesktopBridge::isAsynchronous(method), kAsync.contains(method));
        QCOMPARE(DesktopBridge::isExclusive(method), exclusive);
        OrderedObject during;
        bool entered = false;
        QString heldAfter;
        f->shell.duringDialog = [&] {
            if (std::exchange(entered, true)) // dialog rows must not recurse
                return;
            during = f->call(method, {QVariantMap{}});
            // Whatever that call did, the flag is still the holder's.
            heldAfter = codeOf(f->call("usb:sign"));
        };
        QCOMPARE(codeOf(f->call("sign:pickFiles")), kNothingPicked);
        QCOMPARE(heldAfter, "VANTRO_USB_BRIDGE_BUSY");
        QCOMPARE(codeOf(during).endsWith("_BUSY"), exclusive);
        if (exclusive)
            QCOMPARE(json(during),
                     err(method.startsWith("usb:") ? "VANTRO_USB_BRIDGE_BUSY"
                                                   : "VANTRO_SIGN_BRIDGE_BUSY",
                         "Vantro Sign is still processing the previous desktop request."));
        f->shell.duringDialog = nullptr;
        QVERIFY(!codeOf(f->call(method, {QVariantMap{}})).endsWith("_BUSY"));
    }

    void exceptionsBecomeErrors_data()
    {
        addColumns<QString, QString, QString, QString>({"kind", "text", "code", "message"});
        const char* fallback = "VANTRO_SIGN_BRIDGE_ERROR";
        addRow("code before the first colon, trimmed", "vantro", " A : b: c", "A", " A : b: c");
        addRow("empty code", "vantro", ": msg", fallback, ": msg");
        addRow("no colon", "vantro", "no colon", "no colon", "no colon");
        addRow("other std exception", "logic", "DB: x", "DB", "DB: x");
        addRow("non-std exception", "int", "", fallback, "Unexpected failure in sign:pickFiles.");
    }

    void exceptionsBecomeErrors()
    {
        QFETCH(QString, kind);
        QFETCH(QString, text);
        QFETCH(QString, code);
        QFETCH(QString, message);
        f->shell.duringDialog = [&] {
            if (kind == "vantro")
                throw VantroError(text);
            if (kind == "logic")
                throw std::logic_error(text.toStdString());
            throw 42;
        };
        QCOMPARE(json(f->call("sign:pickFiles")), err(code, message));
        // The throw left the exclusive section: the next exclusive call is not refused as busy.
        f->shell.duringDialog = nullptr;
        QCOMPARE(codeOf(f->call("sign:pickFiles")), kNothingPicked);
    }

    void refusedBeforeRouting_data()
    {
        addColumns<int, QString, QString, QString>({"missing", "source", "method", "result"});
        const QString app = QString::fromLatin1(config::kProductionOrigin);
        const QString origin =
            err("ERR_VANTRO_ORIGIN_FORBIDDEN", "Vantro Sign bridge rejected this origin.");
        addRow("empty source", kNothing, "", "sign:pickFiles", origin);
        addRow("other host", kNothing, "https://evil.example/sign/app/", "sign:pickFiles", origin);
        addRow("app origin, other path", kNothing, app + "/other/", "sign:pickFiles", origin);
        addRow("no service client", kClient, "@app", "sign:getTheme", origin);
        addRow("no state", kState, "@app", "sign:pickFiles",
               err("VANTRO_SIGN_STATE_UNAVAILABLE", "Vantro Sign state is unavailable."));
        addRow("no desktop shell", kShell, "@app", "sign:setLocalRoot",
               err("VANTRO_SIGN_DESKTOP_SHELL_UNAVAILABLE",
                   "Dialogs and folder opening are only available on the main thread."));
    }

    // No dialog opens and nothing is stored when a call is refused.
    void refusedBeforeRouting()
    {
        QFETCH(int, missing);
        QFETCH(QString, source);
        QFETCH(QString, method);
        QFETCH(QString, result);
        DesktopBridge bridge(missing == kState ? nullptr : &f->state,
                             missing == kClient ? nullptr : &f->api);
        bridge.setDesktopShell(missing == kShell ? nullptr : &f->shell);
        const QByteArray device = f->deviceBytes();
        QCOMPARE(json(bridge.handle(method, {}, source.replace("@app", f->source))), result);
        QVERIFY(f->shell.calls.isEmpty());
        QCOMPARE(f->deviceBytes(), device);
    }

    // Each row's whole result object and the dialogs and folders it opened ("@root": the root).
    void results_data()
    {
        addColumns<QString, QString, QString, QString>({"method", "args", "result", "shell"});
        for (const char* method : {"file:open", "sign:nope", "usb:nope", "Sign:getStatus"})
            addRow(method, method, "[]", err("VANTRO_SIGN_BRIDGE_METHOD_UNKNOWN", method), "");
        for (const QString& method : names("sign:getUpdateStatus sign:checkForUpdates "
                                           "sign:startUpdate sign:cancelUpdate sign:applyUpdate"))
            addRow(qPrintable(method), method, "[{}]",
                   err("VANTRO_SIGN_UPDATE_MANAGER_UNAVAILABLE", "Update manager is unavailable."),
                   "");
        addRow("sign:activate", "sign:activate", "[{}]",
               err("VANTRO_SIGN_ACTIVATION_NATIVE_SCREEN_REQUIRED",
                   "Use the native activation screen in this build."),
               "");
        // Setters read a string or an object at position 0; other types read as empty.
        addRow("theme dark", "sign:setTheme", R"(["dark","x"])", okJson(R"("dark")"), "");
        addRow("theme not a string", "sign:setTheme", R"([{"t":"dark"}])", okJson(R"("light")"),
               "");
        addRow("theme missing", "sign:setTheme", "[]", okJson(R"("light")"), "");
        const QString policy = R"({"deletedFileAction":"%1","deletedFolderName":"%2",)"
                               R"("groupDeletedByMonth":%3})";
        const QString setPolicy = "sign:setLocalDeleteSettings";
        addRow("delete folder cleaned", setPolicy,
               R"([{"deletedFolderName":"a/b: c. ","groupDeletedByMonth":false}])",
               okJson(policy.arg("move_to_deleted_folder", "a_b_ c", "false")), "");
        addRow("delete settings not an object", setPolicy, R"(["keep_local_files"])",
               okJson(policy.arg("move_to_deleted_folder", "Istrinta", "true")), "");
        addRow("getLocalRoot", "sign:getLocalRoot", "[]", okJson(R"("@root")"), "");
        addRow("setLocalRoot cancelled", "sign:setLocalRoot", "[]",
               err("VANTRO_SIGN_LOCAL_ROOT_NOT_SELECTED", "Local root was not selected."),
               "pickFolder|Vantro Sign folder|@root");
        addRow("pickFiles cancelled", "sign:pickFiles", "[]", err(kNothingPicked, kNothingPicked),
               "pickFiles|Pasirinkite dokumentus|@root|Vantro Sign documents (*.pdf *.doc *.docx "
               "*.odt *.xls *.xlsx *.txt *.png *.jpg *.jpeg *.adoc *.asice)");
        const QString opened = okJson(R"({"opened":true,"path":"%1"})");
        addRow("openLocalRoot", "sign:openLocalRoot", "[]", opened.arg("@root"), "open|@root");
        const QString folder = "sign:openLocalFolder";
        const QString outside = err("VANTRO_SIGN_LOCAL_PATH_OUTSIDE_ROOT",
                                    "Requested folder is outside the Vantro Sign local root.");
        const QString missing =
            err("VANTRO_SIGN_LOCAL_FOLDER_MISSING", "Vietinio aplanko atidaryti nepavyko.");
        addRow("folder: root itself", folder, "[]", opened.arg("@root"), "open|@root");
        addRow("folder: inside", folder, R"(["sub/./in/.."])", opened.arg("@root/sub"),
               "open|@root/sub");
        addRow("folder: climbs out", folder, R"(["sub/../../out"])", outside, "");
        addRow("folder: sibling sharing the name", folder, R"(["../root-x"])", outside, "");
        addRow("folder: link leading out", folder, R"(["link"])", outside, "");
        addRow("folder: missing", folder, R"(["nothing"])", missing, "");
    }

    void results()
    {
        QFETCH(QString, method);
        QFETCH(QString, args);
        QFETCH(QString, result);
        QFETCH(QString, shell);
        const QString root = f->rootPath();
        QVERIFY(QDir().mkpath(root + "/sub/in") && QDir().mkpath(f->path("out")));
        QVERIFY(QDir().mkpath(f->path("root-x")));
        QVERIFY(QFile::link(f->path("out"), root + "/link"));
        const QByteArray device = f->deviceBytes();
        const OrderedObject answer = f->call(method, argsFromJson(args));
        QCOMPARE(json(answer), result.replace("@root", root));
        QCOMPARE(f->shell.calls.join(';'), shell.replace("@root", root));
        if (!answer.value("ok").toBool()) {
            QCOMPARE(f->deviceBytes(), device);
            QCOMPARE(f->state.localRoot(), root);
        } else if (method.startsWith("sign:set")) {
            // What a restarted program reads back through the matching getter.
            AppState reloaded(f->devicePath());
            DesktopBridge restarted(&reloaded, &f->api);
            const QString getter = method.replace("sign:set", "sign:get");
            QCOMPARE(restarted.handle(getter, {}, f->source).value("value"), answer.value("value"));
        }
    }

    // A blank choice is no choice; a chosen root is stored and created; a missing root is
    // created by the rows that need it; chosen files are imported; a refusing desktop is
    // reported, not hidden.
    void dialogAndRootRows()
    {
        f->shell.folderAnswer = "   ";
        QCOMPARE(codeOf(f->call("sign:setLocalRoot")), "VANTRO_SIGN_LOCAL_ROOT_NOT_SELECTED");
        f->shell.folderAnswer = f->path("chosen/deeper");
        QCOMPARE(f->call("sign:setLocalRoot").value("value").toString(), f->shell.folderAnswer);
        QCOMPARE(AppState(f->devicePath()).localRoot(), f->shell.folderAnswer);
        const QString root = f->state.localRoot();
        QVERIFY(QFileInfo(root).isDir() && QDir(root).removeRecursively());
        QCOMPARE(f->call("sign:getLocalRoot").value("value").toString(), root);
        QVERIFY(QFileInfo(root).isDir() && QDir(root).removeRecursively());
        f->shell.openAnswer = false;
        QCOMPARE(json(f->call("sign:openLocalRoot")),
                 okJson(R"({"opened":false,"path":"%1"})").arg(root));
        QVERIFY(QFileInfo(root).isDir());

        const QString source = f->path("incoming.txt");
        QFile file(source);
        QVERIFY(file.open(QIODevice::WriteOnly) && file.write("hello") == 5);
        file.close();
        f->shell.filesAnswer = {source};
        const QVariantList imported = f->call("sign:pickFiles").value("value").toList();
        QCOMPARE(imported.size(), 1);
        QCOMPARE(imported.first().toMap().value("sourcePath").toString(), source);
        QCOMPARE(f->call("sign:listDocuments").value("value").toList().size(), 1);
    }

    void argumentsByPosition()
    {
        const QVariantList args = argsFromJson(R"(["a",{"b":true},["c"]])");
        QCOMPARE(bridgeargs::stringAt(args, 0), "a");
        QCOMPARE(toCompactJson(bridgeargs::objectAt(args, 1)), R"({"b":true})");
        // A value of another type, or a missing position, reads as the empty value.
        for (int index : {1, 2, 3})
            QCOMPARE(bridgeargs::stringAt(args, index), QString());
        for (int index : {0, 2, 3})
            QCOMPARE(bridgeargs::objectAt(args, index), QVariantMap());
    }

    // sign:setQesVisualPosition answers the status whether or not the position was accepted.
    // The helper-runtime object is rebuilt once it is 1000 ms old; the host's location is looked
    // up once per bridge, so a host installed while the program runs counts after a restart.
    void statusAndHelperRuntime()
    {
        const QString appDir = QCoreApplication::applicationDirPath();
        const QString hostPath = QDir(appDir).filePath(nativeHostFileName());
        QVERIFY2(!QFile::exists(hostPath), "a host program is already beside the test");
        const OrderedObject status = f->call("sign:setQesVisualPosition", {"bottom_right"})
                                         .value("value")
                                         .value<OrderedObject>();
        QCOMPARE(status.keys(),
                 names("version activated localRoot theme license signerProfile helperAvailable "
                       "helperBackgroundRunning helperRuntime helperRuntimeVersion "
                       "helperRuntimePath usbSignBatchNative"));
        QCOMPARE(status.value("localRoot").toString(), f->rootPath());
        const OrderedObject refused =
            f->call("sign:setQesVisualPosition", {"center"}).value("value").value<OrderedObject>();
        for (const OrderedObject& answer : {status, refused})
            QCOMPARE(answer.value("signerProfile").toJsonObject().value("visual_position"),
                     "bottom_right");
        const OrderedObject helper = f->bridge.helperRuntime();
        QCOMPARE(json(helper),
                 QStringLiteral(R"({"helperAvailable":false,"helperBackgroundRunning":true,)"
                                R"("helperRuntime":"next","helperRuntimeVersion":"%1",)"
                                R"("helperRuntimePath":"","usbSignBatchNative":true,)"
                                R"("storedPinAvailable":false,"savedPinCount":0,)"
                                R"("pendingMirrorCount":0,"failedMirrorCount":0})")
                     .arg(config::kApplicationVersion));
        // The status carries the helper's own answers, not defaults of its own.
        for (const QString& key : helper.keys().mid(0, 6))
            QCOMPARE(status.value(key), helper.value(key));

        LocalStore& store = *f->bridge.localStore();
        const QJsonObject doc =
            store.insertImportedDocument({f->path("a.pdf"), "a.pdf", "a.pdf", "a", 0, {}, {}});
        store.enqueueMirrorItem({{"artifactId", "a1"}, {"localDocumentId", doc.value("id")}});
        QFile host(hostPath);
        QVERIFY(host.open(QIODevice::WriteOnly));
        host.close();
        const auto removeHost = qScopeGuard([&] { QFile::remove(hostPath); });
        QCOMPARE(f->bridge.helperRuntime(), helper);
        QThread::msleep(1050);
        const OrderedObject rebuilt = f->bridge.helperRuntime();
        QCOMPARE(rebuilt.value("pendingMirrorCount").toInt(), 1);
        QCOMPARE(rebuilt.value("helperAvailable").toBool(), false);
        QCOMPARE(f->call("usb:isAvailable").value("value").toBool(), false);
        DesktopBridge restarted(&f->state, &f->api);
        QCOMPARE(restarted.helperRuntime().value("helperRuntimePath").toString(), appDir);
        QCOMPARE(restarted.helperRuntime().value("helperAvailable").toBool(), true);
        QVERIFY(restarted.handle("usb:isAvailable", {}, f->source).value("value").toBool());
    }

    // Installing candidates from the last to the first, each new one takes over; a folder of
    // the program's name is no program.
    void helperSearchOrder()
    {
        QTemporaryDir base;
        const QString app = base.filePath("app");
        QVERIFY(QDir().mkpath(app + "/h") && QDir().mkpath(app + "/mw") &&
                QDir().mkpath(base.filePath("mw")));
        QCOMPARE(findHelperExecutable(app, "h"), QString());
        QVERIFY(QDir().rmdir(app + "/h"));
        for (const char* relative : {"h", "mw/h", "app/mw/h", "app/h"}) {
            QFile file(base.filePath(relative));
            QVERIFY(file.open(QIODevice::WriteOnly));
            QCOMPARE(findHelperExecutable(app, "h"), base.filePath(relative));
        }
    }
};

QTEST_GUILESS_MAIN(TestDesktopBridge)
#include "tst_desktop_bridge.moc"
