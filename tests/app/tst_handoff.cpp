// Command files between a second start and the primary instance.
#include "app/Handoff.h"
#include "app/InstanceLog.h"
#include "app/Paths.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

#include <unistd.h>

using namespace vantro;

namespace {

// Records what a receive run triggered, in order.
struct Recorder
{
    QStringList events;

    HandoffActions actions()
    {
        HandoffActions result;
        result.link = [this](const QString& link) {
            events << QStringLiteral("link ") + link;
        };
        result.show = [this] {
            events << QStringLiteral("show");
        };
        return result;
    }
};

// Drops the effective user and group to "nobody" for a scope, so permission bits bind even
// for root (with group root kept, the group bits would apply instead of the others' bits).
class AsNobody
{
public:
    AsNobody()
        : m_active(::geteuid() == 0)
    {
        m_ok = !m_active || (::setegid(65534) == 0 && ::seteuid(65534) == 0);
    }
    ~AsNobody()
    {
        if (m_active && (::seteuid(0) != 0 || ::setegid(0) != 0))
            qFatal("cannot restore the effective user");
    }
    bool ok() const { return m_ok; }

private:
    bool m_active;
    bool m_ok = false;
};

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
        if (!file.open(QIODevice::WriteOnly))
            return {};
        file.write(content);
        return file.fileName();
    }
    QStringList entries() const
    {
        return QDir(m_dir).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden);
    }
    QString log() const
    {
        QFile file(instanceLogPath());
        return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
    }
    static HandoffStamp stamp(qint64 pid)
    {
        return {QDateTime(QDate(2024, 3, 5), QTime(7, 8, 9, 12)), pid};
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

    void fileNameCarriesTimeAndPid()
    {
        QCOMPARE(handoffFileName(stamp(4242)),
                 QStringLiteral("command-20240305070809012-4242.txt"));
    }

    void writesShowWithoutLink()
    {
        const QString path = writeHandoff(QString());
        QCOMPARE(QFileInfo(path).dir().path(), m_dir);
        QVERIFY(QFileInfo(path).fileName().endsWith(
            QStringLiteral("-%1.txt").arg(QCoreApplication::applicationPid())));
        QFile file(path);
        QVERIFY(file.open(QIODevice::ReadOnly));
        QCOMPARE(file.readAll(), QByteArray("show\n"));
        QVERIFY(log().contains(QLatin1String(" handoff write show: ok\n")));
    }

    void writesTrimmedLinkAndLogsItRedacted()
    {
        const QString path =
            writeHandoff(m_dir, QStringLiteral("  VantroSign://activate?code=SECRET \n"), stamp(7));
        QFile file(path);
        QVERIFY(file.open(QIODevice::ReadOnly));
        QCOMPARE(file.readAll(), QByteArray("VantroSign://activate?code=SECRET\n"));
        QVERIFY(
            log().contains(QLatin1String(" handoff write vantrosign://activate?code=***: ok\n")));
        QVERIFY(!log().contains(QLatin1String("SECRET")));
    }

    void atomicWriteLeavesOnlyTheCommand()
    {
        const QString path = writeHandoff(m_dir, QString(), stamp(1));
        QCOMPARE(entries(), QStringList{QFileInfo(path).fileName()});
    }

    void writeFailureIsLoggedAndLeavesNothing()
    {
        const QString blocker = writeCommand(QStringLiteral("not-a-dir"), "x");
        QCOMPARE(writeHandoff(blocker + QStringLiteral("/sub"), QString(), stamp(1)), QString());
        QVERIFY(log().contains(QLatin1String(" handoff write failed: ")));
        QCOMPARE(entries(), QStringList{QStringLiteral("not-a-dir")});
    }

    void simultaneousWritersKeepDistinctFiles()
    {
        const QString first = writeHandoff(m_dir, QString(), stamp(100));
        const QString second = writeHandoff(m_dir, QStringLiteral("vantrosign:x"), stamp(101));
        QVERIFY(first != second);
        QCOMPARE(entries().size(), 2);

        Recorder recorder;
        receiveHandoff(m_dir, recorder.actions());
        QCOMPARE(recorder.events,
                 (QStringList{QStringLiteral("show"), QStringLiteral("link vantrosign:x")}));
    }

    void receivesCommand_data()
    {
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<QStringList>("events");
        QTest::addColumn<QString>("logged");

        const QString show = QStringLiteral("handoff received show");
        const QString protocol = QStringLiteral("handoff received protocol");
        QTest::newRow("show") << QByteArray("show\n") << QStringList{"show"} << show;
        QTest::newRow("link") << QByteArray("vantrosign://activate?code=A\n")
                              << QStringList{"link vantrosign://activate?code=A"} << protocol;
        QTest::newRow("capitalised scheme")
            << QByteArray("VANTROSIGN://activate\r\n") << QStringList{"link VANTROSIGN://activate"}
            << protocol;
        QTest::newRow("blanks around link")
            << QByteArray("  \tvantrosign:x  \n\n") << QStringList{"link vantrosign:x"} << protocol;
        QTest::newRow("garbage text only shows")
            << QByteArray("rm -rf / ; https://evil.example\n") << QStringList{"show"} << show;
        QTest::newRow("other scheme only shows")
            << QByteArray("file:///etc/passwd") << QStringList{"show"} << show;
        QTest::newRow("blanks do nothing") << QByteArray("  \n\t \n") << QStringList{} << QString();
        QTest::newRow("empty does nothing") << QByteArray() << QStringList{} << QString();
        QTest::newRow("oversized is discarded") << QByteArray(200 * 1024, 'a') << QStringList{}
                                                << "handoff discarded oversized command";
    }
    void receivesCommand()
    {
        QFETCH(QByteArray, content);
        QFETCH(QStringList, events);
        QFETCH(QString, logged);
        writeCommand(QStringLiteral("command-20240305070809012-9.txt"), content);

        Recorder recorder;
        receiveHandoff(recorder.actions());
        QCOMPARE(recorder.events, events);
        QVERIFY(entries().isEmpty());
        QCOMPARE(log().count(QLatin1String(" handoff ")), logged.isEmpty() ? 0 : 1);
        if (!logged.isEmpty())
            QVERIFY(log().contains(QLatin1Char(' ') + logged + QLatin1Char('\n')));
    }

    void ageDecidesBetweenReadAndDiscard_data()
    {
        QTest::addColumn<int>("ageSeconds");
        QTest::addColumn<bool>("read");
        QTest::newRow("just written") << 0 << true;
        QTest::newRow("300 s") << 300 << true;
        QTest::newRow("301 s") << 301 << false;
        QTest::newRow("ten minutes") << 600 << false;
    }
    void ageDecidesBetweenReadAndDiscard()
    {
        QFETCH(int, ageSeconds);
        QFETCH(bool, read);
        const QString path = writeCommand(QStringLiteral("command-1-1.txt"), "show\n");
        const QDateTime modified = QDateTime::currentDateTimeUtc().addSecs(-ageSeconds);
        {
            QFile file(path);
            QVERIFY(file.open(QIODevice::ReadWrite));
            QVERIFY(file.setFileTime(modified, QFileDevice::FileModificationTime));
        }
        Recorder recorder;
        // `now` pinned to the stamp plus the age, so the boundary rows do not race the clock.
        receiveHandoff(
            m_dir, recorder.actions(),
            QFileInfo(path).fileTime(QFileDevice::FileModificationTime).addSecs(ageSeconds));
        QCOMPARE(recorder.events, read ? QStringList{"show"} : QStringList{});
        QVERIFY(entries().isEmpty());
    }

    void processesInNameOrder()
    {
        writeCommand(QStringLiteral("command-20240305070809013-1.txt"), "vantrosign:second");
        writeCommand(QStringLiteral("command-20240305070809012-2.txt"), "vantrosign:first");
        writeCommand(QStringLiteral("command-20240305070809014-1.txt"), "show");
        Recorder recorder;
        receiveHandoff(m_dir, recorder.actions());
        QCOMPARE(recorder.events,
                 (QStringList{"link vantrosign:first", "link vantrosign:second", "show"}));
    }

    void ignoresWhatIsNotACommandFile()
    {
        writeCommand(QStringLiteral("notes.txt"), "show");
        writeCommand(QStringLiteral("command-1-1.txt.tmp"), "show");
        QVERIFY(QDir(m_dir).mkdir(QStringLiteral("command-2-2.txt")));
        const QString target = writeCommand(QStringLiteral("target"), "show");
        QVERIFY(QFile::link(target, QDir(m_dir).filePath(QStringLiteral("command-3-3.txt"))));

        Recorder recorder;
        receiveHandoff(m_dir, recorder.actions());
        QVERIFY(recorder.events.isEmpty());
        QCOMPARE(entries().size(), 5);
    }

    void unreadableFreshFileStaysUntilStale()
    {
        QVERIFY(QFile::setPermissions(m_dir, QFileDevice::ReadOwner | QFileDevice::WriteOwner |
                                                 QFileDevice::ExeOwner | QFileDevice::ReadOther |
                                                 QFileDevice::WriteOther | QFileDevice::ExeOther));
        QVERIFY(QFile::setPermissions(m_tmp.path(),
                                      QFile::permissions(m_tmp.path()) | QFileDevice::ExeOther));
        const QString path = writeCommand(QStringLiteral("command-1-1.txt"), "show\n");
        QVERIFY(QFile::setPermissions(path, QFileDevice::Permissions()));

        Recorder recorder;
        {
            AsNobody nobody;
            QVERIFY(nobody.ok());
            receiveHandoff(m_dir, recorder.actions());
            QVERIFY(recorder.events.isEmpty());
            QVERIFY(QFileInfo::exists(path));

            const QDateTime later = QDateTime::currentDateTimeUtc().addSecs(400);
            receiveHandoff(m_dir, recorder.actions(), later);
        }
        QVERIFY(recorder.events.isEmpty());
        QVERIFY(!QFileInfo::exists(path));
    }
};

QTEST_GUILESS_MAIN(HandoffTest)
#include "tst_handoff.moc"
