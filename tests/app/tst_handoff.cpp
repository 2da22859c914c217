// Command files between a second start and the primary instance.
#include "app/Handoff.h"
#include "app/InstanceLog.h"
#include "app/Paths.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

#include <sys/stat.h>
#include <unistd.h>

using namespace vantro;

namespace {

// Drops the effective user and group to "nobody" for a scope, so permission bits bind even
// for root (with group root kept, the group bits would apply instead of the others' bits).
struct AsNobody
{
    const bool active = ::geteuid() == 0;
    const bool ok = !active || (::setegid(65534) == 0 && ::seteuid(65534) == 0);
    ~AsNobody()
    {
        if (active && (::seteuid(0) != 0 || ::setegid(0) != 0))
            qFatal("cannot restore the effective user");
    }
};

HandoffStamp stamp(qint64 pid)
{
    return {QDateTime(QDate(2024, 3, 5), QTime(7, 8, 9, 12)), pid};
}

} // namespace

class HandoffTest : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_tmp;
    QString m_dir;

    QString writeCommand(const QString& name, const QByteArray& content)
    {
        QFile file(QDir(m_dir).filePath(name));
        if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size())
            qFatal("cannot write %s", qPrintable(name));
        return file.fileName();
    }
    QStringList entries() const
    {
        return QDir(m_dir).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden);
    }
    static QByteArray contents(const QString& path)
    {
        QFile file(path);
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }
    static QString log() { return QString::fromUtf8(contents(instanceLogPath())); }
    // What a receive run triggered, in order; without `now`, the production entry point runs.
    QStringList run(const QDateTime& now = {})
    {
        QStringList events;
        const HandoffActions actions{[&](const QString& link) { events << "link " + link; },
                                     [&]() {
                                         events << "show";
                                     }};
        if (now.isValid())
            receiveHandoff(m_dir, actions, now);
        else
            receiveHandoff(actions);
        return events;
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_tmp.isValid());
        qputenv("LOCALAPPDATA", m_tmp.path().toUtf8());
        m_dir = commandsDir();
        QVERIFY(m_dir.startsWith(m_tmp.path()));
    }
    void init()
    {
        QDir(m_dir).removeRecursively();
        QVERIFY(QDir().mkpath(m_dir));
        QFile::remove(instanceLogPath());
    }

    void writeTrimsAndLogsRedacted()
    {
        const QString path = writeHandoff("  VantroSign://activate?code=SECRET \n");
        QCOMPARE(QFileInfo(path).dir().path(), m_dir);
        QVERIFY(path.endsWith(QString("-%1.txt").arg(QCoreApplication::applicationPid())));
        QCOMPARE(entries(), QStringList{QFileInfo(path).fileName()}); // no temporary left over
        QCOMPARE(contents(path), "VantroSign://activate?code=SECRET\n");
        QVERIFY(log().contains(" handoff write vantrosign://activate?code=***: ok\n"));
        QVERIFY(!log().contains("SECRET"));
    }

    void writeFailureIsLoggedAndLeavesNothing()
    {
        const QString blocker = writeCommand("not-a-dir", "x");
        QCOMPARE(writeHandoff(blocker + "/sub", "", stamp(1)), QString());
        QVERIFY(log().contains(" handoff write failed: "));
        QCOMPARE(entries(), QStringList{"not-a-dir"}); // nothing else left behind
    }

    // Names sort by time of writing; the pid keeps writers of the same millisecond apart.
    void writersInTheSameMillisecondAndNameOrder()
    {
        const QString first = writeHandoff(m_dir, QString(), stamp(100));
        QCOMPARE(QFileInfo(first).fileName(), "command-20240305070809012-100.txt");
        QCOMPARE(contents(first), "show\n"); // an empty link argument means "show"
        QVERIFY(log().contains(" handoff write show: ok\n"));
        writeHandoff(m_dir, "vantrosign:x", stamp(101));
        writeCommand("command-20240305070809011-999.txt", "vantrosign:earlier");
        QCOMPARE(entries().size(), 3);
        QCOMPARE(run(), (QStringList{"link vantrosign:earlier", "show", "link vantrosign:x"}));
    }

    void receive_data()
    {
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<int>("ageSeconds");
        QTest::addColumn<QStringList>("events");
        QTest::addColumn<QString>("logged");
        const QString show = "handoff received show", protocol = "handoff received protocol";
        const auto add = [](const char* name, const QByteArray& content, int age,
                            const QStringList& events, const QString& logged) {
            QTest::newRow(name) << content << age << events << logged;
        };
        add("show", "show\n", 0, {"show"}, show);
        add("link", "vantrosign://activate?code=A\n", 0, {"link vantrosign://activate?code=A"},
            protocol);
        add("capitalised scheme", "VANTROSIGN:a\r\n", 0, {"link VANTROSIGN:a"}, protocol);
        add("blanks around link", "  \tvantrosign:x  \n\n", 0, {"link vantrosign:x"}, protocol);
        add("other text only shows", "rm -rf / ; https://evil.example\n", 0, {"show"}, show);
        add("blank does nothing", "  \n\t \n", 0, {}, "");
        add("oversized is discarded", QByteArray(200 * 1024, 'a'), 0, {},
            "handoff discarded oversized command");
        add("300 s old is still read", "show\n", 300, {"show"}, show);
        add("301 s old is stale", "show\n", 301, {}, "");
        add("ten minutes old is stale", "vantrosign:x\n", 600, {}, "");
    }
    void receive()
    {
        QFETCH(QByteArray, content);
        QFETCH(int, ageSeconds);
        QFETCH(QString, logged);
        QFile file(writeCommand("command-20240305070809012-9.txt", content));
        QVERIFY(file.open(QIODevice::ReadWrite));
        const QDateTime modified = QDateTime::currentDateTimeUtc().addSecs(-ageSeconds);
        QVERIFY(file.setFileTime(modified, QFileDevice::FileModificationTime));
        file.close();
        // `now` pinned to the stamp plus the age, so the boundary rows do not race the clock.
        const QDateTime stamped = QFileInfo(file).fileTime(QFileDevice::FileModificationTime);
        QTEST(run(stamped.addSecs(ageSeconds)), "events");
        QVERIFY(entries().isEmpty());
        QCOMPARE(log().count(QLatin1String(" handoff ")), logged.isEmpty() ? 0 : 1);
        QVERIFY(logged.isEmpty() || log().contains(' ' + logged + '\n'));
    }

    void ignoresWhatIsNotACommandFile()
    {
        writeCommand("notes.txt", "show");
        writeCommand("command-1-1.txt.tmp", "show");
        QVERIFY(QDir(m_dir).mkdir("command-2-2.txt"));
        const QString target = writeCommand("target", "show");
        QVERIFY(QFile::link(target, QDir(m_dir).filePath("command-3-3.txt")));
        QCOMPARE(run(), QStringList());
        QCOMPARE(entries().size(), 5);
    }

    void unreadableFreshFileStaysUntilStale()
    {
        // The folders stay open to "nobody", only the file itself is unreadable.
        QVERIFY(::chmod(qPrintable(m_dir), 0707) == 0 &&
                ::chmod(qPrintable(m_tmp.path()), 0701) == 0);
        const QString path = writeCommand("command-1-1.txt", "show\n");
        QVERIFY(QFile::setPermissions(path, QFileDevice::Permissions()));
        AsNobody nobody;
        QVERIFY(nobody.ok);
        QCOMPARE(run(), QStringList());
        QVERIFY(QFileInfo::exists(path));
        QCOMPARE(run(QDateTime::currentDateTimeUtc().addSecs(400)), QStringList());
        QVERIFY(!QFileInfo::exists(path));
    }
};

QTEST_GUILESS_MAIN(HandoffTest)
#include "tst_handoff.moc"
