// The update manifest rules in their order, version syntax and ordering, origins, the feed
// choice and the ready record kept across restarts.
#include "update/UpdateManifest.h"
#include "vantro_config.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QTest>

using namespace vantro;

namespace {

const QString kFeed = QStringLiteral(
    "https://updates.vantro.example/downloads/sign/desktop/win/next/stable/latest.json");
const QString kInstaller =
    QStringLiteral("https://updates.vantro.example/downloads/VantroSignNextSetup-2.1.0.exe");
const QByteArray kDigest(64, '\x5a');

QJsonObject validManifest()
{
    return QJsonObject{{"schemaVersion", 1},
                       {"product", "Vantro Sign Next"},
                       {"version", "2.1.0"},
                       {"buildId", "2.1.0.417-win_x64"},
                       {"installerFileName", "VantroSignNextSetup-2.1.0.exe"},
                       {"installerUrl", kInstaller},
                       {"installerSize", 1048576},
                       {"sha512", QString(kDigest.toBase64())},
                       {"publisher", QString::fromUtf8(config::kPublisherName)}};
}

QByteArray with(const QJsonObject& changes)
{
    QJsonObject manifest = validManifest();
    for (auto it = changes.begin(); it != changes.end(); ++it)
        manifest.insert(it.key(), it.value());
    return QJsonDocument(manifest).toJson(QJsonDocument::Compact);
}

// The valid manifest padded with spaces to exactly `size` bytes.
QByteArray paddedTo(qsizetype size)
{
    QByteArray body = with({});
    body.insert(1, QByteArray(size - body.size(), ' '));
    return body;
}

QString installerAt(const QString& origin, const QString& version = "2.1.0")
{
    return origin + "/VantroSignNextSetup-" + version + ".exe";
}

} // namespace

class TestUpdateManifest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // The test environment points automatic checks at a closed loopback port; the rules here
    // are about the built-in feed.
    void init()
    {
        qunsetenv("VANTRO_SIGN_UPDATE_FEED_URL");
        qunsetenv("VANTRO_SIGN_ALLOW_LOCAL_UPDATE_FEED");
    }

    void rules_data()
    {
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<QString>("feed");
        QTest::addColumn<QString>("installed");
        QTest::addColumn<bool>("allowLocal");
        QTest::addColumn<QString>("error"); // empty: valid
        const QString size = "Update manifest size is invalid.";
        const QString json = "Update manifest is not valid JSON.";
        const QString product = "Update manifest product or schema is invalid.";
        const QString stable = "Update version must be a stable semantic version.";
        const QString build = "Update build identity is invalid.";
        const QString digest = "Update SHA-512 digest is invalid.";
        const QString bytes = "Update installer size is invalid.";
        const QString url = "Update installer URL is invalid.";
        const QString name = "Update installer filename is invalid.";
        const QString origin = "Update installer origin is not trusted.";
        const auto row = [&](const char* title, const QByteArray& body, const QString& error,
                             const QString& feed = kFeed, const QString& installed = "0.2.5",
                             bool allowLocal = false) {
            QTest::newRow(title) << body << feed << installed << allowLocal << error;
        };
        row("valid", with({}), "");
        row("exactly 65536 bytes", paddedTo(65536), "");
        row("65537 bytes", paddedTo(65537), size);
        row("empty", QByteArray(), size);
        row("not JSON", "{version", json);
        row("an array", "[1]", json);
        row("schema 2", with({{"schemaVersion", 2}}), product);
        row("schema null", with({{"schemaVersion", QJsonValue()}}), product);
        row("schema 1.5", with({{"schemaVersion", 1.5}}), product);
        row("other product", with({{"product", "Vantro Sign"}}), product);
        row("product with spaces", with({{"product", " Vantro Sign Next"}}), product);
        // The version comes before every later rule.
        row("build metadata", with({{"version", "2.1.0+build.7"}}), name);
        row("pre-release", with({{"version", "2.1.0-rc.1"}}), stable);
        row("leading zero", with({{"version", "02.1.0"}}), stable);
        row("two parts", with({{"version", "2.1"}}), stable);
        row("version trimmed", with({{"version", " 2.1.0 "}}), "");
        row("installed version broken", with({}), "Installed application version is invalid.",
            kFeed, "two");
        row("build id with a space", with({{"buildId", "2.1 x"}}), build);
        row("build id of 129", with({{"buildId", QString(129, 'a')}}), build);
        row("build id of 128", with({{"buildId", QString(128, 'a')}}), "");
        row("publisher in capitals",
            with({{"publisher", QString::fromUtf8(config::kPublisherName).toUpper()}}),
            "Update publisher is not trusted.");
        row("digest as 128 hex digits", with({{"sha512", QString(kDigest.toHex())}}), digest);
        row("digest of 63 bytes", with({{"sha512", QString(kDigest.left(63).toBase64())}}), digest);
        row("digest with a bad character",
            with({{"sha512", "*" + QString(kDigest.toBase64()).mid(1)}}), digest);
        row("size 512 MiB", with({{"installerSize", 536870912}}), "");
        row("size 512 MiB + 1", with({{"installerSize", 536870913}}), bytes);
        row("size 0", with({{"installerSize", 0}}), bytes);
        row("size negative", with({{"installerSize", -5}}), bytes);
        row("size huge", with({{"installerSize", 1e300}}), bytes);
        row("size as a string", with({{"installerSize", "1048576"}}), bytes);
        row("URL with a query", with({{"installerUrl", kInstaller + "?a=1"}}), url);
        row("URL with a fragment", with({{"installerUrl", kInstaller + "#x"}}), url);
        row("URL with a user",
            with({{"installerUrl",
                   "https://me@updates.vantro.example/VantroSignNextSetup-2.1.0.exe"}}),
            url);
        row("URL not parsable", with({{"installerUrl", "https://updates.vantro.example:99999/x"}}),
            url);
        row("file name of another version",
            with({{"installerFileName", "VantroSignNextSetup-2.0.0.exe"}}), name);
        row("file name in a folder",
            with({{"installerFileName", "a/VantroSignNextSetup-2.1.0.exe"}}), name);
        row("URL names another file",
            with({{"installerUrl", "https://updates.vantro.example/Setup.exe"}}), name);
        row("explicit port 443 is the same origin",
            with({{"installerUrl", installerAt("https://updates.vantro.example:443")}}), "");
        row("port 8443 is another origin",
            with({{"installerUrl", installerAt("https://updates.vantro.example:8443")}}), origin);
        row("other host", with({{"installerUrl", installerAt("https://cdn.vantro.example")}}),
            origin);
        row("installer over http",
            with({{"installerUrl", installerAt("http://updates.vantro.example")}}), origin);
        const QString local = "http://127.0.0.1:8000/latest.json";
        const QByteArray localInstaller =
            with({{"installerUrl", installerAt("http://127.0.0.1:8000")}});
        row("local feed allowed", localInstaller, "", local, "0.2.5", true);
        row("local feed not allowed", localInstaller, origin, local, "0.2.5", false);
        row("localhost feed, other port",
            with({{"installerUrl", installerAt("http://localhost:8001")}}), origin,
            "http://localhost:8000/latest.json", "0.2.5", true);
    }
    void rules()
    {
        QFETCH(QByteArray, body);
        QFETCH(QString, feed);
        QFETCH(QString, installed);
        QFETCH(bool, allowLocal);
        QFETCH(QString, error);
        const UpdateManifest manifest = validateManifest(body, QUrl(feed), installed, allowLocal);
        QCOMPARE(manifest.error, error);
        QCOMPARE(manifest.valid, error.isEmpty());
        if (manifest.valid) {
            QCOMPARE(manifest.sha512, kDigest);
            QCOMPARE(manifest.version, "2.1.0");
            QVERIFY(manifest.newer);
        }
    }

    void newer_data()
    {
        QTest::addColumn<QString>("installed");
        QTest::addColumn<bool>("newer");
        QTest::newRow("beta of the same version") << "2.1.0-beta" << true;
        QTest::newRow("the same version") << "2.1.0" << false;
        QTest::newRow("a later version") << "2.10.0" << false;
        QTest::newRow("an earlier patch") << "2.0.9" << true;
    }
    void newer()
    {
        QFETCH(QString, installed);
        QFETCH(bool, newer);
        const UpdateManifest manifest = validateManifest(with({}), QUrl(kFeed), installed, false);
        QVERIFY(manifest.valid);
        QCOMPARE(manifest.newer, newer);
    }

    void ordering()
    {
        const QStringList ascending{"1.0.0-alpha", "1.0.0-alpha.1", "1.0.0-alpha.beta",
                                    "1.0.0-beta",  "1.0.0-beta.2",  "1.0.0-beta.11",
                                    "1.0.0-rc.1",  "1.0.0",         "1.0.1",
                                    "1.2.0",       "1.10.0",        "10.0.0"};
        for (qsizetype i = 0; i < ascending.size(); ++i) {
            for (qsizetype j = 0; j < ascending.size(); ++j) {
                const auto a = parseSemanticVersion(ascending.at(i));
                const auto b = parseSemanticVersion(ascending.at(j));
                QVERIFY(a && b);
                QCOMPARE(compareSemanticVersions(*a, *b), i < j ? -1 : (i > j ? 1 : 0));
            }
        }
        QVERIFY(!parseSemanticVersion("1.0.0-"));
        QVERIFY(!parseSemanticVersion("18446744073709551616.0.0"));
        QCOMPARE(compareSemanticVersions(*parseSemanticVersion("1.0.0+a"),
                                         *parseSemanticVersion("1.0.0+b")),
                 0);
    }

    void origins_data()
    {
        QTest::addColumn<QString>("url");
        QTest::addColumn<QString>("origin");
        QTest::newRow("default https port") << "HTTPS://Example.COM:443/x"
                                            << "https://example.com";
        QTest::newRow("default http port") << "http://example.com:80/"
                                           << "http://example.com";
        QTest::newRow("other port") << "https://example.com:8443/"
                                    << "https://example.com:8443";
        QTest::newRow("no host") << "file:///tmp/x"
                                 << "";
        QTest::newRow("relative") << "x/y"
                                  << "";
    }
    void origins()
    {
        QFETCH(QString, url);
        QFETCH(QString, origin);
        QCOMPARE(urlOrigin(QUrl(url)), origin);
    }

    void feed_data()
    {
        QTest::addColumn<QByteArray>("configured");
        QTest::addColumn<QByteArray>("flag");
        QTest::addColumn<QString>("feed");
        const QString builtIn =
            QString(config::kUpdateOrigin) + "/downloads/sign/desktop/win/next/stable/latest.json";
        const QByteArray local = " http://127.0.0.1:8000/latest.json ";
        QTest::newRow("nothing set") << QByteArray() << QByteArray() << builtIn;
        QTest::newRow("flag off") << local << QByteArray("0") << builtIn;
        QTest::newRow("flag on") << local << QByteArray(" Yes ")
                                 << "http://127.0.0.1:8000/latest.json";
        QTest::newRow("not a URL") << QByteArray("http://[::1") << QByteArray("on") << builtIn;
    }
    void feed()
    {
        QFETCH(QByteArray, configured);
        QFETCH(QByteArray, flag);
        QFETCH(QString, feed);
        qputenv("VANTRO_SIGN_UPDATE_FEED_URL", configured);
        qputenv("VANTRO_SIGN_ALLOW_LOCAL_UPDATE_FEED", flag);
        QCOMPARE(updateFeedUrl().toString(), feed);
        qunsetenv("VANTRO_SIGN_UPDATE_FEED_URL");
        qunsetenv("VANTRO_SIGN_ALLOW_LOCAL_UPDATE_FEED");
    }

    void readyRecord_data()
    {
        QTest::addColumn<QByteArray>("recorded");   // empty: the manifest as written
        QTest::addColumn<qint64>("installerBytes"); // -1: no installer file
        QTest::addColumn<QString>("installed");
        QTest::addColumn<bool>("kept");
        QTest::newRow("kept") << QByteArray() << qint64(1048576) << "0.2.5" << true;
        QTest::newRow("installer gone") << QByteArray() << qint64(-1) << "0.2.5" << false;
        QTest::newRow("installer a byte short")
            << QByteArray() << qint64(1048575) << "0.2.5" << false;
        QTest::newRow("no longer newer") << QByteArray() << qint64(1048576) << "2.1.0" << false;
        QTest::newRow("other size")
            << with({{"installerSize", 1048575}}) << qint64(1048576) << "0.2.5" << false;
        QTest::newRow("other digest") << with({{"sha512", QString(QByteArray(63, 'x').toBase64())}})
                                      << qint64(1048576) << "0.2.5" << false;
        QTest::newRow("other file name")
            << with({{"installerFileName", "VantroSignNextSetup-2.2.0.exe"}}) << qint64(1048576)
            << "0.2.5" << false;
        QTest::newRow("not JSON") << QByteArray("{") << qint64(1048576) << "0.2.5" << false;
    }
    void readyRecord()
    {
        QFETCH(QByteArray, recorded);
        QFETCH(qint64, installerBytes);
        QFETCH(QString, installed);
        QFETCH(bool, kept);
        QTemporaryDir dir;
        const UpdateManifest manifest = validateManifest(with({}), QUrl(kFeed), "0.2.5", false);
        QVERIFY(writeReadyRecord(dir.path(), manifest));
        const QString record = dir.filePath("ready.json");
        QFile file(record);
        QVERIFY(file.open(QIODevice::ReadOnly));
        QCOMPARE(file.readAll(), manifestJson(manifest));
        file.close();
        if (!recorded.isEmpty()) {
            QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
            file.write(recorded);
            file.close();
        }
        if (installerBytes >= 0) {
            QFile installer(dir.filePath(manifest.installerFileName));
            QVERIFY(installer.open(QIODevice::WriteOnly) && installer.resize(installerBytes));
        }
        const UpdateManifest read = readReadyRecord(dir.path(), installed);
        QCOMPARE(read.valid, kept);
        QCOMPARE(QFile::exists(record), kept);
        if (kept) {
            QCOMPARE(read.sha512, manifest.sha512);
            QCOMPARE(read.installerUrl, manifest.installerUrl);
        }
    }
};

QTEST_GUILESS_MAIN(TestUpdateManifest)
#include "tst_update_manifest.moc"
