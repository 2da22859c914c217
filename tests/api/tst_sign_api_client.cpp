// The client's base comes from the stored web application address, else the environment,
// else the production service; the bridge origin check follows that base.
#include "api/SignApiClient.h"
#include "app/AppState.h"

#include <QTemporaryDir>
#include <QtTest>

using namespace vantro;

namespace {
const QString kProd = "https://sign.vantro.example",
              kStaging = "https://staging.sign.vantro.example";
const QString kDocs = "/sign/app/documents/";
} // namespace

class SignApiClientTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void base_data()
    {
        QTest::addColumn<QString>("appUrl"); // none stored when empty
        QTest::addColumn<QByteArray>("baseEnv");
        QTest::addColumn<QString>("base");
        QTest::addColumn<QString>("webApp");
        const auto add = [](const char* name, const QString& appUrl, const char* env,
                            const QString& base, const QString& webApp) {
            QTest::newRow(name) << appUrl << QByteArray(env) << base << webApp;
        };
        add("nothing stored", "", "", kProd, kProd + kDocs);
        add("stored path uses the environment", kDocs, "https://staging.sign.vantro.example",
            kStaging, kStaging + kDocs);
        add("stored address beats the environment", kStaging + kDocs, "https://sign.vantro.example",
            kStaging, kStaging + kDocs);
        // The web application lives at the origin's root, so a prefixed page is not trusted.
        add("stored address with prefix", kStaging + "/p/sign/app/x/", "", kStaging + "/p",
            kStaging + kDocs);
        add("foreign stored address ignored", "https://evil.example" + kDocs, "", kProd,
            kProd + kDocs);
        add("stored path to another page", "/sign/app/settings/", "", kProd,
            kProd + "/sign/app/settings/");
    }
    void base()
    {
        QFETCH(QString, appUrl);
        QFETCH(QByteArray, baseEnv);
        qputenv("VANTRO_SIGN_BASE_URL", baseEnv); // empty counts as unset
        QTemporaryDir dir;
        QFile file(dir.filePath("device.json")); // the client reads appUrl through the state
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(appUrl.isEmpty() ? "{}" : "{\"appUrl\":\"" + appUrl.toUtf8() + "\"}");
        file.close();
        AppState state(file.fileName());
        const SignApiClient client(&state);
        QTEST(client.baseUrl(), "base");
        QTEST(client.webAppUrl().toString(), "webApp");
    }

    void withoutState()
    {
        qunsetenv("VANTRO_SIGN_BASE_URL");
        const SignApiClient client(nullptr);
        QCOMPARE(client.baseUrl(), kProd);
        QCOMPARE(client.webAppUrl().toString(), kProd + kDocs);
        QCOMPARE(client.webAppOrigin(), kProd);
        QVERIFY(client.isAllowedOrigin(QUrl(kProd + kDocs + "#a")));
        QVERIFY(!client.isAllowedOrigin(QUrl("https://account.vantro.example/sign/app/")));
        QVERIFY(!client.isAllowedOrigin(QUrl(kProd + ":443/sign/app/")));
    }
};

QTEST_GUILESS_MAIN(SignApiClientTest)
#include "tst_sign_api_client.moc"
