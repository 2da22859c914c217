// device.json: tolerant reading, whole-file saves with notification, the status object and
// the device secret's stored forms.
#include "app/AppState.h"
#include "platform/SecretStore.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSignalSpy>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QtTest>

using namespace vantro;

namespace {

// Stands in for DPAPI or a keyring: "fake:<secret reversed>", counting every call.
class FakeSecretStore : public platform::SecretStore
{
public:
    bool available = true;
    int protects = 0;
    int unprotects = 0;
    QStringList discarded;

    QString protect(const QString& secret) override
    {
        ++protects;
        if (!available)
            return {};
        return QStringLiteral("fake:") + reversed(secret);
    }
    QString unprotect(const QString& stored) override
    {
        ++unprotects;
        return stored.startsWith(QLatin1String("fake:")) ? reversed(stored.mid(5)) : QString();
    }
    void discard(const QString& stored) override { discarded << stored; }

private:
    static QString reversed(QString text)
    {
        std::reverse(text.begin(), text.end());
        return text;
    }
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

// One JSON value as compact text, so table rows can state expectations of any type.
QByteArray jsonText(const QJsonValue& value)
{
    const QByteArray array = QJsonDocument(QJsonArray{value}).toJson(QJsonDocument::Compact);
    return array.mid(1, array.size() - 2);
}

QJsonValue field(const AppState& state, const QString& name)
{
    const QStringList path = name.split(QLatin1Char('.'));
    const QString& top = path.first();
    QJsonValue value;
    if (top == QLatin1String("deviceId"))
        value = state.deviceId();
    else if (top == QLatin1String("deviceSecret"))
        value = state.deviceSecret();
    else if (top == QLatin1String("workspaceId"))
        value = state.workspaceId();
    else if (top == QLatin1String("appUrl"))
        value = state.appUrl();
    else if (top == QLatin1String("license"))
        value = state.license();
    else if (top == QLatin1String("signerProfile"))
        value = state.signerProfile();
    else if (top == QLatin1String("localRoot"))
        value = state.localRoot();
    else if (top == QLatin1String("theme"))
        value = state.theme();
    else if (top == QLatin1String("localDeleteSettings"))
        value = state.localDeleteSettings();
    else if (top == QLatin1String("isActivated"))
        value = state.isActivated();
    else
        qFatal("unknown field %s", qPrintable(name));
    if (path.size() > 1)
        value = value.toObject().value(path.at(1));
    return value;
}

const QByteArray kIdentity = "'deviceId':'D1','workspaceId':'W1',";

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

    QJsonObject readFile()
    {
        QFile file(m_path);
        if (!file.open(QIODevice::ReadOnly))
            return {};
        return QJsonDocument::fromJson(file.readAll()).object();
    }

private Q_SLOTS:
    void init()
    {
        QVERIFY(m_dir.isValid());
        m_path = m_dir.filePath(QStringLiteral("device.json"));
        QFile::remove(m_path);
        // No keyring in tests: secrets take the documented plain form.
        qunsetenv("DBUS_SESSION_BUS_ADDRESS");
    }

    void normalisation_data()
    {
        QTest::addColumn<QByteArray>("file");
        QTest::addColumn<QString>("field");
        QTest::addColumn<QByteArray>("expected");

        QTest::newRow("appUrl default") << j("{}") << "appUrl" << j("'/sign/app/documents/'");
        QTest::newRow("appUrl empty")
            << j("{'appUrl':''}") << "appUrl" << j("'/sign/app/documents/'");
        QTest::newRow("appUrl not a string")
            << j("{'appUrl':5}") << "appUrl" << j("'/sign/app/documents/'");
        QTest::newRow("appUrl kept")
            << j("{'appUrl':'https://h/sign/app/x/'}") << "appUrl" << j("'https://h/sign/app/x/'");
        QTest::newRow("array file reads defaults")
            << j("[]") << "appUrl" << j("'/sign/app/documents/'");
        QTest::newRow("deviceId absent") << j("{}") << "deviceId" << j("''");
        QTest::newRow("deviceId not a string") << j("{'deviceId':12}") << "deviceId" << j("''");
        QTest::newRow("workspaceId kept")
            << j("{'workspaceId':'W9'}") << "workspaceId" << j("'W9'");

        QTest::newRow("theme dark") << j("{'theme':'dark'}") << "theme" << j("'dark'");
        QTest::newRow("theme Dark capitalised") << j("{'theme':'Dark'}") << "theme" << j("'light'");
        QTest::newRow("theme padded") << j("{'theme':' dark'}") << "theme" << j("'light'");
        QTest::newRow("theme absent") << j("{}") << "theme" << j("'light'");
        QTest::newRow("theme not a string") << j("{'theme':true}") << "theme" << j("'light'");

        QTest::newRow("license object kept")
            << j("{'license':{'plan':'pro'}}") << "license" << j("{'plan':'pro'}");
        QTest::newRow("license not an object") << j("{'license':'pro'}") << "license" << j("{}");
        QTest::newRow("license array") << j("{'license':[1]}") << "license" << j("{}");

        QTest::newRow("signer profile defaults")
            << QByteArray("{}") << "signerProfile"
            << j("{'binding_source':'','bound':false,'display_name':'','email':'',"
                 "'entity_profile_bound':false,'phone_bound':false,"
                 "'profile_bound_at':'','qes_certificate_cached':false,"
                 "'visual_position':'top_left','visual_position_picked':false,"
                 "'visual_positions':[]}");
        QTest::newRow("signer profile not an object")
            << j("{'signerProfile':'x'}") << "signerProfile.visual_position" << j("'top_left'");
        QTest::newRow("signer profile overlay") << j("{'signerProfile':{'display_name':'Ona'}}")
                                                << "signerProfile.display_name" << j("'Ona'");
        QTest::newRow("signer profile keeps extra keys")
            << j("{'signerProfile':{'extra':{'a':1}}}") << "signerProfile.extra" << j("{'a':1}");
        QTest::newRow("signer profile overlay is not type-checked")
            << j("{'signerProfile':{'bound':'yes'}}") << "signerProfile.bound" << j("'yes'");
        QTest::newRow("visual_position center")
            << j("{'signerProfile':{'visual_position':'center'}}")
            << "signerProfile.visual_position" << j("'top_left'");
        QTest::newRow("visual_position upper case")
            << j("{'signerProfile':{'visual_position':'TOP_RIGHT'}}")
            << "signerProfile.visual_position" << j("'top_left'");
        QTest::newRow("visual_position not a string")
            << j("{'signerProfile':{'visual_position':3}}") << "signerProfile.visual_position"
            << j("'top_left'");
        QTest::newRow("visual_position bottom_right kept")
            << j("{'signerProfile':{'visual_position':'bottom_right'}}")
            << "signerProfile.visual_position" << j("'bottom_right'");
        QTest::newRow("visual_positions not an array")
            << j("{'signerProfile':{'visual_positions':'top_left'}}")
            << "signerProfile.visual_positions" << QByteArray("[]");
        QTest::newRow("visual_positions array kept")
            << j("{'signerProfile':{'visual_positions':['x']}}") << "signerProfile.visual_positions"
            << j("['x']");

        QTest::newRow("local root trimmed")
            << j("{'localRoot':'  /data/Docs  '}") << "localRoot" << j("'/data/Docs'");

        QTest::newRow("delete settings defaults")
            << QByteArray("{}") << "localDeleteSettings"
            << j("{'deletedFileAction':'move_to_deleted_folder',"
                 "'deletedFolderName':'Istrinta','groupDeletedByMonth':true}");
        QTest::newRow("delete settings not an object")
            << j("{'localDeleteSettings':[1]}") << "localDeleteSettings"
            << j("{'deletedFileAction':'move_to_deleted_folder',"
                 "'deletedFolderName':'Istrinta','groupDeletedByMonth':true}");
        QTest::newRow("delete settings drop unknown keys")
            << j("{'localDeleteSettings':{'x':1,'deletedFileAction':'keep_local_files',"
                 "'deletedFolderName':'Old','groupDeletedByMonth':false}}")
            << "localDeleteSettings"
            << j("{'deletedFileAction':'keep_local_files',"
                 "'deletedFolderName':'Old','groupDeletedByMonth':false}");
        QTest::newRow("action delete_permanently kept")
            << j("{'localDeleteSettings':{'deletedFileAction':'delete_permanently'}}")
            << "localDeleteSettings.deletedFileAction" << j("'delete_permanently'");
        QTest::newRow("action in capitals")
            << j("{'localDeleteSettings':{'deletedFileAction':'KEEP_LOCAL_FILES'}}")
            << "localDeleteSettings.deletedFileAction" << j("'move_to_deleted_folder'");
        QTest::newRow("action unknown")
            << j("{'localDeleteSettings':{'deletedFileAction':'shred'}}")
            << "localDeleteSettings.deletedFileAction" << j("'move_to_deleted_folder'");
        QTest::newRow("folder ..") << j("{'localDeleteSettings':{'deletedFolderName':'..'}}")
                                   << "localDeleteSettings.deletedFolderName" << j("'Istrinta'");
        QTest::newRow("folder a/b: c. ")
            << j("{'localDeleteSettings':{'deletedFolderName':'a/b: c. '}}")
            << "localDeleteSettings.deletedFolderName" << j("'a_b_ c'");
        QTest::newRow("folder not a string")
            << j("{'localDeleteSettings':{'deletedFolderName':7}}")
            << "localDeleteSettings.deletedFolderName" << j("'Istrinta'");
        QTest::newRow("group by month string false")
            << j("{'localDeleteSettings':{'groupDeletedByMonth':'false'}}")
            << "localDeleteSettings.groupDeletedByMonth" << QByteArray("true");
        QTest::newRow("group by month zero")
            << j("{'localDeleteSettings':{'groupDeletedByMonth':0}}")
            << "localDeleteSettings.groupDeletedByMonth" << QByteArray("true");

        QTest::newRow("plain secret") << j("{'deviceSecretProtected':'" + plain("sekretas") + "'}")
                                      << "deviceSecret" << j("'sekretas'");
        QTest::newRow("plain secret in UTF-8")
            << j("{'deviceSecretProtected':'" + plain("\xc4\x85\xc4\x8d") + "'}") << "deviceSecret"
            << QByteArray("\"\xc4\x85\xc4\x8d\"");
        QTest::newRow("PLAIN prefix is case-sensitive")
            << j("{'deviceSecretProtected':'PLAIN:c2Vr'}") << "deviceSecret" << j("''");
        QTest::newRow("plain with broken Base64")
            << j("{'deviceSecretProtected':'plain:@@@'}") << "deviceSecret" << j("''");
        QTest::newRow("unknown secret prefix")
            << j("{'deviceSecretProtected':'rot13:frperg'}") << "deviceSecret" << j("''");
        QTest::newRow("dpapi secret unreadable here")
            << j("{'deviceSecretProtected':'dpapi:AAAA'}") << "deviceSecret" << j("''");
        QTest::newRow("keyring secret without a keyring")
            << j("{'deviceSecretProtected':'secret-service:0000'}") << "deviceSecret" << j("''");

        QTest::newRow("activated")
            << j("{" + kIdentity + "'deviceSecretProtected':'" + plain("s") + "'}") << "isActivated"
            << QByteArray("true");
        QTest::newRow("unknown secret prefix is not activated")
            << j("{" + kIdentity + "'deviceSecretProtected':'xyz:c2Vr'}") << "isActivated"
            << QByteArray("false");
        QTest::newRow("empty plain secret is not activated")
            << j("{" + kIdentity + "'deviceSecretProtected':'plain:'}") << "isActivated"
            << QByteArray("false");
        QTest::newRow("no workspace is not activated")
            << j("{'deviceId':'D1','deviceSecretProtected':'" + plain("s") + "'}") << "isActivated"
            << QByteArray("false");
        QTest::newRow("no device id is not activated")
            << j("{'workspaceId':'W1','deviceSecretProtected':'" + plain("s") + "'}")
            << "isActivated" << QByteArray("false");
    }
    void normalisation()
    {
        QFETCH(QByteArray, file);
        QFETCH(QString, field);
        QFETCH(QByteArray, expected);
        writeFile(file);
        const AppState state(m_path);
        QCOMPARE(jsonText(::field(state, field)), expected);
    }

    void folderName_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QString>("expected");
        QTest::newRow("plain name") << "Deleted"
                                    << "Deleted";
        QTest::newRow("two dots") << ".."
                                  << "";
        QTest::newRow("slash colon and trailing dot blank") << "a/b: c. "
                                                            << "a_b_ c";
        QTest::newRow("every forbidden character") << "<>:\"/\\|?*"
                                                   << "_________";
        QTest::newRow("control characters") << QString("a\x01"
                                                       "b\x1f"
                                                       "c")
                                            << "a_b_c";
        QTest::newRow("tab inside") << "a\tb"
                                    << "a_b";
        QTest::newRow("blanks around trimmed") << "  x  "
                                               << "x";
        QTest::newRow("dots and blanks stripped in turn") << "x . . ."
                                                          << "x";
        QTest::newRow("leading dot kept") << ".hidden"
                                          << ".hidden";
        QTest::newRow("Lithuanian letters kept") << "Ištrinta"
                                                 << "Ištrinta";
        QTest::newRow("cut to 80")
            << QString(100, QLatin1Char('a')) << QString(80, QLatin1Char('a'));
        QTest::newRow("cut after stripping")
            << QString(85, QLatin1Char('b')) + "..." << QString(80, QLatin1Char('b'));
        QTest::newRow("empty") << ""
                               << "";
    }
    void folderName()
    {
        QFETCH(QString, name);
        QTEST(AppState::sanitizeFolderName(name), "expected");
    }

    void localRootDefault()
    {
        writeFile(j("{'localRoot':'   '}"));
        const AppState state(m_path);
        QString base = QStandardPaths::writableLocation(QStandardPaths::DocumentsLocation);
        if (base.isEmpty())
            base = QDir::homePath();
        QCOMPARE(state.localRoot(), base + QStringLiteral("/Vantro Sign"));
    }

    void loadMissingFile()
    {
        AppState state(m_path);
        QVERIFY(state.load());
        QVERIFY(state.raw().isEmpty());
        QVERIFY(state.lastError().isEmpty());
        QVERIFY(!QFile::exists(m_path));
    }

    void loadRejects_data()
    {
        QTest::addColumn<QByteArray>("content");
        QTest::newRow("array") << QByteArray("[]");
        QTest::newRow("string") << j("'x'");
        QTest::newRow("truncated object") << j("{'theme':");
        QTest::newRow("trailing garbage") << j("{'theme':'dark'} x");
        QTest::newRow("empty file") << QByteArray("");
    }
    void loadRejects()
    {
        QFETCH(QByteArray, content);
        writeFile(content);
        AppState fresh(m_path);
        QVERIFY(!fresh.lastError().isEmpty());
        QVERIFY(fresh.raw().isEmpty());
        QCOMPARE(fresh.theme(), QStringLiteral("light"));

        writeFile(j("{'theme':'dark','deviceId':'D1'}"));
        AppState state(m_path);
        QVERIFY(state.lastError().isEmpty());
        writeFile(content);
        QVERIFY(!state.load());
        QVERIFY(!state.lastError().isEmpty());
        QCOMPARE(state.theme(), QStringLiteral("dark"));
        QCOMPARE(state.deviceId(), QStringLiteral("D1"));
    }

    void loadUnreadable()
    {
        QVERIFY(QDir().mkpath(m_path)); // a folder where the file should be
        AppState state(m_path);
        QVERIFY(!state.load());
        QVERIFY(!state.lastError().isEmpty());
        QVERIFY(state.raw().isEmpty());
        QVERIFY(!state.setTheme(QStringLiteral("dark")));
        QVERIFY(QDir().rmdir(m_path));
    }

    void unknownKeysSurviveSave()
    {
        writeFile(j("{'future':{'list':[1,'two',null]},'theme':'dark','activation':{'raw':true}}"));
        AppState state(m_path);
        QVERIFY(state.setTheme(QStringLiteral("light")));
        const QJsonObject saved = readFile();
        QCOMPARE(jsonText(saved.value("future")), j("{'list':[1,'two',null]}"));
        QCOMPARE(jsonText(saved.value("activation")), j("{'raw':true}"));
        QCOMPARE(saved.value("theme").toString(), QStringLiteral("light"));
        QCOMPARE(saved.size(), 3);
        QFile file(m_path);
        QVERIFY(file.open(QIODevice::ReadOnly));
        QVERIFY2(file.readAll().contains("\n    \"future\""), "written as indented JSON");
    }

    void setterSavesAndNotifies_data()
    {
        QTest::addColumn<QString>("setter");
        QTest::addColumn<QString>("field");
        QTest::addColumn<QByteArray>("expected");
        QTest::newRow("theme dark") << "setTheme:dark"
                                    << "theme" << j("'dark'");
        QTest::newRow("theme Dark stores light") << "setTheme:Dark"
                                                 << "theme" << j("'light'");
        QTest::newRow("delete settings stored")
            << "setLocalDeleteSettings"
            << "localDeleteSettings"
            << j("{'deletedFileAction':'keep_local_files','deletedFolderName':'a_b',"
                 "'groupDeletedByMonth':false}");
        QTest::newRow("visual position") << "setSignerVisualPosition:bottom_left"
                                         << "signerProfile.visual_position" << j("'bottom_left'");
        QTest::newRow("visual position picked")
            << "setSignerVisualPosition:top_right"
            << "signerProfile.visual_position_picked" << QByteArray("true");
        QTest::newRow("visual positions listed")
            << "setSignerVisualPosition:top_right"
            << "signerProfile.visual_positions"
            << j("['top_left','top_right','bottom_left','bottom_right']");
        QTest::newRow("device identity") << "setDeviceIdentity"
                                         << "isActivated" << QByteArray("true");
        QTest::newRow("local root") << "setLocalRoot"
                                    << "localRoot" << QByteArray();
    }
    void setterSavesAndNotifies()
    {
        QFETCH(QString, setter);
        QFETCH(QString, field);
        QFETCH(QByteArray, expected);
        const QString localRoot = m_dir.filePath(QStringLiteral("roots/My Docs"));
        if (expected.isEmpty())
            expected = jsonText(localRoot);

        AppState state(m_path);
        QSignalSpy changed(&state, &AppState::changed);
        const QString name = setter.section(QLatin1Char(':'), 0, 0);
        const QString arg = setter.section(QLatin1Char(':'), 1);
        bool ok = false;
        if (name == QLatin1String("setTheme"))
            ok = state.setTheme(arg);
        else if (name == QLatin1String("setLocalDeleteSettings"))
            ok = state.setLocalDeleteSettings({{"deletedFileAction", "keep_local_files"},
                                               {"deletedFolderName", "a|b"},
                                               {"groupDeletedByMonth", false}});
        else if (name == QLatin1String("setSignerVisualPosition"))
            ok = state.setSignerVisualPosition(arg);
        else if (name == QLatin1String("setDeviceIdentity"))
            ok = state.setDeviceIdentity("D1", "secret", "W1");
        else if (name == QLatin1String("setLocalRoot"))
            ok = state.setLocalRoot("  " + localRoot + "  ");
        QVERIFY(ok);
        QCOMPARE(changed.count(), 1);
        QCOMPARE(jsonText(::field(state, field)), expected);
        const AppState reread(m_path);
        QCOMPARE(jsonText(::field(reread, field)), expected);
    }

    void setterWriteFailure()
    {
        QFile blocker(m_dir.filePath(QStringLiteral("blocker")));
        QVERIFY(blocker.open(QIODevice::WriteOnly));
        blocker.close();
        AppState state(blocker.fileName() + QStringLiteral("/device.json"));
        QSignalSpy changed(&state, &AppState::changed);
        QVERIFY(!state.setTheme(QStringLiteral("dark")));
        QVERIFY(!state.lastError().isEmpty());
        QCOMPARE(changed.count(), 0);
        QCOMPARE(state.theme(), QStringLiteral("dark")); // the in-memory value stays changed
    }

    void localRoot()
    {
        AppState state(m_path);
        const QString root = m_dir.filePath(QStringLiteral("a/b/Vantro"));
        QVERIFY(state.setLocalRoot(root));
        QVERIFY(QFileInfo(root).isDir());
        QSignalSpy changed(&state, &AppState::changed);
        QVERIFY(state.setLocalRoot(QStringLiteral("   "))); // blank keeps the root, still saves
        QCOMPARE(state.localRoot(), root);
        QCOMPARE(changed.count(), 1);
    }

    void localRootCannotBeCreated()
    {
        const QString file = m_dir.filePath(QStringLiteral("plain-file"));
        QFile blocker(file);
        QVERIFY(blocker.open(QIODevice::WriteOnly));
        blocker.close();
        const QString root = file + QStringLiteral("/Vantro Sign");
        AppState state(m_path);
        QVERIFY(!state.setLocalRoot(root));
        QCOMPARE(state.lastError(), QStringLiteral("Could not create local root: ") + root);
        QCOMPARE(readFile().value("localRoot").toString(), root); // saved regardless
    }

    void visualPositionRejected_data()
    {
        QTest::addColumn<QString>("position");
        QTest::newRow("center") << "center";
        QTest::newRow("empty") << "";
        QTest::newRow("upper case") << "TOP_LEFT";
        QTest::newRow("trailing blank") << "top_left ";
    }
    void visualPositionRejected()
    {
        QFETCH(QString, position);
        writeFile(j("{'signerProfile':{'visual_position':'top_right'}}"));
        AppState state(m_path);
        QSignalSpy changed(&state, &AppState::changed);
        QVERIFY(!state.setSignerVisualPosition(position));
        QCOMPARE(changed.count(), 0);
        QCOMPARE(state.signerProfile().value("visual_position").toString(),
                 QStringLiteral("top_right"));
        QCOMPARE(state.signerProfile().value("visual_position_picked").toBool(), false);
        QCOMPARE(jsonText(readFile()), j("{'signerProfile':{'visual_position':'top_right'}}"));
    }

    void visualPositionUpdatesActivationRecord()
    {
        writeFile(j("{'activation':{'device_id':'D1'},'signerProfile':{'email':'a@b.lt'}}"));
        AppState state(m_path);
        QVERIFY(state.setSignerVisualPosition(QStringLiteral("bottom_right")));
        const QJsonObject saved = readFile();
        const QJsonObject profile = saved.value("signerProfile").toObject();
        QCOMPARE(profile.value("email").toString(), QStringLiteral("a@b.lt"));
        QCOMPARE(profile.value("visual_position").toString(), QStringLiteral("bottom_right"));
        const QJsonObject activation = saved.value("activation").toObject();
        QCOMPARE(activation.value("device_id").toString(), QStringLiteral("D1"));
        QCOMPARE(activation.value("signer_profile").toObject(), profile);
    }

    void statusKeyOrder()
    {
        AppState state(m_path);
        const OrderedObject status = state.status();
        QCOMPARE(
            status.keys(),
            (QStringList{"version", "activated", "localRoot", "theme", "license", "signerProfile",
                         "helperAvailable", "helperBackgroundRunning", "helperRuntime",
                         "helperRuntimeVersion", "helperRuntimePath", "usbSignBatchNative"}));
        QVERIFY(status.toJson().startsWith(j("{'version':'0.2.5','activated':false,'localRoot':")));
    }

    void statusValues_data()
    {
        QTest::addColumn<QString>("key");
        QTest::addColumn<QVariant>("withoutHelper");
        QTest::addColumn<QVariant>("helperValue");
        QTest::newRow("helperAvailable") << "helperAvailable" << QVariant(true) << QVariant(false);
        QTest::newRow("helperBackgroundRunning")
            << "helperBackgroundRunning" << QVariant(false) << QVariant(true);
        QTest::newRow("helperRuntime") << "helperRuntime" << QVariant("next") << QVariant("legacy");
        QTest::newRow("helperRuntimeVersion")
            << "helperRuntimeVersion" << QVariant("") << QVariant("1.2.3");
        QTest::newRow("helperRuntimePath")
            << "helperRuntimePath" << QVariant("") << QVariant("/opt/host");
        QTest::newRow("usbSignBatchNative")
            << "usbSignBatchNative" << QVariant(false) << QVariant(true);
    }
    void statusValues()
    {
        QFETCH(QString, key);
        QFETCH(QVariant, withoutHelper);
        QFETCH(QVariant, helperValue);
        writeFile(j("{" + kIdentity + "'deviceSecretProtected':'" + plain("s") +
                    "','theme':'dark','license':{'plan':'x'}}"));
        AppState state(m_path);
        QCOMPARE(state.status().value(key), withoutHelper);
        OrderedObject helper;
        helper.insert(key, helperValue);
        const OrderedObject status = state.status(helper);
        QCOMPARE(status.value(key), helperValue);
        QCOMPARE(status.value("activated").toBool(), true);
        QCOMPARE(status.value("theme").toString(), QStringLiteral("dark"));
        QCOMPARE(status.value("license").toJsonObject(), (QJsonObject{{"plan", "x"}}));
        QCOMPARE(status.value("signerProfile").toJsonObject(), state.signerProfile());
    }

    void plainSecretRoundTrip()
    {
        const QString secret = QStringLiteral("sekretas ąčę 🔑");
        AppState state(m_path);
        QVERIFY(state.setDeviceIdentity("D1", secret, "W1", {{"source", "code"}}));
        const QJsonObject saved = readFile();
        const QString stored = saved.value("deviceSecretProtected").toString();
        QVERIFY2(stored.startsWith("plain:"), qPrintable(stored));
        QCOMPARE(QString::fromUtf8(QByteArray::fromBase64(stored.mid(6).toLatin1())), secret);
        QCOMPARE(saved.value("apiBase").toString(), QStringLiteral("/sign/api/v1/"));
        QCOMPARE(saved.value("activation").toObject().value("source").toString(),
                 QStringLiteral("code"));
        const AppState reread(m_path);
        QCOMPARE(reread.deviceSecret(), secret);
        QVERIFY(reread.isActivated());
    }

    void secretReadCachedPerStoredText()
    {
        FakeSecretStore store;
        writeFile(j("{'deviceSecretProtected':'fake:321'}"));
        AppState state(m_path);
        state.setSecretStore(&store);
        QCOMPARE(state.deviceSecret(), QStringLiteral("123"));
        QCOMPARE(state.deviceSecret(), QStringLiteral("123"));
        QVERIFY(!state.isActivated());
        QCOMPARE(store.unprotects, 1);

        writeFile(j("{'deviceSecretProtected':'fake:654'}"));
        QVERIFY(state.load());
        QCOMPARE(state.deviceSecret(), QStringLiteral("456"));
        QCOMPARE(store.unprotects, 2);

        writeFile(j("{'deviceSecretProtected':'plain:c2Vr'}"));
        QVERIFY(state.load());
        QCOMPARE(state.deviceSecret(), QStringLiteral("sek"));
        QCOMPARE(store.unprotects, 2); // the plain form never reaches the platform
    }

    void secretProtectedByPlatform()
    {
        FakeSecretStore store;
        AppState state(m_path);
        state.setSecretStore(&store);
        QVERIFY(state.setDeviceIdentity("D1", "abc", "W1"));
        QCOMPARE(readFile().value("deviceSecretProtected").toString(), QStringLiteral("fake:cba"));
        QCOMPARE(state.deviceSecret(), QStringLiteral("abc"));
        QCOMPARE(store.unprotects, 0); // what was just protected is already known

        QVERIFY(state.setDeviceIdentity("D1", "xyz", "W1"));
        QCOMPARE(store.discarded, QStringList{"fake:cba"});

        store.available = false;
        QVERIFY(state.setDeviceIdentity("D1", "def", "W1"));
        QCOMPARE(readFile().value("deviceSecretProtected").toString(),
                 QString::fromLatin1(plain("def")));
        QCOMPARE(store.protects, 3);
        QCOMPARE(store.discarded, (QStringList{"fake:cba", "fake:zyx"}));

        AppState reread(m_path);
        reread.setSecretStore(&store);
        QCOMPARE(reread.deviceSecret(), QStringLiteral("def"));
        QCOMPARE(store.unprotects, 0);
    }
};

QTEST_GUILESS_MAIN(AppStateTest)
#include "tst_appstate.moc"
