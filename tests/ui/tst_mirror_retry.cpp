// The mirror retry the window starts by itself: only for an activated device with open rows, never
// beside an exclusive bridge call, and with the same outcome as the page's retry.
#include "artifacts/ServiceFixture.h"
#include "ui/MirrorRetry.h"

#include "app/FileHash.h"

#include <QtTest>

using namespace vantro;
using namespace vantro::test;

class MirrorRetryTest : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<ServiceFixture> m_sx;

    // Worker components on the fixture's profile, talking to its stand-in.
    WorkerFactory workers()
    {
        return defaultWorkerFactory(
            m_sx->fx.state.filePath(),
            [origin = m_sx->service.origin()](SignApiClient& api) { api.setBaseUrl(origin); });
    }

private Q_SLOTS:
    void outcomes_data()
    {
        QTest::addColumn<bool>("activated");
        QTest::addColumn<bool>("openRow");
        QTest::addColumn<bool>("flagHeld");
        QTest::addColumn<int>("state");
        QTest::addColumn<QString>("row");
        QTest::newRow("open row") << true << true << false << int(MirrorRetryOutcome::Retried)
                                  << "ACKNOWLEDGED";
        QTest::newRow("nothing open")
            << true << false << false << int(MirrorRetryOutcome::Idle) << "";
        QTest::newRow("device not activated")
            << false << true << false << int(MirrorRetryOutcome::NotActivated) << "QUEUED";
        QTest::newRow("exclusive call running")
            << true << true << true << int(MirrorRetryOutcome::Busy) << "QUEUED";
    }
    void outcomes()
    {
        QFETCH(bool, activated);
        QFETCH(bool, openRow);
        QFETCH(bool, flagHeld);
        QFETCH(int, state);
        QFETCH(QString, row);
        m_sx = std::make_unique<ServiceFixture>();
        if (!activated)
            QVERIFY(m_sx->fx.state.setDeviceIdentity({}, {}, {}));
        const QString download = "/sign/app/documents/srv-d1/versions/v2/download/";
        m_sx->service.script("GET", download, {200, "%PDF signed", "application/pdf"});
        m_sx->service.script("POST", "/sign/api/v1/delivery/ack", {200, R"({"ok":true})"});
        if (openRow)
            m_sx->store().enqueueMirrorItem({{"artifactId", "art"},
                                             {"localDocumentId", m_sx->documentId},
                                             {"serverDocumentId", "srv-d1"},
                                             {"downloadUrl", download},
                                             {"relativePath", "Pasirasyta/a.pdf"}});
        MirrorRetryOutcome outcome;
        const auto run = [&] {
            outcome = runMirrorRetry(workers());
        };
        if (flagHeld)
            QVERIFY(DesktopBridge::runExclusive(run));
        else
            run();
        QCOMPARE(int(outcome.state), state);
        QCOMPARE(m_sx->store().getMirrorItem("art")["status"].toString(), row);
        if (state == MirrorRetryOutcome::Retried)
            QCOMPARE(variantMember(outcome.summary, "acknowledged"), 1);
    }
};

QTEST_GUILESS_MAIN(MirrorRetryTest)
#include "tst_mirror_retry.moc"
