// The real executable, started several times against one isolated application directory.
#include <QDir>
#include <QElapsedTimer>
#include <QProcess>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QtTest>

class SingleInstanceTest : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_tmp;
    QProcessEnvironment m_env = QProcessEnvironment::systemEnvironment();
    QProcess m_primary;

    QString appPath(const QString& name) const
    {
        return m_tmp.filePath(QStringLiteral("local/Vantro Sign Next/app/") + name);
    }
    QString log() const
    {
        QFile file(appPath(QStringLiteral("logs/single-instance.log")));
        return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
    }
    qsizetype logCount(const QString& message) const { return log().count(' ' + message); }
    // The other process only leaves files behind: there is no signal to wait for.
    bool waitForLog(const QString& message, qsizetype count, int timeoutMs = 6000) const
    {
        QElapsedTimer clock;
        clock.start();
        while (logCount(message) < count && clock.elapsed() < timeoutMs) {
            QEventLoop loop;
            QTimer::singleShot(50, &loop, &QEventLoop::quit);
            loop.exec();
        }
        return logCount(message) == count;
    }
    QStringList pendingCommands() const
    {
        return QDir(appPath("commands")).entryList(QDir::Files | QDir::Hidden);
    }

    void start(QProcess& process, const QStringList& arguments)
    {
        process.setProcessEnvironment(m_env);
        process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        process.setStandardOutputFile(QProcess::nullDevice());
        process.start(QStringLiteral(VANTRO_SIGN_EXE), arguments);
    }

    // A tray start shows no window: the log line and the lock tell that it is up.
    void startPrimary(int starts)
    {
        start(m_primary, {QStringLiteral("--tray")});
        QVERIFY(waitForLog(QStringLiteral("primary start args: "), starts, 60000));
        QVERIFY(QFileInfo::exists(appPath("vantro-sign-app.lock")));
        QVERIFY(log().contains(QStringLiteral("primary start args: %1 --tray\n")
                                   .arg(QStringLiteral(VANTRO_SIGN_EXE))));
    }

    // A second start hands over and leaves at once with 0; the primary keeps running.
    void runSecondary(const QStringList& arguments)
    {
        QProcess secondary;
        start(secondary, arguments);
        QVERIFY(secondary.waitForFinished(10000));
        QCOMPARE(secondary.exitStatus(), QProcess::NormalExit);
        QCOMPARE(secondary.exitCode(), 0);
        QCOMPARE(m_primary.state(), QProcess::Running);
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_tmp.isValid());
        const QString home = m_tmp.filePath(QStringLiteral("home"));
        const QString runtime = m_tmp.filePath(QStringLiteral("run"));
        QVERIFY(QDir().mkpath(runtime));
        QFile::setPermissions(runtime, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        // A loopback port nobody listens on: the window's network use fails fast and locally.
        QTcpServer closed;
        QVERIFY(closed.listen(QHostAddress::LocalHost));
        const QString service = QStringLiteral("http://127.0.0.1:%1").arg(closed.serverPort());
        closed.close();
        m_env.insert("LOCALAPPDATA", m_tmp.filePath("local"));
        m_env.insert("HOME", home);
        m_env.insert("XDG_DATA_HOME", home + "/.local/share");
        m_env.insert("XDG_CONFIG_HOME", home + "/.config");
        m_env.insert("XDG_CACHE_HOME", home + "/.cache");
        m_env.insert("XDG_RUNTIME_DIR", runtime);
        m_env.insert("QT_QPA_PLATFORM", "offscreen");
        m_env.insert("QTWEBENGINE_DISABLE_SANDBOX", "1");
        m_env.insert("VANTRO_SIGN_BASE_URL", service);
        m_env.insert("VANTRO_SIGN_ALLOW_LOCAL_API_BASE", "1");
        m_env.insert("VANTRO_SIGN_UPDATE_FEED_URL", service + "/feed.json");
        m_env.insert("VANTRO_SIGN_ALLOW_LOCAL_UPDATE_FEED", "1");
        startPrimary(1);
    }

    void secondStartHandsOverShow()
    {
        runSecondary({});
        QCOMPARE(logCount(QStringLiteral("handoff write show: ok")), 1);
        QVERIFY2(waitForLog(QStringLiteral("handoff received show"), 1), qPrintable(log()));
        QVERIFY(pendingCommands().isEmpty());
    }

    // The primary gets the link; the code in it appears nowhere in the log.
    void secondStartHandsOverLinkWithoutLeakingIt()
    {
        runSecondary({QStringLiteral("VantroSign://activate?code=SECRET")});
        QCOMPARE(logCount(QStringLiteral("handoff write vantrosign://activate?code=***: ok")), 1);
        QVERIFY2(waitForLog(QStringLiteral("activation link received"), 1), qPrintable(log()));
        QCOMPARE(logCount(QStringLiteral("handoff received protocol")), 1);
        QVERIFY(!log().contains(QLatin1String("SECRET")));
        QVERIFY(pendingCommands().isEmpty());
    }

    // A killed primary leaves its lock behind; the next start takes it over and handles the
    // command written while no primary ran. A normal end releases the lock.
    void staleLockIsTakenOverAndNormalEndReleasesIt()
    {
        m_primary.kill();
        // Reaped, or its lock would still look held.
        QVERIFY(m_primary.waitForFinished(30000));
        QVERIFY(QFileInfo::exists(appPath("vantro-sign-app.lock")));
        QFile pending(appPath("commands/command-20000101000000000-1.txt"));
        QVERIFY(pending.open(QIODevice::WriteOnly) && pending.write("show\n") == 5);
        pending.close();

        startPrimary(2);
        QVERIFY2(waitForLog(QStringLiteral("handoff received show"), 2), qPrintable(log()));
        QVERIFY(pendingCommands().isEmpty());

        m_primary.terminate();
        QVERIFY(m_primary.waitForFinished(30000));
        QCOMPARE(m_primary.exitStatus(), QProcess::NormalExit);
        QCOMPARE(m_primary.exitCode(), 0);
        QVERIFY(!QFileInfo::exists(appPath("vantro-sign-app.lock")));
    }

    void cleanupTestCase()
    {
        m_primary.kill();
        m_primary.waitForFinished(30000);
    }
};

QTEST_GUILESS_MAIN(SingleInstanceTest)
#include "tst_single_instance.moc"
