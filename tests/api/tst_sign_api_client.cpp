// The client's base comes from the stored web application address, else the environment,
// else the production service; the bridge origin check follows that base.
#include "api/SignApiClient.h"
#include "app/AppState.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QtTest>

using namespace vantro;

class SignApiClientTest : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_dir;

    // A state whose device.json holds only the given appUrl (absent when null).
    std::unique_ptr<AppState> stateWithAppUrl(const QString& appUrl)
    {
        const QString path = m_dir.filePath(QStringLiteral("device.json"));
        QFile file(path);
        if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
            qFatal("cannot write %s", qPrintable(path));
        QJsonObject root;
        if (!appUrl.isNull())
            root.insert(QStringLiteral("appUrl"), appUrl);
        file.write(QJsonDocument(root).toJson());
        file.close();
        return std::make_unique<AppState>(path);
    }

private Q_SLOTS:
    void init()
    {
        qunsetenv("VANTRO_SIGN_BASE_URL");
        qunsetenv("VANTRO_SIGN_ALLOW_LOCAL_API_BASE");
    }

    void base_data()
    {
        QTest::addColumn<QString>("appUrl");
        QTest::addColumn<QByteArray>("baseEnv");
        QTest::addColumn<QByteArray>("allow");
        QTest::addColumn<QString>("base");
        QTest::addColumn<QString>("webApp");
        const QString prod = QStringLiteral("https://sign.vantro.example");
        const QString staging = QStringLiteral("https://staging.sign.vantro.example");
        const QString local = QStringLiteral("http://127.0.0.1:8000");
        QTest::newRow("nothing stored")
            << QString() << QByteArray() << QByteArray() << prod << prod + "/sign/app/documents/";
        QTest::newRow("stored path uses the environment")
            << "/sign/app/documents/" << QByteArray("https://staging.sign.vantro.example")
            << QByteArray() << staging << staging + "/sign/app/documents/";
        QTest::newRow("stored staging address wins")
            << staging + "/sign/app/documents/" << QByteArray("http://127.0.0.1:8000")
            << QByteArray("on") << staging << staging + "/sign/app/documents/";
        // The web application lives at the origin's root, so a prefixed page is not trusted.
        QTest::newRow("stored address with prefix")
            << staging + "/p/sign/app/settings/" << QByteArray() << QByteArray() << staging + "/p"
            << staging + "/sign/app/documents/";
        QTest::newRow("foreign stored address ignored")
            << "https://evil.example/sign/app/documents/" << QByteArray() << QByteArray() << prod
            << prod + "/sign/app/documents/";
        QTest::newRow("local stored address when allowed")
            << local + "/sign/app/documents/" << QByteArray() << QByteArray("1") << local
            << local + "/sign/app/documents/";
        QTest::newRow("local stored address when not allowed")
            << local + "/sign/app/documents/" << QByteArray() << QByteArray() << prod
            << prod + "/sign/app/documents/";
        QTest::newRow("stored path to another page")
            << "/sign/app/settings/" << QByteArray() << QByteArray() << prod
            << prod + "/sign/app/settings/";
    }
    void base()
    {
        QFETCH(QString, appUrl);
        QFETCH(QByteArray, baseEnv);
        QFETCH(QByteArray, allow);
        if (!baseEnv.isEmpty())
            qputenv("VANTRO_SIGN_BASE_URL", baseEnv);
        if (!allow.isEmpty())
            qputenv("VANTRO_SIGN_ALLOW_LOCAL_API_BASE", allow);
        const auto state = stateWithAppUrl(appUrl);
        const SignApiClient client(state.get());
        QTEST(client.baseUrl(), "base");
        QTEST(client.webAppUrl().toString(), "webApp");
        QCOMPARE(client.webAppOrigin(),
                 QUrl(client.baseUrl()).adjusted(QUrl::RemovePath).toString());
    }

    void bridgeOrigin_data()
    {
        QTest::addColumn<QUrl>("source");
        QTest::addColumn<bool>("allowed");
        QTest::newRow("documents page")
            << QUrl("https://sign.vantro.example/sign/app/documents/#a") << true;
        QTest::newRow("portal page") << QUrl("https://account.vantro.example/sign/app/") << false;
        QTest::newRow("same origin outside the app")
            << QUrl("https://sign.vantro.example/blog/") << false;
        QTest::newRow("explicit port")
            << QUrl("https://sign.vantro.example:443/sign/app/") << false;
        QTest::newRow("empty") << QUrl() << false;
    }
    void bridgeOrigin()
    {
        QFETCH(QUrl, source);
        const auto state = stateWithAppUrl(QString());
        const SignApiClient client(state.get());
        QTEST(client.isAllowedOrigin(source), "allowed");
    }

    void withoutState()
    {
        const SignApiClient client(nullptr);
        QCOMPARE(client.baseUrl(), QStringLiteral("https://sign.vantro.example"));
        QCOMPARE(client.webAppOrigin(), QStringLiteral("https://sign.vantro.example"));
    }
};

QTEST_GUILESS_MAIN(SignApiClientTest)
#include "tst_sign_api_client.moc"
