// Saved PINs: which files count, what clearing removes and says, where the folder lies.
#include "usb/RuntimeBridge.h"

#include <QDir>
#include <QFile>
#include <QSignalSpy>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>

using namespace vantro;

class TestRuntimeBridge : public QObject
{
    Q_OBJECT

    static void touch(const QString& dir, const QStringList& names)
    {
        QVERIFY(QDir().mkpath(dir));
        for (const QString& name : names)
            QVERIFY(QFile(dir + '/' + name).open(QIODevice::WriteOnly));
    }

private Q_SLOTS:
    void clearing_data()
    {
        QTest::addColumn<QStringList>("files");
        QTest::addColumn<int>("counted");
        QTest::addColumn<QStringList>("left");
        QTest::addColumn<QString>("message");
        QTest::addColumn<int>("countSignals");
        const QStringList hostFiles{"install-nonce.dpapi", "card.attempts.dpapi"};
        QTest::newRow("nonce and attempts stay")
            << QStringList{"install-nonce.dpapi", "card.attempts.dpapi", "card.dpapi"} << 1
            << hostFiles << "Išsaugoti PIN pašalinti: 1." << 1;
        QTest::newRow("case is ignored")
            << QStringList{"PIN.DPAPI", "INSTALL-NONCE.DPAPI", "X.ATTEMPTS.DPAPI", "notes.txt"} << 1
            << QStringList{"INSTALL-NONCE.DPAPI", "X.ATTEMPTS.DPAPI", "notes.txt"}
            << "Išsaugoti PIN pašalinti: 1." << 1;
        QTest::newRow("two PINs") << QStringList{"a.dpapi", "b.dpapi"} << 2 << QStringList()
                                  << "Išsaugoti PIN pašalinti: 2." << 1;
        QTest::newRow("empty folder")
            << QStringList() << 0 << QStringList() << "Išsaugotų PIN nėra." << 0;
        QTest::newRow("only host files")
            << hostFiles << 0 << hostFiles << "Išsaugotų PIN nėra." << 0;
    }
    void clearing()
    {
        QFETCH(QStringList, files);
        QFETCH(int, counted);
        QFETCH(QStringList, left);
        QFETCH(QString, message);
        QFETCH(int, countSignals);
        QTemporaryDir home;
        const QString dir = home.filePath("HighRisk");
        touch(dir, files);
        RuntimeBridge runtime(dir, nullptr);
        QCOMPARE(runtime.savedPinCount(), counted);
        QCOMPARE(runtime.storedPinAvailable(), counted > 0);
        QSignalSpy countChanged(&runtime, &RuntimeBridge::savedPinStateChanged);
        QSignalSpy messageChanged(&runtime, &RuntimeBridge::lastMessageChanged);
        runtime.clearStoredPins();
        QCOMPARE(runtime.lastMessage(), message);
        QCOMPARE(runtime.savedPinCount(), 0);
        QCOMPARE(countChanged.size(), countSignals);
        QStringList remaining = QDir(dir).entryList(QDir::Files);
        remaining.sort();
        left.sort();
        QCOMPARE(remaining, left);
        // The same message again is no change.
        runtime.clearStoredPins();
        QCOMPARE(messageChanged.size(), message == "Išsaugotų PIN nėra." ? 1 : 2);
    }

    void missingFolder()
    {
        QTemporaryDir home;
        const QString dir = home.filePath("Vantro/HighRisk");
        RuntimeBridge runtime(dir, nullptr);
        QCOMPARE(runtime.savedPinCount(), 0);
        QSignalSpy countChanged(&runtime, &RuntimeBridge::savedPinStateChanged);
        runtime.clearStoredPins();
        QCOMPARE(countChanged.size(), 1);
        QCOMPARE(runtime.lastMessage(), "Išsaugotų PIN nėra.");
        QVERIFY(!QDir(dir).exists());

        QList<QUrl> opened;
        runtime.setUrlOpener([&](const QUrl& url) {
            opened << url;
            return true;
        });
        QVERIFY(runtime.openStoredPinFolder());
        QVERIFY(QDir(dir).exists());
        QCOMPARE(opened, QList<QUrl>{QUrl::fromLocalFile(dir)});
    }

    void refreshSignalsOnlyChanges()
    {
        QTemporaryDir home;
        RuntimeBridge runtime(home.path(), nullptr);
        QSignalSpy countChanged(&runtime, &RuntimeBridge::savedPinStateChanged);
        runtime.refresh();
        QCOMPARE(countChanged.size(), 0);
        touch(home.path(), {"a.dpapi"});
        runtime.refresh();
        runtime.refresh();
        QCOMPARE(countChanged.size(), 1);
        QCOMPARE(runtime.savedPinCount(), 1);
    }

    void folderLocation_data()
    {
        QTest::addColumn<QByteArray>("localAppData");
        QTest::addColumn<QString>("expected");
        const QString generic =
            QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation);
        QTest::newRow("LOCALAPPDATA set") << QByteArray("/tmp/lad") << "/tmp/lad/Vantro/HighRisk";
        QTest::newRow("LOCALAPPDATA empty") << QByteArray("") << generic + "/Vantro/HighRisk";
    }
    void folderLocation()
    {
        QFETCH(QByteArray, localAppData);
        QFETCH(QString, expected);
        qputenv("LOCALAPPDATA", localAppData);
        QCOMPARE(defaultStoredPinDirectory(), expected);
        qunsetenv("LOCALAPPDATA");
        QCOMPARE(RuntimeBridge().storedPinDirectory(),
                 QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation) +
                     "/Vantro/HighRisk");
    }
};

QTEST_GUILESS_MAIN(TestRuntimeBridge)
#include "tst_runtime_bridge.moc"
