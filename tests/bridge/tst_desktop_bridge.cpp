// DesktopBridge: method sets, exclusive rule, origin check, routing, error mapping and the rows.
#include "BridgeTestSupport.h"

#include "app/Errors.h"
#include "app/FileHash.h"
#include "bridge/BridgeArgs.h"
#include "bridge/BridgeDispatch.h"
#include "usb/HelperRegistry.h"
#include "store/LocalStore.h"
#include "vantro_config.h"

#include <QScopeGuard>

#include <memory>
#include <stdexcept>

using namespace vantro;
using namespace vantro::test;

namespace {

// Written out in full, so a method added to or dropped from either set in the code fails.
const char kAsync[] =
    "usb:diagnose usb:getSigningCertificate usb:sign usb:signBatch usb:authenticate "
    "sign:reconcileLocalRoot sign:uploadLocalDocument sign:runPdfTool "
    "sign:createExternalInvitation sign:cancelExternalInvitation sign:remindExternalInvitation "
    "sign:listExternalInvitations sign:queueUpload sign:mirrorArtifact "
    "sign:ensureLocalArtifactAndReveal sign:retryMirrorQueue sign:getLocalArtifactStatus "
    "sign:openServerDocument sign:renderServerDocumentPreview sign:warmServerDocumentPreview "
    "sign:showNativePreview sign:deleteLocalDocument sign:extractAdocFiles sign:hashFile";
const char kExclusive[] =
    "sign:pickFiles sign:reconcileLocalRoot sign:deleteLocalDocument sign:uploadLocalDocument "
    "sign:runPdfTool sign:createExternalInvitation sign:cancelExternalInvitation "
    "sign:remindExternalInvitation sign:queueUpload sign:ensureLocalArtifactAndReveal "
    "sign:retryMirrorQueue sign:removeLocalArtifact sign:removeLocalDocumentArtifacts "
    "sign:extractAdocFiles usb:getSigningCertificate usb:sign usb:signBatch usb:authenticate";

// sign:pickFiles with its dialog cancelled: it ran, holding the flag, and imported nothing.
const char* const kNothingPicked = "VANTRO_SIGN_IMPORT_FILES_REQUIRED";

} // namespace

class TestDesktopBridge : public QObject
{
    Q_OBJECT
    std::unique_ptr<BridgeFixture> f;

private Q_SLOTS:
    void init() { f = std::make_unique<BridgeFixture>(); }

    void methodSets_data()
    {
        addColumns<QString, bool>({"method", "inTable"});
        QStringList table;
        for (const DispatchTable* rows : {&signMethodTable(), &usbMethodTable()})
            for (const BridgeMethod& row : rows->methods)
                table << QString::fromLatin1(row.name);
        QStringList all = table + QString(kAsync).split(' ') + QString(kExclusive).split(' ');
        all.removeDuplicates();
        for (const QString& method : all)
            addRow(qPrintable(method), method, table.contains(method));
    }
    // While sign:pickFiles holds the flag (its dialog open), exclusive rows get their family's
    // busy answer and the others run; afterwards the flag is free again.
    void methodSets()
    {
        QFETCH(QString, method);
        QTEST(true, "inTable");
        const bool exclusive = QString(kExclusive).split(' ').contains(method);
        QCOMPARE(DesktopBridge::isAsynchronous(method),
                 QString(kAsync).split(' ').contains(method));
        QCOMPARE(DesktopBridge::isExclusive(method), exclusive);
        const QString busy =
            method.startsWith("usb:") ? "VANTRO_USB_BRIDGE_BUSY" : "VANTRO_SIGN_BRIDGE_BUSY";
        f->shell.duringDialog = [&] {
            const QString during = codeOf(f->call(method, {QVariantMap{}}));
            QCOMPARE(during.endsWith("_BUSY") ? during : QString(), exclusive ? busy : QString());
            QCOMPARE(codeOf(f->call("usb:sign")), "VANTRO_USB_BRIDGE_BUSY"); // still held
        };
        QCOMPARE(codeOf(f->call("sign:pickFiles")), kNothingPicked);
        QVERIFY(!f->shell.duringDialog); // the dialog opened and the calls above ran
        QVERIFY(!codeOf(f->call(method, {QVariantMap{}})).endsWith("_BUSY"));
    }

    // Rows: thrown ("std " a std::logic_error, "" an int, else a VantroError), code, message.
    // The throw leaves the exclusive section: the next exclusive call is not refused as busy.
    void exceptionsBecomeErrors()
    {
        const char* fallback = "VANTRO_SIGN_BRIDGE_ERROR";
        const QStringList rows[] = {{" A : b: c", "A", " A : b: c"},
                                    {": msg", fallback, ": msg"},
                                    {"std DB: x", "DB", "DB: x"},
                                    {"", fallback, "Unexpected failure in sign:pickFiles."}};
        for (const QStringList& row : rows) {
            f->shell.duringDialog = [&] {
                if (row[0].startsWith("std "))
                    throw std::logic_error(row[0].mid(4).toStdString());
                if (row[0].isEmpty())
                    throw 42;
                throw VantroError(row[0]);
            };
            QCOMPARE(toCompactJson(f->call("sign:pickFiles")), err(row[1], row[2]).toUtf8());
            QCOMPARE(codeOf(f->call("sign:pickFiles")), kNothingPicked);
        }
    }

    // Refused before any row runs (no dialog opens): another origin, or no service client.
    void refusedBeforeRouting()
    {
        const QString app = QString::fromLatin1(config::kProductionOrigin);
        QStringList codes;
        for (const QString& source : QStringList{"", "https://evil.example/sign/app/", app + "/x"})
            codes << codeOf(f->bridge.handle("sign:pickFiles", {}, source).toVariant());
        codes << codeOf(
            DesktopBridge(&f->state, nullptr, nullptr).handle("sign:getTheme", {}, f->source).toVariant());
        QCOMPARE(codes, QStringList(4, "ERR_VANTRO_ORIGIN_FORBIDDEN"));
        QVERIFY(f->shell.calls.isEmpty());
    }

    // Each row's error code or value and the dialogs and folders it opened ("@": the root).
    void results_data()
    {
        addColumns<QString, QString, QString, QString>({"method", "args", "result", "shell"});
        for (const char* method : {"file:open", "usb:nope", "Sign:getStatus"})
            addRow(method, method, "", "VANTRO_SIGN_BRIDGE_METHOD_UNKNOWN", "");
        for (const char* method : {"sign:getUpdateStatus", "sign:checkForUpdates",
                                   "sign:startUpdate", "sign:cancelUpdate", "sign:applyUpdate"})
            addRow(method, method, "", "VANTRO_SIGN_UPDATE_MANAGER_UNAVAILABLE", "");
        addRow("activate", "sign:activate", "", "VANTRO_SIGN_ACTIVATION_NATIVE_SCREEN_REQUIRED",
               "");
        addRow("setLocalRoot cancelled", "sign:setLocalRoot", "",
               "VANTRO_SIGN_LOCAL_ROOT_NOT_SELECTED", "pickFolder|Vantro Sign folder|@");
        addRow("pickFiles cancelled", "sign:pickFiles", "", kNothingPicked,
               "pickFiles|Pasirinkite dokumentus|@|Vantro Sign documents (*.pdf *.doc *.docx *.odt "
               "*.xls *.xlsx *.txt *.png *.jpg *.jpeg *.adoc *.asice)");
        const char *open = "sign:openLocalFolder", *outside = "VANTRO_SIGN_LOCAL_PATH_OUTSIDE_ROOT";
        addRow("inside", open, "sub/./in/..", R"({"opened":true,"path":"@/sub"})", "open|@/sub");
        addRow("climbing out", open, "sub/../../out", outside, "");
        addRow("sibling sharing the name", open, "../root-x", outside, "");
        addRow("link leading out", open, "link", outside, "");
        addRow("missing", open, "nothing", "VANTRO_SIGN_LOCAL_FOLDER_MISSING", "");
    }
    void results()
    {
        QFETCH(QString, method);
        QFETCH(QString, args);
        QFETCH(QString, result);
        QFETCH(QString, shell);
        const QString root = f->path("root");
        QVERIFY(QDir().mkpath(root + "/sub/in") && QDir().mkpath(f->path("out")));
        QVERIFY(QDir().mkpath(f->path("root-x")) && QFile::link(f->path("out"), root + "/link"));
        const QVariant answer = f->call(method, {args});
        QCOMPARE(result.startsWith('{') ? toCompactJson(variantMember(answer, "value"))
                                        : codeOf(answer),
                 result.replace('@', root));
        QCOMPARE(f->shell.calls.join(';'), shell.replace('@', root));
    }

    // device.json replaced by a folder: every save fails. Each setter still answers the value
    // now in effect, which the getter confirms, and the lost write is logged, not refused.
    void settersAnswerWhenSaveFails_data()
    {
        addColumns<QString, QVariantList, QString>({"setter", "args", "getter"});
        addRow("theme", QString("sign:setTheme"), QVariantList{"dark"}, QString("sign:getTheme"));
        addRow("delete settings", QString("sign:setLocalDeleteSettings"),
               QVariantList{QVariantMap{{"deletedFileAction", "keep_local_files"}}},
               QString("sign:getLocalDeleteSettings"));
        addRow("local root", QString("sign:setLocalRoot"), QVariantList{},
               QString("sign:getLocalRoot"));
    }
    void settersAnswerWhenSaveFails()
    {
        QFETCH(QString, setter);
        QFETCH(QVariantList, args);
        QFETCH(QString, getter);
        f->shell.pickedFolder = f->path("chosen");
        QVERIFY(QFile::remove(f->state.filePath()) && QDir().mkpath(f->state.filePath()));
        const QVariant before = variantMember(f->call(getter), "value");
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("^settings not saved: .+"));
        const QVariant answer = f->call(setter, args);
        QVERIFY2(variantMember(answer, "ok").toBool(), toCompactJson(answer).constData());
        const QVariant value = variantMember(answer, "value");
        QVERIFY(value != before);
        QCOMPARE(toCompactJson(variantMember(f->call(getter), "value")), toCompactJson(value));
    }

    // A root that cannot be created is the root's problem, not a failed save of the setting.
    void uncreatableRootIsStillStored()
    {
        QVERIFY(QFile(f->path("file")).open(QIODevice::WriteOnly));
        f->shell.pickedFolder = f->path("file/root");
        QTest::failOnWarning(QRegularExpression("settings not saved"));
        QCOMPARE(toCompactJson(f->call("sign:setLocalRoot")),
                 toCompactJson(DesktopBridge::ok(f->shell.pickedFolder).toVariant()));
        QCOMPARE(AppState(f->state.filePath()).localRoot(), f->shell.pickedFolder);
    }

    // Rows that reach one file by id. With no file manager on the session bus, revealing
    // opens the containing folder instead. "@" is the root; "#" the handle of @/sub/a.pdf.
    void fileRows_data()
    {
        addColumns<QString, QString, QString, QString>({"method", "arg", "result", "shell"});
        const QString unknownHandle = "VANTRO_SIGN_FILE_HANDLE_NOT_FOUND";
        const QString hashed = R"({"path":"@/sub/a.pdf","name":"a.pdf","sha256":"%1"})";
        addRow("open file", "sign:openLocalFile", "#", R"({"opened":true})", "open|@/sub/a.pdf");
        addRow("reveal file", "sign:revealLocalFile", "#", R"({"revealed":true})", "open|@/sub");
        addRow("hash file", "sign:hashFile", "#", hashed.arg(sha256Hex("a")), "");
        addRow("open unknown", "sign:openLocalFile", "x", unknownHandle, "");
        addRow("reveal unknown", "sign:revealLocalFile", "x", unknownHandle, "");
        addRow("artifact folder", "sign:openLocalArtifactFolder", "art",
               R"({"opened":true,"path":"@/sub/a.pdf","selected":false})", "open|@/sub");
        addRow("artifact not on disk", "sign:openLocalArtifactFolder", "none",
               "VANTRO_SIGN_LOCAL_ARTIFACT_NOT_AVAILABLE", "");
    }
    void fileRows()
    {
        QFETCH(QString, method);
        QFETCH(QString, arg);
        QFETCH(QString, result);
        QFETCH(QString, shell);
        qunsetenv("DBUS_SESSION_BUS_ADDRESS"); // no desktop session: nothing pops up
        const QString root = f->path("root"), file = root + "/sub/a.pdf";
        QVERIFY(QDir().mkpath(root + "/sub"));
        QFile out(file);
        QVERIFY(out.open(QIODevice::WriteOnly) && out.write("a") == 1);
        out.close();
        LocalStore& store = *f->bridge.localStore();
        store.upsertLocalArtifact({{"artifactId", "art"}, {"path", file}});
        store.upsertLocalArtifact({{"artifactId", "none"}, {"path", root + "/gone.pdf"}});
        const QVariant answer = f->call(method, {arg.replace('#', store.createFileHandle(file))});
        QCOMPARE(result.startsWith('{') ? toCompactJson(variantMember(answer, "value"))
                                        : codeOf(answer),
                 result.replace('@', root));
        QCOMPARE(f->shell.calls.join(';'), shell.replace('@', root));
    }

    void argumentsByPosition()
    {
        const QVariantList args{"a", QVariantMap{{"b", true}}};
        QCOMPARE(bridgeargs::stringAt(args, 0) + bridgeargs::stringAt(args, 1), "a");
        QCOMPARE(bridgeargs::objectAt(args, 1), (QVariantMap{{"b", true}}));
        // A value of another type, or a missing position, reads as the empty value.
        QCOMPARE(bridgeargs::stringAt(args, 2), QString());
        QVERIFY(bridgeargs::objectAt(args, 0).isEmpty() && bridgeargs::objectAt(args, 2).isEmpty());
    }

    // The status keys in order. The helper-runtime object is rebuilt once it is 1000 ms old; the
    // host's location is looked up once per bridge, so a host installed while the program runs
    // counts after a restart.
    void statusAndHelperRuntime()
    {
        const QString hostPath =
            QDir(QCoreApplication::applicationDirPath()).filePath(nativeHostFileName());
        const QStringList keys =
            variantMember(f->call("sign:getStatus"), "value").value<OrderedObject>().keys();
        QCOMPARE(keys.join(' '),
                 "version activated localRoot theme license signerProfile helperAvailable "
                 "helperBackgroundRunning helperRuntime helperRuntimeVersion helperRuntimePath "
                 "usbSignBatchNative");
        const OrderedObject helper = f->bridge.helperRuntime();
        QCOMPARE(QString(toCompactJson(helper.toVariant())),
                 QStringLiteral(R"({"helperAvailable":false,"helperBackgroundRunning":true,)"
                                R"("helperRuntime":"next","helperRuntimeVersion":"%1",)"
                                R"("helperRuntimePath":"","usbSignBatchNative":true,)"
                                R"("storedPinAvailable":false,"savedPinCount":0,)"
                                R"("pendingMirrorCount":0,"failedMirrorCount":0})")
                     .arg(config::kApplicationVersion));
        LocalStore& store = *f->bridge.localStore();
        const QJsonObject doc = store.insertImportedDocument({"/a", "a", "a", "a", 0, {}, {}});
        store.enqueueMirrorItem({{"artifactId", "a1"}, {"localDocumentId", doc.value("id")}});
        QVERIFY(QFile(hostPath).open(QIODevice::WriteOnly));
        const auto removeHost = qScopeGuard([&] { QFile::remove(hostPath); });
        QCOMPARE(f->bridge.helperRuntime(), helper);
        QTest::qSleep(1050);
        QCOMPARE(f->bridge.helperRuntime().value("pendingMirrorCount").toInt(), 1);
        DesktopBridge restarted(&f->state, &f->runtime, &f->api);
        QVERIFY(restarted.handle("usb:isAvailable", {}, f->source).value("value").toBool());
        // Search order: installing candidates from the last to the first, each new one takes
        // over; a folder of the program's name is no program.
        QTemporaryDir base;
        const QString app = base.filePath("app");
        QVERIFY(QDir().mkpath(app + "/h") && QDir().mkpath(app + "/mw") &&
                QDir().mkpath(base.filePath("mw")));
        QCOMPARE(findHelperExecutable(app, "h"), QString());
        QVERIFY(QDir().rmdir(app + "/h"));
        for (const char* relative : {"h", "mw/h", "app/mw/h", "app/h"}) {
            QVERIFY(QFile(base.filePath(relative)).open(QIODevice::WriteOnly));
            QCOMPARE(findHelperExecutable(app, "h"), base.filePath(relative));
        }
    }
};

QTEST_GUILESS_MAIN(TestDesktopBridge)
#include "tst_desktop_bridge.moc"
