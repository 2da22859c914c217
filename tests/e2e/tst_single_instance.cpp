// The real executable, started twice against one isolated application directory.
#include <QDir>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QProcess>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QTimer>
#include <QtTest>

#include <functional>

namespace {

constexpr int kStartMs = 60000;  // the primary brings up the browser engine
constexpr int kHandoffMs = 6000; // the poll interval plus a margin
constexpr int kSecondaryMs = 10000;

bool waitUntil(const std::function<bool()>& done, int timeoutMs)
{
    QElapsedTimer clock;
    clock.start();
    while (!done()) {
        if (clock.elapsed() > timeoutMs)
            return false;
        QEventLoop loop;
        QTimer::singleShot(50, &loop, &QEventLoop::quit);
        loop.exec();
    }
    return true;
}

// A loopback port nobody listens on, so the window's network use fails fast and stays local.
quint16 closedLoopbackPort()
{
    QTcpServer server;
    server.listen(QHostAddress::LocalHost);
    return server.serverPort();
}

} // namespace

class SingleInstanceTest : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_tmp;
    QProcessEnvironment m_env;
    QProcess m_primary;

    QString appDir() const { return m_tmp.path() + QStringLiteral("/local/Vantro Sign Next/app"); }
    QString lockPath() const { return appDir() + QStringLiteral("/vantro-sign-app.lock"); }
    QString commandsPath() const { return appDir() + QStringLiteral("/commands"); }
    QString log() const
    {
        QFile file(appDir() + QStringLiteral("/logs/single-instance.log"));
        return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
    }
    qsizetype logCount(const QString& message) const
    {
        return log().count(QLatin1Char(' ') + message);
    }
    QStringList pendingCommands() const
    {
        return QDir(commandsPath()).entryList(QDir::Files | QDir::Hidden);
    }

    void start(QProcess& process, const QStringList& arguments)
    {
        process.setProcessEnvironment(m_env);
        process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        process.setStandardOutputFile(QProcess::nullDevice());
        process.start(QStringLiteral(VANTRO_SIGN_EXE), arguments);
    }

    void startPrimary()
    {
        const qsizetype starts = logCount(QStringLiteral("primary start args: "));
        start(m_primary, {QStringLiteral("--tray")});
        QVERIFY(m_primary.waitForStarted());
        QVERIFY2(waitUntil(
                     [&] {
                         return QFileInfo::exists(lockPath()) &&
                                logCount(QStringLiteral("primary start args: ")) > starts;
                     },
                     kStartMs),
                 "the primary instance did not come up");
    }

    // Runs a second start to completion; it must hand over and leave with 0, quickly.
    void runSecondary(const QStringList& arguments)
    {
        QProcess secondary;
        QElapsedTimer clock;
        clock.start();
        start(secondary, arguments);
        QVERIFY(secondary.waitForFinished(kSecondaryMs));
        QCOMPARE(secondary.exitStatus(), QProcess::NormalExit);
        QCOMPARE(secondary.exitCode(), 0);
        qInfo("second start took %lld ms", static_cast<long long>(clock.elapsed()));
    }

    // SIGTERM, then reap: an unreaped child would keep its lock looking held.
    void stopPrimary()
    {
        m_primary.terminate();
        QVERIFY(m_primary.waitForFinished(30000));
        QCOMPARE(m_primary.exitStatus(), QProcess::NormalExit);
        QCOMPARE(m_primary.exitCode(), 0);
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_tmp.isValid());
        const QString home = m_tmp.path() + QStringLiteral("/home");
        const QString runtime = m_tmp.path() + QStringLiteral("/run");
        QVERIFY(QDir().mkpath(runtime));
        QFile::setPermissions(runtime, QFileDevice::ReadOwner | QFileDevice::WriteOwner |
                                           QFileDevice::ExeOwner);
        const QString service = QStringLiteral("http://127.0.0.1:%1").arg(closedLoopbackPort());

        m_env = QProcessEnvironment::systemEnvironment();
        m_env.insert(QStringLiteral("LOCALAPPDATA"), m_tmp.path() + QStringLiteral("/local"));
        m_env.insert(QStringLiteral("HOME"), home);
        m_env.insert(QStringLiteral("XDG_DATA_HOME"), home + QStringLiteral("/.local/share"));
        m_env.insert(QStringLiteral("XDG_CONFIG_HOME"), home + QStringLiteral("/.config"));
        m_env.insert(QStringLiteral("XDG_CACHE_HOME"), home + QStringLiteral("/.cache"));
        m_env.insert(QStringLiteral("XDG_RUNTIME_DIR"), runtime);
        m_env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
        m_env.insert(QStringLiteral("QTWEBENGINE_DISABLE_SANDBOX"), QStringLiteral("1"));
        m_env.insert(QStringLiteral("VANTRO_SIGN_BASE_URL"), service);
        m_env.insert(QStringLiteral("VANTRO_SIGN_ALLOW_LOCAL_API_BASE"), QStringLiteral("1"));
        m_env.insert(QStringLiteral("VANTRO_SIGN_UPDATE_FEED_URL"),
                     service + QStringLiteral("/feed.json"));
        m_env.insert(QStringLiteral("VANTRO_SIGN_ALLOW_LOCAL_UPDATE_FEED"), QStringLiteral("1"));

        startPrimary();

        if (QTest::currentTestFailed())

            return;
    }

    void secondStartHandsOverShow()
    {
        runSecondary({});
        if (QTest::currentTestFailed())
            return;
        QCOMPARE(logCount(QStringLiteral("handoff write show: ok")), 1);
        QVERIFY2(waitUntil([&] { return logCount(QStringLiteral("handoff received show")) == 1; },
                           kHandoffMs),
                 qPrintable(log()));
        QVERIFY(pendingCommands().isEmpty());
        QCOMPARE(m_primary.state(), QProcess::Running);
    }

    void secondStartHandsOverLinkWithoutLeakingIt()
    {
        runSecondary({QStringLiteral("VantroSign://activate?code=SECRET")});
        if (QTest::currentTestFailed())
            return;
        QVERIFY2(
            waitUntil([&] { return logCount(QStringLiteral("handoff received protocol")) == 1; },
                      kHandoffMs),
            qPrintable(log()));
        QCOMPARE(logCount(QStringLiteral("handoff write vantrosign://activate?code=***: ok")), 1);
        QVERIFY(!log().contains(QLatin1String("SECRET")));
        QVERIFY(pendingCommands().isEmpty());
    }

    void terminationReleasesTheLock()
    {
        stopPrimary();
        if (QTest::currentTestFailed())
            return;
        QVERIFY(!QFileInfo::exists(lockPath()));

        // Left behind while no primary ran: the next primary handles it right away.
        QFile pending(commandsPath() + QStringLiteral("/command-20000101000000000-1.txt"));
        QVERIFY(pending.open(QIODevice::WriteOnly));
        pending.write("show\n");
        pending.close();

        startPrimary();

        if (QTest::currentTestFailed())

            return;
        QCOMPARE(logCount(QStringLiteral("primary start args: ")), 2);
        QVERIFY2(waitUntil([&] { return logCount(QStringLiteral("handoff received show")) == 2; },
                           kHandoffMs),
                 qPrintable(log()));
        QVERIFY(pendingCommands().isEmpty());
        stopPrimary();
        if (QTest::currentTestFailed())
            return;
        QVERIFY(!QFileInfo::exists(lockPath()));
    }

    void cleanupTestCase()
    {
        if (m_primary.state() != QProcess::NotRunning) {
            m_primary.kill();
            m_primary.waitForFinished(30000);
        }
    }
};

QTEST_GUILESS_MAIN(SingleInstanceTest)
#include "tst_single_instance.moc"
