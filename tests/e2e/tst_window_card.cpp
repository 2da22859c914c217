// Card signing from the page through the real bridge and the real card host, against SoftHSM2
// tokens of both key types; every signature is checked with OpenSSL.
#include "e2e/BrowserHarness.h"
#include "nativehost/SoftHsmToken.h"

#include "bridge/DesktopBridge.h"
#include "usb/HelperRegistry.h"

#include <QCryptographicHash>
#include <QFileInfo>
#include <QJsonArray>
#include <QtTest>

using namespace vantro;
using namespace vantro::testing;

namespace {
const QByteArray kPin = "4321";
const QString kOrigin = QStringLiteral("https://sign.test");

QByteArray sha256(const QByteArray& data)
{
    return QCryptographicHash::hash(data, QCryptographicHash::Sha256);
}
QString base64(const QByteArray& bytes)
{
    return QString::fromLatin1(bytes.toBase64());
}
QByteArray unbase64(const QJsonValue& value)
{
    return QByteArray::fromBase64(value.toString().toLatin1());
}
} // namespace

class WindowCardTest : public QObject
{
    Q_OBJECT

private:
    AppWindow m_app;
    std::unique_ptr<SoftHsmToken> m_ec;
    std::unique_ptr<SoftHsmToken> m_rsa;

    QJsonValue call(const QString& expression)
    {
        const QJsonObject outcome = m_app.page().await(expression, 120000);
        if (!outcome.value("ok").toBool())
            return "error " + outcome.value("code").toString() + ": " +
                   outcome.value("message").toString();
        return outcome.value("value");
    }

private Q_SLOTS:
    void initTestCase()
    {
        qunsetenv("DBUS_SESSION_BUS_ADDRESS");
        qputenv("VANTRO_SIGN_PKCS11_MODULE", kSoftHsmModule.toUtf8());
        qputenv("VANTRO_SIGN_TEST_PIN", kPin);
        qputenv("VANTRO_SIGN_HELPER_ORIGIN", kOrigin.toUtf8());
        m_ec = std::make_unique<SoftHsmToken>("Card EC", "EC", kPin);
        m_rsa = std::make_unique<SoftHsmToken>("Card RSA", "RSA", kPin);
        QVERIFY2(m_ec->error().isEmpty(), qPrintable(m_ec->error()));
        QVERIFY2(m_rsa->error().isEmpty(), qPrintable(m_rsa->error()));
        QVERIFY(m_app.open());
        // The programs sit beside the application, where the bridge looks for them.
        m_app.window()->desktopBridge()->useHelperRegistry(
            std::make_shared<HelperRegistry>(QFileInfo(VANTRO_NATIVE_HOST).absolutePath()));
    }

    void signsThroughThePage_data()
    {
        QTest::addColumn<QString>("keyType");
        QTest::addColumn<QString>("jws");
        QTest::newRow("EC P-256") << "EC"
                                  << "ES256";
        QTest::newRow("RSA-2048") << "RSA"
                                  << "RS256";
    }
    void signsThroughThePage()
    {
        QFETCH(QString, keyType);
        QFETCH(QString, jws);
        SoftHsmToken& token = keyType == "EC" ? *m_ec : *m_rsa;
        token.use();
        QCOMPARE(call("vantroUsbBridge.isAvailable()"), QJsonValue(true));

        const QJsonValue certificate =
            call("vantroUsbBridge.getSigningCertificate().then(r => r.certificate)");
        QCOMPARE(unbase64(certificate), token.certificate("sign"));

        const QString signCall = "vantroUsbBridge.sign({hash: '%1', hashFunction: 'SHA-256',"
                                 " certificate: '%2'}).then(r => r.signature)";
        const QJsonValue signature =
            call(signCall.arg(base64(sha256("contract")), certificate.toString()));
        QVERIFY2(verifySignature(token.certificate("sign"), sha256("contract"), unbase64(signature),
                                 "SHA256"),
                 qPrintable(signature.toString()));

        const QString batchCall = "vantroUsbBridge.signBatch({hashes: ['%1', '%2'], hashFunction:"
                                  " 'SHA-256', certificate: '%3'}).then(r => r.signatures)";
        const QJsonArray signatures =
            call(
                batchCall.arg(base64(sha256("one")), base64(sha256("two")), certificate.toString()))
                .toArray();
        QCOMPARE(signatures.size(), 2);
        QVERIFY(verifySignature(token.certificate("sign"), sha256("one"), unbase64(signatures[0]),
                                "SHA256"));
        QVERIFY(verifySignature(token.certificate("sign"), sha256("two"), unbase64(signatures[1]),
                                "SHA256"));

        const QString nonce = base64(QByteArray(32, '\x17'));
        const QJsonObject login =
            call("vantroUsbBridge.authenticate({challengeNonce: '" + nonce + "'})").toObject();
        QCOMPARE(login["algorithm"].toString(), jws);
        QCOMPARE(unbase64(login["unverifiedCertificate"]), token.certificate("auth"));
        QVERIFY(verifySignature(token.certificate("auth"),
                                sha256(sha256(kOrigin.toUtf8()) + sha256(nonce.toUtf8())),
                                unbase64(login["signature"]), "SHA256"));
    }

    // A refusal reaches the page with its code, and the page's own text for it.
    void wrongPinIsExplained()
    {
        m_ec->use();
        qputenv("VANTRO_SIGN_TEST_PIN", "0000");
        const auto restore = qScopeGuard([] { qputenv("VANTRO_SIGN_TEST_PIN", kPin); });
        const QJsonObject outcome =
            m_app.page().await("vantroUsbBridge.sign({hash: '" + base64(sha256("x")) +
                                   "', hashFunction: 'SHA-256', certificate: '" +
                                   base64(m_ec->certificate("sign")) + "'})",
                               120000);
        QCOMPARE(outcome.value("code").toString(), "ERR_VANTRO_PIN_INCORRECT");
    }

    void diagnosticsShowTheToken()
    {
        m_rsa->use();
        const QJsonObject report = call("vantroUsbBridge.diagnose()").toObject();
        const QJsonObject module = report["modules"][0].toObject();
        QCOMPARE(module["path"].toString(), kSoftHsmModule);
        QStringList labels;
        for (const QJsonValue& slot : module["slots"].toArray())
            labels << slot["token"]["label"].toString();
        QVERIFY2(labels.contains("Card RSA"), qPrintable(labels.join(',')));
        QCOMPARE(report["vantroRuntime"]["helperAvailable"].toBool(), true);
    }
};

QTEST_MAIN(WindowCardTest)
#include "tst_window_card.moc"
