// device.json: tolerant reading, whole-file saves with notification and the status object, and
// the order-keeping JSON writer behind the status object.
#include "app/AppState.h"

#include <QJsonDocument>
#include <QTemporaryDir>
#include <QtTest>

using namespace vantro;

class AppStateTest : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    QString m_path;

    // JSON written with single quotes, so that rows stay readable without escaped quotes.
    static QByteArray j(QByteArray text) { return text.replace('\'', '"'); }
    static QByteArray plain(const QByteArray& secret) { return "plain:" + secret.toBase64(); }
    // One JSON value as compact text, so rows can state expectations of any type.
    static QByteArray jsonText(const QJsonValue& value)
    {
        return QJsonDocument(QJsonArray{value}).toJson(QJsonDocument::Compact).chopped(1).mid(1);
    }
    // A getter's result by name, "signerProfile.email" reaching one level into an object.
    static QByteArray read(const AppState& s, const QString& name)
    {
        const QJsonObject all{{"signerProfile", s.signerProfile()},
                              {"theme", s.theme()},
                              {"isActivated", s.isActivated()},
                              {"localDeleteSettings", s.localDeleteSettings()}};
        const QStringList path = name.split('.');
        const QJsonValue value = all.value(path.first());
        return jsonText(path.size() > 1 ? value.toObject().value(path.at(1)) : value);
    }

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
        QFile::remove(m_path);
        qunsetenv("DBUS_SESSION_BUS_ADDRESS"); // no keyring: secrets take the plain form
    }

    void normalisation_data()
    {
        QTest::addColumn<QByteArray>("file");
        QTest::addColumn<QString>("field");
        QTest::addColumn<QByteArray>("expected");
        const auto row = [](const char* name, const QByteArray& file, const char* field,
                            const QByteArray& expected) {
            QTest::newRow(name) << j(file) << QString(field) << j(expected);
        };
        // A file holding only `stored` at `field`, e.g. "signerProfile.visual_position".
        const auto in = [&](const char* name, const QByteArray& field, const QByteArray& stored,
                            const QByteArray& expected) {
            const QList<QByteArray> k = field.split('.');
            const QByteArray value = k.size() > 1 ? "{'" + k[1] + "':" + stored + "}" : stored;
            row(name, "{'" + k[0] + "':" + value + "}", field, expected);
        };
        const QByteArray id = "'deviceId':'D','workspaceId':'W',", a90(90, 'a');
        const QByteArray dsp = "'deviceSecretProtected':'", secret = dsp + plain("s") + "'";
        const QByteArray keep = "{'deletedFileAction':'keep_local_files','deletedFolderName':'Old',"
                                "'groupDeletedByMonth':false}";
        const QByteArray wrong = "{'deletedFileAction':'KEEP_LOCAL_FILES','groupDeletedByMonth':1}";
        const QByteArray defaults = "{'deletedFileAction':'move_to_deleted_folder',"
                                    "'deletedFolderName':'Istrinta','groupDeletedByMonth':true}";
        const char* folder = "localDeleteSettings.deletedFolderName";
        row("'[]' file keeps defaults", "[]", "localDeleteSettings", defaults);
        in("theme Dark reads light", "theme", "'Dark'", "'light'");
        in("visual_position center", "signerProfile.visual_position", "'center'", "'top_left'");
        in("delete settings: wrong values", "localDeleteSettings", wrong, defaults);
        in("delete settings: valid kept", "localDeleteSettings", keep.chopped(1) + ",'x':1}", keep);
        in("folder '..'", folder, "'..'", "'Istrinta'");
        in("folder 'a/b: c. '", folder, "'a/b: c. '", "'a_b_ c'");
        in("folder cut to 80", folder, "'" + a90 + "'", "'" + a90.left(80) + "'");
        row("activated", "{" + id + secret + "}", "isActivated", "true");
        row("broken plain secret", "{" + id + dsp + "plain:@@@'}", "isActivated", "false");
        row("unknown secret prefix", "{" + id + dsp + "x:c2Vr'}", "isActivated", "false");
        row("no workspace", "{'deviceId':'D'," + secret + "}", "isActivated", "false");
        row("no device id", "{'workspaceId':'W'," + secret + "}", "isActivated", "false");
    }
    void normalisation()
    {
        QFETCH(QByteArray, file);
        QFETCH(QString, field);
        writeFile(file);
        QTEST(read(AppState(m_path), field), "expected");
    }

    void failedReloadKeepsMemory()
    {
        writeFile(j("{'theme':'dark'}"));
        AppState state(m_path);
        writeFile(j("{'theme':"));
        QVERIFY(!state.load() && !state.lastError().isEmpty());
        QCOMPARE(state.theme(), "dark");
        QVERIFY(QFile::remove(m_path) && state.load()); // a missing file is an empty, valid state
        QCOMPARE(state.theme(), "light");
        QVERIFY(!QFile::exists(m_path)); // reading creates nothing
    }

    // Failures report the texts of the parser and of the file itself.
    void errorTexts()
    {
        writeFile("[]");
        AppState state(m_path);
        QCOMPARE(state.lastError(), QJsonParseError().errorString()); // parsed, but no object
        // A save into a "folder" that is a regular file: the file's own open error.
        const QString blocked = m_dir.filePath("plain-file/device.json");
        QVERIFY(QFile(m_dir.filePath("plain-file")).open(QIODevice::WriteOnly));
        AppState unsaved(blocked);
        QFile probe(blocked);
        QVERIFY(!probe.open(QIODevice::WriteOnly));
        QSignalSpy changed(&unsaved, &AppState::changed);
        QVERIFY(!unsaved.setTheme("dark"));
        QCOMPARE(unsaved.lastError(), probe.errorString());
        // The value is in effect all the same, and listeners hear of it.
        QCOMPARE(unsaved.theme() + QString::number(changed.count()), "dark1");
    }

    void settersSaveAndNotify()
    {
        writeFile(j("{'future':[1,null],'activation':{'device_id':'D1'},'signerProfile':{'x':1}}"));
        const QByteArray before = readFile();
        AppState state(m_path);
        QSignalSpy changed(&state, &AppState::changed);
        QVERIFY(!state.setSignerVisualPosition("center"));
        QCOMPARE(readFile(), before);
        QVERIFY(state.setTheme("dark") && state.setSignerVisualPosition("bottom_left"));
        QVERIFY(state.setLocalDeleteSettings({{"deletedFolderName", "a|b"}}));
        QCOMPARE(changed.count(), 3); // once for each successful setter, none for the refusal
        const AppState reread(m_path);
        QCOMPARE(reread.theme(), "dark");
        QCOMPARE(read(reread, "localDeleteSettings.deletedFolderName"), j("'a_b'"));
        const QJsonObject profile = reread.signerProfile();
        QCOMPARE(jsonText(QJsonArray{profile["visual_position"], profile["visual_position_picked"],
                                     profile["visual_positions"], profile["x"]}),
                 j("['bottom_left',true,['top_left','top_right','bottom_left','bottom_right'],1]"));
        // The activation record carries the profile too and must not contradict it.
        QCOMPARE(saved().value("activation")["signer_profile"], saved().value("signerProfile"));
        QCOMPARE(saved().value("activation")["device_id"], "D1");
        QCOMPARE(jsonText(saved().value("future")), "[1,null]"); // unknown keys written back
        QVERIFY2(readFile().contains("\n    \"future\""), "written as indented JSON");

        const QString root = m_dir.filePath("a/My Docs"), utf8 = QStringLiteral("sekretas ąčę 🔑");
        QVERIFY(state.setLocalRoot("  " + root + " ") && QFileInfo(root).isDir());
        QVERIFY(state.setDeviceIdentity("D1", utf8, "W1"));
        QCOMPARE(AppState(m_path).localRoot() + AppState(m_path).deviceSecret(), root + utf8);
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
    }

    // Keys keep insertion order; values are written exactly as QJsonDocument writes them.
    void orderedJson()
    {
        const QVariantList values{"C:\\a\"b\n\x01\x7f šaknis ✓\u2028", qlonglong(1LL << 53) + 1,
                                  1.5};
        QCOMPARE(OrderedObject({{"z", values}, {"a\"b", true}}).toJson(),
                 "{\"z\":" + jsonText(QJsonArray::fromVariantList(values)) + ",\"a\\\"b\":true}");
    }
};

QTEST_GUILESS_MAIN(AppStateTest)
#include "tst_appstate.moc"
