// The window around the page: what may load inside it, dropped files, the status page when the
// service is away, and the tray's items.
#include "e2e/BrowserHarness.h"

#include "app/AppState.h"
#include "bridge/DesktopBridge.h"
#include "store/LocalStore.h"
#include "ui/ActivationScreen.h"
#include "ui/DiagnosticsView.h"
#include "ui/StatusPage.h"
#include "usb/RuntimeBridge.h"

#include <QDir>
#include <QFile>
#include <QMessageBox>
#include <QTemporaryDir>
#include <QtTest>

using namespace vantro;
using namespace vantro::testing;

class WindowTest : public QObject
{
    Q_OBJECT

private:
    AppWindow m_app;

    PageDriver& page() { return m_app.page(); }
    // A member of nested objects, "detail.summary".
    static QJsonValue member(QJsonValue value, const QString& path)
    {
        for (const QString& key : path.split('.'))
            value = value.toObject().value(key);
        return value;
    }
    SignAppWindow* window() { return m_app.window(); }

private Q_SLOTS:
    void initTestCase() { QVERIFY(m_app.open()); }
    void init() { QVERIFY(m_app.reset()); }

    // This profile was never activated: the service hears nothing from the window.
    void noHeartbeatFromAnInactiveDevice()
    {
        QVERIFY(!m_app.window()->desktopBridge()->state()->isActivated());
        QCOMPARE(m_app.server().api.paths(), QStringList());
    }

    void navigation_data()
    {
        QTest::addColumn<QString>("action"); // %1 is the address
        QTest::addColumn<QString>("target");
        QTest::addColumn<bool>("inside");
        const QString link = QStringLiteral("var a = document.createElement('a'); a.href = '%1';"
                                            " document.body.appendChild(a); a.click();");
        const QString app = m_app.server().origin(), foreign = m_app.foreign.origin();
        QTest::newRow("foreign link") << link << foreign + "/sign/app/x" << false;
        QTest::newRow("foreign script navigation")
            << "location.href = '%1';" << foreign + "/page" << false;
        QTest::newRow("other service path") << link << app + "/sign/admin/" << false;
        QTest::newRow("new window")
            << QString(link).replace("a.click", "a.target = '_blank'; a.click")
            << foreign + "/popup" << false;
        QTest::newRow("within the application") << link << app + "/sign/app/documents/5" << true;
    }

    // Untrusted addresses go to the system browser and are never requested by the window.
    void navigation()
    {
        QFETCH(QString, action);
        QFETCH(QString, target);
        QFETCH(bool, inside);
        const QUrl url(target), before = page().url();
        const qsizetype requests =
            m_app.server().requestedPaths.size() + m_app.foreign.requestedPaths.size();
        QSignalSpy opened(m_app.host(), &WebHost::externalUrlRequested);
        page().eval(action.arg(target) + " 0");
        QVERIFY(inside ? page().waitForLoad() : opened.count() > 0 || opened.wait());
        QVERIFY(page().settle());
        QCOMPARE(page().url(), inside ? url : before);
        QCOMPARE(m_app.shell.openedUrls, inside ? QList<QUrl>() : QList<QUrl>{url});
        QCOMPARE(m_app.server().requestedPaths.size() + m_app.foreign.requestedPaths.size(),
                 requests + (inside ? 1 : 0));
    }

    void droppedFilesAreImportedBetweenBusyStates()
    {
        QTemporaryDir dir;
        const QStringList files{dir.filePath("contract.pdf"), dir.filePath("notes.txt")};
        for (const QString& path : files) {
            QFile file(path);
            QVERIFY(file.open(QIODevice::WriteOnly) && file.write("%PDF-1.4\n") > 0);
        }
        const QString listed = "vantroSign.listDocuments().then(function (d) { return d.length; })";
        const int before = page().await(listed).value("value").toInt();
        window()->importDroppedFiles(files);
        // The copies land in the root, so the root watch may report them too; not this test's.
        const QString drop = "vantro-sign-drop";
        QTRY_COMPARE_WITH_TIMEOUT(page().desktopEvents(drop).size(), 2, kLoadTimeoutMs);
        QTRY_COMPARE_WITH_TIMEOUT(page().desktopEvents("vantro-sign-files").size(), 1,
                                  kLoadTimeoutMs);
        QJsonArray events = page().desktopEvents(drop);
        events.insert(1, page().desktopEvents("vantro-sign-files").at(0));
        QJsonObject dropped = events.at(1).toObject(), detail = dropped.take("detail").toObject();
        QStringList imported;
        for (const QJsonValue& document : detail.take("imported").toArray())
            imported << document["sourcePath"].toString();
        QCOMPARE(imported, files);
        dropped["detail"] = detail;
        const auto event = [](const char* type, const QJsonObject& detail) {
            return QJsonObject{
                {"vantroSignDesktopEvent", true}, {"type", type}, {"detail", detail}};
        };
        QCOMPARE(
            (QJsonArray{events.at(0), dropped, events.at(2)}),
            (QJsonArray{event("vantro-sign-drop-state", {{"active", false}, {"busy", true}}),
                        event("vantro-sign-files-dropped",
                              {{"files", QJsonArray::fromStringList(files)}, {"source", "drop"}}),
                        event("vantro-sign-drop-state", {{"active", false}, {"busy", false}})}));
        // The import reached the store the page reads.
        QCOMPARE(page().await(listed).value("value").toInt(), before + 2);
    }

    // Files written into the root while the page is open arrive as one reconciled event after
    // the burst, with the imported files announced as found by the watch; a folder created
    // during the burst is watched from then on.
    void filesWrittenIntoTheRootReachThePage()
    {
        const QString root = window()->desktopBridge()->localStore()->localRoot();
        const QString tag = QString::number(QDateTime::currentMSecsSinceEpoch());
        const auto write = [&](const QString& relative) {
            const QString path = root + '/' + relative;
            QDir().mkpath(QFileInfo(path).absolutePath());
            QFile file(path);
            QVERIFY(file.open(QIODevice::WriteOnly) && file.write("%PDF-1.4\n") > 0);
        };
        const QString reconciled = "vantro-sign-local-root-reconciled";
        write("watch-" + tag + "/a.pdf");
        write("watch-" + tag + "/~$a.docx");
        write("b-" + tag + ".pdf");
        QTRY_COMPARE_WITH_TIMEOUT(page().desktopEvents(reconciled).size(), 1, kLoadTimeoutMs);
        QTest::qWait(1500); // two quiet periods: no second run follows the burst
        QVERIFY(page().settle());
        QCOMPARE(page().desktopEvents(reconciled).size(), 1);
        const QJsonObject summary =
            member(page().desktopEvents(reconciled)[0], "detail.summary").toObject();
        QStringList imported;
        for (const QJsonValue& item : summary["imported"].toArray())
            imported << item["relativePath"].toString();
        QCOMPARE(imported, (QStringList{"b-" + tag + ".pdf", "watch-" + tag + "/a.pdf"}));
        const QJsonArray found = page().desktopEvents("vantro-sign-files-dropped");
        QCOMPARE(found.size(), 1);
        QCOMPARE(member(found[0], "detail.source").toString(), "watch");
        QCOMPARE(member(found[0], "detail.files").toArray(),
                 QJsonArray({root + "/b-" + tag + ".pdf", root + "/watch-" + tag + "/a.pdf"}));

        write("watch-" + tag + "/deeper/c.pdf");
        QTRY_COMPARE_WITH_TIMEOUT(page().desktopEvents(reconciled).size(), 2, kLoadTimeoutMs);
        const QJsonObject second =
            member(page().desktopEvents(reconciled)[1], "detail.summary").toObject();
        QCOMPARE(member(second["imported"].toArray()[0], "relativePath").toString(),
                 "watch-" + tag + "/deeper/c.pdf");
    }

    void statusPageWithRetryWhenUnreachable()
    {
        QSignalSpy shown(m_app.host(), &WebHost::statusShown);
        m_app.server().stop();
        window()->reloadWebApp();
        QVERIFY(shown.wait(kLoadTimeoutMs));
        QCOMPARE(shown.first().first().value<StatusKind>(), StatusKind::Unreachable);
        if (page().url().scheme() != QLatin1String("data"))
            QVERIFY(page().waitForLoad());
        QCOMPARE(page().eval("document.title").toString(),
                 statusPageTexts(StatusKind::Unreachable).title);
        QCOMPARE(page().eval("typeof window.vantroSign").toString(), "undefined");

        QVERIFY(m_app.server().start(kDevPort));
        page().eval("document.getElementById('retry').click(); 0");
        QVERIFY(page().waitForLoad());
        QCOMPARE(page().url(), m_app.host()->appUrl());
        QCOMPARE(page().eval("typeof window.vantroSign").toString(), "object");
    }

    // The tray's items: activation opens its screen and brings the window back; the PIN
    // items act on the saved-PIN folder; diagnostics opens one view and raises it again.
    void trayItems()
    {
        window()->hide();
        QSignalSpy notices(window(), &SignAppWindow::noticeShown);
        QVERIFY(QMetaObject::invokeMethod(window(), "openActivationScreen"));
        QVERIFY(window()->isVisible());
        QVERIFY(window()->activationScreen() && window()->activationScreen()->isVisible());

        const QString pins = window()->runtimeBridge()->storedPinDirectory();
        QVERIFY(QDir().mkpath(pins));
        QVERIFY(QFile(pins + "/card.dpapi").open(QIODevice::WriteOnly));
        QVERIFY(QMetaObject::invokeMethod(window(), "removeSavedPins"));
        QCOMPARE(notices.constLast().first().toString(), "Išsaugoti PIN pašalinti: 1.");
        QVERIFY(!QFile::exists(pins + "/card.dpapi"));
        QVERIFY(QMetaObject::invokeMethod(window(), "openPinFolder"));
        QCOMPARE(m_app.shell.openedUrls, QList<QUrl>{QUrl::fromLocalFile(pins)});

        QVERIFY(QMetaObject::invokeMethod(window(), "openDiagnostics"));
        QPointer<DiagnosticsView> view = window()->diagnosticsView();
        QVERIFY(view && view->isVisible());
        QVERIFY(view->reportText().contains("Kiekis: 0\n"));
        QVERIFY(QMetaObject::invokeMethod(window(), "openDiagnostics"));
        QCOMPARE(window()->diagnosticsView(), view.data());
        QCOMPARE(window()->findChildren<DiagnosticsView*>().size(), 1);
        view->close();
        QTRY_VERIFY(!view);
        for (QMessageBox* box : window()->findChildren<QMessageBox*>())
            box->close();
    }
};

QTEST_MAIN(WindowTest)
#include "tst_window.moc"
