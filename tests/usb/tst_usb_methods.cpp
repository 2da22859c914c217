// The "usb:" rows through the bridge: which command and arguments reach the host, the
// middleware diagnostics, the helper status cache and the locator's memory of a missing host.
#include "bridge/BridgeTestSupport.h"
#include "usb/FakeHost.h"
#include "usb/HelperRegistry.h"
#include "vantro_config.h"

#include <QElapsedTimer>
#include <QJsonArray>
#include <QTest>

#include <memory>

using namespace vantro;
using namespace vantro::test;

class TestUsbMethods : public QObject
{
    Q_OBJECT

    std::unique_ptr<BridgeFixture> f;
    std::unique_ptr<FakeHostDir> m_dir;

    QVariant call(const QString& method, const QVariantList& args = {})
    {
        return f->call(method, args);
    }
    QVariantMap valueOf(const QVariant& result) { return variantMember(result, "value").toMap(); }
    void useApplicationDir(const QString& dir)
    {
        f->bridge.useHelperRegistry(std::make_shared<HelperRegistry>(dir));
    }

private Q_SLOTS:
    void init()
    {
        qunsetenv("VANTRO_SIGN_HELPER_ORIGIN");
        f = std::make_unique<BridgeFixture>();
        m_dir = std::make_unique<FakeHostDir>();
        useApplicationDir(m_dir->path());
    }
    void cleanup()
    {
        f.reset();
        m_dir.reset();
    }

    void cardMethods_data()
    {
        QTest::addColumn<QString>("method");
        QTest::addColumn<QVariantList>("params");
        QTest::addColumn<QString>("command");
        QTest::addColumn<QJsonObject>("arguments"); // besides the origin
        const QVariantMap page{{"documents", QVariantList{"a", "b"}}, {"origin", "https://x"}};
        const QJsonObject pageArgs{{"documents", QJsonArray{"a", "b"}}};
        QTest::newRow("certificate ignores the page's parameters")
            << "usb:getSigningCertificate" << QVariantList{page} << "get-signing-certificate"
            << QJsonObject();
        QTest::newRow("sign without parameters")
            << "usb:sign" << QVariantList() << "sign" << QJsonObject();
        QTest::newRow("sign with a non-object parameter")
            << "usb:sign" << QVariantList{"text"} << "sign" << QJsonObject();
        QTest::newRow("sign") << "usb:sign" << QVariantList{page} << "sign" << pageArgs;
        QTest::newRow("batch") << "usb:signBatch" << QVariantList{page} << "sign-batch" << pageArgs;
        QTest::newRow("authenticate")
            << "usb:authenticate" << QVariantList{page} << "authenticate" << pageArgs;
    }
    void cardMethods()
    {
        QFETCH(QString, method);
        QFETCH(QVariantList, params);
        QFETCH(QString, command);
        QFETCH(QJsonObject, arguments);
        m_dir->install(nativeHostFileName());
        const QVariant result = call(method, params);
        QVERIFY2(variantMember(result, "ok").toBool(), toCompactJson(result).constData());
        arguments.insert("origin", QString(config::kPortalOrigin));
        const QJsonObject sent{{"command", command}, {"arguments", arguments}};
        QCOMPARE(m_dir->request(nativeHostFileName()), sent);
        // The host's whole answer is the value.
        QCOMPARE(QJsonObject::fromVariantMap(valueOf(result)), QJsonObject({{"echo", sent}}));
        QVERIFY(m_dir->processGone(nativeHostFileName()));
    }

    void hostMissingAtFirstStaysMissing()
    {
        QCOMPARE(call("usb:isAvailable"), DesktopBridge::ok(false).toVariant());
        const QString missing =
            err("VANTRO_USB_HELPER_UNAVAILABLE", "Vantro Sign native host was not found.");
        QCOMPARE(QString(toCompactJson(call("usb:sign"))), missing);
        m_dir->install(nativeHostFileName());
        QCOMPARE(QString(toCompactJson(call("usb:sign"))), missing);
        QCOMPARE(call("usb:isAvailable"), DesktopBridge::ok(false).toVariant());
        // A restart (a new registry) finds it.
        useApplicationDir(m_dir->path());
        QCOMPARE(call("usb:isAvailable"), DesktopBridge::ok(true).toVariant());
        QVERIFY(variantMember(call("usb:sign"), "ok").toBool());
    }

    void unknownMethod()
    {
        QCOMPARE(QString(toCompactJson(call("usb:frobnicate"))),
                 err("VANTRO_SIGN_BRIDGE_METHOD_UNKNOWN", "usb:frobnicate"));
    }

    void diagnose_data()
    {
        QTest::addColumn<QByteArray>("script");
        QTest::addColumn<QStringList>("keys");
        const auto printing = [](const char* text) {
            return QJsonDocument(QJsonObject{{"diagnose", text}}).toJson();
        };
        QTest::newRow("prints an object")
            << printing("{\"middleware\":\"ok\",\"vantroRuntime\":\"theirs\"}")
            << QStringList{"middleware", "vantroRuntime"};
        QTest::newRow("prints nothing") << QByteArray("{}") << QStringList{"vantroRuntime"};
        QTest::newRow("prints an array") << printing("[1]") << QStringList{"vantroRuntime"};
        QTest::newRow("prints text") << printing("all good") << QStringList{"vantroRuntime"};
    }
    void diagnose()
    {
        QFETCH(QByteArray, script);
        QFETCH(QStringList, keys);
        m_dir->install(middlewareCliFileName(), script);
        const QVariantMap value = valueOf(call("usb:diagnose"));
        QCOMPARE(value.keys(), keys);
        QCOMPARE(toCompactJson(value.value("vantroRuntime")), f->bridge.helperRuntime().toJson());
    }

    void diagnoseFailures()
    {
        QCOMPARE(QString(toCompactJson(call("usb:diagnose"))),
                 err("VANTRO_USB_HELPER_UNAVAILABLE", "Vantro Sign middleware CLI was not found."));
        m_dir->install(middlewareCliFileName(), "{\"diagnoseHang\":true}");
        useApplicationDir(m_dir->path());
        QElapsedTimer clock;
        clock.start();
        QCOMPARE(QString(toCompactJson(call("usb:diagnose"))),
                 err("VANTRO_USB_HELPER_TIMEOUT_diagnose", "Diagnostics timed out."));
        QVERIFY2(clock.elapsed() >= 15000 && clock.elapsed() < 20000,
                 qPrintable(QString::number(clock.elapsed())));
        QVERIFY(m_dir->processGone(middlewareCliFileName()));
    }

    void statusCountsSavedPinsAndCachesOneSecond()
    {
        const QString pins = f->runtime.storedPinDirectory();
        QVERIFY(QDir().mkpath(pins));
        for (const char* name : {"a.dpapi", "install-nonce.dpapi", "a.attempts.dpapi"})
            QVERIFY(QFile(pins + '/' + name).open(QIODevice::WriteOnly));
        m_dir->install(nativeHostFileName());
        QElapsedTimer clock;
        clock.start();
        const OrderedObject first = f->bridge.helperRuntime();
        QCOMPARE(first.value("savedPinCount"), 1);
        QCOMPARE(first.value("storedPinAvailable"), true);
        QCOMPARE(first.value("helperAvailable"), true);
        QCOMPARE(first.value("helperRuntimePath"), QDir(m_dir->path()).absolutePath());
        QVERIFY(QFile(pins + "/b.DPAPI").open(QIODevice::WriteOnly));
        QTest::qSleep(500);
        if (clock.elapsed() < 1000)
            QCOMPARE(f->bridge.helperRuntime(), first);
        QTest::qSleep(int(qMax<qint64>(0, 1000 - clock.elapsed())));
        QCOMPARE(f->bridge.helperRuntime().value("savedPinCount"), 2);
    }
};

QTEST_GUILESS_MAIN(TestUsbMethods)
#include "tst_usb_methods.moc"
