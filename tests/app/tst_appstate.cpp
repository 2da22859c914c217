// device.json: tolerant reading, whole-file saves with notification, the status object and
// the device secret's stored forms.
#include "app/AppState.h"
#include "platform/SecretStore.h"

#include <QJsonDocument>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>

using namespace vantro;

namespace {

// Stands in for DPAPI or a keyring: stores "fake:<secret>" and counts what reaches it.
struct FakeSecretStore : platform::SecretStore
{
    bool available = true; // false: protection fails, as without a keyring
    int unprotects = 0;
    QStringList discarded;

    QString protect(const QString& secret) override { return available ? "fake:" + secret : ""; }
    QString unprotect(const QString& stored) override
    {
        ++unprotects;
        return stored.mid(5);
    }
    void discard(const QString& stored) override { discarded << stored; }
};

// JSON written with single quotes, so that rows stay readable without escaped quotes.
QByteArray j(QByteArray text)
{
    return text.replace('\'', '"');
}

QByteArray plain(const QByteArray& secret)
{
    return "plain:" + secret.toBase64();
}

// One JSON value as compact text, so rows can state expectations of any type.
QByteArray jsonText(const QJsonValue& value)
{
    return QJsonDocument(QJsonArray{value}).toJson(QJsonDocument::Compact).chopped(1).mid(1);
}

// A getter's result by name, "signerProfile.email" reaching one level into an object.
QByteArray read(const AppState& s, const QString& name)
{
    const QJsonObject all{
        {"deviceId", s.deviceId()},       {"deviceSecret", s.deviceSecret()},
        {"workspaceId", s.workspaceId()}, {"appUrl", s.appUrl()},
        {"license", s.license()},         {"signerProfile", s.signerProfile()},
        {"localRoot", s.localRoot()},     {"theme", s.theme()},
        {"isActivated", s.isActivated()}, {"localDeleteSettings", s.localDeleteSettings()}};
    const QStringList path = name.split('.');
    const QJsonValue value = all.value(path.first());
    return jsonText(path.size() > 1 ? value.toObject().value(path.at(1)) : value);
}

void row(const char* name, const QByteArray& file, const QByteArray& field,
         const QByteArray& expected)
{
    QTest::newRow(name) << j(file) << QString::fromLatin1(field) << j(expected);
}

// A row about one key of a stored object, e.g. "localDeleteSettings.deletedFolderName".
void in(const char* name, const QByteArray& field, const QByteArray& stored,
        const QByteArray& expected)
{
    const QList<QByteArray> path = field.split('.');
    row(name, "{'" + path[0] + "':{'" + path[1] + "':" + stored + "}}", field, expected);
}

} // namespace

class AppStateTest : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    QString m_path;

    void writeFile(const QByteArray& content)
    {
        QFile file(m_path);
        QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        QCOMPARE(file.write(content), content.size());
    }
    QByteArray readFile()
    {
        QFile file(m_path);
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }
    QJsonObject saved() { return QJsonDocument::fromJson(readFile()).object(); }

private Q_SLOTS:
    void init()
    {
        QVERIFY(m_dir.isValid());
        m_path = m_dir.filePath("device.json");
        QDir(m_path).removeRecursively();
        QFile::remove(m_path);
        qunsetenv("DBUS_SESSION_BUS_ADDRESS"); // no keyring: secrets take the plain form
    }

    void normalisation_data()
    {
        QTest::addColumn<QByteArray>("file");
        QTest::addColumn<QString>("field");
        QTest::addColumn<QByteArray>("expected");
        const QByteArray docs = "'/sign/app/documents/'",
                         identity = "'deviceId':'D','workspaceId':'W',";
        const QByteArray vp = "signerProfile.visual_position",
                         folder = "localDeleteSettings.deletedFolderName";
        const QByteArray action = "localDeleteSettings.deletedFileAction";
        const auto secret = [](const char* name, const QByteArray& stored, const char* expected) {
            row(name, "{'deviceSecretProtected':'" + stored + "'}", "deviceSecret", expected);
        };
        const auto activated = [](const char* name, const QByteArray& keys, const char* expected) {
            row(name, "{" + keys + "}", "isActivated", expected);
        };
        row("appUrl absent", "{}", "appUrl", docs);
        row("appUrl kept", "{'appUrl':'https://h/x/'}", "appUrl", "'https://h/x/'");
        row("'[]' file keeps defaults", "[]", "appUrl", docs);
        row("theme dark", "{'theme':'dark'}", "theme", "'dark'");
        row("theme Dark reads light", "{'theme':'Dark'}", "theme", "'light'");
        row("license not an object", "{'license':'pro'}", "license", "{}");
        row("local root trimmed", "{'localRoot':' /data/Docs '}", "localRoot", "'/data/Docs'");
        row("local root blank", "{'localRoot':' '}", "localRoot",
            jsonText(QDir::homePath() + "/Documents/Vantro Sign"));
        in("profile unknown keys kept", "signerProfile.extra", "{'a':1}", "{'a':1}");
        in("visual_position center", vp, "'center'", "'top_left'");
        in("visual_position upper case", vp, "'TOP_RIGHT'", "'top_left'");
        in("visual_positions not an array", vp + "s", "'x'", "[]");
        in("visual_positions kept", vp + "s", "['x']", "['x']");
        row("delete settings not an object", "{'localDeleteSettings':[1]}", "localDeleteSettings",
            "{'deletedFileAction':'move_to_deleted_folder','deletedFolderName':'Istrinta',"
            "'groupDeletedByMonth':true}");
        row("delete settings: unknown keys dropped, valid kept",
            "{'localDeleteSettings':{'x':1,'deletedFileAction':'keep_local_files',"
            "'deletedFolderName':'Old','groupDeletedByMonth':false}}",
            "localDeleteSettings",
            "{'deletedFileAction':'keep_local_files','deletedFolderName':'Old',"
            "'groupDeletedByMonth':false}");
        in("action delete_permanently", action, "'delete_permanently'", "'delete_permanently'");
        in("action in capitals", action, "'KEEP_LOCAL_FILES'", "'move_to_deleted_folder'");
        in("group by month as string", "localDeleteSettings.groupDeletedByMonth", "'false'",
           "true");
        in("folder '..'", folder, "'..'", "'Istrinta'");
        in("folder 'a/b: c. '", folder, "'a/b: c. '", "'a_b_ c'");
        in("folder: every forbidden character", folder, R"('<>:\"/\\|?*')", "'_________'");
        in("folder: control characters", folder, R"('a\u0001b\u001fc')", "'a_b_c'");
        in("folder: dots and blanks stripped in turn", folder, "' x . . . '", "'x'");
        in("folder: leading dot and letters kept", folder, "'.Ištrinta'", "'.Ištrinta'");
        const QByteArray a90(90, 'a');
        in("folder: cut to 80", folder, "'" + a90 + "'", "'" + a90.left(80) + "'");
        const QByteArray withSecret = "'deviceSecretProtected':'" + plain("s") + "'";
        secret("plain secret", plain("sek"), "'sek'");
        secret("PLAIN prefix is case-sensitive", "PLAIN:c2Vr", "''");
        secret("plain with broken Base64", "plain:@@@", "''");
        secret("unknown secret prefix", "rot13:c2Vr", "''");
        activated("activated", identity + withSecret, "true");
        activated("unknown prefix: not activated", identity + "'deviceSecretProtected':'x:c2Vr'",
                  "false");
        activated("no workspace: not activated", "'deviceId':'D'," + withSecret, "false");
        activated("no device id: not activated", "'workspaceId':'W'," + withSecret, "false");
    }
    void normalisation()
    {
        QFETCH(QByteArray, file);
        QFETCH(QString, field);
        writeFile(file);
        QTEST(read(AppState(m_path), field), "expected");
    }

    // A failed reload keeps what was in memory; a missing file is an empty, valid state.
    void load_data()
    {
        QTest::addColumn<QByteArray>("content"); // "<missing>" and "<folder>" are not contents
        QTest::addColumn<bool>("ok");
        QTest::newRow("missing file") << QByteArray("<missing>") << true;
        QTest::newRow("array") << QByteArray("[]") << false;
        QTest::newRow("truncated object") << j("{'theme':") << false;
        QTest::newRow("unreadable (a folder)") << QByteArray("<folder>") << false;
    }
    void load()
    {
        QFETCH(QByteArray, content);
        QFETCH(bool, ok);
        writeFile(j("{'theme':'dark'}"));
        AppState state(m_path);
        QFile::remove(m_path);
        if (content == "<folder>")
            QVERIFY(QDir().mkpath(m_path));
        else if (content != "<missing>")
            writeFile(content);
        QCOMPARE(state.load(), ok);
        QCOMPARE(state.lastError().isEmpty(), ok);
        QCOMPARE(state.theme(), QLatin1String(ok ? "light" : "dark"));
        const AppState fresh(m_path);
        QCOMPARE(fresh.lastError().isEmpty(), ok);
        QVERIFY(fresh.raw().isEmpty());
        QVERIFY(content != "<missing>" || !QFile::exists(m_path)); // reading creates nothing
    }

    void settersSaveAndNotify()
    {
        writeFile(j("{'future':[1,null],'activation':{'device_id':'D1'},"
                    "'signerProfile':{'email':'a@b.lt','visual_position':'top_right'}}"));
        const QByteArray before = readFile();
        AppState state(m_path);
        QSignalSpy changed(&state, &AppState::changed);
        int expectedSignals = 0;
        // Each successful setter emits once and leaves the value readable from the saved file.
        const auto check = [&](bool ok, const char* field, const QByteArray& expected) {
            QVERIFY(ok);
            QCOMPARE(changed.count(), ++expectedSignals);
            QCOMPARE(read(state, field), j(expected));
            QCOMPARE(read(AppState(m_path), field), j(expected));
        };
        for (const char* rejected : {"center", "TOP_LEFT", "top_left "})
            QVERIFY2(!state.setSignerVisualPosition(rejected), rejected);
        QCOMPARE(changed.count(), 0);
        QCOMPARE(readFile(), before);

        check(state.setTheme("dark"), "theme", "'dark'");
        check(state.setTheme("Dark"), "theme", "'light'");
        check(state.setLocalDeleteSettings({{"deletedFolderName", "a|b"}}),
              "localDeleteSettings.deletedFolderName", "'a_b'");
        check(state.setSignerVisualPosition("bottom_left"), "signerProfile.visual_position",
              "'bottom_left'");
        QCOMPARE(read(state, "signerProfile.visual_position_picked"), "true");
        QCOMPARE(read(state, "signerProfile.visual_positions"),
                 j("['top_left','top_right','bottom_left','bottom_right']"));
        QCOMPARE(read(state, "signerProfile.email"), j("'a@b.lt'"));
        // The activation record carries the profile too and must not contradict it.
        QCOMPARE(saved().value("activation")["signer_profile"], saved().value("signerProfile"));
        QCOMPARE(saved().value("activation")["device_id"], "D1");
        QCOMPARE(jsonText(saved().value("future")), "[1,null]"); // unknown keys written back
        QVERIFY2(readFile().contains("\n    \"future\""), "written as indented JSON");

        const QString root = m_dir.filePath("a/My Docs");
        check(state.setLocalRoot("  " + root + " "), "localRoot", jsonText(root));
        QVERIFY(QFileInfo(root).isDir());
        check(state.setLocalRoot("   "), "localRoot", jsonText(root)); // blank keeps, still saves
        const QString blocked = m_path + "/Vantro Sign";               // under the file device.json
        QVERIFY(!state.setLocalRoot(blocked));
        QCOMPARE(state.lastError(), "Could not create local root: " + blocked);
        QCOMPARE(saved().value("localRoot").toString(), blocked); // saved regardless

        AppState broken(m_path + "/device.json"); // its folder cannot be created
        QSignalSpy brokenChanged(&broken, &AppState::changed);
        QVERIFY(!broken.setTheme("dark"));
        QVERIFY(!broken.lastError().isEmpty());
        QCOMPARE(brokenChanged.count(), 0);
        QCOMPARE(broken.theme(), "dark"); // the in-memory value stays changed
    }

    void status()
    {
        writeFile(j("{'deviceId':'D','workspaceId':'W','deviceSecretProtected':'" + plain("s") +
                    "','theme':'dark','license':{'plan':'x'},'localRoot':'/r'}"));
        AppState state(m_path);
        QCOMPARE(state.status().toJson(),
                 j("{'version':'0.2.5','activated':true,'localRoot':'/r','theme':'dark',"
                   "'license':{'plan':'x'},'signerProfile':{'binding_source':'','bound':false,"
                   "'display_name':'','email':'','entity_profile_bound':false,'phone_bound':false,"
                   "'profile_bound_at':'','qes_certificate_cached':false,"
                   "'visual_position':'top_left','visual_position_picked':false,"
                   "'visual_positions':[]},'helperAvailable':true,'helperBackgroundRunning':false,"
                   "'helperRuntime':'next','helperRuntimeVersion':'','helperRuntimePath':'',"
                   "'usbSignBatchNative':false}"));
        const OrderedObject helper{
            {"usbSignBatchNative", true},    {"helperRuntime", "legacy"},
            {"helperRuntimePath", "/h"},     {"helperAvailable", false},
            {"helperRuntimeVersion", "1.2"}, {"helperBackgroundRunning", true}};
        QVERIFY(state.status(helper).toJson().endsWith(
            j("'helperAvailable':false,'helperBackgroundRunning':true,'helperRuntime':'legacy',"
              "'helperRuntimeVersion':'1.2','helperRuntimePath':'/h','usbSignBatchNative':true}")));
    }

    void secretStorage()
    {
        FakeSecretStore store;
        writeFile(j("{'deviceSecretProtected':'fake:123'}"));
        AppState state(m_path);
        state.setSecretStore(&store);
        QCOMPARE(state.deviceSecret(), "123");
        QCOMPARE(state.deviceSecret(), "123");
        QCOMPARE(store.unprotects, 1); // asked again only when the stored text changes
        writeFile(j("{'deviceSecretProtected':'plain:c2Vr'}"));
        QVERIFY(state.load());
        QCOMPARE(state.deviceSecret(), "sek");
        QCOMPARE(store.unprotects, 1); // the plain form never reaches the platform

        QFile::remove(m_path);
        QVERIFY(state.load());
        QVERIFY(state.setDeviceIdentity("D1", "abc", "W1"));
        QCOMPARE(saved().value("deviceSecretProtected"), "fake:abc");
        QCOMPARE(state.deviceSecret(), "abc");
        QCOMPARE(store.unprotects, 1); // what was just protected is already known
        QVERIFY(state.setDeviceIdentity("D1", "xyz", "W1"));
        QCOMPARE(store.discarded, QStringList{"fake:abc"}); // the replaced entry goes

        store.available = false; // protection fails: the UTF-8 secret is stored in plain form
        const QString utf8 = QStringLiteral("sekretas ąčę 🔑");
        QVERIFY(state.setDeviceIdentity("D1", utf8, "W1", {{"source", "code"}}));
        QCOMPARE(saved().value("deviceSecretProtected").toString(), plain(utf8.toUtf8()));
        QCOMPARE(saved().value("apiBase"), "/sign/api/v1/");
        QCOMPARE(saved().value("activation")["source"], "code");
        AppState reread(m_path);
        reread.setSecretStore(&store);
        QCOMPARE(reread.deviceSecret(), utf8);
        QVERIFY(reread.isActivated());
        QCOMPARE(store.unprotects, 1);
    }
};

QTEST_GUILESS_MAIN(AppStateTest)
#include "tst_appstate.moc"
