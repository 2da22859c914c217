// The window around the page: what may load inside it, dropped files, the status page when the
// service is away, and the tray's actions.
#include "e2e/BrowserHarness.h"

#include "ui/StatusPage.h"

#include <QDragEnterEvent>
#include <QFile>
#include <QJsonArray>
#include <QMessageBox>
#include <QMimeData>
#include <QTemporaryDir>
#include <QtTest>

using namespace vantro;
using namespace vantro::testing;

Q_DECLARE_METATYPE(vantro::StatusKind)

namespace {

QJsonObject dropState(bool active, bool busy)
{
    return QJsonObject{{"vantroSignDesktopEvent", true},
                       {"type", "vantro-sign-drop-state"},
                       {"detail", QJsonObject{{"active", active}, {"busy", busy}}}};
}

// Paths a server was asked for after its first `skip` requests; the browser's own icon
// requests do not count as navigation.
QStringList pagesSince(const PageServer& server, qsizetype skip)
{
    QStringList paths = server.requestedPaths().mid(skip);
    paths.removeAll(QStringLiteral("/favicon.ico"));
    return paths;
}

} // namespace

class WindowTest : public QObject
{
    Q_OBJECT

private:
    AppWindow m_app;

    PageDriver& page() { return m_app.page(); }
    SignAppWindow* window() { return m_app.window(); }

    // The page's desktop events once `count` events of `type` have arrived.
    QJsonArray awaitEvents(const QString& type, int count = 1)
    {
        const QString script = QStringLiteral(R"(new Promise(function (resolve) {
            function check() {
                var all = window.__events.filter(function (e) { return e.vantroSignDesktopEvent; });
                if (all.filter(function (e) { return e.type === '%1'; }).length >= %2)
                    resolve(all);
            }
            check();
            window.addEventListener('message', check);
        }))");
        return page().await(script.arg(type).arg(count)).value("value").toArray();
    }

    int documentCount()
    {
        const QJsonObject listed = page().await(QStringLiteral("vantroSign.listDocuments()"));
        return listed.value("value").toArray().size();
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_app.open());
        // open() waited for the window's own first load.
        QCOMPARE(page().url(), m_app.appUrl(QStringLiteral("/sign/app/documents/")));
    }

    void init() { QVERIFY(m_app.reset()); }

    void navigation_data()
    {
        QTest::addColumn<QString>("action"); // %1 is the address
        QTest::addColumn<QString>("target");
        QTest::addColumn<bool>("inside");
        const QString link = QStringLiteral("var a = document.createElement('a'); a.href = '%1';"
                                            " document.body.appendChild(a); a.click();");
        QTest::newRow("link to a foreign origin") << link << "FOREIGN/sign/app/x" << false;
        QTest::newRow("script navigation to a foreign origin") << "window.location.href = '%1';"
                                                               << "FOREIGN/page" << false;
        QTest::newRow("link to another path of the service")
            << link << "http://127.0.0.1:8000/sign/admin/" << false;
        QTest::newRow("link opening a new window")
            << QString(link).replace("a.click", "a.target = '_blank'; a.click") << "FOREIGN/popup"
            << false;
        QTest::newRow("link within the application")
            << link << "http://127.0.0.1:8000/sign/app/documents/5" << true;
    }

    // Untrusted addresses go to the system browser and are never requested by the window.
    void navigation()
    {
        QFETCH(QString, action);
        QFETCH(QString, target);
        QFETCH(bool, inside);
        const QUrl url = m_app.resolve(target);
        const QUrl before = page().url();
        const qsizetype foreignRequests = m_app.foreign().requestedPaths().size();
        const qsizetype appRequests = m_app.server().requestedPaths().size();
        QSignalSpy opened(m_app.host(), &WebHost::externalUrlRequested);
        page().eval(action.arg(url.toString()) + QStringLiteral(" 0"));
        if (inside) {
            QVERIFY(page().waitForLoad());
            QCOMPARE(page().url(), url);
            QCOMPARE(page().eval(QStringLiteral("typeof vantroSign")).toString(), "object");
            QVERIFY(m_app.shell().openedUrls.isEmpty());
            return;
        }
        QVERIFY(opened.count() > 0 || opened.wait(kScriptTimeoutMs));
        QCOMPARE(m_app.shell().openedUrls, QList<QUrl>{url});
        QVERIFY(page().settle());
        QCOMPARE(page().url(), before);
        QCOMPARE(pagesSince(m_app.foreign(), foreignRequests), QStringList());
        QCOMPARE(pagesSince(m_app.server(), appRequests), QStringList());
    }

    void droppedFiles_data()
    {
        QTest::addColumn<bool>("present");
        QTest::newRow("files imported") << true;
        QTest::newRow("missing files reported") << false;
    }

    void droppedFiles()
    {
        QFETCH(bool, present);
        QTemporaryDir dir;
        const QStringList files{dir.filePath("contract.pdf"), dir.filePath("notes.txt")};
        for (const QString& path : files) {
            QFile file(path);
            QVERIFY(!present || (file.open(QIODevice::WriteOnly) && file.write("%PDF-1.4\n") > 0));
        }
        const int documentsBefore = documentCount();
        window()->importDroppedFiles(files);
        const QJsonArray events = awaitEvents(QStringLiteral("vantro-sign-drop-state"), 2);
        QCOMPARE(events.size(), 3);
        QCOMPARE(events.at(0).toObject(), dropState(false, true));
        QCOMPARE(events.at(2).toObject(), dropState(false, false));
        const QJsonObject result = events.at(1).toObject();
        const QJsonObject detail = result.value("detail").toObject();
        // The import reached the store the page reads, or left it alone.
        QCOMPARE(documentCount(), documentsBefore + (present ? 2 : 0));
        if (!present) {
            QCOMPARE(result.value("type").toString(), "vantro-sign-drop-error");
            const QString message = detail.value("message").toString();
            QVERIFY2(message.startsWith("VANTRO_SIGN_IMPORT_"), qPrintable(message));
            return;
        }
        QCOMPARE(result.value("type").toString(), "vantro-sign-files-dropped");
        QCOMPARE(detail.value("source").toString(), "drop");
        QCOMPARE(detail.value("files").toVariant().toStringList(), files);
        QStringList importedPaths;
        for (const QJsonValue& imported : detail.value("imported").toArray())
            importedPaths << imported.toObject().value("sourcePath").toString();
        QCOMPARE(importedPaths, files);
    }

    // File drags over the window tell the page; other drags are the page's own business.
    void fileDragsReportTheirState()
    {
        QMimeData files;
        files.setUrls({QUrl::fromLocalFile(QStringLiteral("/tmp/a.pdf"))});
        QMimeData text;
        text.setText(QStringLiteral("plain text"));
        for (const QMimeData* mime : {&files, &text}) {
            QDragEnterEvent enter(QPoint(10, 10), Qt::CopyAction, mime, Qt::LeftButton,
                                  Qt::NoModifier);
            QCoreApplication::sendEvent(m_app.host(), &enter);
            QDragLeaveEvent leave;
            QCoreApplication::sendEvent(m_app.host(), &leave);
        }
        QVERIFY(page().settle());
        QCOMPARE(page().desktopEvents(),
                 (QList<QJsonObject>{dropState(true, false), dropState(false, false)}));
    }

    void statusPageWithRetry_data()
    {
        QTest::addColumn<StatusKind>("kind");
        QTest::newRow("service unreachable") << StatusKind::Unreachable;
        QTest::newRow("page process ended") << StatusKind::Crashed;
    }

    void statusPageWithRetry()
    {
        QFETCH(StatusKind, kind);
        QSignalSpy shown(m_app.host(), &WebHost::statusShown);
        if (kind == StatusKind::Crashed) {
            m_app.allowAnyPage();
            m_app.host()->page()->load(QUrl(QStringLiteral("chrome://crash")));
        } else {
            m_app.server().stop();
            window()->reloadWebApp();
        }
        QVERIFY(shown.wait(kLoadTimeoutMs));
        QCOMPARE(shown.first().first().value<StatusKind>(), kind);
        if (page().url().scheme() != QLatin1String("data"))
            QVERIFY(page().waitForLoad());
        QCOMPARE(page().eval(QStringLiteral("document.title")).toString(),
                 statusPageTexts(kind).title);
        QCOMPARE(page().eval(QStringLiteral("typeof window.vantroSign")).toString(), "undefined");
        QVERIFY(m_app.host()->isShowingStatus());

        if (kind == StatusKind::Unreachable)
            QVERIFY(m_app.server().start(kDevPort));
        page().eval(QStringLiteral("document.getElementById('retry').click(); 0"));
        QVERIFY(page().waitForLoad());
        QCOMPARE(page().url(), m_app.host()->appUrl());
        QVERIFY(!m_app.host()->isShowingStatus());
        QCOMPARE(page().eval(QStringLiteral("typeof window.vantroSign")).toString(), "object");
    }

    void trayNotices_data()
    {
        QTest::addColumn<QByteArray>("slot");
        QTest::addColumn<QString>("word"); // what the notice must be about
        QTest::addColumn<bool>("shows");   // brings the hidden window back
        QTest::newRow("activation screen")
            << QByteArray("openActivationScreen") << "aktyvavimas" << true;
        QTest::newRow("diagnostics") << QByteArray("openDiagnostics") << "Diagnostika" << false;
        QTest::newRow("remove saved PINs")
            << QByteArray("removeSavedPins") << "PIN šalinimas" << false;
        QTest::newRow("PIN folder") << QByteArray("openPinFolder") << "PIN aplankas" << false;
    }

    void trayNotices()
    {
        QFETCH(QByteArray, slot);
        QFETCH(QString, word);
        QFETCH(bool, shows);
        window()->hide();
        QSignalSpy notices(window(), &SignAppWindow::noticeShown);
        QVERIFY(QMetaObject::invokeMethod(window(), slot.constData()));
        QCOMPARE(window()->isVisible(), shows);
        QCOMPARE(notices.count(), 1);
        const QString text = notices.first().first().toString();
        QVERIFY2(text.contains(word), qPrintable(text));
        const auto boxes = window()->findChildren<QMessageBox*>();
        QVERIFY(std::any_of(boxes.begin(), boxes.end(), [&](QMessageBox* box) {
            return box->isVisible() && box->text() == text;
        }));
        for (QMessageBox* box : boxes)
            box->close();
    }

    void checkingForUpdatesShowsTheWindowAndTellsThePage()
    {
        window()->showMinimized();
        window()->checkForProgramUpdates();
        QVERIFY(window()->isVisible());
        QVERIFY(!window()->isMinimized());
        const QJsonArray events = awaitEvents(QStringLiteral("vantro-sign-open-update-status"));
        QCOMPARE(events, (QJsonArray{QJsonObject{{"vantroSignDesktopEvent", true},
                                                 {"type", "vantro-sign-open-update-status"},
                                                 {"detail", QJsonObject()}}}));
    }

    void reloadKeepsTheCurrentApplicationPage()
    {
        QVERIFY(m_app.loadApp(QStringLiteral("/sign/app/documents/9")));
        page().eval(QStringLiteral("window.__beforeReload = true; 0"));
        window()->reloadWebApp();
        QVERIFY(page().waitForLoad());
        QCOMPARE(page().url(), m_app.appUrl(QStringLiteral("/sign/app/documents/9")));
        QCOMPARE(page().eval(QStringLiteral("typeof window.__beforeReload")).toString(),
                 "undefined");
    }
};

QTEST_MAIN(WindowTest)
#include "tst_window.moc"
