// Start options, the application directory and the single-instance log.
#include "app/InstanceLog.h"
#include "app/Paths.h"
#include "app/StartOptions.h"

#include <QDateTime>
#include <QDir>
#include <QTemporaryDir>
#include <QtTest>

using namespace vantro;

class StartupTest : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_tmp;

    void useLocalAppData(const QString& name)
    {
        qputenv("LOCALAPPDATA", m_tmp.filePath(name).toUtf8());
    }

private Q_SLOTS:
    void initTestCase()
    {
        QCoreApplication::setOrganizationName(QStringLiteral("VantroTest"));
        QCoreApplication::setApplicationName(QStringLiteral("StartupTest"));
        QVERIFY(m_tmp.isValid());
    }
    void cleanup() { qunsetenv("LOCALAPPDATA"); }

    void startOptions_data()
    {
        QTest::addColumn<QStringList>("arguments"); // after the program path
        QTest::addColumn<bool>("tray");
        QTest::addColumn<QString>("link");
        const auto add = [](const char* name, const QStringList& args, bool tray,
                            const char* link) {
            QTest::newRow(name) << args << tray << QString::fromLatin1(link);
        };
        add("nothing", {}, false, "");
        add("--tray", {"--tray"}, true, "");
        add("--TRAY is not tray", {"--TRAY"}, false, "");
        add("--tray=1 is not tray", {"--tray=1"}, false, "");
        add("link", {"vantrosign://activate?code=A"}, false, "vantrosign://activate?code=A");
        add("capitalised scheme counts", {"VantroSign://activate"}, false, "VantroSign://activate");
        add("first link wins", {"vantrosign:first", "--tray", "VANTROSIGN:2"}, true,
            "vantrosign:first");
        add("scheme not at start is no link", {" vantrosign:x", "open=vantrosign:y"}, false, "");
    }
    void startOptions()
    {
        QFETCH(QStringList, arguments);
        const StartOptions options = parseStartOptions(QStringList{"/opt/vantro-sign"} + arguments);
        QTEST(options.tray, "tray");
        QTEST(options.link, "link");
        // The program path takes part too.
        QCOMPARE(parseStartOptions(arguments).link, options.link);
    }

    void appDataDir()
    {
        useLocalAppData("local/");
        QCOMPARE(vantro::appDataDir(), m_tmp.filePath("local/Vantro Sign Next/app"));
        QVERIFY(!QDir(vantro::appDataDir()).exists()); // not created by asking
        QCOMPARE(instanceLockPath(), vantro::appDataDir() + "/vantro-sign-app.lock");
        QCOMPARE(commandsDir(), vantro::appDataDir() + "/commands");
        QVERIFY(QFileInfo(commandsDir()).isDir());

        // Blank LOCALAPPDATA: the per-user data location of this organisation and program.
        qputenv("LOCALAPPDATA", " \t ");
        const QString data =
            qEnvironmentVariable("XDG_DATA_HOME", QDir::homePath() + "/.local/share");
        QCOMPARE(vantro::appDataDir(), data + "/VantroTest/StartupTest");
    }

    void logLineAppendsStampedUtf8Lines()
    {
        useLocalAppData("log");
        const QDateTime before = QDateTime::currentDateTime().addMSecs(-1);
        logLine("first");
        logLine("antras žingsnis");
        QFile file(instanceLogPath());
        QVERIFY(file.open(QIODevice::ReadOnly));
        const QStringList lines = QString::fromUtf8(file.readAll()).split('\n');
        QCOMPARE(lines.size(), 3); // every line ends with a line feed
        QCOMPARE(lines.at(0).section(' ', 1), "first");
        QCOMPARE(lines.at(1).section(' ', 1), "antras žingsnis");
        const QDateTime stamp =
            QDateTime::fromString(lines.at(1).section(' ', 0, 0), "yyyy-MM-ddTHH:mm:ss.zzz");
        QVERIFY2(stamp >= before && stamp <= QDateTime::currentDateTime(), qPrintable(lines.at(1)));

        // "logs" taken by a plain file: the line is dropped without failing.
        useLocalAppData("blocked");
        QVERIFY(QDir().mkpath(vantro::appDataDir()));
        QFile blocker(vantro::appDataDir() + "/logs");
        QVERIFY(blocker.open(QIODevice::WriteOnly));
        blocker.close();
        logLine("lost");
        QVERIFY(QFileInfo(blocker.fileName()).isFile());
        QCOMPARE(blocker.size(), 0);
    }

    void comFailureText()
    {
        const QString text = "Nepavyko inicijuoti Windows COM STA aplinkos (HRESULT 0x%1).";
        QCOMPARE(vantro::comFailureText(long(-2147418113)), text.arg("8000ffff"));
        QCOMPARE(vantro::comFailureText(0x1f), text.arg("0000001f")); // padded to 8 digits
    }
};

QTEST_GUILESS_MAIN(StartupTest)
#include "tst_app_startup.moc"
