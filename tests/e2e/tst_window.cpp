// The window around the page: what may load inside it, dropped files, the status page when the
// service is away, and the tray's actions.
#include "e2e/BrowserHarness.h"

#include "app/InstanceLog.h"
#include "ui/SignAppWindow.h"
#include "ui/StatusPage.h"
#include "ui/WebHost.h"

#include <QDragEnterEvent>
#include <QEventLoop>
#include <QFile>
#include <QJsonArray>
#include <QMessageBox>
#include <QMimeData>
#include <QTemporaryDir>
#include <QTimer>
#include <QtTest>

using namespace vantro;
using namespace vantro::testing;

namespace {

// Resolves with the page's desktop events once `count` events of `type` have arrived.
QString eventsOnceArrived(const QString& type, int count = 1)
{
    return QStringLiteral(R"(new Promise(function (resolve) {
        function check() {
            var events = window.__events.filter(function (e) {
                return e && e.vantroSignDesktopEvent; });
            var matching = events.filter(function (e) { return e.type === '%1'; });
            if (matching.length >= %2) { resolve(events); return true; }
            return false;
        }
        if (!check())
            window.addEventListener('message', function listener() {
                if (check()) window.removeEventListener('message', listener);
            });
    }))")
        .arg(type)
        .arg(count);
}

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

bool writeFile(const QString& path, const QByteArray& data)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(data) == data.size();
}

} // namespace

class WindowTest : public QObject
{
    Q_OBJECT

private:
    AppWindow m_app;
    PageServer m_foreign;
    QUrl m_startUrl;

    PageDriver& page() { return m_app.page(); }
    SignAppWindow* window() { return m_app.window(); }

    // Waits until the shell is asked to open something, or the time is up.
    bool waitForExternalOpen()
    {
        if (!m_app.shell().openedUrls.isEmpty())
            return true;
        QEventLoop loop;
        m_app.shell().onOpenUrl = [&loop](const QUrl&) {
            loop.quit();
        };
        QTimer::singleShot(kScriptTimeoutMs, &loop, &QEventLoop::quit);
        loop.exec();
        m_app.shell().onOpenUrl = nullptr;
        return !m_app.shell().openedUrls.isEmpty();
    }

    QJsonArray awaitEvents(const QString& type, int count = 1)
    {
        const QJsonObject outcome = page().await(eventsOnceArrived(type, count));
        return outcome.value("value").toArray();
    }

    void sendDrag(QEvent::Type type, QMimeData* mime)
    {
        QWidget* target = window()->webHost();
        if (type == QEvent::DragLeave) {
            QDragLeaveEvent leave;
            QCoreApplication::sendEvent(target, &leave);
            return;
        }
        QDragEnterEvent enter(QPoint(10, 10), Qt::CopyAction, mime, Qt::LeftButton, Qt::NoModifier);
        QCoreApplication::sendEvent(target, &enter);
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_app.open());
        // open() waited for the window's own first load.
        m_startUrl = page().url();
        QVERIFY(m_foreign.start());
    }

    void cleanupTestCase()
    {
        m_app.close();
        m_foreign.stop();
    }

    void init()
    {
        QVERIFY(m_app.loadApp());
        m_app.shell().openedUrls.clear();
    }

    void cleanup() { m_app.restoreWindowRules(); }

    void startsOnTheDocumentsPage()
    {
        QCOMPARE(m_startUrl, m_app.appUrl(QStringLiteral("/sign/app/documents/")));
    }

    void untrustedAddressesOpenOutside_data()
    {
        QTest::addColumn<QString>("action"); // %1 is the address
        QTest::addColumn<QString>("target");
        const QString link = QStringLiteral(
            "var a = document.createElement('a'); a.href = '%1'; document.body.appendChild(a);"
            " a.click();");
        QTest::newRow("link to a foreign origin") << link << "FOREIGN/sign/app/x";
        QTest::newRow("script navigation to a foreign origin") << "window.location.href = '%1';"
                                                               << "FOREIGN/page";
        QTest::newRow("link to another path of the service")
            << link << "http://127.0.0.1:8000/sign/admin/";
        QTest::newRow("link opening a new window")
            << QStringLiteral("var a = document.createElement('a'); a.href = '%1';"
                              " a.target = '_blank'; document.body.appendChild(a); a.click();")
            << "FOREIGN/popup";
    }

    void untrustedAddressesOpenOutside()
    {
        QFETCH(QString, action);
        QFETCH(QString, target);
        target.replace(QStringLiteral("FOREIGN"), m_foreign.origin());
        const QUrl before = page().url();
        const qsizetype foreignRequests = m_foreign.requestedPaths().size();
        const qsizetype appRequests = m_app.server().requestedPaths().size();
        page().eval(action.arg(target) + QStringLiteral(" 0"));
        QVERIFY(waitForExternalOpen());
        QCOMPARE(m_app.shell().openedUrls, QList<QUrl>{QUrl(target)});
        QVERIFY(page().settle());
        QCOMPARE(page().url(), before);
        QCOMPARE(pagesSince(m_foreign, foreignRequests), QStringList());
        QCOMPARE(pagesSince(m_app.server(), appRequests), QStringList());
    }

    void trustedAddressesLoadInside()
    {
        page().eval(QStringLiteral("var a = document.createElement('a');"
                                   " a.href = '/sign/app/documents/5';"
                                   " document.body.appendChild(a); a.click(); 0"));
        QVERIFY(page().waitForLoad());
        QCOMPARE(page().url(), m_app.appUrl(QStringLiteral("/sign/app/documents/5")));
        QVERIFY(m_app.shell().openedUrls.isEmpty());
        QCOMPARE(page().eval(QStringLiteral("typeof vantroSign")).toString(),
                 QStringLiteral("object"));
    }

    void droppedFilesAreImported()
    {
        QTemporaryDir dir;
        const QStringList files{dir.filePath(QStringLiteral("contract.pdf")),
                                dir.filePath(QStringLiteral("notes.txt"))};
        QVERIFY(writeFile(files.at(0), "%PDF-1.4\n%test\n"));
        QVERIFY(writeFile(files.at(1), "notes\n"));
        window()->importDroppedFiles(files);
        const QJsonArray events = awaitEvents(QStringLiteral("vantro-sign-drop-state"), 2);
        QCOMPARE(events.size(), 3);
        QCOMPARE(events.at(0).toObject(), dropState(false, true));
        const QJsonObject dropped = events.at(1).toObject();
        QCOMPARE(dropped.value("type").toString(), QStringLiteral("vantro-sign-files-dropped"));
        const QJsonObject detail = dropped.value("detail").toObject();
        QCOMPARE(detail.value("source").toString(), QStringLiteral("drop"));
        QCOMPARE(detail.value("files").toVariant().toStringList(), files);
        const QJsonArray imported = detail.value("imported").toArray();
        QCOMPARE(imported.size(), 2);
        QCOMPARE(imported.at(0).toObject().value("sourcePath").toString(), files.at(0));
        QCOMPARE(imported.at(1).toObject().value("sourcePath").toString(), files.at(1));
        QCOMPARE(events.at(2).toObject(), dropState(false, false));
        // The import reached the store the page reads.
        const QJsonObject listed = page().await(QStringLiteral("vantroSign.listDocuments()"));
        QVERIFY(listed.value("value").toArray().size() >= 2);
    }

    void failedDropIsReported()
    {
        QTemporaryDir dir;
        const QString missing = dir.filePath(QStringLiteral("gone.pdf"));
        window()->importDroppedFiles({missing});
        const QJsonArray events = awaitEvents(QStringLiteral("vantro-sign-drop-state"), 2);
        QCOMPARE(events.size(), 3);
        QCOMPARE(events.at(0).toObject(), dropState(false, true));
        QCOMPARE(events.at(1).toObject().value("type").toString(),
                 QStringLiteral("vantro-sign-drop-error"));
        const QString message =
            events.at(1).toObject().value("detail").toObject().value("message").toString();
        QVERIFY2(message.startsWith(QStringLiteral("VANTRO_SIGN_IMPORT_")), qPrintable(message));
        QCOMPARE(events.at(2).toObject(), dropState(false, false));
    }

    // File drags over the window tell the page; other drags are the page's own business.
    void fileDragsReportTheirState()
    {
        QTemporaryDir dir;
        auto* files = new QMimeData;
        files->setUrls({QUrl::fromLocalFile(dir.filePath(QStringLiteral("a.pdf")))});
        sendDrag(QEvent::DragEnter, files);
        sendDrag(QEvent::DragLeave, nullptr);
        auto* text = new QMimeData;
        text->setText(QStringLiteral("plain text"));
        sendDrag(QEvent::DragEnter, text);
        sendDrag(QEvent::DragLeave, nullptr);
        QVERIFY(page().settle());
        QJsonArray states;
        for (const QJsonObject& event : page().events()) {
            if (event.value("vantroSignDesktopEvent").toBool())
                states << event;
        }
        QCOMPARE(states, (QJsonArray{dropState(true, false), dropState(false, false)}));
        delete files;
        delete text;
    }

    void statusPageWhenServiceIsAway()
    {
        QSignalSpy shown(window()->webHost(), &WebHost::statusShown);
        m_app.server().stop();
        window()->reloadWebApp();
        QVERIFY(shown.wait(kLoadTimeoutMs));
        QCOMPARE(shown.first().first().value<StatusKind>(), StatusKind::Unreachable);
        if (page().url().scheme() != QLatin1String("data"))
            QVERIFY(page().waitForLoad());
        QCOMPARE(page().eval(QStringLiteral("document.title")).toString(),
                 statusPageTexts(StatusKind::Unreachable).title);
        QCOMPARE(page().eval(QStringLiteral("typeof window.vantroSign")).toString(),
                 QStringLiteral("undefined"));
        QVERIFY(window()->webHost()->isShowingStatus());

        QVERIFY(m_app.server().start(kDevPort));
        page().eval(QStringLiteral("document.getElementById('retry').click(); 0"));
        QVERIFY(page().waitForLoad());
        QCOMPARE(page().url(), window()->webHost()->appUrl());
        QVERIFY(!window()->webHost()->isShowingStatus());
        QCOMPARE(page().eval(QStringLiteral("typeof window.vantroSign")).toString(),
                 QStringLiteral("object"));
    }

    void statusPageWhenThePageProcessEnds()
    {
        QSignalSpy shown(window()->webHost(), &WebHost::statusShown);
        m_app.allowAnyPage();
        window()->webHost()->page()->load(QUrl(QStringLiteral("chrome://crash")));
        QVERIFY(shown.wait(kLoadTimeoutMs));
        QCOMPARE(shown.first().first().value<StatusKind>(), StatusKind::Crashed);
        QVERIFY(page().waitForLoad());
        QCOMPARE(page().eval(QStringLiteral("document.title")).toString(),
                 statusPageTexts(StatusKind::Crashed).title);
        m_app.restoreWindowRules();
        window()->reloadWebApp();
        QVERIFY(page().waitForLoad());
        QCOMPARE(page().url(), window()->webHost()->appUrl());
    }

    void trayActionsWithoutTheirComponentTellTheUser_data()
    {
        QTest::addColumn<QByteArray>("slot");
        QTest::addColumn<QString>("word"); // what the notice must be about
        QTest::newRow("activation screen") << QByteArray("openActivationScreen") << "aktyvavimas";
        QTest::newRow("diagnostics") << QByteArray("openDiagnostics") << "Diagnostika";
        QTest::newRow("remove saved PINs") << QByteArray("removeSavedPins") << "PIN šalinimas";
        QTest::newRow("PIN folder") << QByteArray("openPinFolder") << "PIN aplankas";
    }

    void trayActionsWithoutTheirComponentTellTheUser()
    {
        QFETCH(QByteArray, slot);
        QFETCH(QString, word);
        QSignalSpy notices(window(), &SignAppWindow::noticeShown);
        QVERIFY(QMetaObject::invokeMethod(window(), slot.constData()));
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

    void activationLinkShowsTheWindowAndIsLoggedRedacted()
    {
        window()->hide();
        QSignalSpy notices(window(), &SignAppWindow::noticeShown);
        window()->handleActivationLink(QStringLiteral("vantrosign://activate?code=SECRET-42"));
        QVERIFY(window()->isVisible());
        QCOMPARE(notices.count(), 1);
        QFile log(instanceLogPath());
        QVERIFY(log.open(QIODevice::ReadOnly));
        const QString text = QString::fromUtf8(log.readAll());
        QVERIFY(text.contains(QStringLiteral("vantrosign://activate?code=***")));
        QVERIFY(!text.contains(QStringLiteral("SECRET-42")));
        for (QMessageBox* box : window()->findChildren<QMessageBox*>())
            box->close();
    }

    void checkingForUpdatesShowsTheWindowAndTellsThePage()
    {
        window()->showMinimized();
        window()->checkForProgramUpdates();
        QVERIFY(window()->isVisible());
        QVERIFY(!window()->isMinimized());
        const QJsonArray events = awaitEvents(QStringLiteral("vantro-sign-open-update-status"));
        QCOMPARE(events.size(), 1);
        QCOMPARE(events.at(0).toObject().value("detail"), QJsonValue(QJsonObject()));
    }

    void reloadKeepsTheCurrentApplicationPage()
    {
        QVERIFY(m_app.loadApp(QStringLiteral("/sign/app/documents/9")));
        page().eval(QStringLiteral("window.__beforeReload = true; 0"));
        window()->reloadWebApp();
        QVERIFY(page().waitForLoad());
        QCOMPARE(page().url(), m_app.appUrl(QStringLiteral("/sign/app/documents/9")));
        QCOMPARE(page().eval(QStringLiteral("typeof window.__beforeReload")).toString(),
                 QStringLiteral("undefined"));
    }
};

QTEST_MAIN(WindowTest)
#include "tst_window.moc"
