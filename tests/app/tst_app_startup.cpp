// Start options, activation-link redaction, the application directory, the single-instance log
// and file digests.
#include "app/ActivationLink.h"
#include "app/Errors.h"
#include "app/FileHash.h"
#include "app/InstanceLog.h"
#include "app/Paths.h"
#include "app/StartOptions.h"

#include <QTemporaryDir>
#include <QtTest>

using namespace vantro;

class StartupTest : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_tmp;

    QString writeFile(const QByteArray& content)
    {
        QFile file(m_tmp.filePath("data.bin"));
        if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) ||
            file.write(content) != content.size())
            qFatal("cannot write %s", qPrintable(file.fileName()));
        return file.fileName();
    }

private Q_SLOTS:
    void initTestCase()
    {
        QCoreApplication::setOrganizationName(QStringLiteral("VantroTest"));
        QCoreApplication::setApplicationName(QStringLiteral("StartupTest"));
        QVERIFY(m_tmp.isValid());
    }

    void startOptions_data()
    {
        QTest::addColumn<QStringList>("arguments"); // after the program path
        QTest::addColumn<bool>("tray");
        QTest::addColumn<QString>("link");
        const auto add = [](const char* name, const QStringList& args, bool tray,
                            const char* link) {
            QTest::newRow(name) << args << tray << QString(link);
        };
        add("--tray", {"--tray"}, true, "");
        add("--TRAY is not tray", {"--TRAY"}, false, "");
        add("first link wins, any case", {"VantroSign://a", "--tray", "vantrosign:2"}, true,
            "VantroSign://a");
        add("scheme not at start is no link", {" vantrosign:x", "open=vantrosign:y"}, false, "");
    }
    void startOptions()
    {
        QFETCH(QStringList, arguments);
        const StartOptions options = parseStartOptions(QStringList{"/opt/vantro-sign"} + arguments);
        QTEST(options.tray, "tray");
        QTEST(options.link, "link");
        QCOMPARE(parseStartOptions(arguments).link, options.link); // the program path is read too
    }

    void redacts_data()
    {
        QTest::addColumn<QString>("link");
        QTest::addColumn<QString>("redacted");
        const auto add = [](const char* name, const QString& link, const QString& redacted) {
            QTest::newRow(name) << "vantrosign:" + link << "vantrosign:" + redacted;
        };
        add("query values masked, keys kept", "//activate?code=S&ws=W",
            "//activate?code=***&ws=***");
        add("code in the path", "//activate/S-123", "//activate/***");
        add("opaque code", "S", "***");
        add("opaque action with code", "activate/S", "activate/***");
        add("credentials in authority", "//user:S@activate", "//***");
        add("bare token in query", "//activate?S&code=X", "//activate?***&code=***");
        add("percent-encoded key masked whole", "//activate?c%6Fde=S", "//activate?***");
        add("empty query items dropped", "//activate?&&code=X&", "//activate?code=***");
        add("'?' inside the fragment", "//activate#a?code=S", "//activate#***");
        QTest::newRow("capitalised") << "VantroSign://Activate?c=1"
                                     << "vantrosign://activate?c=***";
        QTest::newRow("not a link left alone") << QString("--tray") << QString("--tray");
    }
    void redacts()
    {
        QFETCH(QString, link);
        QTEST(redactActivationLink(link), "redacted");
    }

    void appDataDirAndLog()
    {
        qputenv("LOCALAPPDATA", m_tmp.filePath("local/").toUtf8());
        QCOMPARE(appDataDir(), m_tmp.filePath("local/Vantro Sign Next/app"));
        QVERIFY(!QDir(appDataDir()).exists()); // not created by asking
        QCOMPARE(commandsDir(), appDataDir() + "/commands");
        QVERIFY(QFileInfo(commandsDir()).isDir());

        const QDateTime before = QDateTime::currentDateTime().addMSecs(-1);
        logLine("antras žingsnis");
        QFile file(instanceLogPath());
        QVERIFY(file.open(QIODevice::ReadOnly));
        const QString line = QString::fromUtf8(file.readAll());
        QCOMPARE(line.section(' ', 1), "antras žingsnis\n");
        const QDateTime stamp = QDateTime::fromString(line.left(23), "yyyy-MM-ddTHH:mm:ss.zzz");
        QVERIFY2(stamp >= before && stamp <= QDateTime::currentDateTime(), qPrintable(line));

        // Blank LOCALAPPDATA: the per-user data location of this organisation and program.
        qputenv("LOCALAPPDATA", " \t ");
        const QString data =
            qEnvironmentVariable("XDG_DATA_HOME", QDir::homePath() + "/.local/share");
        QCOMPARE(appDataDir(), data + "/VantroTest/StartupTest");
    }

    void fileHash()
    {
        const QString abc256 = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";
        QCOMPARE(sha256File(writeFile("abc")), abc256); // published vectors
        QCOMPARE(sha512File(writeFile("abc")).toBase64(),
                 "3a81oZNherrMQXNJriBBMRLm+k6JqX6iCp7u5ktV05ohkpkqJ0/BqDa6PCOj/"
                 "uu9RU1EI2Q86A4qmslPpUyknw==");
        QCOMPARE(sha256File(writeFile({})),
                 "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
        QCOMPARE(sha256Hex("abc"), abc256);
        Sha256Stream stream; // fed in two pieces, as a copy loop would
        stream.update("a", 1);
        stream.update("bc", 2);
        QCOMPARE(stream.hexDigest(), abc256);
        QVERIFY_THROWS_EXCEPTION(VantroError, sha256File(m_tmp.filePath("missing.pdf")));

        // Files are read in 1 MiB chunks: a lost, repeated or misplaced chunk changes the digest.
        QByteArray content((qsizetype(3) << 20) + 12345, Qt::Uninitialized);
        quint32 x = 2463534242u; // xorshift: no two chunks alike
        for (char& byte : content)
            x ^= x << 13, x ^= x >> 17, x ^= x << 5, byte = char(x);
        const QString path = writeFile(content);
        QCOMPARE(sha256File(path),
                 QCryptographicHash::hash(content, QCryptographicHash::Sha256).toHex());
        QCOMPARE(sha512File(path), QCryptographicHash::hash(content, QCryptographicHash::Sha512));
    }
};

QTEST_GUILESS_MAIN(StartupTest)
#include "tst_app_startup.moc"
