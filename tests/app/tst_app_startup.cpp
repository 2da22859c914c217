// Start options, the application directory and the single-instance log.
#include "app/InstanceLog.h"
#include "app/Paths.h"
#include "app/StartOptions.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QtTest>

using namespace vantro;

class StartupTest : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_tmp;

    void useLocalAppData(const QString& value) { qputenv("LOCALAPPDATA", value.toUtf8()); }
    QByteArray readLog() const
    {
        QFile file(instanceLogPath());
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
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
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<bool>("tray");
        QTest::addColumn<QString>("link");

        const QString exe = QStringLiteral("/opt/vantro/vantro-sign");
        QTest::newRow("program only") << QStringList{exe} << false << QString();
        QTest::newRow("tray") << QStringList{exe, "--tray"} << true << QString();
        QTest::newRow("tray in capitals is not tray")
            << QStringList{exe, "--TRAY"} << false << QString();
        QTest::newRow("tray with suffix is not tray")
            << QStringList{exe, "--tray=1"} << false << QString();
        QTest::newRow("link") << QStringList{exe, "vantrosign://activate?code=A"} << false
                              << "vantrosign://activate?code=A";
        QTest::newRow("capitalised scheme counts")
            << QStringList{exe, "VantroSign://activate"} << false << "VantroSign://activate";
        QTest::newRow("first link wins")
            << QStringList{exe, "vantrosign:first", "--tray", "VANTROSIGN:second"} << true
            << "vantrosign:first";
        QTest::newRow("scheme not at start is no link")
            << QStringList{exe, " vantrosign:x", "open=vantrosign:y"} << false << QString();
        QTest::newRow("program path itself may be a link")
            << QStringList{"vantrosign:odd"} << false << "vantrosign:odd";
    }
    void startOptions()
    {
        QFETCH(QStringList, arguments);
        const StartOptions options = parseStartOptions(arguments);
        QTEST(options.tray, "tray");
        QTEST(options.link, "link");
    }

    void appDataDirFollowsLocalAppData()
    {
        useLocalAppData(m_tmp.path() + QStringLiteral("/local/"));
        QCOMPARE(appDataDir(), m_tmp.path() + QStringLiteral("/local/Vantro Sign Next/app"));
        QVERIFY(!QDir(appDataDir()).exists()); // not created by asking
        QCOMPARE(instanceLockPath(), appDataDir() + QStringLiteral("/vantro-sign-app.lock"));
    }

    void appDataDirFallsBack_data()
    {
        QTest::addColumn<bool>("set");
        QTest::addColumn<QString>("value");
        QTest::newRow("unset") << false << QString();
        QTest::newRow("empty") << true << QString();
        QTest::newRow("blanks") << true << QStringLiteral("  \t ");
    }
    void appDataDirFallsBack()
    {
        QFETCH(bool, set);
        QFETCH(QString, value);
        if (set)
            useLocalAppData(value);
        const QString expected =
            QStandardPaths::writableLocation(QStandardPaths::AppLocalDataLocation);
        QVERIFY(expected.endsWith(QStringLiteral("/VantroTest/StartupTest")));
        QCOMPARE(appDataDir(), expected);
    }

    void commandsDirIsCreated()
    {
        useLocalAppData(m_tmp.path() + QStringLiteral("/cmd"));
        const QString dir = commandsDir();
        QCOMPARE(dir, appDataDir() + QStringLiteral("/commands"));
        QVERIFY(QFileInfo(dir).isDir());
    }

    void logLineAppendsStampedUtf8Lines()
    {
        useLocalAppData(m_tmp.path() + QStringLiteral("/log"));
        const QDateTime before = QDateTime::currentDateTime().addMSecs(-1);
        logLine(QStringLiteral("first"));
        logLine(QStringLiteral("antras žingsnis"));

        const QList<QByteArray> lines = readLog().split('\n');
        QCOMPARE(lines.size(), 3);
        QVERIFY(lines.last().isEmpty()); // every line ends with a line feed
        const QRegularExpression format(
            QStringLiteral("^(\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{3}) (.*)$"));
        const QRegularExpressionMatch second = format.match(QString::fromUtf8(lines.at(1)));
        QVERIFY2(second.hasMatch(), lines.at(1).constData());
        QCOMPARE(second.captured(2), QStringLiteral("antras žingsnis"));
        const QDateTime stamp = QDateTime::fromString(second.captured(1), Qt::ISODateWithMs);
        QVERIFY(stamp >= before && stamp <= QDateTime::currentDateTime());
        QVERIFY(lines.at(0).endsWith(" first"));
    }

    void logLineWithUnusableDirectoryIsDropped()
    {
        // "logs" taken by a plain file: neither the folder nor the log can be created.
        useLocalAppData(m_tmp.path() + QStringLiteral("/blocked"));
        QVERIFY(QDir().mkpath(appDataDir()));
        QFile blocker(appDataDir() + QStringLiteral("/logs"));
        QVERIFY(blocker.open(QIODevice::WriteOnly));
        blocker.close();
        logLine(QStringLiteral("lost"));
        QVERIFY(QFileInfo(blocker.fileName()).isFile());
        QCOMPARE(blocker.size(), 0);
    }

    void comFailureText_data()
    {
        QTest::addColumn<qint64>("result");
        QTest::addColumn<QString>("hex");
        QTest::newRow("typical failure") << qint64(-2147418113) << "8000ffff";
        QTest::newRow("small value is padded") << qint64(0x1f) << "0000001f";
    }
    void comFailureText()
    {
        QFETCH(qint64, result);
        QFETCH(QString, hex);
        QCOMPARE(vantro::comFailureText(static_cast<long>(result)),
                 QStringLiteral("Nepavyko inicijuoti Windows COM STA aplinkos (HRESULT 0x%1).")
                     .arg(hex));
    }
};

QTEST_GUILESS_MAIN(StartupTest)
#include "tst_app_startup.moc"
