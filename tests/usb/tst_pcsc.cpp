// Card detection against a real pcscd with vsmartcard's virtual reader and a virtual card:
// the profile table, no readers, no service, and a monitor that follows cards and the service.
#include "usb/pcsc/CardProfiles.h"
#include "usb/pcsc/ReaderMonitor.h"
#include "usb/pcsc/Readers.h"
#include "usb/PcscDaemon.h"

#include <QDeadlineTimer>
#include <QSignalSpy>
#include <QTest>

#include <functional>

using namespace vantro;
using namespace vantro::pcsc;
using namespace vantro::test;

namespace {

// T=1 ATRs end in a check byte: the XOR of every byte after the initial 3B.
QString withCheckByte(const QString& hex)
{
    const QByteArray bytes = QByteArray::fromHex(hex.toLatin1());
    char check = 0;
    for (qsizetype i = 1; i < bytes.size(); ++i)
        check = char(check ^ bytes.at(i));
    return hex + QString::fromLatin1(QByteArray(1, check).toHex());
}

const QString kLithuanianEid = QStringLiteral("3b9d188131fc358031c0694d54434f5373020505d3");
const QString kEstonianEid = QStringLiteral("3bdb960080b1fe451f830012233f536549440f9000f1");
const QString kBit4idLong = withCheckByte("3bff1800008131fe45006b150c0302010101423400000000");
const QString kBit4idShort = withCheckByte("3bff9600008131fe4380318065b0846566fb120ffe829000");

// Scans until `done` holds or ten seconds pass; the last scan either way.
ReaderScan scanUntil(const std::function<bool(const ReaderScan&)>& done)
{
    const QDeadlineTimer deadline(10000);
    ReaderScan scan = scanReaders();
    while (!done(scan) && !deadline.hasExpired()) {
        QTest::qWait(50);
        scan = scanReaders();
    }
    return scan;
}

bool cardIs(const ReaderScan& scan, const QString& atr)
{
    return !scan.readers.isEmpty() && scan.readers.first().atrHex == atr;
}

bool readerEmpty(const ReaderScan& scan)
{
    return !scan.readers.isEmpty() && !scan.readers.first().cardPresent &&
           scan.readers.first().error.isEmpty();
}

} // namespace

class TestPcsc : public QObject
{
    Q_OBJECT

    PcscDaemon m_daemon;

    // Waits for the monitor's next scan that satisfies `done`.
    static ReaderScan nextScan(QSignalSpy& spy, const std::function<bool(const ReaderScan&)>& done)
    {
        const QDeadlineTimer deadline(15000);
        while (!deadline.hasExpired()) {
            while (!spy.isEmpty()) {
                const ReaderScan scan = spy.takeFirst().at(0).value<ReaderScan>();
                if (done(scan))
                    return scan;
            }
            spy.wait(int(qMax<qint64>(1, deadline.remainingTime())));
        }
        return {QStringLiteral("no matching scan"), {}};
    }

private Q_SLOTS:
    void initTestCase()
    {
        const QString missing = m_daemon.serveThisProcess();
        QVERIFY2(missing.isEmpty(), qPrintable(missing));
    }

    void profileTable_data()
    {
        QTest::addColumn<QString>("atr");
        QTest::addColumn<QString>("profile"); // empty: no match
        const QString lt = "lt-eid-mtcos-masktech";
        const QString bit4id = "rc-bit4id-tokenme-evo-ii";
        QTest::newRow("Lithuanian eID") << kLithuanianEid << lt;
        QTest::newRow("Lithuanian eID prefix exactly") << "3b9d188131fc358031c0694d54434f53" << lt;
        QTest::newRow("Bit4id, long prefix and more") << kBit4idLong << bit4id;
        QTest::newRow("Bit4id, short prefix") << "3bff9600008131aa" << bit4id;
        QTest::newRow("shorter than every prefix") << "3bff96" << QString();
        QTest::newRow("upper-case hex") << kLithuanianEid.toUpper() << QString();
        QTest::newRow("unknown card") << kEstonianEid << QString();
        QTest::newRow("empty") << QString() << QString();
    }
    void profileTable()
    {
        QFETCH(QString, atr);
        QFETCH(QString, profile);
        const auto found = findProfileByAtr(cardProfiles(), atr);
        QCOMPARE(found ? found->id : QString(), profile);
    }

    void longestPrefixWins()
    {
        // A later profile with a longer matching prefix beats an earlier shorter one; on equal
        // length the earlier one stays.
        const QList<CardProfile> profiles{{"short", "", "", {"3b00"}, ""},
                                          {"long", "", "", {"3b0011"}, ""},
                                          {"same", "", "", {"3b0011"}, ""}};
        QCOMPARE(findProfileByAtr(profiles, "3b001122")->id, "long");
        QCOMPARE(findProfileByAtr(profiles, "3b0022")->id, "short");
    }

    void errorText()
    {
        QCOMPARE(QString(PcscError("SCardListReaders", 0x8010002E).what()),
                 "SCardListReaders failed with PC/SC code 2148532270");
    }

    void serviceNotRunning()
    {
        m_daemon.stop();
        const ReaderScan scan = scanReaders();
        QVERIFY(!scan.serviceAvailable());
        QVERIFY2(scan.serviceError.startsWith("SCardEstablishContext failed"),
                 qPrintable(scan.serviceError));
        const DetectedCards cards = detectCards();
        QVERIFY(!cards.bit4idToken && !cards.lithuanianEid);
    }

    void noReaders()
    {
        QVERIFY(m_daemon.start(false));
        const ReaderScan scan = scanUntil([](const ReaderScan& s) { return s.serviceAvailable(); });
        QVERIFY2(scan.serviceAvailable(), qPrintable(scan.serviceError + m_daemon.output()));
        QVERIFY(scan.readers.isEmpty());
        const DetectedCards cards = detectCards();
        QVERIFY(!cards.bit4idToken && !cards.lithuanianEid);
    }

    void cards_data()
    {
        QTest::addColumn<QString>("atr");
        QTest::addColumn<QString>("label");
        QTest::addColumn<bool>("lithuanian");
        QTest::addColumn<bool>("bit4id");
        QTest::addColumn<QString>("listed"); // pcsc-tools' description of an unknown card
        QTest::newRow("Lithuanian eID")
            << kLithuanianEid << "Lithuanian eID (MTCOS Pro 2.6 / MaskTech)" << true << false
            << QString();
        QTest::newRow("Bit4id, long prefix")
            << kBit4idLong << "RC Bit4id TokenME EVO II" << false << true << QString();
        QTest::newRow("Bit4id, short prefix")
            << kBit4idShort << "RC Bit4id TokenME EVO II" << false << true << QString();
        QTest::newRow("unknown card")
            << kEstonianEid << QString() << false << false << "Estonia ID-card (eID)";
    }
    void cards()
    {
        QFETCH(QString, atr);
        QFETCH(QString, label);
        QFETCH(bool, lithuanian);
        QFETCH(bool, bit4id);
        QFETCH(QString, listed);
        QVERIFY(m_daemon.start(true));
        QVERIFY(m_daemon.insertCard(atr));
        const ReaderScan scan = scanUntil([&](const ReaderScan& s) { return cardIs(s, atr); });
        QVERIFY2(cardIs(scan, atr), qPrintable(scan.serviceError + m_daemon.output()));
        const ReaderInfo reader = scan.readers.first();
        QCOMPARE(reader.name, m_daemon.readerName());
        QCOMPARE(reader.profileLabel, label);
        if (!listed.isEmpty())
            QVERIFY2(reader.atrListDescriptions.contains(listed),
                     qPrintable(reader.atrListDescriptions.join('|')));
        const DetectedCards cards = detectCards();
        QCOMPARE(cards.lithuanianEid, lithuanian);
        QCOMPARE(cards.bit4idToken, bit4id);
        m_daemon.removeCard();
        QVERIFY(readerEmpty(scanUntil(readerEmpty)));
    }

    void monitorFollowsCardsAndTheService()
    {
        QVERIFY(m_daemon.start(true));
        ReaderMonitor monitor;
        QSignalSpy spy(&monitor, &ReaderMonitor::scanned);
        monitor.start();
        QVERIFY(readerEmpty(nextScan(spy, readerEmpty)));
        QVERIFY(m_daemon.insertCard(kLithuanianEid));
        const auto inserted = [](const ReaderScan& s) {
            return cardIs(s, kLithuanianEid);
        };
        QVERIFY(inserted(nextScan(spy, inserted)));
        m_daemon.removeCard();
        QVERIFY(readerEmpty(nextScan(spy, readerEmpty)));

        m_daemon.stop();
        const auto down = [](const ReaderScan& s) {
            return !s.serviceAvailable();
        };
        QVERIFY(down(nextScan(spy, down)));
        QVERIFY(m_daemon.start(true));
        QVERIFY(readerEmpty(nextScan(spy, readerEmpty)));
        monitor.stop();
        QVERIFY(monitor.isFinished());
    }

    void cleanupTestCase() { m_daemon.stop(); }
};

QTEST_GUILESS_MAIN(TestPcsc)
#include "tst_pcsc.moc"
