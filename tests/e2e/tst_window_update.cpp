// Self-update from the page in the real window: a newer version found, downloaded with
// progress events, verified by digest and by a real signature, and a tampered one refused.
#include "e2e/BrowserHarness.h"
#include "update/SignedInstallers.h"

#include "update/UpdateManager.h"

#include <QCryptographicHash>
#include <QJsonDocument>
#include <QtTest>

using namespace vantro;
using namespace vantro::testing;

namespace {

struct DecliningShell : UpdateShell
{
    bool confirmInstall(const QString&, const QString&) override
    {
        ++asked;
        return false;
    }
    void quitApplication() override {}
    int asked = 0;
};

} // namespace

class WindowUpdateTest : public QObject
{
    Q_OBJECT

private:
    AppWindow m_app;
    ServiceStandIn m_feed;
    vantro::test::SignedInstallers m_installers;
    DecliningShell m_shell;

    PageDriver& page() { return m_app.page(); }
    UpdateManager* updates() { return m_app.window()->updateManager(); }

    void publish(const QString& version, const QByteArray& installer)
    {
        const QJsonObject manifest =
            vantro::test::SignedInstallers::manifestFor(m_feed.origin(), version, installer);
        m_feed.script("GET", "/latest.json", ScriptedReply(200, QJsonDocument(manifest).toJson()));
        m_feed.script("GET", "/" + manifest["installerFileName"].toString(),
                      ScriptedReply(200, installer, "application/x"));
    }

    // Waits until the page has seen an update event in `state`; the states it saw, in order.
    QStringList pageStatesUntil(const QString& state)
    {
        QStringList states;
        QDeadlineTimer deadline(60000);
        while (!deadline.hasExpired()) {
            states.clear();
            for (const QJsonValue& event : page().desktopEvents("vantro-sign-update-status")) {
                const QString seen = event["detail"]["status"]["state"].toString();
                if (states.isEmpty() || states.last() != seen)
                    states << seen;
            }
            if (states.contains(state))
                return states;
            QTest::qWait(50);
        }
        return states << "timeout";
    }

private Q_SLOTS:
    void initTestCase()
    {
        const QString failure = m_installers.generate();
        QVERIFY2(failure.isEmpty(), qPrintable(failure));
        QVERIFY(m_feed.listen());
        qputenv("VANTRO_SIGN_UPDATE_FEED_URL", (m_feed.origin() + "/latest.json").toUtf8());
        QVERIFY(m_app.open());
        updates()->setShell(&m_shell);
        updates()->setTrustStore(m_installers.trustStore());
    }
    void init() { QVERIFY(m_app.reset()); }

    void checkDownloadVerifyReady()
    {
        const QByteArray installer = m_installers.bytes(vantro::test::SignedInstallers::Valid);
        publish("9.2.0", installer);
        const QJsonObject checked = page().await("vantroSign.checkForUpdates()");
        QCOMPARE(checked["value"]["state"].toString(), "checking");
        QCOMPARE(pageStatesUntil("available"), QStringList({"checking", "available"}));
        const QJsonObject started = page().await("vantroSign.startUpdate()");
        QCOMPARE(started["value"]["state"].toString(), "downloading");
        QCOMPARE(pageStatesUntil("ready"),
                 QStringList({"checking", "available", "downloading", "verifying", "ready"}));
        const QJsonObject status = page().await("vantroSign.getUpdateStatus()")["value"].toObject();
        QCOMPARE(status.keys().size(), 7);
        QCOMPARE(status["version"].toString(), "9.2.0");
        QCOMPARE(status["progress"].toInt(), 100);
        QCOMPARE(status["action"].toString(), "install");
        // The page's check was interactive: the question came at once and was declined.
        QCOMPARE(status["message"].toString(),
                 "Naujinimas lieka paruoštas. Galite jį įdiegti vėliau.");
        QVERIFY(status["downloadedPathAvailable"].toBool());
        QCOMPARE(m_shell.asked, 1);
        // Progress starts at 0 and climbs to 100.
        QList<int> progress;
        for (const QJsonValue event : page().desktopEvents("vantro-sign-update-status")) {
            const QJsonObject seen = event["detail"]["status"].toObject();
            if (seen["state"] == "downloading")
                progress << seen["progress"].toInt();
        }
        QVERIFY(!progress.isEmpty());
        QCOMPARE(progress.first(), 0);
    }

    void tamperedInstallerIsRefused()
    {
        const QByteArray installer = m_installers.bytes(vantro::test::SignedInstallers::Tampered);
        publish("9.3.0", installer);
        page().await("vantroSign.checkForUpdates()");
        QVERIFY(pageStatesUntil("available").contains("available"));
        page().await("vantroSign.startUpdate()");
        QCOMPARE(pageStatesUntil("verify_failed").last(), "verify_failed");
        const QJsonObject status = page().await("vantroSign.getUpdateStatus()")["value"].toObject();
        QVERIFY(status["message"].toString().startsWith(
            "Naujinimo skaitmeninis parašas nepatikimas. Diegimas sustabdytas."));
        QCOMPARE(status["action"].toString(), "download");
        QCOMPARE(m_shell.asked, 1);
    }
};

QTEST_MAIN(WindowUpdateTest)
#include "tst_window_update.moc"
