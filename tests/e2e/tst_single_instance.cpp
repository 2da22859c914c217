// The real executable, started several times against one isolated application directory. The
// processes only leave files behind, so the test polls them.
#include <QDir>
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
        return m_tmp.filePath("local/Vantro Sign Next/app/" + name);
    }
    qsizetype logCount(const QString& message) const
    {
        QFile file(appPath("logs/single-instance.log"));
        return file.open(QIODevice::ReadOnly) ? QString(file.readAll()).count(' ' + message) : 0;
    }
    void start(QProcess& process, const QStringList& arguments)
    {
        process.setProcessEnvironment(m_env);
        process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        process.setStandardOutputFile(QProcess::nullDevice());
        process.start(VANTRO_SIGN_EXE, arguments);
    }
    // A tray start shows no window: the log line and the lock tell that it is up.
    void startPrimary(int starts)
    {
        start(m_primary, {"--tray"});
        QTRY_COMPARE_WITH_TIMEOUT(logCount("primary start args: " VANTRO_SIGN_EXE " --tray\n"),
                                  starts, 60000);
        QVERIFY(QFileInfo::exists(appPath("vantro-sign-app.lock")));
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_tmp.isValid());
        const QString runtime = m_tmp.filePath("run");
        QVERIFY(QDir().mkpath(runtime));
        QFile::setPermissions(runtime, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        // A loopback port nobody listens on: the window's network use fails fast and locally.
        QTcpServer closed;
        QVERIFY(closed.listen(QHostAddress::LocalHost));
        const QString service = QStringLiteral("http://127.0.0.1:%1").arg(closed.serverPort());
        closed.close();
        const QString env =
            QStringLiteral(
                "LOCALAPPDATA=%1/local\nHOME=%1/home\nXDG_DATA_HOME=%1/home/.local/share\n"
                "XDG_CONFIG_HOME=%1/home/.config\nXDG_CACHE_HOME=%1/home/.cache\n"
                "XDG_RUNTIME_DIR=%1/run\nQT_QPA_PLATFORM=offscreen\n"
                "QTWEBENGINE_DISABLE_SANDBOX=1\nVANTRO_SIGN_BASE_URL=%2\n"
                "VANTRO_SIGN_ALLOW_LOCAL_API_BASE=1\nVANTRO_SIGN_UPDATE_FEED_URL=%2/feed.json\n"
                "VANTRO_SIGN_ALLOW_LOCAL_UPDATE_FEED=1")
                .arg(m_tmp.path(), service);
        for (const QString& setting : env.split('\n'))
            m_env.insert(setting.section('=', 0, 0), setting.section('=', 1));
        startPrimary(1);
    }

    // A second start writes one command, leaves at once with 0, and the primary handles it.
    void secondStartHandsOverToTheFirst()
    {
        QProcess secondary;
        start(secondary, {});
        QVERIFY(secondary.waitForFinished(10000));
        QCOMPARE(secondary.exitStatus(), QProcess::NormalExit);
        QCOMPARE(secondary.exitCode(), 0);
        QCOMPARE(m_primary.state(), QProcess::Running);
        QCOMPARE(logCount("handoff write show: ok"), 1);
        QTRY_COMPARE_WITH_TIMEOUT(logCount("handoff received show"), 1, 6000);
        QVERIFY(QDir(appPath("commands")).isEmpty(QDir::Files | QDir::Hidden));
    }

    // A killed primary leaves its lock behind; the next start takes it over and handles the
    // command written while no primary ran. A normal end releases the lock.
    void staleLockIsTakenOverAndNormalEndReleasesIt()
    {
        m_primary.kill();
        QVERIFY(m_primary.waitForFinished(30000)); // reaped, or its lock would still look held
        QVERIFY(QFileInfo::exists(appPath("vantro-sign-app.lock")));
        QFile pending(appPath("commands/command-20000101000000000-1.txt"));
        QVERIFY(pending.open(QIODevice::WriteOnly) && pending.write("show\n") == 5);
        pending.close();

        startPrimary(2);
        QTRY_COMPARE_WITH_TIMEOUT(logCount("handoff received show"), 2, 6000);
        QVERIFY(QDir(appPath("commands")).isEmpty(QDir::Files | QDir::Hidden));
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
