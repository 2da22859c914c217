// Command files between a second start and the primary instance.
#include "app/Handoff.h"
#include "app/InstanceLog.h"
#include "app/Paths.h"

#include <QTemporaryDir>
#include <QtTest>

#include <sys/stat.h>
#include <unistd.h>

using namespace vantro;

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

class HandoffTest : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_tmp;
    QString m_dir;

    static HandoffStamp stamp(qint64 pid) { return {{{2024, 3, 5}, {7, 8, 9, 12}}, pid}; }
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
        QStringList e;
        const HandoffActions actions{[&](auto& link) { e << "link " + link; },
                                     std::function<void()>([&] { e << "show"; })};
        now.isValid() ? receiveHandoff(m_dir, actions, now) : receiveHandoff(actions);
        return e;
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_tmp.isValid());
        qputenv("LOCALAPPDATA", m_tmp.path().toUtf8());
        m_dir = commandsDir();
    }
    void init()
    {
        QVERIFY(QDir(m_dir).removeRecursively() && QDir().mkpath(m_dir));
        QFile::remove(instanceLogPath());
    }

    void writeTrimsAndLogsRedacted()
    {
        const QString path = writeHandoff("  VantroSign://activate?code=SECRET \n");
        QVERIFY(path.endsWith(QString("-%1.txt").arg(QCoreApplication::applicationPid())));
        QCOMPARE(entries(), QStringList{QFileInfo(path).fileName()}); // no temporary left over
        QCOMPARE(contents(path), "VantroSign://activate?code=SECRET\n");
        QVERIFY(log().contains(" handoff write vantrosign://activate?code=***: ok\n"));
        QVERIFY(!log().contains("SECRET"));
    }

    // Names sort by time of writing; the pid keeps writers of the same millisecond apart.
    void writersInTheSameMillisecondAndNameOrder()
    {
        const QString first = writeHandoff(m_dir, QString(), stamp(100));
        QCOMPARE(QFileInfo(first).fileName(), "command-20240305070809012-100.txt");
        QCOMPARE(contents(first), "show\n"); // an empty link argument means "show"
        writeHandoff(m_dir, "vantrosign:x", stamp(101));
        writeCommand("command-20240305070809011-999.txt", "vantrosign:earlier");
        writeCommand("command-20240305070809010-1.txt.tmp", "vantrosign:partly written");
        QCOMPARE(entries().size(), 4);
        QCOMPARE(run(), (QStringList{"link vantrosign:earlier", "show", "link vantrosign:x"}));
    }

    // Only our own spelling of the name counts where the file system tells case apart.
    void namesMatchWithCase()
    {
        const QString stranger = writeCommand("COMMAND-1-1.TXT", "vantrosign:upper\n");
        writeCommand("command-1-1.txt", "show\n");
        QCOMPARE(run(), QStringList{"show"});
        QCOMPARE(entries(), QStringList{QFileInfo(stranger).fileName()});
    }

    void receive_data()
    {
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<int>("ageSeconds");
        QTest::addColumn<QStringList>("events");
        const auto add = [](const char* name, const QByteArray& content, int age,
                            const QStringList& events) {
            QTest::newRow(name) << content << age << events;
        };
        add("capitalised scheme, blanks", " \tVANTROSIGN:a \r\n\n", 0, {"link VANTROSIGN:a"});
        add("other text only shows", "rm -rf / ; https://evil.example\n", 0, {"show"});
        add("blank does nothing", "  \n\t \n", 0, {});
        add("oversized is discarded", QByteArray(200 * 1024, 'a'), 0, {});
        add("300 s old is still read", "show\n", 300, {"show"});
        add("301 s old is stale", "vantrosign:x\n", 301, {});
    }
    void receive() // every command file goes, whatever it held
    {
        QFETCH(QByteArray, content);
        QFETCH(int, ageSeconds);
        const QString path = writeCommand("command-20240305070809012-9.txt", content);
        // `now` is the file's time plus the age, so the boundary rows do not race the clock.
        const QDateTime written = QFileInfo(path).fileTime(QFileDevice::FileModificationTime);
        QTEST(run(written.addSecs(ageSeconds)), "events");
        QVERIFY(entries().isEmpty());
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
