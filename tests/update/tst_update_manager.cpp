// The update flow against a loopback stand-in with installers signed for real: every state and
// message from check to ready, the download rules, cancel, restart, and the install.
#include "support/ServiceStandIn.h"
#include "update/SignedInstallers.h"

#include "app/FileHash.h"
#include "update/UpdateManager.h"

#include <QCryptographicHash>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSignalSpy>
#include <QTest>

#include <memory>

using namespace vantro;
using namespace vantro::test;
using namespace vantro::testing;

namespace {

const QString kVersion = QStringLiteral("9.1.0");
const QString kInstallerName = QStringLiteral("VantroSignNextSetup-9.1.0.exe");
const QString kRulesBroken =
    QStringLiteral("Naujinimo atsisiuntimas pažeidė leistino dydžio arba HTTPS kilmės taisyklę.");
const QString kUntrusted =
    QStringLiteral("Naujinimo skaitmeninis parašas nepatikimas. Diegimas sustabdytas.");

struct RecordingShell : UpdateShell
{
    bool confirmInstall(const QString& title, const QString& text) override
    {
        questions << title + '|' + text;
        return answer;
    }
    void quitApplication() override { ++quits; }
    bool answer = false;
    QStringList questions;
    int quits = 0;
};

QString stateOf(const QVariant& status)
{
    return variantMember(status, "state").toString();
}

} // namespace

class TestUpdateManager : public QObject
{
    Q_OBJECT

    SignedInstallers m_installers;
    ServiceStandIn m_service;
    std::unique_ptr<QTemporaryDir> m_dir;
    RecordingShell m_shell;

    std::unique_ptr<UpdateManager> manager()
    {
        auto updates = std::make_unique<UpdateManager>(m_dir->path());
        updates->setShell(&m_shell);
        updates->setTrustStore(m_installers.trustStore());
        return updates;
    }

    QJsonObject manifest(const QByteArray& installer)
    {
        return SignedInstallers::manifestFor(m_service.origin(), kVersion, installer);
    }

    // The feed announces `installer`; its address answers `served`.
    void publish(const QByteArray& installer, const QByteArray& served)
    {
        m_service.script("GET", "/latest.json",
                         ScriptedReply(200, QJsonDocument(manifest(installer)).toJson()));
        m_service.script("GET", "/" + kInstallerName,
                         ScriptedReply(200, served, "application/octet-stream"));
    }

    // Drives the manager until a state in `until`; answers every state it passed through.
    static QStringList runUntil(UpdateManager& updates, const QStringList& until)
    {
        QSignalSpy spy(&updates, &UpdateManager::statusChanged);
        QStringList states;
        QDeadlineTimer deadline(60000);
        while (!deadline.hasExpired()) {
            while (!spy.isEmpty()) {
                const QString state = stateOf(spy.takeFirst().at(0));
                if (states.isEmpty() || states.last() != state)
                    states << state;
                if (until.contains(state))
                    return states;
            }
            spy.wait(int(qMax<qint64>(1, deadline.remainingTime())));
        }
        return states << "timeout";
    }

private Q_SLOTS:
    void initTestCase()
    {
        const QString failure = m_installers.generate();
        QVERIFY2(failure.isEmpty(), qPrintable(failure));
        QVERIFY(m_service.listen());
        qputenv("VANTRO_SIGN_ALLOW_LOCAL_UPDATE_FEED", "1");
        qputenv("VANTRO_SIGN_UPDATE_FEED_URL", (m_service.origin() + "/latest.json").toUtf8());
    }
    void init()
    {
        m_dir = std::make_unique<QTemporaryDir>();
        m_shell = RecordingShell();
    }

    void checks_data()
    {
        QTest::addColumn<int>("status");
        QTest::addColumn<QByteArray>("feed");
        QTest::addColumn<QString>("state");
        QTest::addColumn<QString>("message"); // a prefix
        QJsonObject older = manifest("x");
        older.insert("version", "0.0.1");
        older.insert("installerFileName", "VantroSignNextSetup-0.0.1.exe");
        older.insert("installerUrl", m_service.origin() + "/VantroSignNextSetup-0.0.1.exe");
        QJsonObject stranger = manifest("x");
        stranger.insert("publisher", "Somebody Else");
        QTest::newRow("feed missing") << 404 << QByteArray("{}") << "check_failed"
                                      << "Nepavyko patikrinti naujinimų: ";
        QTest::newRow("untrusted publisher")
            << 200 << QJsonDocument(stranger).toJson() << "check_failed"
            << "Naujinimo manifestas atmestas: Update publisher is not trusted.";
        QTest::newRow("feed far too long")
            << 200 << QByteArray(200000, ' ') << "check_failed"
            << "Naujinimo manifestas atmestas: Update manifest size is invalid.";
        QTest::newRow("not newer") << 200 << QJsonDocument(older).toJson() << "current"
                                   << "Naudojate naujausią Vantro Sign versiją.";
        QTest::newRow("newer") << 200 << QJsonDocument(manifest("x")).toJson() << "available"
                               << "Prieinamas Vantro Sign 9.1.0 naujinimas.";
    }
    void checks()
    {
        QFETCH(int, status);
        QFETCH(QByteArray, feed);
        QFETCH(QString, state);
        QFETCH(QString, message);
        m_service.script("GET", "/latest.json", ScriptedReply(status, feed));
        const auto updates = manager();
        updates->checkForUpdates(false);
        QCOMPARE(updates->status().value("message"), "Tikrinama, ar yra naujesnė versija.");
        QCOMPARE(updates->action(), "");
        QCOMPARE(runUntil(*updates, {state}), QStringList({state}));
        const QString text = updates->status().value("message").toString();
        QVERIFY2(text.startsWith(message), qPrintable(text));
        const QString agent = m_service.requests.last().header("user-agent");
        QCOMPARE(agent, "VantroSignNext/" + QString(config::kApplicationVersion));
    }

    void downloads_data()
    {
        QTest::addColumn<int>("kind");
        QTest::addColumn<int>("served"); // bytes more (+) or fewer (-) than announced; 99: none
        QTest::addColumn<QString>("redirect");
        QTest::addColumn<QString>("state");
        QTest::addColumn<QString>("message"); // a prefix
        const QString ready = "Vantro Sign 9.1.0 naujinimas paruoštas diegti.";
        QTest::newRow("valid") << int(SignedInstallers::Valid) << 0 << ""
                               << "ready" << ready;
        QTest::newRow("redirect within the origin") << int(SignedInstallers::Valid) << 0 << "same"
                                                    << "ready" << ready;
        QTest::newRow("redirect to another origin") << int(SignedInstallers::Valid) << 0 << "other"
                                                    << "download_failed" << kRulesBroken;
        QTest::newRow("wrong signer") << int(SignedInstallers::WrongSigner) << 0 << ""
                                      << "verify_failed" << kUntrusted;
        QTest::newRow("not timestamped") << int(SignedInstallers::Untimestamped) << 0 << ""
                                         << "verify_failed" << kUntrusted;
        QTest::newRow("timestamp from an untrusted authority")
            << int(SignedInstallers::ForeignTimestamp) << 0 << ""
            << "verify_failed" << kUntrusted;
        QTest::newRow("tampered after signing") << int(SignedInstallers::Tampered) << 0 << ""
                                                << "verify_failed" << kUntrusted;
        QTest::newRow("unsigned") << int(SignedInstallers::Unsigned) << 0 << ""
                                  << "verify_failed" << kUntrusted;
        QTest::newRow("other digest") << int(SignedInstallers::Valid) << 99 << ""
                                      << "verify_failed"
                                      << "Naujinimo SHA-512 kontrolinė suma neteisinga.";
        QTest::newRow("one byte too many") << int(SignedInstallers::Valid) << 1 << ""
                                           << "download_failed" << kRulesBroken;
        QTest::newRow("one byte short") << int(SignedInstallers::Valid) << -1 << ""
                                        << "download_failed"
                                        << "Atsisiųsto naujinimo dydis neatitinka manifesto.";
    }
    void downloads()
    {
        QFETCH(int, kind);
        QFETCH(int, served);
        QFETCH(QString, redirect);
        QFETCH(QString, state);
        QFETCH(QString, message);
        const QByteArray installer = m_installers.bytes(SignedInstallers::Kind(kind));
        QVERIFY(!installer.isEmpty());
        QByteArray body = installer;
        if (served == 99)
            body[body.size() / 2] = char(body.at(body.size() / 2) ^ 1);
        else if (served > 0)
            body += QByteArray(served, 'x');
        else if (served < 0)
            body.chop(-served);
        publish(installer, body);
        ServiceStandIn other;
        if (!redirect.isEmpty()) {
            QVERIFY(other.listen());
            other.script("GET", "/" + kInstallerName, ScriptedReply(200, body, "application/x"));
            const QString to = redirect == "same" ? m_service.origin() + "/moved/" + kInstallerName
                                                  : other.origin() + "/" + kInstallerName;
            m_service.script("GET", "/" + kInstallerName,
                             ScriptedReply(302, {}, "text/plain", {{"Location", to.toUtf8()}}));
            m_service.script("GET", "/moved/" + kInstallerName,
                             ScriptedReply(200, body, "application/x"));
        }
        const auto updates = manager();
        updates->checkForUpdates(false);
        QCOMPARE(runUntil(*updates, {"available"}).last(), "available");
        QCOMPARE(updates->status().value("progress"), 0);
        updates->startUpdate();
        const QStringList passed = runUntil(*updates, {state});
        QCOMPARE(passed.last(), state);
        const QString text = updates->status().value("message").toString();
        QVERIFY2(text.startsWith(message), qPrintable(text));
        const bool ready = state == "ready";
        QCOMPARE(QFile::exists(m_dir->filePath("ready.json")), ready);
        QCOMPARE(updates->status().value("downloadedPathAvailable"), ready);
        QCOMPARE(updates->action(), ready ? "install" : "download");
        if (ready) {
            QCOMPARE(passed, QStringList({"downloading", "verifying", "ready"}));
            QCOMPARE(updates->status().value("progress"), 100);
            QCOMPARE(sha512File(m_dir->filePath(kInstallerName)),
                     QCryptographicHash::hash(installer, QCryptographicHash::Sha512));
            QCOMPARE(m_shell.questions.size(), 0); // not an interactive check
        }
        QVERIFY(!QFile::exists(m_dir->filePath(kInstallerName + ".part")) || !ready);
    }

    // A cancel on the first progress report; the next download starts again from byte 0.
    void cancelAndStartAgain()
    {
        QByteArray big(48 * 1024 * 1024, 'b');
        publish(big, big);
        const auto updates = manager();
        updates->checkForUpdates(false);
        QCOMPARE(runUntil(*updates, {"available"}).last(), "available");
        QList<int> progress;
        bool cancelled = false;
        connect(updates.get(), &UpdateManager::statusChanged, this, [&](const OrderedObject& s) {
            if (s.value("state") != "downloading")
                return;
            progress << s.value("progress").toInt();
            if (!cancelled && progress.last() > 0 && progress.last() < 100) {
                cancelled = true;
                updates->cancelUpdate();
            }
        });
        updates->startUpdate();
        QCOMPARE(runUntil(*updates, {"available"}).last(), "available");
        QCOMPARE(updates->status().value("message"),
                 "Naujinimo atsisiuntimas atšauktas. Galite tęsti vėliau.");
        QCOMPARE(updates->action(), "download");
        QVERIFY(progress.last() < 100);
        progress.clear();
        updates->startUpdate();
        // Not a signed installer: it is downloaded whole and then refused.
        QCOMPARE(runUntil(*updates, {"verify_failed"}).last(), "verify_failed");
        QCOMPARE(progress.first(), 0);
        QCOMPARE(progress.last(), 100);
        QCOMPARE(QFileInfo(m_dir->filePath(kInstallerName)).size(), big.size());
    }

    void keptAcrossRestartAndInstalled()
    {
        const QByteArray installer = m_installers.bytes(SignedInstallers::Valid);
        publish(installer, installer);
        {
            const auto first = manager();
            first->checkForUpdates(true);
            QCOMPARE(runUntil(*first, {"available"}).last(), "available");
            first->startUpdate();
            QCOMPARE(runUntil(*first, {"ready"}).last(), "ready");
            // Interactive: asked at once; declined.
            QCOMPARE(m_shell.questions.size(), 1);
            QCOMPARE(first->status().value("message"),
                     "Naujinimas lieka paruoštas. Galite jį įdiegti vėliau.");
        }
        for (const char* stale :
             {"VantroSignNextSetup-8.0.0.exe", "VantroSignNextSetup-9.1.0.exe.part"})
            QVERIFY(QFile(m_dir->filePath(stale)).open(QIODevice::WriteOnly));
        const auto second = manager();
        second->restoreReady();
        QCOMPARE(second->state(), "ready");
        QCOMPARE(second->status().value("message"), "Naujinimas paruoštas diegti.");
        QCOMPARE(QDir(m_dir->path()).entryList(QDir::Files),
                 QStringList({"ready.json", "VantroSignNextSetup-9.1.0.exe"}));

        // The installer is swapped for a stand-in program that records that it ran.
        const QString installerPath = m_dir->filePath(kInstallerName);
        const QString marker = m_dir->filePath("installer-ran");
        QFile::remove(installerPath);
        QFile script(installerPath);
        QVERIFY(script.open(QIODevice::WriteOnly));
        script.write(QStringLiteral("#!/bin/sh\npwd > '%1'\n").arg(marker).toUtf8());
        script.close();
        m_shell.answer = true;
        script.setPermissions(QFile::ReadOwner);
        second->applyUpdate();
        QCOMPARE(second->state(), "install_failed");
        QCOMPARE(second->status().value("message"),
                 "Nepavyko paleisti naujinimo diegimo programos.");
        QCOMPARE(m_shell.quits, 0);
        script.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        second->applyUpdate();
        QCOMPARE(m_shell.quits, 1);
        QTRY_VERIFY(QFile::exists(marker));
        QFile ran(marker);
        QVERIFY(ran.open(QIODevice::ReadOnly));
        QCOMPARE(QString(ran.readAll()).trimmed(), QDir(m_dir->path()).canonicalPath());
        const QString question = m_shell.questions.last();
        QCOMPARE(question, "Įdiegti Vantro Sign naujinimą|Vantro Sign 9.1.0 naujinimas atsisiųstas "
                           "ir patikrintas.\n\nDabar paleisti diegimą? Windows parodys "
                           "administratoriaus (UAC) patvirtinimą.");

        QVERIFY(QFile::remove(installerPath));
        second->applyUpdate();
        QCOMPARE(second->state(), "download_failed");
        QCOMPARE(second->status().value("message"), "Naujinimo failą reikia atsisiųsti dar kartą.");
    }
};

QTEST_GUILESS_MAIN(TestUpdateManager)
#include "tst_update_manager.moc"
