// Device activation rules without the window: the grant parser, links, the base a link may
// name, code normalisation, and a service that cannot be reached.
#include "api/DeviceActivation.h"
#include "api/SignApiClient.h"
#include "app/Errors.h"

#include <QTemporaryDir>
#include <QTest>

using namespace vantro;

namespace {

const QString kBase = QStringLiteral("https://sign.vantro.example");

QJsonObject grant()
{
    return {{"device_id", "d-1"},
            {"device_secret", "s-1"},
            {"workspace_id", "w-1"},
            {"license", QJsonObject{{"plan", "pro"}}},
            {"signer_profile", QJsonObject()},
            {"app_url", "/sign/app/documents/"},
            {"api_base", "/sign/api/v1/"}};
}

// The code of the failure `run` throws, or "" when it throws none.
template <typename Run> QString failureCode(Run run)
{
    try {
        run();
    } catch (const CodedError& failure) {
        return failure.code();
    }
    return {};
}

} // namespace

class TestDeviceActivation : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void grants_data()
    {
        QTest::addColumn<QString>("key");
        QTest::addColumn<QJsonValue>("value"); // undefined: the key removed
        QTest::addColumn<bool>("accepted");
        QTest::newRow("whole") << "" << QJsonValue() << true;
        for (const char* key : {"device_id", "device_secret", "workspace_id", "license",
                                "signer_profile", "app_url", "api_base"})
            QTest::newRow(qPrintable(QString("without ") + key))
                << key << QJsonValue(QJsonValue::Undefined) << false;
        QTest::newRow("blank device id") << "device_id" << QJsonValue("  ") << false;
        QTest::newRow("licence not an object") << "license" << QJsonValue("pro") << false;
        QTest::newRow("application elsewhere")
            << "app_url" << QJsonValue("https://evil.example/sign/app/") << false;
        QTest::newRow("application outside /sign/app/")
            << "app_url" << QJsonValue("/admin/") << false;
        QTest::newRow("absolute application on the base")
            << "app_url" << QJsonValue(kBase + "/sign/app/documents/") << true;
    }
    void grants()
    {
        QFETCH(QString, key);
        QFETCH(QJsonValue, value);
        QFETCH(bool, accepted);
        QJsonObject answer = grant();
        if (value.isUndefined())
            answer.remove(key);
        else if (!key.isEmpty())
            answer.insert(key, value);
        AppState::Activation parsed;
        const QString code = failureCode([&] { parsed = activation::parseGrant(answer, kBase); });
        QCOMPARE(code, accepted ? QString() : "VANTRO_SIGN_ACTIVATION_INVALID_RESPONSE");
        if (accepted) {
            QCOMPARE(parsed.appUrl, kBase + "/sign/app/documents/");
            QCOMPARE(parsed.secret, "s-1");
            QVERIFY(!parsed.record.contains("device_secret"));
        }
    }

    void links_data()
    {
        QTest::addColumn<QString>("link");
        QTest::addColumn<QString>("code");
        QTest::addColumn<QString>("base");
        QTest::newRow("query") << "vantrosign://activate?code=AB-12&base=https%3A%2F%2Fx.example"
                               << "AB-12"
                               << "https://x.example";
        QTest::newRow("path") << "vantrosign://activate/AB-12"
                              << "AB-12"
                              << "";
        QTest::newRow("bare") << "vantrosign:AB-12"
                              << "AB-12"
                              << "";
        QTest::newRow("no code") << "vantrosign://activate"
                                 << ""
                                 << "";
    }
    void links()
    {
        QFETCH(QString, link);
        QFETCH(QString, code);
        QFETCH(QString, base);
        const activation::LinkRequest request = activation::parseActivationLink(link);
        QCOMPARE(request.code, code);
        QCOMPARE(request.base, base);
    }

    void bases()
    {
        qputenv("VANTRO_SIGN_ALLOW_LOCAL_API_BASE", "0");
        QCOMPARE(
            failureCode([] { activation::resolveActivationBase("https://evil.example", kBase); }),
            "VANTRO_SIGN_ACTIVATION_BASE_NOT_ALLOWED");
        QCOMPARE(
            failureCode([] { activation::resolveActivationBase("http://127.0.0.1:8000", kBase); }),
            "VANTRO_SIGN_ACTIVATION_BASE_NOT_ALLOWED");
        QCOMPARE(activation::resolveActivationBase("", kBase), kBase);
        qputenv("VANTRO_SIGN_ALLOW_LOCAL_API_BASE", "1");
        QCOMPARE(activation::resolveActivationBase("http://127.0.0.1:8000", kBase),
                 "http://127.0.0.1:8000");
    }

    void codes()
    {
        QCOMPARE(activation::normalizeCode("  ab 12-cd \n"), "AB12-CD");
        QTemporaryDir home;
        qputenv("HOME", home.path().toUtf8());
        qputenv("XDG_DATA_HOME", home.path().toUtf8());
        AppState state;
        SignApiClient api(&state);
        QCOMPARE(failureCode([&] { activation::request(api, kBase, "   ", "pc"); }),
                 "VANTRO_SIGN_ACTIVATION_CODE_REQUIRED");
        // Nothing listens on the discard port.
        QCOMPARE(failureCode([&] { activation::request(api, "http://127.0.0.1:9", "AB", "pc"); }),
                 "VANTRO_SIGN_ACTIVATION_UNREACHABLE");
        QVERIFY(!state.isActivated());
    }
};

QTEST_GUILESS_MAIN(TestDeviceActivation)
#include "tst_device_activation.moc"
